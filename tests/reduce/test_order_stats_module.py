"""Module min/max/median, std/var, sort/argsort/topK/argtopK/cumsum/log_softmax beyond the op
table: inputs without axes, tie sharing, the worked examples and bad arguments."""
import numpy as np
import pytest

import pymoira.tensor.tensor as M
from helpers import leaf, numeric_grad
from pymoira._core import Tensor
from pymoira.tensor.tensor import QTensor


# Inputs without axes: every contribution must come back in the input's shape [].
ZERO_D_CASES = {
    "sums": lambda t: M.sums(t), "sums axis": lambda t: M.sums(t, 0), "mean": lambda t: M.mean(t),
    "mean axis": lambda t: M.mean(t, -1), "frobenius_norm": lambda t: M.frobenius_norm(t),
    "max": lambda t: M.max(t), "min": lambda t: M.min(t), "max axis": lambda t: M.max(t, 0, True),
    "min axis": lambda t: M.min(t, 0), "var": lambda t: M.var(t, unbiased=False),
    "topK": lambda t: M.topK(t, 1, 0), "cumsum": lambda t: M.cumsum(t, 0), "log_softmax": lambda t: M.log_softmax(t, 0),
    "exp": M.exp, "clip": lambda t: M.clip(t, 0, 1), "times [3]": lambda t: t * QTensor(np.arange(3.0)),
    "tile": lambda t: M.tile(t, [3]), "where": lambda t: M.where(QTensor(np.array(True)), t, QTensor(np.zeros(2))),
    "unsqueeze": lambda t: M.unsqueeze(t, 0), "masked_fill": lambda t: M.masked_fill(t, QTensor(np.array([1, 0]) > 0), 0),
}


@pytest.mark.parametrize("name", ZERO_D_CASES)
def test_inputs_without_axes_get_gradients_without_axes(name):
    op = ZERO_D_CASES[name]
    t = leaf(np.array(0.3))
    op(t).backward()
    assert t.grad.shape == []
    fd = numeric_grad(lambda v: op(leaf(v, False)).pdata, np.array(0.3), 1.0)
    np.testing.assert_allclose(t.grad.pdata, fd, rtol=1e-6, atol=1e-8)


@pytest.mark.parametrize("op, x, axis, keepdims, g, want", [
    (M.max, [[1, 5], [5, 2]], None, False, [3.0], [[0, 1.5], [1.5, 0]]),  # shared among ties
    (M.max, [[1, 5, 5], [3, 2, 0]], 1, False, [2.0, 7.0], [[0, 2, 2], [7, 0, 0]]),  # each tie in full
    (M.min, [[4, 1, 1], [1, 2, 1]], 0, True, [[1.0, 2.0, 3.0]], [[0, 2, 3], [1, 0, 3]]),
    (M.min, [[2, 2], [2, 2]], None, False, [1.0], np.full((2, 2), 0.25)),
])
def test_ties_follow_the_sharing_rule(op, x, axis, keepdims, g, want):
    t = leaf(x)
    y = op(t, axis, keepdims)
    y.backward(QTensor(np.array(g)))
    np.testing.assert_array_equal(t.grad.pdata, want)


def test_var_and_std_worked_examples():
    for unbiased, want in ((True, [-1, -1 / 3, 1 / 3, 1]), (False, [-0.75, -0.25, 0.25, 0.75])):
        t = leaf([1.0, 2.0, 3.0, 4.0])
        M.var(t, unbiased=unbiased).backward()
        np.testing.assert_allclose(t.grad.pdata, want, rtol=1e-12)
    t = leaf([1.0, 2.0, 3.0, 4.0])
    M.std(t).backward()
    np.testing.assert_allclose(t.grad.pdata, (np.arange(1, 5) - 2.5) / (3 * np.sqrt(5 / 3)), rtol=1e-12)
    # only the value True divides the gradient by n - 1; the forward value takes unbiased's truth
    t = leaf([1.0, 2.0, 3.0, 4.0])
    y = M.var(t, unbiased=1)
    np.testing.assert_allclose(y.pdata, [5 / 3])
    y.backward()
    np.testing.assert_allclose(t.grad.pdata, [-0.75, -0.25, 0.25, 0.75], rtol=1e-12)
    b = leaf(np.arange(20.0).reshape(4, 5) ** 1.5)
    M.std(b, 1, False, False).backward(QTensor(np.arange(1.0, 5.0)))
    x = b.pdata
    want = (x - x.mean(1, keepdims=True)) / (5 * x.std(1, keepdims=True)) * np.arange(1.0, 5.0)[:, None]
    np.testing.assert_allclose(b.grad.pdata, want, rtol=1e-12)


def test_axis_helpers():
    x = Tensor(np.array([1.0, 2.0]))
    out, n = M.var_match_shape(x, [2, 3], 1)
    assert n == 3 and np.array_equal(np.array(out), [[1, 1, 1], [2, 2, 2]])
    assert np.array(M._min_max_match_shape(Tensor(np.array([4.0])), [2, 2], None)).tolist() == [[4, 4], [4, 4]]
    inputs = Tensor(np.array([[1.0, 5.0], [5.0, 2.0]]))
    np.testing.assert_array_equal(np.array(M._min_max_grad(Tensor(np.array([2.0])), 5.0, inputs, None)),
                                  [[0, 1], [1, 0]])
    g = M._var_grad_withaxis(Tensor(np.ones(2)), leaf([[1.0, 3.0], [2.0, 2.0]]), [2, 2], 1, False, True)
    np.testing.assert_allclose(np.array(g), [[-2, 2], [0, 0]])
    with pytest.raises(AssertionError):
        M.var_match_shape(x, [2, 3], 2)


def test_worked_examples_of_orderings():
    a = np.random.default_rng(3).standard_normal((3, 8))
    s, i = M.sort(QTensor(a), 1, False), M.argsort(QTensor(a), 1, False)
    np.testing.assert_array_equal(s.pdata, np.sort(a, 1))
    np.testing.assert_array_equal(i.pdata, np.argsort(a, 1))
    x = leaf(np.random.default_rng(4).standard_normal((2, 5, 1, 2)))
    y = M.topK(x, 3, 1)
    assert y.shape == [2, 3, 1, 2] and len(y.nodes) == 1 and M.argtopK(x, 3, 1).nodes == []
    np.testing.assert_array_equal(M.cumsum(QTensor([[1, 2, 3], [4, 5, 6]])).pdata, [[1, 3, 6], [4, 9, 15]])
    t = QTensor(np.ones((2, 3, 4)))
    np.testing.assert_array_equal(M.log_softmax(t, -1).pdata, M.log_softmax(t, 2).pdata)
    for axis in (3, -4):
        with pytest.raises(AssertionError):
            M.log_softmax(t, axis)
    m = M.median(leaf([[1.0, 4.0, 2.0, 8.0], [3.0, 3.0, 0.0, 9.0]]), [1], False)
    assert m.requires_grad is False
    np.testing.assert_array_equal(m.pdata, [3.0, 3.0])


@pytest.mark.parametrize("call, exc", [
    (lambda t: M.max(t, 2), IndexError), (lambda t: M.min(t, [0]), TypeError), (lambda t: M.var(t, 0.5), TypeError),
    (lambda t: M.median(t, [5]), IndexError), (lambda t: M.median(t=t), None), (lambda t: M.topK(t, 9), ValueError),
    (lambda t: M.sort(t), TypeError), (lambda t: M.log_softmax(t), TypeError), (lambda t: M.cumsum(t, 0, 1), TypeError),
    (lambda t: M.max(QTensor(np.zeros((0, 2)))), ValueError), (lambda t: M.median(QTensor(np.zeros(0))), ValueError),
])
def test_bad_arguments(call, exc):
    t = leaf(np.ones((2, 3)))
    if exc is None:
        call(t)
        return
    with pytest.raises(exc):
        call(t)
