"""Subscripts side by side with numpy and PyTorch: basic regions (views), gathers and scatters by
an integer tensor, and masks.

    python benchmarks/bench_indexing.py [--quick]
"""
import argparse

import numpy as np

import pymoira.tensor.tensor as T
from pymoira.tensor.tensor import QTensor
from timing import best_pair, record, rows_of

try:
    import torch
except ImportError:
    torch = None

ROWS = []
ROUNDS = [5]  # turns per contender (main's --quick lowers it)


def timed(ours, theirs):
    return best_pair(ours, theirs, ROUNDS[0])


def report(name, ours, theirs, versus, target):
    record(name, ours, theirs, versus, target)
    ratio = ours / theirs
    ok = "ok" if ratio <= target else "MISSED"
    ROWS.append(dict(name=name, ours=ours, theirs=theirs, versus=versus, target=target, ok=ok))
    print(f"{name:<40} {ours * 1e6:10.1f} us {theirs * 1e6:10.1f} us  {versus:<6} ratio {ratio:5.2f}  "
          f"(target <= {target}: {ok})", flush=True)


def main(argv=None):
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--quick", action="store_true", help="fewer turns per case")
    args = parser.parse_args(argv)
    ROUNDS[0] = 2 if args.quick else 5
    del ROWS[:]
    rng = np.random.default_rng(0)
    a = rng.standard_normal((1024, 1024)).astype(np.float32)
    x = QTensor(a, requires_grad=True)
    if torch is not None:
        tx = torch.tensor(a, requires_grad=True)
        for name, key in (("t[0:512, 3]", (slice(0, 512), 3)), ("t[3]", 3), ("t[:, 0:64]", (slice(None), slice(0, 64)))):
            def ours(key=key):
                x[key].backward()

            def theirs(key=key):
                y = tx[key]
                y.backward(torch.ones_like(y))
            report(f"{name} fwd+bwd", *timed(ours, theirs), "torch", 1.0)

    idx_np = rng.integers(0, 1024, size=1000)
    idx = QTensor(idx_np)
    report("gather 1000 rows t[idx], forward", *timed(lambda: x[idx], lambda: a[idx_np]), "numpy", 1.0)
    if torch is not None:
        tidx = torch.from_numpy(idx_np)

        def theirs_gather():
            y = tx[tidx]
            y.backward(torch.ones_like(y))
        report("gather 1000 rows t[idx], fwd+bwd", *timed(lambda: x[idx].backward(), theirs_gather), "torch", 1.0)

    big = rng.standard_normal(1 << 20).astype(np.float32)
    qb = QTensor(big)
    report("t[mask] on 1M float32, forward", *timed(lambda: qb[qb > 0.5], lambda: big[big > 0.5]), "numpy", 1.0)

    values_np = rng.standard_normal((1000, 1024)).astype(np.float32)
    values = QTensor(values_np)
    target = QTensor(a.copy())
    target_np = a.copy()

    def scatter_np():
        target_np[idx_np] = values_np
    report("scatter t[idx] = v, 1000 rows", *timed(lambda: target.__setitem__(idx, values), scatter_np), "numpy", 1.0)
    missed = [r["name"] for r in ROWS if r["ok"] != "ok"]
    print("targets missed: " + (", ".join(missed) if missed else "none"))


def rows(quick=False):
    """The rows of one run, for run_all.py."""
    return rows_of(main, ["--quick"] if quick else [])


if __name__ == "__main__":
    main()
