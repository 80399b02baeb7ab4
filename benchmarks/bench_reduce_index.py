"""Reductions and index strings side by side with numpy and PyTorch, as time ratios.

    python benchmarks/bench_reduce_index.py [--reps N]

Each case times pymoira and the reference alternately in one process and keeps the best of N
runs of each; the ratio is pymoira's time over the reference's (below 1.0: pymoira is faster).
Targets: sums of a [4096, 4096] float32 tensor (whole and along axis 1) against numpy, and
select forward + backward of slices of a [1024, 1024] tensor against PyTorch's same slice.
"""
import argparse

import numpy as np

from pymoira.tensor.tensor import QTensor, mean, select, sums
from timing import best_pair, record, rows_of

try:
    import torch
except ImportError:  # PyTorch is optional: its cases are skipped
    torch = None


def report(name, ours, ref, reps, target=None, versus="numpy"):
    a, b = best_pair(ours, ref, reps)
    record(name, a, b, versus, target)
    mark = "" if target is None else ("  ok" if a / b <= target else f"  ABOVE TARGET {target}")
    print(f"{name:<44} {a * 1e3:9.3f} ms {b * 1e3:9.3f} ms   ratio {a / b:5.2f}{mark}")


def reductions(reps):
    print(f"{'reduction vs numpy':<44} {'pymoira':>12} {'numpy':>12}")
    x = np.random.default_rng(0).standard_normal((4096, 4096)).astype(np.float32)
    t = QTensor(x)
    report("sums(t)           [4096, 4096] float32", lambda: sums(t), lambda: x.sum(), reps, 1.0)
    report("sums(t, axis=1)   [4096, 4096] float32", lambda: sums(t, 1), lambda: x.sum(axis=1), reps, 1.0)
    report("sums(t, axis=0)   [4096, 4096] float32", lambda: sums(t, 0), lambda: x.sum(axis=0), reps)
    report("mean(t, axis=1)   [4096, 4096] float32", lambda: mean(t, 1), lambda: x.mean(axis=1), reps)
    y = x[:256, :256].copy()
    s = QTensor(y)
    report("sums(t)           [256, 256] float32", lambda: sums(s), lambda: y.sum(), reps * 10)


def selections(reps):
    if torch is None:
        print("PyTorch is not installed: select cases skipped")
        return
    print(f"{'select forward + backward vs PyTorch':<44} {'pymoira':>12} {'torch':>12}")
    x = np.random.default_rng(1).standard_normal((1024, 1024)).astype(np.float32)
    cases = [
        ("t[0:512, 3]", ["0:512:1", "3"], lambda u: u[0:512, 3]),
        ("t[3]", ["3"], lambda u: u[3]),
        ("t[:, 0:64]", [":", "0:64:1"], lambda u: u[:, 0:64]),
        ("t[100:900:2, 5:9]", ["100:900:2", "5:9:1"], lambda u: u[100:900:2, 5:9]),
    ]
    for name, index, torch_slice in cases:
        t = QTensor(x, requires_grad=True)
        tt = torch.tensor(x, requires_grad=True)

        def ours():
            select(t, index).backward()

        def ref():
            r = torch_slice(tt)
            r.backward(torch.ones_like(r))

        report(f"{name:<17} [1024, 1024] fwd+bwd", ours, ref, reps, 1.0, "torch")
        # The timed runs accumulated different numbers of passes: compare one pass from zero.
        t.zero_grad()
        tt.grad = None
        ours()
        ref()
        assert np.array_equal(t.grad.pdata, tt.grad.numpy())
    print(f"{'select forward only':<44} {'pymoira':>12} {'torch':>12}")
    t = QTensor(x)
    tt = torch.tensor(x)
    report("t[0:512, 3]       [1024, 1024] forward", lambda: select(t, ["0:512:1", "3"]),
           lambda: tt[0:512, 3].contiguous(), reps * 10, versus="torch")


def main(argv=None):
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--reps", type=int, default=30)
    args = parser.parse_args(argv)
    if torch is not None:
        print(f"torch {torch.__version__}, {torch.get_num_threads()} threads; numpy {np.__version__}")
    reductions(args.reps)
    selections(args.reps)


def rows(quick=False):
    """The rows of one run, for run_all.py."""
    return rows_of(main, ["--reps", "5"] if quick else [])


if __name__ == "__main__":
    main()
