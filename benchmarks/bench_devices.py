"""Device micro-benchmarks: the cost of the device layer on a stand-in GPU (device 1000, whose
kernels are the CPU's) next to the same operations on the CPU, so the figures measure the table
and allocator indirection and the device checks alone.

Run: python benchmarks/bench_devices.py [--quick]
Ratios are stand-in device / CPU (target: at most 1.5 for `a + b` with gradients; the other rows
are figures to watch: every Python number in an operation on a device becomes a tensor there).
"""
import argparse
import os

os.environ.setdefault("MOIRA_VIRTUAL_GPUS", "1")  # before pymoira is imported

import numpy as np  # noqa: E402

from pymoira.tensor import tensor as T  # noqa: E402
from pymoira.tensor.tensor import QTensor  # noqa: E402
from timing import best_pair, ratio_line, record  # noqa: E402

TARGET = 1.5


def add_with_grad(device, n):
    a = QTensor(np.ones(n, dtype=np.float32), requires_grad=True, device=device)
    b = QTensor(np.ones(n, dtype=np.float32), requires_grad=True, device=device)

    def step():
        T.sums(a + b).backward()
    return step


def chain(device, n):
    x = QTensor(np.ones(n, dtype=np.float32), device=device)

    def step():
        y = x
        for _ in range(10):
            y = y * 1.5 + 1.0
        return y
    return step


def main(argv=None):
    parser = argparse.ArgumentParser()
    parser.add_argument("--quick", action="store_true", help="fewer repeats (for a smoke run)")
    args = parser.parse_args(argv)
    rounds = 3 if args.quick else 7
    cases = [("a + b [4], sums, backward", add_with_grad, 4),
             ("a + b [1M], sums, backward", add_with_grad, 1 << 20),
             ("10 x (y * 1.5 + 1) [4]", chain, 4)]
    print("pymoira on a stand-in GPU (device 1000) against the CPU (device 0)")
    for name, make, n in cases:
        gpu, cpu = best_pair(make(1000, n), make(0, n), rounds)
        target = TARGET if name.startswith("a + b") else None
        record(name + " on device 1000", gpu, cpu, "cpu", target)
        print(ratio_line(name, gpu, cpu, "cpu", target))


def rows(quick=False):
    """The rows of one run, for run_all.py."""
    from timing import rows_of
    return rows_of(main, ["--quick"] if quick else [])


if __name__ == "__main__":
    main()
