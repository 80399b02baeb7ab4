"""matmul and its helpers in pymoira.tensor.tensor: values, gradients, edges and failures."""
import numpy as np
import pytest

from helpers import leaf, numeric_grad
from pymoira.tensor.tensor import (CoreTensor, QTensor, helper_function_bmm, helper_function_matmul2d,
                                   helper_function_matmul4d, matmul)

RANK_MESSAGE = "Matmul only supports 2d matrix product or 4d batch matrix product."

# (first factor's shape, second factor's shape, helper, edge-name prefix)
CASES = [
    ((3, 4), (4, 5), helper_function_matmul2d, "mm"),
    ((2, 3, 4), (2, 4, 5), helper_function_bmm, "bmm"),
    ((2, 3, 2, 4), (2, 3, 4, 3), helper_function_matmul4d, "mm"),
]


@pytest.mark.parametrize("sa,sb,helper,prefix", CASES)
@pytest.mark.parametrize("fn", ["matmul", "helper"])
def test_forward_matches_numpy(rng, sa, sb, helper, prefix, fn):
    a, b = rng.standard_normal(sa), rng.standard_normal(sb)
    f = matmul if fn == "matmul" else helper
    y = f(leaf(a, False), leaf(b, False))
    assert isinstance(y, QTensor)
    np.testing.assert_allclose(y.to_numpy(), np.matmul(a, b), rtol=1e-12, atol=1e-12)
    assert y.device == 0 and y.requires_grad is False and list(y.nodes) == []


@pytest.mark.parametrize("sa,sb,helper,prefix", CASES)
def test_gradients_match_finite_differences(kernel_path, rng, sa, sb, helper, prefix):
    a, b = rng.standard_normal(sa), rng.standard_normal(sb)
    g = rng.standard_normal(np.matmul(a, b).shape)
    t1, t2 = leaf(a), leaf(b)
    matmul(t1, t2).backward(QTensor(g))
    want1 = numeric_grad(lambda x: matmul(leaf(x, False), leaf(b, False)).to_numpy(), a, g)
    want2 = numeric_grad(lambda y: matmul(leaf(a, False), leaf(y, False)).to_numpy(), b, g)
    np.testing.assert_allclose(t1.grad.to_numpy(), want1, rtol=1e-6, atol=1e-7)
    np.testing.assert_allclose(t2.grad.to_numpy(), want2, rtol=1e-6, atol=1e-7)


def test_same_factor_twice_gets_both_contributions(rng):
    x = rng.standard_normal((4, 4))
    t = leaf(x)
    g = rng.standard_normal((4, 4))
    matmul(t, t).backward(QTensor(g))
    np.testing.assert_allclose(t.grad.to_numpy(), g @ x.T + x.T @ g, rtol=1e-12, atol=1e-12)


def test_gradient_chain_through_two_products(rng):
    a, b, c = rng.standard_normal((2, 3)), rng.standard_normal((3, 4)), rng.standard_normal((4, 2))
    ta, tb, tc = leaf(a), leaf(b), leaf(c)
    matmul(matmul(ta, tb), tc).backward()
    ones = np.ones((2, 2))
    np.testing.assert_allclose(ta.grad.to_numpy(), ones @ (b @ c).T, rtol=1e-12)
    np.testing.assert_allclose(tb.grad.to_numpy(), a.T @ ones @ c.T, rtol=1e-12)
    np.testing.assert_allclose(tc.grad.to_numpy(), (a @ b).T @ ones, rtol=1e-12)


@pytest.mark.parametrize("sa,sb,helper,prefix", CASES)
@pytest.mark.parametrize("tracked", [(True, True), (True, False), (False, True)])
def test_edges_go_to_the_tracked_factors(sa, sb, helper, prefix, tracked):
    t = [leaf(np.ones(sa), tracked[0]), leaf(np.ones(sb), tracked[1])]
    y = matmul(*t)
    assert y.requires_grad is True
    want = [(k, f"{prefix} t{k + 1} {list(s)} grad") for k, s in enumerate((sa, sb)) if tracked[k]]
    assert [(n.tensor is t[k], n.name) for n, (k, _) in zip(y.nodes, want)] == [(True, name) for _, name in want]
    assert len(y.nodes) == len(want)
    y.backward()
    assert all(x.grad is None for x, wants in zip(t, tracked) if not wants)


@pytest.mark.parametrize("sa,sb,helper,prefix", CASES)
def test_no_grad_keeps_edges_but_result_untracked(sa, sb, helper, prefix):
    t1, t2 = leaf(np.ones(sa)), leaf(np.ones(sb), False)
    QTensor.NO_GRAD = True
    y = helper(t1, t2)
    QTensor.NO_GRAD = False
    assert y.requires_grad is False
    assert [n.tensor is t1 for n in y.nodes] == [True]
    with pytest.raises(RuntimeError, match="This tensor did not require grad!"):
        y.backward()


def test_gradient_functions_are_callable_from_python(rng):
    a, b = rng.standard_normal((3, 4)), rng.standard_normal((4, 2))
    y = matmul(leaf(a), leaf(b))
    g = rng.standard_normal((3, 2))
    d1 = y.nodes[0].df(CoreTensor(g))
    d2 = y.nodes[1].df(CoreTensor(g))
    assert isinstance(d1, CoreTensor)
    np.testing.assert_allclose(np.array(d1), g @ b.T, rtol=1e-12)
    np.testing.assert_allclose(np.array(d2), a.T @ g, rtol=1e-12)


@pytest.mark.parametrize("dtype", [np.float32, np.int64])
def test_result_type_follows_the_factors(dtype):
    t = QTensor(np.ones((2, 2), dtype=dtype))
    y = matmul(t, t)
    assert y.to_numpy().dtype == dtype
    np.testing.assert_array_equal(y.to_numpy(), np.full((2, 2), 2))


@pytest.mark.parametrize("sa,sb", [((2, 3), (2, 3, 4)), ((2, 3, 4), (4, 5)), ((3,), (3,)), ((2,) * 5, (2,) * 5),
                                   ((2, 2, 2, 2), (2, 2, 2)), ((), ())])
def test_unsupported_ranks_raise_runtime_error(sa, sb):
    with pytest.raises(RuntimeError) as info:
        matmul(leaf(np.ones(sa)), leaf(np.ones(sb)))
    assert str(info.value) == RANK_MESSAGE


@pytest.mark.parametrize("sa,sb", [((2, 3), (4, 5)), ((2, 3), (2, 3, 4)), ((2, 3, 4, 5), (2, 3, 4, 5))])
def test_helper_bmm_returns_none_without_3d_factors(sa, sb):
    t1 = leaf(np.ones(sa))
    assert helper_function_bmm(t1, leaf(np.ones(sb))) is None


@pytest.mark.parametrize("fn,sa,sb", [(matmul, (2, 3), (4, 5)), (matmul, (2, 3, 4), (3, 4, 5)),
                                      (matmul, (1, 2, 3, 4), (1, 2, 5, 4)), (helper_function_matmul2d, (2, 3, 4), (2, 4, 3)),
                                      (helper_function_matmul4d, (2, 3), (3, 2)), (helper_function_bmm, (2, 3, 4), (2, 3, 4))])
def test_shape_mismatch_raises_value_error_naming_both_shapes(fn, sa, sb):
    t1, t2 = leaf(np.ones(sa)), leaf(np.ones(sb))
    with pytest.raises(ValueError) as info:
        fn(t1, t2)
    assert str(list(sa)) in str(info.value) and str(list(sb)) in str(info.value)
    assert t1.grad.to_numpy().sum() == 0


@pytest.mark.parametrize("fn", [matmul, helper_function_matmul2d, helper_function_bmm, helper_function_matmul4d])
@pytest.mark.parametrize("other", [None, 1.0, np.ones((2, 2)), CoreTensor(np.ones((2, 2)))])
def test_non_qtensor_arguments_raise_type_error(fn, other):
    with pytest.raises(TypeError):
        fn(leaf(np.ones((2, 2))), other)
    with pytest.raises(TypeError):
        fn(other, leaf(np.ones((2, 2))))


def test_keyword_arguments():
    y = matmul(t2=leaf(np.ones((3, 1))), t1=leaf(np.ones((2, 3))))
    assert y.shape == [2, 1]


def test_zero_size_product_and_gradients():
    t1, t2 = leaf(np.ones((3, 0))), leaf(np.ones((0, 2)))
    y = matmul(t1, t2)
    np.testing.assert_array_equal(y.to_numpy(), np.zeros((3, 2)))
    y.backward()
    assert t1.grad.shape == [3, 0] and t2.grad.shape == [0, 2]
