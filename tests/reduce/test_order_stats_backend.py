"""Backend extremes, medians, variances, orderings, cumulative sums and log-softmax against
numpy, over shapes, axes, keepdims, element types and strided layouts."""
import numpy as np
import pytest

from helpers import LAYOUTS, laid_out
from pymoira._core import Tensor, moira

DTYPES = [np.bool_, np.int64, np.float32, np.float64]
SHAPES = [[7], [3, 4], [2, 3, 5], [2, 1, 4, 3], [1], [130, 3], [3, 300]]


def sample(shape, dtype, rng):
    """Values with many ties (rounded), so first-of-equal rules are exercised."""
    x = np.round(rng.standard_normal(shape) * 2)
    return (x > 0) if dtype is np.bool_ else x.astype(dtype)


def floating(dtype):
    return dtype if dtype in (np.float32, np.float64) else np.float32


def whole_or_axis(name, *extra):
    def call(t, axis, keepdims):
        f = getattr(Tensor, name)
        return f(t, *extra) if axis is None else f(t, [axis], keepdims, *extra)
    return call


# name: (backend call, numpy reference, result type from the input type)
REDUCTIONS = {
    "max": (whole_or_axis("max"), np.max, lambda d: d),
    "min": (whole_or_axis("min"), np.min, lambda d: d),
    "argmax": (whole_or_axis("argmax"), np.argmax, lambda d: np.int64),
    "argmin": (whole_or_axis("argmin"), np.argmin, lambda d: np.int64),
    "median": (whole_or_axis("median"), np.median, floating),
    "var biased": (whole_or_axis("var", False), lambda x, **k: np.var(x, ddof=0, **k), floating),
    "var unbiased": (whole_or_axis("var", True), lambda x, **k: np.var(x, ddof=1, **k), floating),
    "std biased": (whole_or_axis("std", False), lambda x, **k: np.std(x, ddof=0, **k), floating),
    "std unbiased": (whole_or_axis("std", True), lambda x, **k: np.std(x, ddof=1, **k), floating),
}


def tol(dtype):
    return dict(rtol=1e-12, atol=1e-12) if dtype is np.float64 else dict(rtol=2e-6, atol=2e-6)


@pytest.mark.filterwarnings("ignore:Degrees of freedom")
@pytest.mark.filterwarnings("ignore:invalid value")
@pytest.mark.parametrize("layout", LAYOUTS)
@pytest.mark.parametrize("dtype", DTYPES)
@pytest.mark.parametrize("shape", SHAPES)
@pytest.mark.parametrize("op", list(REDUCTIONS))
def test_reductions_against_numpy(op, shape, dtype, layout, rng):
    call, ref, rtype = REDUCTIONS[op]
    x, t = laid_out(sample(shape, dtype, rng), layout)
    x64 = x.astype(np.float64)
    for axis in [None] + list(range(-len(shape), len(shape))):
        for keepdims in (False, True):
            r = call(t, axis, keepdims)
            want = np.atleast_1d(ref(x64, axis=axis, keepdims=keepdims) if axis is not None else ref(x64))
            got = np.array(r)
            assert got.dtype == rtype(dtype) and r.shape == list(want.shape)
            np.testing.assert_allclose(got.astype(np.float64), want.astype(np.float64), **tol(dtype))


ORDERINGS = ["sort", "argsort", "sort descending", "argsort descending"]


def ref_argsort(x, axis, descending):
    """numpy's stable argsort, descending with equal values in their order, NaN last ascending
    and first descending."""
    nan = np.isnan(x) if x.dtype.kind == "f" else np.zeros(x.shape, bool)
    v = np.where(nan, 0, x.astype(np.float64))
    keys = (np.where(nan, 0, -v), ~nan) if descending else (v, nan)
    return np.lexsort(keys, axis=axis)


@pytest.mark.parametrize("layout", LAYOUTS)
@pytest.mark.parametrize("dtype", DTYPES)
@pytest.mark.parametrize("shape", SHAPES + [[1000], [3, 70]])
@pytest.mark.parametrize("op", ORDERINGS + ["topK", "argtopK", "topK smallest", "cumsum", "log_softmax"])
def test_orderings_and_scans_against_numpy(op, shape, dtype, layout, rng):
    x, t = laid_out(sample(shape, dtype, rng), layout)
    if dtype in (np.float32, np.float64) and x.size > 4:
        x, t = laid_out(np.where(rng.random(shape) < 0.1, np.nan, x).astype(dtype), layout)
    for axis in range(-len(shape), len(shape)):
        n = shape[axis]
        descending = "descending" in op or op in ("topK", "argtopK")
        order = ref_argsort(x, axis, descending)
        if op in ORDERINGS:
            fn = Tensor.argsort if op.startswith("argsort") else Tensor.sort
            got, want = np.array(fn(t, axis, descending, True)), order
            if op.startswith("sort"):
                want = np.take_along_axis(x, order, axis)
        elif op.startswith("topK") or op == "argtopK":
            k = min(n, 3)
            fn = moira.argtopK if op == "argtopK" else moira.topK
            got = np.array(fn(t, k, axis, op != "topK smallest"))
            want = np.take_along_axis(ref_argsort(x, axis, op != "topK smallest"), np.arange(k).reshape(
                [k if d == axis % len(shape) else 1 for d in range(len(shape))]), axis)
            if op != "argtopK":
                want = np.take_along_axis(x, want, axis)
        elif op == "cumsum":
            got, want = np.array(moira.cumsum(t, axis)), np.cumsum(x.astype(np.float64), axis)
            assert got.dtype == (np.int64 if dtype is np.bool_ else dtype)
        else:
            x64 = x.astype(np.float64)
            m = np.max(x64, axis, keepdims=True)
            with np.errstate(invalid="ignore"):
                want = x64 - m - np.log(np.exp(x64 - m).sum(axis, keepdims=True))
            got = np.array(moira.log_softmax(t, axis))
            assert got.dtype == floating(dtype)
        if op in ("cumsum", "log_softmax"):
            np.testing.assert_allclose(got.astype(np.float64), want, **tol(dtype))
        else:
            np.testing.assert_array_equal(got, want)  # orders and ties exactly


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
