"""Backend Tensor construction: element-type rules, shapes, and bad inputs that must raise."""
import array
import pickle

import numpy as np
import pytest

from pymoira._core import Tensor, moira


@pytest.mark.parametrize("data, shape", [(3, [1]), (2.5, [1]), (True, [1]), ([1, 2, 3], [3]), ((1, 2), [2]),
                                         ([[1.5, 2], [3, 4], [5, 6]], [3, 2]), ([(1, 2), (3, 4)], [2, 2]),
                                         ([True, False], [2]), ([], [0]), ([[], []], [2, 0]),
                                         ([[[1]], [[2]]], [2, 1, 1]), ([1, 2.5, True], [3]), ([2 ** 100], [1]),
                                         ([np.float64(1), np.int64(-2), np.bool_(True), np.float16(0.5),
                                           np.uint64(2 ** 64 - 1), np.array(1.5)], [6])])
def test_python_numbers_and_lists_become_float32(data, shape):
    t = Tensor(data)
    assert t.dtype == "float32"
    assert t.shape == shape
    expected = np.array(data if isinstance(data, (list, tuple)) else [data], dtype=np.float32).reshape(shape)
    np.testing.assert_array_equal(t.getdata(), expected)


def _values(dtype):
    """24 values of `dtype` in a 4 x 6 array, reaching the ends of its range (int64's for uint64)."""
    dtype = np.dtype(dtype)
    if dtype.kind == "b":
        return np.arange(24).reshape(4, 6) % 3 == 0
    if dtype.kind == "f":
        info = np.finfo(dtype)
        special = [np.nan, np.inf, -np.inf, -0.0, info.max, info.min, info.smallest_subnormal, 1 / 3]
        return np.array(special + list(np.linspace(-7.5, 8, 16)), dtype=dtype).reshape(4, 6)
    info = np.iinfo(dtype)
    top = min(int(info.max), 2 ** 63 - 1)
    ends = [int(info.min), top, int(info.min) + 1, top - 1, 0, 1]
    spread = [int(info.min) + (top - int(info.min)) // 17 * k for k in range(18)]
    return np.array(ends + spread, dtype=dtype).reshape(4, 6)


LAYOUTS = {"C": lambda a: a, "F": np.asfortranarray, "T": lambda a: a.T, "steps": lambda a: a[::2, 1::3],
           "negative": lambda a: a[::-1, ::-2], "3-d": lambda a: a.reshape(2, 3, 4)[:, 1:, ::3],
           "0-d": lambda a: a[1, 2, ...], "read-only": lambda a: np.lib.stride_tricks.as_strided(a, writeable=False),
           "0-size": lambda a: a[:, 2:2]}


@pytest.mark.parametrize("layout", LAYOUTS)
@pytest.mark.parametrize("order", ["<", ">"])
@pytest.mark.parametrize("dtype, expected", [(np.bool_, np.bool_), (np.int8, np.int64), (np.int16, np.int64),
                                             (np.int32, np.int64), (np.int64, np.int64), (np.uint8, np.int64),
                                             (np.uint16, np.int64), (np.uint32, np.int64), (np.uint64, np.int64),
                                             (np.float16, np.float32), (np.float32, np.float32),
                                             (np.float64, np.float64)])
def test_numpy_arrays_of_every_layout_byte_order_and_type(dtype, expected, order, layout):
    src = LAYOUTS[layout](_values(dtype).astype(np.dtype(dtype).newbyteorder(order)))
    t = Tensor(src)
    assert t.dtype == np.dtype(expected).name and t.shape == list(src.shape)
    np.testing.assert_array_equal(np.array(t), src.astype(expected), strict=True)


def test_every_float16_converts_exactly():
    src = np.arange(2 ** 16, dtype=np.uint16).view(np.float16)
    np.testing.assert_array_equal(np.array(Tensor(src)).view(np.uint32), src.astype(np.float32).view(np.uint32))


@pytest.mark.parametrize("src, dtype", [(np.array(3.5), "float64"), (np.float64(3.5), "float64"),
                                        (np.int32(7), "int64"), (np.array(True), "bool"), (np.float16(1.5), "float32"),
                                        (np.uint64(2 ** 63 - 1), "int64")])
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
    (np.zeros(2, dtype=np.clongdouble), TypeError, "supported complex types are complex64 and complex128"),
    (np.array(["ab"]), TypeError, "dtype str"), (np.array([b"ab"]), TypeError, "dtype bytes"),
    (np.bytes_(b"ab"), TypeError, "bytes"), (np.zeros(2, dtype=[("a", "f4")]), TypeError, "dtype void"),
    (np.zeros(2, dtype=np.longdouble), TypeError, np.dtype(np.longdouble).name),
    (np.array(["2020-01-01"], dtype="datetime64[D]"), TypeError, r"datetime64\[D\]"),
    (np.datetime64("2020-01-01T10:00:00"), TypeError, r"datetime64\[s\]"),
    ([np.datetime64("2020-01-01")], TypeError, r"datetime64\[D\]"),
    (np.zeros(3, dtype="timedelta64[ms]")[::2], TypeError, r"timedelta64\[ms\]"),
    (np.array([1, 2 ** 63], dtype=np.uint64), OverflowError, "value 9223372036854775808 is out of bounds for int64"),
    (np.array([2 ** 64 - 1, 0, 1], dtype=">u8")[::-2], OverflowError, "18446744073709551615"),
    (2 ** 200, OverflowError, "too large for float32"), ([1.0, -2 ** 200], OverflowError, "too large for float32"),
    (10 ** 400, OverflowError, "1329-bit Python integer: too large"), ([[10 ** 400]], OverflowError, "too large"),
])
def test_bad_data_raises_a_clear_error(data, exc, words):
    with pytest.raises(exc, match=words):
        Tensor(data)


Z = np.array([[1 + 2j, -3.5 - 0.25j, 0], [1j, np.nan + 1j, -np.inf]])


@pytest.mark.parametrize("data, dtype, want", [
    (Z, "complex128", Z), (Z.astype(np.complex64), "complex64", Z), (Z.astype(">c16").T, "complex128", Z.T),
    (Z[:, ::-2], "complex128", Z[:, ::-2]), (Z.astype(">c8")[::-1], "complex64", Z[::-1]),
    (2 - 1j, "complex64", [2 - 1j]), ([[1, 2j], [3.5, 0]], "complex64", [[1, 2j], [3.5, 0]]),
    (np.complex64(1 + 2j), "complex64", 1 + 2j), (np.complex128(1 - 1j), "complex128", 1 - 1j),
    ([np.complex128(1j), 2], "complex64", [1j, 2]),
    (memoryview(Z), "complex128", Z),
])
def test_complex_values_are_built_and_read_back(data, dtype, want):
    t = Tensor(data)
    assert t.dtype == dtype
    for back in (np.array(t), t.getdata(), np.asarray(memoryview(t)), pickle.loads(pickle.dumps(t)).getdata(),
                 np.from_dlpack(t), np.array(moira.from_dlpack(np.array(t))), np.array(t.contiguous())):
        assert back.dtype == dtype
        np.testing.assert_array_equal(back, np.asarray(want, dtype=dtype))


def test_complex_printing_and_refusals():
    t = Tensor(np.array([[1 + 2j, -3.5 - 0.25j], [np.nan, complex(-0.0, np.nan)]], dtype=np.complex64))
    assert t.tensor_print(2) == "[\n1.00+2.00j, -3.50-0.25j\nnan+0.00j, -0.00+nanj\n]"
    for call, op in [(lambda: t.greater(t), "greater"), (lambda: t.min(), "min"), (lambda: t.sort(), "sort"),
                     (lambda: moira.topK(t, 1), "topK"), (lambda: t.clamp(0, 1), "clamp")]:
        with pytest.raises(TypeError, match=f"{op}: unsupported element type complex64"):
            call()
    with pytest.raises(TypeError, match="cannot write complex64 values into a float32 tensor"):
        Tensor.copyTensor(t, Tensor.zeros([2, 2]))
    with pytest.raises(TypeError, match="cannot write complex64 values into a float32 tensor"):
        Tensor.zeros([2, 2]).set_select(["0"], t)
    z = Tensor.zeros([2, 2], dtype="complex128")
    Tensor.copyTensor(Tensor([[1, 2], [3, 4]]), z)
    z.set_select(["1"], Tensor([5j, 6]))
    np.testing.assert_array_equal(z.getdata(), [[1, 2], [5j, 6]])
    assert Tensor([1 - 2j]).item() == 1 - 2j and t.transpose([1, 0]).contiguous().getdata()[1, 0] == -3.5 - 0.25j


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
                                        ([2 ** 70], OverflowError), ([0, 2 ** 62, 2 ** 62], ValueError)])
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
    (lambda: Tensor.full([2], [1.0]), TypeError), (lambda: Tensor.zeros([2], dtype="complex256"), TypeError),
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


@pytest.mark.parametrize("src, dtype, values", [(memoryview(b"ab"), "int64", [97, 98]),
                                                (array.array("d", [1.5, -2]), "float64", [1.5, -2.0]),
                                                (memoryview(array.array("h", range(6)))[::-2], "int64", [5, 3, 1]),
                                                (memoryview(array.array("f", range(6))).cast("B").cast("f", [2, 3]),
                                                 "float32", [[0, 1, 2], [3, 4, 5]])])
def test_buffers_without_numpy(src, dtype, values):
    t = Tensor(src)
    assert t.dtype == dtype and np.array(t).tolist() == values


INT64 = lambda: Tensor.zeros([2], dtype="int64")  # noqa: E731


@pytest.mark.parametrize("call, expected", [
    (lambda: Tensor.full([2], 2 ** 63 - 1, dtype="int64"), 2 ** 63 - 1),
    (lambda: Tensor.full([2], -2 ** 63, dtype="int64"), -2 ** 63),
    (lambda: INT64().add(2 ** 62).add(2 ** 62 - 1), 2 ** 63 - 1),
    (lambda: Tensor.full([2], 2 ** 70, dtype="float64"), 2.0 ** 70), (lambda: Tensor.full([2], 2 ** 70), 2.0 ** 70),
    (lambda: Tensor.zeros([2], dtype="float64").add(2 ** 64 + 1), 2.0 ** 64),
    (lambda: Tensor.full([2], np.uint64(2 ** 64 - 1), dtype="float64"), 2.0 ** 64),
    (lambda: Tensor.full([2], 2 ** 70, dtype="int64"),
     (OverflowError, r"Python integer 1.18059162071741\d*e\+21 out of bounds for int64")),
    (lambda: INT64().fill_(-2 ** 63 - 1), (OverflowError, "out of bounds for int64")),
    (lambda: INT64().mult(2 ** 70), (OverflowError, "out of bounds for int64")),
    (lambda: Tensor.zeros([2], dtype="bool").add(2 ** 64), (OverflowError, "out of bounds for int64")),
    (lambda: INT64().clamp(0, 2 ** 64), (OverflowError, "out of bounds for int64")),
    (lambda: Tensor.full([2], np.uint64(2 ** 64 - 1), dtype="int64"), (OverflowError, "out of bounds for int64")),
    (lambda: Tensor.full([2], 10 ** 400), (OverflowError, "1329-bit Python integer")),
    (lambda: Tensor.full([2], float("nan"), dtype="int64"), (ValueError, "cannot convert float NaN to integer")),
    (lambda: INT64().fill_(np.float32("nan")), (ValueError, "cannot convert float NaN to integer")),
    (lambda: INT64().full_like(-float("inf")), (ValueError, "cannot convert float infinity to integer")),
    (lambda: Tensor.full([2], 1j), (TypeError, "cannot write a complex number into a float32 tensor")),
    (lambda: Tensor.full([2], np.complex64(1), dtype="int64"), (TypeError, "into a int64 tensor")),
    (lambda: Tensor.zeros([2], dtype="bool").add_(np.complex128(1)), (TypeError, "add: cannot write complex")),
    (lambda: Tensor.full([2], 1 - 2j, dtype="complex64"), 1 - 2j),
    (lambda: Tensor.zeros([2]).add(np.complex128(1j)), 1j),
    (lambda: Tensor.full([2], np.datetime64("2020-01-01")), (TypeError, "datetime64")),
])
def test_scalar_arguments_keep_integers_exact(call, expected):
    if isinstance(expected, tuple):
        with pytest.raises(expected[0], match=expected[1]):
            call()
    else:
        out = np.array(call())
        assert out.tolist() == [expected] * 2
