// Random fills of CUDA devices from the counter-based stream (Note [Random streams]): the same
// blocks and conversions as the CPU fills, so a seeded fill gives the same values on both.
#pragma once

#include <cstdint>

#include "core/dtype.hpp"
#include "kernels/table.hpp"

namespace moira::cuda {

// The table's entry: uniform and normal draws into float32 or float64 (RuntimeError for the
// others, not built yet).
void random(const RandomPlan& plan);

// p[0, n) of a contiguous float32 or float64 buffer <- low + span * u, u uniform, from blocks
// offset, offset + 1, ... under key; the caller advances the stream by the blocks used
// (n / 4 or n / 2 rounded up, as on the CPU).
void fill_uniform(DType type, void* p, int64_t n, uint64_t key, uint64_t offset, double low, double span, void* stream);
// p[0, n) <- mean + stddev * z, z standard normal (Box-Muller in double; fast_math in float).
void fill_normal(DType type, void* p, int64_t n, uint64_t key, uint64_t offset, double mean, double stddev,
                 bool fast_math, void* stream);

}  // namespace moira::cuda
