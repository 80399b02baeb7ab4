"""Subscripts: t[k] and t[k] = v against numpy for random keys (integers, slices of every sign,
index tensors broadcast together, adjacent and separated advanced entries, masks, mixed keys) on real
and complex tensors, exact gradients of advanced keys, the advanced-index analysis, and the refusals
(complex keys, and complex values written into real tensors, among them)."""
import numpy as np
import pytest

import pymoira.tensor.tensor as T
from optable import C128, cast
from pymoira._core import Tensor
from pymoira.tensor.tensor import QTensor


def _random_slice(rng, n):
    """Bounds and steps beyond int64 included: Python clamps them like any other."""
    pick = lambda: (None if rng.random() < 0.3 else int(rng.choice([-10**30, 10**30])) if rng.random() < 0.1
                    else int(rng.integers(-n - 3, n + 4)))
    step = None if rng.random() < 0.3 else int(rng.choice([-3, -2, -1, 1, 2, 3, -2**63, 10**30]))
    return slice(pick(), pick(), step)


def _random_entry(rng, n, advanced):
    r = rng.random()
    if advanced and r < 0.35:
        shape = [(), (3,), (2, 1), (1, 3)][int(rng.integers(0, 4))]
        return rng.integers(-n, n, size=shape) if n else np.zeros(shape, dtype=np.int64)
    if r < 0.6 and n:
        return int(rng.integers(-n, n))
    return _random_slice(rng, n)


def _as_key(entries):
    """The numpy key and our key: arrays become QTensors (0-d ones shape [1])."""
    ours = tuple(QTensor(np.atleast_1d(e)) if isinstance(e, np.ndarray) else e for e in entries)
    theirs = tuple(np.atleast_1d(e) if isinstance(e, np.ndarray) else e for e in entries)
    return ours, theirs


@pytest.mark.parametrize("seed", range(60))
def test_reads_and_writes_match_numpy(seed):
    rng = np.random.default_rng(seed)
    shape = tuple(int(rng.integers(1, 5)) for _ in range(int(rng.integers(1, 4))))
    a = rng.standard_normal(shape)
    a = cast(a, C128) if seed % 3 == 0 else a
    advanced = seed % 2 == 0
    entries = [_random_entry(rng, n, advanced) for n in shape[:int(rng.integers(1, len(shape) + 1))]]
    ours, theirs = _as_key(entries)
    key = ours[0] if len(ours) == 1 else ours
    want = a[theirs[0] if len(theirs) == 1 else theirs]
    got = QTensor(a)[key]
    np.testing.assert_array_equal(got.pdata, np.reshape(want, got.shape))
    assert got.pdata.size == np.size(want)
    if np.ndim(want) and 0 not in np.shape(want):
        t, ref = QTensor(a.copy()), a.copy()
        v = cast(rng.standard_normal(np.shape(want)[-1:]), a.dtype)  # broadcast along the leading axes
        ref[theirs[0] if len(theirs) == 1 else theirs] = v
        t[key] = QTensor(v)
        np.testing.assert_array_equal(t.pdata, ref)


I1, I2 = np.arange(3).reshape(3, 1) % 2, np.array([0, 1, 0, 2, 3, 2, 2, 3, 3]).reshape(3, 3) % 2
S = slice(None)


@pytest.mark.parametrize("shape, key, want_shape", [
    ((2, 8, 4, 7, 4), lambda w: (S, w(I1), slice(3, None), w(I2), slice(2, None)), [3, 3, 2, 1, 2]),  # separated
    ((2, 8, 4, 7, 4), lambda w: (S, w(I1), w(I2)), [2, 3, 3, 7, 4]),  # adjacent: the block stays in place
    ((2, 8, 4, 7, 4), lambda w: (w(I1), S, w(I2)), [3, 3, 8, 7, 4]),
    # an axis of length 0 behind the indexed ones: valid positions, nothing to move
    ((3, 0), lambda w: w(np.array([1])), [1, 0]),
    ((3, 0), lambda w: w(np.array([[0, 2], [-1, 1]])), [2, 2, 0]),
    ((3, 0), lambda w: (w(np.array([2, 0])), S), [2, 0]),
    ((3, 0, 5, 6), lambda w: (w(I1), S, S), [3, 1, 0, 5, 6]),
    ((2, 3, 0), lambda w: (S, w(I2)), [2, 3, 3, 0]),
    ((4, 3, 0), lambda w: (w(I1), 2), [3, 1, 0]),
    ((4, 3, 2, 0), lambda w: (w(I1), S, -1), [3, 1, 3, 0]),  # separated: the block comes first
])
def test_advanced_keys_read_write_and_differentiate_like_numpy(shape, key, want_shape, rng):
    a = np.arange(1.0, 1 + np.prod(shape)).reshape(shape)
    ours, theirs = key(QTensor), key(lambda i: i)
    x = QTensor(a, requires_grad=True)
    got, want = x[ours], a[theirs]
    assert got.shape == list(want.shape) == want_shape
    np.testing.assert_array_equal(got.pdata, want)
    g = rng.standard_normal(want.shape)
    got.backward(QTensor(g))
    expected = np.zeros(shape)
    np.add.at(expected, theirs, g)
    np.testing.assert_allclose(x.grad.pdata, expected, atol=1e-12)
    v = QTensor(rng.standard_normal(want.shape), requires_grad=True)
    t, ref = QTensor(a.copy()), a.copy()
    t[key(QTensor)] = v
    ref[theirs] = v.pdata
    np.testing.assert_array_equal(t.pdata, ref)
    gt = rng.standard_normal(shape)
    t.backward(QTensor(gt))
    np.testing.assert_array_equal(v.grad.pdata, gt[theirs])


@pytest.mark.parametrize("dtype", [np.float64, C128])
def test_masks_read_and_write_in_row_major_order(dtype, rng):
    a = cast(rng.standard_normal((4, 5)), dtype)
    t = QTensor(a)
    mask = QTensor(a.real) > 0.2
    np.testing.assert_array_equal(t[mask].pdata, a[a.real > 0.2])
    v = cast(rng.standard_normal(int((a.real > 0.2).sum())), dtype)
    t[mask] = QTensor(v)
    ref = a.copy()
    ref[a.real > 0.2] = v
    np.testing.assert_array_equal(t.pdata, ref)
    value = 0.5 if dtype == np.float64 else 0.5 - 2j
    t[QTensor(ref.real) < 0] = value  # one value for every set position
    ref[ref.real < 0] = value
    np.testing.assert_array_equal(t.pdata, ref)
    # a mask inside a tuple is not a mask: its 0 and 1 are row numbers
    np.testing.assert_array_equal(t[mask[:, 0], 0].pdata, ref[(a[:, 0].real > 0.2).astype(int), 0])


def test_advanced_write_rules_for_flags_and_device():
    t = QTensor(np.zeros((3, 2)), requires_grad=True)
    t[QTensor(np.array([0]))] = QTensor(np.ones((1, 2)))  # values that do not track: t stops tracking
    assert t.requires_grad is False and t.device == 0
    QTensor.NO_GRAD = True
    t = QTensor(np.zeros((3, 2)))
    t[QTensor(np.array([1]))] = QTensor(np.ones((1, 2)), requires_grad=True)  # NO_GRAD is not consulted
    assert t.requires_grad is True and len(t.nodes) == 1
    t[t > 5] = QTensor(np.ones(0), requires_grad=True)  # the mask write consults it
    assert t.requires_grad is False and len(t.nodes) == 1


@pytest.mark.parametrize("key, exc, message, context, write_exc", [
    ((Ellipsis, 0), ValueError, "only support slice and integar index", IndexError, ValueError),
    ((1, None), ValueError, "only support slice and integar index", None, ValueError),
    (None, TypeError, "has no len", None, TypeError),
    ((0, 0, 0), ValueError, "numbers of keys should not more than input shape length", None, ValueError),
    (1.5, TypeError, "has no len", None, TypeError),
    ("0", ValueError, "only support slice and integar index", None, ValueError),
    pytest.param(QTensor(np.array([0.5, np.nan])), IndexError, "out of bounds", None, ValueError,
                 marks=pytest.mark.filterwarnings("ignore:invalid value:RuntimeWarning")),  # NaN truncates as numpy's
    # integers of any size: out of range is IndexError, as for numpy
    (1 << 64, IndexError, "position 18446744073709551616 is out of range for an axis of length 3", None, IndexError),
    (-(1 << 64), IndexError, "position -18446744073709551616 is out of range", None, IndexError),
    (2**63, IndexError, "position 9223372036854775808 is out of range", None, IndexError),
    (-2**63 - 1, IndexError, "position -9223372036854775809 is out of range", None, IndexError),
    ((0, 1 << 70), IndexError, "axis 1: position 1180591620717411303424 is out of range for an axis of length 4",
     IndexError, IndexError),
    # complex positions are refused, never truncated
    (QTensor(np.array([1 + 0j, 2])), TypeError, "complex", None, TypeError),
    ((QTensor(np.array([1 + 0j, 2])), 1), TypeError, "complex", None, TypeError),
    ((0, np.array([1j])), TypeError, "complex", None, TypeError),
])
def test_refused_keys(key, exc, message, context, write_exc):
    t = QTensor(np.ones((3, 4)))
    with pytest.raises(exc, match=message) as info:
        t[key]
    if context is not None:
        assert isinstance(info.value.__context__, context)
    with pytest.raises(write_exc):
        t[key] = 5.0
    assert (t.pdata == 1).all()


def test_gpu_index_tensors_and_bad_values_are_refused_before_any_write():
    t = QTensor(np.zeros((3, 2)), requires_grad=True)
    gpu = QTensor(np.array([0]))
    gpu.device = 1000
    for action in (lambda: t[gpu], lambda: t.__setitem__(gpu, QTensor(np.ones(2)))):
        with pytest.raises(IndexError, match="Use QTensor on CPU device as advance index"):
            action()
    with pytest.raises(ValueError, match="set value should be QTensor "):
        t[0] = object()
    assert t.requires_grad is True and t.nodes == [] and (t.pdata == 0).all()


@pytest.mark.parametrize("key", [0, slice(1, 3), (1, slice(None)), lambda t: t > 5,
                                 lambda t: QTensor(np.array([0, 2])),
                                 lambda t: (QTensor(np.array([0, 2])), slice(1, None))])
@pytest.mark.parametrize("value", [1j, QTensor(np.array([2 - 1j], dtype=np.complex64))], ids=["1j", "complex64"])
def test_complex_values_into_a_real_tensor_are_refused(key, value):
    a = np.arange(12.0).reshape(3, 4)
    t = QTensor(a.copy(), requires_grad=True)
    with pytest.raises(TypeError, match="complex"):
        t[key(t) if callable(key) else key] = value
    assert t.requires_grad is True and t.nodes == []
    np.testing.assert_array_equal(t.pdata, a)


@pytest.mark.parametrize("seed", range(20))
def test_out_of_range_index_tensors_raise_index_error_and_write_nothing(seed):
    rng = np.random.default_rng(seed)
    a = rng.standard_normal((4, 5))
    bad = rng.integers(-9, 9, size=3)
    if ((bad >= -4) & (bad < 4)).all():
        bad[0] = 4 + int(rng.integers(0, 5))
    t = QTensor(a.copy())
    with pytest.raises(IndexError, match="out of bounds for axis 0 with size 4"):
        t[QTensor(bad)]
    with pytest.raises(ValueError, match="only support slice and integar index") as info:  # the basic retry's
        t[QTensor(bad), :] = QTensor(np.ones((3, 5)))
    assert isinstance(info.value.__context__, IndexError) and "out of bounds" in str(info.value.__context__)
    np.testing.assert_array_equal(t.pdata, a)
    with pytest.raises(IndexError, match="does not match"):
        t[QTensor(np.ones((3, 5))) > 0]


def test_analysis_helpers():
    assert T._prepare_indice_for_advance_indexing([1, 6], [5, 4, 3], 1)[0] == [6, 4, 3]
    oshape, mshape, strides, k = T._prepare_indice_for_advance_indexing([5, 3, 3, 2, 1, 2], [2, 8, 4, 7, 4], 5)
    assert (oshape, k) == ([3, 3, 2, 1, 2], 1) and strides.tolist()[:5] == [896, 112, 28, 4, 1]
    assert mshape.dtype == np.float64 and len(mshape) == 10
    assert T._drop_slice_none_at_end((1, slice(None), slice(1, None), slice(None))) == (1, slice(None), slice(1, None))
    assert T._get_broadcast_shape((3, 1), (3, 3)) == (3, 3)
    with pytest.raises(ValueError, match=r"shape1=\(2,\) is not broadcastable to shape2=\(3,\)"):
        T._get_broadcast_shape((2,), (3,))
    assert T._broadcast_shapes([np.zeros((2, 1)), np.zeros(3)]) == (2, 3)
    key, advanced = T._just_if_advance_index((QTensor([1.0]), None), [4, 5])
    assert advanced and key[1] is None and key[2] == slice(None) and key[0].tolist() == [1]
    assert T._just_if_advance_index((0, 1, 2), [4, 5]) == ((0, 1, 2), False)
    with pytest.raises(IndexError, match=r"too many indices \(3\) for array with 2 dimensions"):
        T.get_bdshape_for_slice((0, 1, 2), [4, 5])
    with pytest.raises(RuntimeError, match="illegal index type <class 'float'>"):
        T._is_advanced_index(1.5)
    np.testing.assert_array_equal(T._advanced_index_to_array(slice(None, None, -2), 5), [4, 2, 0])
    with pytest.raises(OverflowError, match="strides"):  # 3 * 2**62 blocks on: refused, not wrapped
        Tensor(np.zeros((4, 3))).advance_indexing_for_pyfun(1, 1, 3, [4], [2**62], Tensor(np.array([3])),
                                                              Tensor(np.zeros((1, 3))))


@pytest.mark.parametrize("index", ["10", ["1", 2], [Ellipsis], (slice(None),), [np.array([1])]])
def test_backend_select_takes_only_lists_of_strings(index):
    with pytest.raises(TypeError):
        Tensor(np.ones((11, 3))).select(index)
