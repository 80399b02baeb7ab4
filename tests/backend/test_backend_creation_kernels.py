"""Backend creation kernels against numpy, and the random generator."""
import math
import os
import subprocess
import sys

import numpy as np
import pytest

from pymoira._core import Tensor, moira


@pytest.mark.parametrize("start, end, step", [(2, 30, 4), (1, 61, 1), (0, 1, 0.1), (5, 0, -1.5), (3, 1, 1),
                                              (-2.5, 2.5, 0.5), (0, 0, 1)])
def test_arange(start, end, step):
    np.testing.assert_allclose(Tensor.arange(start, end, step).getdata(),
                               np.arange(start, end, step, dtype=np.float64), rtol=1e-6, atol=1e-6)


@pytest.mark.parametrize("start, end, nums", [(0, 1, 5), (2, 3, 1), (0, 1, 0), (-1, 7, 9), (1, 0, 4)])
def test_linspace(start, end, nums):
    out = Tensor.linspace(start, end, nums).getdata()
    np.testing.assert_allclose(out, np.linspace(start, end, nums), rtol=1e-6)
    if nums > 1:
        assert out[-1] == np.float32(end)


@pytest.mark.parametrize("start, end, nums, base", [(0, 2, 3, 10), (0, 4, 5, 2), (1, -1, 3, 10.0), (0, 1, 1, 3)])
def test_logspace(start, end, nums, base):
    np.testing.assert_allclose(Tensor.logspace(start, end, nums, base).getdata(),
                               np.logspace(start, end, nums, base=base), rtol=1e-6)


@pytest.mark.parametrize("n", [0, 1, 4])
@pytest.mark.parametrize("offset", [-5, -1, 0, 2, 3, 2 ** 63 - 1, -2 ** 63])
def test_eye(n, offset):
    np.testing.assert_array_equal(Tensor.eye(n, offset).getdata(), np.eye(n, k=max(min(offset, n), -n)))


@pytest.mark.parametrize("k", [-3, -1, 0, 1, 2])
def test_diag_of_a_vector(k):
    v = np.array([1.0, -2.0, 3.0])
    np.testing.assert_array_equal(Tensor.diag(Tensor(v), k).getdata(), np.diag(v, k))


@pytest.mark.parametrize("k", [-4, -1, 0, 1, 3, 2 ** 63 - 1, -2 ** 63])
@pytest.mark.parametrize("shape", [(3, 3), (2, 4), (4, 2)])
def test_diag_of_a_matrix_keeps_one_diagonal(shape, k):
    m = np.arange(1.0, 1.0 + np.prod(shape)).reshape(shape)
    rows, cols = np.indices(shape)
    expected = np.where(cols - rows == k, m, 0)
    out = Tensor.diag(Tensor(m), k)
    assert out.dtype == "float64"
    np.testing.assert_array_equal(out.getdata(), expected)


@pytest.mark.parametrize("src", [np.array([[1, 2]]), np.array([True, False]), np.array([1.5], dtype=np.float64),
                                 np.ones((2, 3), dtype=np.float32)])
def test_like_functions_keep_shape_and_type(src):
    t = Tensor(src)
    for out, value in [(t.zeros_like(), 0), (t.ones_like(), 1), (t.full_like(1), 1)]:
        assert out.dtype == t.dtype and out.shape == t.shape
        np.testing.assert_array_equal(out.getdata(), np.full(src.shape, value, dtype=src.dtype))
    np.testing.assert_array_equal(Tensor.full([2, 2], -3.5).getdata(), np.full((2, 2), -3.5))


@pytest.mark.parametrize("dtype", ["float32", "float64", "int64", "bool", np.float64])
def test_shape_and_fill_creation_with_a_type(dtype):
    for make, value in [(Tensor.zeros, 0), (Tensor.ones, 1)]:
        t = make([2, 3], dtype=dtype)
        assert t.dtype == np.dtype(dtype).name and t.shape == [2, 3]
        np.testing.assert_array_equal(t.getdata(), np.full((2, 3), value))
    assert Tensor.empty([4, 0], dtype=dtype).shape == [4, 0]


@pytest.mark.parametrize("make", [Tensor.randu, Tensor.randn])
def test_seeding_reproduces_the_stream(make):
    moira.seed(1234)
    a = make([100]).getdata()
    b = make([100]).getdata()
    moira.seed(1234)
    np.testing.assert_array_equal(make([100]).getdata(), a)
    np.testing.assert_array_equal(make([100]).getdata(), b)
    assert not np.array_equal(a, b)
    moira.seed(4321)
    assert not np.array_equal(make([100]).getdata(), a)


def test_random_distributions():
    moira.seed(7)
    u = Tensor.randu([200_000]).getdata()
    assert u.dtype == np.float32 and u.min() >= 0.0 and u.max() < 1.0
    assert abs(u.mean() - 0.5) < 0.005 and abs(u.var() - 1 / 12) < 0.002
    assert abs(np.histogram(u, bins=10, range=(0, 1))[0] / u.size - 0.1).max() < 0.005
    n = Tensor.randn([200_000]).getdata()
    assert abs(n.mean()) < 0.01 and abs(n.std() - 1) < 0.01
    assert abs((np.abs(n) < 1).mean() - 0.6827) < 0.005
    assert Tensor.randn([3, 0]).shape == [3, 0]


# A reference of the random stream: Philox 4x32-10 and the conversions of Note [Random streams].
M32 = 0xFFFFFFFF


def philox(counter, key):
    c, (k0, k1) = list(counter), key
    for r in range(10):
        if r:
            k0, k1 = (k0 + 0x9E3779B9) & M32, (k1 + 0xBB67AE85) & M32
        p0, p1 = 0xD2511F53 * c[0], 0xCD9E8D57 * c[2]
        c = [(p1 >> 32) ^ c[1] ^ k0, p1 & M32, (p0 >> 32) ^ c[3] ^ k1, p0 & M32]
    return c


def block(seed, c):
    return philox((c & M32, c >> 32, 0, 0), (seed & M32, seed >> 32))


def u53(hi, lo):
    return ((hi << 32 | lo) >> 11) * 2.0 ** -53


def normal_pair(w):
    r = math.sqrt(-2.0 * math.log(1.0 - u53(w[0], w[1])))
    t = 6.283185307179586 * u53(w[2], w[3])
    return [r * math.cos(t), r * math.sin(t)]


@pytest.mark.parametrize("counter, key, words", [  # known answers of Philox 4x32-10
    ((0, 0, 0, 0), (0, 0), "6627e8d5 e169c58d bc57ac4c 9b00dbd8"),
    ((M32,) * 4, (M32, M32), "408f276d 41c83b0e a20bc7c6 6d5451fd"),
    ((0x243F6A88, 0x85A308D3, 0x13198A2E, 0x03707344), (0xA4093822, 0x299F31D0), "d16cfe09 94fdcceb 5001e420 24126ea1")])
def test_reference_generator(counter, key, words):
    assert " ".join("%08x" % w for w in philox(counter, key)) == words


@pytest.mark.parametrize("seed", [0, 2 ** 40 + 12345])
def test_stream_matches_the_reference(seed):
    moira.seed(seed)
    f64 = lambda n: Tensor.zeros([n], dtype="float64")  # noqa: E731
    u32 = Tensor.randu([6]).getdata()                            # blocks 0-1, four values each
    u64 = f64(3)
    u64.fill_rand_uniform_(1)                                    # blocks 2-3, two values each
    n32 = Tensor.randn([3]).getdata()                            # blocks 4-5, two values each
    n64, fast = f64(4), f64(4)
    n64.fill_rand_normal_(0, 1, False)                           # blocks 6-7
    fast.fill_rand_normal_(0, 1, True)                           # blocks 8-9, float precision
    np.testing.assert_array_equal(u32, np.float32([(w >> 8) * 2.0 ** -24 for c in (0, 1) for w in block(seed, c)][:6]))
    np.testing.assert_array_equal(u64.getdata(), [u53(*block(seed, c)[j:j + 2]) for c in (2, 3) for j in (0, 2)][:3])
    np.testing.assert_array_equal(n32, np.float32(normal_pair(block(seed, 4)) + normal_pair(block(seed, 5)))[:3])
    np.testing.assert_allclose(n64.getdata(), normal_pair(block(seed, 6)) + normal_pair(block(seed, 7)), rtol=1e-15)
    np.testing.assert_allclose(fast.getdata(), normal_pair(block(seed, 8)) + normal_pair(block(seed, 9)), rtol=1e-5)


THREADS_SCRIPT = """
import hashlib
from pymoira._core import Tensor, moira
moira.seed(5)
h = hashlib.sha256()
for dtype in ("float32", "float64", "int64"):
    t = Tensor.zeros([(1 << 19) + 3], dtype=dtype)
    fills = [lambda: t.fill_rand_binary_(0.3)]
    if dtype != "int64":
        fills += [lambda: t.fill_rand_uniform_withbound_(-1, 3), lambda: t.fill_rand_normal_(1, 2, True),
                  lambda: t.fill_rand_normal_(1, 2, False)]
    for fill in fills:
        fill()
        h.update(t.getdata().tobytes())
print(h.hexdigest())
"""


def test_fills_do_not_depend_on_the_thread_count():
    digests = {subprocess.run([sys.executable, "-c", THREADS_SCRIPT], env={**os.environ, "OMP_NUM_THREADS": n},
                              capture_output=True, text=True, check=True).stdout for n in ("1", "2")}
    assert len(digests) == 1
