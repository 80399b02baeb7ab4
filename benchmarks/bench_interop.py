"""Sharing memory with numpy and PyTorch: DLPack both ways, numpy's __array__, and pickling.

    python benchmarks/bench_interop.py [--quick]

DLPack shares memory without a copy, so an import (from_dlpack of the module, and of the backend)
and an export (np.from_dlpack(t), torch.from_dlpack(t)) cost at most 5 us per call whatever the
size: rows versus "limit", for a [4096, 4096] float32 tensor and a [4] one. The same exchange
between numpy and PyTorch is shown beside each for reference (no target). np.asarray(t) of a
[4096, 4096] QTensor is set beside np.asarray of a numpy array, and a pickle round trip of a
[1024, 1024] float32 leaf beside the same for a torch tensor and a numpy array (no target).

The timed tensors are plain leaves whose memory is theirs alone; before timing, every exchange is
checked to share memory (a copy would make the figures meaningless). A QTensor whose memory is
also held elsewhere (a view, a gradient adopted from its seed, an input saved by a live graph) is
copied on its first export, so that the other library's writes stay its own: those cases are
printed, not timed.
"""
import argparse
import pickle

import numpy as np

import pymoira.tensor.tensor as T
from pymoira import _core
from pymoira.tensor.tensor import QTensor
from timing import best_times, record, record_limit, rows_of

try:
    import torch
except ImportError:  # PyTorch is optional: its exchanges are skipped
    torch = None

LIMIT_US = 5.0
SIZES = {"[4096, 4096]": (4096, 4096), "[4]": (4,)}


def address(x):
    """The address of the first element, whatever kind of array x is."""
    if torch is not None and isinstance(x, torch.Tensor):
        return x.data_ptr()
    if isinstance(x, (QTensor, _core.Tensor)):
        x = np.asarray(x)  # a read-only view of its storage
    return x.__array_interface__["data"][0]


def check_shared(what, made, source):
    """Refuses to time an exchange that copies."""
    if address(made) != address(source):
        raise AssertionError(f"{what} copied the memory: its figure would not measure sharing")


def line(name, seconds, note=""):
    print(f"{name:<52} {seconds * 1e6:9.2f} us{note}")


def limit_row(name, seconds):
    record_limit(name, seconds, LIMIT_US * 1e-6)
    line(name, seconds, "  ok" if seconds * 1e6 <= LIMIT_US else f"  ABOVE TARGET {LIMIT_US} us")


def reference_row(name, ours, theirs, versus, target=None):
    """A row set beside another library's time (target None: shown for reference)."""
    record(name, ours, theirs, versus, target)
    line(f"  {versus}: {name.split(', ')[-1]}", theirs, f"   ratio {ours / theirs:6.2f}")


def dlpack(shape_name, shape, rounds):
    a = np.random.default_rng(0).standard_normal(shape).astype(np.float32)
    check_shared("from_dlpack(ndarray)", T.from_dlpack(a), a)
    q = QTensor(a)  # the exported leaf: a copy of a, memory of its own
    check_shared("_core.moira.from_dlpack(ndarray)", _core.moira.from_dlpack(a), a)
    check_shared("np.from_dlpack(QTensor)", np.from_dlpack(q), q)
    contenders = {
        "module import": lambda: T.from_dlpack(a),
        "backend import": lambda: _core.moira.from_dlpack(a),
        "numpy export": lambda: np.from_dlpack(q),
        "numpy from numpy": lambda: np.from_dlpack(a),
    }
    if torch is not None:
        ta = torch.from_dlpack(a)
        check_shared("torch.from_dlpack(QTensor)", torch.from_dlpack(q), q)
        check_shared("from_dlpack(torch tensor)", T.from_dlpack(ta), ta)
        contenders.update({
            "torch export": lambda: torch.from_dlpack(q),
            "torch tensor import": lambda: T.from_dlpack(ta),
            "torch from numpy": lambda: torch.from_dlpack(a),
            "numpy from torch": lambda: np.from_dlpack(ta),
        })
    t = best_times(contenders, rounds)
    print(f"\nDLPack, {shape_name} float32 (target <= {LIMIT_US} us per call)")
    limit_row(f"from_dlpack(ndarray) {shape_name}", t["module import"])
    if torch is not None:
        reference_row(f"from_dlpack(ndarray) {shape_name}, torch.from_dlpack(ndarray)", t["module import"],
                      t["torch from numpy"], "torch")
    limit_row(f"_core.moira.from_dlpack(ndarray) {shape_name}", t["backend import"])
    limit_row(f"np.from_dlpack(QTensor) {shape_name}", t["numpy export"])
    reference_row(f"np.from_dlpack(QTensor) {shape_name}, np.from_dlpack(ndarray)", t["numpy export"],
                  t["numpy from numpy"], "numpy")
    if torch is not None:
        limit_row(f"torch.from_dlpack(QTensor) {shape_name}", t["torch export"])
        reference_row(f"torch.from_dlpack(QTensor) {shape_name}, torch.from_dlpack(ndarray)", t["torch export"],
                      t["torch from numpy"], "torch")
        limit_row(f"from_dlpack(torch tensor) {shape_name}", t["torch tensor import"])
        reference_row(f"from_dlpack(torch tensor) {shape_name}, np.from_dlpack(torch tensor)",
                      t["torch tensor import"], t["numpy from torch"], "numpy")


def as_array(rounds):
    a = np.random.default_rng(1).standard_normal((4096, 4096)).astype(np.float32)
    q = QTensor(a)
    first, second = np.asarray(q), np.asarray(q)  # both alive: a copy would have its own address
    check_shared("np.asarray(QTensor)", first, second)
    del first, second
    t = best_times({"ours": lambda: np.asarray(q), "numpy": lambda: np.asarray(a)}, rounds)
    print("\nnp.asarray, [4096, 4096] float32 (no target)")
    name = "np.asarray(QTensor) [4096, 4096], np.asarray(ndarray)"
    record(name, t["ours"], t["numpy"], "numpy")
    line("np.asarray(QTensor) [4096, 4096]", t["ours"])
    line("  numpy: np.asarray(ndarray)", t["numpy"], f"   ratio {t['ours'] / t['numpy']:6.2f}")


def round_trip(rounds):
    a = np.random.default_rng(2).standard_normal((1024, 1024)).astype(np.float32)
    q = QTensor(a, requires_grad=True)
    back = pickle.loads(pickle.dumps(q))
    assert back.requires_grad and np.array_equal(np.asarray(back), a)
    contenders = {"ours": lambda: pickle.loads(pickle.dumps(q)), "numpy": lambda: pickle.loads(pickle.dumps(a))}
    if torch is not None:
        ta = torch.tensor(a, requires_grad=True)
        contenders["torch"] = lambda: pickle.loads(pickle.dumps(ta))
    t = best_times(contenders, rounds)
    print("\npickle.loads(pickle.dumps(x)), [1024, 1024] float32 leaf that requires grad (no target)")
    line("QTensor", t["ours"])
    for versus in ("torch", "numpy"):
        if versus in t:
            record(f"pickle round trip [1024, 1024] leaf, {versus}", t["ours"], t[versus], versus)
            line(f"  {versus}", t[versus], f"   ratio {t['ours'] / t[versus]:6.2f}")


def first_exports():
    """Which exports share and which copy, for QTensors whose memory is also held elsewhere."""
    print("\nfirst export of a QTensor whose memory is held elsewhere (checked, not timed)")
    ones = lambda: np.ones((4, 4), np.float32)  # noqa: E731

    def report(what, q):
        before = address(q)
        first = np.from_dlpack(q)
        after = address(q)
        second = np.from_dlpack(q)
        how = "shared" if address(first) == before else "copied (the QTensor now holds the copy)" \
            if address(first) == after else "copied"
        print(f"  {what:<50} first export {how}; next export "
              f"{'shares' if address(second) == address(first) else 'copies again'}")

    report("plain leaf", QTensor(ones()))
    report("transposed view", T.transpose(QTensor(ones()), [1, 0]))
    x = QTensor(ones(), requires_grad=True)
    seed = QTensor(ones())  # still held: the gradient shares its memory
    x.backward(seed)
    report("gradient adopted from the backward seed", x.grad)
    z = QTensor(ones(), requires_grad=True)
    graph = T.tanh(z)  # noqa: F841  (keeps z's values saved)
    report("leaf saved by a live graph", z)


def main(argv=None):
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--quick", action="store_true", help="two turns per case (a smoke run)")
    args = parser.parse_args(argv)
    rounds = 2 if args.quick else 5
    print(f"numpy {np.__version__}, torch {torch.__version__ if torch else 'not installed'}")
    for shape_name, shape in SIZES.items():
        dlpack(shape_name, shape, rounds)
    as_array(rounds)
    round_trip(rounds)
    first_exports()


def rows(quick=False):
    """The rows of one run, for run_all.py."""
    return rows_of(main, ["--quick"] if quick else [])


if __name__ == "__main__":
    main()
