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


THREADS = "from pymoira._core import moira; print(moira.get_num_threads())"


@pytest.mark.parametrize("env, want", [({"OMP_NUM_THREADS": "1"}, "1"), ({"OMP_NUM_THREADS": "3"}, "3")])
def test_thread_count_follows_the_environment_and_set_num_threads(env, want):
    import os
    import subprocess
    out = subprocess.run([sys.executable, "-c", THREADS], env={**os.environ, **env}, capture_output=True, text=True,
                         check=True).stdout.strip()
    assert out == want
    from pymoira._core import moira
    before = moira.get_num_threads()
    big = QTensor(_x)
    try:
        moira.set_num_threads(1)
        assert moira.get_num_threads() == 1
        one = exp(big).pdata
    finally:
        moira.set_num_threads(before)
    np.testing.assert_array_equal(one, exp(big).pdata)
    for bad, exc in [(0, ValueError), (-2, ValueError), (1.5, TypeError), ("2", TypeError)]:
        with pytest.raises(exc):
            moira.set_num_threads(bad)
    assert moira.get_num_threads() == before
