"""The examples: two MPI processes of the data-parallel one, on shares of each batch, end with the
parameters that one process computes on the full batches (to float64 rounding); every example passes
mypy --strict against the type stubs that the installed package ships."""
import importlib.util
import os
import shutil
import subprocess
import sys

import numpy as np
import pytest

EXAMPLE = os.path.join(os.path.dirname(__file__), "..", "..", "examples", "data_parallel.py")
MPIRUN = shutil.which("mpirun")


def _missing():
    if MPIRUN is None:
        return "mpirun is not installed (Open MPI: apt-get install openmpi-bin libopenmpi-dev)"
    for module in ("mpi4py", "sklearn"):
        if importlib.util.find_spec(module) is None:
            return f"{module} is not installed (pip install mpi4py scikit-learn)"
    return None


@pytest.mark.skipif(_missing() is not None, reason=str(_missing()))
def test_two_processes_match_one_on_the_full_batch(tmp_path):
    common = [sys.executable, EXAMPLE, "--steps", "25", "--batch", "48"]
    env = dict(os.environ, OMP_NUM_THREADS="1", OMPI_MCA_rmaps_base_oversubscribe="1")
    one, two = tmp_path / "one.npz", tmp_path / "two.npz"
    subprocess.run(common + ["--save", str(one)], check=True, env=env, timeout=300, capture_output=True)
    mpi = [MPIRUN, "--allow-run-as-root", "--oversubscribe", "-n", "2"]
    done = subprocess.run(mpi + common + ["--save", str(two)], env=env, timeout=300, capture_output=True, text=True)
    assert done.returncode == 0, done.stdout + done.stderr
    a, b = np.load(one), np.load(two)
    assert len(a.files) == len(b.files) == 4
    for name in a.files:
        np.testing.assert_allclose(b[name], a[name], rtol=1e-10, atol=1e-13)


ROOT = os.path.join(os.path.dirname(__file__), "..", "..")


NO_STUBS = pytest.mark.skipif("libasan" in os.environ.get("LD_PRELOAD", ""), reason="sanitizer builds ship no stubs")


@NO_STUBS
def test_installed_package_ships_typed_stubs():
    """py.typed and the stubs lie next to the modules; the tensor stub carries real signatures."""
    import pymoira.tensor.tensor as tensor_module

    package = os.path.dirname(tensor_module.__file__)
    root = os.path.dirname(package)
    for part in ("py.typed", os.path.join("_core", "__init__.pyi"), os.path.join("_core", "moira.pyi")):
        assert os.path.isfile(os.path.join(root, part)), part
    stub = open(os.path.join(package, "tensor.pyi"), encoding="utf-8").read()
    for text in ("class QTensor:", "def matmul(t1: QTensor, t2: QTensor) -> QTensor:",
                 "def fill_(self, v: _Number) -> QTensor:", "def sums(t: QTensor, axis: int | None = None",
                 "__all__"):
        assert text in stub, text
    assert "no_grad" in tensor_module.__all__ and "np" not in tensor_module.__all__


@NO_STUBS
@pytest.mark.skipif(importlib.util.find_spec("mypy") is None, reason="mypy is not installed (pip install mypy)")
def test_examples_pass_strict_type_checks():
    done = subprocess.run([sys.executable, "-m", "mypy", "--strict", "--cache-dir", os.devnull, "examples/"], cwd=ROOT,
                          capture_output=True, text=True, timeout=600)
    assert done.returncode == 0, done.stdout + done.stderr
