"""Train a small dense network on the 8x8 handwritten digits that ship with scikit-learn.

    pip install ".[examples]" && python examples/digits_classifier.py

The network is tanh(x @ W1 + b1) @ W2 + b2 with log_softmax over the ten classes. The loss is
the negative log-likelihood of the true class, picked out of the log-probabilities by a one-hot
mask: -sums(log_softmax(logits, 1) * onehot) / batch. The weights start from the random fills
(Glorot-scaled signed uniform values) and are trained by minibatch gradient descent with
momentum; loss and accuracy are reported on one updating line, once per epoch.
"""
from __future__ import annotations

import sys
import time

import numpy as np
from numpy.typing import NDArray

from pymoira._core import moira
from pymoira.tensor.tensor import QTensor, log_softmax, matmul, no_grad, sums, tanh

try:
    from sklearn.datasets import load_digits
except ImportError:  # the data set is the only use of scikit-learn
    load_digits = None


def digits(test_fraction: float, rng: np.random.Generator) -> tuple[NDArray[np.float32], NDArray[np.int64],
                                                                    NDArray[np.float32], NDArray[np.int64]]:
    """(train x, train labels, test x, test labels): pixels scaled to [0, 1], float32."""
    data = load_digits()
    x = (data.data / 16.0).astype(np.float32)
    order = rng.permutation(len(x))
    n_test = int(len(x) * test_fraction)
    test, train = order[:n_test], order[n_test:]
    return x[train], data.target[train], x[test], data.target[test]


def parameter(shape: list[int], fan_in: int, fan_out: int) -> QTensor:
    """A trainable tensor filled with Glorot-scaled uniform values (zeros for a bias)."""
    p = QTensor(np.zeros(shape, np.float32), requires_grad=True)
    if fan_in:
        p.fill_rand_signed_uniform_(np.sqrt(6.0 / (fan_in + fan_out)))
    return p


class Network:
    def __init__(self, inputs: int, hidden: int, classes: int) -> None:
        self.w1 = parameter([inputs, hidden], inputs, hidden)
        self.b1 = parameter([hidden], 0, 0)
        self.w2 = parameter([hidden, classes], hidden, classes)
        self.b2 = parameter([classes], 0, 0)

    def parameters(self) -> list[QTensor]:
        return [self.w1, self.b1, self.w2, self.b2]

    def log_probabilities(self, x: QTensor) -> QTensor:
        return log_softmax(matmul(tanh(matmul(x, self.w1) + self.b1), self.w2) + self.b2, 1)


def nll_loss(log_probs: QTensor, onehot: QTensor) -> QTensor:
    """Mean negative log-likelihood of the classes marked in `onehot`."""
    return sums(log_probs * onehot) * (-1.0 / onehot.shape[0])


def accuracy(model: Network, x: NDArray[np.float32], labels: NDArray[np.int64]) -> float:
    with no_grad():
        predicted = model.log_probabilities(QTensor(x)).argmax([1], False).to_numpy()
    return float(np.mean(predicted == labels))


def main(epochs: int = 30, batch: int = 32, lr: float = 0.1, momentum: float = 0.9, hidden: int = 64,
         seed: int = 0) -> float:
    if load_digits is None:
        sys.exit("This example trains on the digits data set of scikit-learn, which is not installed:\n"
                 "    pip install \".[examples]\"   (or: pip install scikit-learn)")
    rng = np.random.default_rng(seed)
    moira.seed(seed)  # the random fills: a seeded run repeats itself
    x_train, y_train, x_test, y_test = digits(0.25, rng)
    eye = np.eye(10, dtype=np.float32)
    model = Network(x_train.shape[1], hidden, 10)
    velocity = [p.data.zeros_like() for p in model.parameters()]  # backend tensors

    start = time.time()
    for epoch in range(1, epochs + 1):
        order = rng.permutation(len(x_train))
        total = 0.0
        for i in range(0, len(order), batch):
            rows = order[i:i + batch]
            loss = nll_loss(model.log_probabilities(QTensor(x_train[rows])), QTensor(eye[y_train[rows]]))
            for p in model.parameters():
                p.zero_grad()
            loss.backward()
            with no_grad():
                for p, v in zip(model.parameters(), velocity):
                    assert p.grad is not None
                    v.mult_(momentum)
                    v.sub_(p.grad.data.mult(lr))
                    p.data.add_(v)
            total += loss.item() * len(rows)
        train_acc, test_acc = accuracy(model, x_train, y_train), accuracy(model, x_test, y_test)
        sys.stdout.write(f"\repoch {epoch:3d}/{epochs}  loss {total / len(order):.4f}  "
                         f"train accuracy {train_acc:6.1%}  test accuracy {test_acc:6.1%}")
        sys.stdout.flush()
    print(f"\ntrained in {time.time() - start:.1f} s on {len(x_train)} digits; "
          f"accuracy on {len(x_test)} unseen digits: {test_acc:.1%}")
    return test_acc


if __name__ == "__main__":
    main()
