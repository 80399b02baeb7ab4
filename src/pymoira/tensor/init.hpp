// The areas of pymoira.tensor.tensor, one per source file of a family. Each adds its module
// functions (and QTensor methods or operators) and is called once from module.cpp.
#pragma once

#include "object/qtensor.hpp"

namespace pymoira {

using QTensorClass = nb::class_<QTensor>;

// object/
void init_fills(QTensorClass& cls);
// autograd/
void init_backward(nb::module_& m, QTensorClass& cls);
void init_no_grad(nb::module_& m);
// object/
void init_interop(nb::module_& m, QTensorClass& cls);
// creation/
void init_creation(nb::module_& m);
// elementwise/
void init_unary(nb::module_& m, QTensorClass& cls);
void init_binary(nb::module_& m, QTensorClass& cls);
void init_ternary(nb::module_& m, QTensorClass& cls);
// reduce/
void init_sums(nb::module_& m, QTensorClass& cls);
void init_extremes(nb::module_& m, QTensorClass& cls);
void init_statistics(nb::module_& m, QTensorClass& cls);
void init_order(nb::module_& m, QTensorClass& cls);
// linalg/
void init_matmul(nb::module_& m);
void init_contract(nb::module_& m);
// layout/
void init_reshape(nb::module_& m, QTensorClass& cls);
void init_permute(nb::module_& m, QTensorClass& cls);
void init_join(nb::module_& m);
void init_split(nb::module_& m);
void init_tile(nb::module_& m);
void init_flip_triangle(nb::module_& m);
// indexing/
void init_wrap_dim(nb::module_& m);
void init_select(nb::module_& m);
void init_advanced(nb::module_& m);
void init_subscript(nb::module_& m, QTensorClass& cls);

}  // namespace pymoira
