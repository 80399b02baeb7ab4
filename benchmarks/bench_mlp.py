"""One training step of a 784 -> 256 -> 10 network (batch 64), forward and backward, beside PyTorch.

    python benchmarks/bench_mlp.py

The network: tanh(x @ W1 + b1) @ W2 + b2, loss = mean((out - y)^2), built from matmul, broadcast
bias addition, tanh, square and mean. Target: at most PyTorch's time.
"""
import numpy as np

from pymoira.tensor.tensor import QTensor, matmul, mean, square, tanh
from timing import best_times, ratio_line, record, rows_of

try:
    import torch
except ImportError:
    torch = None


def main():
    rng = np.random.default_rng(0)
    x = rng.standard_normal((64, 784)).astype(np.float32)
    y = rng.standard_normal((64, 10)).astype(np.float32)
    w1 = (rng.standard_normal((784, 256)) * 0.05).astype(np.float32)
    b1 = np.zeros(256, np.float32)
    w2 = (rng.standard_normal((256, 10)) * 0.05).astype(np.float32)
    b2 = np.zeros(10, np.float32)

    X, Y = QTensor(x), QTensor(y)
    params = [QTensor(a, requires_grad=True) for a in (w1, b1, w2, b2)]

    def ours():
        W1, B1, W2, B2 = params
        out = matmul(tanh(matmul(X, W1) + B1), W2) + B2
        loss = mean(square(out - Y))
        for p in params:
            p.zero_grad()
        loss.backward()

    contenders = {"pymoira": ours}
    if torch is not None:
        tx, ty = torch.from_numpy(x), torch.from_numpy(y)
        tparams = [torch.tensor(a, requires_grad=True) for a in (w1, b1, w2, b2)]

        def theirs():
            W1, B1, W2, B2 = tparams
            out = torch.tanh(tx @ W1 + B1) @ W2 + B2
            loss = torch.mean((out - ty) ** 2)
            for p in tparams:
                p.grad = None
            loss.backward()

        contenders["torch"] = theirs
    best = best_times(contenders, rounds=8, budget=10)
    if torch is None:
        print(f"training step: {best['pymoira'] * 1e6:.1f} us (PyTorch not installed)")
    else:
        record("784->256->10 training step, batch 64", best["pymoira"], best["torch"], "torch", 1.0)
        print(ratio_line("784->256->10 training step, batch 64", best["pymoira"], best["torch"], "torch", 1.0))


def rows(quick=False):
    """The rows of one run, for run_all.py."""
    return rows_of(lambda argv: main(), None)


if __name__ == "__main__":
    main()
