"""pymoira: a tensor engine with reverse-mode autograd for quantum-circuit and neural-network models."""

import os as _os

# Large kernels run on OpenMP threads. Idle threads spin only briefly before sleeping, so a
# machine that is busy with other work does not stall every parallel loop; set GOMP_SPINCOUNT
# (or OMP_WAIT_POLICY) yourself to override.
_os.environ.setdefault("GOMP_SPINCOUNT", "10000")

__version__ = "0.1.0"
