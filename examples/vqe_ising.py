"""Find the ground state of the transverse-field Ising chain with a variational quantum circuit.

The Hamiltonian of an open chain of n qubits is

    H = -sum_{i=0}^{n-2} Z_i Z_{i+1} - sum_{i=0}^{n-1} X_i.

The circuit starts from |+>^n (the ground state of the field term alone) and applies L layers; layer l
is RZZ(theta_{l,i}) on every neighbour pair (i, i + 1), i = 0..n-2, then RX(phi_{l,i}) on every qubit
i = 0..n-1, with

    RZZ(theta) = exp(-i theta/2 Z (x) Z)   (the phase e^{-i theta/2} where the two bits agree, e^{+i theta/2}
                                             where they differ)
    RX(phi)    = exp(-i phi/2 X) = [[cos phi/2, -i sin phi/2], [-i sin phi/2, cos phi/2]].

The state is one complex128 tensor of shape [2] * n (qubit 0 is axis 0). RX is a 2 x 2 matrix contracted
with one axis of the state by `einsum` (one pass over the state); RZZ is a broadcast multiply by a phase
tensor with 2s on the pair's axes and 1s elsewhere. The energy <psi|H|psi> is computed from |psi|^2 for
the ZZ terms and from conj(psi) times psi read backwards along qubit i's axis for each X_i; Adam lowers it.
The result is compared with the exact ground energy from free fermions (`exact_ground_energy`).

    python examples/vqe_ising.py [--qubits 8] [--layers 4] [--steps 200] [--lr 0.1] [--seed 1]
"""
from __future__ import annotations

import argparse
import functools
import math
import string
import time

import numpy as np
from numpy.typing import NDArray

from pymoira._core import Tensor
from pymoira.tensor.tensor import (QTensor, abs, conj, cos, einsum, flip, no_grad, real, reshape,
                                   retain_intermediate_grads, sin, square, stack, sums)


def parameter_layout(n: int, layers: int) -> tuple[int, int]:
    """The shape of the parameter tensor: [layers, 2n - 1], one real float64 angle per gate.

    Row l holds layer l's angles in the order its gates act: columns 0..n-2 are theta_{l,i}, the angle
    of RZZ on qubits (i, i + 1), and columns n-1..2n-2 are phi_{l,i}, the angle of RX on qubit i
    (column n - 1 + i)."""
    if n < 2 or layers < 1:
        raise ValueError(f"need at least 2 qubits and 1 layer, got n = {n}, layers = {layers}")
    return layers, 2 * n - 1


def initial_parameters(n: int, layers: int, rng: np.random.Generator, scale: float = 0.1) -> QTensor:
    """A leaf of small random angles (normal, standard deviation `scale`) in `parameter_layout` order.
    All zeros would be a stationary point: the circuit would stay at |+>^n with a zero gradient."""
    return QTensor(rng.normal(0.0, scale, parameter_layout(n, layers)), requires_grad=True)


def plus_state(n: int) -> QTensor:
    """|+>^n: every amplitude 2^(-n/2), complex128 of shape [2] * n."""
    return QTensor(np.full([2] * n, 2.0 ** (-n / 2), dtype=np.complex128))


@functools.lru_cache(maxsize=None)
def _contraction(n: int, k: int) -> str:
    """The einsum subscripts of a 2 x 2 matrix acting on axis k of an n-axis state: 'zb,abcd->azcd'."""
    axes = string.ascii_letters[:n]
    new = string.ascii_letters[n]
    return f"{new}{axes[k]},{axes}->{axes[:k]}{new}{axes[k + 1:]}"


@functools.lru_cache(maxsize=None)
def _zz_phase_pattern(n: int, i: int) -> QTensor:
    """-i times Z_i Z_{i+1} on the pair's axes: -i where the bits agree, +i where they differ, shaped with
    2s on axes i, i + 1 and 1s elsewhere."""
    zz = np.array([[1.0, -1.0], [-1.0, 1.0]])
    return QTensor((-1j * zz).reshape([1] * i + [2, 2] + [1] * (n - i - 2)))


def rx(c: QTensor, s: QTensor) -> QTensor:
    """RX as a complex128 2 x 2 matrix from c = cos(phi/2) and s = sin(phi/2) (shape [1] each)."""
    return reshape(stack([c + 0j, s * -1j, s * -1j, c + 0j], 0), [2, 2])


def apply_rx(state: QTensor, c: QTensor, s: QTensor, k: int) -> QTensor:
    """RX(phi) on qubit k, c = cos(phi/2), s = sin(phi/2): one contraction with axis k of the state."""
    return einsum(_contraction(state.ndim, k), rx(c, s), state)


def apply_rzz(state: QTensor, c: QTensor, s: QTensor, i: int) -> QTensor:
    """RZZ(theta) on qubits (i, i + 1), c = cos(theta/2), s = sin(theta/2): the state times the phase
    c - i s Z_i Z_{i+1}, a tensor of shape [1, .., 2, 2, .., 1] broadcast over the other axes."""
    return state * (c + s * _zz_phase_pattern(state.ndim, i))


def circuit(params: QTensor, n: int, layers: int) -> QTensor:
    """The state the circuit prepares from |+>^n with `params` (see `parameter_layout`)."""
    if params.shape != list(parameter_layout(n, layers)):
        raise ValueError(f"parameters of shape {params.shape}, expected {list(parameter_layout(n, layers))}")
    half = params * 0.5
    cs, ss = cos(half), sin(half)
    state = plus_state(n)
    for layer in range(layers):
        for i in range(n - 1):
            state = apply_rzz(state, cs[layer, i], ss[layer, i], i)
        for k in range(n):
            state = apply_rx(state, cs[layer, n - 1 + k], ss[layer, n - 1 + k], k)
    return state


@functools.lru_cache(maxsize=None)
def _minus_zz_diagonal(n: int) -> QTensor:
    """-sum_i Z_i Z_{i+1} on every basis state, float64 of shape [2] * n."""
    z = 1.0 - 2.0 * np.indices([2] * n)  # z[i] is +1 where bit i is 0, -1 where it is 1
    return QTensor(-np.sum(z[:-1] * z[1:], axis=0))


def state_energy(state: QTensor) -> QTensor:
    """<psi|H|psi> of a normalised state of shape [2] * n, a float64 tensor of shape [1]. The ZZ terms are
    diagonal: |psi|^2 times their values. X_i maps the amplitude of a bit string to the string with bit i
    flipped, so <psi|X_i|psi> = Re sum conj(psi) * flip(psi, [i]); the flips are added first."""
    n = state.ndim
    zz = sums(square(abs(state)) * _minus_zz_diagonal(n))
    flipped = flip(state, [0])
    for i in range(1, n):
        flipped = flipped + flip(state, [i])
    return zz - real(sums(conj(state) * flipped))


def energy(params: QTensor, n: int, layers: int) -> QTensor:
    """The energy of the circuit's state, differentiable in `params`."""
    return state_energy(circuit(params, n, layers))


def exact_ground_energy(n: int, j: float = 1.0, h: float = 1.0) -> float:
    """The ground energy of H = -j sum Z_i Z_{i+1} - h sum X_i on an open chain of n qubits, without the
    2^n x 2^n matrix.

    With the string S_i = X_0 ... X_{i-1}, the Majorana operators a_i = S_i Z_i and b_i = S_i Y_i
    (Hermitian, squaring to 1, pairwise anticommuting) give X_i = i a_i b_i and Z_i Z_{i+1} = i b_i a_{i+1},
    so H = -i sum_{k,m} a_k T_{km} b_m with T the n x n bidiagonal matrix of h on the diagonal and -j just
    below it (T_{i+1,i} = -j; flipping the signs of alternate rows and columns, which keeps the singular
    values, makes it +j). The singular value decomposition T = U diag(sigma) V^T turns a' = U^T a and
    b' = V^T b into Majorana operators again, and H = -sum_k sigma_k (i a'_k b'_k), the i a'_k b'_k
    commuting, each with eigenvalues +-1. The open chain needs no boundary term, so every sign pattern is
    a state, and the ground energy is -sum_k sigma_k (the excitations cost 2 sigma_k). For j = h = 1 it is
    -sum_{k=1}^{n} 2 sin((2k - 1) pi / (4n + 2))."""
    t = np.diag(np.full(n, h)) + np.diag(np.full(n - 1, j), -1)
    return -float(np.sum(np.linalg.svd(t, compute_uv=False)))


class Adam:
    """Adam on the backend tensors of the leaves: moment estimates m and v, bias-corrected."""

    def __init__(self, params: list[QTensor], lr: float, betas: tuple[float, float] = (0.9, 0.999),
                 eps: float = 1e-8) -> None:
        self.params, self.lr, self.betas, self.eps = params, lr, betas, eps
        self.m: list[Tensor] = [p.data.zeros_like() for p in params]
        self.v: list[Tensor] = [p.data.zeros_like() for p in params]
        self.t = 0

    def step(self) -> None:
        b1, b2 = self.betas
        self.t += 1
        size = self.lr / (1.0 - b1 ** self.t)
        correction = 1.0 / (1.0 - b2 ** self.t)
        with no_grad():
            for p, m, v in zip(self.params, self.m, self.v):
                assert p.grad is not None
                g = p.grad.data
                m.mult_(b1)
                m.add_(g.mult(1.0 - b1))
                v.mult_(b2)
                v.add_(g.mult(g).mult(1.0 - b2))
                p.data.sub_(m.mult(size).div(v.mult(correction).sqrt().add(self.eps)))


def train(n: int = 8, layers: int = 4, steps: int = 200, lr: float = 0.1, seed: int = 1, every: int = 20,
          verbose: bool = True) -> tuple[float, NDArray[np.float64]]:
    """Minimise the energy with Adam; returns the final energy and the trained angles. The learning rate
    falls from `lr` to 0 along half a cosine, so the last steps settle instead of oscillating."""
    params = initial_parameters(n, layers, np.random.default_rng(seed))
    optimiser = Adam([params], lr)
    value = float("nan")
    for step in range(1, steps + 1):
        optimiser.lr = lr * 0.5 * (1.0 + math.cos(math.pi * (step - 1) / steps))
        loss = energy(params, n, layers)
        params.zero_grad()
        with retain_intermediate_grads(False):
            loss.backward()
        optimiser.step()
        value = loss.item()
        if verbose and (step % every == 0 or step == 1):
            print(f"step {step:5d}  energy {value:.8f}")
    with no_grad():
        value = energy(params, n, layers).item()
    return value, params.to_numpy()


def main(qubits: int = 8, layers: int = 4, steps: int = 200, lr: float = 0.1, seed: int = 1) -> float:
    start = time.time()
    value, _ = train(qubits, layers, steps, lr, seed, every=max(1, steps // 10))
    exact = exact_ground_energy(qubits)
    error = (value - exact) / math.fabs(exact)
    print(f"{qubits} qubits, {layers} layers, {steps} steps in {time.time() - start:.1f} s")
    print(f"energy {value:.8f}  exact ground energy {exact:.8f}  relative error {error:.2e}")
    return error


if __name__ == "__main__":
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--qubits", type=int, default=8, help="length of the chain (default 8)")
    parser.add_argument("--layers", type=int, default=4, help="layers of the circuit (default 4)")
    parser.add_argument("--steps", type=int, default=200, help="Adam steps (default 200)")
    parser.add_argument("--lr", type=float, default=0.1, help="initial Adam learning rate (default 0.1)")
    parser.add_argument("--seed", type=int, default=1, help="seed of the initial angles (default 1)")
    args = parser.parse_args()
    if not 2 <= args.qubits <= 24 or args.layers < 1 or args.steps < 1:
        parser.error("need 2 to 24 qubits, at least 1 layer and at least 1 step")
    main(args.qubits, args.layers, args.steps, args.lr, args.seed)
