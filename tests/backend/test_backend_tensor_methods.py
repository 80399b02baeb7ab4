"""Backend Tensor queries, numpy interop, printing, device moves, reshapes and in-place updates."""
import numpy as np
import pytest

from pymoira._core import Tensor, moira
from helpers import ABSENT_GPU, NO_GPU


def test_shape_queries():
    t = Tensor(np.zeros((2, 3, 4)))
    assert (t.shape, t.ndim, t.size, t.device) == ([2, 3, 4], 3, 24, 0)
    s = t.getShape()
    s.append(9)
    assert t.getShape() == [2, 3, 4] and t.shape == [2, 3, 4]


@pytest.mark.parametrize("src", [np.arange(6.0).reshape(2, 3), np.array([True, False]), np.array([[1, -2]])])
def test_numpy_round_trip(src):
    t = Tensor(src)
    np.testing.assert_array_equal(np.array(t), src)
    np.testing.assert_array_equal(np.asarray(t, dtype=np.float64), src.astype(np.float64))
    copy = t.getdata()
    copy[...] = 0
    np.testing.assert_array_equal(t.getdata(), src)


@pytest.mark.parametrize("src, value, kind", [([2.5], 2.5, float), (np.array([7]), 7, int),
                                              (np.array([True]), True, bool), (np.array(1.25), 1.25, float)])
def test_item_gives_a_python_number(src, value, kind):
    v = Tensor(src).item()
    assert v == value and type(v) is kind


@pytest.mark.parametrize(
    "src, precision, text",
    [
        ([1.0, -2.5], 7, "[\n1.0000000, -2.5000000\n]"),
        ([[10.0, 11.0], [12.0, 13.0]], 7, "[\n10.0000000, 11.0000000\n12.0000000, 13.0000000\n]"),
        ([0.5], None, "[\n0.5000000\n]"),  # seven digits by default
        ([0.125], 2, "[\n0.12\n]"),
        ([], 7, "[\n]"),
        (np.zeros((2, 0)), 7, "[\n]"),
        (np.array(3.0), 1, "[\n3.0\n]"),
        (np.arange(8.0).reshape(2, 2, 2), 1, "[\n[\n0.0, 1.0\n2.0, 3.0\n],\n[\n4.0, 5.0\n6.0, 7.0\n]\n]"),
        (np.array([1, -2]), 7, "[\n1, -2\n]"),
        (np.array([True, False]), 7, "[\nTrue, False\n]"),
        ([float("nan"), float("inf"), -float("inf")], 3, "[\nnan, inf, -inf\n]"),
    ],
)
def test_print_layouts(src, precision, text):
    t = Tensor(src)
    assert (t.tensor_print() if precision is None else t.tensor_print(precision)) == text


def test_no_gpu_available():
    t = Tensor([1.0])
    with pytest.raises(RuntimeError, match=NO_GPU):
        t.toGPU(ABSENT_GPU)
    with pytest.raises(RuntimeError, match=NO_GPU):
        Tensor([1.0], ABSENT_GPU)
    with pytest.raises(RuntimeError, match=NO_GPU):
        Tensor.zeros([2], ABSENT_GPU + 1)
    assert t.toCPU() is None and t.device == 0


def test_reshape_copies_and_infers():
    t = Tensor(np.arange(6.0))
    r = t.reshape([3, -1])
    assert r.shape == [3, 2] and t.shape == [6]
    r.fill_(0)
    np.testing.assert_array_equal(t.getdata(), np.arange(6.0))
    assert t.reshape_([2, 3]) is None and t.shape == [2, 3]
    np.testing.assert_array_equal(t.getdata(), np.arange(6.0).reshape(2, 3))


@pytest.mark.parametrize("shape", [[4, -1], [-1, -1], [-2, 3], [7], [0, -1]])
def test_bad_reshape_raises(shape):
    t = Tensor(np.arange(6.0))
    with pytest.raises(ValueError):
        t.reshape(shape)
    with pytest.raises(ValueError):
        t.reshape_(shape)
    assert t.shape == [6]


@pytest.mark.parametrize("src, value, expected_dtype", [([1.0, 2.0], 3, np.float32), (np.array([1, 2]), 2.7, np.int64),
                                                         (np.array([0.5]), True, np.float64)])
def test_fill_in_place_keeps_the_type(src, value, expected_dtype):
    t = Tensor(src)
    assert t.fill_(value) is t
    np.testing.assert_array_equal(t.getdata(), np.full(np.shape(src), value).astype(expected_dtype))


@pytest.mark.parametrize("copy", [Tensor.copyTensor, moira.copyTensor])
def test_copy_tensor_converts_into_the_destination(copy):
    src = Tensor(np.array([1.7, -2.2]))
    dst = Tensor(np.array([0, 0]))
    copy(src, dst)
    assert dst.dtype == "int64"
    np.testing.assert_array_equal(dst.getdata(), [1, -2])
    with pytest.raises(ValueError, match="shape"):
        copy(src, Tensor([1.0, 2.0, 3.0]))
    with pytest.raises(TypeError):
        copy(src, [1.0, 2.0])
