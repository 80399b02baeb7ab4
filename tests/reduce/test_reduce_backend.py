"""Backend reductions: sum, mean, l2_norm and l2_norm_grad against numpy."""
import numpy as np
import pytest

from helpers import LAYOUTS, laid_out
from pymoira._core import Tensor

DTYPES = [np.bool_, np.int64, np.float32, np.float64]
SHAPES = [[7], [3, 4], [2, 3, 5], [2, 1, 4, 3], [0, 3], [3, 0], [1]]


def sample(shape, dtype, rng):
    x = rng.standard_normal(shape) * 3
    return (x > 0) if dtype is np.bool_ else x.astype(dtype)


def expected_type(op, dtype):
    if op == "sum":
        return np.int64 if dtype is np.bool_ else dtype
    return dtype if dtype in (np.float32, np.float64) else np.float32


def as_result_shape(a):
    return [1] if np.ndim(a) == 0 else list(np.shape(a))


def tol(dtype):
    return dict(rtol=2e-6, atol=1e-5) if dtype in (np.float32, np.bool_, np.int64) else dict(rtol=1e-12, atol=1e-12)


@pytest.mark.filterwarnings("ignore:Mean of empty slice")
@pytest.mark.parametrize("layout", LAYOUTS)
@pytest.mark.parametrize("dtype", DTYPES)
@pytest.mark.parametrize("shape", SHAPES)
@pytest.mark.parametrize("op", ["sum", "mean"])
def test_reductions_against_numpy(op, shape, dtype, layout, rng):
    x, t = laid_out(sample(shape, dtype, rng), layout)
    ref_op = np.sum if op == "sum" else np.mean
    with np.errstate(invalid="ignore", divide="ignore"):
        whole = getattr(t, op)()
        assert whole.shape == [1] and np.array(whole).dtype == expected_type(op, dtype)
        np.testing.assert_allclose(np.array(whole), [ref_op(x.astype(np.float64))], **tol(dtype))
        for axis in range(-len(shape), len(shape)):
            for keepdims in (False, True):
                r = getattr(Tensor, op)(t, [axis], keepdims)
                ref = ref_op(x.astype(np.float64), axis=axis, keepdims=keepdims)
                assert r.shape == as_result_shape(ref)
                assert np.array(r).dtype == expected_type(op, dtype)
                np.testing.assert_allclose(np.array(r).reshape(ref.shape), ref, **tol(dtype))


def test_sum_of_int64_is_exact():
    x = np.array([2**40, 3, -(2**40), 5], dtype=np.int64)
    assert np.array(Tensor(x).sum())[0] == 8


@pytest.mark.parametrize("axis", [None, 0, 1])
def test_float32_sums_are_accurate(axis):
    x = np.full((1 << 10, 1 << 10), 0.1, dtype=np.float32)
    r = np.array(Tensor(x).sum() if axis is None else Tensor(x).sum([axis]))
    ref = x.astype(np.float64).sum() if axis is None else x.astype(np.float64).sum(axis=axis)
    np.testing.assert_allclose(r, np.atleast_1d(ref), rtol=1e-7)


@pytest.mark.parametrize("shape, axis", [([4096, 300], 0), ([300, 4096], 1), ([3, 70000], 1), ([70000, 3], 0),
                                         ([5, 300, 70], 1), ([1 << 20], 0)])
def test_large_reductions_use_every_path(shape, axis, rng):
    x = rng.standard_normal(shape)
    np.testing.assert_allclose(np.array(Tensor(x).sum([axis])), x.sum(axis=axis), rtol=1e-10, atol=1e-9)
    np.testing.assert_allclose(np.array(Tensor(x).mean()), [x.mean()], rtol=1e-10)


def test_tensor_without_axes_reduces_like_shape_one():
    t = Tensor(np.array(2.5))
    assert np.array(t.sum([0])).tolist() == [2.5]
    assert np.array(t.mean([-1], True)).tolist() == [2.5]


@pytest.mark.parametrize("dtype", DTYPES)
@pytest.mark.parametrize("shape", [[5], [3, 4], [2, 3, 4], [0, 2]])
def test_l2_norm(shape, dtype, rng):
    x = sample(shape, dtype, rng)
    x64 = x.astype(np.float64)
    whole = Tensor.l2_norm(Tensor(x))
    assert whole.shape == [1] and np.array(whole).dtype == expected_type("l2", dtype)
    np.testing.assert_allclose(np.array(whole), [np.sqrt((x64 ** 2).sum())], **tol(dtype))
    for axis in range(-len(shape), len(shape)):
        for keepdims in (False, True):
            norms, sumsq = Tensor.l2_norm(Tensor(x), axis, keepdims)
            ref = (x64 ** 2).sum(axis=axis, keepdims=keepdims)
            assert norms.shape == sumsq.shape == as_result_shape(ref)
            np.testing.assert_allclose(np.array(sumsq).reshape(ref.shape), ref, **tol(dtype))
            np.testing.assert_allclose(np.array(norms).reshape(ref.shape), np.sqrt(ref), **tol(dtype))


@pytest.mark.parametrize("shape, axis", [([3, 4], 0), ([3, 4], 1), ([2, 3, 4], 1), ([5], 0), ([2, 300, 3], 2)])
@pytest.mark.parametrize("keepdims", [False, True])
def test_l2_norm_grad(shape, axis, keepdims, rng):
    x = rng.standard_normal(shape)
    x[0] = 0.0  # a slice of zeros gives zero norms somewhere along every axis but 0
    norms, sumsq = Tensor.l2_norm(Tensor(x), axis, keepdims)
    g = rng.standard_normal(norms.shape)
    r = np.array(Tensor.l2_norm_grad(Tensor(x), Tensor(g), sumsq, axis))
    s = np.array(sumsq).reshape((x ** 2).sum(axis=axis, keepdims=True).shape)
    with np.errstate(invalid="ignore", divide="ignore"):
        ref = np.where(s == 0, 0.0, x * g.reshape(s.shape) / np.sqrt(s))
    assert np.isfinite(r).all()
    np.testing.assert_allclose(r, ref, rtol=1e-12, atol=1e-14)


@pytest.mark.parametrize("call, exc", [
    (lambda t: t.sum([2]), IndexError), (lambda t: t.sum([-3]), IndexError),
    (lambda t: t.mean([5], True), IndexError), (lambda t: t.sum([0, 1]), ValueError),
    (lambda t: t.sum([]), ValueError), (lambda t: t.sum([0.5]), TypeError), (lambda t: t.mean("0"), TypeError),
    (lambda t: Tensor.l2_norm(t, 2, False), IndexError),
    (lambda t: Tensor.l2_norm_grad(t, Tensor(np.ones(4)), Tensor(np.ones(3)), 0), ValueError),
    (lambda t: Tensor.l2_norm_grad(t, Tensor(np.ones(3)), Tensor(np.ones(3)), 2), IndexError),
    (lambda t: Tensor.l2_norm_grad(t, Tensor(np.ones(3)), Tensor(np.ones(3)), None), TypeError),
])
def test_bad_reduction_arguments(call, exc):
    with pytest.raises(exc):
        call(Tensor(np.ones((2, 3))))
