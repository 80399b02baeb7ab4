"""One energy and full gradient of a variational circuit: pymoira beside PyTorch and
PennyLane-Lightning, each system timed in a process of its own, with that process's peak memory.

    python benchmarks/bench_statevector.py [--qubits 10,14,16,18,20] [--layers 10]
                                           [--dtype complex128,complex64] [--reps R] [--quick]

The model is examples/vqe_ising.py's: the open transverse-field Ising chain
H = -sum_{i=0}^{n-2} Z_i Z_{i+1} - sum_{i=0}^{n-1} X_i and a circuit that starts from |+>^n and applies
L layers, layer l being RZZ(theta_{l,i}) = exp(-i theta/2 Z_i Z_{i+1}) on every pair (i, i + 1) and then
RX(phi_{l,i}) = exp(-i phi/2 X_i) on every qubit; one real angle per gate, (2n - 1) L in all.

Angle order (all three systems): a flat vector of (2n - 1) L angles, seeded uniform in [-pi, pi);
entry l (2n - 1) + i is theta_{l,i} (RZZ on qubits i, i + 1, i = 0..n-2) and entry
l (2n - 1) + n - 1 + i is phi_{l,i} (RX on qubit i). pymoira and PyTorch hold it as a leaf of shape
[L, 2n - 1] (the same order, row by row), Lightning as the flat vector.

- pymoira: examples/vqe_ising.py's `energy` (complex128): a state tensor of shape [2] * n, RX an
  `einsum` of the 2 x 2 matrix with one axis (a one-pass gate kernel), RZZ a broadcast multiply by a
  phase tensor, the energy from |psi|^2 (ZZ) and Re sum conj(psi) * flip(psi, [i]) (X_i); backward()
  inside retain_intermediate_grads(False). complex64 runs the same circuit in single precision
  (float32 angles, defined here, since the example is double only). The column "pm plain" is the
  peak of a separate process that runs backward() without that opt-in (every intermediate gradient
  kept), at the sizes --plain-rss names.
- PyTorch: the same circuit with eager tensors and autograd. Its fastest RX here is
  c psi - i s flip(psi, k) (`--torch-rx flip`, the default); `matmul` (a [2, 2] matrix times the
  [2^k, 2, 2^(n-k-1)] view) and `tensordot` (then movedim) were measured slower: 0.26 s against
  0.18 s per energy + gradient at 16 qubits, complex128, two threads, though they keep less memory.
  RZZ is a broadcast multiply, <psi|X_i|psi> a vdot with the sum of the flips.
- Lightning: lightning.qubit, a QNode with diff_method="adjoint" (Hadamards, IsingZZ, RX,
  expval of the Hamiltonian), gradient with qml.grad on the flat angle vector (autograd interface);
  the energy is the forward value qml.grad keeps. complex128 only.

At every size each system first computes the energy and gradient once in complex128 in a process of
its own, and all pairs must agree to 1e-10 (energy and every gradient entry) before any timing.
Timing: in a fresh process per system, size and type, the best seconds of one energy + gradient
after a warm-up (timing.best_times); then the peak RSS (ru_maxrss) of that process, which includes
the library's own import (listed once below the table).
"""
import argparse
import json
import os
import resource
import subprocess
import sys

import numpy as np

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, HERE)
from timing import best_times, record, rows_of  # noqa: E402

SYSTEMS = ("pymoira", "torch", "lightning")
TOLERANCE = 1e-10
SEED = 2024


def angles(n, layers):
    """The flat angle vector every system starts from (order in the module docstring)."""
    return np.random.default_rng(SEED + n).uniform(-np.pi, np.pi, (2 * n - 1) * layers)


def zz_diagonal(n, dtype):
    """-sum_i Z_i Z_{i+1} on every basis state, shape [2] * n (qubit 0 is axis 0)."""
    z = 1.0 - 2.0 * np.indices([2] * n)
    return (-np.sum(z[:-1] * z[1:], axis=0)).astype(dtype)


def proc_mib(path, key, missing):
    """A kB field of a /proc file, in MiB."""
    with open(path) as f:
        for line in f:
            if line.startswith(key + ":"):
                return int(line.split()[1]) / 1024.0
    return missing


def rss_now_mib():
    return proc_mib("/proc/self/status", "VmRSS", float("nan"))


def peak_rss_mib():
    return resource.getrusage(resource.RUSAGE_SELF).ru_maxrss / 1024.0  # KiB on Linux


# ---------------------------------------------------------------- pymoira

def pymoira_case(n, layers, dtype, opt_in):
    """A callable computing (energy, gradient as [L, 2n - 1] numpy) with pymoira, and its thread count."""
    sys.path.insert(0, os.path.join(HERE, "..", "examples"))
    import vqe_ising as vqe
    from pymoira._core import moira
    from pymoira.tensor.tensor import (QTensor, abs, conj, cos, flip, real, retain_intermediate_grads, sin, square,
                                       sums)

    shape = list(vqe.parameter_layout(n, layers))
    if dtype == "complex128":
        real_type = np.float64
        energy = vqe.energy
    else:
        real_type = np.float32
        zz = QTensor(zz_diagonal(n, np.float32))
        plus = np.full([2] * n, 2.0 ** (-n / 2), dtype=np.complex64)
        pattern = {}
        for i in range(n - 1):
            p = -1j * np.array([[1.0, -1.0], [-1.0, 1.0]])
            pattern[i] = QTensor(p.reshape([1] * i + [2, 2] + [1] * (n - i - 2)).astype(np.complex64))

        def energy(params, n, layers):
            """vqe_ising.energy with a complex64 state and float32 angles."""
            half = params * 0.5
            cs, ss = cos(half), sin(half)
            state = QTensor(plus)
            for layer in range(layers):
                for i in range(n - 1):
                    state = state * (cs[layer, i] + ss[layer, i] * pattern[i])
                for k in range(n):
                    state = vqe.apply_rx(state, cs[layer, n - 1 + k], ss[layer, n - 1 + k], k)
            flipped = flip(state, [0])
            for i in range(1, n):
                flipped = flipped + flip(state, [i])
            return sums(square(abs(state)) * zz) - real(sums(conj(state) * flipped))

    start = angles(n, layers).reshape(shape).astype(real_type)

    def run():
        params = QTensor(start, requires_grad=True)
        loss = energy(params, n, layers)
        if opt_in:
            with retain_intermediate_grads(False):
                loss.backward()
        else:
            loss.backward()
        return loss.item(), params.grad.to_numpy()

    return run, moira.get_num_threads()


# ---------------------------------------------------------------- PyTorch

def torch_case(n, layers, dtype, rx_form):
    import torch

    real_type, complex_type = {"complex128": (torch.float64, torch.complex128),
                               "complex64": (torch.float32, torch.complex64)}[dtype]
    start = torch.tensor(angles(n, layers).reshape(layers, 2 * n - 1), dtype=real_type)
    zz = torch.tensor(zz_diagonal(n, np.float64), dtype=real_type)
    pair = torch.tensor([[1.0, -1.0], [-1.0, 1.0]], dtype=real_type)
    shapes = [[1] * i + [2, 2] + [1] * (n - i - 2) for i in range(n - 1)]

    def energy(params):
        half = params * 0.5
        cs, ss = torch.cos(half), torch.sin(half)
        # RZZ phases c - i s ZZ, [L, n - 1, 2, 2]; RX factors c and -i s, or matrices [L, n, 2, 2]
        phases = torch.complex(cs[:, :n - 1, None, None].expand(-1, -1, 2, 2), -ss[:, :n - 1, None, None] * pair)
        c_rx, s_rx = cs[:, n - 1:], ss[:, n - 1:]
        if rx_form == "flip":
            diag, off = c_rx.to(complex_type), torch.complex(torch.zeros_like(s_rx), -s_rx)
        else:
            zero = torch.zeros_like(c_rx)
            matrices = torch.complex(torch.stack([c_rx, zero, zero, c_rx], -1),
                                     torch.stack([zero, -s_rx, -s_rx, zero], -1)).reshape(layers, n, 2, 2)
        state = torch.full([2] * n, 2.0 ** (-n / 2), dtype=complex_type)
        for layer in range(layers):
            for i in range(n - 1):
                state = state * phases[layer, i].reshape(shapes[i])
            for k in range(n):
                if rx_form == "flip":
                    state = state * diag[layer, k] + state.flip(k) * off[layer, k]
                elif rx_form == "matmul":
                    view = state.reshape(2 ** k, 2, 2 ** (n - k - 1))
                    state = torch.matmul(matrices[layer, k], view).reshape([2] * n)
                else:
                    state = torch.movedim(torch.tensordot(matrices[layer, k], state, dims=([1], [k])), 0, k)
        flipped = state.flip(0)
        for i in range(1, n):
            flipped = flipped + state.flip(i)
        probabilities = torch.view_as_real(state).square().sum(-1)
        return (probabilities * zz).sum() - torch.vdot(state.reshape(-1), flipped.reshape(-1)).real

    def run():
        params = start.clone().requires_grad_(True)
        loss = energy(params)
        loss.backward()
        return loss.item(), params.grad.numpy()

    return run, torch.get_num_threads()


# ---------------------------------------------------------------- PennyLane-Lightning

def lightning_case(n, layers):
    import pennylane as qml
    from pennylane import numpy as pnp

    device = qml.device("lightning.qubit", wires=n)
    ops = [qml.PauliZ(i) @ qml.PauliZ(i + 1) for i in range(n - 1)] + [qml.PauliX(i) for i in range(n)]
    hamiltonian = qml.Hamiltonian([-1.0] * len(ops), ops)
    width = 2 * n - 1

    @qml.qnode(device, diff_method="adjoint")
    def circuit(a):
        for i in range(n):
            qml.Hadamard(wires=i)
        for layer in range(layers):
            row = layer * width
            for i in range(n - 1):
                qml.IsingZZ(a[row + i], wires=[i, i + 1])
            for i in range(n):
                qml.RX(a[row + n - 1 + i], wires=i)
        return qml.expval(hamiltonian)

    gradient = qml.grad(circuit)
    start = pnp.array(angles(n, layers), requires_grad=True)

    def run():
        g = gradient(start)
        return float(gradient.forward), np.asarray(g).reshape(layers, width)

    return run, int(os.environ.get("OMP_NUM_THREADS", os.cpu_count()))


# ---------------------------------------------------------------- one process per case

def child(case):
    """Runs one case (a dict: system, n, layers, dtype, mode and options) and prints one JSON line."""
    system, n, layers, dtype = case["system"], case["n"], case["layers"], case["dtype"]
    try:
        if system == "pymoira":
            run, threads = pymoira_case(n, layers, dtype, case.get("opt_in", True))
        elif system == "torch":
            run, threads = torch_case(n, layers, dtype, case.get("torch_rx", "flip"))
        else:
            run, threads = lightning_case(n, layers)
    except ImportError as e:
        print(json.dumps({"missing": str(e)}))
        return
    out = {"threads": threads, "rss_start": rss_now_mib()}
    if case["mode"] == "check":
        value, grad = run()
        out.update(energy=value, grad=np.asarray(grad, dtype=np.float64).ravel().tolist())
    elif case["mode"] == "rss":  # the peak alone: a warm-up and one more evaluation
        run()
        run()
    else:
        out["seconds"] = best_times({system: run}, case["reps"], case["budget"])[system]
    out["rss_peak"] = peak_rss_mib()
    print(json.dumps(out))


def spawn(case):
    """The JSON a child process prints for case; None if it failed (its error is shown)."""
    proc = subprocess.run([sys.executable, os.path.abspath(__file__), "--child", json.dumps(case)],
                          stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
    if proc.returncode != 0:
        last = (proc.stderr.strip().splitlines() or ["(no message)"])[-1]
        print(f"  {case['system']} {case['dtype']} {case['mode']} at {case['n']} qubits failed: {last}",
              file=sys.stderr, flush=True)
        return None
    return json.loads(proc.stdout.strip().splitlines()[-1])


def available_mib():
    return proc_mib("/proc/meminfo", "MemAvailable", float("inf"))


class Memory:
    """Skips a case whose peak, extrapolated from the same case at a smaller size (x 2 per qubit),
    would not fit in the memory available now."""

    def __init__(self):
        self.seen = {}

    def fits(self, key, n):
        if key not in self.seen:
            return True
        m, peak = self.seen[key]
        return peak * 2.0 ** (n - m) < 0.9 * available_mib()

    def note(self, key, n, result):
        if result and "rss_peak" in result:
            self.seen[key] = (n, result["rss_peak"])


def check(n, layers):
    """Energy and gradient of every system in complex128, pairwise within TOLERANCE."""
    found = {}
    for system in SYSTEMS:
        r = spawn({"system": system, "n": n, "layers": layers, "dtype": "complex128", "mode": "check"})
        if r is None:
            raise SystemExit(f"{system} failed at {n} qubits")
        if "missing" in r:
            print(f"{system} not installed ({r['missing']}): left out")
            continue
        found[system] = (r["energy"], np.array(r["grad"]))
    names = list(found)
    worst = 0.0
    for a in range(len(names)):
        for b in range(a + 1, len(names)):
            (ea, ga), (eb, gb) = found[names[a]], found[names[b]]
            de, dg = abs(ea - eb), float(np.max(np.abs(ga - gb)))
            worst = max(worst, de, dg)
            if not (de <= TOLERANCE and dg <= TOLERANCE):
                raise SystemExit(f"{n} qubits: {names[a]} and {names[b]} disagree: energy {ea!r} vs {eb!r}, "
                                 f"largest gradient difference {dg:.3e}")
    energy = found[names[0]][0]
    print(f"{n} qubits: {', '.join(names)} agree (energy {energy:.12f}, {found[names[0]][1].size} gradient "
          f"entries, largest difference {worst:.1e})", flush=True)
    return set(found)


def fmt_time(r):
    return "%10.2f" % (r["seconds"] * 1e3) if r and "seconds" in r else "%10s" % "-"


def fmt_rss(r):
    return "%8.0f" % r["rss_peak"] if r and "rss_peak" in r else "%8s" % "-"


def fmt_ratio(a, b):
    ok = a and b and "seconds" in a and "seconds" in b
    return "%7.2f" % (a["seconds"] / b["seconds"]) if ok else "%7s" % "-"


def main(argv=None):
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--qubits", default="10,14,16,18,20", help="sizes, comma-separated")
    parser.add_argument("--layers", type=int, default=10)
    parser.add_argument("--dtype", default="complex128,complex64", help="complex128, complex64 or both")
    parser.add_argument("--reps", type=int, default=5, help="timed repeats per case (at most)")
    parser.add_argument("--budget", type=float, default=20.0, help="seconds after which repeats stop (at least 2)")
    parser.add_argument("--plain-rss", default="16,20",
                        help="sizes at which pymoira's peak RSS without retain_intermediate_grads(False) is shown")
    parser.add_argument("--torch-rx", choices=["flip", "matmul", "tensordot"], default="flip",
                        help="PyTorch's RX: c psi - i s flip(psi), or a matrix product")
    parser.add_argument("--quick", action="store_true", help="10 qubits, two repeats (a smoke run)")
    parser.add_argument("--child", help=argparse.SUPPRESS)
    args = parser.parse_args(argv)
    if args.child:
        child(json.loads(args.child))
        return
    sizes = [10] if args.quick else [int(q) for q in args.qubits.split(",")]
    if args.quick:
        args.reps = 2
    dtypes = [d.strip() for d in args.dtype.split(",")]
    if any(d not in ("complex128", "complex64") for d in dtypes) or min(sizes) < 2:
        parser.error("--dtype takes complex128 and/or complex64; --qubits at least 2")
    plain = {int(q) for q in args.plain_rss.split(",") if q}
    layers = args.layers

    print(f"energy + gradient, {layers} layers, one process per system and case "
          f"(PyTorch RX form: {args.torch_rx})", flush=True)
    memory = Memory()
    table = []
    starts = {}
    for n in sizes:
        present = check(n, layers)
        for dtype in dtypes:
            base = {"n": n, "layers": layers, "dtype": dtype, "mode": "time", "reps": args.reps,
                    "budget": args.budget, "torch_rx": args.torch_rx}
            results = {}
            for system in SYSTEMS:
                if system not in present or (system == "lightning" and dtype != "complex128"):
                    continue
                key = (system, dtype, True)
                if not memory.fits(key, n):
                    print(f"{system} {dtype} at {n} qubits skipped: not enough free memory", flush=True)
                    continue
                results[system] = r = spawn(dict(base, system=system))
                memory.note(key, n, r)
                if r:
                    starts.setdefault(system, (r["rss_start"], r["threads"]))
            if n in plain and "pymoira" in present:
                key = ("pymoira", dtype, False)
                if memory.fits(key, n) and memory.fits(("pymoira", dtype, True), n + 1):
                    results["plain"] = r = spawn(dict(base, system="pymoira", mode="rss", opt_in=False))
                    memory.note(key, n, r)
                else:
                    print(f"pymoira {dtype} without the opt-in at {n} qubits skipped: not enough free memory")
            pm, pt, pl = results.get("pymoira"), results.get("torch"), results.get("lightning")
            name = f"statevector energy+gradient, {n} qubits, {layers} layers, {dtype}"
            if pm and "seconds" in pm:
                if pt and "seconds" in pt:
                    record(name, pm["seconds"], pt["seconds"], "torch")
                if pl and "seconds" in pl:
                    record(name, pm["seconds"], pl["seconds"], "lightning")
                if not (pt and "seconds" in pt) and not (pl and "seconds" in pl):
                    record(name, pm["seconds"], None, "-")
            table.append((n, dtype, results))
            print(f"  {n} qubits {dtype}: " + ", ".join(
                f"{s} {r['seconds'] * 1e3:.2f} ms" for s, r in results.items() if r and "seconds" in r), flush=True)

    print()
    print("time per energy + gradient (ms), best of the repeats; peak RSS of each process (MiB)")
    print("%3s %-10s %10s %10s %10s %7s %7s %8s %8s %8s %8s" % (
        "n", "dtype", "pymoira", "torch", "lightning", "pm/pt", "pm/pl",
        "RSS pm", "RSS pt", "RSS pl", "pm plain"))
    for n, dtype, r in table:
        pm, pt, pl, pp = (r.get(k) for k in ("pymoira", "torch", "lightning", "plain"))
        print("%3d %-10s %s %s %s %s %s %s %s %s %s" % (
            n, dtype, fmt_time(pm), fmt_time(pt), fmt_time(pl), fmt_ratio(pm, pt), fmt_ratio(pm, pl),
            fmt_rss(pm), fmt_rss(pt), fmt_rss(pl), fmt_rss(pp)))
    print("pm plain: pymoira's peak without retain_intermediate_grads(False) (every intermediate gradient kept)")
    print("process RSS before the first evaluation (imports, constants), threads: " + ", ".join(
        f"{s} {rss:.0f} MiB, {threads} threads" for s, (rss, threads) in starts.items()))


def rows(quick=False):
    """The rows of one run, for run_all.py."""
    return rows_of(main, ["--quick"] if quick else [])


if __name__ == "__main__":
    main()
