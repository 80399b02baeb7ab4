"""Broadcasting arithmetic: Python numbers, graph structure, gradient folding, the backend's
broadcast, TileGrad and in-place arithmetic."""
import numpy as np
import pytest

import pymoira.tensor.tensor as T
from helpers import LAYOUTS, laid_out
from pymoira.tensor.tensor import CoreTensor, QTensor

DTYPES = [np.bool_, np.int64, np.float32, np.float64]


def _values(dtype, shape, rng):
    if dtype == np.bool_:
        return rng.integers(0, 2, size=shape).astype(bool)
    if dtype == np.int64:
        return rng.integers(-5, 6, size=shape)
    return rng.normal(size=shape).astype(dtype)


def _numpy_result(fn, *operands, floating=False):
    """numpy 2's result for the operands (arrays and Python numbers, NEP 50), with our one rule of
    our own: where numpy computes in float64 although no operand is a float64 array (integers and
    bools with a Python float or divided), we compute in the default float type float32, as numpy
    does with the arrays cast to float32. `floating`: the operation computes in a float type
    (power). TypeError where numpy refuses."""
    arrays = [x for x in operands if isinstance(x, np.ndarray)]
    as_f32 = [x.astype(np.float32) if isinstance(x, np.ndarray) else x for x in operands]
    try:
        with np.errstate(all="ignore"):
            r = np.asarray(fn(*(as_f32 if floating and all(a.dtype.kind in "bi" for a in arrays) else operands)))
            if r.dtype == np.float64 and not any(x.dtype == np.float64 for x in arrays):
                r = np.asarray(fn(*as_f32))
    except TypeError:
        return TypeError
    return r


def _check_against_numpy(got_fn, want, ulps=0):
    if want is TypeError:
        with pytest.raises(TypeError):
            got_fn()
        return
    out = got_fn()
    got = np.asarray(out.pdata)
    assert got.dtype == want.dtype
    if ulps:  # transcendental functions: the C library's rounding may differ by an ulp
        np.testing.assert_array_max_ulp(got, want.reshape(got.shape), maxulp=ulps)
    else:  # exact: a Python number takes part with its own value, rounded at most once
        np.testing.assert_array_equal(got, want.reshape(got.shape))


OPERATORS = {"a+b": np.add, "a-b": np.subtract, "a*b": np.multiply, "a/b": np.divide, "a**b": np.power,
             "a>b": np.greater, "a<=b": np.less_equal, "a==b": np.equal, "a!=b": np.not_equal}
NUMBERS = [True, 0, 3, -2, 2.5, 0.1, 1e-300, 1e300]


@pytest.mark.parametrize("number", NUMBERS, ids=repr)
@pytest.mark.parametrize("op", sorted(OPERATORS))
@pytest.mark.parametrize("dtype", DTYPES, ids=lambda t: np.dtype(t).name)
def test_python_numbers_are_weak(dtype, op, number, rng):
    """tensor op number and number op tensor: numpy 2's type and numpy's exact values."""
    a = _values(dtype, [1] if op == "a**b" else [2, 3], rng)
    if op in ("a/b", "a**b"):
        a = np.where(a == 0, np.ones_like(a), a)
    if op == "a**b":
        a = np.abs(a)
    fwd = eval(f"lambda a, b: {op}")
    for got_fn, operands in ((lambda: fwd(QTensor(a), number), (a, number)),
                             (lambda: fwd(number, QTensor(a)), (number, a))):
        want = _numpy_result(fwd, *operands, floating=op == "a**b")
        _check_against_numpy(got_fn, want, ulps=2 if op == "a**b" else 0)


def test_float64_chains_with_python_constants_match_numpy_bit_for_bit(rng):
    x_np = rng.normal(size=50)
    x, y_np = QTensor(x_np), x_np.copy()
    for k in range(40):
        c = [0.1, 0.5, 1.0 / 3, 2.0, 1e-3][k % 5]
        x = (x * c + 1.0) / (c + 0.7) - 0.1 * x
        y_np = (y_np * c + 1.0) / (c + 0.7) - 0.1 * y_np
    np.testing.assert_array_equal(x.pdata, y_np)


def test_broadcast_operands_go_through_copies():
    a = QTensor(np.ones([2, 3]), requires_grad=True)
    b = QTensor(np.array([1.0, 2.0, 3.0]), requires_grad=True)
    y = T.add(a, b)
    assert y.shape == [2, 3]
    copy_a, copy_b = (n.tensor for n in y.nodes)
    assert copy_a is not a and copy_b is not b and copy_a.shape == copy_b.shape == [2, 3]
    assert [n.name for n in y.nodes] == ["t1 grad [2, 3] add [2, 3]", "t2 grad [2, 3] add [2, 3]"]
    assert [(n.tensor is a, n.name) for n in copy_a.nodes] == [(True, "t1 grad [2, 3] broadcast [3]")]
    assert [(n.tensor is b, n.name) for n in copy_b.nodes] == [(True, "t2 grad [2, 3] broadcast [3]")]
    y.backward()
    np.testing.assert_array_equal(b.grad.pdata, [2.0, 2.0, 2.0])
    np.testing.assert_array_equal(a.grad.pdata, np.ones([2, 3]))


def test_numpy_operands_on_either_side():
    x = QTensor(np.array([1.0, 2.0]), requires_grad=True)
    for y, want in ((x + np.array([10.0, 20.0]), [11.0, 22.0]), (np.array([10.0, 20.0]) - x, [9.0, 18.0]),
                    (np.array([2.0, 4.0]) * x, [2.0, 8.0])):
        assert isinstance(y, QTensor)
        np.testing.assert_allclose(y.pdata, want)


def test_augmented_assignment_binds_a_new_tensor():
    x = QTensor(np.array([1.0, 2.0]), requires_grad=True)
    y = x
    y += 1
    y *= 3
    assert y is not x
    np.testing.assert_array_equal(x.pdata, [1.0, 2.0])
    y.backward()
    np.testing.assert_array_equal(x.grad.pdata, [3.0, 3.0])


def test_broadcast_function():
    a = QTensor(np.array([[1.0], [2.0]]), requires_grad=True)
    b = QTensor(np.array([10.0, 20.0, 30.0]))
    ra, rb = T.broadcast(a, b)
    np.testing.assert_array_equal(ra.pdata, [[1, 1, 1], [2, 2, 2]])
    np.testing.assert_array_equal(rb.pdata, [[10, 20, 30], [10, 20, 30]])
    assert ra.requires_grad is True and rb.requires_grad is False
    assert [n.name for n in ra.nodes] == ["t1 grad [2, 1] broadcast [3]"] and rb.nodes == []
    ra.backward(QTensor(np.array([[1.0, 2.0, 3.0], [4.0, 5.0, 6.0]])))
    np.testing.assert_array_equal(a.grad.pdata, [[6.0], [15.0]])
    a, b = QTensor(np.ones([2])), QTensor(np.zeros([2]))  # equal shapes still give new tensors
    ra, rb = T.broadcast(a, b)
    assert ra is not a and rb is not b and ra.data is not a.data and ra.shape == rb.shape == [2]


def test_broadcast_copies_the_flag_whatever_no_grad_says():
    a = QTensor(np.ones([2, 1]), requires_grad=True)
    b = QTensor(np.ones([3]), requires_grad=True)
    QTensor.NO_GRAD = True
    ra, rb = T.broadcast(a, b)
    y = a * b
    QTensor.NO_GRAD = False
    assert ra.requires_grad is True and rb.requires_grad is True
    assert len(ra.nodes) == len(rb.nodes) == 1
    assert y.requires_grad is False and len(y.nodes) == 2


# ---- _broadcast, TileGrad and the backend's broadcast -----------------------------------------


def _core(a):
    return CoreTensor(np.asarray(a, dtype=np.float64), 0)


def _fold(v, shape):
    """numpy's sum of a broadcast result's gradient back onto an operand of `shape`."""
    v = v.sum(axis=tuple(range(v.ndim - len(shape))))
    return v.sum(axis=tuple(i for i, n in enumerate(shape) if n == 1), keepdims=True).reshape(shape)


@pytest.mark.parametrize("in_shape,g_shape", [([2, 1], [2, 3]), ([1], [4, 5]), ([3], [2, 3]), ([1, 3], [4, 2, 3]),
                                               ([2, 1, 1], [2, 3, 4]), ([1], [0]), ([], [2, 2])], ids=str)
def test_fold_gradient_onto_input_shape(in_shape, g_shape, rng):
    g = rng.normal(size=g_shape)
    out = T._broadcast(_core(np.zeros(in_shape)), _core(g))
    assert out.shape == list(in_shape)
    np.testing.assert_allclose(np.array(out), _fold(g, in_shape), rtol=1e-12, atol=1e-12)


def test_fold_of_equal_shapes_returns_the_gradient_itself():
    g = _core(np.ones([2, 3]))
    assert T._broadcast(_core(np.zeros([2, 3])), g) is g


@pytest.mark.parametrize("layout", LAYOUTS)
@pytest.mark.parametrize("dtype", [np.float64, np.int64, np.bool_])
@pytest.mark.parametrize("shape,reps", [([2, 1], [1, 3]), ([1, 1], [4, 5]), ([2, 3], [2, 2]), ([3], [2]), ([2], [1, 3]),
                                        ([1, 2048], [256, 1]), ([1, 3, 512], [128, 1, 1]), ([64, 1, 512], [1, 8, 1]),
                                        ([1, 1], [512, 512]), ([256, 1], [1, 1024]), ([3, 2, 5], [4, 3, 2]),
                                        ([2, 0], [3, 1]), ([2, 3], [0, 1]), ([1], [1])], ids=str)
def test_tile_grad_sums_the_copies(shape, reps, dtype, layout, rng):
    """Small cases, large ones, several copy axes summed one after another, no copies or no
    elements, over any layout of the gradient (stride-0 axes included)."""
    padded = [1] * (len(reps) - len(shape)) + list(shape)
    g, core = laid_out(rng.integers(-3, 4, size=[s * r for s, r in zip(padded, reps)]).astype(dtype), layout)
    split = [x for s, r in zip(padded, reps) for x in (r, s)]
    want = g.reshape(split).sum(axis=tuple(range(0, len(split), 2))).reshape(shape).astype(dtype)
    out = T._moira.TileGrad(core, shape, reps)
    assert out.shape == list(shape) and out.dtype == np.dtype(dtype).name
    np.testing.assert_array_equal(np.array(out), want)


@pytest.mark.parametrize("shape,reps,error", [([2, 2], [1, 3], ValueError), ([2, 1], [1, -3], ValueError),
                                              ([2, 1, 1], [1, 1, 3], ValueError), ("ab", [1, 3], TypeError),
                                              ([2, 1], None, TypeError), ([2 ** 62, 2 ** 62], [1, 1], ValueError)],
                         ids=str)
def test_tile_grad_rejects_bad_arguments(shape, reps, error):
    with pytest.raises(error):
        T._moira.TileGrad(_core(np.ones([2, 3])), shape, reps)


# ---- in-place arithmetic of backend tensors (values and types: rows of the op table) -------------


@pytest.mark.parametrize("receiver,other,words", [([1, 3], [2, 3], "cannot be broadcast to the receiver"),
                                                 ([2, 3], [4], "cannot be broadcast"),
                                                 ([2, 3], [2, 1, 3], "cannot be broadcast to the receiver"),
                                                 ([3], [2, 3], "cannot be broadcast to the receiver")], ids=str)
def test_inplace_operand_must_broadcast_to_the_receiver(receiver, other, words):
    t = _core(np.ones(receiver))
    with pytest.raises(ValueError, match=words) as info:
        t.add_(_core(np.ones(other)))
    assert str(receiver) in str(info.value) and str(other) in str(info.value)
    np.testing.assert_array_equal(np.array(t), np.ones(receiver))


def _random_broadcast_pair(rng):
    rank = int(rng.integers(1, 5))
    out = rng.integers(1, 4, size=rank)
    shapes = []
    for _ in range(2):
        s = np.where(rng.random(rank) < 0.4, 1, out)
        shapes.append(tuple(int(v) for v in s[int(rng.integers(0, rank)):]))
    return shapes


@pytest.mark.parametrize("seed", range(40))
def test_random_broadcast_patterns(seed):
    """Shapes mixing stretched and missing axes at every position: values and folded gradients."""
    rng = np.random.default_rng(seed)
    sa, sb = _random_broadcast_pair(rng)
    a0, b0 = rng.normal(size=sa), rng.normal(size=sb)
    a, b = QTensor(a0, requires_grad=True), QTensor(b0, requires_grad=True)
    y = a * b - b
    np.testing.assert_allclose(y.pdata, a0 * b0 - b0, rtol=1e-12)
    g = rng.normal(size=y.shape)
    y.backward(QTensor(g))
    np.testing.assert_allclose(a.grad.pdata, _fold(g * b0, sa), rtol=1e-10, atol=1e-12)
    np.testing.assert_allclose(b.grad.pdata, _fold(g * (a0 - 1), sb), rtol=1e-10, atol=1e-12)


@pytest.mark.parametrize("sa,sb", [([600, 500], [500]), ([600, 1], [1, 500]), ([300000], [1]), ([1], [300000]),
                                   ([300000], [300000]), ([50, 1, 80], [1, 70, 80])], ids=str)
def test_large_operands(sa, sb, rng):
    """Sizes that take the threaded paths."""
    a0 = rng.normal(size=sa).astype(np.float32)
    b0 = rng.normal(size=sb).astype(np.float32)
    a, b = QTensor(a0, requires_grad=True), QTensor(b0, requires_grad=True)
    y = T.exp(a) + a * b
    np.testing.assert_allclose(y.pdata, np.exp(a0) + a0 * b0, rtol=1e-5, atol=1e-5)
    y.backward()
    want_b = _fold(np.broadcast_to(a0, y.shape).astype(np.float64), sb)
    np.testing.assert_allclose(b.grad.pdata, want_b, rtol=1e-3, atol=1e-2)
