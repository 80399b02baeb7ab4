"""Layout operations side by side with PyTorch (and numpy for the copy bandwidth), as time ratios.

    python benchmarks/bench_layout.py [--reps N] [--quick]

Targets: the view operations (reshape, flatten, squeeze, unsqueeze, transpose, permute, flip,
split) of a [4096, 4096] float32 tensor through the module cost at most 3 us per call whatever
the size; a transposed [4096, 4096] float32 tensor made contiguous takes at most PyTorch's
`.t().contiguous()` time and moves at least 60% of the bandwidth of a plain copy measured in the
same run; concatenating eight [512, 512] float32 tensors and splitting them back, forward and
backward, takes at most PyTorch's time.
"""
import argparse

import numpy as np

import pymoira.tensor.tensor as T
from pymoira._core import Tensor
from pymoira.tensor.tensor import QTensor
from timing import best_pair, best_times, ratio_line, record, record_limit, rows_of

try:
    import torch
except ImportError:  # PyTorch is optional: the comparisons are skipped
    torch = None

VIEW_TARGET_US = 3.0
COPY_SHARE = 0.6  # least share of a plain copy's bandwidth for a transposed copy


def views(reps):
    print(f"{'view forward through the module, [4096, 4096] float32':<56} {'pymoira':>10} {'torch':>10}")
    x = np.random.default_rng(0).standard_normal((4096, 4096)).astype(np.float32)
    t, u = QTensor(x), QTensor(x[None])
    cases = [
        ("reshape(t, [2048, 8192])", lambda: T.reshape(t, [2048, 8192]), lambda a, _: a.reshape(2048, 8192)),
        ("flatten(t)", lambda: T.flatten(t), lambda a, _: a.flatten()),
        ("squeeze(t1, 0)   ([1, 4096, 4096])", lambda: T.squeeze(u, 0), lambda _, b: b.squeeze(0)),
        ("unsqueeze(t, 0)", lambda: T.unsqueeze(t, 0), lambda a, _: a.unsqueeze(0)),
        ("transpose(t, [1, 0])", lambda: T.transpose(t, [1, 0]), lambda a, _: a.permute(1, 0)),
        ("permute(t, [1, 0])", lambda: T.permute(t, [1, 0]), lambda a, _: a.permute(1, 0)),
        ("flip(t, [0])", lambda: T.flip(t, [0]), lambda a, _: a.flip(0)),  # torch's flip copies
        ("split(t, [2048, 2048], 0)", lambda: T.split(t, [2048, 2048], 0), lambda a, _: a.split([2048, 2048], 0)),
    ]
    ta, tb = (torch.from_numpy(x), torch.from_numpy(x[None])) if torch else (None, None)
    for name, ours, theirs in cases:
        if torch:
            a, b = best_pair(ours, lambda: theirs(ta, tb), reps)
        else:
            a, b = best_times({"ours": ours}, reps)["ours"], float("nan")
        record_limit(f"{name} [4096, 4096]", a, VIEW_TARGET_US * 1e-6)
        if torch:
            record(f"{name} [4096, 4096]", a, b, "torch")
        mark = "  ok" if a * 1e6 <= VIEW_TARGET_US else f"  ABOVE TARGET {VIEW_TARGET_US} us"
        print(f"{name:<56} {a * 1e6:7.2f} us {b * 1e6:7.2f} us{mark}")
    # The same with a tracked input: the edge is recorded too.
    tg = QTensor(x, requires_grad=True)
    a = best_times({"ours": lambda: T.transpose(tg, [1, 0])}, reps)["ours"]
    record("transpose(t, [1, 0]) [4096, 4096], requires grad", a, None, "-")
    print(f"{'transpose(t, [1, 0]) of a tensor that requires grad':<56} {a * 1e6:7.2f} us")


def transposed_copy(reps):
    print(f"\n{'transposed [4096, 4096] float32 made contiguous':<56}")
    x = np.random.default_rng(1).standard_normal((4096, 4096)).astype(np.float32)
    ct = Tensor(x)
    dst = np.empty_like(x)
    contenders = {
        "ours": lambda: Tensor.transpose(ct).contiguous(),
        "plain": lambda: np.copyto(dst, x),
    }
    if torch:
        tx = torch.from_numpy(x)
        contenders["torch"] = lambda: tx.t().contiguous()
    best = best_times(contenders, reps)
    gbps = lambda s: 2 * x.nbytes / s / 1e9  # noqa: E731  (read + write)
    print(f"{'plain contiguous copy (numpy copyto)':<56} {best['plain'] * 1e3:8.3f} ms  {gbps(best['plain']):6.1f} GB/s")
    share = best["plain"] / best["ours"]
    # At least COPY_SHARE of the plain copy's bandwidth: at most 1 / COPY_SHARE of its time.
    record("transposed [4096, 4096] made contiguous vs plain copy", best["ours"], best["plain"], "numpy",
           round(1 / COPY_SHARE, 2))
    mark = "  ok" if share >= COPY_SHARE else f"  BELOW TARGET {COPY_SHARE}"
    print(f"{'Tensor.transpose(t).contiguous()':<56} {best['ours'] * 1e3:8.3f} ms  {gbps(best['ours']):6.1f} GB/s"
          f"  {share:.0%} of the plain copy{mark}")
    if torch:
        record("transposed [4096, 4096] made contiguous", best["ours"], best["torch"], "torch", 1.0)
        print(ratio_line("  against x.t().contiguous()", best["ours"], best["torch"], "torch", 1.0))


def concat_split(reps):
    if torch is None:
        print("PyTorch is not installed: concatenate/split skipped")
        return
    print(f"\n{'concatenate 8 x [512, 512] float32 and split back':<56}")
    rng = np.random.default_rng(2)
    xs = [rng.standard_normal((512, 512)).astype(np.float32) for _ in range(8)]
    qs = [QTensor(a, requires_grad=True) for a in xs]
    ts = [torch.tensor(a, requires_grad=True) for a in xs]
    sizes = [512] * 8

    def ours_fwd():
        return T.split(T.concatenate(qs, 1), sizes, 1)

    def theirs_fwd():
        with torch.no_grad():
            return torch.cat(ts, 1).split(sizes, 1)

    fwd = best_pair(ours_fwd, theirs_fwd, reps)
    record("concatenate 8 x [512, 512] and split, forward", *fwd, "torch", 1.0)
    print(ratio_line("forward", *fwd, "torch", 1.0))
    seed = QTensor(np.ones((512, 512 * 8), dtype=np.float32))
    tseed = torch.ones(512, 512 * 8)

    def ours_step():
        for q in qs:
            q.zero_grad()
        parts = T.split(T.concatenate(qs, 1), sizes, 1)
        T.concatenate(parts, 1).backward(seed)

    def theirs_step():
        for a in ts:
            a.grad = None
        parts = torch.cat(ts, 1).split(sizes, 1)
        torch.cat(parts, 1).backward(tseed)

    step = best_pair(ours_step, theirs_step, reps)
    record("concatenate 8 x [512, 512] and split, fwd+bwd", *step, "torch", 1.0)
    print(ratio_line("forward + backward (joined again, seeded with ones)", *step, "torch", 1.0))


def main(argv=None):
    parser = argparse.ArgumentParser()
    parser.add_argument("--reps", type=int, default=5, help="turns per contender")
    parser.add_argument("--quick", action="store_true", help="two turns per contender (a smoke run)")
    args = parser.parse_args(argv)
    if args.quick:
        args.reps = 2
    if torch:
        print(f"torch {torch.__version__}, {torch.get_num_threads()} threads")
    views(args.reps)
    transposed_copy(args.reps)
    concat_split(args.reps)


def rows(quick=False):
    """The rows of one run, for run_all.py."""
    return rows_of(main, ["--quick"] if quick else [])


if __name__ == "__main__":
    main()
