"""The layout op table (reshapes, transposes, joins, splits, tiles, broadcasts, flips, triangles and
masked fills), checked by the shared harness over every element type (complex ones included: these
operations only move bytes) and memory layout, with 0-size and one-element axes and negative axes;
then the promoted type of joins, trace and large transposes."""
import numpy as np
import pytest

import pymoira.tensor.tensor as T
from helpers import LAYOUTS, laid_out
from optable import BOOL, C64, C128, COMPLEX, EVERY_TYPE, F32, I64, TYPES, Op, OpChecks, beside, cast, uniform
from pymoira.tensor.tensor import QTensor

MASK = QTensor(np.array([[True, False], [False, True], [True, True]]))


def mask_of(x):
    """A mask from a tensor's values (real parts; contiguous, bool)."""
    return beside(x, np.real(np.asarray(x.data)) > 0.3)


def row(name, shapes, fn, ref, view=False, tracking=None, names=None, grad=None, edges=None, dtypes=()):
    """One operation on inputs of `shapes` (a list of samples where it is a list of tuples of
    shapes), exact over every element type, complex ones included (and `dtypes`, mixed ones that join
    in the promoted type); every input differentiable unless `grad` says."""
    samples = [tuple(s) for s in shapes] if isinstance(shapes[0], list) else [tuple(shapes)]
    return Op(name, fn, ref, samples, EVERY_TYPE + COMPLEX + list(dtypes), sample=(uniform(-1, 2),), tol=(0, 0),
              grad=grad or (True,) * len(samples[0]), tracking=tracking, names=names, edges=edges, view=view)


def piece(k, parts):
    return lambda x: [parts(x)[i] for i in k]


OPS = [
    row("reshape", [(3, 4)], lambda x: T.reshape(x, [2, 6]), lambda a: a.reshape(2, 6), True, "combined",
        ("{0} reshape [2, 6]",)),
    row("reshape tuple", [(2, 3)], lambda x: T.reshape(x, (3, 2)), lambda a: a.reshape(3, 2), True, "combined",
        ("{0} reshape (3, 2)",)),
    row("reshape infer 0-size", [(2, 0, 3)], lambda x: T.reshape(x, [3, -1]), lambda a: a.reshape(3, -1), True),
    row("method reshape", [(2, 3, 1)], lambda x: x.reshape([6]), lambda a: a.reshape(6), True, "combined",
        ("{0} reshape [6]",)),
    row("method reshape one element", [(1,)], lambda x: x.reshape([1, 1, 1]), lambda a: a.reshape(1, 1, 1), True),
    row("flatten", [(2, 3, 4)], T.flatten, lambda a: a.reshape(-1), True, "combined", ("",)),
    row("flatten from 1", [(2, 3, 4)], lambda x: T.flatten(x, 1), lambda a: a.reshape(2, 12), True),
    row("flatten -3..-2", [(2, 3, 4, 5)], lambda x: T.flatten(x, -3, -2), lambda a: a.reshape(2, 12, 5), True),
    row("squeeze last", [(2, 3, 1)], T.squeeze, lambda a: a.squeeze(-1), True, "own",
        ("squeeze grad of tensor {0}",)),
    row("squeeze 0-size", [(1, 0)], lambda x: T.squeeze(x, 0), lambda a: a.squeeze(0), True),
    row("unsqueeze 1", [(2, 3)], lambda x: T.unsqueeze(x, 1), lambda a: a[:, None], True, "own",
        ("unsqueeze grad tensor of {0}",)),
    row("unsqueeze -1", [(4,)], lambda x: T.unsqueeze(x, -1), lambda a: a[:, None], True),
    row("transpose", [(2, 3, 4)], lambda x: T.transpose(x, [2, 0, 1]), lambda a: a.transpose(2, 0, 1), True, "own",
        ("tranpose grad dim = [2, 0, 1]",)),
    row("transpose negative", [(2, 3, 4)], lambda x: T.transpose(x, [0, -1, 1]), lambda a: a.transpose(0, 2, 1), True),
    row("transpose None", [[(3, 3)], [(2, 0, 4)]], lambda x: T.transpose(x, None), lambda a: a.T, True, "own",
        ("tranpose grad dim = None",)),
    row("permute", [(1, 5)], lambda x: T.permute(x, [1, 0]), lambda a: a.T, True),
    row("method transpose", [(2, 3, 4)], lambda x: x.transpose([1, 2, 0]), lambda a: a.transpose(1, 2, 0), True,
        "own", ("tranpose grad dim = [1, 2, 0]",)),
    row("swapaxis", [(2, 3, 4)], lambda x: T.swapaxis(x, 2, -2), lambda a: np.swapaxes(a, 2, 1), True, "combined",
        ("swapaxis of tensor {0}",)),
    row("concatenate", [[(2, 3), (2, 1), (2, 4)], [(2, 3), (2, 4), (2, 0)]], lambda *x: T.concatenate(x),
        lambda *a: np.concatenate(a, 1), tracking="own strict", names=("0 {0} concat grad ", "2 {2} concat grad "),
        grad=(True, False, True)),
    row("concatenate axis 0", [(1, 3), (2, 3)], lambda *x: T.concatenate(list(x), 0), lambda *a: np.concatenate(a, 0),
        dtypes=[(BOOL, F32), (I64, F32), (BOOL, I64), (F32, C64), (C64, C128), (I64, C128)]),
    row("concatenate -1", [(2, 1, 2), (2, 1, 3), (2, 1, 1)], lambda *x: T.concatenate(x, -1),
        lambda *a: np.concatenate(a, -1)),
    row("stack", [(3, 4)] * 3, lambda *x: T.stack(list(x), 2), lambda *a: np.stack(a, 2), tracking="own",
        names=("stack grad 0tensor{0}", "stack grad 1tensor{1}", "stack grad 2tensor{2}")),
    row("stack -1", [[(2,), (2,)], [(0, 2), (0, 2)]], lambda *x: T.stack(list(x), -1), lambda *a: np.stack(a, -1),
        dtypes=[(BOOL, I64), (BOOL, C64)]),
    row("split", [(5, 4)], lambda x: T.split(x, [2, 3], 0), lambda a: np.split(a, [2], 0), True, "own", ("",)),
    row("split -1 with empty part", [(2, 6)], lambda x: T.split(x, [1, 0, 5], -1), lambda a: np.split(a, [1, 1], -1),
        True),
    row("split -1", [(2, 6)], lambda x: T.split(x, [1, 2, 3], -1), lambda a: np.split(a, [1, 3], -1), True),
    row("chunk", [(6, 2)], lambda x: T.chunk(x, 3), lambda a: np.array_split(a, 3, 0), True, "own", ("",)),
    row("chunk remainder", [(2, 7)], lambda x: T.chunk(x, 3, -1), lambda a: np.split(a[:, :6], 3, 1), True),
    # some pieces unused: the others' gradients are zero
    row("split piece 1", [(5, 4)], piece([1], lambda x: T.split(x, [1, 2, 2], 0)),
        piece([1], lambda a: np.split(a, [1, 3], 0)), True),
    row("split pieces 0, 2", [(5, 4)], piece([0, 2], lambda x: T.split(x, [3, 0, 2], 0)),
        piece([0, 2], lambda a: np.split(a, [3, 3], 0)), True),
    row("chunk piece 1", [(5, 4)], piece([1], lambda x: T.chunk(x, 2, 1)), piece([1], lambda a: np.split(a, 2, 1)),
        True),
    row("chunk pieces 2, 0", [(5, 4)], piece([2, 0], lambda x: T.chunk(x, 3, 0)),
        piece([2, 0], lambda a: np.split(a[:3], 3, 0)), True),
    row("tile", [(2, 3)], lambda x: T.tile(x, [2]), lambda a: np.tile(a, [2]), tracking="own",
        names=("tile grad dim = {0}",)),
    row("tile more reps", [(2, 3)], lambda x: T.tile(x, [2, 1, 3]), lambda a: np.tile(a, [2, 1, 3])),
    row("tile fewer reps", [(4, 1, 2, 5)], lambda x: T.tile(x, [3, 2]), lambda a: np.tile(a, [3, 2])),
    row("tile zero", [(4,)], lambda x: T.tile(x, [3, 0]), lambda a: np.tile(a, [3, 0])),
    row("broadcast_to", [(2, 3), (4, 1, 3)], T.broadcast_to, lambda a, r: np.broadcast_to(a, (4, 2, 3)), True, "copy",
        ("A grad {0} broadcast_to {1}",), (True, False)),
    row("broadcast_to both ways", [(2, 1), (1, 3)], T.broadcast_to, lambda a, r: np.broadcast_to(a, (2, 3)), True,
        grad=(True, False)),
    row("flip", [(3, 4, 5)], lambda x: T.flip(x, [0, -1]), lambda a: np.flip(a, (0, -1)), True, "copy",
        ("input grad {0} flip grad {0}",)),
    row("flip 0-size", [(0, 3)], lambda x: T.flip(x, (1,)), lambda a: np.flip(a, 1), True),
    row("flip square", [(3, 3)], lambda x: T.flip(x, [1]), lambda a: np.flip(a, 1), True),
    row("triu", [(2, 6, 5)], lambda x: T.triu(x, 1), lambda a: np.triu(a, 1), tracking="combined", names=("",)),
    row("tril", [(4, 3)], lambda x: T.tril(x, -1), lambda a: np.tril(a, -1), tracking="combined", names=("",)),
    row("triu far", [(3, 3)], lambda x: T.triu(x, -7), lambda a: np.triu(a, -7)),
    row("tril far, 0-size", [(0, 3)], lambda x: T.tril(x, 9), lambda a: np.tril(a, 9)),
    row("masked_fill", [(3, 2)], lambda x: T.masked_fill(x, mask_of(x), 1),
        lambda a: np.where(np.real(a) > 0.3, 1, a), tracking="copy", names=("t1 grad {0} mask_fill {0}",),
        edges=1),  # the edge leads to a copy
    row("masked_fill mask row", [(3, 2)], lambda x: T.masked_fill(x, beside(x, np.array([True, False])), 0),
        lambda a: np.where([True, False], 0, a)),
    row("masked_fill broadcast t", [(2,)], lambda x: T.masked_fill(x, beside(x, MASK.data), 13.0),
        lambda a: np.where(MASK.to_numpy(), 13.0, a)),
    Op("masked_fill complex value", lambda x: T.masked_fill(x, mask_of(x), 2 - 1j),
       lambda a: np.where(np.real(a) > 0.3, 2 - 1j, a), [((2, 3),)], COMPLEX, sample=(uniform(-1, 2),), tol=(0, 0),
       grad=(True,)),
]


class TestLayout(OpChecks):
    OPS = OPS


@pytest.mark.parametrize("layout", LAYOUTS)
@pytest.mark.parametrize("dtype", TYPES, ids=lambda d: np.dtype(d).name)
def test_trace_of_every_diagonal(dtype, layout, rng):
    a, t = laid_out(rng.uniform(-1, 2, size=(4, 5)).astype(dtype), layout)
    for k in range(-5, 7):
        got = T.trace(QTensor(t), k)
        assert not isinstance(got, QTensor)
        assert got == pytest.approx(np.trace(a, k), rel=1e-6)
    assert T.trace(QTensor(np.zeros((0, 3)))) == 0


@pytest.mark.parametrize("shape, dtype", [((300, 517), np.float32), ((3, 37, 45), np.int64),
                                          ((1100, 2003), np.float32), ((1030, 1101), np.float64),
                                          ((300, 517), C64), ((3, 37, 45), C128), ((1030, 1101), C128)])
def test_large_transpose_made_contiguous_is_exact(shape, dtype, rng):
    """Blocked and (from 8 MiB on) streaming transposes, with edges that fill no whole block."""
    a = cast(rng.standard_normal(shape) * 1000, dtype)
    t = QTensor(a).transpose()
    np.testing.assert_array_equal(np.array(t.data.contiguous()), a.T)

def test_concatenate_of_strided_inputs(rng):
    big = QTensor(rng.standard_normal((3, 70, 40)))
    np.testing.assert_array_equal(np.array(T.concatenate([big, T.flip(big, [2])], 2).data),
                                  np.concatenate([big.to_numpy(), big.to_numpy()[:, :, ::-1]], 2))
