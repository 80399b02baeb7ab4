"""Every row of the op table: forward against numpy, gradients against finite differences,
and the row's NO_GRAD pattern."""
import numpy as np
import pytest

from pymoira.tensor.tensor import QTensor

from helpers import LAYOUTS, laid_out
from .optable import F64, cases, finite_difference, forward_tolerance


def _params(rows):
    return pytest.mark.parametrize("op,item", [(o, i) for o, i, _ in rows], ids=[n for _, _, n in rows])


def _forward_items(op):
    """Every shape and type pair with contiguous operands; every shape with operands of each
    other memory layout (views: transposed, sliced, flipped, broadcast)."""
    return ([(shapes, dtypes, "contiguous") for shapes in op.shapes for dtypes in op.dtypes] +
            [(shapes, op.dtypes[-1], layout) for shapes in op.shapes for layout in LAYOUTS[1:]])


@_params(cases(per=_forward_items))
def test_forward_matches_numpy(op, item, rng):
    shapes, dtypes, layout = item
    views = [laid_out(a.astype(dt), layout) for a, dt in zip(op.inputs(rng, shapes), dtypes)]
    arrays = [values for values, _ in views]
    out = op.fn(*[QTensor(view) for _, view in views])
    got = np.asarray(out.pdata)
    result_dtype = np.dtype(out.data.dtype)
    want = np.asarray(op.ref(*[a.astype(F64) for a in arrays])).astype(result_dtype)
    assert list(got.shape) == list(want.shape) == out.shape
    # float inputs keep the widest float type; integer-valued results keep the input's type
    assert result_dtype == np.result_type(*arrays)
    np.testing.assert_allclose(got, want, **forward_tolerance(op, result_dtype))


def _grad_items(op):
    return [(shapes, seed) for shapes in op.shapes for seed in ("ones", "random")]


@_params(cases(lambda op: op.grad is not None, per=_grad_items))
def test_gradient_matches_finite_differences(op, item, rng):
    shapes, seed_kind = item
    arrays = op.inputs(rng, shapes)
    xs = [QTensor(a.copy(), requires_grad=g) for a, g in zip(arrays, op.grad)]
    y = op.fn(*xs)
    assert y.requires_grad is True
    if seed_kind == "ones":
        seed = np.ones(y.shape)
        y.backward()
    else:  # a seed that is not all ones catches gradients that ignore g
        seed = rng.uniform(0.5, 1.5, size=y.shape)
        y.backward(QTensor(seed))
    for i, (x, wants) in enumerate(zip(xs, op.grad)):
        if not wants:
            continue
        got = np.asarray(x.grad.pdata)
        assert got.shape == arrays[i].shape and got.dtype == F64
        want = finite_difference(op, arrays, i, seed)
        np.testing.assert_allclose(got, want, rtol=1e-5, atol=1e-7, err_msg=f"input {i}")


@_params(cases(lambda op: op.grad is None, per=lambda op: op.shapes[2:4]))
def test_no_gradient_operations_record_nothing(op, item, rng):
    x = QTensor(op.inputs(rng, item)[0], requires_grad=True)
    y = op.fn(x)
    assert not y.requires_grad and y.nodes == [] and y.grad is None
    with pytest.raises(RuntimeError, match="This tensor did not require grad!"):
        y.backward()


@_params(cases(lambda op: op.tracking is not None, per=lambda op: op.shapes[2:3]))
def test_no_grad_pattern(op, item, rng):
    """Under NO_GRAD no result requires gradients; "own" rows still record an edge per tracked
    input, "combined" rows record none. Without NO_GRAD every tracked input gets one edge."""
    arrays = op.inputs(rng, item)
    xs = [QTensor(a, requires_grad=True) for a in arrays]
    on = op.fn(*xs)
    assert on.requires_grad is True and len(on.nodes) == op.edge_count
    QTensor.NO_GRAD = True
    off = op.fn(*xs)
    QTensor.NO_GRAD = False
    assert not off.requires_grad
    assert len(off.nodes) == (op.edge_count if op.tracking == "own" else 0)
    np.testing.assert_array_equal(off.pdata, on.pdata)


@_params(cases(lambda op: op.grad is not None and op.arity == 2, per=lambda op: op.shapes[1:3]))
def test_only_one_tracked_input(op, item, rng):
    """A result tracks gradients when either input does; the untracked input gets no edge and no
    gradient, the tracked one exactly its gradient."""
    arrays = op.inputs(rng, item)
    for tracked in (0, 1):
        xs = [QTensor(a.copy(), requires_grad=(i == tracked)) for i, a in enumerate(arrays)]
        y = op.fn(*xs)
        assert y.requires_grad is True and len(y.nodes) == 1
        y.backward()
        assert xs[1 - tracked].grad is None
        want = finite_difference(op, arrays, tracked, np.ones(y.shape))
        np.testing.assert_allclose(xs[tracked].grad.pdata, want, rtol=1e-5, atol=1e-7)

