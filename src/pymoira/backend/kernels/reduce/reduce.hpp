// Reductions: sums, means and Euclidean norms over the whole tensor or along one axis, and the
// norm's gradient.
//
// Note [Shapes of reduction results]
// A whole-tensor reduction gives a tensor of shape [1], never a tensor without axes, so its one
// value is read as r.getdata()[0] and it broadcasts against any tensor. A reduction along an
// axis removes that axis (or keeps it with length 1 under keepdims); when that would leave no
// axis the result has shape [1] too. Axes may be negative (counted from the end); an axis outside
// [-ndim, ndim) raises IndexError. A tensor without axes reduces like one of shape [1].
//
// Note [Types of reduction results]
// Sums keep the element type, except that a sum of bool counts in int64. Means and norms of bool
// and int64 are float32; of floats they keep the type. Accumulation: see Note [How reductions
// add].
#pragma once

#include <optional>
#include <utility>

#include "core/tensor.hpp"

namespace moira {

// The axis of a reduction: none for the whole tensor (a result of shape [1]).
using Axis = std::optional<int64_t>;

MOIRA_API Tensor sum(const Tensor& t, Axis axis = std::nullopt, bool keepdims = false);
MOIRA_API Tensor mean(const Tensor& t, Axis axis = std::nullopt, bool keepdims = false);

// (norms, sums of squares), both of the reduced shape: sqrt of the sum of squares.
MOIRA_API std::pair<Tensor, Tensor> l2_norm(const Tensor& t, Axis axis = std::nullopt, bool keepdims = false);
// t * g / sqrt(sumsq), with g and sumsq (the reduced shape, with or without keepdims) spread
// along `axis`; 0 where sumsq is 0 (the norm's gradient there is taken as 0).
MOIRA_API Tensor l2_norm_grad(const Tensor& t, const Tensor& g, const Tensor& sumsq, int64_t axis);

}  // namespace moira
