// The process-wide random stream (counter-based Philox 4x32-10) behind every random kernel.
//
// It starts from a fixed seed, so a program that never seeds still draws the same numbers on
// every run; seed() restarts the stream. Values do not depend on the number of threads (Note
// [Random streams] in philox.hpp gives the exact mapping from the stream to each element).
#pragma once

#include <cstdint>

#include "core/tensor.hpp"

namespace moira {

MOIRA_API void seed(uint64_t value);

// Uniform values in [0, 1) / standard normal values, float32.
MOIRA_API Tensor randu(const Shape& shape, int device);
MOIRA_API Tensor randn(const Shape& shape, int device);

// In-place fills of a floating tensor (copy-on-write first), parameters unchecked: low + (high -
// low) * u with u uniform in [0, 1); mean + stddev * z with z standard normal (double-precision
// Box-Muller).
MOIRA_API void fill_uniform_(Tensor& t, double low, double high);
MOIRA_API void fill_normal_(Tensor& t, double mean, double stddev);

// The fills of the fill_rand_ family. Every parameter must be finite (ValueError otherwise) and
// is checked before anything is drawn or written. Floating tensors only (TypeError), except
// fill_rand_binary_, which writes 0 and 1 in any element type.
// Uniform in [low, high); ValueError when low > high.
MOIRA_API void fill_rand_uniform_withbound_(Tensor& t, double low, double high);
// scale * u, u uniform in [0, 1): values in [0, scale), or (scale, 0] for a negative scale.
MOIRA_API void fill_rand_uniform_(Tensor& t, double scale);
// scale * u, u uniform in [-1, 1).
MOIRA_API void fill_rand_signed_uniform_(Tensor& t, double scale);
// Normal with mean `mean` and standard deviation `stddev` (ValueError when negative).
// fast_math: the Box-Muller transform in float precision from the same words as the double one
// (values agree to float accuracy except in the tails, which end at 5.8 standard deviations);
// otherwise in double precision, the values randn gives.
MOIRA_API void fill_rand_normal_(Tensor& t, double mean, double stddev, bool fast_math);
// 1 where a uniform draw u in [0, 1) is >= threshold, else 0 (so 1 with probability 1 - threshold).
MOIRA_API void fill_rand_binary_(Tensor& t, double threshold);

}  // namespace moira
