"""The graph of layout operations beyond the op table: split's backward state, concatenate's
offsets, transpose without dims, the in-place forms that record nothing, and cycles."""
import numpy as np
import pytest

import pymoira.tensor.tensor as T
from pymoira._core import Tensor
from pymoira.tensor.tensor import QTensor


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
