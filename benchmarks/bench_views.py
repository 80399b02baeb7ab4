"""Views of a [4096, 4096] float32 backend tensor: each operation that only re-indexes costs the
same small time whatever the size (target: at most 2 us per call).

    python benchmarks/bench_views.py [--quick]
"""
import argparse

import numpy as np

from pymoira._core import Tensor
from timing import best_times, record, record_limit, rows_of

N = 4096
TARGET_US = 2.0


def main(argv=None):
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--quick", action="store_true", help="fewer turns per case")
    args = parser.parse_args(argv)
    rounds = 2 if args.quick else 5
    t = Tensor(np.zeros((N, N), dtype=np.float32))
    small = Tensor(np.zeros((8, 8), dtype=np.float32))
    row = Tensor(np.zeros(N, dtype=np.float32))
    cases = {
        "reshape [N*N/4, 4]": (lambda: t.reshape([N * N // 4, 4]), lambda: small.reshape([16, 4])),
        "transpose (as_strided)": (lambda: t.as_strided([N, N], [1, N]), lambda: small.as_strided([8, 8], [1, 8])),
        "select region [0:512, 3:9]": (lambda: t.select(["0:512", "3:9"]), lambda: small.select(["0:4", "3:5"])),
        "flip (as_strided)": (lambda: t.as_strided([N, N], [N, -1], N - 1),
                              lambda: small.as_strided([8, 8], [8, -1], 7)),
        "broadcast_to [N, N] of [N]": (lambda: row.broadcast_to([N, N]), lambda: Tensor.broadcast_to(small, [8, 8])),
    }
    print(f"{'view':<30} {'[4096,4096]':>12} {'[8,8]':>10}   target <= {TARGET_US} us")
    missed = []
    for name, (big, tiny) in cases.items():
        times = best_times({"big": big, "tiny": tiny}, rounds)
        record_limit(f"view {name} [4096, 4096]", times["big"], TARGET_US * 1e-6)
        record(f"view {name} [8, 8]", times["tiny"], None, "-")
        us = times["big"] * 1e6
        ok = us <= TARGET_US
        if not ok:
            missed.append(name)
        print(f"{name:<30} {us:>9.2f} us {times['tiny'] * 1e6:>7.2f} us   {'ok' if ok else 'MISSED'}")
    print("targets missed: " + (", ".join(missed) if missed else "none"))


def rows(quick=False):
    """The rows of one run, for run_all.py."""
    return rows_of(main, ["--quick"] if quick else [])


if __name__ == "__main__":
    main()
