"""Gradients that the backward pass lets share storage must never show it: every gradient a
user reads, or that a later pass or zero_grad writes, holds its own values."""
import numpy as np
import pytest

from helpers import leaf
from pymoira.tensor.tensor import QTensor


def test_pass_through_edges_keep_separate_gradients():
    a, b = leaf([1.0, 2.0]), leaf([3.0, 4.0])
    c = a + b
    mid_a, mid_b = c.nodes[0].tensor, c.nodes[1].tensor  # the operands themselves (equal shapes)
    c.backward()
    c.grad.data.fill_(7.0)  # the user changes one gradient in place
    np.testing.assert_array_equal(c.grad.pdata, [7.0, 7.0])
    np.testing.assert_array_equal(mid_a.grad.pdata, [1.0, 1.0])
    np.testing.assert_array_equal(mid_b.grad.pdata, [1.0, 1.0])


def test_repeated_input_accumulates_both_edges():
    x = leaf([1.0, 2.0, 3.0])
    y = x + x
    z = y * 1.0 + 0.0  # y is an interior node whose gradient is passed through twice
    z.backward()
    np.testing.assert_array_equal(x.grad.pdata, [2.0, 2.0, 2.0])
    np.testing.assert_array_equal(y.grad.pdata, [1.0, 1.0, 1.0])


@pytest.mark.parametrize("passes", [2, 3])
def test_repeated_passes_accumulate_through_shared_intermediates(passes):
    x, w = leaf([1.0, -1.0]), leaf([0.5, 2.0])
    s = x + w
    t = s + x
    for _ in range(passes):
        t.backward()
    # t = 2x + w; every pass adds the seed into t and the accumulated gradient below it.
    k = passes * (passes + 1) // 2
    np.testing.assert_array_equal(w.grad.pdata, [k, k])
    np.testing.assert_array_equal(x.grad.pdata, [passes + k, passes + k])
    np.testing.assert_array_equal(t.grad.pdata, [passes, passes])


def test_zero_grad_of_one_shared_gradient_leaves_the_other():
    a, b = leaf([1.0, 2.0]), leaf([3.0, 4.0])
    c = a + b
    c.backward()
    c.zero_grad()
    np.testing.assert_array_equal(c.grad.pdata, [0.0, 0.0])
    np.testing.assert_array_equal(a.grad.pdata, [1.0, 1.0])
    np.testing.assert_array_equal(b.grad.pdata, [1.0, 1.0])


def test_user_seed_is_never_shared():
    a = leaf([1.0, 2.0])
    c = a + 0.0
    seed = QTensor(np.array([5.0, 6.0]))
    c.backward(seed)
    seed.data.fill_(0.0)
    np.testing.assert_array_equal(c.grad.pdata, [5.0, 6.0])
    np.testing.assert_array_equal(a.grad.pdata, [5.0, 6.0])


def test_gradient_held_before_a_pass_is_not_shared_by_it():
    a = leaf([1.0, 2.0])
    c = a + 0.0
    held = c.grad  # handed out: zeros, private no more
    c.backward()
    held.data.fill_(9.0)
    np.testing.assert_array_equal(c.grad.pdata, [9.0, 9.0])
    np.testing.assert_array_equal(a.grad.pdata, [1.0, 1.0])
