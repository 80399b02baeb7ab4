"""The reduction op table: module sums, mean, frobenius_norm, extremes, variances, orderings, cumsum
and log_softmax (values, gradients, edges and tracking), and the backend's reductions, orderings
and scans over every element type and memory layout, every axis and keepdims."""
import numpy as np

import pymoira.tensor.tensor as M
from optable import (COMPLEX, EVERY_TYPE, FLOATS, I64, Op, OpChecks, always, distinct, floating, keeping, ordered_only,
                     over_axes, promoted, real_part_type, ties, with_nan)
from pymoira._core import Tensor, moira


def reduced(np_fn, **kw):
    """numpy's reduction with (axis, keepdims); the whole tensor gives shape [1]."""
    return lambda x, axis, keepdims: np.atleast_1d(np_fn(x, **kw) if axis is None else
                                                   np_fn(x, axis=axis, keepdims=keepdims, **kw))


def frobenius(x, axis=None, keepdims=False):
    return np.sqrt(np.sum((x * np.conj(x)).real, axis=axis, keepdims=keepdims))


def real_result(*dtypes):
    """Norms and spreads: the float type, the real type of complex parts."""
    return real_part_type(floating(*dtypes))


def log_softmax(x, axis):
    m = np.max(x, axis, keepdims=True)
    return x - m - np.log(np.exp(x - m).sum(axis, keepdims=True))


def order(x, axis, descending):
    """numpy's stable argsort, descending with equal values in their order, NaN last ascending and
    first descending."""
    nan = np.isnan(x)
    v = np.where(nan, 0, x)
    return np.lexsort((np.where(nan, 0, -v), ~nan) if descending else (v, nan), axis=axis)


def top(x, k, axis, largest):
    return np.take(order(x, axis, largest), np.arange(k), axis=axis)


def every_axis(*extra):
    return lambda shapes: [(a, *e) for a in range(-len(shapes[0]), len(shapes[0])) for e in extra or [()]]


def top_k(shapes):
    return [(min(shapes[0][a], 3), a) for a in range(-len(shapes[0]), len(shapes[0]))]


MODULE_SHAPES = [((2, 3),), ((2, 3, 4),), ((5,),), ((3, 1, 2),)]
DISTINCT = [((4, 5),), ((3,),)]


def module(name, fn, ref, tracking, names, shapes=MODULE_SHAPES, sample=distinct, args=over_axes(), dtypes=FLOATS,
           result=promoted, **kw):
    """A differentiable module function; the float types (module forms of the backend rows below)."""
    return Op(name, fn, ref, shapes, dtypes, args=args, sample=(sample,), result=result, grad=(True,),
              tracking=tracking, names=names, **kw)


# complex operands where an order is needed: TypeError
REFUSED = dict(dtypes=FLOATS + COMPLEX, rejects=ordered_only)


def untracked(name, fn, ref, args, result=floating):
    return Op(name, fn, ref, DISTINCT, args=args, sample=(distinct,), tracking="none", result=result)


BACKEND_SHAPES = [((7,),), ((3, 4),), ((2, 3, 5),), ((2, 1, 4, 3),), ((1,),), ((130, 3),), ((3, 300),)]


def backend(name, call, ref, result, shapes=BACKEND_SHAPES, sample=ties, args=over_axes(), tol=(2e-6, 1e-12)):
    return Op(f"backend {name}", call, ref, shapes, EVERY_TYPE, args=args, sample=(sample,), result=result, tol=tol,
              backend=True)


def whole_or_axis(name, *extra):
    def call(t, axis, keepdims):
        f = getattr(Tensor, name)
        return f(t, *extra) if axis is None else f(t, [axis], keepdims, *extra)
    return call


def scaled(rng, shape):
    return rng.standard_normal(shape) * 3


def sorting(descending, arg=False):
    def ref(x, axis):
        o = order(x, axis, descending)
        return o if arg else np.take_along_axis(x, o, axis)
    call = Tensor.argsort if arg else Tensor.sort
    return (f"{'argsort' if arg else 'sort'}{' descending' if descending else ''}",
            lambda t, axis: call(t, axis, descending, True), ref, always(I64) if arg else promoted)


def topping(name, largest, arg):
    def ref(x, k, axis):
        p = top(x, k, axis, largest)
        return p if arg else np.take_along_axis(x, p, axis)
    return backend(name, lambda t, k, axis: (moira.argtopK if arg else moira.topK)(t, k, axis, largest), ref,
                   always(I64) if arg else promoted, ORDER_SHAPES, NAN_TIES, top_k, (0, 0))


ORDER_SHAPES = BACKEND_SHAPES + [((1000,),), ((3, 70),)]
NAN_TIES = with_nan(ties)

OPS = [
    module("sums", M.sums, reduced(np.sum), "combined", ("sums grad {0}",), dtypes=EVERY_TYPE + COMPLEX, result=keeping,
           sample=scaled, shapes=MODULE_SHAPES + [((0, 3),)]),
    module("mean", M.mean, reduced(np.mean), "combined strict", ("mean grad",), dtypes=EVERY_TYPE + COMPLEX,
           result=floating, sample=scaled),
    module("frobenius_norm", M.frobenius_norm, reduced(frobenius), "combined", ("",), dtypes=EVERY_TYPE + COMPLEX,
           result=real_result, sample=scaled),
    module("max", M.max, reduced(np.max), "combined", ("{0} max grad",), DISTINCT, **REFUSED),
    module("min", M.min, reduced(np.min), "combined strict", ("{0} min grad",), DISTINCT),
    *[module(name, lambda t, a, k, f=f, u=u: f(t, a, k, u), reduced(ref, ddof=int(u)), "combined", ("",), DISTINCT,
             dtypes=FLOATS + COMPLEX, result=real_result)
      for name, f, ref, u in (("var", M.var, np.var, True), ("var biased", M.var, np.var, False),
                              ("std", M.std, np.std, True), ("std biased", M.std, np.std, False))],
    module("topK", M.topK, lambda x, k, a, largest: np.take_along_axis(x, top(x, k, a, largest), a), "copy",
           ("t1 grad [4, 2] topK [4, 2]",), DISTINCT,
           args=lambda s: [(2, a, big) for a in reversed(range(-len(s[0]), len(s[0]))) for big in (True, False)],
           **REFUSED),
    module("cumsum", M.cumsum, lambda x, a: np.cumsum(x, a), "copy", ("input grad {0} cumsumgrad {0}",),
           args=every_axis(), dtypes=FLOATS + COMPLEX),
    module("log_softmax", M.log_softmax, log_softmax, "own", ("log_softmax grad tensor of {0}",), args=every_axis(),
           **REFUSED),
    untracked("median", lambda t, a, k: M.median(t, [a], k), reduced(np.median), over_axes(whole=False)),
    untracked("whole median", M.median, lambda x: np.atleast_1d(np.median(x)), lambda s: [()]),
    untracked("sort", M.sort, lambda x, a, d: np.take_along_axis(x, order(x, a, d), a), every_axis((False,), (True,)),
              keeping),
    untracked("argsort", M.argsort, order, every_axis((False,), (True,)), always(I64)),
    untracked("argtopK", M.argtopK, top, lambda s: [(1, -1, True), (2, 0, False)], always(I64)),
    # the backend's reductions, orderings and scans
    backend("sum", whole_or_axis("sum"), reduced(np.sum), keeping, [((0, 3),), ((3, 0),)] + BACKEND_SHAPES[:5], scaled,
            over_axes(), (1e-5, 1e-12)),
    backend("mean", whole_or_axis("mean"), reduced(np.mean), floating, [((0, 3),), ((3, 0),)] + BACKEND_SHAPES[:5],
            scaled, over_axes(), (1e-5, 1e-12)),
    backend("l2_norm", lambda t, a, k: Tensor.l2_norm(t) if a is None else Tensor.l2_norm(t, a, k),
            lambda x, a, k: [np.atleast_1d(r) for r in ([frobenius(x)] if a is None else
                                                        [frobenius(x, a, k), np.sum(x * x, a, keepdims=k)])],
            floating, [((5,),), ((3, 4),), ((2, 3, 4),), ((0, 2),)], scaled, over_axes(), (1e-5, 1e-12)),
    backend("max", whole_or_axis("max"), reduced(np.max), promoted),
    backend("min", whole_or_axis("min"), reduced(np.min), promoted),
    backend("argmax", whole_or_axis("argmax"), reduced(np.argmax), always(I64)),
    backend("argmin", whole_or_axis("argmin"), reduced(np.argmin), always(I64)),
    backend("median", whole_or_axis("median"), reduced(np.median), floating),
    backend("var biased", whole_or_axis("var", False), reduced(np.var), floating),
    backend("var unbiased", whole_or_axis("var", True), reduced(np.var, ddof=1), floating),
    backend("std biased", whole_or_axis("std", False), reduced(np.std), floating),
    backend("std unbiased", whole_or_axis("std", True), reduced(np.std, ddof=1), floating),
    *[backend(name, call, ref, result, ORDER_SHAPES, NAN_TIES, every_axis(), (0, 0))
      for name, call, ref, result in [sorting(False), sorting(True), sorting(False, True), sorting(True, True)]],
    topping("topK", True, False),
    topping("topK smallest", False, False),
    topping("argtopK", True, True),
    backend("cumsum", moira.cumsum, lambda x, a: np.cumsum(x, a), keeping, ORDER_SHAPES, NAN_TIES, every_axis()),
    backend("log_softmax", moira.log_softmax, log_softmax, floating, ORDER_SHAPES, NAN_TIES, every_axis()),
]


class TestReduce(OpChecks):
    OPS = OPS
