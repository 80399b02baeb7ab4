# Patterns for nanobind's stub generator (see CMakeLists.txt). Each entry is a regular expression
# matched against an object's qualified name, followed by the indented lines that replace what the
# generator would write (none: the object is left out); \1 is the first group, \doc the object's
# docstring. The first matching entry wins. The bindings of both modules spell their own
# signatures (nb::sig); what is here cannot be: the tensor module's imports and the type aliases
# its signatures use, a class attribute and the comments that accept a narrowed __eq__.
# The tensor module's stub is generated with its private names, so that the methods ending in `_`
# are kept; the names that begin with one `_` (the module's helpers) are left out here.

# --- pymoira.tensor.tensor -------------------------------------------------------------------------
^pymoira\.tensor\.tensor\.__prefix__$:
    \from collections.abc import Callable, Iterator, Sequence
    \from types import TracebackType
    \from typing import Any, ClassVar, TypeVar
    \from numpy import dtype as _DType
    \from numpy.typing import ArrayLike, DTypeLike, NDArray
    _Number = bool | int | float
    _Shape = int | Sequence[int]
    _Operand = QTensor | ArrayLike
    _Key = int | slice | QTensor | tuple[int | slice | QTensor | None, ...] | None
    _GradFunction = Callable[[CoreTensor], CoreTensor]
    _F = TypeVar("_F", bound=Callable[..., Any])

^pymoira\.tensor\.tensor\.(\w+\.)*_[^_]\w*$:

^pymoira\.tensor\.tensor\.QTensor\.NO_GRAD$:
    NO_GRAD: ClassVar[bool]

^pymoira\.tensor\.tensor\.QTensor\.(__eq__|__ne__)$:
    def \1(self, other: object) -> QTensor: ...  # type: ignore[override]
