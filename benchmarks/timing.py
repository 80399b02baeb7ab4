"""Shared timing for the benchmarks: best wall time per call, contenders taking turns."""
import time


def best_times(contenders, rounds=5, budget=10.0):
    """Best seconds per call of each callable in the dict `contenders`.

    The contenders take turns, each running a block of calls and then resting a moment, so that a
    change of machine load hits all of them alike and one library's idle worker threads (which
    spin for a while before they sleep) do not compete with the next library's. At least two
    turns, then until `rounds` turns or `budget` seconds."""
    best = {name: float("inf") for name in contenders}
    for fn in contenders.values():  # warm-up: thread pools, first-touch allocation
        fn()
    start = time.perf_counter()
    for turn in range(rounds):
        for name, fn in contenders.items():
            time.sleep(0.02)
            block_start = time.perf_counter()
            calls = 0
            while calls < 3 or (calls < 2000 and time.perf_counter() - block_start < 0.05):
                t0 = time.perf_counter()
                fn()
                best[name] = min(best[name], time.perf_counter() - t0)
                calls += 1
        if turn >= 1 and time.perf_counter() - start > budget:
            break
    return best


def ratio_line(name, ours, theirs, versus, target=None):
    """One printed row: both times and the ratio ours / theirs, marked against a target."""
    r = ours / theirs
    mark = "" if target is None else ("  ok" if r <= target else f"  ABOVE TARGET {target}")
    return f"{name:<48} {ours * 1e6:11.1f} us {theirs * 1e6:11.1f} us ({versus})  ratio {r:5.2f}{mark}"
