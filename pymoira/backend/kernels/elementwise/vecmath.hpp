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
    float nf = std::floor(xc * 1.44269504088896341f + 0.5f);
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

}  // namespace moira::vec
