"""Bad input raises a Python exception with a useful message and changes nothing; arithmetic
outside a function's domain follows IEEE rules instead of failing."""
import numpy as np
import pytest

import elementwise.test_optable as table
import pymoira.tensor.tensor as T
from pymoira.tensor.tensor import CoreTensor, QTensor

NOT_BROADCASTABLE = [([2, 3], [4]), ([3], [2, 2]), ([2, 1, 3], [4, 2]), ([0], [3]), ([5, 4], [5])]
BINARY = {
    "add": T.add, "sub": T.sub, "mul": T.mul, "divide": T.divide, "broadcast": T.broadcast,
    "a+b": lambda a, b: a + b, "a-b": lambda a, b: a - b, "a*b": lambda a, b: a * b, "a/b": lambda a, b: a / b,
}


def _shape_text(shape):
    return str(list(shape)).replace("[", r"\[").replace("]", r"\]")


@pytest.mark.parametrize("name", sorted(BINARY))
@pytest.mark.parametrize("sa,sb", NOT_BROADCASTABLE, ids=str)
def test_shapes_that_do_not_broadcast(name, sa, sb):
    a = QTensor(np.ones(sa), requires_grad=True)
    b = QTensor(np.ones(sb), requires_grad=True)
    with pytest.raises(ValueError, match=_shape_text(sa) + ".*" + _shape_text(sb)):
        BINARY[name](a, b)
    for x in (a, b):  # nothing recorded, nothing accumulated
        assert x.nodes == [] and not np.any(x.grad.pdata)


@pytest.mark.parametrize("sa,sb", NOT_BROADCASTABLE, ids=str)
def test_backend_refuses_shapes_that_do_not_broadcast(sa, sb):
    a, b = CoreTensor(np.ones(sa), 0), CoreTensor(np.ones(sb), 0)
    for call in (lambda: CoreTensor.broadcast(a, b), lambda: a.add(b), lambda: a.equal(b),
                 lambda: T._moira.where(a, a, b)):
        with pytest.raises(ValueError, match=_shape_text(sa) + ".*" + _shape_text(sb)):
            call()


def _values(fn, *arrays):
    with np.errstate(all="ignore"):
        return np.asarray(fn(*[QTensor(np.array(a)) for a in arrays]).pdata)


@pytest.mark.parametrize("fn,args,want", [
    (T.log, ([-1.0, 0.0],), [np.nan, -np.inf]),
    (T.sqrt, ([-4.0],), [np.nan]),
    (T.acos, ([2.0, -1.5],), [np.nan, np.nan]),
    (T.asin, ([1.5],), [np.nan]),
    (T.reciprocal, ([0.0, -0.0],), [np.inf, -np.inf]),
    (T.divide, ([0.0, 1.0, -1.0], [0.0, 0.0, 0.0]), [np.nan, np.inf, -np.inf]),
    (T.divide, ([0, 1, -1], [0, 0, 0]), [np.nan, np.inf, -np.inf]),  # int64 / int64 is float32
    (lambda a: a / 0, ([0, 5],), [np.nan, np.inf]),
    (lambda a: 1 / a, ([0],), [np.inf]),
    (T.power, ([0.0, -8.0], [-1.0, 1.0 / 3.0]), [np.inf, np.nan]),
    (T.power, ([0, 2], [-1, 3]), [np.inf, 8.0]),
    (T.exp, ([1000.0, -1000.0],), [np.inf, 0.0]),
    (T.log, ([0],), [-np.inf]),
], ids=lambda v: getattr(v, "__name__", None))
def test_ieee_results(fn, args, want):
    np.testing.assert_array_equal(_values(fn, *args), want)


def test_integer_division_by_zero_in_place_does_not_crash():
    t = CoreTensor(np.array([0, 1, -1]), 0)
    t.div_(0)
    t.div_(CoreTensor(np.array([0, 0, 0]), 0))
    assert t.dtype == "int64" and t.shape == [3]


@pytest.mark.parametrize("fn,x", [(T.log, 0.0), (T.sqrt, 0.0), (T.reciprocal, 0.0), (T.acos, 1.0), (T.asin, -1.0)])
def test_gradient_at_singular_points_is_not_finite(fn, x):
    t = QTensor(np.array([x]), requires_grad=True)
    with np.errstate(all="ignore"):
        fn(t).backward()
    assert not np.isfinite(np.asarray(t.grad.pdata)).any()


NOT_TENSORS = ["abc", None, [1.0, 2.0], object(), np.array([1.0]), 3.0]
# The module functions of the element-wise table, by arity, and the two that have no row there.
MODULE_ROWS = [op for op in table.TestElementwise.OPS if getattr(T, getattr(op.fn, "__name__", ""), None) is op.fn]
ONE_TENSOR = [op.fn for op in MODULE_ROWS if len(op.shapes[0]) == 1] + [T.nonzero]
TWO_TENSORS = [op.fn for op in MODULE_ROWS if len(op.shapes[0]) == 2] + [T.broadcast]


@pytest.mark.parametrize("fn", ONE_TENSOR, ids=lambda f: f.__name__)
@pytest.mark.parametrize("bad", NOT_TENSORS, ids=lambda v: type(v).__name__)
def test_one_argument_functions_need_a_tensor(fn, bad):
    with pytest.raises(TypeError):
        fn(bad)


@pytest.mark.parametrize("fn", TWO_TENSORS, ids=lambda f: f.__name__)
@pytest.mark.parametrize("bad", NOT_TENSORS, ids=lambda v: type(v).__name__)
@pytest.mark.parametrize("side", [0, 1])
def test_two_argument_functions_need_tensors(fn, bad, side):
    x = QTensor(np.array([1.0]), requires_grad=True)
    args = [x, x]
    args[side] = bad
    with pytest.raises(TypeError):
        fn(*args)
    with pytest.raises(TypeError):
        fn(x)
    assert x.nodes == []


ONES = QTensor(np.ones([2]))


@pytest.mark.parametrize("call", [
    # clip bounds must be numbers; where's condition must be a tensor; the fold helper takes backend tensors
    lambda: T.clip(ONES, "a", 1), lambda: T.clip(ONES, 0, None), lambda: T.clip(ONES, [0], 1),
    lambda: T.clip(ONES, 0, QTensor(np.ones([1]))), lambda: T.where("abc", ONES, ONES),
    lambda: T.where([1, 0], ONES, ONES), lambda: T.where(np.array([1.0, 0.0]), ONES, ONES),
    lambda: T.where(1, ONES, ONES), lambda: T._broadcast("a", None), lambda: T._broadcast(None, ONES.data),
    lambda: T._broadcast(np.ones(2), np.ones(2)),
])
def test_other_arguments_of_the_wrong_type(call):
    with pytest.raises(TypeError):
        call()


@pytest.mark.parametrize("bad", ["abc", None, [1.0, 2.0, 3.0], {}, object()], ids=lambda v: type(v).__name__)
def test_operators_with_unconvertible_operands(bad):
    x = QTensor(np.array([1.0, 2.0]), requires_grad=True)
    for op in (lambda: x + bad, lambda: bad - x, lambda: x * bad, lambda: bad / x, lambda: x ** bad):
        with pytest.raises((TypeError, ValueError)):
            op()
    assert x.nodes == [] and not np.any(x.grad.pdata)


@pytest.mark.parametrize("method", ["add", "sub", "mult", "div", "pow", "equal", "maximum", "add_", "mult_", "div_"])
@pytest.mark.parametrize("bad", ["abc", None, [1.0], object()], ids=lambda v: type(v).__name__)
def test_backend_methods_with_bad_operands(method, bad):
    t = CoreTensor(np.ones([2]), 0)
    with pytest.raises(TypeError):
        getattr(t, method)(bad)
    np.testing.assert_array_equal(np.array(t), [1.0, 1.0])


Z = QTensor(np.array([[1 + 2j, -1j], [3.0, 0.5 + 0.5j]]))
ORDERED = {  # operations that need an order: TypeError naming the operation and the type
    "greater": lambda z: T.greater(z, z), "less": lambda z: z < 1, "greater_equal": lambda z: z >= z,
    "maximum": lambda z: T.maximum(z, z), "minimum": lambda z: T.minimum(z, z), "clip": lambda z: T.clip(z, 0, 1),
    "max": T.max, "min": T.min, "median": T.median, "argmax": lambda z: z.argmax(), "argmin": lambda z: z.argmin(),
    "sort": lambda z: T.sort(z, 0), "argsort": lambda z: T.argsort(z, 1), "topK": lambda z: T.topK(z, 1),
    "argtopK": lambda z: T.argtopK(z, 1), "log_softmax": lambda z: T.log_softmax(z, 0), "floor": T.floor,
    "ceil": T.ceil, "round": T.round,
}


@pytest.mark.parametrize("name", sorted(ORDERED))
def test_complex_values_have_no_order(name):
    with pytest.raises(TypeError, match=f"^{name}: unsupported element type complex128$"):
        ORDERED[name](Z)


SPECIAL = np.array([complex(np.inf, 0), complex(-np.inf, np.inf), complex(np.nan, 0), complex(0, np.nan),
                    complex(np.inf, np.nan), complex(1e308, 1e308), complex(-0.0, -0.0), 5e-324j])


@pytest.mark.parametrize("dtype", [np.complex64, np.complex128])
@pytest.mark.parametrize("name", ["exp", "log", "sqrt", "sin", "cos", "tan", "sinh", "cosh", "tanh", "reciprocal",
                                  "square", "abs", "sign", "angle", "real", "imag", "conj", "isfinite", "isnan"])
def test_complex_infinities_and_nans_give_values(name, dtype):
    """No crash, the right shape and type; the modulus as numpy's."""
    with np.errstate(over="ignore"):
        values = SPECIAL.astype(dtype)
    z = QTensor(values, requires_grad=name not in ("isfinite", "isnan"))
    y = getattr(T, name)(z)
    assert y.shape == [len(SPECIAL)]
    if name == "abs":
        np.testing.assert_array_equal(y.pdata, np.abs(values))
    if y.requires_grad:
        T.sums(T.abs(y) if y.pdata.dtype.kind == "c" else y).backward()
        assert z.grad.pdata.shape == (len(SPECIAL),)
