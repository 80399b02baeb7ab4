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
