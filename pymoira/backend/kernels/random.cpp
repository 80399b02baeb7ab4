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

template <class Draw>
void fill_with(Tensor& t, const char* op, Draw draw) {
    dispatch<TypeSet::Floating>(t.dtype(), op, [&](auto tag) {
        using T = typename decltype(tag)::type;
        t.prepare_overwrite_();
        T* p = t.data<T>();
        for (int64_t i = 0; i < t.numel(); ++i) p[i] = static_cast<T>(draw());
    });
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
