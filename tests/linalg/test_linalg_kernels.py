"""Backend matrix products (Tensor.mult2D / bmm / matmul) against numpy, on every kernel path."""
import json
import subprocess
import sys

import numpy as np
import pytest

from pymoira import _core

CoreTensor = _core.Tensor
moira = _core.moira

ROUTINES = {2: CoreTensor.mult2D, 3: CoreTensor.bmm, 4: CoreTensor.matmul}
FLAGS = [(0, 0), (0, 1), (1, 0), (1, 1)]


def stored(x, flag):
    """The array to hand over so that the routine's flag brings back x."""
    return np.ascontiguousarray(np.swapaxes(x, -1, -2)) if flag else x


def random(rng, shape, dtype):
    if dtype == np.bool_:
        return rng.random(shape) < 0.3
    if dtype == np.int64:
        return rng.integers(-9, 10, shape).astype(np.int64)
    if np.dtype(dtype).kind == "c":
        return (rng.uniform(-1, 1, shape) + 1j * rng.uniform(-1, 1, shape)).astype(dtype)
    return rng.uniform(-1, 1, shape).astype(dtype)


ORDER = [np.bool_, np.int64, np.float32, np.float64]


def promoted(da, db):
    """The backend's promotion: bool < int64 < float32 < float64 (int64 with float32 stays float32);
    with a complex side, numpy's."""
    if np.dtype(da).kind == "c" or np.dtype(db).kind == "c":
        return np.result_type(da, db).type
    return ORDER[max(ORDER.index(da), ORDER.index(db))]


def check(rng, batch, m, k, n, dtype, flags, dtype_b=None):
    dtype_b = dtype_b or dtype
    a = random(rng, batch + (m, k), dtype)
    b = random(rng, batch + (k, n), dtype_b)
    fn = ROUTINES[len(batch) + 2]
    out = fn(CoreTensor(stored(a, flags[0])), CoreTensor(stored(b, flags[1])), *flags)
    ct = promoted(dtype, dtype_b)
    want = np.matmul(a.astype(ct), b.astype(ct))
    got = np.array(out)
    assert out.shape == list(want.shape)
    assert got.dtype == want.dtype
    if np.issubdtype(want.dtype, np.inexact):
        tol = 1e-5 if want.dtype in (np.float32, np.complex64) else 1e-12
        np.testing.assert_allclose(got, want, rtol=tol * 10, atol=tol * max(k, 1))
    else:
        np.testing.assert_array_equal(got, want)


# (batch, m, k, n). Rows and columns (one row or column: gemv, or gemm for a small row), batches of
# them, and batches spread over threads whole.
FLOAT_SHAPES = [((), 1, 1, 1), ((), 7, 5, 3), ((), 1, 65, 1), ((), 1, 40, 50), ((), 65, 33, 130), ((), 13, 130, 37),
                ((3,), 7, 5, 9), ((1,), 1, 1, 1), ((64,), 20, 30, 25), ((3,), 70, 50, 90), ((5,), 1, 300, 200),
                ((2, 3), 7, 5, 9), ((2, 3), 33, 17, 65), ((2, 3), 40, 30, 1), ((8, 8), 20, 20, 20)]
# Sizes that cross the register tile, row block, depth slice and column block, and products cut
# into per-thread shares of rows or columns: thick, thin (several shares per thread), gemv
# outputs, and a batch too short to spread whole.
BLOCK_EDGES = [((), 200, 300, 70), ((), 5, 260, 3100), ((), 97, 513, 34), ((), 1, 700, 900), ((), 900, 700, 1),
               ((), 17, 5, 2000), ((), 33, 64, 31), ((), 8, 300, 1100), ((), 1100, 300, 8), ((3,), 260, 260, 260)]


@pytest.mark.parametrize("flags", FLAGS)
@pytest.mark.parametrize("shape,dtype", [(s, t) for s in FLOAT_SHAPES
                                         for t in (np.float32, np.float64, np.complex64, np.complex128)]
                         + [(s, np.float64) for s in BLOCK_EDGES] + [(s, np.complex128) for s in BLOCK_EDGES[:3]],
                         ids=str)
def test_float_products(kernel_path, rng, shape, dtype, flags):
    check(rng, *shape, dtype, flags)


@pytest.mark.parametrize("flags", FLAGS)
@pytest.mark.parametrize("dtype", [np.int64, np.bool_])
@pytest.mark.parametrize("batch,m,k,n", [((), 1, 1, 1), ((), 7, 5, 3), ((), 65, 33, 130), ((3,), 4, 6, 5),
                                         ((2, 2), 3, 7, 2)])
def test_integer_and_bool(rng, batch, m, k, n, dtype, flags):
    check(rng, batch, m, k, n, dtype, flags)


@pytest.mark.parametrize("da,db", [(np.int64, np.float32), (np.float32, np.float64), (np.bool_, np.int64),
                                   (np.bool_, np.float32), (np.int64, np.float64), (np.float32, np.complex64),
                                   (np.float64, np.complex64), (np.int64, np.complex64), (np.complex64, np.complex128),
                                   (np.bool_, np.complex128)])
def test_mixed_types_promote(rng, da, db):
    check(rng, (), 6, 5, 4, da, (0, 1), dtype_b=db)


def test_int64_wraps_like_numpy():
    a = np.array([[2 ** 62, 3]], dtype=np.int64)
    b = np.array([[4], [5]], dtype=np.int64)
    np.testing.assert_array_equal(np.array(CoreTensor.mult2D(CoreTensor(a), CoreTensor(b))), a @ b)


@pytest.mark.parametrize("dtype", [np.float32, np.float64, np.int64, np.bool_, np.complex64])
@pytest.mark.parametrize("batch,m,k,n", [((), 0, 3, 4), ((), 3, 0, 4), ((), 3, 4, 0), ((), 0, 0, 0),
                                         ((0,), 2, 3, 4), ((2,), 2, 0, 3), ((2, 0), 2, 3, 4), ((1, 2), 0, 3, 1)])
def test_zero_size_axes(kernel_path, rng, batch, m, k, n, dtype):
    for flags in FLAGS:
        check(rng, batch, m, k, n, dtype, flags)


@pytest.mark.parametrize("fn,sa,sb,words", [
    (CoreTensor.mult2D, (2, 3), (4, 5), "inner extents"),
    (CoreTensor.mult2D, (2, 3), (3,), "2-D"),
    (CoreTensor.mult2D, (2, 3, 4), (2, 4, 3), "2-D"),
    (CoreTensor.bmm, (2, 3, 4), (3, 4, 5), "batch extents"),
    (CoreTensor.bmm, (2, 3, 4), (2, 5, 6), "inner extents"),
    (CoreTensor.bmm, (3, 4), (4, 5), "3-D"),
    (CoreTensor.matmul, (1, 2, 3, 4), (2, 1, 4, 3), "batch extents"),
    (CoreTensor.matmul, (1, 2, 3, 4), (1, 2, 3, 4), "inner extents"),
    (CoreTensor.matmul, (2, 3, 4), (2, 4, 3), "4-D"),
])
def test_shape_errors_name_both_shapes(fn, sa, sb, words):
    with pytest.raises(ValueError) as info:
        fn(CoreTensor(np.ones(sa)), CoreTensor(np.ones(sb)))
    message = str(info.value)
    assert words in message
    assert str(list(sa)) in message and str(list(sb)) in message


def test_transpose_flag_changes_the_checked_extents():
    a, b = CoreTensor(np.ones((2, 3))), CoreTensor(np.ones((2, 4)))
    with pytest.raises(ValueError, match=r"\[2, 4\] \(transposed\)"):
        a.mult2D(b, 0, 1)
    assert a.mult2D(b, 1, 0).shape == [3, 4]


@pytest.mark.parametrize("flag,exc", [(2, ValueError), (-1, ValueError), (10 ** 30, ValueError),
                                      (1.0, TypeError), ("1", TypeError), (None, TypeError)])
def test_bad_flags_raise(flag, exc):
    a = CoreTensor(np.ones((2, 2)))
    with pytest.raises(exc):
        a.mult2D(a, flag)
    with pytest.raises(exc):
        a.mult2D(a, 0, flag)


def test_bool_flags_are_accepted():
    a = CoreTensor(np.arange(6.0).reshape(2, 3))
    np.testing.assert_allclose(np.array(a.mult2D(a, True, False)), np.arange(6.0).reshape(2, 3).T @ np.arange(6.0).reshape(2, 3))


@pytest.mark.parametrize("other", [None, 3, np.ones((2, 2)), [[1.0]]])
def test_non_tensor_operand_raises_type_error(other):
    with pytest.raises(TypeError):
        CoreTensor(np.ones((2, 2))).mult2D(other)


def test_kernel_switches():
    assert isinstance(moira.blas_available(), bool)
    kernels = moira.blocked_kernels()
    assert "generic" in kernels
    previous = moira.set_blas(False)
    try:
        assert moira.blas_enabled() is False
        assert moira.set_blas(True) is False
        assert moira.blas_enabled() is moira.blas_available()
    finally:
        moira.set_blas(previous)
    with pytest.raises(ValueError, match="unknown kernel"):
        moira.set_blocked_kernel("fastest")
    for name in ("generic", "avx2", "avx512"):
        if name not in kernels:
            with pytest.raises(ValueError, match="cannot run"):
                moira.set_blocked_kernel(name)
    moira.set_blocked_kernel("auto")


NUMPY_STATE = """
import json, sys, numpy as np, threadpoolctl
def state():
    a = np.linspace(-1.0, 1.0, 300 * 300).reshape(300, 300)
    return [(a @ a).tolist(), (a[:1] @ a).tolist(), threadpoolctl.threadpool_info()]
before = state()
from pymoira.tensor.tensor import QTensor, matmul
x = QTensor(np.ones((300, 300)))
matmul(x, x), matmul(QTensor(np.ones((1, 300))), x)
print(json.dumps([before, state()]))
"""


def test_numpy_keeps_its_blas_results_and_threads(tmp_path):
    """Loading and using pymoira's BLAS leaves numpy's products and thread pools as they were."""
    pytest.importorskip("threadpoolctl")
    out = subprocess.run([sys.executable, "-c", NUMPY_STATE], capture_output=True, text=True, check=True,
                         cwd=tmp_path).stdout
    before, after = json.loads(out)
    assert after[:2] == before[:2]
    pools = {p["filepath"]: p for p in after[2]}
    assert [pools.get(p["filepath"]) for p in before[2]] == before[2]
