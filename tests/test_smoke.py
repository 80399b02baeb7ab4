import numpy as np

from pymoira.tensor.tensor import QTensor


def test_worked_example_order_and_gradients():
    a = QTensor(np.array([1.0, 2.0]), requires_grad=True)
    b = QTensor(np.array([3.0, 4.0]), requires_grad=True)
    y = QTensor(a.data.mult(b.data), requires_grad=True,
                nodes=[QTensor.GraphNode(a, lambda g: g.mult(b.data)), QTensor.GraphNode(b, lambda g: g.mult(a.data))])
    z = QTensor(y.data.add(a.data), requires_grad=True,
                nodes=[QTensor.GraphNode(y, lambda g: g), QTensor.GraphNode(a, lambda g: g)])
    z.backward()
    np.testing.assert_allclose(a.grad.pdata, 1 + b.pdata)
    np.testing.assert_allclose(b.grad.pdata, a.pdata)
