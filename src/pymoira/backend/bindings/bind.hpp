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

// The Tensor type's slots (the buffer protocol), from bind_tensor.cpp.
PyType_Slot* tensor_type_slots();

}  // namespace pymoira
