"""Comparisons, logical functions, predicates and nonzero: masks that never track gradients."""
import operator

import numpy as np
import pytest

import pymoira.tensor.tensor as T
from pymoira.tensor.tensor import QTensor

OPERATORS = [("__eq__", operator.eq), ("__ne__", operator.ne), ("__lt__", operator.lt), ("__gt__", operator.gt),
             ("__le__", operator.le), ("__ge__", operator.ge)]
FUNCTIONS = [(T.equal, np.equal), (T.not_equal, np.not_equal), (T.less, np.less), (T.less_equal, np.less_equal),
             (T.greater, np.greater), (T.greater_equal, np.greater_equal)]
VALUES = np.array([[-1.0, 0.0, 2.0], [2.0, np.nan, 3.5]])


def _is_mask(q):
    return (isinstance(q, QTensor) and q.is_bool is True and q.requires_grad is False and q.nodes == []
            and q.grad is None and q.device == 0)


@pytest.mark.parametrize("name,op", OPERATORS, ids=[n for n, _ in OPERATORS])
@pytest.mark.parametrize("other", [2, 2.0, 3.5, True, False, -1, "tensor", "row", "column"])
def test_operators(name, op, other):
    a = QTensor(VALUES, requires_grad=True)
    ref = {"tensor": VALUES[::-1].copy(), "row": np.array([2.0, 0.0, 3.5]),
           "column": np.array([[0.0], [2.0]])}.get(other, other)
    b = QTensor(ref, requires_grad=True) if isinstance(ref, np.ndarray) else ref
    with np.errstate(invalid="ignore"):
        want = op(VALUES, ref)
    got = op(a, b)
    assert _is_mask(got) and got.data.dtype == "bool"
    np.testing.assert_array_equal(got.pdata, want)


@pytest.mark.parametrize("dtype", [np.int64, np.bool_, np.float32])
def test_operators_on_other_element_types(dtype):
    x = np.array([0, 1, 2, 3]).astype(dtype)
    t = QTensor(x)
    np.testing.assert_array_equal((t == 1).pdata, x == 1)
    np.testing.assert_array_equal((t >= True).pdata, x >= 1)
    np.testing.assert_array_equal((t < 2.5).pdata, x < 2.5)
    np.testing.assert_array_equal((3 > t).pdata, 3 > x)  # reflected: t.__lt__(3)


@pytest.mark.parametrize("name,op", OPERATORS, ids=[n for n, _ in OPERATORS])
@pytest.mark.parametrize("other", ["abc", [1, 2], None, np.array([1.0, 2.0]), {"a": 1}, 1j])
def test_operator_rejects_other_operands(name, op, other):
    a = QTensor(np.array([1.0, 2.0]))
    with pytest.raises(RuntimeError) as info:
        getattr(a, name)(other)
    assert str(info.value) == f"{name} not implmented for type {other}"


@pytest.mark.parametrize("fn,ref", FUNCTIONS, ids=[f.__name__ for f, _ in FUNCTIONS])
@pytest.mark.parametrize("other_shape", [(2, 3), (3,), (2, 1)], ids=str)
def test_module_comparisons(fn, ref, other_shape, rng):
    other = rng.choice([-1.0, 0.0, 2.0, np.nan], size=other_shape)
    got = fn(QTensor(VALUES, requires_grad=True), QTensor(other))
    assert _is_mask(got)
    with np.errstate(invalid="ignore"):
        np.testing.assert_array_equal(got.pdata, ref(VALUES, other))


LOGICAL = [(T.logical_and, np.logical_and), (T.logical_or, np.logical_or), (T.logical_xor, np.logical_xor)]


@pytest.mark.parametrize("fn,ref", LOGICAL, ids=[f.__name__ for f, _ in LOGICAL])
@pytest.mark.parametrize("ta,tb", [(np.float64, np.float64), (np.int64, np.bool_), (np.float32, np.int64)])
def test_logical_functions(fn, ref, ta, tb):
    a = np.array([0, 2, -1, 0, 3]).astype(ta)
    b = np.array([0, 0, 1, 1, 5]).astype(tb)
    got = fn(QTensor(a), QTensor(b))
    assert _is_mask(got)
    np.testing.assert_array_equal(got.pdata, ref(a, b))


def test_logical_not_and_nan_counts_as_true():
    got = T.logical_not(QTensor(np.array([0.0, 2.0, -1.0, np.nan, -0.0])))
    assert _is_mask(got)
    np.testing.assert_array_equal(got.pdata, [True, False, False, False, True])


PREDICATES = [(T.isfinite, np.isfinite), (T.isinf, np.isinf), (T.isnan, np.isnan), (T.isneginf, np.isneginf),
              (T.isposinf, np.isposinf)]


@pytest.mark.parametrize("fn,ref", PREDICATES, ids=[f.__name__ for f, _ in PREDICATES])
@pytest.mark.parametrize("dtype", [np.float32, np.float64, np.int64, np.bool_])
def test_predicates(fn, ref, dtype):
    x = np.array([np.inf, -np.inf, np.nan, 0.0, -2.5, 1e30])
    x = x.astype(dtype) if dtype in (np.float32, np.float64) else np.array([0, 1, 5]).astype(dtype)
    got = fn(QTensor(x))
    assert _is_mask(got)
    np.testing.assert_array_equal(got.pdata, ref(x))


@pytest.mark.parametrize("x", [np.array([[0.0, 1.5], [-2.0, 0.0]]), np.array([0, 3, 0, 4]), np.zeros([2, 2]),
                               np.array([[[True, False], [False, True]]]), np.array(5.0), np.zeros([0, 3])],
                         ids=lambda x: str(x.shape))
def test_nonzero(x):
    got = T.nonzero(QTensor(x))
    assert _is_mask(got) and got.data.dtype == "int64"
    want = np.argwhere(x)
    assert got.shape == list(want.shape)
    np.testing.assert_array_equal(np.asarray(got.pdata).reshape(want.shape), want)
