"""The element-wise op table: arithmetic, unary functions, extremes, clip, where, comparisons,
logical functions and predicates, the backend's broadcast and in-place arithmetic, each row checked
by the shared harness."""
import numpy as np

import pymoira.tensor.tensor as T
from optable import (BOOL, COMPLEX, COMPLEX_PAIRS, EVERY_PAIR, EVERY_TYPE, F32, F64, FLOAT_PAIRS, FLOATS, I64, Op,
                     OpChecks, always, away_from_zero, beside, choice, floating, keeping, normal, off_points,
                     ordered_only, promoted, real_part_type, separated, uniform)
from pymoira.tensor.tensor import CoreTensor, QTensor

UNARY_SHAPES = [((),), ((1,),), ((5,),), ((2, 3),), ((0,),), ((2, 0, 3),)]
EQUAL_SHAPES = [((1,), (1,)), ((4,), (4,)), ((2, 3), (2, 3)), ((0, 2), (0, 2))]
# [1] against [1], equal, one side stretched, both stretched, 0-d, 0-size
BROADCAST_SHAPES = [((1,), (1,)), ((2, 3), (2, 3)), ((2, 3), (3,)), ((3,), (2, 3)), ((2, 1), (1, 3)), ((4, 5), (1,)),
                    ((1,), (4, 5)), ((2, 1, 3), (4, 1)), ((), (2, 3)), ((3, 1), ()), ((0,), (1,)), ((2, 0), (2, 1)),
                    ((0, 3), (3,))]
RECEIVER_SHAPES = [((2, 3), (2, 3)), ((2, 3), (3,)), ((2, 3), (2, 1)), ((2, 3), (1,))]
FLOATS_AND_INTEGERS = FLOATS + [(I64,), (BOOL,)]
NUMPY_NAMES = {"acos": "arccos", "asin": "arcsin", "atan": "arctan", "neg": "negative"}
COMPARED = (-1.0, 0.0, 2.0, np.nan)  # ties and NaN


def unary(name, domain=normal, tracking="combined", names=("",), fix=None, tol=2e-6, result=floating):
    """A module function of one tensor; integers and bools compute in float32 unless `result` keeps them."""
    return Op(name, getattr(T, name), getattr(np, NUMPY_NAMES.get(name, name)), UNARY_SHAPES, FLOATS_AND_INTEGERS,
              sample=(domain,), grad=(True,), tracking=tracking, names=names, fix=fix, tol=(tol, 1e-12),
              result=result)


def integer_valued(name, fix=None):
    return Op(name, getattr(T, name), getattr(np, name), UNARY_SHAPES, FLOATS_AND_INTEGERS, sample=(uniform(-5, 5),),
              fix=fix, result=keeping, tracking="none")


def binary(name, fn, ref, word=None, denominator=False, result=None, **kw):
    """Broadcasting arithmetic over every pair of element types (numpy refuses bool - bool)."""
    names = (f"t1 grad {{0}} {word} {{1}}", f"t2 grad {{0}} {word} {{1}}") if word else None
    return Op(name, fn, ref, BROADCAST_SHAPES, EVERY_PAIR, sample=(normal, away_from_zero(1, 2.5)) if denominator
              else (normal,), grad=(True, True), tracking="own", names=names, probe=(0, 1),
              result=result or (floating if denominator else promoted), **kw)


def mask(name, fn, ref, shapes=BROADCAST_SHAPES, dtypes=EVERY_PAIR, sample=(choice(COMPARED),)):
    return Op(name, fn, ref, shapes, dtypes, sample=sample, result=always(BOOL), tracking="none")


def scalar_operator(name, fn, ref, domain=normal):
    """A Python number on either side of an operator: a one-element operand (a 0-d tensor's result
    therefore has shape [1])."""
    return Op(name, fn, ref, UNARY_SHAPES, sample=(domain,), grad=(True,), tracking="own")


def one(v):
    return np.array([v], dtype=F64)


def condition(shape):
    return (np.arange(int(np.prod(shape))) % 3 != 1).reshape(shape)


def where(a, b):
    return T.where(beside(a, condition(np.broadcast_shapes(tuple(a.shape), tuple(b.shape))).astype(F64)), a, b)


def where_ref(a, b):
    return np.where(condition(np.broadcast_shapes(a.shape, b.shape)), a, b)


def extreme(name, fn, ref):
    return Op(name, fn, ref, EQUAL_SHAPES, EVERY_PAIR, grad=(True, True), tracking="own", fix=separated,
              names=("", ""))


def power(name, fn, **kw):
    return Op(name, fn, np.power, EQUAL_SHAPES, EVERY_PAIR, sample=(uniform(0.5, 2), normal), grad=(True, True),
              tracking="own", tol=(1e-5, 1e-12), result=floating, **kw)


def in_place(method, ref, number=False):
    """A backend method that writes into its receiver (input 0), which keeps its element type."""
    def call(t, *other):
        getattr(t, method)(*other)
        return t
    if number:
        return Op(f"{method} number", call, ref, [((2, 3),)], FLOATS + [(I64,)], args=lambda s: [(2.5,)],
                  result=lambda t: np.dtype(t), backend=True)
    return Op(method, call, ref, RECEIVER_SHAPES, [(F32, F32), (F64, F64), (F32, F64), (I64, F64)],
              sample=(normal, uniform(1, 2)), result=lambda t, o: np.dtype(t), backend=True)


OPS = [
    # binary arithmetic: module functions and operators, with broadcasting
    binary("add", T.add, np.add, "add"),
    binary("sub", T.sub, np.subtract, "sub", rejects=lambda a, b: a == b == BOOL),
    binary("mul", T.mul, np.multiply, "mul"),
    binary("divide", T.divide, np.divide, "div", denominator=True),
    binary("a+b", lambda a, b: a + b, np.add),
    binary("a-b", lambda a, b: a - b, np.subtract, rejects=lambda a, b: a == b == BOOL),
    binary("a*b", lambda a, b: a * b, np.multiply),
    binary("a/b", lambda a, b: a / b, np.divide, denominator=True),
    scalar_operator("2-x", lambda x: 2 - x, lambda x: one(2) - x),
    scalar_operator("x-2.5", lambda x: x - 2.5, lambda x: x - one(2.5)),
    scalar_operator("x+2", lambda x: x + 2, lambda x: x + one(2)),
    scalar_operator("3*x", lambda x: 3 * x, lambda x: one(3) * x),
    scalar_operator("x/3", lambda x: x / 3, lambda x: x / one(3)),
    scalar_operator("2/x", lambda x: 2 / x, lambda x: one(2) / x, domain=away_from_zero()),
    # the same tensor on both sides: two edges to it
    Op("x*x", lambda x: x * x, np.square, UNARY_SHAPES, grad=(True,), tracking="own", edges=2),
    Op("x+x", lambda x: T.add(x, x), lambda x: x + x, UNARY_SHAPES, grad=(True,), tracking="own", edges=2),
    # unary functions on their domains
    unary("reciprocal", away_from_zero(), tracking="own", names=("reciprocal {0} grad",)),
    unary("neg", result=keeping),
    unary("exp", uniform(-3, 3)),
    unary("acos", uniform(-0.9, 0.9)),
    unary("asin", uniform(-0.9, 0.9)),
    unary("atan"),
    unary("tanh", uniform(-3, 3)),
    unary("sinh", uniform(-3, 3)),
    unary("cosh", uniform(-3, 3)),
    unary("abs", fix=off_points([0.0]), result=keeping),
    unary("log", uniform(0.2, 3)),
    unary("sqrt", uniform(0.2, 3)),
    unary("square", names=("square grad",), result=keeping),
    unary("sin", uniform(-4, 4), names=("sin grad of tensor {0}",)),
    unary("cos", uniform(-4, 4)),
    unary("tan", uniform(-1.2, 1.2), tol=1e-5),
    Op("-x", lambda x: -x, np.negative, UNARY_SHAPES, grad=(True,), tracking="combined", names=("",)),
    # integer-valued, no gradients
    integer_valued("round", fix=off_points(np.arange(-5.5, 6))),
    integer_valued("sign"),
    integer_valued("floor"),
    integer_valued("ceil"),
    # power, extremes, clip, where
    power("power", T.power, names=(" x^a grad: input shape {0} power shape {1}",
                                   "a^x grad: input shape {0} power shape {1}")),
    power("x**y", lambda x, y: x ** y),
    Op("x**2", lambda x: x ** 2, np.square, [((1,),)], grad=(True,), tracking="own"),
    Op("2**x", lambda x: 2 ** x, lambda x: 2.0 ** x, [((1,),)], grad=(True,), tracking="own", tol=(1e-5, 1e-12)),
    extreme("maximum", T.maximum, np.maximum),
    extreme("minimum", T.minimum, np.minimum),
    Op("clip", lambda t: T.clip(t, -0.5, 0.5), lambda t: np.clip(t, -0.5, 0.5), UNARY_SHAPES, grad=(True,),
       tracking="combined", fix=off_points([-0.5, 0.5])),
    Op("where", where, where_ref, BROADCAST_SHAPES, FLOAT_PAIRS + COMPLEX_PAIRS[:5], grad=(True, True),
       tracking="own"),
    Op("CoreTensor.broadcast", CoreTensor.broadcast, lambda a, b: list(np.broadcast_arrays(a, b)),
       [((2, 1), (3,)), ((2, 3), (2, 3)), ((1,), (4, 5)), ((0, 1), (3,)), ((), (2,))], EVERY_TYPE, tol=(0, 0),
       backend=True),
    # in-place arithmetic of backend tensors
    *[in_place(method, ref, number) for method, ref in (("add_", np.add), ("sub_", np.subtract),
                                                        ("mult_", np.multiply), ("div_", np.divide))
      for number in (False, True)],
    *[Op(method, lambda t, m=method: (getattr(t, m)(), t)[1], ref, [((2, 3),)], sample=(uniform(0.5, 4),),
         backend=True) for method, ref in (("neg_", np.negative), ("sqrt_", np.sqrt), ("reciprocal_", np.reciprocal))],
    # masks: comparisons, logical functions and predicates never track
    mask("equal", T.equal, np.equal),
    mask("not_equal", T.not_equal, np.not_equal),
    mask("less", T.less, np.less),
    mask("less_equal", T.less_equal, np.less_equal),
    mask("greater", T.greater, np.greater),
    mask("greater_equal", T.greater_equal, np.greater_equal),
    mask("logical_and", T.logical_and, np.logical_and),
    mask("logical_or", T.logical_or, np.logical_or),
    mask("logical_xor", T.logical_xor, np.logical_xor),
    *[mask(name, getattr(T, name), getattr(np, name), UNARY_SHAPES, EVERY_TYPE,
           (choice((np.inf, -np.inf, np.nan, 0.0, -2.5, 1e30)),))
      for name in ("isfinite", "isinf", "isnan", "isneginf", "isposinf", "logical_not")],
]


# complex operands: values against numpy, gradients of real losses (the harness's complex seeds and
# differences of real and imaginary parts), and the operations that need an order refuse them
OPS += [
    *[Op(f"{name} complex", getattr(T, name), ref, UNARY_SHAPES, COMPLEX, sample=(domain,), tol=(2e-5, 1e-12),
         result=result, grad=None if name == "sign" else (True,)) for name, ref, domain, result in (
        ("exp", np.exp, uniform(-3, 3), promoted), ("log", np.log, away_from_zero(), promoted),
        ("sqrt", np.sqrt, normal, promoted), ("sin", np.sin, uniform(-3, 3), promoted),
        ("cos", np.cos, uniform(-3, 3), promoted), ("tan", np.tan, uniform(-1.2, 1.2), promoted),
        ("sinh", np.sinh, uniform(-3, 3), promoted), ("cosh", np.cosh, uniform(-3, 3), promoted),
        ("tanh", np.tanh, uniform(-3, 3), promoted), ("reciprocal", np.reciprocal, away_from_zero(), promoted),
        ("square", np.square, normal, promoted), ("neg", np.negative, normal, promoted),
        ("abs", np.abs, normal, real_part_type), ("sign", lambda z: z / np.abs(z), away_from_zero(), promoted))],
    *[Op(f"{name} complex", fn, ref, shapes, COMPLEX_PAIRS, sample=sample, tol=(2e-5, 1e-12),
         result=result, grad=grad) for name, fn, ref, shapes, sample, result, grad in (
        ("a+b", lambda a, b: a + b, np.add, BROADCAST_SHAPES, (normal,), promoted, (True, True)),
        ("a-b", lambda a, b: a - b, np.subtract, BROADCAST_SHAPES, (normal,), promoted, (True, True)),
        ("a*b", lambda a, b: a * b, np.multiply, BROADCAST_SHAPES, (normal,), promoted, (True, True)),
        ("a/b", lambda a, b: a / b, np.divide, BROADCAST_SHAPES, (normal, away_from_zero(1, 2.5)), floating,
         (True, True)),
        ("x**y", lambda a, b: a ** b, np.power, EQUAL_SHAPES, (uniform(0.5, 2), normal), floating, (True, True)),
        ("equal", T.equal, np.equal, BROADCAST_SHAPES, (choice(COMPARED),), always(BOOL), None),
        ("not_equal", T.not_equal, np.not_equal, BROADCAST_SHAPES, (choice(COMPARED),), always(BOOL), None),
        ("logical_xor", T.logical_xor, np.logical_xor, EQUAL_SHAPES, (choice(COMPARED),), always(BOOL), None))],
    # the parts of a value: real tensors are their own real part and conjugate
    *[Op(name, getattr(T, name), ref, UNARY_SHAPES, FLOATS_AND_INTEGERS + COMPLEX, grad=(True,), tracking="combined",
         names=("",), fix=fix, result=result)
      for name, ref, result, fix in (("real", np.real, lambda *d: real_part_type(keeping(*d)), None),
                                     ("imag", np.imag, lambda *d: real_part_type(keeping(*d)), None),
                                     ("conj", np.conj, keeping, None),
                                     ("angle", np.angle, lambda *d: real_part_type(floating(*d)), off_points([0.0])))],
    *[mask(f"{name} complex", getattr(T, name), getattr(np, name), UNARY_SHAPES, COMPLEX,
           (choice((np.inf, -np.inf, np.nan, 0.0, -2.5, 1e30)),))
      for name in ("isfinite", "isinf", "isnan", "logical_not")],
    *[Op(f"{name} complex", getattr(T, name), getattr(np, name), EQUAL_SHAPES[1:2], COMPLEX_PAIRS[:2],
         rejects=ordered_only) for name in ("maximum", "minimum", "less", "greater_equal")],
]


class TestElementwise(OpChecks):
    OPS = OPS
