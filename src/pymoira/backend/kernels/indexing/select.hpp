// Basic indexing through index-string lists (see Note [Index-string entries]): reading a region,
// writing into it in place, and the two gradient kernels.
#pragma once

#include <string>
#include <vector>

#include "core/tensor.hpp"

namespace moira {

using IndexList = std::vector<std::string>;

// The addressed region of t in the region's shape: a view of t when no entry is a position list,
// else a copy.
MOIRA_API Tensor select(const Tensor& t, const IndexList& index);

// Writes `values` into the addressed region of t, converted to t's element type. `values` has
// the region's shape or broadcasts to it (numpy's rule; extra leading axes of length 1 are
// allowed). Every check runs before the first write: on any error t is unchanged. Where a
// position list repeats a position, the last value written there stays.
MOIRA_API void set_select_(Tensor& t, const IndexList& index, const Tensor& values);

// The gradient of select: zeros of `shape` with g added at the addressed positions (repeated
// positions accumulate). g has the region's shape or broadcasts to it; the result has g's type.
MOIRA_API Tensor select_bp(const Shape& shape, const IndexList& index, const Tensor& g);
MOIRA_API Tensor select_bp(const Tensor& t, const IndexList& index, const Tensor& g);

// The gradient of set_select_ with respect to the written values: g (of t's shape) read at the
// addressed positions, in the region's shape.
MOIRA_API Tensor set_select_bp(const Tensor& t, const IndexList& index, const Tensor& g);

}  // namespace moira
