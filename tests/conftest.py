import numpy as np
import pytest

from pymoira.tensor.tensor import QTensor


@pytest.fixture(autouse=True)
def _grad_recording_on():
    """Every test starts and ends with graph recording on."""
    QTensor.NO_GRAD = False
    yield
    QTensor.NO_GRAD = False


@pytest.fixture
def rng():
    return np.random.default_rng(1234)

