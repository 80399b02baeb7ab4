"""The op-test harness of every family: a row per operation (its call, numpy reference, sample
shapes, element types, differentiable inputs, tracking pattern, edge names, result type), the case
generator and the checks every row gets. A test module subclasses OpChecks with its rows.

The case generator crosses each row with the axes of a check: element-type tuples and DEVICES for
the forward check (which loops over samples, memory layouts and extra arguments inside a case),
samples for the gradient check. Inputs are made in one place, laid_out_inputs (cast for the
element type, helpers.laid_out for the layout, to_device for the device)."""
import warnings
from dataclasses import dataclass
from typing import Callable, Optional, Sequence, Tuple

import numpy as np
import pytest

from helpers import LAYOUTS, laid_out
from pymoira._core import Tensor, moira
from pymoira.tensor.tensor import QTensor

BOOL, I64, F32, F64, C64, C128 = np.bool_, np.int64, np.float32, np.float64, np.complex64, np.complex128
TYPES = [BOOL, I64, F32, F64]
COMPLEX = [(C64,), (C128,)]
# complex with complex, and with each real type on either side
COMPLEX_PAIRS = [(C64, C64), (C128, C128), (C64, C128)] + [p for t in TYPES for p in ((t, C64), (C128, t))]
FLOATS = [(F32,), (F64,)]
EVERY_TYPE = [(t,) for t in TYPES]
FLOAT_PAIRS = [(F32, F32), (F64, F64), (F32, F64)]
EVERY_PAIR = [(a, b) for a in TYPES for b in TYPES]
# With stand-in GPUs (MOIRA_VIRTUAL_GPUS) every row also runs on device 1000.
DEVICE_NUMBERS = {"cpu": 0, "gpu": 1000}
DEVICES = ["cpu", "gpu"] if moira.gpu_count() else ["cpu"]
SEEDS = ["ones", "random"]


# ---- samplers (float64 values; `cast` makes every element type of them) -------------------------

def normal(rng, shape):
    return rng.normal(size=shape)


def uniform(lo, hi):
    return lambda rng, shape: rng.uniform(lo, hi, size=shape)


def away_from_zero(lo=0.5, hi=2.0):
    """|x| in [lo, hi] with a random sign."""
    return lambda rng, shape: rng.uniform(lo, hi, size=shape) * rng.choice([-1.0, 1.0], size=shape)


def distinct(rng, shape):
    """Values at least about 0.6 apart: no ties."""
    n = int(np.prod(shape))
    return (rng.permutation(n) + rng.normal(size=n) * 0.1).reshape(shape)


def ties(rng, shape):
    """Small integers: many equal values, so first-of-equal rules are exercised."""
    return np.round(rng.standard_normal(shape) * 2)


def choice(values):
    return lambda rng, shape: rng.choice(values, size=shape)


def with_nan(sampler, share=0.1):
    """NaN in about `share` of the positions of samples with more than four elements."""
    def sample(rng, shape):
        x = sampler(rng, shape)
        return np.where(rng.random(shape) < share, np.nan, x) if x.size > 4 else x
    return sample


def cast(x, dtype):
    """float64 samples as `dtype`: bool is x > 0, integers truncate (NaN becomes 0); complex values
    get an imaginary part of their own (a function of the sample, so fixes and domains carry over)."""
    if np.dtype(dtype).kind == "c":
        with np.errstate(invalid="ignore"):  # infinite samples give NaN imaginary parts
            return np.asarray(x + 0.5j * np.sin(2 * x + 1), dtype=dtype)
    if dtype == BOOL:
        return x > 0
    if np.dtype(dtype).kind == "i":
        return np.clip(np.nan_to_num(x, nan=0.0, posinf=0.0, neginf=0.0), -2.0**62, 2.0**62).astype(dtype)
    return x.astype(dtype)


# ---- escape hatches for kinks and ties ---------------------------------------------------------

def separated(xs, gap=0.2):
    """Push the second input at least `gap` away from the first."""
    a, b = xs
    d = b - a
    return [a, np.where(np.abs(d) < gap, a + np.where(d < 0, -gap, gap), b)]


def off_points(points, gap=0.05):
    """Move samples of the first input within `gap` of any of `points` off it."""
    def fix(xs):
        x = xs[0].copy()
        for p in points:
            near = np.abs(x - p) < gap
            x[near] = p + np.where(x[near] < p, -2 * gap, 2 * gap)
        return [x] + list(xs[1:])
    return fix


# ---- result element types from the input types -------------------------------------------------

def promoted(*dtypes):
    """numpy's promotion, except that float64 needs a float64 input (else float32)."""
    r = np.result_type(*dtypes)
    return np.dtype(F32) if r == F64 and F64 not in dtypes else r


def floating(*dtypes):
    """Computed in a float (or complex) type: integers and bools give float32."""
    r = promoted(*dtypes)
    return r if r.kind in "fc" else np.dtype(F32)


def real_part_type(*dtypes):
    """The real type of a complex result's parts (abs of a complex tensor)."""
    r = promoted(*dtypes)
    return np.dtype(F32) if r == C64 else np.dtype(F64) if r == C128 else r


def ordered_only(*dtypes):
    """Operations that need an order refuse complex operands."""
    return any(np.dtype(d).kind == "c" for d in dtypes)


def keeping(*dtypes):
    """Integer-valued: bools compute as int64."""
    r = promoted(*dtypes)
    return np.dtype(I64) if r == BOOL else r


def always(dtype):
    return lambda *dtypes: np.dtype(dtype)


def over_axes(whole=True, keepdims=(False, True)):
    """Extra arguments (axis, keepdims): the whole tensor, then every axis, negative ones included."""
    def args(shapes):
        rank = len(shapes[0])
        return ([(None, False)] if whole else []) + [(a, k) for a in range(-rank, rank) for k in keepdims]
    return args


@dataclass(frozen=True)
class Op:
    name: str
    fn: Callable                      # the call on the inputs (QTensors, or backend tensors for backend rows)
    ref: Optional[Callable]           # numpy on float64 arrays with the same extra arguments; None: no forward
    shapes: Sequence[Tuple]           # one tuple of input shapes per sample
    dtypes: Sequence[Tuple] = tuple(FLOATS)   # one element type per input; every tuple is a case
    args: Callable = lambda shapes: [()]      # extra arguments after the inputs, per sample
    sample: Tuple[Callable, ...] = (normal,)  # a sampler per input (the last one repeats)
    fix: Optional[Callable] = None    # escape hatch: list of float64 arrays -> list of arrays
    result: Callable = promoted       # result element type from the input types
    rejects: Callable = lambda *dtypes: False  # input types the call refuses with TypeError
    tol: Tuple = (2e-6, 1e-12)        # forward tolerance of float32 / float64 results: rtol = atol, or a
                                      # pair (rtol, atol); 0: exact
    layouts: Sequence[str] = tuple(LAYOUTS)   # memory layouts of the inputs in the forward check
    grad: Optional[Tuple[bool, ...]] = None   # differentiable inputs
    tracking: Optional[str] = None    # combined / own / copy [strict] (test_tracking); none: never tracks
    names: Optional[Tuple[str, ...]] = None   # edge names, str.format-ted with the input shapes as lists
    edges: Optional[int] = None       # edges when every differentiable input tracks (default: one to each)
    probe: Tuple[int, ...] = (0,)     # the samples of the tracking and edge checks
    view: bool = False                # every result is a view of input 0
    backend: bool = False             # fn takes and returns backend tensors

    @property
    def tracked(self):
        return [i for i, g in enumerate(self.grad or ()) if g]

    @property
    def edge_count(self):
        return self.edges if self.edges is not None else len(self.tracked)

    def inputs(self, rng, shapes):
        xs = [np.asarray(self.sample[min(i, len(self.sample) - 1)](rng, s), dtype=F64) for i, s in enumerate(shapes)]
        return self.fix(xs) if self.fix else xs

    def call(self, tensors, args=()):
        return _outputs(self.fn(*tensors, *args))


def on(device, x, **kw):
    """x (an array, or a backend tensor already there) as a QTensor on `device`."""
    return QTensor(x, device=DEVICE_NUMBERS[device], **kw)


def beside(x, a):
    """a (an array) as a QTensor on the device of the QTensor x: the masks and conditions a row makes."""
    return QTensor(a, device=x.data.device)


def laid_out_inputs(op, arrays, dtypes, layout, device):
    """(values, tensors): the arrays as `dtypes` in `layout` on `device`, the one place inputs are made.
    One element type serves every input."""
    dtypes = dtypes * len(arrays) if len(dtypes) == 1 else dtypes
    views = [laid_out(cast(a, d), layout, DEVICE_NUMBERS[device]) for a, d in zip(arrays, dtypes)]
    return [v for v, _ in views], [t if op.backend else on(device, t) for _, t in views]


def _outputs(out):
    return list(out) if isinstance(out, (list, tuple)) else [out]


def core_of(t):
    return t.data if isinstance(t, QTensor) else t


def values_of(t):
    return np.array(core_of(t))


# In-place writes of every kind into a backend tensor with at least one axis
WRITES = [("fill_", lambda t: t.fill_(-7.0)), ("add_", lambda t: t.add_(100.0)), ("neg_", lambda t: t.neg_()),
          ("copyTensor", lambda t: Tensor.copyTensor(Tensor(np.full(t.shape, 5.0)), t)),
          ("set_select", lambda t: t.set_select(["0"], Tensor(np.array([9.0])))),
          ("moira.copyTensor", lambda t: moira.copyTensor(t.add(0.5), t))]


def _reference(op, values, args):
    with np.errstate(all="ignore"), warnings.catch_warnings():
        warnings.simplefilter("ignore")
        return [np.asarray(w) for w in _outputs(op.ref(*[v.astype(C128 if v.dtype.kind == "c" else F64) for v in values],
                                                       *args))]


def finite_difference(op, arrays, i, seeds, args=(), eps=1e-6):
    """The gradient of the real loss sum_k re(conj(seeds[k]) * output k) with respect to arrays[i] by
    central differences through the row's own call: d/dx, plus i d/dy for a complex input."""
    def weighted(x):
        outs = op.call([QTensor(x if k == i else a.copy()) for k, a in enumerate(arrays)], args)
        return sum(np.sum(np.real(np.conj(s) * values_of(y))) for s, y in zip(seeds, outs))
    x, grad = arrays[i], np.zeros_like(arrays[i])
    for idx in np.ndindex(x.shape):
        for step in (1, 1j) if x.dtype.kind == "c" else (1,):
            xp, xm = x.copy(), x.copy()
            xp[idx] += step * eps
            xm[idx] -= step * eps
            grad[idx] += step * (weighted(xp) - weighted(xm)) / (2 * eps)
    return grad


def gradient_types(op):
    """The element types of a row's gradient checks: float64 samples (None) for rows of real types, then
    each complex tuple of the row in double precision (complex128, and float64 beside it), where no
    input is an integer or bool."""
    wider = {np.dtype(C64): C128, np.dtype(F32): F64, np.dtype(C128): C128, np.dtype(F64): F64}
    out = [None] if any(all(np.dtype(d).kind != "c" for d in dt) for dt in op.dtypes) else []
    for dt in op.dtypes:
        if any(np.dtype(d).kind == "c" for d in dt) and all(np.dtype(d) in wider for d in dt) and not op.rejects(*dt):
            wide = tuple(wider[np.dtype(d)] for d in dt)
            if wide not in out:
                out.append(wide)
    return out


def grad_of(x):
    return np.zeros(x.shape) if x.grad is None else values_of(x.grad)


def cases(rows, check):
    """(values, ids) of one check's cases: the rows it applies to, crossed with its axes."""
    per_row = {"tracking": lambda op: op.tracking not in (None, "none"), "untracked": lambda op: op.tracking == "none",
               "one_tracked": lambda op: len(op.tracked) > 1, "views": lambda op: op.view}
    out = []
    for op in rows:
        if check == "forward" and op.ref is not None:
            out += [((op, dt, dev), f"{op.name}-{','.join(np.dtype(t).name for t in dt)}-{dev}")
                    for dt in op.dtypes for dev in DEVICES]
        elif check == "gradient" and op.tracked:
            out += [((op, shapes, dev, dt), f"{op.name}-{shapes}" + ("" if dt is None else "-" + ",".join(
                        np.dtype(t).name for t in dt)) + ("" if dev == "cpu" else f"-{dev}"))
                    for shapes in op.shapes for dev in DEVICES for dt in gradient_types(op)]
        elif check in per_row and per_row[check](op):
            out.append(((op,), op.name))
    assert len({i for _, i in out}) == len(out), "row names must be unique"
    return out


class OpChecks:
    """Every check on every row of OPS. A test module defines `class TestX(OpChecks): OPS = [...]`."""
    OPS: Sequence[Op] = ()

    def pytest_generate_tests(self, metafunc):
        check = metafunc.function.__name__[len("test_"):]
        params = cases(self.OPS, check)
        metafunc.parametrize("case", [v for v, _ in params], ids=[i for _, i in params])

    def test_forward(self, case, rng):
        """Values, shapes and element types against numpy over every sample, layout and argument."""
        op, dtypes, device = case
        rtype = np.dtype(op.result(*dtypes))
        tol = {"float32": op.tol[0], "complex64": op.tol[0], "float64": op.tol[1], "complex128": op.tol[1]}.get(rtype.name,
                                                                                                                0)
        for shapes in op.shapes:
            arrays = op.inputs(rng, shapes)
            for layout in op.layouts:
                values, tensors = laid_out_inputs(op, arrays, dtypes, layout, device)
                for args in op.args(shapes):
                    where = f"shapes {shapes}, layout {layout}, arguments {args}"
                    if op.rejects(*dtypes):
                        with pytest.raises(TypeError):
                            op.fn(*tensors, *args)
                        continue
                    wants = _reference(op, values, args)
                    outs = op.call(tensors, args)
                    assert len(outs) == len(wants), where
                    for out, want in zip(outs, wants):
                        got = values_of(out)
                        assert list(got.shape) == list(want.shape) == list(out.shape), where
                        assert got.dtype == rtype, where
                        assert isinstance(out, QTensor) != op.backend and out.device == DEVICE_NUMBERS[device], where
                        with np.errstate(invalid="ignore"):
                            want = want.astype(rtype)
                        if tol:
                            rtol, atol = tol if isinstance(tol, tuple) else (tol, tol)
                            np.testing.assert_allclose(got, want, rtol=rtol, atol=atol, err_msg=where)
                        else:
                            np.testing.assert_array_equal(got, want, err_msg=where)

    def test_gradient(self, case, rng):
        """Gradients of the differentiable inputs against float64 central differences, seeded with
        ones (backward()) and with random values (which catches gradients that ignore the seed); complex
        results get complex seeds, complex inputs differences of their real and imaginary parts."""
        op, shapes, device, dtypes = case
        arrays = op.inputs(rng, shapes)
        if dtypes is not None:
            arrays = [cast(a, d) for a, d in zip(arrays, dtypes * len(arrays) if len(dtypes) == 1 else dtypes)]
        for args in op.args(shapes):
            for seed in SEEDS:
                xs = [on(device, a.copy(), requires_grad=g) for a, g in zip(arrays, op.grad)]
                outs = op.call(xs, args)
                seeds = [np.ones(y.shape) if seed == "ones" else rng.uniform(0.5, 1.5, size=y.shape) +
                         (1j * rng.uniform(-1, 1, size=y.shape) if values_of(y).dtype.kind == "c" else 0)
                         for y in outs]
                for y, s in zip(outs, seeds):
                    assert y.requires_grad is True
                    y.backward() if seed == "ones" else y.backward(on(device, s))
                for i in op.tracked:
                    assert xs[i].grad is None or xs[i].grad.data.device == DEVICE_NUMBERS[device]
                    got = grad_of(xs[i])
                    assert got.shape == arrays[i].shape and got.dtype == arrays[i].dtype
                    np.testing.assert_allclose(got, finite_difference(op, arrays, i, seeds, args), rtol=1e-5,
                                               atol=1e-7, err_msg=f"input {i}, arguments {args}, seed {seed}")

    def test_tracking(self, case, rng):
        """Inputs flagged True, 1 or False, with NO_GRAD off and on. "combined": the result tracks
        and records edges when a flag is truthy and NO_GRAD is off; "own": as combined, but the edges
        are recorded whatever NO_GRAD says; "copy": the result takes the flag itself and records edges
        whatever NO_GRAD says. " strict": only the flag True counts."""
        op, = case
        for shapes in [op.shapes[k] for k in op.probe]:
            arrays, args = op.inputs(rng, shapes), op.args(shapes)[0]
            first = None
            for flag in (True, 1, False):
                for no_grad in (False, True):
                    outs = self._tracked_call(op, arrays, args, flag, no_grad)
                    mode, _, strict = op.tracking.partition(" ")
                    on = flag is True if strict else bool(flag)
                    tracks = on if mode == "copy" else on and not no_grad
                    edged = on if mode in ("own", "copy") else tracks
                    where = f"shapes {shapes}, flag {flag}, NO_GRAD {no_grad}"
                    for y in outs:
                        assert bool(y.requires_grad) is tracks, where
                        if mode == "copy":
                            assert y.requires_grad is flag, where
                        assert len(y.nodes) == (op.edge_count if edged else 0), where
                        if not tracks:
                            with pytest.raises(RuntimeError, match="This tensor did not require grad!"):
                                y.backward()
                        if edged and op.names is not None:
                            names = [s.format(*map(list, shapes)) for s in op.names]
                            assert [n.name for n in y.nodes] == names, where
                    got = [values_of(y) for y in outs]
                    first = first or got
                    for a, b in zip(first, got):
                        np.testing.assert_array_equal(a, b, err_msg=where)

    @staticmethod
    def _tracked_call(op, arrays, args, flag, no_grad):
        xs = [QTensor(a.copy(), requires_grad=flag if i in op.tracked else False) for i, a in enumerate(arrays)]
        QTensor.NO_GRAD = no_grad
        try:
            outs = op.call(xs, args)
        finally:
            QTensor.NO_GRAD = False
        if flag is True and not no_grad and op.names is not None and op.edges is None:  # one edge to each input
            for y in outs:
                assert [n.tensor is xs[i] for n, i in zip(y.nodes, op.tracked)] == [True] * len(y.nodes)
        return outs

    def test_untracked(self, case, rng):
        """Operations without gradients: the result never tracks and backward refuses."""
        op, = case
        shapes = op.shapes[op.probe[0]]
        xs = [QTensor(a, requires_grad=True) for a in op.inputs(rng, shapes)]
        for y in op.call(xs, op.args(shapes)[0]):
            assert not y.requires_grad and y.nodes == [] and y.grad is None
            assert y.is_bool is (values_of(y).dtype == BOOL)  # comparisons make masks
            with pytest.raises(RuntimeError, match="This tensor did not require grad!"):
                y.backward()

    def test_one_tracked(self, case, rng):
        """One differentiable input tracks: one edge to it, its gradient, none for the others."""
        op, = case
        for s, shapes in enumerate(op.shapes):
            arrays, args = op.inputs(rng, shapes), op.args(shapes)[0]
            named = op.names is not None and len(op.names) == len(op.tracked) and s in op.probe
            for j, i in enumerate(op.tracked):
                xs = [QTensor(a.copy(), requires_grad=(k == i)) for k, a in enumerate(arrays)]
                outs = op.call(xs, args)
                for y in outs:
                    assert y.requires_grad is True and len(y.nodes) == 1, f"input {i}, shapes {shapes}"
                    if named:
                        assert [n.name for n in y.nodes] == [op.names[j].format(*map(list, shapes))]
                    y.backward()
                assert all(x.grad is None for k, x in enumerate(xs) if k != i)
                want = finite_difference(op, arrays, i, [np.ones(y.shape) for y in outs], args)
                np.testing.assert_allclose(grad_of(xs[i]), want, rtol=1e-5, atol=1e-7, err_msg=f"shapes {shapes}")

    def test_views(self, case, rng):
        """View results share their input's memory, and writes of every kind never cross between
        a view and its source in either direction."""
        op, = case
        shapes = op.shapes[0]
        arrays, args = op.inputs(rng, shapes), op.args(shapes)[0]
        want, fresh = _reference(op, arrays, args), lambda a: (Tensor if op.backend else QTensor)(a.copy())
        for name, write in WRITES:
            xs = list(map(fresh, arrays))
            source = core_of(xs[0])
            for out in map(core_of, op.call(xs, args)):
                if out.size:
                    assert np.shares_memory(np.asarray(out), np.asarray(source))
                    write(out)  # a write into the view leaves the source alone
            np.testing.assert_array_equal(np.array(source), arrays[0], err_msg=name)
            xs = list(map(fresh, arrays))
            outs = op.call(xs, args)
            if arrays[0].size:
                write(core_of(xs[0]))  # a write into the source leaves the view alone
            for out, w in zip(outs, want):
                np.testing.assert_array_equal(values_of(out), w, err_msg=name)
