// Variance and standard deviation over the whole tensor or along one axis.
//
// Note [Stable variance]
// A lane's variance is M2 / (n - ddof), M2 the sum of squared deviations from the lane mean.
// M2 is never formed as sum(x^2) - n * mean^2, which cancels catastrophically when the mean is
// large next to the spread. Each lane (or each fixed chunk of a long one) takes two passes: its
// mean, then the sums of d = x - mean and of d^2 in the lane type (float for float32, the
// rounded mean's error being removed by the corrected form M2 = sum d^2 - (sum d)^2 / n),
// accumulated in double as the sums are (Note [How reductions add]). Chunks of long lanes run on
// separate threads and are merged pairwise in a fixed order by Chan's formula, so results do
// not depend on the thread count. With n - ddof <= 0 (one element and ddof 1, or none) the
// result is NaN, numpy's value. Results are float32 for bool and int64 inputs and keep the type
// of float inputs; shapes follow Note [Shapes of reduction results].
#pragma once

#include "core/tensor.hpp"
#include "kernels/reduce/reduce.hpp"

namespace moira {

// ddof: the divisor is n - ddof (1 for the unbiased estimate).
MOIRA_API Tensor var(const Tensor& t, Axis axis, bool keepdims, int64_t ddof);
MOIRA_API Tensor std_dev(const Tensor& t, Axis axis, bool keepdims, int64_t ddof);

}  // namespace moira
