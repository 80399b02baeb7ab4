// Bulk loops for the hottest float32 functions (and the complex128 modulus), compiled for several instruction sets and
// chosen at load time (the build stays portable; AVX2/AVX-512 machines get wide vectors).
#pragma once

#include <cstdint>

namespace moira::bulk {

void exp_f32(const float* in, float* out, int64_t n);
void tanh_f32(const float* in, float* out, int64_t n);
void cosh_f32(const float* in, float* out, int64_t n);
// Moduli of n complex128 values given as 2n interleaved parts.
void abs_c128(const double* parts, double* out, int64_t n);

}  // namespace moira::bulk
