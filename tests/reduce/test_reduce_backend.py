"""Backend reductions, orderings and scans beyond the op table: exact and accurate sums, long lanes
on every path, stable variances, NaN and signed-zero orders, the gradient kernels, tensors
without axes or lanes, and bad arguments."""
import numpy as np
import pytest

from pymoira._core import Tensor, moira


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


def test_nan_and_signed_zero_orders():
    x = np.array([0.0, np.nan, -0.0, 1.0, -np.inf, np.nan, 0.0, np.inf], dtype=np.float32)
    s = np.array(Tensor.sort(Tensor(x), 0, False, True))
    assert np.array_equal(np.signbit(s[1:4]), [False, True, False])  # zeros in their order, -0.0 kept
    np.testing.assert_array_equal(s, np.sort(x, kind="stable"))
    np.testing.assert_array_equal(np.array(Tensor.argsort(Tensor(x), 0, True)), [1, 5, 7, 3, 0, 2, 6, 4])
    assert np.isnan(np.array(Tensor.max(Tensor(x)))[0]) and np.array(Tensor.argmin(Tensor(x)))[0] == 1
    assert np.isnan(np.array(Tensor.median(Tensor(x)))[0])
    np.testing.assert_array_equal(np.array(moira.topK(Tensor(x), 2, 0, False)), [-np.inf, 0.0])


@pytest.mark.parametrize("shape, axis", [([1 << 20], 0), ([3, 70000], 1), ([70000, 3], 0), ([2, 5000, 20], 1)])
def test_long_lanes_use_every_path(shape, axis, rng):
    x = (rng.standard_normal(shape) * 10 + 1e4).astype(np.float32)
    x.flat[x.size // 2] = 2e4  # one maximum, far from the start of a long lane
    t = Tensor(x)
    for op, ref in (("max", np.max), ("argmax", np.argmax), ("argmin", np.argmin)):
        np.testing.assert_array_equal(np.array(getattr(Tensor, op)(t, [axis])), ref(x, axis))
    assert np.array(Tensor.argmax(t))[0] == x.size // 2
    # the variance of values far from 0 must not cancel
    np.testing.assert_allclose(np.array(Tensor.var(t, [axis], False, True)), x.astype(np.float64).var(axis, ddof=1),
                               rtol=1e-5)
    np.testing.assert_allclose(np.array(Tensor.std(t)), [x.astype(np.float64).std(ddof=1)], rtol=1e-6)
    np.testing.assert_array_equal(np.array(Tensor.sort(t, axis)), np.sort(x, axis))
    np.testing.assert_allclose(np.array(moira.cumsum(t, axis)), np.cumsum(x.astype(np.float64), axis), rtol=1e-6)


def test_variance_is_stable():
    x = np.float32(1e4) + np.array([0, 1, 2, 3], dtype=np.float32)
    assert np.array(Tensor.var(Tensor(x), True))[0] == np.float32(5 / 3)
    y = 1e8 + np.array([0.0, 1.0, 2.0])
    assert np.array(Tensor.var(Tensor(y), [0], False, False))[0] == np.var(y)
    assert np.array(Tensor.var(Tensor(y.astype(np.float32)), True))[0] == np.var(y.astype(np.float32), ddof=1)


@pytest.mark.filterwarnings("ignore:Degrees of freedom")
@pytest.mark.filterwarnings("ignore:invalid value")
def test_variance_with_too_few_elements_is_nan():
    for shape, axis in (([1], None), ([0], None), ([3, 1], 1), ([0, 2], 0)):
        x = np.ones(shape)
        r = np.array(Tensor.var(Tensor(x), True) if axis is None else Tensor.var(Tensor(x), [axis], False, True))
        assert np.isnan(r).all() and r.size == max(1, np.var(x, axis, ddof=1).size)


def test_log_softmax_extremes_and_gradient():
    x = np.array([[1000.0, -1000.0, 999.0], [-1000.0, -1000.0, -1001.0]], dtype=np.float32)
    out = moira.log_softmax(Tensor(x), 1)
    x64 = x.astype(np.float64)
    want = x64 - x64.max(1, keepdims=True) - np.log(np.exp(x64 - x64.max(1, keepdims=True)).sum(1, keepdims=True))
    np.testing.assert_allclose(np.array(out), want, rtol=1e-6)
    g = np.arange(6.0).reshape(2, 3)
    for axis in (0, 1, -1):
        y = np.array(moira.log_softmax(Tensor(x64), axis))
        np.testing.assert_allclose(np.array(moira.log_softmax_grad(Tensor(g), Tensor(y), axis)),
                                   g - np.exp(y) * g.sum(axis, keepdims=True), rtol=1e-12)
    # float32 gradients across adjacent lanes sum g in double
    g = (np.random.default_rng(0).standard_normal((1 << 16, 3)) + 1).astype(np.float32)
    y = np.array(moira.log_softmax(Tensor(np.zeros_like(g)), 0))
    np.testing.assert_allclose(np.array(moira.log_softmax_grad(Tensor(g), Tensor(y), 0)),
                               g - np.exp(y.astype(np.float64)) * g.sum(0, dtype=np.float64), atol=1e-6)


@pytest.mark.parametrize("axis", [0, 1, -1])
def test_cumsum_and_topk_gradients(axis, rng):
    x = rng.standard_normal((4, 6))
    g = rng.standard_normal((4, 6))
    np.testing.assert_allclose(np.array(moira.cumsumgrad(Tensor(g), axis)),
                               np.flip(np.cumsum(np.flip(g, axis), axis), axis), rtol=1e-12)
    pos = np.array(moira.argtopK(Tensor(x), 3, axis, True))
    gk = rng.standard_normal(pos.shape)
    want = np.zeros_like(x)
    np.put_along_axis(want, pos, gk, axis)
    np.testing.assert_array_equal(np.array(moira.topKgrad(Tensor(x), Tensor(gk), 3, axis, True)), want)


@pytest.mark.parametrize("call, exc, match", [
    (lambda e, t: Tensor.max(e), ValueError, "max: the tensor has no elements, so it has no maximum"),
    (lambda e, t: Tensor.argmin(e), ValueError, "no minimum"),
    (lambda e, t: Tensor.median(e), ValueError, "no median"),
    (lambda e, t: Tensor.max(Tensor(np.ones((2, 0))), [1]), ValueError, "axis 1 has length 0"),
    (lambda e, t: Tensor.min(t, [2]), IndexError, "axis 2 is out of range for a tensor with 2 axes"),
    (lambda e, t: Tensor.var(t, [-3], False, True), IndexError, "axis -3"),
    (lambda e, t: Tensor.sort(t, 2), IndexError, "axis 2"),
    (lambda e, t: moira.cumsum(t, 5), IndexError, "axis 5"),
    (lambda e, t: moira.log_softmax(t, -3), IndexError, "axis -3"),
    (lambda e, t: moira.topK(t, 4, 1), ValueError, "k = 4 is larger than the 3 elements along axis 1"),
    (lambda e, t: moira.argtopK(t, -1, 0), ValueError, "k must not be negative"),
    (lambda e, t: moira.topK(t, 1.5, 0), TypeError, "k must be an integer"),
    (lambda e, t: moira.topKgrad(t, Tensor(np.ones((2, 2))), 1, 1), ValueError, "does not match"),
    (lambda e, t: moira.log_softmax_grad(t, Tensor(np.ones(3)), 0), ValueError, "differ"),
    (lambda e, t: Tensor.median(t, [0, 1]), ValueError, "one axis"),
])
def test_bad_arguments(call, exc, match):
    with pytest.raises(exc, match=match):
        call(Tensor(np.zeros(0)), Tensor(np.ones((2, 3))))


def test_tensors_without_axes_act_as_one_element():
    t = Tensor(np.array(2.5))
    for r in (Tensor.sort(t, 0), moira.cumsum(t, -1), moira.cumsumgrad(t, 0), moira.log_softmax(t, 0).add(2.5)):
        assert r.shape == [] and np.array(r) == 2.5
    assert moira.topK(t, 1, 0).shape == [1] and moira.topK(t, 0, 0).shape == [0]
    assert moira.topKgrad(t, Tensor(np.ones(1)), 1, 0).shape == []
    assert np.array(Tensor.median(t, [0])).tolist() == [2.5] and np.isnan(np.array(Tensor.std(t))[0])


def test_results_with_no_lanes_are_empty():
    t = Tensor(np.ones((0, 3)))
    assert Tensor.max(t, [1]).shape == [0] and Tensor.argmax(t, [1], True).shape == [0, 1]
    assert Tensor.sort(t, 0).shape == [0, 3] and moira.topK(t, 0, 1).shape == [0, 0]
    assert moira.all(t) is True and moira.any(t) is False
