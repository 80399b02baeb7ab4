"""Unary functions: edge names, exact gradients at known points, element types, rounding and sign,
argument handling."""
import numpy as np
import pytest

import pymoira.tensor.tensor as T
from pymoira.tensor.tensor import QTensor

FLOATING = ["reciprocal", "exp", "acos", "asin", "atan", "tanh", "sinh", "cosh", "log", "sqrt", "sin", "cos", "tan"]
KEEPING = ["neg", "abs", "square"]


def _grad(fn, values, seed=None):
    x = QTensor(np.array(values, dtype=np.float64), requires_grad=True)
    y = fn(x)
    y.backward(None if seed is None else QTensor(np.array(seed, dtype=np.float64)))
    return np.asarray(x.grad.pdata)


@pytest.mark.parametrize("fn,name", [(T.sin, "sin grad of tensor [2, 3]"), (T.square, "square grad"),
                                     (T.reciprocal, "reciprocal [2, 3] grad"), (lambda x: -x, "")]
                         + [(getattr(T, n), "") for n in ("neg", "exp", "acos", "asin", "atan", "tanh", "sinh", "cosh",
                                                          "abs", "log", "sqrt", "cos", "tan")])
def test_edge_names(fn, name):
    x = QTensor(np.ones([2, 3]), requires_grad=True)
    assert [(n.name, n.tensor is x) for n in fn(x).nodes] == [(name, True)]


@pytest.mark.parametrize("fn,x,seed,want", [
    (T.reciprocal, [2.0], [3.0], [-0.75]),
    (T.acos, [0.0], [2.0], [-2.0]),
    (T.asin, [0.0], [2.0], [2.0]),
    (T.atan, [1.0], [3.0], [1.5]),
    (T.abs, [0.0, -2.0, 3.0], None, [0.0, -1.0, 1.0]),
    (T.sqrt, [4.0], None, [0.25]),
    (T.square, [3.0], [0.5], [3.0]),
    (T.neg, [5.0], [2.0], [-2.0]),
], ids=lambda v: getattr(v, "__name__", None))
def test_gradient_at_documented_points(fn, x, seed, want):
    np.testing.assert_allclose(_grad(fn, x, seed), want, rtol=1e-12)


@pytest.mark.parametrize("name", FLOATING)
@pytest.mark.parametrize("dtype", [np.int64, np.bool_])
def test_floating_functions_of_integers_give_float32(name, dtype):
    x = np.array([1, 0, 1] if dtype == np.bool_ else [1, 2, 3]).astype(dtype)
    if name in ("acos", "asin"):
        x = np.array([0, 1, 0]).astype(dtype)
    out = getattr(T, name)(QTensor(x))
    assert out.data.dtype == "float32"
    ref = getattr(np, {"acos": "arccos", "asin": "arcsin", "atan": "arctan"}.get(name, name))
    with np.errstate(divide="ignore"):
        want = ref(x.astype(np.float64))
    np.testing.assert_allclose(np.asarray(out.pdata), want.astype(np.float32), rtol=2e-6)


@pytest.mark.parametrize("name,ref", [("neg", np.negative), ("abs", np.abs), ("square", np.square),
                                      ("sign", np.sign), ("round", np.round), ("floor", np.floor),
                                      ("ceil", np.ceil)])
@pytest.mark.parametrize("dtype", [np.int64, np.bool_])
def test_integer_valued_functions_keep_integers(name, ref, dtype):
    x = np.array([1, 0, 1]).astype(dtype) if dtype == np.bool_ else np.array([-3, 0, 7])
    out = getattr(T, name)(QTensor(x))
    assert out.data.dtype == "int64"  # bool computes as int64
    np.testing.assert_array_equal(out.pdata, ref(x.astype(np.int64)))


def test_round_halves_to_even_and_sign_of_zero_and_nan():
    x = QTensor(np.array([0.5, 1.5, 2.5, -0.5, -1.5, 2.4999]))
    np.testing.assert_array_equal(T.round(x).pdata, [0.0, 2.0, 2.0, -0.0, -2.0, 2.0])
    s = np.asarray(T.sign(QTensor(np.array([-2.0, -0.0, 0.0, 3.0, np.nan]))).pdata)
    np.testing.assert_array_equal(s[:4], [-1.0, 0.0, 0.0, 1.0])
    assert np.isnan(s[4])


@pytest.mark.parametrize("name", FLOATING + KEEPING + ["round", "sign"])
def test_one_positional_argument_left_unchanged(name):
    fn = getattr(T, name)
    x = QTensor(np.array([0.3, 0.7]), requires_grad=True)
    fn(x)
    np.testing.assert_array_equal(x.pdata, [0.3, 0.7])
    np.testing.assert_array_equal(x.grad.pdata, [0.0, 0.0])
    for bad in (lambda: fn(t=x), lambda: fn(x, x), lambda: fn()):
        with pytest.raises(TypeError):
            bad()


def test_tanh_chain_matches_closed_form():
    """A long chain reuses intermediate gradients: 20 nested tanh against the product rule."""
    x0 = np.array([0.3, -0.8])
    x = QTensor(x0, requires_grad=True)
    y, v, d = x, x0.copy(), np.ones(2)
    for _ in range(20):
        y = T.tanh(y)
        v = np.tanh(v)
        d *= 1 - v ** 2
    y.backward()
    np.testing.assert_allclose(y.pdata, v, rtol=1e-12)
    np.testing.assert_allclose(x.grad.pdata, d, rtol=1e-10)
