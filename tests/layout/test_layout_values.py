"""Layout operations against numpy: every row over each element type and memory layout of its
inputs (views: transposed, sliced, flipped, broadcast), including 0-size and one-element axes and
negative axes; view results share their input's memory, and writes never cross."""
import numpy as np
import pytest

import pymoira.tensor.tensor as T
from helpers import LAYOUTS, laid_out
from pymoira.tensor.tensor import QTensor

DTYPES = [np.bool_, np.int64, np.float32, np.float64]


def mask_of(x):
    """A mask from a tensor's values (contiguous, bool)."""
    return QTensor(np.asarray(x.data).astype(np.float64) > 0.3)


# (id, input shapes, pymoira call, numpy reference, result is a view of input 0)
ROWS = [
    ("reshape", [(3, 4)], lambda x: T.reshape(x, [2, 6]), lambda a: a.reshape(2, 6), True),
    ("reshape infer 0-size", [(2, 0, 3)], lambda x: T.reshape(x, [3, -1]), lambda a: a.reshape(3, -1), True),
    ("method reshape", [(1,)], lambda x: x.reshape([1, 1, 1]), lambda a: a.reshape(1, 1, 1), True),
    ("flatten", [(2, 3, 4)], T.flatten, lambda a: a.reshape(-1), True),
    ("flatten from 1", [(2, 3, 4)], lambda x: T.flatten(x, 1), lambda a: a.reshape(2, 12), True),
    ("flatten -3..-2", [(2, 3, 4, 5)], lambda x: T.flatten(x, -3, -2), lambda a: a.reshape(2, 12, 5), True),
    ("squeeze last", [(2, 3, 1)], T.squeeze, lambda a: a.squeeze(-1), True),
    ("squeeze 0-size", [(1, 0)], lambda x: T.squeeze(x, 0), lambda a: a.squeeze(0), True),
    ("unsqueeze 1", [(2, 3)], lambda x: T.unsqueeze(x, 1), lambda a: a[:, None], True),
    ("unsqueeze -1", [(4,)], lambda x: T.unsqueeze(x, -1), lambda a: a[:, None], True),
    ("transpose", [(2, 3, 4)], lambda x: T.transpose(x, [2, 0, 1]), lambda a: a.transpose(2, 0, 1), True),
    ("transpose negative", [(2, 3, 4)], lambda x: T.transpose(x, [0, -1, 1]), lambda a: a.transpose(0, 2, 1), True),
    ("transpose None", [(2, 0, 4)], lambda x: T.transpose(x, None), lambda a: a.T, True),
    ("permute", [(1, 5)], lambda x: T.permute(x, [1, 0]), lambda a: a.T, True),
    ("method transpose", [(3, 4)], lambda x: x.transpose(), lambda a: a.T, True),
    ("swapaxis", [(2, 3, 4)], lambda x: T.swapaxis(x, 2, -2), lambda a: np.swapaxes(a, 2, 1), True),
    ("concatenate", [(2, 3), (2, 4), (2, 0)], lambda *x: T.concatenate(x), lambda *a: np.concatenate(a, 1), False),
    ("concatenate axis 0", [(1, 3), (2, 3)], lambda *x: T.concatenate(list(x), 0),
     lambda *a: np.concatenate(a, 0), False),
    ("concatenate -1", [(2, 1, 2), (2, 1, 3)], lambda *x: T.concatenate(x, -1),
     lambda *a: np.concatenate(a, -1), False),
    ("stack", [(3, 4)] * 3, lambda *x: T.stack(list(x), 2), lambda *a: np.stack(a, 2), False),
    ("stack -1, 0-size", [(0, 2)] * 2, lambda *x: T.stack(list(x), -1), lambda *a: np.stack(a, -1), False),
    ("split", [(5, 4)], lambda x: T.split(x, [2, 3], 0), lambda a: np.split(a, [2], 0), True),
    ("split -1 with empty part", [(2, 6)], lambda x: T.split(x, [1, 0, 5], -1), lambda a: np.split(a, [1, 1], -1),
     True),
    ("chunk", [(6, 2)], lambda x: T.chunk(x, 3), lambda a: np.array_split(a, 3, 0), True),
    ("chunk remainder", [(2, 7)], lambda x: T.chunk(x, 3, -1), lambda a: np.split(a[:, :6], 3, 1), True),
    ("tile", [(2, 3)], lambda x: T.tile(x, [2]), lambda a: np.tile(a, [2]), False),
    ("tile more reps", [(2, 3)], lambda x: T.tile(x, [2, 1, 3]), lambda a: np.tile(a, [2, 1, 3]), False),
    ("tile fewer reps", [(4, 1, 2, 5)], lambda x: T.tile(x, [3, 2]), lambda a: np.tile(a, [3, 2]), False),
    ("tile zero", [(4,)], lambda x: T.tile(x, [3, 0]), lambda a: np.tile(a, [3, 0]), False),
    ("broadcast_to", [(3,), (4, 3)], T.broadcast_to, lambda a, r: np.broadcast_to(a, (4, 3)), True),
    ("broadcast_to both ways", [(2, 1), (1, 3)], T.broadcast_to, lambda a, r: np.broadcast_to(a, (2, 3)), True),
    ("flip", [(3, 4, 5)], lambda x: T.flip(x, [0, -1]), lambda a: np.flip(a, (0, -1)), True),
    ("flip 0-size", [(0, 3)], lambda x: T.flip(x, (1,)), lambda a: np.flip(a, 1), True),
    ("triu", [(2, 6, 5)], lambda x: T.triu(x, 1), lambda a: np.triu(a, 1), False),
    ("tril", [(4, 3)], lambda x: T.tril(x, -1), lambda a: np.tril(a, -1), False),
    ("triu far", [(3, 3)], lambda x: T.triu(x, -7), lambda a: np.triu(a, -7), False),
    ("tril far, 0-size", [(0, 3)], lambda x: T.tril(x, 9), lambda a: np.tril(a, 9), False),
    ("masked_fill", [(3, 2)], lambda x: T.masked_fill(x, mask_of(x), 1), lambda a: np.where(a > 0.3, 1, a), False),
    ("masked_fill mask row", [(3, 2)], lambda x: T.masked_fill(x, QTensor(np.array([True, False])), 0),
     lambda a: np.where([True, False], 0, a), False),
]


def _inputs(shapes, dtype, layout, rng):
    views = [laid_out(rng.uniform(-1, 2, size=s).astype(dtype), layout) for s in shapes]
    return [v for v, _ in views], [QTensor(t) for _, t in views]


def _results(out):
    return [np.array(q.data) for q in out] if isinstance(out, list) else [np.array(out.data)]


@pytest.mark.parametrize("layout", LAYOUTS)
@pytest.mark.parametrize("dtype", DTYPES, ids=lambda d: np.dtype(d).name)
@pytest.mark.parametrize("name, shapes, fn, ref, view", ROWS, ids=[r[0] for r in ROWS])
def test_values_match_numpy(name, shapes, fn, ref, view, dtype, layout, rng):
    arrays, qs = _inputs(shapes, dtype, layout, rng)
    got = _results(fn(*qs))
    want = ref(*arrays)
    want = list(want) if isinstance(want, list) else [want]
    assert len(got) == len(want)
    for g, w in zip(got, want):
        assert g.shape == w.shape and g.dtype == np.dtype(dtype)
        np.testing.assert_array_equal(g, w.astype(dtype))


@pytest.mark.parametrize("name, shapes, fn, ref, view", [r for r in ROWS if r[4]], ids=[r[0] for r in ROWS if r[4]])
def test_views_share_memory_and_writes_never_cross(name, shapes, fn, ref, view, rng):
    arrays, qs = _inputs(shapes, np.float64, "contiguous", rng)
    outs = fn(*qs)
    outs = outs if isinstance(outs, list) else [outs]
    source = qs[0].data
    for out in outs:
        if out.data.size:
            assert np.shares_memory(np.asarray(out.data), np.asarray(source))
        out.data.fill_(-5.0)  # a write into the view leaves the source alone
    np.testing.assert_array_equal(np.array(source), arrays[0])
    outs = fn(*qs)
    outs = outs if isinstance(outs, list) else [outs]
    source.add_(100.0)  # a write into the source leaves the view alone
    want = ref(*arrays)
    for out, w in zip(outs, want if isinstance(want, list) else [want]):
        np.testing.assert_array_equal(np.array(out.data), w)


def test_mixed_types_join_in_the_promoted_type():
    parts = [QTensor(np.array([[True]])), QTensor(np.array([[2]])), QTensor(np.array([[0.5]], np.float32))]
    out = T.concatenate(parts, 0)
    assert out.data.dtype == "float32"
    np.testing.assert_array_equal(np.array(out.data), [[1.0], [2.0], [0.5]])
    assert T.stack(parts[:2], 0).data.dtype == "int64"


@pytest.mark.parametrize("layout", LAYOUTS)
@pytest.mark.parametrize("dtype", DTYPES, ids=lambda d: np.dtype(d).name)
def test_trace_of_every_diagonal(dtype, layout, rng):
    a, t = laid_out(rng.uniform(-1, 2, size=(4, 5)).astype(dtype), layout)
    for k in range(-5, 7):
        got = T.trace(QTensor(t), k)
        assert not isinstance(got, QTensor)
        assert got == pytest.approx(np.trace(a, k), rel=1e-6)
    assert T.trace(QTensor(np.zeros((0, 3)))) == 0


@pytest.mark.parametrize("shape, dtype", [((300, 517), np.float32), ((3, 37, 45), np.int64),
                                          ((1100, 2003), np.float32), ((1030, 1101), np.float64)])
def test_large_transpose_made_contiguous_is_exact(shape, dtype, rng):
    """Blocked and (from 8 MiB on) streaming transposes, with edges that fill no whole block."""
    a = (rng.standard_normal(shape) * 1000).astype(dtype)
    t = QTensor(a).transpose()
    np.testing.assert_array_equal(np.array(t.data.contiguous()), a.T)

def test_concatenate_of_strided_inputs(rng):
    big = QTensor(rng.standard_normal((3, 70, 40)))
    np.testing.assert_array_equal(np.array(T.concatenate([big, T.flip(big, [2])], 2).data),
                                  np.concatenate([big.to_numpy(), big.to_numpy()[:, :, ::-1]], 2))
