"""Module sums, mean and frobenius_norm beyond the op table: argument handling, tracking of the
axis forms, zero norms, _mean_match_shape and l2_norm."""
import numpy as np
import pytest

import pymoira.tensor.tensor as M
from helpers import leaf
from pymoira._core import Tensor
from pymoira.tensor.tensor import QTensor, frobenius_norm, mean, sums


def qt(a, requires_grad=False):
    return leaf(a, requires_grad)


@pytest.mark.parametrize("op", [sums, mean, frobenius_norm])
@pytest.mark.parametrize("args, kwargs, message", [
    ((), {}, "{}() takes at least 1 positional argument (0 given)"),
    ((), {"axis": 0}, "{}() takes at least 1 positional argument (0 given)"),
    ((1, 2, 3, 4), {}, "{}() takes at most 3 positional arguments (4 given)"),
    ((1,), {"bad": 0}, "{}() got an unexpected keyword argument 'bad'"),
    ((1, 0), {"axis": 0}, "{}() got multiple values for argument 'axis'"),
])
def test_wrong_argument_counts_raise_the_interpreters_message(op, args, kwargs, message):
    with pytest.raises(TypeError) as info:
        op(*args, **kwargs)
    assert str(info.value) == message.format(op.__name__)


def test_keyword_arguments():
    y = sums(t=QTensor(np.arange(6.0).reshape(2, 3)), axis=1, keepdims=True)
    np.testing.assert_array_equal(y.pdata, [[3], [12]])


def test_mean_over_an_axis_tracks_on_any_truthy_flag():
    """(The whole mean tracks only on the flag True itself: a row of the op table.)"""
    t = qt(np.ones((2, 3)))
    t.requires_grad = 1
    assert mean(t, 0).requires_grad is True and len(mean(t, 0).nodes) == 1


def test_frobenius_norm_axis_checks_and_device():
    t = qt(np.ones((2, 3)))
    with pytest.raises(AssertionError):
        frobenius_norm(t, 2)
    with pytest.raises(AssertionError):
        frobenius_norm(t, -3)
    assert frobenius_norm(t).device == 0 and frobenius_norm(t, -1).device == 0


@pytest.mark.parametrize("axis", [None, 0, 1])
def test_frobenius_gradient_at_zero_is_zero(axis):
    t = qt(np.zeros((2, 3)), requires_grad=True)
    frobenius_norm(t, axis).backward()
    assert np.array_equal(t.grad.pdata, np.zeros((2, 3)))


@pytest.mark.parametrize("op", [sums, mean])
def test_backend_rejects_bad_axes(op):
    t = qt(np.ones((2, 3)), requires_grad=True)
    with pytest.raises(IndexError):
        op(t, 2)
    with pytest.raises(TypeError):
        op(t, 1.0)
    with pytest.raises(TypeError):
        op(t, 0, False, 1)


@pytest.mark.parametrize("shape, axis", [([3, 2], 0), ([3, 2], -1), ([2, 3, 4], 1), ([4], 0)])
def test_mean_match_shape(shape, axis, rng):
    reduced = [1 if k == axis % len(shape) else e for k, e in enumerate(shape)]
    x = rng.standard_normal(reduced)
    out, n = M._mean_match_shape(Tensor(x.reshape([e for e in reduced if e != 1] or [1])), shape, axis)
    assert isinstance(out, Tensor) and n == shape[axis]
    np.testing.assert_array_equal(np.array(out), np.broadcast_to(x, shape))
    with pytest.raises(AssertionError):
        M._mean_match_shape(Tensor(x), shape, len(shape))


def test_qtensor_l2_norm_returns_the_backend_value():
    t = qt([[3.0, 0.0], [0.0, 4.0]], requires_grad=True)
    r = t.l2_norm()
    assert isinstance(r, Tensor) and r.shape == [1]
    assert np.array(r).tolist() == [5.0]
