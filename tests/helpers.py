"""Helpers shared by the test folders."""
import numpy as np

from pymoira.tensor.tensor import QTensor


def leaf(values, requires_grad=True):
    """A float64 QTensor."""
    return QTensor(np.array(values, dtype=np.float64), requires_grad=requires_grad)


def numeric_grad(f, x, w, eps=1e-6):
    """Central differences of sum(w * f(x)) with respect to the float64 array x."""
    grad = np.zeros_like(x)
    for i in np.ndindex(x.shape):
        xp, xm = x.copy(), x.copy()
        xp[i] += eps
        xm[i] -= eps
        grad[i] = (np.sum(w * f(xp)) - np.sum(w * f(xm))) / (2 * eps)
    return grad


LAYOUTS = ["contiguous", "transposed", "sliced", "flipped", "broadcast"]

# A GPU number no device answers to, with stand-in GPUs (MOIRA_VIRTUAL_GPUS) or without, and its error.
from pymoira._core import moira as _moira  # noqa: E402

GPUS = _moira.gpu_count()
ABSENT_GPU = 1000 + GPUS
NO_GPU = "no CUDA device is available|no GPU device"


def laid_out(a, layout, device=0):
    """(values, backend tensor): a backend tensor on `device` holding `values` in the memory layout
    `layout`, a view of a larger or reordered storage. `values` equals `a` except for "broadcast",
    whose values repeat the first entry of the leading axis (a stride-0 view)."""
    from pymoira._core import Tensor as CoreTensor

    def Tensor(x):
        return CoreTensor(x, device)
    a = np.asarray(a)
    nd, item = a.ndim, a.itemsize
    if layout == "contiguous" or nd == 0 or a.size == 0:
        return a, Tensor(a)
    if layout == "transposed":  # stored with the axes reversed
        base = Tensor(np.ascontiguousarray(a.transpose()))
        strides = [s // item for s in np.ascontiguousarray(a.transpose()).transpose().strides]
        return a, base.as_strided(list(a.shape), strides, 0)
    if layout == "sliced":  # every other element of a twice-as-long last axis
        big = np.zeros(a.shape[:-1] + (2 * a.shape[-1],), dtype=a.dtype)
        big[..., ::2] = a
        strides = [s // item for s in big.strides]
        strides[-1] *= 2
        return a, Tensor(big).as_strided(list(a.shape), strides, 0)
    if layout == "flipped":  # stored backwards along every axis
        rev = np.ascontiguousarray(a[(slice(None, None, -1),) * nd])
        strides = [-s // item for s in rev.strides]
        offset = sum((n - 1) * s // item for n, s in zip(a.shape, rev.strides))
        return a, Tensor(rev).as_strided(list(a.shape), strides, offset)
    if layout == "broadcast":  # the first entry of axis 0 repeated along it
        first = np.ascontiguousarray(a[:1])
        strides = [0] + [s // item for s in first.strides[1:]]
        return np.broadcast_to(first, a.shape).copy(), Tensor(first).as_strided(list(a.shape), strides, 0)
    raise ValueError(layout)
