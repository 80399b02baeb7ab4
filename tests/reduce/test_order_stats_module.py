"""Module min/max/median, std/var, sort/argsort/topK/argtopK/cumsum/log_softmax: gradients,
tie sharing, edge names, tracking patterns and the worked examples."""
import numpy as np
import pytest

import pymoira.tensor.tensor as M
from helpers import leaf, numeric_grad
from pymoira._core import Tensor
from pymoira.tensor.tensor import QTensor


def np_log_softmax(x, axis):
    m = x.max(axis, keepdims=True)
    return x - m - np.log(np.exp(x - m).sum(axis, keepdims=True))


def np_topk(x, k, axis, largest=True):
    order = np.argsort(-x if largest else x, axis=axis, kind="stable")
    return np.take_along_axis(x, np.take(order, np.arange(k), axis=axis), axis)


# (name, module call, numpy reference) over a float64 input without ties
GRADIENT_CASES = [
    ("max", lambda t: M.max(t), lambda x: np.max(x, keepdims=True).reshape(1)),
    ("max axis", lambda t: M.max(t, 1), lambda x: np.max(x, 1)),
    ("min axis keepdims", lambda t: M.min(t, -1, True), lambda x: np.min(x, -1, keepdims=True)),
    ("min", lambda t: M.min(t), lambda x: np.min(x).reshape(1)),
    ("var", lambda t: M.var(t), lambda x: np.var(x, ddof=1).reshape(1)),
    ("var biased axis", lambda t: M.var(t, 0, False, False), lambda x: np.var(x, 0)),
    ("var axis keepdims", lambda t: M.var(t, -1, True), lambda x: np.var(x, -1, ddof=1, keepdims=True)),
    ("std", lambda t: M.std(t, unbiased=False), lambda x: np.std(x).reshape(1)),
    ("std axis", lambda t: M.std(t, 1), lambda x: np.std(x, 1, ddof=1)),
    ("std axis keepdims", lambda t: M.std(t, 0, True), lambda x: np.std(x, 0, ddof=1, keepdims=True)),
    ("topK", lambda t: M.topK(t, 2, 1), lambda x: np_topk(x, 2, 1)),
    ("topK smallest", lambda t: M.topK(t, 3, 0, False), lambda x: np_topk(x, 3, 0, False)),
    ("cumsum", lambda t: M.cumsum(t), lambda x: np.cumsum(x, -1)),
    ("cumsum axis 0", lambda t: M.cumsum(t, 0), lambda x: np.cumsum(x, 0)),
    ("log_softmax", lambda t: M.log_softmax(t, 1), lambda x: np_log_softmax(x, 1)),
    ("log_softmax axis 0", lambda t: M.log_softmax(t, -2), lambda x: np_log_softmax(x, 0)),
]


@pytest.mark.parametrize("name, op, ref", GRADIENT_CASES, ids=[c[0] for c in GRADIENT_CASES])
def test_forward_and_gradient(name, op, ref, rng):
    x = rng.permutation(20).reshape(4, 5) + rng.standard_normal((4, 5)) * 0.1  # distinct values
    t = leaf(x)
    y = op(t)
    np.testing.assert_allclose(y.pdata, ref(x), rtol=1e-12, atol=1e-12)
    w = rng.standard_normal(y.shape)
    y.backward(QTensor(w))
    fd = numeric_grad(lambda v: op(leaf(v, False)).pdata, x, w)
    np.testing.assert_allclose(t.grad.pdata, fd, rtol=1e-6, atol=1e-7)


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


RESULT_NAMES = [  # (call, edge name, tracking: combined / identity / copy / own / none)
    (lambda t: M.max(t, 1), "[2, 3] max grad", "combined"),
    (lambda t: M.min(t), "[2, 3] min grad", "identity"),
    (lambda t: M.var(t, 0), "", "combined"),
    (lambda t: M.std(t), "", "combined"),
    (lambda t: M.topK(t, 2), "t1 grad [2, 2] topK [2, 2]", "copy"),
    (lambda t: M.cumsum(t), "input grad [2, 3] cumsumgrad [2, 3]", "copy"),
    (lambda t: M.log_softmax(t, 1), "log_softmax grad tensor of [2, 3]", "own"),
    (lambda t: M.median(t), None, "none"),
    (lambda t: M.median(t, [1], False), None, "none"),
    (lambda t: M.sort(t, 1), None, "none"),
    (lambda t: M.argsort(t, 1, True), None, "none"),
    (lambda t: M.argtopK(t, 2), None, "none"),
]


@pytest.mark.parametrize("call, name, mode", RESULT_NAMES)
@pytest.mark.parametrize("flag, no_grad", [(True, False), (True, True), (1, False), (False, False)])
def test_edges_and_tracking(call, name, mode, flag, no_grad):
    t = QTensor(np.arange(6.0).reshape(2, 3), requires_grad=flag)
    QTensor.NO_GRAD = no_grad
    y = call(t)
    QTensor.NO_GRAD = False
    tracked = {"combined": bool(flag) and not no_grad, "identity": flag is True and not no_grad,
               "copy": bool(flag), "own": bool(flag) and not no_grad, "none": False}[mode]
    edged = {"own": bool(flag), "copy": bool(flag)}.get(mode, tracked)
    assert bool(y.requires_grad) is tracked
    if mode == "copy":
        assert y.requires_grad is flag
    assert [(n.tensor is t, n.name) for n in y.nodes] == ([(True, name)] if edged else [])
    assert y.device == 0


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
