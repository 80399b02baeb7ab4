"""Gradients of the layout operations against central finite differences in float64, the pieces
of split/chunk when only some are used, and each operation's edges: names, tracking under
NO_GRAD, and the in-place forms that record nothing."""
import numpy as np
import pytest

import pymoira.tensor.tensor as T
from pymoira._core import Tensor
from pymoira.tensor.tensor import QTensor

MASK = QTensor(np.array([[True, False], [False, True], [True, True]]))

# (id, input shapes, function of QTensors returning a QTensor or a list of them)
GRADS = [
    ("reshape", [(2, 3)], lambda x: T.reshape(x, [3, 2])),
    ("method reshape", [(2, 3, 1)], lambda x: x.reshape([6])),
    ("flatten", [(2, 3, 4)], lambda x: T.flatten(x, 1, -1)),
    ("squeeze", [(3, 1)], T.squeeze),
    ("unsqueeze", [(2, 3)], lambda x: T.unsqueeze(x, -2)),
    ("transpose", [(2, 2, 3)], lambda x: T.transpose(x, [2, 0, 1])),
    ("transpose negative", [(2, 3, 4)], lambda x: T.transpose(x, [-1, 0, -2])),
    ("transpose None", [(3, 3)], lambda x: T.transpose(x, None)),
    ("method transpose", [(2, 3, 4)], lambda x: x.transpose([1, 2, 0])),
    ("swapaxis", [(2, 3, 4)], lambda x: T.swapaxis(x, 2, 1)),
    ("concatenate", [(2, 3), (2, 4)], lambda a, b: T.concatenate((a, b))),
    ("concatenate -1", [(2, 1, 2), (2, 1, 3), (2, 1, 1)], lambda *x: T.concatenate(list(x), -1)),
    ("stack", [(3, 4)] * 3, lambda *x: T.stack(list(x), 2)),
    ("stack -1", [(2,), (2,)], lambda *x: T.stack(list(x), -1)),
    ("split", [(5, 4)], lambda x: T.split(x, [2, 3], 0)),
    ("split -1", [(2, 6)], lambda x: T.split(x, [1, 2, 3], -1)),
    ("chunk", [(7, 2)], lambda x: T.chunk(x, 3, 0)),
    ("tile", [(2, 3)], lambda x: T.tile(x, [2])),
    ("tile more reps", [(2, 3)], lambda x: T.tile(x, [2, 1, 3])),
    ("tile fewer reps", [(4, 1, 2)], lambda x: T.tile(x, [3, 2])),
    ("broadcast_to", [(3,), (4, 3)], T.broadcast_to),
    ("broadcast_to both ways", [(2, 1), (1, 3)], T.broadcast_to),
    ("masked_fill", [(3, 2)], lambda x: T.masked_fill(x, MASK, 13.0)),
    ("masked_fill mask row", [(3, 2)], lambda x: T.masked_fill(x, QTensor(np.array([False, True])), -1.0)),
    ("masked_fill broadcast t", [(2,)], lambda x: T.masked_fill(x, MASK, 0.0)),
    ("flip", [(3, 4, 2)], lambda x: T.flip(x, [0, -1])),
    ("flip square", [(3, 3)], lambda x: T.flip(x, [1])),
    ("triu", [(2, 4, 3)], lambda x: T.triu(x, 1)),
    ("tril", [(3, 4)], lambda x: T.tril(x, -1)),
]


def _outputs(out):
    return out if isinstance(out, list) else [out]


def check_gradients(fn, arrays, rng, used=None, eps=1e-6):
    """Backward from each used output with a random seed; the gradients of every input must equal
    central differences of sum(seed * output) over the used outputs."""
    xs = [QTensor(a.copy(), requires_grad=True) for a in arrays]
    outs = _outputs(fn(*xs))
    used = range(len(outs)) if used is None else used
    seeds = {k: rng.uniform(0.5, 1.5, size=outs[k].shape) for k in used}
    for k in used:
        outs[k].backward(QTensor(seeds[k]))

    def weighted(values):
        outs = _outputs(fn(*[QTensor(v) for v in values]))
        return sum(np.sum(seeds[k] * outs[k].to_numpy()) for k in used)

    for i, a in enumerate(arrays):
        want = np.zeros_like(a)
        for idx in np.ndindex(a.shape):
            plus, minus = [v.copy() for v in arrays], [v.copy() for v in arrays]
            plus[i][idx] += eps
            minus[i][idx] -= eps
            want[idx] = (weighted(plus) - weighted(minus)) / (2 * eps)
        got = xs[i].grad.to_numpy() if xs[i].grad is not None else np.zeros_like(a)
        np.testing.assert_allclose(got, want, rtol=1e-6, atol=1e-8, err_msg=f"input {i}")


@pytest.mark.parametrize("name, shapes, fn", GRADS, ids=[g[0] for g in GRADS])
def test_gradients_match_finite_differences(name, shapes, fn, rng):
    check_gradients(fn, [rng.standard_normal(s) for s in shapes], rng)


@pytest.mark.parametrize("fn, used", [
    (lambda x: T.split(x, [1, 2, 2], 0), [1]),
    (lambda x: T.split(x, [3, 0, 2], 0), [0, 2]),
    (lambda x: T.chunk(x, 2, 1), [1]),
    (lambda x: T.chunk(x, 3, 0), [2, 0]),
])
def test_split_gradients_when_only_some_pieces_are_used(fn, used, rng):
    check_gradients(fn, [rng.standard_normal((5, 4))], rng, used)


def test_split_backward_routes_gradients_through_index_strings():
    x = QTensor(np.zeros((5, 4)), requires_grad=True)
    parts = T.split(x, [2, 3], 0)
    edge = parts[1].nodes[0]
    state = edge.df.__self__
    assert isinstance(state, T.SplitBackward) and edge.tensor is x and edge.name == ""
    assert (state.index, state.split_section, state.t, state.axis) == (1, [2, 3], x, 0)
    g = edge.df(Tensor(np.ones((3, 4))))
    np.testing.assert_array_equal(np.array(g), np.r_[np.zeros((2, 4)), np.ones((3, 4))])
    assert state.string_s == ["2:5", ":"]  # the list is updated in place
    # a hand-made instance: chunk length 7 // 3 = 2, piece 2 at rows 4:6
    sb = T.SplitBackward(2, 3, QTensor(np.zeros((7, 2))), 0)
    assert sb.string_s == [":", ":"]
    np.testing.assert_array_equal(np.array(sb._get_chunk_grad(Tensor(np.ones((2, 2)))))[:, 0], [0, 0, 0, 0, 1, 1, 0])


def _leaf(shape=(2, 3)):
    return QTensor(np.arange(float(np.prod(shape))).reshape(shape), requires_grad=True)


# (id, function of one tracked [2, 3] input ([1, 6] for squeeze), tracking pattern, edge names)
EDGES = [
    ("reshape", lambda x: T.reshape(x, [6]), "combined", ["[2, 3] reshape [6]"]),
    ("reshape tuple", lambda x: T.reshape(x, (3, 2)), "combined", ["[2, 3] reshape (3, 2)"]),
    ("method reshape", lambda x: x.reshape([3, 2]), "combined", ["[2, 3] reshape [3, 2]"]),
    ("flatten", T.flatten, "combined", [""]),
    ("squeeze", lambda x: T.squeeze(x, 0), "own", ["squeeze grad of tensor [1, 6]"]),
    ("unsqueeze", lambda x: T.unsqueeze(x, 1), "own", ["unsqueeze grad tensor of [2, 3]"]),
    ("transpose", lambda x: T.transpose(x, [1, 0]), "own", ["tranpose grad dim = [1, 0]"]),
    ("transpose None", lambda x: T.transpose(x, None), "own", ["tranpose grad dim = None"]),
    ("method transpose", lambda x: x.transpose([1, 0]), "own", ["tranpose grad dim = [1, 0]"]),
    ("swapaxis", lambda x: T.swapaxis(x, 0, 1), "combined", ["swapaxis of tensor [2, 3]"]),
    ("concatenate", lambda x: T.concatenate([x, QTensor(np.ones((2, 1))), x]), "own",
     ["0 [2, 3] concat grad ", "2 [2, 3] concat grad "]),
    ("stack", lambda x: T.stack([QTensor(np.ones((2, 3))), x], 0), "own", ["stack grad 1tensor[2, 3]"]),
    ("split", lambda x: T.split(x, [1, 1], 0)[1], "own", [""]),
    ("chunk", lambda x: T.chunk(x, 3, 1)[0], "own", [""]),
    ("tile", lambda x: T.tile(x, [2, 2]), "own", ["tile grad dim = [2, 3]"]),
    ("broadcast_to", lambda x: T.broadcast_to(x, QTensor(np.ones((4, 1, 3)))), "copy",
     ["A grad [2, 3] broadcast_to [4, 1, 3]"]),
    ("masked_fill", lambda x: T.masked_fill(x, QTensor(np.array([True, False, True])), 0), "copy",
     ["t1 grad [2, 3] mask_fill [2, 3]"]),
    ("flip", lambda x: T.flip(x, [0]), "copy", ["input grad [2, 3] flip grad [2, 3]"]),
    ("triu", T.triu, "combined", [""]),
    ("tril", T.tril, "combined", [""]),
]


@pytest.mark.parametrize("name, fn, pattern, names", EDGES, ids=[e[0] for e in EDGES])
def test_edges_and_tracking(name, fn, pattern, names):
    shape = (1, 6) if name == "squeeze" else (2, 3)
    y = fn(_leaf(shape))
    assert y.requires_grad is True and [n.name for n in y.nodes] == names
    QTensor.NO_GRAD = True
    y = fn(_leaf(shape))
    assert y.requires_grad is (pattern == "copy")
    assert len(y.nodes) == (0 if pattern == "combined" else len(names))
    QTensor.NO_GRAD = False
    y = fn(_leaf(shape).copy())  # an input that does not track gradients
    assert y.requires_grad in (False, None) and y.nodes == []


def test_concatenate_counts_offsets_of_inputs_without_edges():
    x, y = QTensor(np.ones((2, 3)), requires_grad=1), QTensor(np.ones((2, 4)), requires_grad=True)
    z = T.concatenate((x, y))
    assert len(z.nodes) == 1 and z.nodes[0].tensor is y
    np.testing.assert_array_equal(np.array(z.nodes[0].df(Tensor(np.arange(14.0).reshape(2, 7)))),
                                  np.arange(14.0).reshape(2, 7)[:, 3:])
    with pytest.raises(OverflowError) as info:
        z.nodes[0].df(Tensor(np.ones((1, 1, 1, 2, 7))))
    assert info.value.args[0] == "grad can not greater that 4"


def test_transpose_method_without_dims_has_no_edge():
    x = _leaf((2, 3, 4))
    y = x.transpose()
    assert y.shape == [4, 3, 2] and y.nodes == [] and y.requires_grad is True
    np.testing.assert_array_equal(y.grad.to_numpy(), np.zeros((4, 3, 2)))
    x.requires_grad = 1  # truthy but not True: no gradient buffer
    assert x.transpose().requires_grad is False


@pytest.mark.parametrize("op, arg, shape", [("reshape_", [3, 2], [3, 2]), ("transpose_", [1, 0], [3, 2]),
                                            ("transpose_", None, [3, 2]), ("reshape_", [2, 3], [2, 3])])
def test_in_place_forms_keep_edges_and_grad(op, arg, shape):
    x = _leaf()
    y = x * 2.0
    nodes, grad, flag = y.nodes, y.grad, y.requires_grad
    before = np.array(y.data)
    assert getattr(y, op)(arg) is None
    assert y.shape == shape and y.nodes is nodes and y.grad is grad and y.requires_grad is flag
    want = before.reshape(shape) if op == "reshape_" else before.T
    np.testing.assert_array_equal(np.array(y.data), want)


def test_gradient_reads_the_input_shape_when_it_runs():
    x = _leaf((2, 3))
    y = T.flatten(x)
    x.data.reshape_([3, 2])
    assert y.nodes[0].df(Tensor(np.ones(6))).shape == [3, 2]


def test_split_backward_cycles_are_collected():
    """A SplitBackward that holds its own input through a cycle is freed by the collector."""
    import gc
    import weakref
    x = QTensor(np.zeros((4, 2)), requires_grad=True)
    state = T.SplitBackward(0, [2, 2], x, 0)
    x.nodes = [QTensor.GraphNode(x, state._get_split_grad)]  # x -> edge -> method -> state -> x
    alive = weakref.ref(x)
    del x, state
    gc.collect()
    assert alive() is None
