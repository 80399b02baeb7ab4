// Cumulative sums along one axis and their gradient.
//
// Note [Cumulative sums]
// A running sum is kept in the accumulator type of the sums (double for float32 and float64,
// int64 for bool and int64) and rounded into each output, so float32 results carry one rounding
// each rather than the drift of a float32 running sum, and every layout gives the same numbers:
// contiguous lanes are scanned a few lanes at a time (independent chains keep the adder busy),
// adjacent lanes a row of lanes per step. Results keep the element type; bool sums are int64.
// The gradient of a cumulative sum is the cumulative sum taken from the end of the axis: the
// same scan over views of the gradient and the result read backwards.
#pragma once

#include "core/tensor.hpp"

namespace moira {

MOIRA_API Tensor cumsum(const Tensor& t, int64_t axis);
// The running sums of g along `axis` taken from its end.
MOIRA_API Tensor cumsum_grad(const Tensor& g, int64_t axis);

}  // namespace moira
