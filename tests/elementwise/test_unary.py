"""Unary functions: exact gradients at known points, rounding and sign, argument handling."""
import numpy as np
import pytest

import pymoira.tensor.tensor as T
from pymoira.tensor.tensor import QTensor

from .test_optable import OPS


def _grad(fn, values, seed=None):
    x = QTensor(np.array(values, dtype=np.float64), requires_grad=True)
    y = fn(x)
    y.backward(None if seed is None else QTensor(np.array(seed, dtype=np.float64)))
    return np.asarray(x.grad.pdata)


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


def test_round_halves_to_even_and_sign_of_zero_and_nan():
    x = QTensor(np.array([0.5, 1.5, 2.5, -0.5, -1.5, 2.4999]))
    np.testing.assert_array_equal(T.round(x).pdata, [0.0, 2.0, 2.0, -0.0, -2.0, 2.0])
    s = np.asarray(T.sign(QTensor(np.array([-2.0, -0.0, 0.0, 3.0, np.nan]))).pdata)
    np.testing.assert_array_equal(s[:4], [-1.0, 0.0, 0.0, 1.0])
    assert np.isnan(s[4])


@pytest.mark.parametrize("op", [op for op in OPS if op.fn is getattr(T, op.name, None) and len(op.shapes[0]) == 1],
                         ids=lambda op: op.name)
def test_one_argument_left_unchanged(op):
    """Functions of one tensor take it positionally (floor, ceil and the masks also as t=)."""
    fn, x = op.fn, QTensor(np.array([0.3, 0.7]), requires_grad=True)
    fn(x)
    np.testing.assert_array_equal(x.pdata, [0.3, 0.7])
    np.testing.assert_array_equal(x.grad.pdata, [0.0, 0.0])
    if fn in (T.floor, T.ceil) or op.result(np.float64) == np.bool_:
        np.testing.assert_array_equal(fn(t=x).pdata, fn(x).pdata)
    else:
        with pytest.raises(TypeError):
            fn(t=x)
    for bad in (lambda: fn(x, x), lambda: fn()):
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
