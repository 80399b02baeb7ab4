import os

import numpy as np
import pytest

from pymoira.tensor.tensor import QTensor


_NUMPY_PRINT_OPTIONS = np.get_printoptions()


@pytest.fixture(autouse=True)
def _fresh_process_state():
    """Every test starts with graph recording on and numpy's own print options (printing a large
    tensor changes them for the whole process)."""
    QTensor.NO_GRAD = False
    np.set_printoptions(**_NUMPY_PRINT_OPTIONS)
    yield
    QTensor.NO_GRAD = False


@pytest.fixture
def rng():
    return np.random.default_rng(1234)


def pytest_collection_modifyitems(config, items):
    """Resident-memory checks mean nothing under AddressSanitizer, which holds freed memory back."""
    if "libasan" not in os.environ.get("LD_PRELOAD", ""):
        return
    skip = pytest.mark.skip(reason="resident memory is not meaningful under AddressSanitizer")
    for item in items:
        if "rss" in item.keywords:
            item.add_marker(skip)
