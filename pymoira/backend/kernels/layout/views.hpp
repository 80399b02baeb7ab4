// Layout operations that only re-index: each returns a view of its input's storage in O(1),
// whatever the size (see Note [Views and value semantics]), except reshape of a layout that
// cannot be regrouped, which copies.
#pragma once

#include <utility>
#include <vector>

#include "core/tensor.hpp"

namespace moira {

// The values under a new shape (one -1 is inferred): a view when t's strides allow it, else a
// contiguous copy. ValueError when the element counts differ.
MOIRA_API Tensor reshape(const Tensor& t, const Shape& shape);
// The same in place: only the receiver's view changes (it copies only when the layout cannot be
// regrouped). On error t is unchanged.
MOIRA_API void reshape_(Tensor& t, const Shape& shape);

// Axis d of the result is axis axes[d] of t. ValueError unless `axes` is a permutation of
// 0 .. ndim-1 (negative entries count from the end).
MOIRA_API Tensor permute(const Tensor& t, const std::vector<int64_t>& axes);

// t repeated along the axes where it is broadcast to `shape` (stride 0 there). ValueError naming
// both shapes when t does not broadcast to `shape`.
MOIRA_API Tensor broadcast_to(const Tensor& t, const Shape& shape);
// Both operands broadcast to their common shape.
MOIRA_API std::pair<Tensor, Tensor> broadcast(const Tensor& a, const Tensor& b);

// t read backwards along each of `axes` (negative strides). IndexError for an axis out of range.
MOIRA_API Tensor flip(const Tensor& t, const std::vector<int64_t>& axes);

// Positions start, start + step, ... (count of them) along `axis` (already wrapped and checked
// against the axis by the caller; step may be negative, not 0).
MOIRA_API Tensor slice_axis(const Tensor& t, int64_t axis, int64_t start, int64_t step, int64_t count);

}  // namespace moira
