// Advanced indexing in the backend: block gathers and scatters addressed by rows of positions
// (numpy-style integer-array indexing, prepared by the tensor module), and boolean masks.
//
// Note [Block addressing of advanced indexing]
// The data is seen as consecutive blocks of k elements in row-major order. `indice` holds m
// rows of n positions; position p addresses block sum_i indice[i][p] * strides[i], where row i
// indexes an axis of length mshape[i] (a negative position counts from the end of its axis).
// Every position is checked against its axis, and the block it addresses against the data,
// before anything is read or written; a bad one raises IndexError naming the index, the axis
// and its length. Blocks of k = 0 elements (an axis of length 0 behind the indexed ones) are as
// many as the indexed axes address, the product of mshape: positions inside those axes are
// valid and move nothing. Counts and block numbers that overflow int64 raise OverflowError.
// At most 10 axes are indexed (the format of mshape and strides).
#pragma once

#include "core/tensor.hpp"

namespace moira {

struct BlockRows {
    int64_t n = 0, m = 0, k = 0;
    Shape mshape, strides;  // m entries each
    Tensor indice;          // m * n positions
};

// result <- block p of data for every p (result: n * k elements, any shape; converted to its type).
MOIRA_API void advance_gather_into(const Tensor& data, const BlockRows& rows, Tensor& result);
// out[block p] += g[p] for every p (repeated blocks accumulate); g: n * k elements.
MOIRA_API void advance_gather_bp_(const Tensor& g, const BlockRows& rows, Tensor& out);
// data[block p] <- values[p] for every p, in order (the last write to a repeated block stays).
MOIRA_API void advance_scatter_(Tensor& data, const BlockRows& rows, const Tensor& values);
// g's block p for every p, as a new tensor of `shape` (n * k elements): the written values' gradient.
MOIRA_API Tensor advance_scatter_bp(const Tensor& g, const BlockRows& rows, const Shape& shape);

// Boolean masks: `mask` has the data's shape; an element counts as set when it is not zero.
// The set elements of data in row-major order, 1-D.
MOIRA_API Tensor mask_select(const Tensor& data, const Tensor& mask);
// Zeros of data's shape (g's type) with g's values at the set positions.
MOIRA_API Tensor mask_select_bp(const Tensor& data, const Tensor& mask, const Tensor& g);
// Writes values (one per set position, or one value for all) into the set positions in place.
MOIRA_API void mask_set_(Tensor& data, const Tensor& mask, const Tensor& values);
// g's values at the set positions, 1-D: the written values' gradient.
MOIRA_API Tensor mask_set_bp(const Tensor& data, const Tensor& mask, const Tensor& g);

}  // namespace moira
