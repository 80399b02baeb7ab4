"""Shared timing for the benchmarks: the best seconds per call, contenders taking turns, and the
rows each script hands to run_all.py."""
import contextlib
import io
import time

_ROWS = []
# Seconds of rest before each batch (see best_times).
REST = 0.12


def _calls_per_batch(fn, target):
    """Calls per batch so that one batch lasts about `target` seconds (at least one). The first
    call (thread pools, first-touch allocation) is a warm-up and not measured."""
    fn()
    n = 1
    while True:
        start = time.perf_counter()
        for _ in range(n):
            fn()
        elapsed = time.perf_counter() - start
        if elapsed >= target or n >= 1 << 20:
            return n
        n *= 2 if elapsed == 0 else max(2, min(10, int(target / elapsed) + 1))


def best_times(contenders, rounds=5, budget=10.0, target=0.03):
    """Best seconds per call of each callable in the dict `contenders`.

    Each contender runs in batches of calls long enough (about `target` seconds) for the clock's
    own cost not to matter. The contenders take turns, resting before each batch, so a change of
    machine load hits all of them alike and one library's idle worker threads do not compete with
    the next library's: they spin for a while before they sleep, OpenBLAS's (numpy's) for about a
    tenth of a second, so the rest is longer than that. At least two turns, then until `rounds`
    turns or `budget` seconds."""
    sizes = {name: _calls_per_batch(fn, target) for name, fn in contenders.items()}
    best = {name: float("inf") for name in contenders}
    start = time.perf_counter()
    for turn in range(max(rounds, 2)):
        for name, fn in contenders.items():
            time.sleep(REST)
            n = sizes[name]
            t0 = time.perf_counter()
            for _ in range(n):
                fn()
            best[name] = min(best[name], (time.perf_counter() - t0) / n)
        if turn >= 1 and time.perf_counter() - start > budget:
            break
    return best


def best_pair(ours, theirs, rounds=5, budget=10.0):
    """best_times of two callables, as a pair (ours, theirs)."""
    t = best_times({"ours": ours, "theirs": theirs}, rounds, budget)
    return t["ours"], t["theirs"]


def ratio_line(name, ours, theirs, versus, target=None):
    """One printed row: both times and the ratio ours / theirs, marked against a target."""
    r = ours / theirs
    mark = "" if target is None else ("  ok" if r <= target else f"  ABOVE TARGET {target}")
    return f"{name:<48} {ours * 1e6:11.1f} us {theirs * 1e6:11.1f} us ({versus})  ratio {r:5.2f}{mark}"


def record(name, ours, theirs, versus, target=None):
    """Keeps one compared figure (seconds per call) for rows_of; scripts print their own lines.
    `theirs` may be None: a figure of ours alone, shown without a ratio."""
    _ROWS.append({"name": name, "ours": ours, "theirs": theirs, "versus": versus, "target": target})


def record_limit(name, ours, limit):
    """Keeps a figure whose target is an absolute time: `limit` seconds per call stands in for the
    other side (versus "limit") and the target ratio is 1, so run_all's table checks it alike."""
    record(name, ours, limit, "limit", 1.0)


def rows_of(main, argv):
    """Runs a script's main(argv) with its printing silenced; returns the rows it recorded."""
    del _ROWS[:]
    with contextlib.redirect_stdout(io.StringIO()):
        main(argv)
    found = list(_ROWS)
    del _ROWS[:]
    return found
