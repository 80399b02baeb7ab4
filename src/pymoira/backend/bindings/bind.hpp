// The binding areas of pymoira._core. Each area adds its methods to the Tensor class and its
// functions to the `moira` namespace; module.cpp calls them in order.
#pragma once

#include <nanobind/nanobind.h>

#include "bindings/pyconvert.hpp"

namespace pymoira {

using TensorClass = nb::class_<moira::Tensor>;

void init_tensor(TensorClass& cls, nb::module_& moira);
void init_creation(TensorClass& cls, nb::module_& moira);
void init_elementwise(TensorClass& cls, nb::module_& moira);
void init_reduce(TensorClass& cls, nb::module_& moira);
void init_linalg(TensorClass& cls, nb::module_& moira);
void init_indexing(TensorClass& cls, nb::module_& moira);
void init_layout(TensorClass& cls, nb::module_& moira);

// The Tensor type's slots (the buffer protocol).
PyType_Slot* tensor_type_slots();

// A dtype argument: None (the default float32), a name such as "float64", or an object whose
// `name` or `__name__` is one (numpy dtypes and scalar types).
moira::DType dtype_arg(nb::handle obj, const char* op);

}  // namespace pymoira
