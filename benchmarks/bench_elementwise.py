"""Element-wise operations side by side with numpy and PyTorch, as time ratios (ours / theirs).

    python benchmarks/bench_elementwise.py [--quick] [--threads N]

Each figure is the best of a few batches timed with perf_counter, the batches of the compared
functions alternating; lower ratios are better. On a shared machine run it more than once, and
compare thread counts with --threads (it sets OMP_NUM_THREADS for pymoira and PyTorch alike).
PyTorch is a benchmark-only dependency.
"""
import argparse
import os
import sys

# --threads must reach OpenMP (ours and PyTorch's) before either library starts its thread pool.
if "--threads" in sys.argv[:-1]:
    os.environ["OMP_NUM_THREADS"] = sys.argv[sys.argv.index("--threads") + 1]

import numpy as np

import pymoira.tensor.tensor as T
from pymoira.tensor.tensor import QTensor
from timing import best_pair, best_times, record, rows_of

try:
    import torch
except ImportError:  # the numpy comparisons still run
    torch = None


ROWS = []


def report(name, ours, theirs, versus, target):
    """One line; `target` None marks a figure shown for information only."""
    ratio = ours / theirs
    ok = "ok" if target is None or ratio <= target else "MISSED"
    ROWS.append((name, ours, theirs, versus, ratio, target, ok))
    record(name, ours, theirs, versus, target)
    verdict = "no target" if target is None else f"target <= {target:.2f}: {ok}"
    print(f"{name:<34} {ours * 1e6:>11.2f} us {theirs * 1e6:>11.2f} us  {versus:<7} {ratio:>6.2f}  ({verdict})",
          flush=True)


def tiny_add_backward(repeat):
    a = QTensor(np.ones(4, dtype=np.float32), requires_grad=True)
    b = QTensor(np.ones(4, dtype=np.float32), requires_grad=True)

    def ours():
        c = a + b
        c.backward()

    ta = torch.ones(4, requires_grad=True)
    tb = torch.ones(4, requires_grad=True)

    def theirs():
        c = ta + tb
        c.backward(torch.ones(4))

    report("a + b [4], forward+backward", *best_pair(ours, theirs, repeat), "torch", 0.5)


def chain(repeat, length=100):
    x0 = np.linspace(-1, 1, 16, dtype=np.float32)
    w0 = np.linspace(0.5, 1.5, 16, dtype=np.float32)
    x = QTensor(x0, requires_grad=True)
    w = QTensor(w0, requires_grad=True)

    def ours():
        y = x
        for i in range(length):
            k = i % 3
            y = y + w if k == 0 else (y * w if k == 1 else T.tanh(y))
        y.backward()

    tx = torch.tensor(x0, requires_grad=True)
    tw = torch.tensor(w0, requires_grad=True)

    def theirs():
        y = tx
        for i in range(length):
            k = i % 3
            y = y + tw if k == 0 else (y * tw if k == 1 else torch.tanh(y))
        y.backward(torch.ones(16))

    report(f"chain of {length} ops [16], fwd+bwd", *best_pair(ours, theirs, repeat), "torch", 0.5)


# The functions timed per element type (module and PyTorch name, numpy function, operand count).
LARGE_CASES = {
    np.float32: (("add", np.add, 2), ("mul", np.multiply, 2), ("exp", np.exp, 1)),
    np.complex64: (("mul", np.multiply, 2), ("exp", np.exp, 1), ("abs", np.abs, 1)),
}
LARGE_CASES[np.complex128] = LARGE_CASES[np.complex64]


def sample(rng, n, dtype):
    x = rng.normal(size=n)
    return (x + 1j * rng.normal(size=n) if np.dtype(dtype).kind == "c" else x).astype(dtype)


def large_forward(repeat, sizes):
    """Element-wise functions of 1M and 16M elements against numpy (and PyTorch)."""
    rng = np.random.default_rng(0)
    for dtype, cases in LARGE_CASES.items():
        for n in sizes:
            arrays = (sample(rng, n, dtype), sample(rng, n, dtype))
            ours_in = tuple(map(QTensor, arrays))
            torch_in = tuple(map(torch.from_numpy, arrays)) if torch else ()
            for name, ref, arity in cases:
                contenders = {"ours": lambda: getattr(T, name)(*ours_in[:arity]), "numpy": lambda: ref(*arrays[:arity])}
                if torch:
                    contenders["torch"] = lambda: getattr(torch, name)(*torch_in[:arity])
                times = best_times(contenders, repeat)
                report(f"{name} {n >> 20}M {np.dtype(dtype).name}, forward", times["ours"], times["numpy"], "numpy",
                       1.0)
                if torch:
                    print(f"{'':<34} {'':>14} {times['torch'] * 1e6:>11.2f} us  torch (no target)", flush=True)


def folded_add(repeat):
    rng = np.random.default_rng(1)
    a0 = rng.normal(size=[1024, 1024]).astype(np.float32)
    b0 = rng.normal(size=[1024]).astype(np.float32)
    a = QTensor(a0, requires_grad=True)
    b = QTensor(b0, requires_grad=True)

    def ours():
        c = a + b
        c.backward()

    ta = torch.tensor(a0, requires_grad=True)
    tb = torch.tensor(b0, requires_grad=True)

    def theirs():
        c = ta + tb
        c.backward(torch.ones(1024, 1024))

    report("[1024,1024] + [1024], fwd+bwd", *best_pair(ours, theirs, repeat), "torch", 1.0)

    def ours_fwd():
        return a + b

    def theirs_fwd():
        return ta + tb

    report("[1024,1024] + [1024], forward", *best_pair(ours_fwd, theirs_fwd, repeat), "torch", 1.0)


def transposed(repeat, n=4096):
    """Element-wise kernels on a transposed operand (a view), against numpy on the same view."""
    from pymoira._core import Tensor
    rng = np.random.default_rng(2)
    a0 = rng.normal(size=[n, n]).astype(np.float32)
    b0 = rng.normal(size=[n, n]).astype(np.float32)
    at = QTensor(Tensor(a0).as_strided([n, n], [1, n]))  # a0.T without a copy
    b = QTensor(b0)
    for name, ours, ref in (
        ("exp(a.T)", lambda: T.exp(at), lambda: np.exp(a0.T)),
        ("a.T * 2.5", lambda: at * 2.5, lambda: a0.T * 2.5),
        ("a.T + b", lambda: T.add(at, b), lambda: a0.T + b0),
    ):
        report(f"{name} [{n},{n}] float32", *best_pair(ours, ref, repeat), "numpy", 1.0)


def main(argv=None):
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--quick", action="store_true", help="fewer repeats, 1M elements only")
    parser.add_argument("--threads", type=int, help="OMP_NUM_THREADS for pymoira and PyTorch (default: theirs)")
    args = parser.parse_args(argv)
    repeat = 3 if args.quick else 7
    if torch and args.threads:
        torch.set_num_threads(args.threads)
    print(f"numpy {np.__version__}, torch {torch.__version__ if torch else 'absent'} "
          f"({torch.get_num_threads() if torch else '-'} threads), {os.cpu_count()} CPUs, "
          f"OMP_NUM_THREADS={os.environ.get('OMP_NUM_THREADS', 'unset')}")
    print(f"{'case':<34} {'ours':>14} {'theirs':>14}  {'vs':<7} {'ratio':>6}")
    if torch:
        tiny_add_backward(repeat)
        chain(repeat)
    large_forward(repeat, [1 << 20] if args.quick else [1 << 20, 1 << 24])
    if torch:
        folded_add(repeat)
    transposed(repeat, 1024 if args.quick else 4096)
    missed = [r[0] for r in ROWS if r[-1] != "ok"]
    print("targets missed: " + (", ".join(missed) if missed else "none"))


def rows(quick=False):
    """The rows of one run, for run_all.py."""
    return rows_of(main, ["--quick"] if quick else [])


if __name__ == "__main__":
    main()
