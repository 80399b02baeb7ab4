"""Module reductions: sums, mean, frobenius_norm and _mean_match_shape, with their edges and
gradients."""
import numpy as np
import pytest

import pymoira.tensor.tensor as M
from helpers import leaf, numeric_grad
from pymoira._core import Tensor
from pymoira.tensor.tensor import QTensor, frobenius_norm, mean, sums


def qt(a, requires_grad=False):
    return leaf(a, requires_grad)


def np_frobenius(x, axis=None, keepdims=False):
    return np.sqrt(np.sum(x * x, axis=axis, keepdims=keepdims))


OPS = [(sums, np.sum), (mean, np.mean), (frobenius_norm, np_frobenius)]
CASES = [([2, 3], None, False), ([2, 3], 0, False), ([2, 3], -1, True), ([2, 3, 4], 1, False),
         ([2, 3, 4], -3, True), ([5], 0, False), ([3, 1, 2], 1, True), ([4], None, True)]


@pytest.mark.parametrize("op, ref", OPS, ids=["sums", "mean", "frobenius_norm"])
@pytest.mark.parametrize("shape, axis, keepdims", CASES)
def test_forward_and_gradient(op, ref, shape, axis, keepdims, rng):
    x = rng.standard_normal(shape)
    t = qt(x, requires_grad=True)
    y = op(t, axis, keepdims)
    expected = np.atleast_1d(ref(x, axis=axis, keepdims=keepdims and axis is not None))
    assert y.shape == list(expected.shape)
    np.testing.assert_allclose(y.pdata, expected, rtol=1e-12)
    w = rng.standard_normal(y.shape)
    y.backward(QTensor(w))
    fd = numeric_grad(lambda v: op(qt(v), axis, keepdims).pdata, x, w)
    np.testing.assert_allclose(t.grad.pdata, fd, rtol=1e-6, atol=1e-8)


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


def test_keyword_arguments_and_float32():
    x = np.arange(6, dtype=np.float32).reshape(2, 3)
    y = sums(t=QTensor(x), axis=1, keepdims=True)
    assert y.shape == [2, 1] and y.pdata.dtype == np.float32
    np.testing.assert_array_equal(y.pdata, [[3], [12]])
    assert mean(QTensor(x.astype(np.int64))).pdata.dtype == np.float32


@pytest.mark.parametrize("op, name", [(sums, "sums grad [2, 3]"), (mean, "mean grad"), (frobenius_norm, "")])
@pytest.mark.parametrize("axis", [None, 0, 1])
def test_edge_names(op, name, axis):
    t = qt(np.ones((2, 3)), requires_grad=True)
    assert [(n.tensor is t, n.name) for n in op(t, axis).nodes] == [(True, name)]


@pytest.mark.parametrize("op", [sums, mean, frobenius_norm])
@pytest.mark.parametrize("axis", [None, 0])
def test_no_grad_and_untracked_inputs(op, axis):
    t = qt(np.ones((2, 3)), requires_grad=True)
    QTensor.NO_GRAD = True
    y = op(t, axis)
    assert y.requires_grad is False and y.nodes == []
    QTensor.NO_GRAD = False
    y = op(qt(np.ones((2, 3))), axis)
    assert y.requires_grad is False and y.nodes == []


def test_whole_mean_tracks_only_true_itself():
    t = qt(np.ones((2, 3)))
    t.requires_grad = 1
    assert mean(t).requires_grad is False and mean(t).nodes == []
    assert mean(t, 0).requires_grad is True
    assert sums(t).requires_grad is True


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
