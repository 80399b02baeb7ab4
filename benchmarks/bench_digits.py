"""One training step of the digits classifier (examples/digits_classifier.py) beside PyTorch.

    python benchmarks/bench_digits.py [--quick]

The network: log_softmax(tanh(x @ W1 + b1) @ W2 + b2) on 64 inputs, 64 hidden units and 10
classes, batch 32; the loss is the mean negative log-likelihood picked out by a one-hot mask; a
step is the forward pass, the backward pass and a momentum update of the four parameters. The
inputs are random values of the digits' shape (timing does not depend on them). Target: at most
PyTorch's time.
"""
import argparse

import numpy as np

from pymoira.tensor.tensor import QTensor, log_softmax, matmul, sums, tanh, zeros
from timing import best_times, ratio_line, record, rows_of

try:
    import torch
except ImportError:
    torch = None

BATCH, INPUTS, HIDDEN, CLASSES = 32, 64, 64, 10
LR, MOMENTUM = 0.1, 0.9


def main(argv=None):
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--quick", action="store_true", help="fewer turns")
    args = parser.parse_args(argv)
    rng = np.random.default_rng(0)
    x = rng.random((BATCH, INPUTS)).astype(np.float32)
    onehot = np.eye(CLASSES, dtype=np.float32)[rng.integers(0, CLASSES, BATCH)]
    init = [(rng.standard_normal((INPUTS, HIDDEN)) * 0.2).astype(np.float32), np.zeros(HIDDEN, np.float32),
            (rng.standard_normal((HIDDEN, CLASSES)) * 0.2).astype(np.float32), np.zeros(CLASSES, np.float32)]

    X, Y = QTensor(x), QTensor(onehot)
    params = [QTensor(a, requires_grad=True) for a in init]
    velocity = [zeros(p.shape) for p in params]

    def ours():
        W1, B1, W2, B2 = params
        logp = log_softmax(matmul(tanh(matmul(X, W1) + B1), W2) + B2, 1)
        loss = sums(logp * Y) * (-1.0 / BATCH)
        for p in params:
            p.zero_grad()
        loss.backward()
        QTensor.NO_GRAD = True
        for p, v in zip(params, velocity):
            v._copy_c_data_from(v * MOMENTUM - p.grad * LR)
            p._copy_c_data_from(p + v)
        QTensor.NO_GRAD = False

    contenders = {"pymoira": ours}
    if torch is not None:
        tx, ty = torch.from_numpy(x), torch.from_numpy(onehot)
        tparams = [torch.tensor(a, requires_grad=True) for a in init]
        optimizer = torch.optim.SGD(tparams, lr=LR, momentum=MOMENTUM)

        def theirs():
            W1, B1, W2, B2 = tparams
            logp = torch.log_softmax(torch.tanh(tx @ W1 + B1) @ W2 + B2, 1)
            loss = -(logp * ty).sum() / BATCH
            optimizer.zero_grad()
            loss.backward()
            optimizer.step()

        contenders["torch"] = theirs
    best = best_times(contenders, rounds=3 if args.quick else 8, budget=2 if args.quick else 10)
    if torch is None:
        print(f"training step: {best['pymoira'] * 1e6:.1f} us (PyTorch not installed)")
    else:
        print(f"torch {torch.__version__}, {torch.get_num_threads()} threads")
        record("digits 64->64->10 training step, batch 32", best["pymoira"], best["torch"], "torch", 1.0)
        print(ratio_line("digits 64->64->10 training step, batch 32", best["pymoira"], best["torch"], "torch", 1.0))


def rows(quick=False):
    """The rows of one run, for run_all.py."""
    return rows_of(main, ["--quick"] if quick else [])


if __name__ == "__main__":
    main()
