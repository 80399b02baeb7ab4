// Layout operations that build a new tensor from copies of their inputs: joining along an
// existing or a new axis, and tiling; and the in-place add behind the gradient of splitting.
#pragma once

#include <vector>

#include "core/tensor.hpp"
#include "kernels/indexing/select.hpp"

namespace moira {

// The tensors joined along `axis` in list order, in their promoted element type. ValueError
// for an empty list, tensors without axes, or shapes that differ off the axis (naming both);
// IndexError for an axis out of range.
MOIRA_API Tensor concat(const std::vector<Tensor>& tensors, int64_t axis);

// The tensors, all of one shape, as the positions of a new axis `axis` (in [-ndim-1, ndim]).
// ValueError for an empty list or shapes that differ.
MOIRA_API Tensor stack(const std::vector<Tensor>& tensors, int64_t axis);

// t repeated reps[i] times along axis i (numpy's rule: a shorter `reps` or a tensor with fewer
// axes is padded with leading ones). ValueError for a negative repetition count or a result
// too large to address.
MOIRA_API Tensor tile(const Tensor& t, const Shape& reps);

// t[index] += g, for an index-string list of ranges and integers (no position lists): g has the
// region's shape or broadcasts to it (extra leading axes of length 1 allowed) and is converted to
// t's type. Every check runs before t is made writable (copy-on-write) and written.
MOIRA_API void add_region_(Tensor& t, const IndexList& index, const Tensor& g);

}  // namespace moira
