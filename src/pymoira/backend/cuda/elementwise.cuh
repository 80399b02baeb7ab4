// Element-wise kernels of CUDA devices, called by the device's kernel table with operands the
// front end has checked, converted and broadcast (host-side declarations; no CUDA types).
#pragma once

#include <cstdint>

#include "core/dtype.hpp"
#include "kernels/elementwise/elementwise.hpp"

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

// Contiguous operands of equal shape and the scalar cases (stride 0 in every axis) take the
// flat kernel with vectorised loads; any other layout takes the index-arithmetic kernel.
// `type` is the type the operation computes in; `stream` a cudaStream_t.
void binary(BinaryOp op, DType type, void* out, const void* a, const void* b, const Walk<3>& walk, void* stream);
void unary(UnaryOp op, DType type, void* out, const void* a, const Walk<2>& walk, void* stream);

}  // namespace moira::cuda
