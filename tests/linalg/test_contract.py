"""einsum and tensordot against numpy: values and gradients (real and complex, the gate kernel's
contractions among them) through the op-table harness, then the refusals."""
import numpy as np
import pytest

import pymoira.tensor.tensor as T
from optable import COMPLEX, FLOATS, Op, OpChecks
from pymoira.tensor.tensor import QTensor

CONTRACTIONS = [
    # (subscripts, input shapes): products, outer products, transposes, sums, diagonals, traces
    ("ij,jk->ik", [(3, 4), (4, 2)]), ("ij,jk", [(2, 3), (3, 2)]), ("i,j->ij", [(3,), (2,)]), ("ij->ji", [(2, 3)]),
    ("ij->", [(2, 3)]), ("ii->i", [(3, 3)]), ("ii", [(3, 3)]), ("iij->j", [(2, 2, 3)]), ("i,i->", [(4,), (4,)]),
    ("bij,bjk->bik", [(2, 3, 2), (2, 2, 3)]), ("ij,jk,kl->il", [(2, 3), (3, 2), (2, 3)]),
    ("...i,...i->...", [(2, 3), (3,)]), ("i...,i->...", [(2, 1, 3), (2,)]), ("ab,cb", [(2, 3), (4, 3)]),
    # a small matrix along axes of a larger tensor: the gate kernel, one and two axes, batched gates
    ("zb,abc->azc", [(2, 2), (3, 2, 2)]), ("za,abc->zbc", [(3, 2), (2, 2, 3)]), ("zb,abc->acz", [(2, 2), (2, 2, 3)]),
    ("zwbc,abcd->azwd", [(2, 2, 2, 2), (2, 2, 2, 2)]), ("kzb,kabc->kazc", [(2, 2, 2), (2, 3, 2, 2)]),
]


def contraction(sub, shapes):
    """A full contraction gives shape [1], as whole-tensor sums do."""
    return Op(f"einsum {sub}", lambda *ts: T.einsum(sub, *ts), lambda *xs: np.atleast_1d(np.einsum(sub, *xs)),
              [tuple(shapes)],
              FLOATS + COMPLEX, grad=(True,) * len(shapes), tol=(2e-5, 1e-12))


OPS = [contraction(sub, shapes) for sub, shapes in CONTRACTIONS] + [
    Op(f"tensordot {axes}", lambda a, b, axes=axes: T.tensordot(a, b, axes),
       lambda a, b, axes=axes: np.tensordot(a, b, axes), [shapes], FLOATS + COMPLEX, grad=(True, True),
       tol=(2e-5, 1e-12))
    for axes, shapes in [(2, ((2, 3, 2), (3, 2, 2))), (0, ((2,), (3,))), (([0, 2], [1, 0]), ((2, 3, 2), (2, 2, 3))),
                         ((1, 0), ((2, 3), (3, 2)))]]


class TestContract(OpChecks):
    OPS = OPS


def test_mixed_real_and_complex_operands_keep_real_gradients(rng):
    gate = QTensor(rng.normal(size=(2, 2)) + 1j * rng.normal(size=(2, 2)), requires_grad=True)
    state = QTensor(rng.normal(size=(2, 2, 2)), requires_grad=True)
    y = T.einsum("zb,abc->azc", gate, state)
    np.testing.assert_allclose(y.to_numpy(), np.einsum("zb,abc->azc", gate.to_numpy(), state.to_numpy()), 1e-12)
    T.sums(T.square(T.abs(y))).backward()
    assert state.grad.dtype == np.float64 and gate.grad.dtype == np.complex128


@pytest.mark.parametrize("sub, shapes, words", [
    ("ij,jk->ik", [(2, 3)], "name 2 operands but 1 were given"),
    ("ij,jk->ik", [(2, 3), (4, 5)], "subscript 'j' has length 3 in operand 0 and 4 in operand 1"),
    ("i1->i", [(3,)], "the character '1'"), ("ij->ii", [(2, 2)], "the output label 'i' twice"),
    ("ij->k", [(2, 2)], "the output label 'k', which no operand has"), ("ij", [(3,)], "has 1 axes"),
    ("i.j", [(2, 2)], "not part of '...'"), ("i->j->k", [(2,)], "two '->'"), ("......i", [(2,)], "'...' twice"),
])
def test_bad_subscripts(sub, shapes, words):
    with pytest.raises(ValueError, match=f"einsum: .*{words}".replace("(", r"\(").replace(")", r"\)")):
        T.einsum(sub, *[QTensor(np.ones(s)) for s in shapes])


@pytest.mark.parametrize("axes, exc, words", [
    (5, ValueError, "axes=5 is out of range"), (([0], [0, 1]), ValueError, "1 axes of the first"),
    (([3], [0]), ValueError, "axis 3 is out of range"), ((0,), ValueError, "a pair of sequences"),
    (([0], [0]), ValueError, "axis 0 of the first operand has length 2"), (2 ** 70, ValueError, "out of range"),
    (([0.5], [0]), TypeError, "integers"), ((None, None), TypeError, "pair of sequences")])
def test_bad_tensordot_axes(axes, exc, words):
    with pytest.raises(exc, match=words):
        T.tensordot(QTensor(np.ones((2, 3))), QTensor(np.ones((3, 2))), axes)
