// xoshiro256** seeded through splitmix64; uniform doubles from the top 53 bits, normals by the
// Box-Muller transform.
#include "kernels/random.hpp"

#include <cmath>

#include "core/errors.hpp"

namespace moira {

namespace {

constexpr uint64_t kDefaultSeed = 0x6d6f697261ULL;

struct Xoshiro256 {
    uint64_t s[4];

    void reseed(uint64_t value) {
        for (auto& w : s) {
            value += 0x9e3779b97f4a7c15ULL;
            uint64_t z = value;
            z = (z ^ (z >> 30)) * 0xbf58476d1ce4e5b9ULL;
            z = (z ^ (z >> 27)) * 0x94d049bb133111ebULL;
            w = z ^ (z >> 31);
        }
    }

    static uint64_t rotl(uint64_t x, int k) { return (x << k) | (x >> (64 - k)); }

    uint64_t next() {
        uint64_t result = rotl(s[1] * 5, 7) * 9;
        uint64_t t = s[1] << 17;
        s[2] ^= s[0];
        s[3] ^= s[1];
        s[1] ^= s[2];
        s[0] ^= s[3];
        s[2] ^= t;
        s[3] = rotl(s[3], 45);
        return result;
    }

    double uniform() { return static_cast<double>(next() >> 11) * 0x1.0p-53; }
};

Xoshiro256& generator() {
    static Xoshiro256 g = [] {
        Xoshiro256 x{};
        x.reseed(kDefaultSeed);
        return x;
    }();
    return g;
}

template <TypeSet S = TypeSet::Floating, class Draw>
void fill_with(Tensor& t, const char* op, Draw draw) {
    dispatch<S>(t.dtype(), op, [&](auto tag) {
        using T = typename decltype(tag)::type;
        t.prepare_overwrite_();
        T* p = t.data<T>();
        for (int64_t i = 0; i < t.numel(); ++i) p[i] = static_cast<T>(draw());
    });
}

void check_finite(double v, const char* op, const char* what) {
    if (!std::isfinite(v)) fail<ValueError>(op, ": ", what, " must be finite, got ", v);
}

}  // namespace

void seed(uint64_t value) { generator().reseed(value); }

void fill_uniform_(Tensor& t, double low, double high) {
    Xoshiro256& g = generator();
    fill_with(t, "fill_rand_uniform", [&] { return low + (high - low) * g.uniform(); });
}

void fill_normal_(Tensor& t, double mean, double stddev) {
    Xoshiro256& g = generator();
    bool have_spare = false;
    double spare = 0;
    fill_with(t, "fill_rand_normal", [&] {
        if (have_spare) {
            have_spare = false;
            return mean + stddev * spare;
        }
        double u1 = 1.0 - g.uniform();  // (0, 1]: log is finite
        double u2 = g.uniform();
        double r = std::sqrt(-2.0 * std::log(u1));
        spare = r * std::sin(2.0 * M_PI * u2);
        have_spare = true;
        return mean + stddev * r * std::cos(2.0 * M_PI * u2);
    });
}

void fill_rand_uniform_withbound_(Tensor& t, double low, double high) {
    check_finite(low, "fill_rand_uniform_withbound_", "the lower bound");
    check_finite(high, "fill_rand_uniform_withbound_", "the upper bound");
    if (low > high)
        fail<ValueError>("fill_rand_uniform_withbound_: the lower bound ", low, " is above the upper bound ", high);
    fill_uniform_(t, low, high);
}

void fill_rand_uniform_(Tensor& t, double scale) {
    check_finite(scale, "fill_rand_uniform_", "the scale");
    fill_uniform_(t, 0.0, scale);
}

void fill_rand_signed_uniform_(Tensor& t, double scale) {
    check_finite(scale, "fill_rand_signed_uniform_", "the scale");
    fill_uniform_(t, -scale, scale);
}

void fill_rand_normal_(Tensor& t, double mean, double stddev, bool fast_math) {
    check_finite(mean, "fill_rand_normal_", "the mean");
    check_finite(stddev, "fill_rand_normal_", "the standard deviation");
    if (stddev < 0) fail<ValueError>("fill_rand_normal_: the standard deviation must be >= 0, got ", stddev);
    if (!fast_math) return fill_normal_(t, mean, stddev);
    Xoshiro256& g = generator();
    bool have_spare = false;
    float spare = 0;
    fill_with(t, "fill_rand_normal_", [&] {
        if (have_spare) {
            have_spare = false;
            return mean + stddev * spare;
        }
        const uint64_t r = g.next();
        const float u1 = float((r >> 40) + 1) * 0x1.0p-24f;     // (0, 1]
        const float u2 = float(r & 0xffffff) * 0x1.0p-24f;      // [0, 1)
        const float rad = std::sqrt(-2.0f * std::log(u1));
        const float angle = 6.28318530717958648f * u2;
        spare = rad * std::sin(angle);
        have_spare = true;
        return mean + stddev * (rad * std::cos(angle));
    });
}

void fill_rand_binary_(Tensor& t, double threshold) {
    if (threshold != threshold) fail<ValueError>("fill_rand_binary_: the threshold must not be NaN");
    Xoshiro256& g = generator();
    fill_with<TypeSet::All>(t, "fill_rand_binary_", [&] { return g.uniform() >= threshold ? 1 : 0; });
}

Tensor randu(const Shape& shape, int device) {
    Tensor t(kDefaultFloat, shape, device);
    fill_uniform_(t, 0.0, 1.0);
    return t;
}

Tensor randn(const Shape& shape, int device) {
    Tensor t(kDefaultFloat, shape, device);
    fill_normal_(t, 0.0, 1.0);
    return t;
}

}  // namespace moira
