# Signatures for nanobind's stub generator (see CMakeLists.txt). Each entry is a regular expression
# matched against an object's qualified name, followed by the indented lines that replace what the
# generator would write; \1 is the first group, \doc the object's docstring. The first matching
# entry wins. pymoira._core's bindings spell their own signatures (nb::sig); the tensor module's
# bindings that take or return nb::object get their types here, with the names and defaults of
# the bindings. Its methods ending in `_` are listed explicitly: the generator takes such names
# for private ones and would leave them out.

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

^pymoira\.tensor\.tensor\.GradFn\.__call__$:
    def __call__(self, grad: CoreTensor) -> CoreTensor: ...

^pymoira\.tensor\.tensor\.QTensor\.__init__$:
    def __init__(self, data: QTensor | CoreTensor | ArrayLike, requires_grad: bool = False, nodes: list[QTensor.GraphNode] | None = None, device: int = 0) -> None: ...

^pymoira\.tensor\.tensor\.QTensor\.(data)$:
    @property
    def \1(self) -> CoreTensor:
        \doc
    @\1.setter
    def \1(self, value: CoreTensor, /) -> None: ...

^pymoira\.tensor\.tensor\.QTensor\.(requires_grad|is_bool)$:
    @property
    def \1(self) -> bool:
        \doc
    @\1.setter
    def \1(self, value: bool) -> None: ...

^pymoira\.tensor\.tensor\.QTensor\.(nodes)$:
    @property
    def \1(self) -> list[QTensor.GraphNode]:
        \doc
    @\1.setter
    def \1(self, value: list[QTensor.GraphNode]) -> None: ...

^pymoira\.tensor\.tensor\.QTensor\.(grad)$:
    @property
    def \1(self) -> QTensor | None:
        \doc
    @\1.setter
    def \1(self, value: QTensor | None) -> None: ...

^pymoira\.tensor\.tensor\.QTensor\.(device)$:
    @property
    def \1(self) -> int:
        \doc
    @\1.setter
    def \1(self, value: int) -> None: ...

^pymoira\.tensor\.tensor\.QTensor\.shape$:
    @property
    def shape(self) -> list[int]:
        \doc

^pymoira\.tensor\.tensor\.QTensor\.pdata$:
    @property
    def pdata(self) -> NDArray[Any]:
        \doc

^pymoira\.tensor\.tensor\.QTensor\.dtype$:
    @property
    def dtype(self) -> _DType[Any]:
        \doc

^pymoira\.tensor\.tensor\.QTensor\.NO_GRAD$:
    NO_GRAD: ClassVar[bool]

^pymoira\.tensor\.tensor\.QTensor\.__hash__$:
    def __hash__(self) -> int: ...

^pymoira\.tensor\.tensor\.QTensor\.__repr__$:
    def __repr__(self) -> str: ...

^pymoira\.tensor\.tensor\.QTensor\.item$:
    def item(self) -> float:
        \doc

^pymoira\.tensor\.tensor\.QTensor\.(getdata|to_numpy|invert)$:
    def \1(self) -> NDArray[Any]:
        \doc

^pymoira\.tensor\.tensor\.QTensor\.copy$:
    def copy(self) -> QTensor:
        \doc

^pymoira\.tensor\.tensor\.QTensor\.(argmax|argmin)$:
    def \1(self, *args: Any) -> QTensor:
        \doc

^pymoira\.tensor\.tensor\.QTensor\.GraphNode\.__init__$:
    def __init__(self, tensor: QTensor, df: _GradFunction, name: str = '') -> None: ...

^pymoira\.tensor\.tensor\.QTensor\.GraphNode\.tensor$:
    @property
    def tensor(self) -> QTensor:
        \doc
    @tensor.setter
    def tensor(self, value: QTensor) -> None: ...

^pymoira\.tensor\.tensor\.QTensor\.GraphNode\.df$:
    @property
    def df(self) -> _GradFunction:
        \doc
    @df.setter
    def df(self, value: _GradFunction) -> None: ...

^pymoira\.tensor\.tensor\.QTensor\.GraphNode\.name$:
    @property
    def name(self) -> str:
        \doc
    @name.setter
    def name(self, value: str) -> None: ...

^pymoira\.tensor\.tensor\.QTensor\.backward$:
    def backward(self, grad: QTensor | CoreTensor | ArrayLike | None = None) -> None:
        \doc

^pymoira\.tensor\.tensor\.QTensor\.__array_ufunc__$:
    def __array_ufunc__(self, ufunc: Any, method: str, *inputs: Any, **kwargs: Any) -> Any:
        \doc

^pymoira\.tensor\.tensor\.QTensor\.__array__$:
    def __array__(self, dtype: DTypeLike | None = None, copy: bool | None = None) -> NDArray[Any]:
        \doc

^pymoira\.tensor\.tensor\.QTensor\.__dlpack__$:
    def __dlpack__(self, **kwargs: Any) -> Any:
        \doc

^pymoira\.tensor\.tensor\.QTensor\.__dlpack_device__$:
    def __dlpack_device__(self) -> tuple[int, int]:
        \doc

^pymoira\.tensor\.tensor\.QTensor\.__getstate__$:
    def __getstate__(self) -> tuple[Any, ...]: ...

^pymoira\.tensor\.tensor\.QTensor\.__setstate__$:
    def __setstate__(self, state: tuple[Any, ...], /) -> None: ...

^pymoira\.tensor\.tensor\.QTensor\.(__r?(add|sub|mul|truediv|pow)__)$:
    def \1(self, other: _Operand, /) -> QTensor: ...

^pymoira\.tensor\.tensor\.QTensor\.(__eq__|__ne__)$:
    def \1(self, other: object) -> QTensor: ...  # type: ignore[override]

^pymoira\.tensor\.tensor\.QTensor\.(__lt__|__gt__|__le__|__ge__)$:
    def \1(self, other: QTensor | _Number) -> QTensor: ...

^pymoira\.tensor\.tensor\.QTensor\.__neg__$:
    def __neg__(self) -> QTensor: ...

^pymoira\.tensor\.tensor\.QTensor\.l2_norm$:
    def l2_norm(self) -> CoreTensor:
        \doc

^pymoira\.tensor\.tensor\.QTensor\.reshape$:
    def reshape(self, new_shape: Sequence[int]) -> QTensor:
        \doc

^pymoira\.tensor\.tensor\.QTensor\.reshape_$:
    def reshape_(self, new_shape: Sequence[int]) -> None:
        \doc

^pymoira\.tensor\.tensor\.QTensor\.transpose$:
    def transpose(self, new_dims: Sequence[int] | None = None) -> QTensor:
        \doc

^pymoira\.tensor\.tensor\.QTensor\.transpose_$:
    def transpose_(self, new_dims: Sequence[int] | None = None) -> None:
        \doc

^pymoira\.tensor\.tensor\.QTensor\.__getitem__$:
    def __getitem__(self, item: _Key) -> QTensor:
        \doc

^pymoira\.tensor\.tensor\.QTensor\.__setitem__$:
    def __setitem__(self, key: _Key, value: _Operand) -> None:
        \doc

^pymoira\.tensor\.tensor\.QTensor\.fill_$:
    def fill_(self, v: _Number) -> QTensor:
        \doc

^pymoira\.tensor\.tensor\.QTensor\.(fill_rand_uniform_|fill_rand_signed_uniform_)$:
    def \1(self, v: float = 1) -> None:
        \doc

^pymoira\.tensor\.tensor\.QTensor\.fill_rand_binary_$:
    def fill_rand_binary_(self, v: float = 0.5) -> None:
        \doc

^pymoira\.tensor\.tensor\.QTensor\.fill_rand_uniform_with_bound_$:
    def fill_rand_uniform_with_bound_(self, min_value: float, max_value: float) -> None:
        \doc

^pymoira\.tensor\.tensor\.QTensor\.fill_rand_normal_$:
    def fill_rand_normal_(self, m: float = 0, s: float = 1, fast_math: bool = True) -> None:
        \doc

^pymoira\.tensor\.tensor\.get_prev$:
    def get_prev(q: QTensor) -> list[QTensor]:
        \doc

^pymoira\.tensor\.tensor\.toposort$:
    def toposort(end_node: QTensor, parents: Callable[[QTensor], list[QTensor]] = ...) -> Iterator[QTensor]:
        \doc

^pymoira\.tensor\.tensor\.backprop$:
    def backprop(g: QTensor, end_node: QTensor) -> None:
        \doc

^pymoira\.tensor\.tensor\.no_grad\.__enter__$:
    def __enter__(self) -> no_grad: ...

^pymoira\.tensor\.tensor\.no_grad\.__exit__$:
    def __exit__(self, exc_type: type[BaseException] | None, exc_value: BaseException | None, traceback: TracebackType | None) -> bool: ...

^pymoira\.tensor\.tensor\.no_grad\.__call__$:
    def __call__(self, func: _F, /) -> _F: ...

^pymoira\.tensor\.tensor\.from_dlpack$:
    def from_dlpack(obj: Any) -> QTensor:
        \doc

^pymoira\.tensor\.tensor\.to_tensor$:
    def to_tensor(x: QTensor | CoreTensor | ArrayLike) -> QTensor:
        \doc

^pymoira\.tensor\.tensor\.(zeros|empty|ones)$:
    def \1(shape: _Shape, device: int = 0) -> QTensor:
        \doc

^pymoira\.tensor\.tensor\.full$:
    def full(shape: _Shape, value: _Number, device: int = 0) -> QTensor:
        \doc

^pymoira\.tensor\.tensor\.(ones_like|zeros_like)$:
    def \1(t: QTensor) -> QTensor:
        \doc

^pymoira\.tensor\.tensor\.full_like$:
    def full_like(t: QTensor, value: _Number) -> QTensor:
        \doc

^pymoira\.tensor\.tensor\.arange$:
    def arange(start: float, end: float, step: float = 1, device: int = 0, requires_grad: bool = False) -> QTensor:
        \doc

^pymoira\.tensor\.tensor\.linspace$:
    def linspace(start: float, end: float, nums: int, device: int = 0, requires_grad: bool = False) -> QTensor:
        \doc

^pymoira\.tensor\.tensor\.logspace$:
    def logspace(start: float, end: float, nums: int, base: float, device: int = 0, requires_grad: bool = False) -> QTensor:
        \doc

^pymoira\.tensor\.tensor\.eye$:
    def eye(size: int, offset: int = 0, device: int = 0, requires_grad: bool = False) -> QTensor:
        \doc

^pymoira\.tensor\.tensor\.diag$:
    def diag(t: QTensor, k: int = 0, requires_grad: bool = False) -> QTensor:
        \doc

^pymoira\.tensor\.tensor\.(randu|randn)$:
    def \1(shape: _Shape, device: int = 0, requires_grad: bool = False) -> QTensor:
        \doc

^pymoira\.tensor\.tensor\.broadcast$:
    def broadcast(t1: QTensor, t2: QTensor) -> tuple[QTensor, QTensor]:
        \doc

^pymoira\.tensor\.tensor\.helper_function_bmm$:
    def helper_function_bmm(t1: QTensor, t2: QTensor) -> QTensor | None:
        \doc

^pymoira\.tensor\.tensor\.(add|sub|mul|divide|power|maximum|minimum|equal|not_equal|less|greater|less_equal|greater_equal|logical_and|logical_or|logical_xor|matmul|helper_function_matmul2d|helper_function_matmul4d)$:
    def \1(t1: QTensor, t2: QTensor) -> QTensor:
        \doc

^pymoira\.tensor\.tensor\.(reciprocal|neg|exp|acos|asin|atan|tanh|sinh|cosh|abs|log|sqrt|square|sin|cos|tan|round|sign)$:
    def \1(t: QTensor, /) -> QTensor:
        \doc

^pymoira\.tensor\.tensor\.(floor|ceil|isfinite|isinf|isnan|isneginf|isposinf|logical_not|nonzero)$:
    def \1(t: QTensor) -> QTensor:
        \doc

^pymoira\.tensor\.tensor\.clip$:
    def clip(t: QTensor, min_val: float, max_val: float) -> QTensor:
        \doc

^pymoira\.tensor\.tensor\.where$:
    def where(condition: QTensor, t1: QTensor | _Number, t2: QTensor | _Number) -> QTensor:
        \doc

^pymoira\.tensor\.tensor\.(sums|mean|frobenius_norm|max|min)$:
    def \1(t: QTensor, axis: int | None = None, keepdims: bool = False) -> QTensor:
        \doc

^pymoira\.tensor\.tensor\.(var|std)$:
    def \1(t: QTensor, axis: int | None = None, keepdims: bool = False, unbiased: bool = True) -> QTensor:
        \doc

^pymoira\.tensor\.tensor\.median$:
    def median(t: QTensor, *kargs: Any) -> QTensor:
        \doc

^pymoira\.tensor\.tensor\.var_match_shape$:
    def var_match_shape(x: CoreTensor, shape: Sequence[int], axis: int | None) -> tuple[CoreTensor, int]:
        \doc

^pymoira\.tensor\.tensor\.(sort|argsort)$:
    def \1(t: QTensor, axis: int, descending: bool = False, stable: bool = True) -> QTensor:
        \doc

^pymoira\.tensor\.tensor\.(topK|argtopK)$:
    def \1(t: QTensor, k: int, axis: int = -1, if_descent: bool = True) -> QTensor:
        \doc

^pymoira\.tensor\.tensor\.cumsum$:
    def cumsum(t: QTensor, axis: int = -1) -> QTensor:
        \doc

^pymoira\.tensor\.tensor\.log_softmax$:
    def log_softmax(t: QTensor, axis: int) -> QTensor:
        \doc

^pymoira\.tensor\.tensor\.reshape$:
    def reshape(t: QTensor, shape: Sequence[int]) -> QTensor:
        \doc

^pymoira\.tensor\.tensor\.flatten$:
    def flatten(t: QTensor, start: int = 0, end: int = -1) -> QTensor:
        \doc

^pymoira\.tensor\.tensor\.squeeze$:
    def squeeze(t: QTensor, axis: int = -1) -> QTensor:
        \doc

^pymoira\.tensor\.tensor\.unsqueeze$:
    def unsqueeze(t: QTensor, axis: int = 0) -> QTensor:
        \doc

^pymoira\.tensor\.tensor\.(transpose|permute)$:
    def \1(t: QTensor, dim: Sequence[int] | None) -> QTensor:
        \doc

^pymoira\.tensor\.tensor\.swapaxis$:
    def swapaxis(t: QTensor, axis1: int, axis2: int) -> QTensor:
        \doc

^pymoira\.tensor\.tensor\.concatenate$:
    def concatenate(args: Sequence[QTensor], axis: int = 1) -> QTensor:
        \doc

^pymoira\.tensor\.tensor\.stack$:
    def stack(QTensors: Sequence[QTensor], axis: int) -> QTensor:
        \doc

^pymoira\.tensor\.tensor\.split$:
    def split(t: QTensor, split_section: Sequence[int], axis: int = 0) -> list[QTensor]:
        \doc

^pymoira\.tensor\.tensor\.chunk$:
    def chunk(t: QTensor, chunks: int, axis: int = 0) -> list[QTensor]:
        \doc

^pymoira\.tensor\.tensor\.tile$:
    def tile(t: QTensor, reps: Sequence[int]) -> QTensor:
        \doc

^pymoira\.tensor\.tensor\.broadcast_to$:
    def broadcast_to(t: QTensor, ref: QTensor) -> QTensor:
        \doc

^pymoira\.tensor\.tensor\.masked_fill$:
    def masked_fill(t: QTensor, mask: QTensor, value: _Number) -> QTensor:
        \doc

^pymoira\.tensor\.tensor\.flip$:
    def flip(t: QTensor, flip_dims: Sequence[int]) -> QTensor:
        \doc

^pymoira\.tensor\.tensor\.(triu|tril)$:
    def \1(t: QTensor, diagonal: int = 0) -> QTensor:
        \doc

^pymoira\.tensor\.tensor\.trace$:
    def trace(t: QTensor, k: int = 0) -> float:
        \doc

^pymoira\.tensor\.tensor\.maybe_wrap_dim$:
    def maybe_wrap_dim(dim: int, dim_post_expr: int, wrap_scalar: bool = True) -> int:
        \doc

^pymoira\.tensor\.tensor\.select$:
    def select(t: QTensor, index: Sequence[str | int | QTensor]) -> QTensor:
        \doc

^pymoira\.tensor\.tensor\.set_select$:
    def set_select(t: QTensor, index: Sequence[str | int | QTensor], set_tensor: QTensor) -> None:
        \doc

^pymoira\.tensor\.tensor\.get_bdshape_for_slice$:
    def get_bdshape_for_slice(key: tuple[Any, ...], data_shape: Sequence[int]) -> tuple[tuple[int, ...], list[NDArray[Any]]]:
        \doc

^pymoira\.tensor\.tensor\.SplitBackward\.__init__$:
    def __init__(self, index: int, split_section: Sequence[int] | int, t: QTensor, axis: int) -> None: ...
