"""Backend Tensor construction: element-type rules, shapes, and bad inputs that must raise."""
import numpy as np
import pytest

from pymoira._core import Tensor


@pytest.mark.parametrize("data, shape", [(3, [1]), (2.5, [1]), (True, [1]), ([1, 2, 3], [3]), ((1, 2), [2]),
                                         ([[1.5, 2], [3, 4], [5, 6]], [3, 2]), ([(1, 2), (3, 4)], [2, 2]),
                                         ([True, False], [2]), ([], [0]), ([[], []], [2, 0]),
                                         ([[[1]], [[2]]], [2, 1, 1])])
def test_python_numbers_and_lists_become_float32(data, shape):
    t = Tensor(data)
    assert t.dtype == "float32"
    assert t.shape == shape
    expected = np.array(data if isinstance(data, (list, tuple)) else [data], dtype=np.float32).reshape(shape)
    np.testing.assert_array_equal(t.getdata(), expected)


@pytest.mark.parametrize("dtype, expected", [(np.float32, "float32"), (np.float64, "float64"), (np.bool_, "bool"),
                                             (np.float16, "float32"), (np.int8, "int64"), (np.int16, "int64"),
                                             (np.int32, "int64"), (np.int64, "int64"), (np.uint8, "int64"),
                                             (np.uint16, "int64"), (np.uint32, "int64"), (np.uint64, "int64")])
def test_numpy_element_types(dtype, expected):
    src = np.array([[0, 1, 2], [3, 4, 5]]).astype(dtype)
    t = Tensor(src)
    assert t.dtype == expected
    assert t.shape == [2, 3]
    np.testing.assert_array_equal(t.getdata(), src.astype(t.getdata().dtype))


def test_float16_special_values_convert_exactly():
    src = np.array([1.5, -2.0, 65504.0, 6e-8, np.inf, -0.0], dtype=np.float16)
    np.testing.assert_array_equal(Tensor(src).getdata(), src.astype(np.float32))
    assert np.isnan(Tensor(np.array([np.nan], dtype=np.float16)).getdata()[0])


@pytest.mark.parametrize("src", [np.arange(12.0).reshape(3, 4)[:, ::2], np.arange(12.0).reshape(3, 4).T,
                                 np.arange(6, dtype=np.int32)[::-1],  # negative stride, converted type
                                 np.arange(24, dtype=np.float32).reshape(2, 3, 4)[:, 1:, ::3],
                                 np.asfortranarray(np.arange(6.0).reshape(2, 3)), np.zeros((3, 0))], ids=str)
def test_non_contiguous_arrays_copy_their_values(src):
    t = Tensor(src)
    assert t.shape == list(src.shape)
    np.testing.assert_array_equal(t.getdata(), src)


@pytest.mark.parametrize("src, dtype", [(np.array(3.5), "float64"), (np.float64(3.5), "float64"),
                                        (np.int32(7), "int64"), (np.array(True), "bool")])
def test_zero_dimensional_arrays_and_numpy_scalars(src, dtype):
    t = Tensor(src)
    assert t.shape == [] and t.ndim == 0 and t.size == 1 and t.dtype == dtype
    assert t.item() == src


def test_construction_copies_the_source():
    src = np.ones(3, dtype=np.float32)
    t = Tensor(src)
    src[0] = 5
    assert t.getdata()[0] == 1
    u = Tensor(t)
    t.fill_(2)
    assert u.getdata()[0] == 1


def test_lists_of_numpy_arrays_use_numpy_types():
    t = Tensor([np.array([1, 2]), np.array([3, 4])])
    assert t.dtype == "int64" and t.shape == [2, 2]


@pytest.mark.parametrize("data, exc, words", [
    ([[1, 2], [3]], ValueError, "ragged"), ([[1], 2], ValueError, "ragged"), ([1, [2]], ValueError, "ragged"),
    ([[1, 2], []], ValueError, "ragged"), ("abc", TypeError, "str"), (b"abc", TypeError, "bytes"),
    (None, TypeError, "NoneType"), ({}, TypeError, "dict"), ({1, 2}, TypeError, "set"),
    (object(), TypeError, "object"), ([None], TypeError, "NoneType"), (["a", "b"], TypeError, "str"),
    ([object()], TypeError, "object"), (np.array([1, "a"], dtype=object), TypeError, "object"),
    (np.array([1j, 2]), TypeError, "complex"), (np.array([1j], dtype=np.complex64), TypeError, "complex"),
    (np.array(["ab"]), TypeError, "format"), (np.zeros(2, dtype=[("a", "f4")]), TypeError, "format"),
    (np.zeros(2, dtype=np.longdouble), TypeError, "format"), (np.zeros(2, dtype=">f4"), TypeError, "big-endian"),
    (10 ** 400, OverflowError, "too large"),
    (np.array(["2020-01-01"], dtype="datetime64[D]"), (TypeError, ValueError), None),
])
def test_bad_data_raises_a_clear_error(data, exc, words):
    with pytest.raises(exc, match=words):
        Tensor(data)


def _nested(depth):
    x = [1.0]
    for _ in range(depth):
        x = [x]
    return x


@pytest.mark.parametrize("depth", [64, 100, 100_000])
def test_deeply_nested_lists_raise_instead_of_overflowing_the_stack(depth):
    with pytest.raises(ValueError, match="64"):
        Tensor(_nested(depth))


def test_a_list_containing_itself_raises():
    loop = []
    loop.append(loop)
    with pytest.raises(ValueError):
        Tensor(loop)


def test_sixty_four_axes_is_the_limit():
    assert Tensor(_nested(63)).ndim == 64
    with pytest.raises(ValueError, match="64 axes"):
        Tensor.zeros([1] * 65)
    with pytest.raises(ValueError, match="64 axes"):
        Tensor.zeros([1] * 64).reshape([1] * 65)


@pytest.mark.parametrize("make", [Tensor.zeros, Tensor.ones, Tensor.empty, Tensor.randu, Tensor.randn,
                                  lambda s: Tensor.full(s, 1.0)])
@pytest.mark.parametrize("shape, exc", [([-1], ValueError), ([2, -3], ValueError), ([1.5], TypeError),
                                        ([2, "3"], TypeError), ("ab", TypeError), (None, TypeError),
                                        ([None], TypeError), (3.0, TypeError), ([np.array([1.5])], TypeError),
                                        (np.array([[2]]), TypeError), ([2 ** 40, 2 ** 40], ValueError),
                                        ([2 ** 70], OverflowError)])
def test_bad_shapes_raise(make, shape, exc):
    with pytest.raises(exc):
        make(shape)


@pytest.mark.parametrize("shape", [[2, 3], (2, 3), np.array([2, 3]), [np.int64(2), np.int32(3)], 4, []])
def test_shape_forms_accepted(shape):
    t = Tensor.zeros(shape)
    assert t.shape == list(np.zeros(shape).shape)


@pytest.mark.parametrize("call, exc", [
    (lambda: Tensor.linspace(0, 1, -1), ValueError), (lambda: Tensor.logspace(0, 1, -3, 10), ValueError),
    (lambda: Tensor.linspace(0, 1, 2.5), TypeError), (lambda: Tensor.eye(-1), ValueError),
    (lambda: Tensor.eye(2.5), TypeError), (lambda: Tensor.arange(0, 1, 0), ValueError),
    (lambda: Tensor.arange(0, float("nan")), ValueError), (lambda: Tensor.arange(0, float("inf")), ValueError),
    (lambda: Tensor.arange(float("-inf"), 0), ValueError), (lambda: Tensor.arange(0, 1, float("nan")), ValueError),
    (lambda: Tensor.arange(0, 1e300, 1e-300), ValueError), (lambda: Tensor.arange("a", 3), TypeError),
    (lambda: Tensor.diag(Tensor.zeros([2, 2, 2])), ValueError),
    (lambda: Tensor.diag(Tensor([1.0]), 2 ** 63 - 1), ValueError),
    (lambda: Tensor.diag(Tensor([1.0]), -2 ** 63), ValueError), (lambda: Tensor.full([2], "a"), TypeError),
    (lambda: Tensor.full([2], [1.0]), TypeError), (lambda: Tensor.zeros([2], dtype="complex64"), TypeError),
    (lambda: Tensor([1.0], np.array([0.5])), TypeError), (lambda: Tensor([1.0], 0.0), TypeError),
    (lambda: Tensor([1.0], 5), ValueError), (lambda: Tensor([1.0, 2.0]).item(), ValueError),
    (lambda: Tensor([1.0]).tensor_print(-1), ValueError), (lambda: Tensor([1.0]).add([1.0]), TypeError),
])
def test_bad_arguments_raise(call, exc):
    with pytest.raises(exc):
        call()


@pytest.mark.parametrize("value, dtype", [(np.array(1.5), "float32"), (np.float32(1.5), "float32"),
                                          (np.array(3), "float32"), (np.bool_(True), "float32")])
def test_numpy_scalars_and_zero_d_arrays_are_fill_values(value, dtype):
    t = Tensor.full([2], value)
    assert t.dtype == dtype
    np.testing.assert_array_equal(t.getdata(), [float(value)] * 2)
    assert Tensor.full([2], np.bool_(True), dtype="bool").getdata().tolist() == [True, True]
