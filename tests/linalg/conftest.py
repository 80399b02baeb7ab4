import pytest

from pymoira import _core

moira = _core.moira


def _paths():
    """Every way this build and CPU can compute a float product."""
    paths = ["blas"] if moira.blas_available() else []
    return paths + list(moira.blocked_kernels())


@pytest.fixture(params=_paths())
def kernel_path(request):
    """Routes float products through BLAS or one variant of the built-in kernel."""
    path = request.param
    previous = moira.set_blas(path == "blas")
    moira.set_blocked_kernel("auto" if path == "blas" else path)
    yield path
    moira.set_blas(previous)
    moira.set_blocked_kernel("auto")
