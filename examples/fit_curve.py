"""Fit y = a * exp(b * x) to noisy samples by gradient descent with pymoira's element-wise operations.

The loss is the vector of squared errors; backward() on it gives the gradient of their sum.
Parameters are updated in place while graph recording is switched off.
"""
from __future__ import annotations

import numpy as np

from pymoira.tensor.tensor import QTensor, exp, no_grad


def main(steps: int = 120, lr: float = 0.01, seed: int = 0) -> tuple[float, float]:
    rng = np.random.default_rng(seed)
    x_np = np.linspace(0.0, 2.0, 64)
    y_np = 2.0 * np.exp(-1.5 * x_np) + rng.normal(0.0, 0.02, x_np.shape)
    x, y = QTensor(x_np), QTensor(y_np)

    a = QTensor(np.array([1.0]), requires_grad=True)
    b = QTensor(np.array([0.0]), requires_grad=True)
    for step in range(steps + 1):
        residual = a * exp(b * x) - y
        loss = residual * residual
        loss.backward()
        if step % 20 == 0:
            print(f"step {step:4d}  loss {loss.pdata.mean():.6f}  a {a.item():+.4f}  b {b.item():+.4f}")
        with no_grad():
            for p in (a, b):
                assert p.grad is not None
                p.data.sub_(p.grad.data.mult(lr))
                p.zero_grad()
    return a.item(), b.item()


if __name__ == "__main__":
    a, b = main()
    print(f"fitted a = {a:.3f} (true 2.0), b = {b:.3f} (true -1.5)")
