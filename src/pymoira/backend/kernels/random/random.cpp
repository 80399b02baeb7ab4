// The random stream (a Philox key and a block offset, Note [Random streams]) and the fills that
// draw from it: each fill reserves its blocks and converts them in parallel.
#include "kernels/random/random.hpp"

#include <algorithm>
#include <atomic>
#include <cmath>
#include <type_traits>

#include "core/errors.hpp"
#include "kernels/parallel.hpp"
#include "kernels/random/philox.hpp"
#include "kernels/simd.hpp"

namespace moira {

namespace {

constexpr uint64_t kDefaultSeed = 0x6d6f697261ULL;

// Atomic so that fills from several threads take disjoint blocks; a seed() racing a fill leaves
// the fill's values unspecified but never shared with another fill's.
std::atomic<uint64_t> g_key{kDefaultSeed};
std::atomic<uint64_t> g_offset{0};

// Blocks [first, first + count) of the stream; the loop is vectorised across blocks.
MOIRA_MULTIVERSION void make_blocks(uint64_t key, uint64_t first, int64_t count, philox::Block* out) {
    for (int64_t b = 0; b < count; ++b) out[b] = philox::block(first + b, key);
}

// Fills p[0, n) with `PerBlock` values per block of a fresh piece of the stream:
// convert(block, out) writes out[0, PerBlock). `cost` weighs one block against a cheap
// element-wise step for the parallel grain.
template <int PerBlock, class T, class Convert>
void fill_blocks(T* p, int64_t n, int64_t cost, Convert convert) {
    constexpr int64_t kBatch = 256;  // blocks made at a time (4 KiB)
    const int64_t blocks = (n + PerBlock - 1) / PerBlock, full = n / PerBlock;
    const uint64_t key = g_key.load(std::memory_order_relaxed);
    const uint64_t first = g_offset.fetch_add(static_cast<uint64_t>(blocks), std::memory_order_relaxed);
    parallel_for(
        full,
        [&](int64_t lo, int64_t hi) {
            philox::Block batch[kBatch];
            for (int64_t b0 = lo; b0 < hi; b0 += kBatch) {
                const int64_t m = std::min(kBatch, hi - b0);
                make_blocks(key, first + b0, m, batch);
                T* out = p + b0 * PerBlock;
                for (int64_t b = 0; b < m; ++b) convert(batch[b], out + b * PerBlock);
            }
        },
        std::max<int64_t>(1, kParallelGrain / cost));
    if (full < blocks) {
        T rest[PerBlock];
        convert(philox::block(first + full, key), rest);
        std::copy(rest, rest + (n - full * PerBlock), p + full * PerBlock);
    }
}

// Dispatches over `S`, gives the receiver its own contiguous storage, and calls f(tag, p, n).
template <TypeSet S = TypeSet::Floating, class F>
void fill_with(Tensor& t, const char* op, F f) {
    dispatch<S>(t.dtype(), op, [&](auto tag) {
        using T = typename decltype(tag)::type;
        t.prepare_overwrite_();
        f(tag, t.data<T>(), t.numel());
    });
}

template <class T>
void fill_normal_values(T* p, int64_t n, double mean, double stddev, bool fast_math) {
    if (fast_math) {
        fill_blocks<philox::kNormalsPerBlock>(p, n, 32, [=](const philox::Block& b, T* out) {
            float z0, z1;
            philox::normal_pair_fast(b, z0, z1);
            out[0] = static_cast<T>(mean + stddev * z0);
            out[1] = static_cast<T>(mean + stddev * z1);
        });
    } else {
        fill_blocks<philox::kNormalsPerBlock>(p, n, 64, [=](const philox::Block& b, T* out) {
            double z0, z1;
            philox::normal_pair(b, z0, z1);
            out[0] = static_cast<T>(mean + stddev * z0);
            out[1] = static_cast<T>(mean + stddev * z1);
        });
    }
}

void check_finite(double v, const char* op, const char* what) {
    if (!std::isfinite(v)) fail<ValueError>(op, ": ", what, " must be finite, got ", v);
}

}  // namespace

void seed(uint64_t value) {
    g_key.store(value, std::memory_order_relaxed);
    g_offset.store(0, std::memory_order_relaxed);
}

void fill_uniform_(Tensor& t, double low, double high) {
    const double span = high - low;
    fill_with(t, "fill_rand_uniform", [&](auto tag, auto* p, int64_t n) {
        using T = typename decltype(tag)::type;
        if constexpr (std::is_same_v<T, float>) {
            fill_blocks<philox::kUniform32PerBlock>(p, n, 4, [=](const philox::Block& b, float* out) {
                for (int j = 0; j < 4; ++j) out[j] = static_cast<float>(low + span * philox::u24(b.w[j]));
            });
        } else {
            fill_blocks<philox::kUniform64PerBlock>(p, n, 4, [=](const philox::Block& b, T* out) {
                for (int j = 0; j < 2; ++j)
                    out[j] = static_cast<T>(low + span * philox::u53(b.w[2 * j], b.w[2 * j + 1]));
            });
        }
    });
}

void fill_normal_(Tensor& t, double mean, double stddev) {
    fill_with(t, "fill_rand_normal", [&](auto, auto* p, int64_t n) { fill_normal_values(p, n, mean, stddev, false); });
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
    fill_with(t, "fill_rand_normal_", [&](auto, auto* p, int64_t n) { fill_normal_values(p, n, mean, stddev, fast_math); });
}

void fill_rand_binary_(Tensor& t, double threshold) {
    if (threshold != threshold) fail<ValueError>("fill_rand_binary_: the threshold must not be NaN");
    fill_with<TypeSet::All>(t, "fill_rand_binary_", [&](auto tag, auto* p, int64_t n) {
        using T = typename decltype(tag)::type;
        fill_blocks<philox::kUniform64PerBlock>(p, n, 4, [=](const philox::Block& b, T* out) {
            for (int j = 0; j < 2; ++j) out[j] = static_cast<T>(philox::u53(b.w[2 * j], b.w[2 * j + 1]) >= threshold);
        });
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
