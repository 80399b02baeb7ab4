"""Backend creation kernels against numpy, and the random generator."""
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
