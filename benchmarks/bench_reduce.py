"""Extremes, variances, sorts, top-k, cumulative sums and log-softmax beside numpy and PyTorch.

    python benchmarks/bench_reduce.py [--rounds N] [--only SUBSTRING] [--quick]

Each row times pymoira's module function and the reference alternately in one process (best of
the rounds) and prints both times and the ratio pymoira / reference (below 1.0: pymoira is
faster). Targets (ratio <= 1): max/min/argmax and var/std of [4096, 4096] float32 against numpy;
sort and argsort of 1M float32 and of [1024, 1024] rows against numpy; cumsum of [4096, 4096]
against numpy; topK (k = 10) of [1024, 1024] rows and log_softmax of [256, 1000] forward and
backward against PyTorch.
"""
import argparse

import numpy as np

import pymoira.tensor.tensor as M
from pymoira.tensor.tensor import QTensor
from timing import best_pair, ratio_line, record, rows_of

try:
    import torch
except ImportError:  # PyTorch is optional: its rows are skipped
    torch = None


def cases():
    rng = np.random.default_rng(0)
    x = rng.standard_normal((4096, 4096)).astype(np.float32)
    t = QTensor(x)
    v = rng.standard_normal(1 << 20).astype(np.float32)
    tv = QTensor(v)
    r = rng.standard_normal((1024, 1024)).astype(np.float32)
    tr = QTensor(r)
    big = "[4096, 4096] float32"
    rows = [
        (f"max(t)              {big}", lambda: M.max(t), lambda: x.max(), "numpy"),
        (f"max(t, 0)           {big}", lambda: M.max(t, 0), lambda: x.max(0), "numpy"),
        (f"max(t, 1)           {big}", lambda: M.max(t, 1), lambda: x.max(1), "numpy"),
        (f"min(t, 1)           {big}", lambda: M.min(t, 1), lambda: x.min(1), "numpy"),
        (f"t.argmax()          {big}", lambda: t.argmax(), lambda: x.argmax(), "numpy"),
        (f"t.argmax([0])       {big}", lambda: t.argmax([0]), lambda: x.argmax(0), "numpy"),
        (f"t.argmax([1])       {big}", lambda: t.argmax([1]), lambda: x.argmax(1), "numpy"),
        (f"var(t, 0)           {big}", lambda: M.var(t, 0), lambda: x.var(0, ddof=1), "numpy"),
        (f"var(t, 1)           {big}", lambda: M.var(t, 1), lambda: x.var(1, ddof=1), "numpy"),
        (f"std(t, 0)           {big}", lambda: M.std(t, 0), lambda: x.std(0, ddof=1), "numpy"),
        (f"std(t, 1)           {big}", lambda: M.std(t, 1), lambda: x.std(1, ddof=1), "numpy"),
        (f"cumsum(t, 0)        {big}", lambda: M.cumsum(t, 0), lambda: np.cumsum(x, 0), "numpy"),
        (f"cumsum(t, 1)        {big}", lambda: M.cumsum(t, 1), lambda: np.cumsum(x, 1), "numpy"),
        ("sort(t, 0)          [1048576] float32", lambda: M.sort(tv, 0), lambda: np.sort(v), "numpy"),
        ("argsort(t, 0)       [1048576] float32", lambda: M.argsort(tv, 0), lambda: np.argsort(v), "numpy"),
        ("sort(t, 1)          [1024, 1024] float32", lambda: M.sort(tr, 1), lambda: np.sort(r, 1), "numpy"),
        ("argsort(t, 1)       [1024, 1024] float32", lambda: M.argsort(tr, 1), lambda: np.argsort(r, 1), "numpy"),
    ]
    if torch is not None:
        ttr = torch.from_numpy(r)
        rows.append(("topK(t, 10, 1)      [1024, 1024] float32", lambda: M.topK(tr, 10, 1),
                     lambda: torch.topk(ttr, 10, 1), "torch"))
        a = rng.standard_normal((256, 1000)).astype(np.float32)
        qa = QTensor(a, requires_grad=True)
        ta = torch.tensor(a, requires_grad=True)

        def ours():
            qa.zero_grad()
            M.log_softmax(qa, 1).backward()

        def theirs():
            ta.grad = None
            y = torch.log_softmax(ta, 1)
            y.backward(torch.ones_like(y))

        rows.append(("log_softmax fwd+bwd [256, 1000] float32", ours, theirs, "torch"))
    return rows


def main(argv=None):
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--rounds", type=int, default=5)
    parser.add_argument("--only", default="", help="run the rows whose name contains this text")
    parser.add_argument("--quick", action="store_true", help="two rounds per row (a smoke run)")
    args = parser.parse_args(argv)
    if args.quick:
        args.rounds = 2
    if torch is not None:
        print(f"torch {torch.__version__}, {torch.get_num_threads()} threads; numpy {np.__version__}")
    else:
        print("PyTorch is not installed: its rows are skipped")
    for name, ours, theirs, versus in cases():
        if args.only in name:
            a, b = best_pair(ours, theirs, args.rounds)
            record(name, a, b, versus, 1.0)
            print(ratio_line(name, a, b, versus, 1.0))


def rows(quick=False):
    """The rows of one run, for run_all.py."""
    return rows_of(main, ["--quick"] if quick else [])


if __name__ == "__main__":
    main()
