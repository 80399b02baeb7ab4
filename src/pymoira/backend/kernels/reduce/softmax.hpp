// log-softmax along one axis and its gradient.
//
// Note [Log-softmax]
// out = x - m - log(sum(exp(x - m))) with m the lane's maximum, so no exp overflows (inputs of
// +-1000 are fine) and the largest term of the sum is exp(0) = 1. A NaN in a lane makes the
// lane NaN, as does a lane whose maximum is infinite (inf - inf). The gradient is
// g - exp(out) * sum(g) along the axis. Both compute in the floating type of their inputs
// (bool and int64 give float32); float32 uses the vectorised exp of vecmath.hpp.
#pragma once

#include "core/tensor.hpp"

namespace moira {

MOIRA_API Tensor log_softmax(const Tensor& t, int64_t axis);
// g - exp(out) * (g summed along axis); g and out (the forward result) have one shape.
MOIRA_API Tensor log_softmax_grad(const Tensor& g, const Tensor& out, int64_t axis);

}  // namespace moira
