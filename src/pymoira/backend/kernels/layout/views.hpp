// Layout operations that only re-index: each returns a view of its input's storage in O(1),
// whatever the size (see Note [Views and value semantics]), except reshape and flatten of a
// layout that cannot be regrouped, which copy. Every argument is checked before anything is
// made; in-place forms leave the receiver unchanged when they fail.
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

// Axes start .. end (both included; negative values count from the end) merged into one. A
// tensor without axes flattens to [1]. IndexError for an axis out of range, ValueError when
// start comes after end.
MOIRA_API Tensor flatten(const Tensor& t, int64_t start = 0, int64_t end = -1);

// Without axis `axis`, which must have length 1 (ValueError otherwise); a tensor without axes
// is returned as it is.
MOIRA_API Tensor squeeze(const Tensor& t, int64_t axis);
MOIRA_API void squeeze_(Tensor& t, int64_t axis);
// With a new axis of length 1 at position `axis` of the result (in [-ndim-1, ndim]).
MOIRA_API Tensor unsqueeze(const Tensor& t, int64_t axis);

// Axis d of the result is axis axes[d] of t. ValueError unless `axes` is a permutation of
// 0 .. ndim-1 (negative entries count from the end).
MOIRA_API Tensor permute(const Tensor& t, const std::vector<int64_t>& axes);
MOIRA_API void permute_(Tensor& t, const std::vector<int64_t>& axes);
// The axes in reverse order.
MOIRA_API std::vector<int64_t> reversed_axes(int64_t ndim);
// Axes a and b exchanged.
MOIRA_API Tensor swapaxes(const Tensor& t, int64_t a, int64_t b);

// t repeated along the axes where it is broadcast to `shape` (stride 0 there). ValueError naming
// both shapes when t does not broadcast to `shape`.
MOIRA_API Tensor broadcast_to(const Tensor& t, const Shape& shape);
// t repeated to the shape that t and `other` broadcast to together (numpy's rule): `other`'s
// shape when it covers t's, but also t's own extents where `other` has length 1.
MOIRA_API Tensor broadcast_against(const Tensor& t, const Tensor& other);
// Both operands broadcast to their common shape.
MOIRA_API std::pair<Tensor, Tensor> broadcast(const Tensor& a, const Tensor& b);

// t read backwards along each of `axes` (negative strides). IndexError for an axis out of range,
// ValueError for an axis named twice.
MOIRA_API Tensor flip(const Tensor& t, const std::vector<int64_t>& axes);

// Positions start, start + step, ... (count of them) along `axis` (already wrapped and checked
// against the axis by the caller; step may be negative, not 0).
MOIRA_API Tensor slice_axis(const Tensor& t, int64_t axis, int64_t start, int64_t step, int64_t count);

// Consecutive pieces along `axis`: piece i has sizes[i] positions. ValueError unless the sizes
// are non-negative and add up to the axis length.
MOIRA_API std::vector<Tensor> split(const Tensor& t, const Shape& sizes, int64_t axis);
// `chunks` pieces of d / chunks positions each (d: the axis length, rounded down): piece i
// starts at i * (d / chunks); the last d % chunks positions belong to no piece. ValueError for
// chunks < 1.
MOIRA_API std::vector<Tensor> chunk(const Tensor& t, int64_t chunks, int64_t axis);

}  // namespace moira
