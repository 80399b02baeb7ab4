// Element-wise kernels of CUDA devices: the binary and unary entries of a CUDA kernel table, with
// operands the front end has checked, converted and planned (host-side declarations; no CUDA
// types).
#pragma once

#include <cstdint>

#include "core/dtype.hpp"
#include "kernels/elementwise/elementwise.hpp"
#include "kernels/table.hpp"

namespace moira::cuda {

// The walk of K operands over the result's extents: strides in elements (0 where an operand
// is broadcast), operand 0 the result. Axes of extent 1 and axes that merge into their
// neighbour should be dropped first; kWalkDims of them travel as kernel arguments.
constexpr int kWalkDims = 12;

template <int K>
struct Walk {
    int ndim = 0;
    int64_t numel = 0;
    int64_t extent[kWalkDims] = {};
    int64_t stride[K][kWalkDims] = {};
};

// The table's entries (on the current stream). Contiguous operands of equal shape and the scalar
// cases (stride 0 in every axis) take the flat kernel with vectorised loads; any other layout
// takes the index-arithmetic kernel. `type` is the type the operation computes in.
void binary(BinaryOp op, DType type, const WalkPlan<3>& plan);
void unary(UnaryOp op, DType type, const WalkPlan<2>& plan);

}  // namespace moira::cuda
