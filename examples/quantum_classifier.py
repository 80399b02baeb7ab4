"""Train a hybrid quantum-classical classifier with pymoira alone.

A simulated variational quantum circuit on three qubits (real amplitudes: RY rotations and CNOTs)
feeds a dense readout layer; the model learns the two-moons data set by gradient descent.

The state of a batch is a [batch, 8] tensor of real amplitudes. A rotation RY(phi) on qubit k acts
as  state <- cos(phi/2) * state + sin(phi/2) * (state @ Y_k^T),  where Y_k is the constant 8 x 8
matrix of [[0, -1], [1, 0]] on qubit k. Data angles are re-uploaded before every trainable layer,
and gradients flow through the whole circuit into the rotation angles and the readout layer.
"""
import sys
import time

import numpy as np

from pymoira.tensor.tensor import QTensor, exp, log, matmul, mean, cos, sin

N_QUBITS = 3
DIM = 2 ** N_QUBITS


def two_moons(n, noise, rng):
    t = rng.uniform(0.0, np.pi, n)
    half = n // 2
    x = np.empty((n, 2))
    x[:half] = np.stack([np.cos(t[:half]), np.sin(t[:half])], axis=1)
    x[half:] = np.stack([1.0 - np.cos(t[half:]), 0.5 - np.sin(t[half:])], axis=1)
    x += rng.normal(0.0, noise, x.shape)
    y = np.where(np.arange(n) < half, 1.0, -1.0)
    return x, y


def single_qubit(matrix, k):
    """The DIM x DIM matrix of a one-qubit `matrix` acting on qubit k (qubit 0 is the leftmost)."""
    out = np.eye(1)
    for q in range(N_QUBITS):
        out = np.kron(out, matrix if q == k else np.eye(2))
    return out


def cnot(control, target):
    perm = np.zeros((DIM, DIM))
    for i in range(DIM):
        bits = [(i >> (N_QUBITS - 1 - q)) & 1 for q in range(N_QUBITS)]
        if bits[control]:
            bits[target] ^= 1
        j = sum(b << (N_QUBITS - 1 - q) for q, b in enumerate(bits))
        perm[j, i] = 1.0
    return perm


class Circuit:
    def __init__(self, layers, rng):
        ry_generator = np.array([[0.0, -1.0], [1.0, 0.0]])
        # Right-multiplied by row states, so the transposes are stored.
        self.y_t = [QTensor(single_qubit(ry_generator, k).T) for k in range(N_QUBITS)]
        ring = np.eye(DIM)
        for k in range(N_QUBITS):
            ring = cnot(k, (k + 1) % N_QUBITS) @ ring
        self.entangle_t = QTensor(ring.T)
        self.angles = [[QTensor(rng.uniform(-np.pi, np.pi, [1]), requires_grad=True) for _ in range(N_QUBITS)]
                       for _ in range(layers)]
        self.weights = QTensor(rng.normal(0.0, 1.0, [DIM, 1]), requires_grad=True)
        self.bias = QTensor(np.zeros([1]), requires_grad=True)

    def parameters(self):
        return [a for layer in self.angles for a in layer] + [self.weights, self.bias]

    def rotate(self, state, k, half_cos, half_sin):
        return half_cos * state + half_sin * matmul(state, self.y_t[k])

    def forward(self, encodings):
        batch = encodings[0][0].shape[0]
        state = QTensor(np.eye(DIM)[[0] * batch])  # |000> for every sample
        for layer in self.angles:
            for k, (c, s) in enumerate(encodings):
                state = self.rotate(state, k, c, s)
            for k, theta in enumerate(layer):
                half = theta * 0.5
                state = self.rotate(state, k, cos(half), sin(half))
            state = matmul(state, self.entangle_t)
        probabilities = state * state
        return matmul(probabilities, self.weights) + self.bias


def encode(x):
    """Per-qubit (cos, sin) of half the data angles: x0, x1 and their sum."""
    angles = np.stack([x[:, 0], x[:, 1], x[:, 0] + x[:, 1]], axis=1) * (np.pi / 2)
    return [(QTensor(np.cos(angles[:, [k]] / 2)), QTensor(np.sin(angles[:, [k]] / 2))) for k in range(N_QUBITS)]


def logistic_loss(logits, labels):
    return mean(log(exp(logits * labels * -1.0) + 1.0))


def main(epochs=300, lr=0.3, momentum=0.9, seed=7):
    rng = np.random.default_rng(seed)
    x, y = two_moons(240, 0.1, rng)
    x = (x - x.mean(axis=0)) / x.std(axis=0)
    encodings, labels = encode(x), QTensor(y[:, None])
    model = Circuit(layers=3, rng=rng)
    velocity = [np.zeros(p.shape) for p in model.parameters()]

    start = time.time()
    for epoch in range(1, epochs + 1):
        loss = logistic_loss(model.forward(encodings), labels)
        for p in model.parameters():
            p.zero_grad()
        loss.backward()
        QTensor.NO_GRAD = True
        for p, v in zip(model.parameters(), velocity):
            v *= momentum
            v -= lr * p.grad.to_numpy()
            p._copy_c_data_from(p + QTensor(v))
        QTensor.NO_GRAD = False
        sys.stdout.write(f"\repoch {epoch:4d}/{epochs}  loss {loss.item():.4f}")
        sys.stdout.flush()
    print()

    QTensor.NO_GRAD = True
    logits = model.forward(encodings).to_numpy()[:, 0]
    QTensor.NO_GRAD = False
    accuracy = np.mean(np.sign(logits) == y)
    print(f"trained in {time.time() - start:.1f} s; accuracy on the two moons: {accuracy:.1%}")
    return accuracy


if __name__ == "__main__":
    main()
