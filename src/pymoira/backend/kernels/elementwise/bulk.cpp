// Multiversioned bulk loops; see bulk.hpp.
#include "kernels/elementwise/bulk.hpp"

#include "kernels/elementwise/vecmath.hpp"
#include "kernels/simd.hpp"

namespace moira::bulk {

MOIRA_MULTIVERSION void exp_f32(const float* in, float* out, int64_t n) {
    for (int64_t i = 0; i < n; ++i) out[i] = vec::exp(in[i]);
}

MOIRA_MULTIVERSION void tanh_f32(const float* in, float* out, int64_t n) {
    for (int64_t i = 0; i < n; ++i) out[i] = vec::tanh(in[i]);
}

MOIRA_MULTIVERSION void cosh_f32(const float* in, float* out, int64_t n) {
    for (int64_t i = 0; i < n; ++i) out[i] = vec::cosh(in[i]);
}

}  // namespace moira::bulk
