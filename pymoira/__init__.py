"""pymoira: a tensor engine with reverse-mode autograd for quantum-circuit and neural-network models."""

__version__ = "0.1.0"
