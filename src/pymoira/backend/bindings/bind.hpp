// The binding areas of pymoira._core: bind_<area>.cpp defines init_<area>, which adds the
// area's methods to the Tensor class and its functions to the `moira` namespace; module.cpp
// calls them in order.
#pragma once

#include <nanobind/nanobind.h>

#include "moira.hpp"

namespace pymoira {

namespace nb = nanobind;

using TensorClass = nb::class_<moira::Tensor>;

void init_tensor(TensorClass& cls, nb::module_& moira);
void init_creation(TensorClass& cls, nb::module_& moira);
void init_elementwise(TensorClass& cls, nb::module_& moira);
void init_reduce(TensorClass& cls, nb::module_& moira);
void init_linalg(TensorClass& cls, nb::module_& moira);
void init_indexing(TensorClass& cls, nb::module_& moira);
void init_layout(TensorClass& cls, nb::module_& moira);

// Note [Signatures of the bindings]
// A binding whose C++ parameters are nb::handle (read by the functions of arguments.hpp, which
// give the messages) or whose result is an nb::object states its Python signature with nb::sig,
// next to its definition: help() shows it and the stub generator copies it into the .pyi. Types
// are spelled with their modules (collections.abc.Sequence, numpy.typing.ArrayLike) so that
// the generator imports them; the spellings many bindings share are these.
#define MOIRA_PY_TENSOR "pymoira._core.Tensor"
#define MOIRA_PY_NUMBER "bool | int | float"
#define MOIRA_PY_OPERAND MOIRA_PY_TENSOR " | " MOIRA_PY_NUMBER
// A shape (shape_from_python) or a list of integers that may be one integer (int_list_arg).
#define MOIRA_PY_INTS "int | collections.abc.Sequence[int]"
#define MOIRA_PY_INT_LIST "collections.abc.Sequence[int]"
#define MOIRA_PY_TENSOR_LIST "collections.abc.Sequence[" MOIRA_PY_TENSOR "]"
#define MOIRA_PY_INDEX_LIST "collections.abc.Sequence[str]"
#define MOIRA_PY_DTYPE "numpy.typing.DTypeLike | None"
#define MOIRA_PY_ARRAY "numpy.typing.NDArray[typing.Any]"

// The Tensor type's slots (the buffer protocol), from bind_tensor.cpp.
PyType_Slot* tensor_type_slots();

}  // namespace pymoira
