"""Matrix products side by side with numpy (and PyTorch when installed), as time ratios.

    python benchmarks/bench_matmul.py [--quick]

Each case runs the contenders in turns, a block of calls each, and keeps each one's best time,
so a busy machine slows all of them alike. Ratios are pymoira's time over the other's: <= 1.1
against numpy for the products, <= 1.0 against PyTorch for forward + backward, is the target.
The "built-in" column is pymoira with BLAS switched off (moira.set_blas(False)).

The environment variables printed at the start change the results: OPENBLAS_CORETYPE selects
OpenBLAS's kernels for both pymoira's and numpy's OpenBLAS (Haswell on an AVX-512 machine makes
both about half again slower, PyTorch is not affected), and OPENBLAS_NUM_THREADS / OMP_NUM_THREADS
the thread counts.
"""
import argparse
import os

import numpy as np

from pymoira import _core
from pymoira.tensor.tensor import QTensor, matmul
from timing import best_times

moira = _core.moira

try:
    import torch
except ImportError:  # PyTorch is optional here and never needed by pymoira itself
    torch = None


def with_blas(on, fn):
    def run():
        previous = moira.set_blas(on)
        try:
            fn()
        finally:
            moira.set_blas(previous)
    return run


def product_case(shape, dtype, rounds, budget, builtin):
    rng = np.random.default_rng(0)
    a = rng.standard_normal(shape).astype(dtype)
    b = rng.standard_normal(shape).astype(dtype)
    qa, qb = QTensor(a), QTensor(b)
    contenders = {"pymoira": lambda: matmul(qa, qb), "numpy": lambda: np.matmul(a, b)}
    if builtin:
        contenders["built-in"] = with_blas(False, lambda: matmul(qa, qb))
    if torch is not None:
        ta, tb = torch.from_numpy(a), torch.from_numpy(b)
        contenders["torch"] = lambda: torch.matmul(ta, tb)
    return best_times(contenders, rounds, budget)


def backward_case(n, dtype, rounds, budget):
    rng = np.random.default_rng(0)
    a = rng.standard_normal((n, n)).astype(dtype)
    b = rng.standard_normal((n, n)).astype(dtype)
    qa, qb = QTensor(a, requires_grad=True), QTensor(b, requires_grad=True)

    def ours():
        matmul(qa, qb).backward()

    contenders = {"pymoira": ours}
    if torch is not None:
        ta = torch.from_numpy(a.copy()).requires_grad_()
        tb = torch.from_numpy(b.copy()).requires_grad_()

        def theirs():
            y = torch.matmul(ta, tb)
            y.backward(torch.ones_like(y))

        contenders["torch"] = theirs
    return best_times(contenders, rounds, budget)


def ms(t):
    return "%9.3f" % (t * 1e3)


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    parser.add_argument("--quick", action="store_true", help="fewer turns per case")
    parser.add_argument("--no-builtin", action="store_true", help="skip the built-in kernel column")
    args = parser.parse_args()
    rounds, budget = (3, 0.5) if args.quick else (10, 2.0)

    print("numpy %s, torch %s, BLAS linked: %s, built-in kernels: %s"
          % (np.__version__, torch.__version__ if torch else "not installed", moira.blas_available(),
             ", ".join(moira.blocked_kernels())))
    for var in ("OPENBLAS_NUM_THREADS", "OMP_NUM_THREADS", "OPENBLAS_CORETYPE", "OPENBLAS_L2_SIZE"):
        print("  %s=%s" % (var, os.environ.get(var, "(unset)")))
    if torch is not None:
        print("  torch threads: %d" % torch.get_num_threads())

    print("\nmatmul (times in ms; ratio = pymoira / other)")
    print("%-22s %9s %9s %9s %9s %10s %10s" % ("case", "pymoira", "numpy", "built-in", "torch", "vs numpy", "vs torch"))
    cases = [((n, n), dt) for dt in (np.float32, np.float64) for n in (256, 1024, 2048)]
    cases += [((32, 128, 128), dt) for dt in (np.float32, np.float64)]
    for shape, dtype in cases:
        t = product_case(shape, dtype, rounds, budget, not args.no_builtin)
        name = "%s %s" % ("x".join(map(str, shape)), np.dtype(dtype).name)
        print("%-22s %s %s %s %s %10.2f %10s" % (
            name, ms(t["pymoira"]), ms(t["numpy"]), ms(t["built-in"]) if "built-in" in t else "%9s" % "-",
            ms(t["torch"]) if "torch" in t else "%9s" % "-", t["pymoira"] / t["numpy"],
            "%.2f" % (t["pymoira"] / t["torch"]) if "torch" in t else "-"))

    print("\nforward + backward of a square product (times in ms)")
    print("%-22s %9s %9s %10s" % ("case", "pymoira", "torch", "vs torch"))
    for dtype in (np.float32, np.float64):
        t = backward_case(1024, dtype, rounds, budget)
        print("%-22s %s %s %10s" % (
            "1024x1024 %s" % np.dtype(dtype).name, ms(t["pymoira"]),
            ms(t["torch"]) if "torch" in t else "%9s" % "-",
            "%.2f" % (t["pymoira"] / t["torch"]) if "torch" in t else "-"))


if __name__ == "__main__":
    main()
