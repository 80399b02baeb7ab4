"""Views: O(1) re-indexing that shares storage, validated bounds, and value semantics (a write into
a view or its source is never seen by the other, nor by a gradient function that saved it)."""
import ctypes
import gc

import numpy as np
import pytest

import pymoira.tensor.tensor as T
from helpers import LAYOUTS, laid_out
from optable import EVERY_TYPE, Op, OpChecks
from pymoira._core import Tensor, moira
from pymoira.tensor.tensor import QTensor



def view(name, call, ref, layouts=LAYOUTS):
    """A backend view of a [2, 3, 4] tensor (as_strided rows read the storage: contiguous only)."""
    return Op(name, call, ref, [((2, 3, 4),)], EVERY_TYPE, tol=(0, 0), layouts=layouts, view=True, backend=True)


class TestViews(OpChecks):
    OPS = [
        view("reshape", lambda t: t.reshape([6, 4]), lambda a: a.reshape(6, 4)),
        view("reshape -1", lambda t: t.reshape([-1]), lambda a: a.reshape(-1)),
        view("transpose", lambda t: t.as_strided([4, 3, 2], [1, 4, 12]), lambda a: a.transpose(), ["contiguous"]),
        view("broadcast_to", lambda t: t.broadcast_to([5, 2, 3, 4]), lambda a: np.broadcast_to(a, (5, 2, 3, 4))),
        view("select range", lambda t: t.select(["1", "0:3:2", "1:"]), lambda a: a[1, 0:3:2, 1:]),
        view("select int", lambda t: t.select(["0", "2", "3"]), lambda a: a[0, 2, 3:4]),
        view("select reversed", lambda t: t.select([":", "::-1"]), lambda a: a[:, ::-1]),
        view("flip", lambda t: t.as_strided([2, 3, 4], [12, 4, -1], 3), lambda a: a[:, :, ::-1], ["contiguous"]),
        view("select huge step", lambda t: t.select(["1", ":", "2::4611686018427387904"]), lambda a: a[1, :, 2::2 ** 62]),
    ]


def test_a_step_that_reads_one_position_makes_no_stride():
    v = Tensor(np.zeros((2, 3, 4))).select(["1", ":", "2::4611686018427387904"])
    assert all(abs(s) <= 24 for s in v.strides)


def test_in_place_write_on_sole_owner_stays_in_place():
    t = Tensor(np.zeros(1000))
    before = np.asarray(t).__array_interface__["data"][0]
    t.add_(1.0)
    after = np.asarray(t).__array_interface__["data"][0]
    assert before == after


@pytest.mark.parametrize("seed", range(30))
def test_random_strided_views_are_bounded(seed):
    """as_strided with random shapes, strides and offsets: inside the storage it reads what numpy
    reads, outside it raises ValueError; nothing is ever read outside the buffer."""
    rng = np.random.default_rng(seed)
    base = rng.standard_normal(int(rng.integers(1, 60)))
    t = Tensor(base)
    for _ in range(40):
        nd = int(rng.integers(0, 4))
        shape = [int(rng.integers(0, 5)) for _ in range(nd)]
        strides = [int(rng.integers(-8, 9)) for _ in range(nd)]
        offset = int(rng.integers(-3, base.size + 3))
        spans = [(n - 1) * s for n, s in zip(shape, strides)]
        lo = offset + sum(min(0, x) for x in spans)
        hi = offset + sum(max(0, x) for x in spans)
        inside = 0 in shape or (lo >= 0 and hi < base.size)
        if not inside:
            with pytest.raises(ValueError, match="outside a storage"):
                t.as_strided(shape, strides, offset)
            continue
        v = t.as_strided(shape, strides, offset)
        if 0 in shape:
            assert np.array(v).shape == tuple(shape)
            continue
        want = np.lib.stride_tricks.as_strided(base[offset:], shape, [s * 8 for s in strides])
        np.testing.assert_array_equal(np.array(v), want)
        np.testing.assert_array_equal(np.array(v.add(1.0)), want + 1.0)
        np.testing.assert_array_equal(np.array(v.contiguous()), want)


@pytest.mark.parametrize("shape, strides", [([2 ** 40, 2 ** 40], [2 ** 30, 1]), ([3], [2 ** 62]),
                                            ([2 ** 62], [2]), ([4], [-2 ** 63 + 1])])
def test_overflowing_views_are_refused(shape, strides):
    with pytest.raises((ValueError, OverflowError)):
        Tensor(np.zeros(8)).as_strided(shape, strides, 0)


@pytest.mark.parametrize("layout", LAYOUTS)
def test_strided_tensors_export_to_numpy(layout, rng):
    values, t = laid_out(rng.standard_normal((3, 4)), layout)
    for arr in (np.array(t), t.getdata(), np.asarray(t), np.array(QTensor(t).pdata), QTensor(t).to_numpy()):
        np.testing.assert_array_equal(arr, values)
    assert not np.asarray(t).flags.writeable  # a view of shared storage is read-only in numpy
    assert t.getdata().flags.writeable  # a copy is the caller's own


@pytest.mark.parametrize("layout", LAYOUTS)
def test_buffer_protocol_exports_strided_tensors_read_only(layout, rng):
    values, t = laid_out(rng.standard_normal((3, 4)), layout)
    m = memoryview(t)
    assert m.readonly and m.format == "d" and m.shape == (3, 4)
    np.testing.assert_array_equal(np.frombuffer(m.tobytes(), dtype=np.float64).reshape(3, 4), values)
    np.testing.assert_array_equal(np.array(m), values)
    with pytest.raises((BufferError, TypeError), match="not writable|read-only"):
        ctypes.c_char.from_buffer(t)  # asks for a writable buffer


@pytest.mark.parametrize("layout", LAYOUTS)
def test_strided_tensors_print_and_convert(layout, rng):
    values, t = laid_out(rng.standard_normal((2, 3)), layout)
    assert t.tensor_print(3) == Tensor(values).tensor_print(3)
    np.testing.assert_array_equal(np.array(Tensor(t)), values)  # construction copies the view
    np.testing.assert_array_equal(np.array(t.contiguous()), values)
    assert t.contiguous().is_contiguous()


def test_transposed_copy_is_blocked_and_exact(rng):
    a = rng.standard_normal((300, 517)).astype(np.float32)
    t = Tensor(a).as_strided([517, 300], [1, 517])
    np.testing.assert_array_equal(np.array(t.contiguous()), a.T)


# ---- gather, scatter and index_add by index tensors ----

GATHER_KEYS = [
    ([np.array([2, 0, -1])], (4, 3)),
    ([np.array([[0, 3], [1, 1]]), np.array([2, 0])], (4, 3, 2)),
    ([np.array([1]), np.array([[0], [2]]), np.array([0, 1, 1])], (2, 3, 2)),
    ([np.zeros((0,), dtype=np.int64)], (3, 2)),
    ([], (2, 2)),
]


@pytest.mark.parametrize("dtype", [np.float64, np.float32])
@pytest.mark.parametrize("keys,shape", GATHER_KEYS)
def test_gather_scatter_index_add_match_numpy(keys, shape, dtype, rng):
    a = rng.standard_normal(shape).astype(dtype)
    idx = tuple(keys)
    got = moira.gather(Tensor(a), [Tensor(k) for k in keys])
    np.testing.assert_array_equal(np.array(got), a[idx])
    vals = rng.standard_normal(a[idx].shape).astype(dtype)
    t = Tensor(a)
    moira.scatter_(t, [Tensor(k) for k in keys], Tensor(vals))
    want = a.copy()
    want[idx] = vals
    np.testing.assert_array_equal(np.array(t), want)
    t = Tensor(a)
    moira.index_add_(t, [Tensor(k) for k in keys], Tensor(vals))
    want = a.copy()
    np.add.at(want, idx, vals)
    np.testing.assert_allclose(np.array(t), want, rtol=1e-12 if dtype == np.float64 else 1e-6)


@pytest.mark.parametrize("call", [
    lambda t: moira.gather(t, [Tensor(np.array([4]))]),
    lambda t: moira.gather(t, [Tensor(np.array([-5]))]),
    lambda t: moira.scatter_(t, [Tensor(np.array([0, 9]))], Tensor(np.ones((2, 3)))),
    lambda t: moira.index_add_(t, [Tensor(np.array([0])), Tensor(np.array([3]))], Tensor(np.ones(1))),
])
def test_out_of_range_indices_raise_before_any_write(call):
    t = Tensor(np.zeros((4, 3)))
    with pytest.raises(IndexError, match="out of bounds for axis"):
        call(t)
    np.testing.assert_array_equal(np.array(t), np.zeros((4, 3)))


@pytest.mark.parametrize("call, exc", [
    (lambda t: moira.gather(t, [Tensor(np.array([0, 1])), Tensor(np.array([0, 1, 2]))]), ValueError),
    (lambda t: moira.gather(t, [Tensor(np.array([True]))]), TypeError),
    (lambda t: moira.gather(t, [Tensor(np.array([0]))] * 3), IndexError),
    (lambda t: moira.scatter_(t, [Tensor(np.array([0, 1]))], Tensor(np.ones((3, 3)))), ValueError),
    (lambda t: moira.gather(t, "0"), TypeError),
])
def test_bad_index_tensors(call, exc):
    with pytest.raises(exc):
        call(Tensor(np.zeros((4, 3))))


@pytest.mark.parametrize("axis", [0, 1, -1])
def test_positions_along_an_axis(axis, rng):
    a = rng.standard_normal((3, 4, 5))
    pos = np.argsort(a, axis=axis)
    np.testing.assert_array_equal(np.array(moira.gather_along(Tensor(a), axis, Tensor(pos))),
                                  np.take_along_axis(a, pos, axis))
    g = rng.standard_normal(a.shape)
    out = Tensor(np.zeros(a.shape))
    moira.index_add_along_(out, axis, Tensor(pos), Tensor(g))
    want = np.zeros(a.shape)
    np.put_along_axis(want, pos, g, axis)  # a permutation: every position once
    np.testing.assert_allclose(np.array(out), want)


# ---- value semantics seen from the tensor module ----

def test_gradient_functions_keep_the_values_they_saved():
    """A later in-place write into a factor does not change the gradient the graph computes."""
    x = QTensor(np.array([1.0, 2.0]), requires_grad=True)
    w = QTensor(np.array([3.0, 4.0]), requires_grad=True)
    y = x * w
    w.data.fill_(100.0)
    x.data.fill_(100.0)
    y.backward()
    np.testing.assert_array_equal(x.grad.to_numpy(), [3.0, 4.0])
    np.testing.assert_array_equal(w.grad.to_numpy(), [1.0, 2.0])


def _address(q):
    return np.asarray(q.data).__array_interface__["data"][0]


def test_parameter_updated_in_place_is_copied_only_while_a_graph_holds_it():
    w = QTensor(np.ones((64, 64)), requires_grad=True)
    x = QTensor(np.ones((8, 64)), requires_grad=True)  # x's gradient reads w
    loss = T.sums(T.matmul(x, w))
    loss.backward()
    before = _address(w)
    w.data.sub_(w.grad.data.mult(0.1))  # the graph of `loss` still holds w's values
    assert _address(w) != before
    del loss
    gc.collect()
    before = _address(w)
    w.data.sub_(w.grad.data.mult(0.1))  # nothing else holds them now
    assert _address(w) == before


@pytest.mark.rss
def test_training_with_in_place_updates_runs_in_flat_memory():
    psutil = pytest.importorskip("psutil")
    proc = psutil.Process()
    w = QTensor(np.full((256, 256), 0.01), requires_grad=True)
    x = QTensor(np.ones((32, 256)))

    def step():
        loss = T.sums(T.tanh(T.matmul(x, w)))
        w.zero_grad()
        loss.backward()
        w.data.sub_(w.grad.data.mult(1e-4))  # while `loss` is alive
        return loss

    for _ in range(50):
        step()
    gc.collect()
    start = proc.memory_info().rss
    for _ in range(300):
        step()
    gc.collect()
    assert proc.memory_info().rss - start < 8 * 2 ** 20
