"""QTensor fills and whole-tensor queries: fill_, the fill_rand_ family, all, any, argmax, argmin."""
import numpy as np
import pytest

from pymoira._core import Tensor, moira
from pymoira.tensor.tensor import QTensor, zeros

A = [[1.3398, 0.2663, -0.2686, 0.2450], [-0.7401, -0.8805, -0.3402, -1.1936],
     [0.4907, -1.3948, -1.0691, -0.3132], [-1.6092, 0.5419, -0.2993, 0.3195]]

FILLS = {  # name: (call, check of the drawn values)
    "uniform with bound": (lambda t: t.fill_rand_uniform_with_bound_(-2, 3), lambda v: (v >= -2).all() and (v < 3).all()),
    "uniform": (lambda t: t.fill_rand_uniform_(), lambda v: (v >= 0).all() and (v < 1).all()),
    "uniform scaled": (lambda t: t.fill_rand_uniform_(-4), lambda v: (v <= 0).all() and (v > -4).all()),
    "signed uniform": (lambda t: t.fill_rand_signed_uniform_(2), lambda v: (abs(v) <= 2).all() and v.min() < -1.5),
    "normal": (lambda t: t.fill_rand_normal_(), lambda v: abs(v.mean()) < 0.05 and abs(v.std() - 1) < 0.05),
    "normal exact": (lambda t: t.fill_rand_normal_(3, 2, False), lambda v: abs(v.mean() - 3) < 0.1 and abs(v.std() - 2) < 0.1),
    "binary": (lambda t: t.fill_rand_binary_(), lambda v: set(np.unique(v)) == {0, 1} and abs(v.mean() - 0.5) < 0.05),
    "binary 0.8": (lambda t: t.fill_rand_binary_(0.8), lambda v: abs(v.mean() - 0.2) < 0.05),
}


@pytest.mark.parametrize("dtype", [np.float32, np.float64, np.complex64, np.complex128])
@pytest.mark.parametrize("name", list(FILLS))
def test_random_fills(name, dtype):
    """Complex tensors: both parts drawn, as the real tensor of the interleaved parts would be."""
    fill, check = FILLS[name]
    t = QTensor(np.zeros((50, 80), dtype), requires_grad=True)
    grad, nodes = t.grad, t.nodes
    moira.seed(7)
    assert fill(t) is None
    first = t.pdata
    parted = first.dtype.kind == "c"
    assert first.dtype == dtype and all(check(p.astype(np.float64)) for p in ((first.real, first.imag) if parted else (first,)))
    if parted:
        parts = QTensor(np.zeros((50, 160), first.real.dtype))
        moira.seed(7)
        fill(parts)
        np.testing.assert_array_equal(first.view(first.real.dtype), parts.pdata)
    assert t.requires_grad is True and t.nodes is nodes and t.grad is grad and not grad.pdata.any()
    moira.seed(7)
    fill(t)
    np.testing.assert_array_equal(t.pdata, first)  # a seeded program repeats itself
    fill(t)
    assert not np.array_equal(t.pdata, first)


def test_fills_write_only_their_own_tensor():
    base = Tensor(np.zeros((4, 4)))
    view = base.reshape([16])
    QTensor(view).fill_rand_normal_()
    assert not np.array(base).any() and np.array(view).any()
    b = QTensor(np.zeros(6, dtype=np.int64))
    b.fill_rand_binary_()
    assert b.pdata.dtype == np.int64 and set(np.unique(b.pdata)) <= {0, 1}


@pytest.mark.parametrize("call, exc, match", [
    (lambda t: t.fill_rand_uniform_with_bound_(3, -2), ValueError, "lower bound 3 is above the upper bound -2"),
    (lambda t: t.fill_rand_normal_(0, -1), ValueError, "standard deviation must be >= 0"),
    (lambda t: t.fill_rand_uniform_(float("nan")), ValueError, "must be finite"),
    (lambda t: t.fill_rand_signed_uniform_(float("inf")), ValueError, "must be finite"),
    (lambda t: t.fill_rand_binary_(float("nan")), ValueError, "must not be NaN"),
    (lambda t: t.fill_rand_normal_("1"), TypeError, "expected a number"),
    (lambda t: QTensor(np.zeros(3, np.int64)).fill_rand_normal_(), TypeError, "int64"),
    (lambda t: QTensor(np.zeros(3, bool)).fill_rand_uniform_(), TypeError, "bool"),
    (lambda t: t.argmax(dim=0), TypeError, None),
    (lambda t: t.argmin([2], False), IndexError, "axis 2"),
])
def test_bad_fills_and_queries(call, exc, match):
    t = QTensor(np.ones((2, 3)))
    with pytest.raises(exc, match=match):
        call(t)
    np.testing.assert_array_equal(t.pdata, np.ones((2, 3)))  # nothing was written


def test_fill_and_queries():
    t = QTensor(np.array(A), requires_grad=True)
    assert t.argmax().pdata.tolist() == [0] and t.argmax([0], True).pdata.tolist() == [[0, 3, 0, 3]]
    assert t.argmin([-1], False).pdata.tolist() == [2, 3, 1, 0] and t.argmin().pdata.tolist() == [12]
    assert t.argmax().requires_grad is False and t.argmax().nodes == []
    r = t.fill_(42)
    assert r is not t and r.data is t.data and r.requires_grad is False and r.nodes == []
    assert (t.pdata == 42).all() and t.requires_grad is True
    z = zeros([2, 3])
    assert z.all() is False and z.any() is False
    z.fill_(1.0)
    assert z.all() is True and z.any() is True
    assert QTensor([0.0, float("nan")]).any() is True and QTensor(np.zeros(0)).all() is True
