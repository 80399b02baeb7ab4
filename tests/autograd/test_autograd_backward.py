"""The backward pass over hand-recorded graphs: order, accumulation, seeds, failures, get_prev and
toposort."""
import json
import os
import subprocess
import sys

import numpy as np
import pytest

from helpers import leaf
from pymoira._core import Tensor as CoreTensor
from pymoira.tensor import tensor as T
from pymoira.tensor.tensor import QTensor

GraphNode = QTensor.GraphNode


def mul(a, b):
    """a * b recorded by hand, edges in argument order."""
    return QTensor(a.data.mult(b.data), requires_grad=True,
                   nodes=[GraphNode(a, lambda g: g.mult(b.data)), GraphNode(b, lambda g: g.mult(a.data))])


def add(a, b):
    return QTensor(a.data.add(b.data), requires_grad=True, nodes=[GraphNode(a, lambda g: g), GraphNode(b, lambda g: g)])


@pytest.fixture
def worked():
    """y = a * b, z = y + a."""
    a, b = leaf([1.0, 2.0, -3.0]), leaf([3.0, 4.0, 0.5])
    y = mul(a, b)
    z = add(y, a)
    return a, b, y, z


def test_worked_order(worked):
    a, b, y, z = worked
    names = {id(a): "a", id(b): "b", id(y): "y", id(z): "z"}
    assert [names[id(t)] for t in T.toposort(z)] == ["z", "y", "b", "a"]
    assert [names[id(t)] for t in T.toposort(z, T.get_prev)] == ["z", "y", "b", "a"]


def test_worked_gradients_accumulate_over_repeated_passes(worked):
    a, b, y, z = worked
    av, bv = a.pdata, b.pdata
    z.backward()
    np.testing.assert_allclose(a.grad.pdata, bv + 1)
    np.testing.assert_allclose(b.grad.pdata, av)
    z.backward()
    np.testing.assert_allclose(a.grad.pdata, 2 + 3 * bv)
    np.testing.assert_allclose(b.grad.pdata, 3 * av)
    np.testing.assert_allclose(z.grad.pdata, [2, 2, 2])


def test_order_of_additions_in_the_worked_example():
    a, b = leaf([1.0]), leaf([2.0])
    log = []

    def edge(target, name):
        return GraphNode(target, lambda g: (log.append(name), g)[1])

    y = QTensor(a.data.mult(b.data), requires_grad=True, nodes=[edge(a, "y->a"), edge(b, "y->b")])
    z = QTensor(y.data.add(a.data), requires_grad=True, nodes=[edge(y, "z->y"), edge(a, "z->a")])
    z.backward()
    assert log == ["z->y", "z->a", "y->a", "y->b"]


def test_leaf_backward_adds_ones():
    t = leaf([[1.0, 2.0], [3.0, 4.0]])
    t.backward()
    np.testing.assert_array_equal(t.grad.pdata, np.ones((2, 2)))
    t.backward()
    np.testing.assert_array_equal(t.grad.pdata, np.full((2, 2), 2.0))
    assert t.nodes == []


def test_double_edge_to_one_tensor():
    x = leaf([3.0, -1.0])
    calls = []

    def df(g):
        calls.append(1)
        return g.mult(x.data)

    y = QTensor(x.data.mult(x.data), requires_grad=True, nodes=[GraphNode(x, df), GraphNode(x, df)])
    assert [p is x for p in T.get_prev(y)] == [True, True]
    y.backward()
    assert len(calls) == 2
    np.testing.assert_allclose(x.grad.pdata, 2 * x.pdata)


def test_diamond_is_processed_once_after_both_contributions():
    x = leaf([2.0])
    left = QTensor(x.data.mult(3), requires_grad=True, nodes=[GraphNode(x, lambda g: g.mult(3))])
    right = QTensor(x.data.mult(5), requires_grad=True, nodes=[GraphNode(x, lambda g: g.mult(5))])
    passed = []
    top = QTensor(left.data.add(right.data), requires_grad=True,
                  nodes=[GraphNode(left, lambda g: (passed.append(g.item()), g)[1]), GraphNode(right, lambda g: g)])
    square = QTensor(top.data.mult(top.data), requires_grad=True,
                     nodes=[GraphNode(top, lambda g: g.mult(top.data)), GraphNode(top, lambda g: g.mult(top.data))])
    square.backward()
    assert passed == [32.0]  # both contributions of 16 were in top.grad before its edges ran
    np.testing.assert_allclose(x.grad.pdata, [256.0])  # (8x)^2 -> 128x


def test_seed_tensor_is_handed_to_the_edges():
    x = leaf([1.0, 2.0])
    seed = QTensor([5.0, 6.0])
    received = []
    y = QTensor(x.data.mult(2), requires_grad=True,
                nodes=[GraphNode(x, lambda g: (received.append(g), g.mult(2))[1])])
    y.backward(grad=seed)
    assert received[0] is seed.data
    np.testing.assert_array_equal(x.grad.pdata, [10, 12])
    np.testing.assert_array_equal(seed.pdata, [5, 6])


@pytest.mark.parametrize("seed, want", [(2.0, [2, 2]), ([1.0, 3.0], [1, 3]), (np.array([1.0, 3.0]), [1, 3]),
                                        (CoreTensor([1.0, 3.0]), [1, 3])])
@pytest.mark.parametrize("op, factor", [(lambda t: t, 1), (lambda t: t * 3, 3), (lambda t: t + 1, 1),
                                       (lambda t: 2 - t, -1), (lambda t: t / 4, 0.25)])
def test_other_seed_forms(seed, want, op, factor):
    """A one-number seed stands for its broadcast over the result, through broadcasting operands too."""
    t = leaf([0.0, 0.0])
    op(t).backward(grad=seed)
    np.testing.assert_array_equal(t.grad.pdata, np.multiply(want, factor))


@pytest.mark.parametrize("seed, exc", [([1.0, 1.0, 1.0], ValueError), ("a", TypeError), ([[1.0], [2.0, 3.0]], ValueError)])
def test_bad_seeds_raise(seed, exc):
    with pytest.raises(exc):
        leaf([1.0, 2.0]).backward(seed)


def test_backward_refuses_untracked_tensors():
    for flag in (False, 0, None):
        t = QTensor([1.0], requires_grad=flag)
        with pytest.raises(RuntimeError) as info:
            t.backward()
        assert str(info.value) == "This tensor did not require grad!"
        assert t.grad is None


def bad(result):
    return lambda g: result


@pytest.mark.parametrize(
    "df, exc",
    [
        (bad(5), TypeError),
        (bad(None), TypeError),
        (bad(np.ones(2)), TypeError),
        (lambda g: QTensor([1.0, 1.0]), TypeError),
        (bad(CoreTensor([1.0, 2.0, 3.0])), ValueError),
        (bad(CoreTensor(np.ones((2, 2)))), ValueError),
        (lambda g: {}["missing"], KeyError),
        (lambda: None, TypeError),
        (5, TypeError),
        (None, TypeError),
    ],
)
def test_failing_gradient_functions_keep_earlier_contributions(df, exc):
    u, w = leaf([1.0, 2.0]), leaf([1.0, 2.0])
    r = QTensor([0.0, 0.0], requires_grad=True, nodes=[GraphNode(u, lambda g: g.mult(3)), GraphNode(w, df)])
    with pytest.raises(exc):
        r.backward()
    np.testing.assert_array_equal(u.grad.pdata, [3, 3])
    np.testing.assert_array_equal(w.grad.pdata, [0, 0])


@pytest.mark.parametrize("nodes, exc", [([5], (TypeError, RuntimeError)),
                                        ([GraphNode(None, lambda g: g)], (TypeError, RuntimeError)),
                                        ([GraphNode(QTensor([1.0]), lambda g: g)], (TypeError, RuntimeError)),
                                        (5, TypeError), (None, TypeError)])
def test_malformed_edges_raise(nodes, exc):
    r = QTensor([0.0], requires_grad=True)
    r.nodes = nodes
    with pytest.raises(exc):
        r.backward()


def test_zero_grad_rules():
    t = leaf([1.0, 2.0])
    t.backward()
    g = t.grad
    assert t.zero_grad() is None and t.grad is g
    np.testing.assert_array_equal(g.pdata, [0, 0])
    with pytest.raises(ValueError) as info:
        QTensor([1.0]).zero_grad()
    assert str(info.value) == "requires_grad == False "
    for flag in (0, None):  # only False itself is refused
        u = QTensor([1.0, 2.0], requires_grad=flag)
        u.zero_grad()
        np.testing.assert_array_equal(u.grad.pdata, [0, 0])


def test_get_prev_allocates_only_for_tracked_inputs():
    late = QTensor([1.0, 2.0])
    late.requires_grad = True
    plain = QTensor([1.0, 2.0])
    r = QTensor([0.0, 0.0], requires_grad=True, nodes=[GraphNode(late, lambda g: g), GraphNode(plain, lambda g: g)])
    assert late.grad is None
    first = T.get_prev(r)
    assert [p is q for p, q in zip(first, [late, plain])] == [True, True] and len(first) == 2
    np.testing.assert_array_equal(late.grad.pdata, [0, 0])
    assert plain.grad is None
    g = late.grad
    second = T.get_prev(r)
    assert second is not first and late.grad is g
    assert T.get_prev(late) == []


def test_late_tracked_leaf_gets_exactly_one_pass():
    x = QTensor([1.0, 2.0])
    x.requires_grad = True
    other = QTensor([4.0, 5.0])
    y = QTensor(x.data.mult(other.data), requires_grad=True, nodes=[GraphNode(x, lambda g: g.mult(other.data))])
    y.backward()
    np.testing.assert_array_equal(x.grad.pdata, [4, 5])
    assert other.grad is None


def test_backprop_passes_only_the_seed_from_the_end(worked):
    a, b, y, z = worked
    T.backprop(QTensor(np.full(3, 2.0)), z)
    np.testing.assert_array_equal(z.grad.pdata, [0, 0, 0])
    np.testing.assert_allclose(a.grad.pdata, 2 * (b.pdata + 1))
    np.testing.assert_allclose(b.grad.pdata, 2 * a.pdata)


def test_toposort_is_lazy_and_counts_before_the_first_yield(worked):
    a, b, y, z = worked
    names = {id(a): "a", id(b): "b", id(y): "y", id(z): "z"}
    calls = []

    def parents(node):
        calls.append(names[id(node)])
        return T.get_prev(node)

    it = T.toposort(z, parents)
    assert calls == [] and iter(it) is it
    assert next(it) is z
    assert calls == ["z", "a", "y", "b"]  # counting phase: every tensor expanded once
    assert next(it) is y and calls[4:] == ["z"]
    assert [names[id(t)] for t in it] == ["b", "a"]
    assert calls[4:] == ["z", "y", "b", "a"]
    with pytest.raises(StopIteration):
        next(it)


def test_toposort_with_any_parents_callable():
    graph = {"top": ["l", "r"], "l": ["base"], "r": ["base", "l"], "base": []}
    keys = {k: k for k in graph}  # one object per name
    order = list(T.toposort(keys["top"], lambda n: [keys[p] for p in graph[n]]))
    assert order == ["top", "r", "l", "base"]
    with pytest.raises(TypeError):
        list(T.toposort("top", lambda n: None))
    with pytest.raises(TypeError):
        list(T.toposort(5))


def test_python_callables_and_attributes_of_graph_nodes():
    t = QTensor([1.0])
    f = lambda g: g  # noqa: E731
    n = GraphNode(t, f, "t1 grad [1]")
    assert n.tensor is t and n.df is f and n.name == "t1 grad [1]"
    assert GraphNode(tensor=t, df=f).name == ""
    n.df = None
    assert n.df is None


def test_gradient_function_may_replace_the_objects_the_pass_is_using():
    a, b = leaf([1.0, 2.0]), leaf([1.0, 2.0])
    mid = leaf([1.0, 2.0])
    received = []

    def replace_grad_data(g):
        mid.grad.data = CoreTensor(np.full(2, 7.0))  # the object the pass hands to every edge of mid
        return g.mult(1.0)

    def replace_own_df(g):
        edge_b.df = None
        received.append(g.getdata())
        return g

    edge_b = GraphNode(b, replace_own_df)
    mid.nodes = [GraphNode(a, replace_grad_data), edge_b]
    end = QTensor([1.0, 2.0], requires_grad=True, nodes=[GraphNode(mid, lambda g: g)])
    end.backward()
    np.testing.assert_array_equal(received[0], [1, 1])
    np.testing.assert_array_equal(b.grad.pdata, [1, 1])



# ---- gradients that add many values into one ---------------------------------------------------

N = 3 << 16
FOLDS = {  # the ones tensor c is repeated onto x, which holds the values a; then a reduction
    "fold [1]": ([1], lambda a, c: a * c, T.sums), "mean": ([1], lambda a, c: a * c, T.mean),
    "var": ([1], lambda a, c: a * c, T.var), "fold [64]": ([64], lambda a, c: T.reshape(a, [-1, 64]) * c, T.sums),
    "fold [3, 1]": ([3, 1], lambda a, c: T.reshape(a, [3, -1]) * c, T.sums),
    "tile": ([2, 32], lambda a, c: T.reshape(a, [-1, 64]) * T.tile(c, [N // 128, 2]), T.sums)}


def grad_sum(case, dtype):
    """(gradient, float128 reference of the sums it holds, sum of the magnitudes added). For the
    folds c's gradient adds the values a * dloss/dx, dloss/dx being a's gradient."""
    rng = np.random.default_rng(7)
    a = (rng.standard_normal(N) + 1).astype(dtype)
    if "k=" in case:  # repeated elements (k = 1) or rows of k elements of a gather or a select
        k = int(case.split("=")[1])
        w, rows = a.reshape(-1, k), rng.integers(0, 3, N // k)
        t = QTensor(np.ones([3, k], dtype), requires_grad=True)
        T.sums((T.select(t, [QTensor(rows)]) if "select" in case else t[QTensor(rows)]) * QTensor(w)).backward()
        return t.grad.pdata, np.stack([w[rows == r].astype(np.longdouble).sum(0) for r in range(3)]), np.abs(a).sum()
    shape, make, loss = FOLDS[case]
    aq, c = QTensor(a, requires_grad=True), QTensor(np.ones(shape, dtype), requires_grad=True)
    x = make(aq, c)
    loss(x).backward()
    terms = (a * aq.grad.pdata).astype(np.longdouble).reshape(x.shape)
    split = [d for r, s in zip(x.shape, [1] * (x.ndim - len(shape)) + shape) for d in (r // s, s)]
    return c.grad.pdata, terms.reshape(split).sum(tuple(range(0, len(split), 2))).reshape(shape), np.abs(terms).sum()


@pytest.fixture(scope="module")
def grads_by_threads():
    """Every gradient's bytes as computed with 1, 2 and 8 threads."""
    script = ("import sys, json, numpy as np; sys.path[:0] = sys.argv[1:]; import test_autograd_backward as m; "
              "print(json.dumps({f'{c} {d}': m.grad_sum(c, np.dtype(d))[0].tobytes().hex() "
              "for c in m.CASES for d in ('float32', 'float64')}))")
    paths = [os.path.dirname(__file__), os.path.dirname(os.path.dirname(__file__))]
    return [json.loads(subprocess.run([sys.executable, "-c", script, *paths], capture_output=True, text=True, check=True,
                                      env={**os.environ, "OMP_NUM_THREADS": n}).stdout) for n in ("1", "2", "8")]


CASES = [*FOLDS, "index k=1", "index k=4", "index k=256", "select k=4"]


@pytest.mark.parametrize("dtype", [np.float32, np.float64])
@pytest.mark.parametrize("case", CASES)
def test_gradient_sums_are_accurate_and_thread_independent(case, dtype, grads_by_threads):
    """Gradients add as sums do: float32 in double (within one unit in the last place of the
    exact sum), and the same bits whatever the thread count."""
    got, ref, scale = grad_sum(case, np.dtype(dtype))
    assert got.dtype == dtype
    if dtype == np.float32:
        exact = ref.astype(np.float32)
        assert np.all(np.abs(got - exact) <= np.spacing(np.abs(exact))), (got, exact)
    else:
        assert np.all(np.abs(got - ref) <= scale * 2.0 ** -45), (got, ref)
    assert len({run[f"{case} {np.dtype(dtype).name}"] for run in grads_by_threads}) == 1
