"""Foundation micro-benchmarks: tensor construction, zeros, leaf backward and the per-edge cost of
the backward pass, side by side with PyTorch (CPU) when it is installed.

Run: python benchmarks/bench_foundation.py [--quick]
Each figure is the best of several repeats of a timed loop, in microseconds per call; ratios are
ours / torch (lower is better, the target is at most 0.5).
"""
import argparse
import sys

import numpy as np

from pymoira.tensor import tensor as T
from pymoira.tensor.tensor import QTensor
from timing import best_times, record, rows_of

try:
    import torch

    torch.set_num_threads(1)
except ImportError:  # the benchmark still reports our own figures
    torch = None

TARGET = 0.5


def best_us(fn, rounds):
    """Best microseconds per call (the shared batched timing)."""
    return best_times({"fn": fn}, rounds)["fn"] * 1e6


def chain_qtensor(n):
    """A hand-recorded chain of n edges whose gradient functions are Python callables."""
    x = QTensor(np.ones(4, dtype=np.float32), requires_grad=True)
    cur = x
    for _ in range(n):
        cur = QTensor(cur.data, requires_grad=True, nodes=[QTensor.GraphNode(cur, lambda g: g)])
    return x, cur


if torch is not None:

    class _Identity(torch.autograd.Function):
        """The torch counterpart of a Python gradient function: backward written in Python."""

        @staticmethod
        def forward(ctx, x):
            return x.view_as(x)

        @staticmethod
        def backward(ctx, g):
            return g


def main(argv=None):
    parser = argparse.ArgumentParser()
    parser.add_argument("--quick", action="store_true", help="fewer repeats (for a smoke run)")
    args = parser.parse_args(argv)
    repeat = 3 if args.quick else 7

    arr = np.array([1.0, 2.0, 3.0, 4.0], dtype=np.float32)
    lst = [1.0, 2.0, 3.0, 4.0]
    rows = []  # (name, ours_us, torch_us or None, note)

    rows.append(("QTensor(4-element numpy array)", best_us(lambda: QTensor(arr), repeat),
                 best_us(lambda: torch.tensor(arr), repeat) if torch else None, "torch.tensor(arr)"))
    rows.append(("QTensor(4-element list)", best_us(lambda: QTensor(lst), repeat),
                 best_us(lambda: torch.tensor(lst), repeat) if torch else None, "torch.tensor(list)"))
    rows.append(("zeros([4])", best_us(lambda: T.zeros([4]), repeat),
                 best_us(lambda: torch.zeros([4]), repeat) if torch else None, "torch.zeros([4])"))

    leaf = QTensor(arr, requires_grad=True)
    if torch:
        tleaf = torch.ones(4, requires_grad=True)
        seed = torch.ones(4)
    rows.append(("leaf.backward()", best_us(leaf.backward, repeat),
                 best_us(lambda: tleaf.backward(seed), repeat) if torch else None,
                 "tleaf.backward(seed), seed made once"))

    n_edges = 1000
    chain_rounds = 3 if args.quick else repeat
    _, end = chain_qtensor(n_edges)
    ours_edge = best_us(end.backward, chain_rounds) / n_edges
    torch_py = torch_native = None
    if torch:
        tx = torch.ones(4, requires_grad=True)
        tcur = tx
        for _ in range(n_edges):
            tcur = _Identity.apply(tcur)
        seed = torch.ones(4)
        torch_py = best_us(lambda: tcur.backward(seed, retain_graph=True), chain_rounds) / n_edges
        tn = tx
        for _ in range(n_edges):
            tn = tn * 1.0
        torch_native = best_us(lambda: tn.backward(seed, retain_graph=True), chain_rounds) / n_edges
    rows.append(("backward per edge, Python df (1000-edge chain)", ours_edge, torch_py,
                 "torch chain of autograd.Function with a Python backward"))
    rows.append(("backward per edge, Python df (1000-edge chain)", ours_edge, torch_native,
                 "torch chain of x * 1.0 (native backward)"))

    print(f"pymoira foundation benchmark (python {sys.version.split()[0]}, "
          f"torch {torch.__version__ if torch else 'not installed'}, 1 torch thread)")
    print(f"{'case':50s} {'ours us':>9s} {'torch us':>9s} {'ratio':>7s}  torch side")
    missed = 0
    for name, ours, theirs, note in rows:
        if theirs is None:
            print(f"{name:50s} {ours:9.3f} {'-':>9s} {'-':>7s}")
            continue
        ratio = ours / theirs
        record(f"{name} vs {note}", ours * 1e-6, theirs * 1e-6, "torch", TARGET)
        flag = "" if ratio <= TARGET else "  (above target)"
        missed += ratio > TARGET
        print(f"{name:50s} {ours:9.3f} {theirs:9.3f} {ratio:7.3f}  {note}{flag}")
    if torch:
        print(f"target: ratio <= {TARGET}; {missed} case(s) above it")


def rows(quick=False):
    """The rows of one run, for run_all.py."""
    return rows_of(main, ["--quick"] if quick else [])


if __name__ == "__main__":
    main()
