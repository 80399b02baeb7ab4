// Creation kernels: tensors made from a shape and a fill, from another tensor's shape, as
// ranges, and as identity and diagonal matrices.
#pragma once

#include "core/tensor.hpp"

namespace moira {

MOIRA_API Tensor empty(const Shape& shape, int device, DType dtype = kDefaultFloat);
MOIRA_API Tensor zeros(const Shape& shape, int device, DType dtype = kDefaultFloat);
MOIRA_API Tensor ones(const Shape& shape, int device, DType dtype = kDefaultFloat);
MOIRA_API Tensor full(const Shape& shape, Scalar value, int device, DType dtype = kDefaultFloat);

// Writes `value` into every element of t, in place (copy-on-write first).
MOIRA_API void fill_(Tensor& t, Scalar value);

// Values to be written into a tensor of type `dtype`: v converted, contiguous; a tensor made from
// a Python number gives that exact number (Note [Weak scalars]), not its float32 rounding.
// TypeError for complex values into a real type.
MOIRA_API Tensor values_as(const Tensor& v, DType dtype);

// Same shape, type and device as `t`.
MOIRA_API Tensor zeros_like(const Tensor& t);
MOIRA_API Tensor ones_like(const Tensor& t);
MOIRA_API Tensor full_like(const Tensor& t, Scalar value);

// start, start + step, ... stopping before `end`. ValueError for a zero or non-finite step.
MOIRA_API Tensor arange(double start, double end, double step, int device, DType dtype = kDefaultFloat);
// `nums` evenly spaced values from start to end, both included. ValueError for nums < 0.
MOIRA_API Tensor linspace(double start, double end, int64_t nums, int device);
// base ** linspace(start, end, nums).
MOIRA_API Tensor logspace(double start, double end, int64_t nums, double base, int device);
// n x n with ones on diagonal `offset` (positive above the main one). ValueError for n < 0.
MOIRA_API Tensor eye(int64_t n, int64_t offset, int device);
// 1-D t: a square matrix with t on diagonal k. 2-D t: t with everything off diagonal k zeroed.
MOIRA_API Tensor diag(const Tensor& t, int64_t k = 0);

}  // namespace moira
