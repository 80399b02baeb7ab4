"""Gradients through complex values against closed forms: an expectation <psi|H|psi> of a complex
leaf (2 H psi), the quantum classifier's gates against the parameter-shift rule (real angles get
real gradients), and the convention z.grad = dL/dx + i dL/dy on one-element tensors."""
import importlib.util
from pathlib import Path

import numpy as np
import pytest

import pymoira.tensor.tensor as T
from pymoira.tensor.tensor import QTensor

_spec = importlib.util.spec_from_file_location(
    "quantum_classifier", Path(__file__).resolve().parents[2] / "examples" / "quantum_classifier.py")
qc = importlib.util.module_from_spec(_spec)
_spec.loader.exec_module(qc)

TOL = dict(rtol=1e-10, atol=1e-10)


def hermitian(rng, n):
    a = rng.normal(size=(n, n)) + 1j * rng.normal(size=(n, n))
    return a + a.conj().T


def times_by_sums(h, psi):
    """h @ psi for a vector psi, by broadcasting and a sum over the input axis."""
    return T.sums(h * T.reshape(psi, [1, -1]), 1)


def times_by_matmul(h, psi):
    return T.reshape(T.matmul(h, T.reshape(psi, [-1, 1])), [-1])


@pytest.mark.parametrize("times", [times_by_sums, times_by_matmul])
@pytest.mark.parametrize("seed_complex", [False, True])
def test_expectation_of_hermitian_gives_twice_h_psi(rng, times, seed_complex):
    h = hermitian(rng, 8)
    psi = rng.normal(size=8) + 1j * rng.normal(size=8)
    z = QTensor(psi, requires_grad=True)
    value = T.sums(T.conj(z) * times(QTensor(h), z))
    # backward() of a complex result takes the gradient of its real part: the same as real() first.
    (value if seed_complex else T.real(value)).backward()
    np.testing.assert_allclose(T.real(value).item(), (psi.conj() @ h @ psi).real, **TOL)
    assert z.grad.dtype == np.complex128
    np.testing.assert_allclose(z.grad.to_numpy(), 2 * h @ psi, **TOL)


# ---- a circuit of rotations: every angle's gradient is the parameter-shift difference ----------

# (gate, qubit) in order; "cnot" and "cz" act on qubit pairs and take no angle.
CIRCUIT = [("rx", 0), ("ry", 1), ("rz", 2), ("cnot", (0, 1)), ("ry", 2), ("rz", 0), ("cz", (1, 2)),
           ("rx", 1), ("cnot", (2, 0)), ("ry", 0), ("rz", 1)]
PAULI = {"x": np.array([[0, 1], [1, 0]]), "y": np.array([[0, -1j], [1j, 0]]), "z": np.diag([1, -1])}


def numpy_energy(thetas, h, n=3):
    def on(op, k):
        return np.kron(np.kron(np.eye(2 ** k), op), np.eye(2 ** (n - k - 1)))

    bits = (np.arange(2 ** n)[:, None] >> (n - 1 - np.arange(n))) & 1
    psi = np.zeros(2 ** n, complex)
    psi[0] = 1
    angles = iter(thetas)
    for name, q in CIRCUIT:
        if name == "cnot":
            flipped = bits.copy()
            flipped[:, q[1]] ^= bits[:, q[0]]
            psi = psi[flipped @ (1 << (n - 1 - np.arange(n)))]
        elif name == "cz":
            psi = psi * np.where(bits[:, q[0]] & bits[:, q[1]], -1, 1)
        else:
            t = next(angles)
            psi = on(np.cos(t / 2) * np.eye(2) - 1j * np.sin(t / 2) * PAULI[name[1]], q) @ psi
    return (psi.conj() @ h @ psi).real


def pymoira_energy(thetas, h, n=3):
    state = qc.zero_state(1, n)
    angles = iter(thetas)
    for name, q in CIRCUIT:
        if name == "cnot":
            state = qc.cnot(state, *q)
        elif name == "cz":
            state = qc.cz(state, *q)
        elif name == "rz":
            state = qc.apply_diagonal(state, qc.rz(next(angles)), q)
        else:
            state = qc.apply_gate(state, getattr(qc, name)(next(angles)), q)
    psi = T.reshape(state, [-1])
    return T.real(T.sums(T.conj(psi) * times_by_sums(QTensor(h), psi)))


def test_circuit_angles_match_parameter_shift(rng):
    h = hermitian(rng, 8)
    values = rng.uniform(-np.pi, np.pi, sum(name[0] == "r" for name, _ in CIRCUIT))
    thetas = [QTensor(values[i:i + 1], requires_grad=True) for i in range(len(values))]
    energy = pymoira_energy(thetas, h)
    np.testing.assert_allclose(energy.item(), numpy_energy(values, h), **TOL)
    energy.backward()
    shift = np.eye(len(values)) * np.pi / 2
    expected = [(numpy_energy(values + s, h) - numpy_energy(values - s, h)) / 2 for s in shift]
    assert all(t.grad.dtype == np.float64 for t in thetas)
    np.testing.assert_allclose([t.grad.item() for t in thetas], expected, **TOL)


# ---- the convention on one element: L real, z.grad = dL/dx + i dL/dy --------------------------

W = 0.5 - 2.0j


@pytest.mark.parametrize("loss, expected", [
    (lambda z: T.square(T.abs(z)), lambda z: 2 * z),
    (lambda z: T.real(z * T.conj(z)), lambda z: 2 * z),
    (lambda z: T.abs(z), lambda z: z / abs(z)),
    (lambda z: T.real(z * W), lambda z: np.conj(W)),
    (lambda z: T.imag(z * W), lambda z: 1j * np.conj(W)),
    (lambda z: T.real(T.conj(z) * W), lambda z: W),
    (lambda z: T.angle(z), lambda z: 1j * z / abs(z) ** 2),
    (lambda z: T.real(T.exp(z)), lambda z: np.conj(np.exp(z))),
    (lambda z: T.imag(T.square(z)), lambda z: 1j * np.conj(2 * z)),
    (lambda z: T.exp(z) * W, lambda z: np.conj(np.exp(z) * W)),  # complex result: seeds ones
], ids=["abs2", "z_conj_z", "abs", "real_zw", "imag_zw", "real_conj_z_w", "angle", "real_exp", "imag_square",
        "complex_seed"])
def test_one_element_convention(loss, expected):
    value = 0.7 - 1.3j
    z = QTensor(np.array([value]), requires_grad=True)
    loss(z).backward()
    assert z.grad.dtype == np.complex128
    np.testing.assert_allclose(z.grad.item(), expected(value), **TOL)


def test_complex_seed_equals_ones_and_real_angle_gets_real_part():
    z1, z2 = (QTensor(np.array([0.3 + 0.4j, -1.0j]), requires_grad=True) for _ in range(2))
    (z1 * W).backward()
    (z2 * W).backward(QTensor(np.ones(2, complex)))
    np.testing.assert_allclose(z1.grad.to_numpy(), z2.grad.to_numpy(), **TOL)
    # L = Re(e^{i theta} w): dL/dtheta = -Im(e^{i theta} w), a real gradient of a real leaf.
    theta = QTensor(np.array([0.9]), requires_grad=True)
    T.real(T.exp(theta * 1j) * W).backward()
    assert theta.grad.dtype == np.float64
    np.testing.assert_allclose(theta.grad.item(), -(np.exp(0.9j) * W).imag, **TOL)


@pytest.mark.parametrize("dtype, tol", [(np.complex64, 1e-5), (np.complex128, 1e-12)])
@pytest.mark.parametrize("shape", [(1, 2, 2, 1), (2, 1, 1, 2), (1, 2, 1, 2)])
def test_broadcast_factor_folds_over_separate_axes(rng, dtype, tol, shape):
    """The factor's gradient sums over axes on both sides of its own (a fold in two passes, the
    intermediate in complex128)."""
    a = (rng.normal(size=(2, 2, 2, 2)) + 1j * rng.normal(size=(2, 2, 2, 2))).astype(dtype)
    b = QTensor((rng.normal(size=shape) + 1j * rng.normal(size=shape)).astype(dtype), requires_grad=True)
    T.real(T.sums(QTensor(a) * b)).backward()
    assert b.grad.dtype == dtype
    axes = tuple(d for d, n in enumerate(shape) if n == 1)
    np.testing.assert_allclose(b.grad.to_numpy(), np.conj(a).sum(axis=axes, keepdims=True), rtol=tol, atol=tol)
