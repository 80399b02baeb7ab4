// The areas of pymoira.tensor.tensor. Each adds its module functions (and QTensor methods or
// operators) and is called once from module.cpp.
#pragma once

#include "object/qtensor.hpp"

namespace pymoira {

using QTensorClass = nb::class_<QTensor>;

void init_backward(nb::module_& m, QTensorClass& cls);
void init_creation(nb::module_& m);
void init_elementwise(nb::module_& m, QTensorClass& cls);
void init_reduce(nb::module_& m, QTensorClass& cls);
void init_linalg(nb::module_& m, QTensorClass& cls);
void init_indexing(nb::module_& m, QTensorClass& cls);

}  // namespace pymoira
