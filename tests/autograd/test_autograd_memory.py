"""Graphs are freed with their results: reference counting, cycles through edges, flat memory in
a loop (hand-built, cyclic and element-wise graphs), and long chains that must not exhaust the C stack."""
import gc
import weakref

import numpy as np
import psutil
import pytest

from pymoira.tensor import tensor as T
from pymoira.tensor.tensor import QTensor

GraphNode = QTensor.GraphNode


@pytest.fixture
def gc_off():
    gc.collect()
    gc.disable()
    yield
    gc.enable()


def small_graph():
    a = QTensor(np.ones(4, dtype=np.float32), requires_grad=True)
    b = QTensor(a.data.mult(2), requires_grad=True, nodes=[GraphNode(a, lambda g: g.mult(2))])
    c = QTensor(b.data.add(a.data), requires_grad=True, nodes=[GraphNode(b, lambda g: g), GraphNode(a, lambda g: g)])
    c.backward()
    return a, c


def test_result_and_graph_are_freed_by_reference_counting(gc_off):
    a, c = small_graph()
    refs = [weakref.ref(t) for t in (a, c, a.grad, c.grad)]
    del a
    assert refs[0]() is not None  # the edges keep the input alive
    del c
    assert [r() for r in refs] == [None] * 4


def test_cycle_through_a_gradient_function_is_collected(gc_off):
    a = QTensor(np.ones(3), requires_grad=True)
    box = {}
    result = QTensor(a.data.mult(2), requires_grad=True,
                     nodes=[GraphNode(a, lambda g, box=box: g.mult(box["result"].data))])
    box["result"] = result
    result.backward()
    refs = [weakref.ref(result), weakref.ref(a)]
    del result, a, box
    assert refs[0]() is not None  # only the collector can break the cycle
    gc.collect()
    assert [r() for r in refs] == [None, None]


def test_cycle_through_grad_and_a_pending_toposort_is_collected(gc_off):
    t = QTensor([1.0], requires_grad=True)
    t.grad = t
    it = T.toposort(t, lambda node: [it] if node is t else [])
    next(it)
    t.nodes = [GraphNode(t, lambda g, keep=it: g)]
    ref = weakref.ref(t)
    del t, it
    gc.collect()
    assert ref() is None


def cyclic_graph():
    a = QTensor(np.ones(256, dtype=np.float32), requires_grad=True)
    box = {}
    box["r"] = QTensor(a.data.mult(2), requires_grad=True,
                       nodes=[GraphNode(a, lambda g, box=box: g.mult(box["r"].data))])


def elementwise_graph():
    a = QTensor(np.ones([32, 32]), requires_grad=True)
    b = QTensor(np.ones([32]), requires_grad=True)
    y = T.tanh(a * b + 2)
    z = T.power(T.maximum(y, T.clip(y, 0.2, 0.5)), T.where(y > 0.3, y, 1.0))
    (T.reciprocal(z + 1) / (T.exp(z) - 3)).backward()


@pytest.mark.rss
@pytest.mark.parametrize("build, warmup, count", [(small_graph, 2_000, 100_000), (cyclic_graph, 1_000, 20_000),
                                                  (elementwise_graph, 100, 600)], ids=["small", "cyclic", "elementwise"])
def test_memory_stays_flat_over_many_graphs(build, warmup, count):
    proc = psutil.Process()
    for _ in range(warmup):
        build()
    gc.collect()
    before = proc.memory_info().rss
    for _ in range(count):
        build()
    gc.collect()
    assert proc.memory_info().rss - before < 4 * 2 ** 20


def test_long_chain_backward_and_destruction_do_not_overflow():
    n = 100_000
    x = QTensor([1.0, 2.0], requires_grad=True)
    cur = x
    for _ in range(n):
        cur = QTensor(cur.data, requires_grad=True, nodes=[GraphNode(cur, lambda g: g.mult(1.0))])
    assert sum(1 for _ in T.toposort(cur)) == n + 1
    cur.backward()
    np.testing.assert_array_equal(x.grad.pdata, [1, 1])
    ref = weakref.ref(x)
    del x
    del cur
    assert ref() is None


def deep_chain(width, depth):
    """A chain of `depth` element-wise steps on `width` doubles; returns the leaf and the loss."""
    x = QTensor(np.linspace(0.5, 1.5, width), requires_grad=True)
    h = x
    for _ in range(depth):
        h = T.tanh(h) * 1.01
    return x, T.sums(h)


@pytest.mark.parametrize("retain", [True, False])
def test_released_intermediate_gradients_keep_leaf_values_and_lower_the_peak(retain):
    from pymoira._core import moira
    x0, loss0 = deep_chain(1 << 16, 30)
    loss0.backward()
    x, loss = deep_chain(1 << 16, 30)
    moira.reset_peak_memory(0)
    base = moira.memory_stats(0)["in_use"]
    with T.retain_intermediate_grads(retain):
        loss.backward()
    peak = moira.memory_stats(0)["peak"] - base
    np.testing.assert_array_equal(x.grad.pdata, x0.grad.pdata)
    assert (loss.grad is None) is not retain and (loss.nodes[0].tensor.grad is None) is not retain
    # each of the 60 intermediate gradients is 512 KiB; released ones leave a few in flight
    assert peak > 25 * 2 ** 19 if retain else peak < 8 * 2 ** 19
