// The process-wide random generator (xoshiro256**) behind every random kernel.
//
// It starts from a fixed seed, so a program that never seeds still draws the same numbers on
// every run; seed() restarts the stream.
#pragma once

#include <cstdint>

#include "core/tensor.hpp"

namespace moira {

MOIRA_API void seed(uint64_t value);

// Uniform values in [0, 1) / standard normal values, float32.
MOIRA_API Tensor randu(const Shape& shape, int device = kCPU);
MOIRA_API Tensor randn(const Shape& shape, int device = kCPU);

// In-place fills of a floating tensor (copy-on-write first).
MOIRA_API void fill_uniform_(Tensor& t, double low, double high);
MOIRA_API void fill_normal_(Tensor& t, double mean, double stddev);

}  // namespace moira
