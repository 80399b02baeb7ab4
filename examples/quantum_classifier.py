"""Train a hybrid quantum-classical classifier with pymoira alone.

A simulated variational quantum circuit (real amplitudes: RY rotations and a ring of CNOTs) feeds
a dense readout layer with the expectation value of Z on every qubit; the model learns the
two-moons data set by gradient descent.

The circuit is simulated the way state-vector simulators apply gates. The state of a batch is a
tensor of shape [batch, 2, 2, ..., 2], one axis per qubit. A one-qubit gate is a 2 x 2 matrix
applied along its qubit's axis: the state is viewed as [batch, left, 1, 2, right], multiplied by
the gate of shape [batch or 1, 1, 2, 2, 1] (broadcasting) and summed over the input axis. A CNOT
splits the state along the control axis, flips the control-1 half along the target axis and
stacks the halves again. No
2^n x 2^n matrix is ever built, so the cost of a gate grows with the state, not its square.
Data angles are re-uploaded before every trainable layer, and gradients flow through the whole
circuit into the rotation angles and the readout layer.

    python examples/quantum_classifier.py [--qubits N] [--epochs E] [--batch B]
"""
from __future__ import annotations

import argparse
import sys
import time

import numpy as np
from numpy.typing import NDArray

from pymoira._core import Tensor
from pymoira.tensor.tensor import (QTensor, cos, exp, flip, log, matmul, mean, no_grad, reshape, sin, split, squeeze, stack,
                                   sums)


def two_moons(n: int, noise: float, rng: np.random.Generator) -> tuple[NDArray[np.float64], NDArray[np.float64]]:
    t = rng.uniform(0.0, np.pi, n)
    half = n // 2
    x = np.empty((n, 2))
    x[:half] = np.stack([np.cos(t[:half]), np.sin(t[:half])], axis=1)
    x[half:] = np.stack([1.0 - np.cos(t[half:]), 0.5 - np.sin(t[half:])], axis=1)
    x += rng.normal(0.0, noise, x.shape)
    y = np.where(np.arange(n) < half, 1.0, -1.0)
    return x, y


def ry_matrix(half_cos: QTensor, half_sin: QTensor) -> QTensor:
    """The RY rotation [[c, -s], [s, c]] as a gate of shape [rows, 1, 2, 2, 1]; c and s have one
    entry per sample ([rows, 1]) or one for all ([1])."""
    rows = half_cos.shape[0]
    entries = stack([half_cos, half_sin * -1.0, half_sin, half_cos], 1)
    return reshape(entries, [rows, 1, 2, 2, 1])


class Circuit:
    def __init__(self, n_qubits: int, layers: int, rng: np.random.Generator) -> None:
        self.n = n_qubits
        self.angles = [[QTensor(rng.uniform(-np.pi, np.pi, [1]), requires_grad=True) for _ in range(n_qubits)]
                       for _ in range(layers)]
        self.weights = QTensor(rng.normal(0.0, 1.0, [n_qubits, 1]), requires_grad=True)
        self.bias = QTensor(np.zeros([1]), requires_grad=True)
        # Z on qubit k of basis state i: +1 where bit k of i is 0, -1 where it is 1 ([2^n, n]).
        bits = (np.arange(2 ** n_qubits)[:, None] >> (n_qubits - 1 - np.arange(n_qubits))) & 1
        self.z_signs = QTensor(1.0 - 2.0 * bits)

    def parameters(self) -> list[QTensor]:
        return [a for layer in self.angles for a in layer] + [self.weights, self.bias]

    def gate(self, state: QTensor, matrix: QTensor, k: int) -> QTensor:
        """The 2 x 2 `matrix` applied along qubit k's axis."""
        batch = state.shape[0]
        psi = reshape(state, [batch, 2 ** k, 1, 2, 2 ** (self.n - k - 1)])
        return reshape(sums(matrix * psi, 3), [batch] + [2] * self.n)

    def cnot(self, state: QTensor, control: int, target: int) -> QTensor:
        """Amplitudes with the control qubit set get their target bit flipped: the state is cut
        along the control axis, the control-1 half is read backwards along the target axis, and
        the halves are stacked again."""
        off, on = [squeeze(half, control + 1) for half in split(state, [1, 1], control + 1)]
        axis = target if target < control else target - 1  # the target's axis once the control's is gone
        return stack([off, flip(on, [axis + 1])], control + 1)

    def forward(self, encodings: list[QTensor]) -> QTensor:
        batch = encodings[0].shape[0]
        start = np.zeros([batch] + [2] * self.n)
        start[(slice(None),) + (0,) * self.n] = 1.0  # |00...0> for every sample
        state = QTensor(start)
        for layer in self.angles:
            for k, matrix in enumerate(encodings):
                state = self.gate(state, matrix, k)
            for k, theta in enumerate(layer):
                half = theta * 0.5
                state = self.gate(state, ry_matrix(cos(half), sin(half)), k)
            if self.n > 1:
                for k in range(self.n):
                    state = self.cnot(state, k, (k + 1) % self.n)
        probabilities = reshape(state * state, [batch, 2 ** self.n])
        expectations = matmul(probabilities, self.z_signs)  # <Z_k> for every qubit k
        return matmul(expectations, self.weights) + self.bias


def encode(x: NDArray[np.float64], n_qubits: int) -> list[QTensor]:
    """One RY gate per qubit and sample: the angles cycle through x0, x1, x0 + x1 and x0 - x1."""
    features = np.stack([x[:, 0], x[:, 1], x[:, 0] + x[:, 1], x[:, 0] - x[:, 1]], axis=1) * (np.pi / 2)
    gates = []
    for k in range(n_qubits):
        half = features[:, [k % 4]] / 2
        gates.append(ry_matrix(QTensor(np.cos(half)), QTensor(np.sin(half))))
    return gates


def logistic_loss(logits: QTensor, labels: QTensor) -> QTensor:
    return mean(log(exp(logits * labels * -1.0) + 1.0))


def train_step(model: Circuit, encodings: list[QTensor], labels: QTensor, velocity: list[Tensor], lr: float,
               momentum: float) -> QTensor:
    """One step of gradient descent with momentum; returns the loss."""
    loss = logistic_loss(model.forward(encodings), labels)
    for p in model.parameters():
        p.zero_grad()
    loss.backward()
    with no_grad():
        for p, v in zip(model.parameters(), velocity):
            assert p.grad is not None
            v.mult_(momentum)
            v.sub_(p.grad.data.mult(lr))
            p.data.add_(v)
    return loss


def main(qubits: int = 3, epochs: int = 300, batch: int | None = None, lr: float = 0.3, momentum: float = 0.9,
         layers: int = 3, seed: int = 7) -> float:
    rng = np.random.default_rng(seed)
    x, y = two_moons(240, 0.1, rng)
    x = (x - x.mean(axis=0)) / x.std(axis=0)
    model = Circuit(qubits, layers, rng)
    velocity = [p.data.zeros_like() for p in model.parameters()]  # backend tensors
    batch = batch or len(x)
    batches = [(encode(x[i:i + batch], qubits), QTensor(y[i:i + batch, None])) for i in range(0, len(x), batch)]

    start = time.time()
    for epoch in range(1, epochs + 1):
        for encodings, labels in batches:
            loss = train_step(model, encodings, labels, velocity, lr, momentum)
        sys.stdout.write(f"\repoch {epoch:4d}/{epochs}  loss {loss.item():.4f}")
        sys.stdout.flush()
    print()

    with no_grad():
        logits = model.forward(encode(x, qubits)).to_numpy()[:, 0]
    accuracy = float(np.mean(np.sign(logits) == y))
    print(f"{qubits} qubits trained in {time.time() - start:.1f} s; accuracy on the two moons: {accuracy:.1%}")
    return accuracy


if __name__ == "__main__":
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--qubits", type=int, default=3, help="qubits of the simulated circuit (default 3)")
    parser.add_argument("--epochs", type=int, default=300, help="passes over the data (default 300)")
    parser.add_argument("--batch", type=int, default=None, help="samples per step (default: all 240)")
    args = parser.parse_args()
    if args.qubits < 1:
        parser.error("--qubits must be at least 1")
    main(qubits=args.qubits, epochs=args.epochs, batch=args.batch)
