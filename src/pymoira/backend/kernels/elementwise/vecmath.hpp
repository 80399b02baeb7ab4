// Branch-free float32 math that compilers vectorise, for the element-wise hot loops.
//
// exp: exp(x) = 2^n * e^r with n = round(x / ln 2) and |r| <= ln 2 / 2, e^r by a degree-6
// polynomial (relative error about 1 ulp). The power of two is applied as two halves so that
// results that overflow become inf and results in the subnormal range stay exact-ish instead
// of flushing. NaN passes through.
#pragma once

#include <cmath>
#include <cstdint>
#include <cstring>

namespace moira::vec {

inline float bits_to_float(int32_t b) {
    float f;
    std::memcpy(&f, &b, 4);
    return f;
}

inline float exp(float x) {
    // Clamping keeps n inside the range the two scale factors can represent; NaN is restored
    // at the end.
    float xc = x < -104.0f ? -104.0f : x;
    xc = xc > 89.0f ? 89.0f : xc;
    // Round to nearest by adding and removing 1.5 * 2^23 (exact for |v| < 2^22; plain SSE2).
    float nf = (xc * 1.44269504088896341f + 12582912.0f) - 12582912.0f;
    int32_t n = static_cast<int32_t>(nf);
    float r = xc - nf * 0.693359375f - nf * -2.12194440e-4f;
    float z = r * r;
    float p = 1.9875691500e-4f;
    p = p * r + 1.3981999507e-3f;
    p = p * r + 8.3334519073e-3f;
    p = p * r + 4.1665795894e-2f;
    p = p * r + 1.6666665459e-1f;
    p = p * r + 5.0000001201e-1f;
    float y = p * z + r + 1.0f;
    int32_t h = n >> 1;
    float s1 = bits_to_float((h + 127) << 23);
    float s2 = bits_to_float((n - h + 127) << 23);
    float out = y * s1 * s2;
    return x != x ? x : out;
}

// tanh: an odd polynomial below |x| = 0.625, 1 - 2 / (e^2|x| + 1) above (with x's sign).
inline float tanh(float x) {
    float ax = std::fabs(x);
    float z = x * x;
    float small = ((((-5.70498872745e-3f * z + 2.06390887954e-2f) * z - 5.37397155531e-2f) * z +
                    1.33314422036e-1f) * z - 3.33332819422e-1f) * z * x + x;
    float e = exp(2.0f * ax);
    float big = 1.0f - 2.0f / (e + 1.0f);
    big = x < 0 ? -big : big;
    return ax < 0.625f ? small : big;
}

// cosh: (e^|x| + e^-|x|) / 2; above |x| = 88 as e^(|x| - ln 2), which stays finite up to the
// float range (relative error within 2e-6 there, about 1 ulp below).
inline float cosh(float x) {
    float ax = std::fabs(x);
    float e = exp(ax);
    float moderate = 0.5f * (e + 1.0f / e);
    float large = exp(ax - 0.693147180559945f);
    return ax < 88.0f ? moderate : large;
}

}  // namespace moira::vec
