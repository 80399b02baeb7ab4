"""matmul and its helpers in pymoira.tensor.tensor: the op table on every kernel path (values,
gradients, edges), then the gradient functions and the failures."""
import numpy as np
import pytest

from helpers import leaf
from optable import C64, C128, EVERY_PAIR, F32, F64, FLOAT_PAIRS, I64, Op, OpChecks
from pymoira.tensor.tensor import (CoreTensor, helper_function_bmm, helper_function_matmul2d,
                                   helper_function_matmul4d, matmul, transpose)

RANK_MESSAGE = "Matmul only supports 2d matrix product or 4d batch matrix product."

def product(name, fn, shapes, prefix, dtypes=FLOAT_PAIRS):
    return Op(name, fn, np.matmul, shapes, dtypes, grad=(True, True), tracking="own",
              names=(f"{prefix} t1 {{0}} grad", f"{prefix} t2 {{1}} grad"))


# complex factors, and complex with real on either side
COMPLEX_PAIRS = [(C64, C64), (C128, C128), (F32, C64), (C128, F64)]
MATRICES = [((3, 4), (4, 5)), ((1, 1), (1, 1)), ((3, 0), (0, 2)), ((2, 3), (3, 1))]
BATCHES = [((2, 3, 4), (2, 4, 5)), ((1, 2, 1), (1, 1, 3))]
QUADS = [((2, 3, 2, 4), (2, 3, 4, 3)), ((1, 2, 1, 2), (1, 2, 2, 1))]
OPS = [
    product("matmul 2d", matmul, MATRICES, "mm", EVERY_PAIR + COMPLEX_PAIRS),
    product("matmul 3d", matmul, BATCHES, "bmm", FLOAT_PAIRS + COMPLEX_PAIRS),
    product("matmul 4d", matmul, QUADS, "mm", FLOAT_PAIRS + [(I64, I64)] + COMPLEX_PAIRS),
    product("helper 2d", helper_function_matmul2d, MATRICES, "mm"),
    product("helper 3d", helper_function_bmm, BATCHES, "bmm"),
    product("helper 4d", helper_function_matmul4d, QUADS, "mm"),
    # the same factor twice gets both contributions; a chain of two products
    Op("x@x", lambda x: matmul(x, x), lambda a: a @ a, [((4, 4),)], grad=(True,), tracking="own", edges=2),
    # a transposed view as a factor: its gradient reads the view as an adjoint
    Op("aT@b", lambda a, b: matmul(transpose(a, [1, 0]), b), lambda a, b: a.T @ b, [((4, 3), (4, 2))],
       [(F64, F64), (C128, C128)], grad=(True, True)),
    Op("(a@b)@c", lambda a, b, c: matmul(matmul(a, b), c), lambda a, b, c: a @ b @ c, [((2, 3), (3, 4), (4, 2))],
       grad=(True, True, True)),
]


@pytest.mark.usefixtures("kernel_path")
class TestMatmul(OpChecks):
    OPS = OPS


def test_gradient_functions_are_callable_from_python(rng):
    a, b = rng.standard_normal((3, 4)), rng.standard_normal((4, 2))
    y = matmul(leaf(a), leaf(b))
    g = rng.standard_normal((3, 2))
    d1 = y.nodes[0].df(CoreTensor(g))
    d2 = y.nodes[1].df(CoreTensor(g))
    assert isinstance(d1, CoreTensor)
    np.testing.assert_allclose(np.array(d1), g @ b.T, rtol=1e-12)
    np.testing.assert_allclose(np.array(d2), a.T @ g, rtol=1e-12)


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
