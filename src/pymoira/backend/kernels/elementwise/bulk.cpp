// Multiversioned bulk loops; see bulk.hpp.
#include "kernels/elementwise/bulk.hpp"

#include <cmath>

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

// sqrt(re^2 + im^2), which vectorises; where the sum of squares may have overflowed (or is not
// finite) or underflowed (tiny but not both parts zero), hypot's careful result replaces it.
MOIRA_MULTIVERSION void abs_c128(const double* parts, double* out, int64_t n) {
    int careful = 0;
    for (int64_t i = 0; i < n; ++i) {
        const double re = parts[2 * i], im = parts[2 * i + 1];
        const double s = re * re + im * im;
        out[i] = std::sqrt(s);
        careful |= int(!(s < 0x1p1000)) | (int(s < 0x1p-1000) & int(re != 0.0 || im != 0.0));
    }
    if (!careful) return;
    for (int64_t i = 0; i < n; ++i) {
        const double re = parts[2 * i], im = parts[2 * i + 1];
        const double s = re * re + im * im;
        if (!(s < 0x1p1000) || (s < 0x1p-1000 && (re != 0.0 || im != 0.0))) out[i] = std::hypot(re, im);
    }
}

}  // namespace moira::bulk
