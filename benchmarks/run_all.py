"""Every benchmark in one command: one table of all rows, also written as JSON.

    python benchmarks/run_all.py [--quick] [--out benchmarks/results.json] [--compare OLD.json]

Each script runs in its own process (thread settings and PyTorch's state stay per script) and
hands over the rows its rows() function returns: name, ours and theirs in seconds per call, the
library compared with and the target ratio. A target that is an absolute time (a view costs at
most 2 us whatever the size) is a row versus "limit" whose "theirs" is that time, with target 1;
a row with no "theirs" is a figure of ours alone. The JSON file keeps the commit and the machine, so
the figures of two commits can be set side by side: --compare OLD.json adds OLD's ratio to each
row of this run, and --compare OLD.json NEW.json compares two saved runs without running any.
"""
import argparse
import datetime
import json
import os
import platform
import subprocess
import sys

HERE = os.path.dirname(os.path.abspath(__file__))
SCRIPTS = ["bench_foundation", "bench_elementwise", "bench_reduce_index", "bench_reduce", "bench_matmul",
           "bench_layout", "bench_views", "bench_indexing", "bench_interop", "bench_mlp", "bench_digits",
           "bench_quantum", "bench_devices"]


def run_script(name, quick):
    """The rows of one script, run in a child process."""
    code = ("import json, sys; sys.path.insert(0, %r); import %s as m; json.dump(m.rows(quick=%r), sys.stdout)"
            % (HERE, name, quick))
    out = subprocess.run([sys.executable, "-c", code], cwd=HERE, stdout=subprocess.PIPE, check=True).stdout
    return [dict(row, script=name) for row in json.loads(out)]


def commit():
    try:
        return subprocess.run(["git", "rev-parse", "--short", "HEAD"], cwd=HERE, stdout=subprocess.PIPE,
                              stderr=subprocess.DEVNULL, check=True, text=True).stdout.strip()
    except (OSError, subprocess.CalledProcessError):
        return None


def ratio(row):
    return row["ours"] / row["theirs"] if row.get("theirs") else None


def print_table(rows, old=None):
    old_ratio = {(r["script"], r["name"], r["versus"]): ratio(r) for r in old or []}
    width = max([len(r["name"]) for r in rows] + [4])
    print("%-*s %12s %12s  %-6s %6s %6s %s" % (width, "case", "ours us", "theirs us", "vs", "ratio", "target",
                                              "  before" if old else ""))
    missed = []
    for r in rows:
        q = ratio(r)
        target = r.get("target")
        verdict = "" if target is None or q is None else ("ok" if q <= target else "MISSED")
        if verdict == "MISSED":
            missed.append(r["name"])
        before = old_ratio.get((r["script"], r["name"], r["versus"]))
        print("%-*s %12.2f %12s  %-6s %6s %6s %-6s%s" % (width,
            r["name"], r["ours"] * 1e6, "%.2f" % (r["theirs"] * 1e6) if r.get("theirs") else "-",
            r["versus"], "%.2f" % q if q is not None else "-", "%.2f" % target if target is not None else "-",
            verdict, " %6.2f" % before if before is not None else ""))
    print("targets missed: %s" % (", ".join(missed) if missed else "none"))


def load(path):
    with open(path) as f:
        return json.load(f)["rows"]


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--quick", action="store_true", help="fewer turns per case (a smoke run)")
    parser.add_argument("--out", default=os.path.join(HERE, "results.json"), help="where to write the JSON")
    parser.add_argument("--only", nargs="+", choices=SCRIPTS, help="run only these scripts")
    parser.add_argument("--compare", nargs="+", metavar="JSON",
                        help="OLD.json: show its ratios beside this run's; OLD.json NEW.json: compare saved runs")
    args = parser.parse_args()
    if args.compare and len(args.compare) == 2:
        print_table(load(args.compare[1]), load(args.compare[0]))
        return
    rows = []
    for name in args.only or SCRIPTS:
        print("running %s ..." % name, file=sys.stderr, flush=True)
        rows += run_script(name, args.quick)
    result = {"commit": commit(), "date": datetime.datetime.now().isoformat(timespec="seconds"),
              "machine": "%s, %d CPUs, Python %s" % (platform.processor() or platform.machine(), os.cpu_count(),
                                                     platform.python_version()),
              "quick": args.quick, "rows": rows}
    with open(args.out, "w") as f:
        json.dump(result, f, indent=1)
    print_table(rows, load(args.compare[0]) if args.compare else None)
    print("written to %s" % args.out)


if __name__ == "__main__":
    main()
