"""Bad input to the layout operations: the module's assertion messages (skipped under python -O),
argument-type errors, and the backend's checks, which raise before anything is allocated or
written and leave in-place receivers unchanged."""
import subprocess
import sys
import textwrap

import numpy as np
import pytest

import pymoira.tensor.tensor as T
from pymoira._core import Tensor, moira
from pymoira.tensor.tensor import QTensor


def t34():
    return QTensor(np.arange(12.0).reshape(3, 4), requires_grad=True)


def t234():
    return QTensor(np.zeros((2, 3, 4)))


LIST_TYPE = "Argument '{}' has incorrect type (expected list, got tuple)"

# (call, exception, exact message or None for "any message")
MODULE_ERRORS = [
    (lambda: t34().reshape([5, 2]), AssertionError, "new size 10 not equal to old size 12"),
    (lambda: t34().reshape([0, 12]), AssertionError, "dim should > 0"),
    (lambda: t34().reshape([-1, 12]), AssertionError, "dim should > 0"),
    (lambda: t34().reshape([2 ** 40, 2 ** 40]), AssertionError, f"new size {2 ** 80} not equal to old size 12"),
    (lambda: t34().reshape(12), TypeError, "'int' object is not iterable"),
    (lambda: t34().reshape_((4, 3)), AssertionError, "second para should be list"),
    (lambda: t34().reshape_([4, 4]), AssertionError, "new size 16 not equal to old size 12"),
    (lambda: t234().transpose([0, 1]), AssertionError, "second para dim not equal to tensor shape"),
    (lambda: t234().transpose([0, 0, 1]), AssertionError, "repeat dim in second para is not valid "),
    (lambda: t234().transpose((2, 0, 1)), AssertionError, "second para should be list"),
    (lambda: t234().transpose([0, 3, 1]), AssertionError, ""),
    (lambda: t234().transpose_([1, -2, 0]), AssertionError, "repeat dim in second para is not valid "),
    (lambda: T.transpose(t234(), (2, 0, 1)), TypeError, LIST_TYPE.format("dim")),
    (lambda: T.permute(t234(), (2, 0, 1)), TypeError, LIST_TYPE.format("dim")),
    (lambda: T.stack((t34(), t34()), 0), TypeError, LIST_TYPE.format("QTensors")),
    (lambda: T.split(t34(), (1, 2), 0), TypeError, LIST_TYPE.format("split_section")),
    (lambda: T.tile(t34(), (2, 2)), TypeError, LIST_TYPE.format("reps")),
    (lambda: T.flip(t234(), [4]), AssertionError, ""),
    (lambda: T.flip(t234(), [0, -4]), AssertionError, ""),
    (lambda: T.triu(QTensor(np.ones(3))), ValueError, "Only support a matrix (2-D tensor) or batch of matrices input"),
    (lambda: T.tril(QTensor(np.ones(3))), ValueError, "Only support a matrix (2-D tensor) or batch of matrices input"),
    # the backend's checks: module functions pass arguments on unchecked
    (lambda: T.reshape(t34(), [5, 2]), ValueError, None),
    (lambda: T.reshape(t34(), [-3, -4]), ValueError, None),
    (lambda: T.reshape(t34(), [2 ** 62, 2 ** 62, 0]), ValueError, None),
    (lambda: T.transpose(t234(), [0, 0, 1]), ValueError, None),
    (lambda: T.transpose(t234(), [0, 1]), ValueError, None),
    (lambda: T.transpose(t234(), [0, 1, 5]), ValueError, None),
    (lambda: T.swapaxis(t234(), 0, 3), IndexError, None),
    (lambda: T.squeeze(t234(), 1), ValueError, None),
    (lambda: T.unsqueeze(t234(), 4), IndexError, None),
    (lambda: T.flatten(t234(), 2, 1), ValueError, None),
    (lambda: T.concatenate([]), ValueError, None),
    (lambda: T.concatenate([t34(), QTensor(np.ones((4, 4)))]), ValueError, None),
    (lambda: T.concatenate([t34(), QTensor(np.ones((3, 4, 1)))]), ValueError, None),
    (lambda: T.concatenate([t34(), t34()], 2), IndexError, None),
    (lambda: T.concatenate([QTensor(np.ones(())), QTensor(np.ones(()))], 0), ValueError, None),
    (lambda: T.stack([], 0), ValueError, None),
    (lambda: T.stack([t34(), QTensor(np.ones((4, 3)))], 0), ValueError, None),
    (lambda: T.stack([t34(), t34()], 3), IndexError, None),
    (lambda: T.split(t34(), [1, 1], 0), ValueError, None),
    (lambda: T.split(t34(), [4, -1], 0), ValueError, None),
    (lambda: T.split(t34(), [2 ** 62, 2 ** 62], 0), ValueError, None),
    (lambda: T.chunk(t34(), 0, 0), ValueError, None),
    (lambda: T.chunk(t34(), 10 ** 9, 0), ValueError, None),
    (lambda: T.tile(t34(), [-1]), ValueError, None),
    (lambda: T.tile(t34(), [2 ** 40, 2 ** 40]), ValueError, None),
    (lambda: T.broadcast_to(t34(), QTensor(np.ones(3))), ValueError, None),
    (lambda: T.masked_fill(t34(), QTensor(np.ones(3) > 0), 1), ValueError, None),
    (lambda: T.masked_fill(t34(), QTensor(np.ones(4) > 0), "x"), TypeError, None),
    (lambda: T.masked_fill(t34(), QTensor(np.ones(4) > 0), 1j), TypeError,
     "fill_: cannot write a complex number into a float64 tensor (that would discard its imaginary part)"),
    (lambda: T.flip(t234(), [1, 1]), ValueError, None),
    (lambda: T.trace(t234()), ValueError, None),
    # sizes beyond int64 and ranges computed with Python's integers
    (lambda: T.reshape(t34(), [2 ** 62 + 3, 4, -1]), ValueError,
     "reshape: cannot reshape 12 elements into shape [4611686018427387907, 4, -1]"),
    (lambda: T.reshape(QTensor(np.zeros(0)), [0, 2 ** 62, 2 ** 62]), ValueError, None),
    (lambda: T.chunk(t34(), 2 ** 64), OverflowError,
     "chunk: chunks must fit in a 64-bit integer, got Python integer 18446744073709551616"),
    (lambda: T.maybe_wrap_dim(2 ** 64, 3), AssertionError, ""),
    (lambda: T.SplitBackward(2 ** 62, 1, t34(), 0)._get_chunk_grad(Tensor(np.ones((3, 4)))), ValueError,
     f"set_select: values of shape [3, 4] do not fit the region of shape [0, 4] addressed by "
     f"['{3 * 2 ** 62}:{3 * 2 ** 62 + 3}', ':']"),
    (lambda: T.SplitBackward(1, [2 ** 62, 2 ** 62], t34(), 0)._get_split_grad(Tensor(np.ones((2, 4)))), ValueError,
     f"set_select: values of shape [2, 4] do not fit the region of shape [0, 4] addressed by "
     f"['{2 ** 62}:{2 ** 63}', ':']"),
]


@pytest.mark.parametrize("call, exc, message", MODULE_ERRORS)
def test_bad_arguments_raise(call, exc, message):
    with pytest.raises(exc) as info:
        call()
    if message is not None:
        assert str(info.value) == message
    else:
        assert str(info.value)  # the backend names what was wrong


@pytest.mark.parametrize("call", [
    lambda t: t.reshape_([5, -1]), lambda t: t.reshape_([2, 2, 2]), lambda t: t.transpose_([0, 0]),
    lambda t: t.transpose_([1]), lambda t: t.squeeze_(0), lambda t: Tensor.reshape_(t, [-2, -6]),
])
def test_failed_in_place_backend_calls_leave_the_tensor_unchanged(call):
    a = np.arange(12.0).reshape(3, 4)
    t = Tensor(a)
    with pytest.raises(ValueError):
        call(t)
    assert t.shape == [3, 4] and t.strides == [4, 1]
    np.testing.assert_array_equal(np.array(t), a)


def test_failed_module_in_place_calls_leave_the_tensor_unchanged():
    x = t34()
    for call in (lambda: x.reshape_([5, 2]), lambda: x.transpose_([0, 0])):
        with pytest.raises(AssertionError):
            call()
        assert x.shape == [3, 4]


@pytest.mark.parametrize("call", [
    lambda: moira.concat([Tensor(np.ones(2)), "x"], 0), lambda: moira.concat(Tensor(np.ones(2)), 0),
    lambda: Tensor(np.ones(2)).flip(["a"]), lambda: Tensor(np.ones(2)).transpose(1.5),
    lambda: moira.tile(Tensor(np.ones(2)), None), lambda: Tensor(np.ones((2, 2))).split(None),
    lambda: moira.mask_fill_broadcast(Tensor(np.ones(2)), Tensor(np.ones(2)), None),
])
def test_wrong_types_raise_type_error(call):
    with pytest.raises(TypeError):
        call()


def test_assertions_are_skipped_under_python_O():
    """Under -O the module's checks do not run: the backend's own errors come through."""
    script = textwrap.dedent("""
        import numpy as np
        import pymoira.tensor.tensor as T
        t = T.QTensor(np.zeros((3, 4)))
        for call, exc in [(lambda: t.reshape([5, 2]), ValueError), (lambda: t.reshape_((5, 2)), ValueError),
                          (lambda: t.transpose([0, 0]), ValueError), (lambda: t.transpose([0, 2]), IndexError),
                          (lambda: T.flip(t, [4]), IndexError)]:
            try:
                call()
            except exc:
                continue
            raise SystemExit("no error")
        t.reshape_((4, 3))
        if t.reshape([2, -1]).shape != [2, 6] or t.shape != [4, 3]:
            raise SystemExit("unexpected shape")
    """)
    subprocess.run([sys.executable, "-O", "-c", script], check=True)
