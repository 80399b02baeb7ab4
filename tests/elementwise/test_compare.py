"""Comparison operators, logical_not and nonzero: masks that never track gradients (the module's
comparisons, logical functions and predicates are rows of the op table)."""
import operator

import numpy as np
import pytest

import pymoira.tensor.tensor as T
from pymoira.tensor.tensor import QTensor

OPERATORS = [("__eq__", operator.eq), ("__ne__", operator.ne), ("__lt__", operator.lt), ("__gt__", operator.gt),
             ("__le__", operator.le), ("__ge__", operator.ge)]
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


def test_logical_not_and_nan_counts_as_true():
    got = T.logical_not(QTensor(np.array([0.0, 2.0, -1.0, np.nan, -0.0])))
    assert _is_mask(got)
    np.testing.assert_array_equal(got.pdata, [True, False, False, False, True])


@pytest.mark.parametrize("x", [np.array([[0.0, 1.5], [-2.0, 0.0]]), np.array([0, 3, 0, 4]), np.zeros([2, 2]),
                               np.array([[[True, False], [False, True]]]), np.array(5.0), np.zeros([0, 3])],
                         ids=lambda x: str(x.shape))
def test_nonzero(x):
    got = T.nonzero(QTensor(x))
    assert _is_mask(got) and got.data.dtype == "int64"
    want = np.argwhere(x)
    assert got.shape == list(want.shape)
    np.testing.assert_array_equal(np.asarray(got.pdata).reshape(want.shape), want)
