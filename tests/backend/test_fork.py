"""A process forked after pymoira used its threads can still run large (threaded) kernels."""
import multiprocessing
import sys

import numpy as np
import pytest

from pymoira.tensor.tensor import QTensor, exp, matmul

pytestmark = pytest.mark.skipif(sys.platform != "linux", reason="fork start method")

_x = np.linspace(-1.0, 1.0, 1 << 20, dtype=np.float32)
_m = np.eye(256, dtype=np.float32)


def _large_work(_):
    y = exp(QTensor(_x)) + QTensor(_x)
    p = matmul(QTensor(_m), QTensor(_m))
    return float(y.pdata.sum()), float(p.pdata.sum())


def test_forked_children_run_threaded_kernels():
    expected = _large_work(0)  # the parent uses its thread team first
    with multiprocessing.get_context("fork").Pool(2) as pool:
        results = pool.map_async(_large_work, range(2)).get(timeout=60)
    assert results == [expected, expected]
