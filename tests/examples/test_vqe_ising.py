"""The Ising VQE example against dense numpy: the free-fermion ground energy, the circuit's energy and
its gradient, and training."""
import functools
import importlib.util
import os

import numpy as np
import pytest

from pymoira.tensor.tensor import QTensor

_PATH = os.path.join(os.path.dirname(__file__), "..", "..", "examples", "vqe_ising.py")
_SPEC = importlib.util.spec_from_file_location("vqe_ising", _PATH)
vqe = importlib.util.module_from_spec(_SPEC)
_SPEC.loader.exec_module(vqe)

I2, X, Z = np.eye(2), np.array([[0.0, 1.0], [1.0, 0.0]]), np.diag([1.0, -1.0])


def on(ops, n):
    """The 2^n x 2^n operator with ops[k] on qubit k (qubit 0 the most significant bit)."""
    return functools.reduce(np.kron, [ops.get(k, I2) for k in range(n)])


def dense_h(n):
    return -sum(on({i: Z, i + 1: Z}, n) for i in range(n - 1)) - sum(on({i: X}, n) for i in range(n))


def dense_energy(angles, n):
    """The circuit as products of 2^n x 2^n matrices; every gate is exp(-i a/2 P) = cos - i sin P."""
    psi = np.full(2 ** n, 2.0 ** (-n / 2), dtype=complex)
    for row in angles:
        gates = [on({i: Z, i + 1: Z}, n) for i in range(n - 1)] + [on({k: X}, n) for k in range(n)]
        for a, p in zip(row, gates):
            psi = (np.cos(a / 2) * np.eye(2 ** n) - 1j * np.sin(a / 2) * p) @ psi
    return float(np.real(psi.conj() @ dense_h(n) @ psi))


@pytest.mark.parametrize("n", range(2, 11))
def test_free_fermion_energy_matches_dense_diagonalisation(n):
    assert abs(vqe.exact_ground_energy(n) - np.linalg.eigvalsh(dense_h(n))[0]) < 1e-10


@pytest.mark.parametrize("n, layers", [(4, 2), (3, 3)])
def test_energy_and_gradient_match_dense_reference(n, layers):
    angles = np.random.default_rng(3).uniform(-np.pi, np.pi, vqe.parameter_layout(n, layers))
    params = QTensor(angles.copy(), requires_grad=True)
    e = vqe.energy(params, n, layers)
    e.backward()
    assert abs(e.item() - dense_energy(angles, n)) < 1e-10
    # Every gate is exp(-i a/2 P) with P^2 = 1: the parameter-shift rule gives the exact derivative.
    expected = np.empty_like(angles)
    for idx in np.ndindex(angles.shape):
        shift = np.zeros_like(angles)
        shift[idx] = np.pi / 2
        expected[idx] = (dense_energy(angles + shift, n) - dense_energy(angles - shift, n)) / 2
    assert params.grad.dtype == np.float64
    np.testing.assert_allclose(params.grad.to_numpy(), expected, rtol=0, atol=1e-10)


def test_state_is_normalised_and_adam_lowers_the_energy():
    n, layers = 4, 2
    params = vqe.initial_parameters(n, layers, np.random.default_rng(1))
    assert abs(np.sum(np.abs(vqe.circuit(params, n, layers).to_numpy()) ** 2) - 1) < 1e-12
    start = vqe.energy(params, n, layers).item()
    values = [vqe.train(n, layers, steps, lr=0.05, seed=1, verbose=False)[0] for steps in (5, 300)]
    assert start > values[0] > values[1] > vqe.exact_ground_energy(n)
    assert (values[1] - vqe.exact_ground_energy(n)) / -vqe.exact_ground_energy(n) < 1e-3
