"""QTensor and Tensor among other libraries: numpy's dtype and __array__, DLPack both ways (memory
shared on purpose: the one exception to value semantics), and pickling."""
import copy
import gc
import pickle

import numpy as np
import pytest

import pymoira.tensor.tensor as T
from helpers import LAYOUTS, laid_out
from pymoira._core import Tensor, moira
from pymoira.tensor.tensor import QTensor

DTYPES = [np.bool_, np.int64, np.float32, np.float64]


def _values(dtype, shape=(2, 3)):
    a = np.arange(int(np.prod(shape))).reshape(shape) - 2
    return (a > 0) if dtype is np.bool_ else a.astype(dtype)


@pytest.mark.parametrize("dtype", DTYPES)
def test_dtype_and_array_protocol(dtype):
    a = _values(dtype)
    q = QTensor(a)
    assert q.dtype == q.data.dtype == np.dtype(dtype) and isinstance(q.dtype, np.dtype)
    view = np.asarray(q)
    assert view.dtype == dtype and not view.flags.writeable  # the storage is not numpy's to write
    np.testing.assert_array_equal(view, a)
    copied = np.array(q, copy=True)
    copied[...] = 0
    np.testing.assert_array_equal(q.pdata, a)
    assert np.asarray(q, dtype=np.float64).dtype == np.float64
    with pytest.raises(ValueError, match="copy=False"):
        q.__array__(dtype=np.complex128 if dtype is np.float64 else np.float64, copy=False)
    assert np.sum(q) == np.sum(a)  # numpy functions see the values, not an object array


@pytest.mark.parametrize("layout", LAYOUTS)
@pytest.mark.parametrize("dtype", DTYPES)
def test_dlpack_export_shares_memory_both_ways(dtype, layout):
    values, t = laid_out(_values(dtype, (3, 4)), layout)
    q = QTensor(t)
    a = np.from_dlpack(q)
    np.testing.assert_array_equal(a, values)
    assert q.__dlpack_device__() == (1, 0)
    if layout == "broadcast":
        return  # numpy refuses to write through repeated elements
    a[0, 0] = not a[0, 0] if dtype is np.bool_ else 7
    assert q.pdata[0, 0] == a[0, 0]  # numpy's write reaches the tensor
    if layout == "contiguous":
        q.data.fill_(1)
        assert (a == 1).all()  # and the tensor's own in-place writes reach numpy


@pytest.mark.parametrize("make, want", [(Tensor, [1, 0, 1, 1]), (QTensor, [1, 0, 1, 1]),
                                        (moira.from_dlpack, [1, 0, 1, 1]), (T.from_dlpack, [1, 0, 1, 1]),
                                        (lambda a: moira.from_dlpack(a[::2]), [1, 1])])
def test_bool_memory_with_other_true_bytes_reads_as_ones(make, want):
    """A byte array viewed as bool holds trues other than 1; kernels count bools, so they come in as 0/1."""
    t = make(np.array([2, 0, 255, 1], dtype=np.uint8).view(bool))
    core = t if isinstance(t, Tensor) else t.data
    np.testing.assert_array_equal(np.frombuffer(np.array(core).tobytes(), np.uint8), want)
    assert np.array(core.sum()).item() == sum(want)


def test_dlpack_export_lends_memory_no_other_tensor_sees():
    """A gradient passed to two inputs and a view both share memory copy-on-write; the export
    gives the exported tensor memory of its own first, so writes through it reach nothing else."""
    a, b = (QTensor(np.zeros(3), requires_grad=True) for _ in range(2))
    T.sums(a + b).backward()
    np.from_dlpack(a.grad)[:] = 5
    np.testing.assert_array_equal(b.grad.pdata, [1, 1, 1])
    np.testing.assert_array_equal(a.grad.pdata, [5, 5, 5])
    x = QTensor(np.arange(4.0))
    np.from_dlpack(x.reshape([2, 2]))[0, 0] = 9
    np.testing.assert_array_equal(x.pdata, np.arange(4.0))


@pytest.mark.parametrize("dtype", DTYPES)
def test_from_dlpack_imports_without_copy(dtype):
    a = _values(dtype, (3, 2)).copy()
    for make in (moira.from_dlpack, T.from_dlpack):
        t = make(a)
        t_core = t.data if isinstance(t, QTensor) else t
        assert np.shares_memory(np.asarray(t_core), a)
        a[0, 0] = not a[0, 0] if dtype is np.bool_ else 5
        assert np.array(t_core)[0, 0] == a[0, 0]
    strided = np.arange(12.0).reshape(3, 4)[::-1, ::2]
    np.testing.assert_array_equal(np.array(moira.from_dlpack(strided)), strided)


def test_from_dlpack_lifetimes():
    a = np.arange(5.0)
    t = moira.from_dlpack(a)
    del a
    gc.collect()
    np.testing.assert_array_equal(np.array(t), np.arange(5.0))  # the tensor keeps the producer alive
    b = np.from_dlpack(Tensor(np.arange(4.0)))  # the tensor is dropped first
    gc.collect()
    np.testing.assert_array_equal(b, np.arange(4.0))


def test_read_only_sources_are_copied_on_write():
    a = np.arange(3.0)
    a.flags.writeable = False
    t = moira.from_dlpack(a)
    t.add_(1.0)
    np.testing.assert_array_equal(a, [0.0, 1.0, 2.0])
    np.testing.assert_array_equal(np.array(t), [1.0, 2.0, 3.0])


@pytest.mark.parametrize("bad, match", [
    (np.zeros(3, np.int32), "element type int32"),
    (np.zeros(3, np.float16), "element type float16"),
    ("text", "expected an object with __dlpack__"),
    (3.0, "expected an object with __dlpack__"),
])
def test_from_dlpack_refusals(bad, match):
    with pytest.raises(TypeError, match=match):
        T.from_dlpack(bad)


@pytest.mark.parametrize("kwargs, exc", [({"max_version": ("a",)}, TypeError), ({"stream": 5}, ValueError),
                                         ({"dl_device": (2, 0)}, BufferError)])
def test_dlpack_export_refusals(kwargs, exc):
    with pytest.raises(exc):
        QTensor(np.ones(2)).__dlpack__(**kwargs)


def test_a_capsule_is_consumed_once():
    cap = Tensor(np.arange(3.0)).__dlpack__()
    t = moira.from_dlpack(cap)
    np.testing.assert_array_equal(np.array(t), [0.0, 1.0, 2.0])
    with pytest.raises(Exception):
        moira.from_dlpack(cap)


@pytest.mark.parametrize("dtype", DTYPES)
@pytest.mark.parametrize("requires_grad", [False, True])
def test_pickle_and_deepcopy(dtype, requires_grad):
    a = _values(dtype)
    x = QTensor(a.astype(np.float64) if requires_grad else a, requires_grad=requires_grad)
    y = x * 2 if requires_grad else x
    for restored in (pickle.loads(pickle.dumps(y)), copy.deepcopy(y), pickle.loads(pickle.dumps(y.data))):
        core = restored.data if isinstance(restored, QTensor) else restored
        np.testing.assert_array_equal(np.array(core), np.array(y.data))
        assert np.array(core).dtype == np.array(y.data).dtype
        if isinstance(restored, QTensor):
            assert restored.requires_grad == requires_grad and restored.nodes == [] and restored.device == 0
            if requires_grad:  # a result comes back as a leaf with zero gradients
                np.testing.assert_array_equal(restored.grad.pdata, np.zeros(a.shape))
    mask = T.greater(QTensor(a.astype(float)), QTensor(np.zeros(a.shape)))
    assert pickle.loads(pickle.dumps(mask)).is_bool


@pytest.mark.parametrize("state", [None, (1, 2), ("x", True, 0, False), (np.ones(2), True, 0, False)])
def test_corrupted_pickles_raise(state):
    q = QTensor.__new__(QTensor)
    with pytest.raises((ValueError, TypeError)):
        q.__setstate__(state)
    t = Tensor.__new__(Tensor)
    with pytest.raises((ValueError, TypeError)):
        t.__setstate__(state)
