"""power, maximum, minimum, clip and where: the singular points, ties, bounds and selection
rules that finite differences cannot check."""
import numpy as np
import pytest

import pymoira.tensor.tensor as T
from pymoira.tensor.tensor import QTensor


def _pair(a, b, grads=(True, True)):
    return (QTensor(np.array(a, dtype=np.float64), requires_grad=grads[0]),
            QTensor(np.array(b, dtype=np.float64), requires_grad=grads[1]))


def test_power_zero_exponent_and_zero_base():
    x, y = _pair([2.0, 0.0, 0.0, 3.0], [3.0, 0.0, 2.0, 0.0])
    r = T.power(x, y)
    np.testing.assert_array_equal(r.pdata, [8.0, 1.0, 0.0, 1.0])
    r.backward()
    # base: 3 * 2^2, and exactly 0 where the exponent is 0 (also at 0^0)
    np.testing.assert_allclose(x.grad.pdata, [12.0, 0.0, 0.0, 0.0], rtol=1e-12)
    # exponent: r * ln x, and exactly 0 (not NaN) where the base is 0
    np.testing.assert_allclose(y.grad.pdata, [8.0 * np.log(2.0), 0.0, 0.0, np.log(3.0)], rtol=1e-12)


@pytest.mark.parametrize("fn", [T.power, T.maximum, T.minimum, lambda a, b: a ** 2, lambda a, b: 2 ** a,
                                lambda a, b: T.power(a, QTensor(np.ones([1])))])
def test_shapes_must_be_equal(fn):
    a, b = _pair(np.ones([2, 3]), np.ones([3]))
    with pytest.raises(ValueError, match="^t1 and t2 shape should be equal$"):
        fn(a, b)
    assert a.grad is not None and not np.any(a.grad.pdata)


@pytest.mark.parametrize("fn,want_a,want_b", [(T.maximum, [0.5, 1.0, 0.0], [0.5, 0.0, 1.0]),
                                              (T.minimum, [0.5, 0.0, 1.0], [0.5, 1.0, 0.0])])
def test_ties_split_the_gradient(fn, want_a, want_b):
    a, b = _pair([1.0, 5.0, 3.0], [1.0, 2.0, 4.0])
    r = fn(a, b)
    r.backward(QTensor(np.array([1.0, 1.0, 1.0])))
    np.testing.assert_array_equal(a.grad.pdata, want_a)
    np.testing.assert_array_equal(b.grad.pdata, want_b)


def test_same_tensor_on_both_sides_of_maximum():
    a = QTensor(np.array([1.0, -2.0]), requires_grad=True)
    T.maximum(a, a).backward()
    np.testing.assert_array_equal(a.grad.pdata, [1.0, 1.0])


def test_extremes_propagate_nan():
    a, b = _pair([np.nan, 1.0], [0.0, np.nan], (False, False))
    for fn in (T.maximum, T.minimum):
        assert np.all(np.isnan(np.asarray(fn(a, b).pdata)))


def test_clip_gives_no_gradient_on_the_bounds():
    t = QTensor(np.array([1.0, 3.0, 5.0, 9.0]), requires_grad=True)
    r = T.clip(t, 3, 8)
    np.testing.assert_array_equal(r.pdata, [3.0, 3.0, 5.0, 8.0])
    r.backward()
    np.testing.assert_array_equal(t.grad.pdata, [0.0, 0.0, 1.0, 0.0])


@pytest.mark.parametrize("values,dtype,lo,hi,want_type", [
    ([1, 3, 5, 9], np.int64, 3, 8, "int64"),
    ([-2, 0, 7], np.int64, -1.0, 0.5, "float32"),  # a float bound makes an integer tensor float32
    ([-1.5, 0.25, 7.0], np.float32, -1, 0.5, "float32"),
    ([-1.5, 0.25, np.nan, np.inf], np.float64, -1.0, 0.5, "float64"),
], ids=str)
def test_clip_values(values, dtype, lo, hi, want_type):
    x = np.array(values).astype(dtype)
    out = T.clip(QTensor(x), lo, hi)
    assert out.data.dtype == want_type
    np.testing.assert_array_equal(out.pdata, np.clip(x.astype(np.float64), lo, hi).astype(want_type))


def test_where_accepts_numbers_and_masks():
    x = QTensor(np.array([-1.0, 2.0, -3.0]), requires_grad=True)
    r = T.where(x > 0, x, 0.0)
    np.testing.assert_array_equal(r.pdata, [0.0, 2.0, 0.0])
    r.backward()
    np.testing.assert_array_equal(x.grad.pdata, [0.0, 1.0, 0.0])
    np.testing.assert_array_equal(T.where(QTensor(np.array([0.0, np.nan])), 1, 2).pdata, [2.0, 1.0])


@pytest.mark.parametrize("t1,t2", [(None, 1.0), (1.0, None), (None, None)])
def test_where_rejects_none(t1, t2):
    c = QTensor(np.array([1.0, 0.0]))
    x = QTensor(np.array([1.0, 2.0]))
    args = [x if v is not None else None for v in (t1, t2)]
    with pytest.raises(ValueError, match=r"^t1 and t2 should not be None\.$"):
        T.where(c, *args)
    with pytest.raises(ValueError, match=r"^t1 and t2 should not be None\.$"):
        T.where("not even a tensor", *args)  # checked before anything else
