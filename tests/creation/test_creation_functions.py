"""Module creation functions: values against numpy, leaves only, requires_grad handling,
to_tensor and zeros."""
import numpy as np
import pytest

from pymoira._core import moira
from pymoira.tensor import tensor as T
from pymoira.tensor.tensor import QTensor
from helpers import ABSENT_GPU


def assert_leaf(t, requires_grad=False):
    assert isinstance(t, QTensor) and t.nodes == [] and t.device == 0
    assert bool(t.requires_grad) is requires_grad
    if requires_grad:
        assert t.grad.shape == t.shape and not t.grad.pdata.any()
    else:
        assert t.grad is None


@pytest.mark.parametrize("make, expected", [
    (lambda: T.arange(2, 30, 4), np.arange(2, 30, 4)),
    (lambda: T.arange(1, 61), np.arange(1, 61)),
    (lambda: T.arange(0.5, -1, -0.25), np.arange(0.5, -1, -0.25)),
    (lambda: T.linspace(-1, 1, 5), np.linspace(-1, 1, 5)),
    (lambda: T.logspace(0, 3, 4, 2), np.logspace(0, 3, 4, base=2)),
    (lambda: T.eye(3), np.eye(3)),
    (lambda: T.eye(4, -2), np.eye(4, k=-2)),
    (lambda: T.eye(size=3, offset=1), np.eye(3, k=1)),
    (lambda: T.diag(QTensor([1.0, 2.0]), 1), np.diag([1.0, 2.0], 1)),
    (lambda: T.diag(QTensor(np.arange(9.0).reshape(3, 3)), -1), np.diag(np.diag(np.arange(9.0).reshape(3, 3), -1), -1)),
    (lambda: T.ones([2, 3]), np.ones((2, 3))),
    (lambda: T.full([2, 2], 4.5), np.full((2, 2), 4.5)),
    (lambda: T.full(shape=[3], value=-1, device=0), np.full(3, -1.0)),
    (lambda: T.zeros([2, 3, 4]), np.zeros((2, 3, 4))),
    (lambda: T.zeros([]), np.zeros(())),
    (lambda: T.floor(QTensor([-1.5, 0.2, 2.0])), np.floor([-1.5, 0.2, 2.0])),
    (lambda: T.ceil(QTensor([-1.5, 0.2, 2.0])), np.ceil([-1.5, 0.2, 2.0])),
])
def test_values_and_leaves(make, expected):
    t = make()
    assert t.shape == list(expected.shape)
    np.testing.assert_allclose(t.pdata, expected, rtol=1e-6)
    assert_leaf(t)


def test_empty_has_the_shape():
    t = T.empty([3, 2])
    assert t.shape == [3, 2]
    assert_leaf(t)


@pytest.mark.parametrize("make", [
    lambda rg: T.arange(0, 3, requires_grad=rg), lambda rg: T.linspace(0, 1, 3, requires_grad=rg),
    lambda rg: T.logspace(0, 1, 3, 10, requires_grad=rg), lambda rg: T.eye(3, requires_grad=rg),
    lambda rg: T.diag(QTensor([1.0, 2.0], requires_grad=True), requires_grad=rg),
    lambda rg: T.randu([2, 3], requires_grad=rg), lambda rg: T.randn([2, 3], requires_grad=rg),
])
@pytest.mark.parametrize("flag, tracked", [(False, False), (True, True), (1, True), (0, False)])
def test_requires_grad_argument(make, flag, tracked):
    t = make(flag)
    assert t.requires_grad is flag
    assert_leaf(t, tracked)


@pytest.mark.parametrize("like, value", [(T.ones_like, 1), (T.zeros_like, 0), (lambda t: T.full_like(t, 7), 7)])
def test_like_functions_copy_only_the_value_true(like, value):
    src = QTensor(np.arange(6.0).reshape(2, 3), requires_grad=True)
    out = like(src)
    assert out.requires_grad is True and out.shape == [2, 3] and out.data.dtype == "float64"
    assert_leaf(out, True)
    out.backward()
    assert not src.grad.pdata.any()  # no edge back to src
    assert_leaf(like(QTensor([1.0, 2.0], requires_grad=1)))
    ints = like(QTensor(np.array([[1, 2]])))
    assert_leaf(ints)
    assert ints.data.dtype == "int64"
    np.testing.assert_array_equal(ints.pdata, [[value, value]])


@pytest.mark.parametrize("fn", [T.floor, T.ceil, lambda t: T.diag(t)])
def test_functions_of_tracked_tensors_are_untracked_leaves(fn):
    assert_leaf(fn(QTensor(np.ones((2, 2)) * 1.5, requires_grad=True)))


def test_random_leaves_follow_the_seed():
    moira.seed(99)
    a = T.randn([50])
    moira.seed(99)
    b = T.randn([50])
    np.testing.assert_array_equal(a.pdata, b.pdata)
    u = T.randu([1000]).pdata
    assert u.min() >= 0 and u.max() < 1


@pytest.mark.parametrize("call, exc", [
    (lambda: T.zeros([2, 3], ABSENT_GPU), RuntimeError), (lambda: T.ones([2, 3], ABSENT_GPU), RuntimeError),
    (lambda: T.arange(0, 3, device=ABSENT_GPU + 1), RuntimeError), (lambda: T.zeros([2], 5), ValueError),
    (lambda: T.zeros([-1]), ValueError), (lambda: T.zeros([1.5]), TypeError), (lambda: T.zeros(None), TypeError),
    (lambda: T.full([2], "a"), TypeError), (lambda: T.linspace(0, 1, -1), ValueError),
    (lambda: T.eye(-2), ValueError), (lambda: T.arange(0, 1, 0), ValueError),
    (lambda: T.diag(QTensor(np.ones((2, 2, 2)))), ValueError), (lambda: T.diag([1.0, 2.0]), TypeError),
    (lambda: T.ones_like(np.ones(2)), TypeError), (lambda: T.floor(None), TypeError),
    (lambda: T.randn([2], device="0"), TypeError),
    # beyond int64, or beyond the int a device number is kept in
    (lambda: T.zeros([2], 2 ** 32), RuntimeError), (lambda: T.eye(2, 0, -2 ** 32), ValueError),
    (lambda: QTensor(T.ones([2]).data, device=2 ** 32), ValueError), (lambda: T.linspace(0, 1, 2 ** 64), OverflowError),
    (lambda: T.logspace(0, 1, -2 ** 64, 10), OverflowError), (lambda: T.eye(2 ** 64), OverflowError),
    (lambda: T.diag(QTensor(np.ones(2)), 2 ** 63), OverflowError), (lambda: T.empty([0, 2 ** 62, 2 ** 62]), ValueError),
])
def test_backend_errors_pass_through(call, exc):
    with pytest.raises(exc):
        call()
