"""The quantum classifier's training step side by side with the same circuit written with PyTorch
tensors, as a time ratio.

    python benchmarks/bench_quantum.py [--qubits N] [--batch B] [--reps R] [--quick]

Both sides run examples/quantum_classifier.py's circuit (RY gates applied along their qubit's
axis by broadcasting, CNOTs as split, flip and stack, a dense readout of the Z expectations),
start from the same parameters and data, and take one step of gradient descent with momentum:
forward, backward, update. Target: at 10 qubits and batch 64, at most PyTorch's time per step.
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


class TorchCircuit:
    """The example's circuit with PyTorch tensors, started from the same parameters."""

    def __init__(self, model):
        self.n = model.n
        self.angles = [[torch.tensor(a.to_numpy(), requires_grad=True) for a in layer] for layer in model.angles]
        self.weights = torch.tensor(model.weights.to_numpy(), requires_grad=True)
        self.bias = torch.tensor(model.bias.to_numpy(), requires_grad=True)
        self.z_signs = torch.tensor(model.z_signs.to_numpy())

    def parameters(self):
        return [a for layer in self.angles for a in layer] + [self.weights, self.bias]

    @staticmethod
    def ry_matrix(c, s):
        return torch.stack([c, -s, s, c], 1).reshape(c.shape[0], 1, 2, 2, 1)

    def gate(self, state, matrix, k):
        batch = state.shape[0]
        psi = state.reshape(batch, 2 ** k, 1, 2, 2 ** (self.n - k - 1))
        return (matrix * psi).sum(3).reshape([batch] + [2] * self.n)

    def cnot(self, state, control, target):
        off, on = [half.squeeze(control + 1) for half in state.split([1, 1], control + 1)]
        axis = target if target < control else target - 1
        return torch.stack([off, on.flip(axis + 1)], control + 1)

    def forward(self, encodings):
        batch = encodings[0].shape[0]
        state = torch.zeros([batch] + [2] * self.n, dtype=torch.float64)
        state[(slice(None),) + (0,) * self.n] = 1.0
        for layer in self.angles:
            for k, matrix in enumerate(encodings):
                state = self.gate(state, matrix, k)
            for k, theta in enumerate(layer):
                half = theta * 0.5
                state = self.gate(state, self.ry_matrix(torch.cos(half), torch.sin(half)), k)
            if self.n > 1:
                for k in range(self.n):
                    state = self.cnot(state, k, (k + 1) % self.n)
        probabilities = (state * state).reshape(batch, 2 ** self.n)
        return (probabilities @ self.z_signs) @ self.weights + self.bias


def torch_step(model, encodings, labels, velocity, lr=0.3, momentum=0.9):
    logits = model.forward(encodings)
    loss = torch.log(torch.exp(logits * labels * -1.0) + 1.0).mean()
    for p in model.parameters():
        p.grad = None
    loss.backward()
    with torch.no_grad():
        for p, v in zip(model.parameters(), velocity):
            v.mul_(momentum).sub_(lr * p.grad)
            p.add_(v)
    return loss


def main(argv=None):
    parser = argparse.ArgumentParser()
    parser.add_argument("--qubits", type=int, default=10)
    parser.add_argument("--batch", type=int, default=64)
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

    print(f"training step, {args.qubits} qubits, batch {args.batch}, {args.layers} layers (float64)")
    if torch is None:
        t = best_times({"ours": ours}, args.reps)["ours"]
        record(name, t, None, "-")
        print(f"pymoira {t * 1e3:.2f} ms per step (PyTorch not installed)")
        return
    tmodel = TorchCircuit(model)
    t_enc = [torch.tensor(e.to_numpy()) for e in encodings]
    t_labels = torch.tensor(y[:, None])
    t_velocity = [torch.zeros_like(p) for p in tmodel.parameters()]
    # The same circuit: both losses agree before training.
    ours_loss = qc.logistic_loss(model.forward(encodings), labels).item()
    theirs_loss = torch.log(torch.exp(tmodel.forward(t_enc) * t_labels * -1.0) + 1.0).mean().item()
    assert abs(ours_loss - theirs_loss) < 1e-9, (ours_loss, theirs_loss)

    a, b = best_pair(ours, lambda: torch_step(tmodel, t_enc, t_labels, t_velocity), args.reps)
    # The target holds for the default size (10 qubits, batch 64).
    record(name, a, b, "torch", 1.0 if (args.qubits, args.batch) == (10, 64) else None)
    print(f"torch {torch.__version__}, {torch.get_num_threads()} threads")
    print(ratio_line("forward + backward + update", a, b, "torch", 1.0))


def rows(quick=False):
    """The rows of one run, for run_all.py."""
    return rows_of(main, ["--quick"] if quick else [])


if __name__ == "__main__":
    main()
