"""The element-wise op table: per row a pymoira function, its numpy reference, input shapes, element
types, samplers, differentiable inputs, NO_GRAD pattern and an escape hatch (`fix`) that moves
samples off kinks and ties."""
from dataclasses import dataclass
from typing import Callable, Optional, Sequence, Tuple

import numpy as np

import pymoira.tensor.tensor as T
from helpers import numeric_grad
from pymoira.tensor.tensor import QTensor

F32, F64 = np.float32, np.float64


def normal(rng, shape):
    return rng.normal(size=shape)


def uniform(lo, hi):
    return lambda rng, shape: rng.uniform(lo, hi, size=shape)


def away_from_zero(lo=0.5, hi=2.0):
    """|x| in [lo, hi] with a random sign."""
    return lambda rng, shape: rng.uniform(lo, hi, size=shape) * rng.choice([-1.0, 1.0], size=shape)


def separated(xs, gap=0.2):
    """Ties escape hatch: push the second input at least `gap` away from the first."""
    a, b = xs
    d = b - a
    return [a, np.where(np.abs(d) < gap, a + np.where(d < 0, -gap, gap), b)]


def off_points(points, gap=0.05):
    """Kinks escape hatch for one input: move samples within `gap` of any point off it."""
    def fix(xs):
        x = xs[0].copy()
        for p in points:
            near = np.abs(x - p) < gap
            x[near] = p + np.where(x[near] < p, -2 * gap, 2 * gap)
        return [x] + list(xs[1:])
    return fix


UNARY_SHAPES = [((),), ((1,),), ((5,),), ((2, 3),), ((0,),), ((2, 0, 3),)]
EQUAL_SHAPES = [((1,), (1,)), ((4,), (4,)), ((2, 3), (2, 3)), ((0, 2), (0, 2))]
# equal, [1] against [1], one side stretched, both stretched, 0-d, 0-size
BROADCAST_SHAPES = [((1,), (1,)), ((2, 3), (2, 3)), ((2, 3), (3,)), ((3,), (2, 3)), ((2, 1), (1, 3)), ((4, 5), (1,)),
                    ((1,), (4, 5)), ((2, 1, 3), (4, 1)), ((), (2, 3)), ((3, 1), ()), ((0,), (1,)), ((2, 0), (2, 1)),
                    ((0, 3), (3,))]
FLOATS = [(F32,), (F64,)]
FLOAT_PAIRS = [(F32, F32), (F64, F64), (F32, F64)]


@dataclass(frozen=True)
class Op:
    name: str
    fn: Callable                      # pymoira: fn(*QTensor) -> QTensor
    ref: Callable                     # numpy reference on float64 arrays
    shapes: Sequence[Tuple]           # one tuple of input shapes per sample
    dtypes: Sequence[Tuple] = tuple(FLOATS)
    sample: Tuple[Callable, ...] = (normal,)   # one sampler per input (the last one repeats)
    grad: Optional[Tuple[bool, ...]] = None    # which inputs are differentiable; None: none
    tracking: Optional[str] = None    # "combined": NO_GRAD suppresses edges; "own": it does not
    fix: Optional[Callable] = None    # escape hatch: list of arrays -> list of arrays
    rtol32: float = 2e-6              # forward tolerance when the result is float32
    edges: Optional[int] = None       # edges of a result whose inputs all track (default: arity)

    @property
    def arity(self):
        return len(self.shapes[0])

    @property
    def edge_count(self):
        return self.edges if self.edges is not None else self.arity

    def inputs(self, rng, shapes):
        xs = [self.sample[min(i, len(self.sample) - 1)](rng, s) for i, s in enumerate(shapes)]
        xs = [np.asarray(x, dtype=F64) for x in xs]
        return self.fix(xs) if self.fix else xs


def unary(name, domain=normal, tracking="combined", fix=None, rtol32=2e-6):
    return Op(name, getattr(T, name), getattr(np, NUMPY_NAMES.get(name, name)), UNARY_SHAPES,
              sample=(domain,), grad=(True,), tracking=tracking, fix=fix, rtol32=rtol32)


NUMPY_NAMES = {"acos": "arccos", "asin": "arcsin", "atan": "arctan", "neg": "negative"}


def _where(a, b):
    cond = QTensor(_condition(np.broadcast_shapes(tuple(a.shape), tuple(b.shape))))
    return T.where(cond, a, b)


def _where_ref(a, b):
    return np.where(_condition(np.broadcast_shapes(a.shape, b.shape)) != 0, a, b)


def _condition(shape):
    return (np.arange(int(np.prod(shape))) % 3 != 1).astype(F64).reshape(shape)


def _binary(name, fn, ref, denominator=False):
    return Op(name, fn, ref, BROADCAST_SHAPES, dtypes=FLOAT_PAIRS,
              sample=(normal, away_from_zero()) if denominator else (normal,),
              grad=(True, True), tracking="own")


def _one(v):
    return np.array([v], dtype=F64)


def _scalar_operator(name, fn, ref, domain=normal):
    return Op(name, fn, ref, UNARY_SHAPES, sample=(domain,), grad=(True,), tracking="own")


OPS = [
    # binary arithmetic: module functions and operators, with broadcasting
    _binary("add", T.add, np.add),
    _binary("sub", T.sub, np.subtract),
    _binary("mul", T.mul, np.multiply),
    _binary("divide", T.divide, np.divide, denominator=True),
    _binary("a+b", lambda a, b: a + b, np.add),
    _binary("a-b", lambda a, b: a - b, np.subtract),
    _binary("a*b", lambda a, b: a * b, np.multiply),
    _binary("a/b", lambda a, b: a / b, np.divide, denominator=True),
    # a Python number on either side of an operator: a one-element operand
    # (the number becomes a tensor of shape [1], so a 0-d operand comes back with shape [1])
    _scalar_operator("2-x", lambda x: 2 - x, lambda x: _one(2) - x),
    _scalar_operator("x-2.5", lambda x: x - 2.5, lambda x: x - _one(2.5)),
    _scalar_operator("x+2", lambda x: x + 2, lambda x: x + _one(2)),
    _scalar_operator("3*x", lambda x: 3 * x, lambda x: _one(3) * x),
    _scalar_operator("x/3", lambda x: x / 3, lambda x: x / _one(3)),
    _scalar_operator("2/x", lambda x: 2 / x, lambda x: _one(2) / x, domain=away_from_zero()),
    # the same tensor on both sides: two edges to it
    Op("x*x", lambda x: x * x, np.square, UNARY_SHAPES, grad=(True,), tracking="own", edges=2),
    Op("x+x", lambda x: T.add(x, x), lambda x: x + x, UNARY_SHAPES, grad=(True,), tracking="own", edges=2),
    # unary functions on their domains
    unary("reciprocal", away_from_zero(), tracking="own"),
    unary("neg"),
    unary("exp", uniform(-3, 3)),
    unary("acos", uniform(-0.9, 0.9)),
    unary("asin", uniform(-0.9, 0.9)),
    unary("atan"),
    unary("tanh", uniform(-3, 3)),
    unary("sinh", uniform(-3, 3)),
    unary("cosh", uniform(-3, 3)),
    unary("abs", fix=off_points([0.0])),
    unary("log", uniform(0.2, 3)),
    unary("sqrt", uniform(0.2, 3)),
    unary("square"),
    unary("sin", uniform(-4, 4)),
    unary("cos", uniform(-4, 4)),
    unary("tan", uniform(-1.2, 1.2), rtol32=1e-5),
    Op("-x", lambda x: -x, np.negative, UNARY_SHAPES, grad=(True,), tracking="combined"),
    # no gradients
    Op("round", T.round, np.round, UNARY_SHAPES, sample=(uniform(-5, 5),), fix=off_points(np.arange(-5.5, 6))),
    Op("sign", T.sign, np.sign, UNARY_SHAPES),
    Op("floor", T.floor, np.floor, UNARY_SHAPES, sample=(uniform(-5, 5),)),
    Op("ceil", T.ceil, np.ceil, UNARY_SHAPES, sample=(uniform(-5, 5),)),
    # power, extremes, clip, where
    Op("power", T.power, np.power, EQUAL_SHAPES, dtypes=FLOAT_PAIRS, sample=(uniform(0.5, 2), normal),
       grad=(True, True), tracking="own", rtol32=1e-5),
    Op("x**y", lambda x, y: x ** y, np.power, EQUAL_SHAPES, dtypes=FLOAT_PAIRS, sample=(uniform(0.5, 2), normal),
       grad=(True, True), tracking="own", rtol32=1e-5),
    Op("x**2", lambda x: x ** 2, np.square, [((1,),)], grad=(True,), tracking="own"),
    Op("2**x", lambda x: 2 ** x, lambda x: 2.0 ** x, [((1,),)], grad=(True,), tracking="own", rtol32=1e-5),
    Op("maximum", T.maximum, np.maximum, EQUAL_SHAPES, dtypes=FLOAT_PAIRS, grad=(True, True), tracking="own",
       fix=separated),
    Op("minimum", T.minimum, np.minimum, EQUAL_SHAPES, dtypes=FLOAT_PAIRS, grad=(True, True), tracking="own",
       fix=separated),
    Op("clip", lambda t: T.clip(t, -0.5, 0.5), lambda t: np.clip(t, -0.5, 0.5), UNARY_SHAPES, grad=(True,),
       tracking="combined", fix=off_points([-0.5, 0.5])),
    Op("where", _where, _where_ref, BROADCAST_SHAPES, dtypes=FLOAT_PAIRS, grad=(True, True), tracking="own"),
]

ROWS = {op.name: op for op in OPS}
assert len(ROWS) == len(OPS), "row names must be unique"


def finite_difference(op, arrays, i, seed):
    """d sum(seed * op(x)) / d arrays[i] through pymoira's own forward pass."""
    def f(x):
        return np.asarray(op.fn(*[QTensor(x if k == i else a) for k, a in enumerate(arrays)]).pdata)
    return numeric_grad(f, arrays[i], seed)


def forward_tolerance(op, result_dtype):
    tol = {F32: op.rtol32, F64: 1e-12}.get(result_dtype.type, 0)
    return dict(rtol=tol, atol=tol)


def cases(predicate=lambda op: True, per=lambda op: op.shapes):
    """pytest ids and values: (op, item) for every row accepted by predicate and item of per(op)."""
    out = []
    for op in OPS:
        if predicate(op):
            for k, item in enumerate(per(op)):
                out.append((op, item, f"{op.name}-{k}"))
    return out
