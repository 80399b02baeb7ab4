"""Matrix products side by side with numpy (and PyTorch when installed), as time ratios.

    python benchmarks/bench_matmul.py [--quick] [--no-builtin] [--only TEXT]

Each case runs the contenders in turns, a block of calls each, and keeps each one's best time,
so a busy machine slows all of them alike. Ratios are pymoira's time over the other's; the
targets: every product at most numpy's time (vector-matrix, matrix-vector, 8-row skinny,
square and batched shapes), forward + backward of a 1024 x 1024 product at most PyTorch's.
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
from timing import best_times, record, rows_of

moira = _core.moira

try:
    import torch
except ImportError:  # PyTorch is optional here and never needed by pymoira itself
    torch = None

TARGET = 1.0


def with_blas(on, fn):
    def run():
        previous = moira.set_blas(on)
        try:
            fn()
        finally:
            moira.set_blas(previous)
    return run


def sample(rng, shape, dtype):
    """Normal values; complex ones with an imaginary part of their own."""
    x = rng.standard_normal(shape)
    if np.dtype(dtype).kind == "c":
        x = x + 1j * rng.standard_normal(shape)
    return x.astype(dtype)


def product_case(sa, sb, dtype, rounds, budget, builtin):
    rng = np.random.default_rng(0)
    a = sample(rng, sa, dtype)
    b = sample(rng, sb, dtype)
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
    a = sample(rng, (n, n), dtype)
    b = sample(rng, (n, n), dtype)
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


def product_cases(dtype):
    """(first shape, second shape) of every timed product: all of them in float32 and float64, the
    squares of 256 and 1024 and a batch in complex64 and complex128."""
    if np.dtype(dtype).kind == "c":
        return [((256, 256), (256, 256)), ((1024, 1024), (1024, 1024)), ((32, 128, 128), (32, 128, 128))]
    cases = []
    for n in (64, 512, 1024, 2048):
        cases += [((1, n), (n, n)), ((n, n), (n, 1)), ((8, n), (n, n))]
    cases += [((n, n), (n, n)) for n in (256, 1024, 2048)]
    cases += [((32, 128, 128), (32, 128, 128)), ((4, 8, 64, 64), (4, 8, 64, 64))]
    return cases


def shape_text(s):
    return "[%s]" % ", ".join(map(str, s))


def ms(t):
    return "%9.3f" % (t * 1e3)


def mark(ratio):
    return "" if ratio <= TARGET else "  ABOVE TARGET"


def main(argv=None):
    parser = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    parser.add_argument("--quick", action="store_true", help="fewer turns per case")
    parser.add_argument("--no-builtin", action="store_true", help="skip the built-in kernel column")
    parser.add_argument("--only", default="", help="run only the cases whose name contains this text")
    args = parser.parse_args(argv)
    rounds, budget = (3, 0.5) if args.quick else (10, 2.0)

    print("numpy %s, torch %s, BLAS linked: %s, built-in kernels: %s"
          % (np.__version__, torch.__version__ if torch else "not installed", moira.blas_available(),
             ", ".join(moira.blocked_kernels())))
    for var in ("OPENBLAS_NUM_THREADS", "OMP_NUM_THREADS", "OPENBLAS_CORETYPE", "OPENBLAS_L2_SIZE"):
        print("  %s=%s" % (var, os.environ.get(var, "(unset)")))
    if torch is not None:
        print("  torch threads: %d" % torch.get_num_threads())

    print("\nmatmul (times in ms; ratio = pymoira / other; target: vs numpy <= %.1f)" % TARGET)
    print("%-36s %9s %9s %9s %9s %10s %10s" % ("case", "pymoira", "numpy", "built-in", "torch", "vs numpy",
                                              "vs torch"))
    for dtype in (np.float32, np.float64, np.complex64, np.complex128):
        for sa, sb in product_cases(dtype):
            name = "%s x %s %s" % (shape_text(sa), shape_text(sb), np.dtype(dtype).name)
            if args.only not in name:
                continue
            t = product_case(sa, sb, dtype, rounds, budget, not args.no_builtin)
            ratio = t["pymoira"] / t["numpy"]
            record("matmul " + name, t["pymoira"], t["numpy"], "numpy", TARGET)
            print("%-36s %s %s %s %s %10.2f %10s%s" % (
                name, ms(t["pymoira"]), ms(t["numpy"]), ms(t["built-in"]) if "built-in" in t else "%9s" % "-",
                ms(t["torch"]) if "torch" in t else "%9s" % "-", ratio,
                "%.2f" % (t["pymoira"] / t["torch"]) if "torch" in t else "-", mark(ratio)), flush=True)

    print("\nforward + backward of a square product (times in ms; target: vs torch <= %.1f)" % TARGET)
    print("%-36s %9s %9s %10s" % ("case", "pymoira", "torch", "vs torch"))
    for dtype in (np.float32, np.float64, np.complex128):
        name = "1024x1024 %s" % np.dtype(dtype).name
        if args.only not in name:
            continue
        t = backward_case(1024, dtype, rounds, budget)
        if "torch" not in t:
            print("%-36s %s %9s %10s" % (name, ms(t["pymoira"]), "-", "-"))
            continue
        ratio = t["pymoira"] / t["torch"]
        record("matmul forward+backward " + name, t["pymoira"], t["torch"], "torch", TARGET)
        print("%-36s %s %s %10.2f%s" % (name, ms(t["pymoira"]), ms(t["torch"]), ratio, mark(ratio)), flush=True)


def rows(quick=False):
    """The rows of one run for run_all.py (BLAS against numpy and PyTorch; no built-in column)."""
    return rows_of(main, ["--no-builtin"] + (["--quick"] if quick else []))


if __name__ == "__main__":
    main()
