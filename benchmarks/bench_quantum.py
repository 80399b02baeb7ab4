"""The quantum classifier's training step side by side with the same circuit written with PyTorch
tensors, as a time ratio.

    python benchmarks/bench_quantum.py [--qubits N] [--batch B] [--layers L] [--reps R] [--quick]

Both sides run examples/quantum_classifier.py's circuit on a complex128 state of shape
[batch, 2, ..., 2]: RX data encodings and trainable RY rotations applied along their qubit's axis
as batches of complex 2 x 2 matrix products, trainable RZ rotations (a diagonal: one multiply),
rings of CNOTs (split, flip and stack) and chains of CZs (a sign block), a dense readout of the Z
expectations. They start from the same parameters and data, must agree on the loss and on every
parameter's gradient, and then take steps of gradient descent with momentum: forward, backward,
update. Target: at 14 qubits and batch 8 (the default), at most PyTorch's time per step.
"""
import argparse
import os
import sys

import numpy as np

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "examples"))
import quantum_classifier as qc  # noqa: E402
from pymoira.tensor.tensor import QTensor  # noqa: E402
from timing import best_pair, best_times, ratio_line, record, rows_of  # noqa: E402

try:
    import torch
except ImportError:  # PyTorch is optional: only our time is shown
    torch = None


def half_angle(theta):
    half = theta * 0.5
    return torch.cos(half), torch.sin(half)


def gate_matrix(a, b, c, d):
    return torch.stack([a, b, c, d], 1).reshape(-1, 1, 2, 2) + 0j


def rx(theta):
    c, s = half_angle(theta)
    return gate_matrix(c, s * -1j, s * -1j, c)


def ry(theta):
    c, s = half_angle(theta)
    return gate_matrix(c, s * -1.0, s, c)


def rz(theta):
    c, s = half_angle(theta)
    return torch.stack([c + s * -1j, c + s * 1j], 1).reshape(-1, 1, 2, 1)


def qubit_view(state, k):
    n = state.ndim - 1
    return state.reshape(state.shape[0], 2 ** k, 2, 2 ** (n - k - 1))


def apply_gate(state, matrix, k):
    return torch.matmul(matrix, qubit_view(state, k)).reshape(state.shape)  # the matrix broadcasts


def apply_diagonal(state, diagonal, k):
    return (qubit_view(state, k) * diagonal).reshape(state.shape)


def cnot(state, control, target):
    off, on = [half.squeeze(control + 1) for half in state.split([1, 1], control + 1)]
    axis = target if target < control else target - 1
    return torch.stack([off, on.flip(axis + 1)], control + 1)


def cz(state, a, b):
    n = state.ndim - 1
    lo, hi = min(a, b), max(a, b)
    signs = torch.ones(2, 1, 2, 1, dtype=torch.float64)
    signs[1, 0, 1, 0] = -1.0
    view = state.reshape(state.shape[0], 2 ** lo, 2, 2 ** (hi - lo - 1), 2, 2 ** (n - hi - 1))
    return (view * signs).reshape(state.shape)


class TorchCircuit:
    """The example's circuit with PyTorch tensors, started from the same parameters."""

    def __init__(self, model):
        self.n = model.n
        self.angles = [[tuple(torch.tensor(a.to_numpy(), requires_grad=True) for a in pair) for pair in layer]
                       for layer in model.angles]
        self.weights = torch.tensor(model.weights.to_numpy(), requires_grad=True)
        self.bias = torch.tensor(model.bias.to_numpy(), requires_grad=True)
        self.z_signs = torch.tensor(model.z_signs.to_numpy())

    def parameters(self):
        return [a for layer in self.angles for pair in layer for a in pair] + [self.weights, self.bias]

    def entangle(self, state, layer):
        if self.n == 1:
            return state
        if layer % 2 == 0:
            for k in range(self.n):
                state = cnot(state, k, (k + 1) % self.n)
        else:
            for k in range(self.n - 1):
                state = cz(state, k, k + 1)
        return state

    def forward(self, encodings):
        batch = encodings[0].shape[0]
        state = torch.zeros([batch] + [2] * self.n, dtype=torch.complex128)
        state[(slice(None),) + (0,) * self.n] = 1.0
        for i, layer in enumerate(self.angles):
            for k, matrix in enumerate(encodings):
                state = apply_gate(state, matrix, k)
            for k, (phi, theta) in enumerate(layer):
                state = apply_gate(apply_diagonal(state, rz(phi), k), ry(theta), k)
            state = self.entangle(state, i)
        probabilities = state.abs().square().reshape(batch, 2 ** self.n)
        return (probabilities @ self.z_signs) @ self.weights + self.bias


def torch_loss(model, encodings, labels):
    return torch.log(torch.exp(model.forward(encodings) * labels * -1.0) + 1.0).mean()


def torch_step(model, encodings, labels, velocity, lr=0.3, momentum=0.9):
    loss = torch_loss(model, encodings, labels)
    for p in model.parameters():
        p.grad = None
    loss.backward()
    with torch.no_grad():
        for p, v in zip(model.parameters(), velocity):
            v.mul_(momentum).sub_(lr * p.grad)
            p.add_(v)
    return loss


def check_agreement(model, encodings, labels, tmodel, t_enc, t_labels):
    """Both sides' loss and every parameter's gradient agree (float64 rounding) at the start."""
    loss = qc.logistic_loss(model.forward(encodings), labels)
    for p in model.parameters():
        p.zero_grad()
    loss.backward()
    theirs = torch_loss(tmodel, t_enc, t_labels)
    theirs.backward()
    assert abs(loss.item() - theirs.item()) < 1e-9, (loss.item(), theirs.item())
    for p, q in zip(model.parameters(), tmodel.parameters()):
        assert p.grad is not None and p.grad.to_numpy().dtype == np.float64
        np.testing.assert_allclose(p.grad.to_numpy(), q.grad.numpy(), rtol=1e-8, atol=1e-11)
        q.grad = None


def main(argv=None):
    parser = argparse.ArgumentParser()
    parser.add_argument("--qubits", type=int, default=14)
    parser.add_argument("--batch", type=int, default=8)
    parser.add_argument("--layers", type=int, default=3)
    parser.add_argument("--reps", type=int, default=5, help="turns per contender")
    parser.add_argument("--quick", action="store_true", help="two turns per contender (a smoke run)")
    args = parser.parse_args(argv)
    if args.quick:
        args.reps = 2
    name = f"quantum step, {args.qubits} qubits, batch {args.batch}, {args.layers} layers"

    rng = np.random.default_rng(7)
    x, y = qc.two_moons(args.batch, 0.1, rng)
    x = (x - x.mean(axis=0)) / x.std(axis=0)
    model = qc.Circuit(args.qubits, args.layers, rng)
    encodings, labels = qc.encode(x, args.qubits), QTensor(y[:, None])
    velocity = [p.data.zeros_like() for p in model.parameters()]  # backend tensors, as the example keeps them

    def ours():
        qc.train_step(model, encodings, labels, velocity, 0.3, 0.9)

    print(f"training step, {args.qubits} qubits, batch {args.batch}, {args.layers} layers "
          "(complex128 state, float64 parameters)")
    if torch is None:
        t = best_times({"ours": ours}, args.reps)["ours"]
        record(name, t, None, "-")
        print(f"pymoira {t * 1e3:.2f} ms per step (PyTorch not installed)")
        return
    tmodel = TorchCircuit(model)
    t_enc = [torch.tensor(e.to_numpy()) for e in encodings]
    t_labels = torch.tensor(y[:, None])
    t_velocity = [torch.zeros_like(p) for p in tmodel.parameters()]
    check_agreement(model, encodings, labels, tmodel, t_enc, t_labels)
    print("loss and gradients agree")

    a, b = best_pair(ours, lambda: torch_step(tmodel, t_enc, t_labels, t_velocity), args.reps)
    # The target holds for the default size (14 qubits, batch 8).
    record(name, a, b, "torch", 1.0 if (args.qubits, args.batch, args.layers) == (14, 8, 3) else None)
    print(f"torch {torch.__version__}, {torch.get_num_threads()} threads")
    print(ratio_line("forward + backward + update", a, b, "torch", 1.0))


def rows(quick=False):
    """The rows of one run, for run_all.py."""
    return rows_of(main, ["--quick"] if quick else [])


if __name__ == "__main__":
    main()
