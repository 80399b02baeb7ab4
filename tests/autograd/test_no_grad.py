"""no_grad: a context manager and decorator that sets QTensor.NO_GRAD and restores the value it
replaced, nested, re-entered, and when an exception passes through."""
import gc
import weakref

import numpy as np
import pytest

from pymoira.tensor.tensor import QTensor, no_grad


def _product_tracks():
    x = QTensor(np.ones(2), requires_grad=True)
    return (x * 2).requires_grad


@pytest.mark.parametrize("before", [False, True, 0, "yes"])
def test_context_sets_and_restores_the_previous_object(before):
    QTensor.NO_GRAD = before
    with no_grad() as ctx:
        assert QTensor.NO_GRAD is True and not _product_tracks()
        with ctx:  # the same object entered again
            with no_grad():
                assert QTensor.NO_GRAD is True
            assert QTensor.NO_GRAD is True
        assert QTensor.NO_GRAD is True
    assert QTensor.NO_GRAD is before


def test_an_exception_passing_through_restores():
    with pytest.raises(KeyError):
        with no_grad():
            raise KeyError("x")
    assert QTensor.NO_GRAD is False and _product_tracks()


@pytest.mark.parametrize("raises", [False, True])
def test_decorated_functions_and_methods(raises):
    @no_grad()
    def f(x, scale=1.0):
        """doc of f"""
        if raises:
            raise ValueError("inside")
        return x * scale, QTensor.NO_GRAD

    class Model:
        @no_grad()
        def predict(self, x):
            return self, QTensor.NO_GRAD

    assert f.__name__ == "f" and f.__doc__ == "doc of f" and f.__wrapped__.__name__ == "f"
    x = QTensor(np.ones(2), requires_grad=True)
    if raises:
        with pytest.raises(ValueError, match="inside"):
            f(x)
    else:
        y, flag = f(x, scale=3.0)
        assert flag is True and not y.requires_grad
        np.testing.assert_array_equal(y.pdata, [3.0, 3.0])
        m = Model()
        assert m.predict(x) == (m, True)
    assert QTensor.NO_GRAD is False


def test_decorating_a_non_callable_is_refused():
    with pytest.raises(TypeError, match="callable"):
        no_grad()(3)


def test_a_decorated_function_in_a_cycle_is_collected():
    def make():
        box = {}

        @no_grad()
        def f():
            return box

        box["f"] = f  # f -> its closure -> box -> f
        return weakref.ref(box["f"])

    ref = make()
    gc.collect()
    assert ref() is None
