// Bulk loops for the hottest float32 functions, compiled for several instruction sets and
// chosen at load time (the build stays portable; AVX2/AVX-512 machines get wide vectors).
#pragma once

#include <cstdint>

// Marks a function compiled for AVX-512, AVX2 and baseline x86-64, one chosen at load time.
#if defined(__x86_64__) && defined(__GNUC__) && !defined(__clang__)
#define MOIRA_MULTIVERSION __attribute__((target_clones("avx512f", "arch=haswell", "default")))
#else
#define MOIRA_MULTIVERSION
#endif

namespace moira::bulk {

void exp_f32(const float* in, float* out, int64_t n);
void tanh_f32(const float* in, float* out, int64_t n);
void cosh_f32(const float* in, float* out, int64_t n);

}  // namespace moira::bulk
