"""The indexing op table: select and set_select with index strings, and subscripts t[k] and
t[k] = v with integer, repeated, truncated, mask, mixed and basic keys, checked by the shared harness
(values over every element type, complex ones included, and layout, gradients, edges and tracking);
writes also put real values into complex tensors."""
import numpy as np

from optable import BOOL, C64, C128, COMPLEX, EVERY_TYPE, F64, I64, Op, OpChecks, beside
from pymoira.tensor.tensor import QTensor, select, set_select

S = slice(None)
CUBE, TABLE = [((4, 5, 6),)], [((4, 3),)]
MASK = np.array([[1, 0, 1], [0, 0, 1], [1, 1, 0], [0, 1, 0]], dtype=bool)
# real values written into complex tensors (the written tensor keeps its type)
INTO_COMPLEX = [(C64, F64), (C128, I64), (C64, BOOL)]


def read(name, fn, key, shapes, tracking, names):
    """fn(t), which numpy writes a[key] (or a[key(a)])."""
    return Op(name, fn, lambda a: np.atleast_1d(a[key(a) if callable(key) else key]), shapes, EVERY_TYPE + COMPLEX,
              tol=(0, 0), grad=(True,), tracking=tracking, names=names)


def selected(index, key, shapes=CUBE, strings=None):
    """select(t, index), which numpy writes a[key]; the edge name holds the index as `strings`."""
    return read(f"select {index}", lambda x: select(x, index), key, shapes, "combined",
                (f"select grad input: {{0}}select index {list(index) if strings is None else strings}",))


def subscript(name, key, np_key, tracking="copy", names=("__getitem__ grad ",)):
    """t[key(t)]."""
    return read(f"t[{name}]", lambda x: x[key(x)], np_key, TABLE, tracking, names)


def written(name, write, key, values_shape, names, tracking, mixed=()):
    """A fresh copy of the first input with the second written at `key` (a numpy key); `mixed`: pairs of
    element types beside the equal ones."""
    def fn(t, v):
        out = beside(t, np.array(t.data))
        write(out, v)
        return out

    def ref(a, v):
        out = a.copy()
        out[key] = v.reshape(out[key].shape) if v.size == out[key].size else v
        return out
    return Op(name, fn, ref, [((3, 4), values_shape)] if name.startswith("set_select") else [((4, 3), values_shape)],
              EVERY_TYPE + COMPLEX + list(mixed), tol=(0, 0), grad=(False, True), tracking=tracking, names=names,
              result=lambda t, *v: np.dtype(t))


def set_selected(index, key, values_shape, mixed=()):
    return written(f"set_select {index} {values_shape}", lambda t, v: set_select(t, index, v), key, values_shape,
                   (f"set select grad input: [3, 4]set select index {index}",), "combined", mixed)


def assigned(name, key, values_shape, np_key, tracking="copy", mixed=()):
    def write(t, v):
        t[key()] = v
    return written(f"t[{name}] = v", write, np_key, values_shape, ("__setitem__ grad ",), tracking, mixed)


OPS = [
    selected([], ...),
    selected([0.5], ..., strings=[]),
    selected([None, "1", 2.5], 1, strings=["1"]),
    selected(["0:2", 1], (slice(0, 2), 1), strings=["0:2", "1"]),
    selected([1, True], (1, 1), strings=["1", "True"]),
    selected("1:3", (1, S, 3)),
    selected([":", "1:3"], (S, slice(1, 3)), [((2, 3, 4),)]),
    selected(["-1::-2", "1,3,3,"], (slice(None, None, -2), [1, 3, 3]), [((4, 5),)]),
    selected(["2", ":", "1"], (2, S, 1), [((3, 4, 2),)]),
    selected(["1:5:2"], slice(1, 5, 2), [((5,),)]),
    read("select [index tensor]", lambda x: select(x, [QTensor([1, 2, 1, 0, 1])]), [1, 2, 1, 0, 1], CUBE, "combined",
         ("select grad input: {0}select index ['1,2,1,0,1,']",)),
    read("select [:, float index tensor]", lambda x: select(x, [":", QTensor(np.array([[1.7, 0.2], [3.0, 1.0]]))]),
         (S, [1, 0, 3, 1]), CUBE, "combined", None),
    subscript("int tensor", lambda x: QTensor(np.array([[2, 0], [3, 3]])), [[2, 0], [3, 3]]),
    subscript("repeated", lambda x: QTensor(np.array([1, 1, 1])), [1, 1, 1]),
    subscript("float truncates", lambda x: QTensor(np.array([1.7, 0.2])), [1, 0]),
    subscript("mask", lambda x: QTensor(np.real(np.array(x.data))) > 0.5, lambda a: np.real(a) > 0.5),  # on the CPU
    subscript("mixed", lambda x: (QTensor(np.array([0, 2])), slice(1, None)), ([0, 2], slice(1, None))),
    subscript("basic", lambda x: (slice(None, None, -2), -1), (slice(None, None, -2), -1), "combined",
              ("select grad input: {0}select index ['3:-5:-2', '-1']",)),
    set_selected(["1:3"], slice(1, 3), (2, 4), INTO_COMPLEX),
    set_selected(["1:3"], slice(1, 3), (1,)),
    set_selected([":", "2"], (S, 2), (3,)),
    set_selected(["0,2,", "1:4:2"], ([0, 2], slice(1, 4, 2)), (2, 1)),
    set_selected(["2", "1"], (2, 1), (1,)),
    assigned("int tensor", lambda: QTensor(np.array([2, 0])), (2, 3), [2, 0], mixed=INTO_COMPLEX),
    assigned("broadcast value", lambda: QTensor(np.array([1, 3])), (3,), [1, 3]),
    assigned("mask", lambda: QTensor(MASK.astype(float)) > 0.5, (6,), MASK, "combined", INTO_COMPLEX),  # NO_GRAD
    assigned("mixed", lambda: (QTensor(np.array([0, 3])), slice(0, 2)), (2, 2), ([0, 3], slice(0, 2))),
]


class TestIndexing(OpChecks):
    OPS = OPS
