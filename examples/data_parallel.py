"""Data-parallel training of the digits classifier across processes with MPI.

    mpirun -n 2 python examples/data_parallel.py

Every process holds the whole model, starts from the same seeded parameters and takes its share
of each global minibatch. After the backward pass the gradients are summed across processes with
one Allreduce per parameter, in place in the gradients' own memory (shared with numpy through
DLPack, no copy), so every process applies the same update and the parameters stay identical:
after N steps they equal, to float64 rounding, what one process computes on the full batches.
The loss of each share is scaled by 1 / (global batch size), so the summed gradient is the
gradient of the full batch's mean loss.

Needs mpi4py (and an MPI implementation such as Open MPI) and scikit-learn for the data set:
    pip install mpi4py scikit-learn
"""
from __future__ import annotations

import argparse
import sys
import time

import numpy as np
from numpy.typing import DTypeLike

from pymoira._core import moira
from pymoira.tensor.tensor import QTensor, log_softmax, matmul, no_grad, sums, tanh

try:
    from mpi4py import MPI
except ImportError:
    MPI = None  # type: ignore[assignment]
try:
    from sklearn.datasets import load_digits
except ImportError:
    load_digits = None


def parameter(shape: list[int], scale: float, dtype: DTypeLike) -> QTensor:
    p = QTensor(np.zeros(shape, dtype), requires_grad=True)
    if scale:
        p.fill_rand_signed_uniform_(scale)
    return p


def network(inputs: int, hidden: int, classes: int, dtype: DTypeLike) -> list[QTensor]:
    return [parameter([inputs, hidden], np.sqrt(6.0 / (inputs + hidden)), dtype), parameter([hidden], 0, dtype),
            parameter([hidden, classes], np.sqrt(6.0 / (hidden + classes)), dtype), parameter([classes], 0, dtype)]


def log_probabilities(params: list[QTensor], x: QTensor) -> QTensor:
    w1, b1, w2, b2 = params
    return log_softmax(matmul(tanh(matmul(x, w1) + b1), w2) + b2, 1)


def main(argv: list[str] | None = None) -> None:
    parser = argparse.ArgumentParser(description="Data-parallel digits training over MPI.")
    parser.add_argument("--steps", type=int, default=300, help="optimisation steps")
    parser.add_argument("--batch", type=int, default=64, help="global minibatch size (split across processes)")
    parser.add_argument("--lr", type=float, default=0.2)
    parser.add_argument("--dtype", default="float64", choices=["float32", "float64"])
    parser.add_argument("--save", help="rank 0 writes the final parameters to this .npz file")
    args = parser.parse_args(argv)
    if MPI is None or load_digits is None:
        sys.exit("This example needs mpi4py and scikit-learn: pip install mpi4py scikit-learn")
    comm = MPI.COMM_WORLD
    rank, size = comm.Get_rank(), comm.Get_size()
    dtype = np.dtype(args.dtype)

    data = load_digits()
    x_all, y_all = (data.data / 16.0).astype(dtype), data.target
    eye = np.eye(10, dtype=dtype)
    rng = np.random.default_rng(0)  # the same batches in every process
    moira.seed(0)  # the same starting parameters in every process
    params = network(x_all.shape[1], 64, 10, dtype)

    start = time.perf_counter()
    for step in range(args.steps):
        rows = rng.choice(len(x_all), args.batch, replace=False)
        mine = np.array_split(rows, size)[rank]  # this process's share of the global batch
        loss = sums(log_probabilities(params, QTensor(x_all[mine])) * QTensor(eye[y_all[mine]])) * (-1.0 / args.batch)
        for p in params:
            p.zero_grad()
        loss.backward()
        for p in params:  # sum the gradients of all shares, in place, without a copy
            assert p.grad is not None
            comm.Allreduce(MPI.IN_PLACE, np.from_dlpack(p.grad), op=MPI.SUM)
        with no_grad():
            for p in params:
                assert p.grad is not None
                p.data.sub_(p.grad.data.mult(args.lr))
        total = comm.allreduce(loss.item(), op=MPI.SUM)
        if rank == 0 and (step % 50 == 0 or step == args.steps - 1):
            print(f"step {step:4d}  loss {total:.4f}", flush=True)
    per_step = (time.perf_counter() - start) / max(args.steps, 1)

    with no_grad():
        predicted = log_probabilities(params, QTensor(x_all)).argmax([1], False).to_numpy()
    if rank == 0:
        print(f"{size} process(es): {per_step * 1e3:.2f} ms per step; "
              f"accuracy on all digits {np.mean(predicted == y_all):.1%}")
        if args.save:
            np.savez(args.save, *[p.to_numpy() for p in params])


if __name__ == "__main__":
    main()
