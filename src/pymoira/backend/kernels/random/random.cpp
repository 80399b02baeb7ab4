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
#include "kernels/table.hpp"

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

// Fills p[0, n) with `PerBlock` values per block of the plan's piece of the stream:
// convert(block, out) writes out[0, PerBlock). `cost` weighs one block against a cheap
// element-wise step for the parallel grain.
template <int PerBlock, class T, class Convert>
void fill_blocks(T* p, int64_t n, uint64_t key, uint64_t first, int64_t cost, Convert convert) {
    constexpr int64_t kBatch = 256;  // blocks made at a time (4 KiB)
    const int64_t blocks = (n + PerBlock - 1) / PerBlock, full = n / PerBlock;
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
    (void)blocks;
}

// Values one block of the stream gives for a draw into `type`.
int per_block(RandomDraw draw, DType type) {
    if (draw == RandomDraw::Uniform && type == DType::Float32) return philox::kUniform32PerBlock;
    if (draw == RandomDraw::Normal || draw == RandomDraw::NormalFast) return philox::kNormalsPerBlock;
    return philox::kUniform64PerBlock;
}

// Reserves the tensor's piece of the stream and fills it on its device (copy-on-write first). A
// complex tensor is filled as the real tensor of its interleaved parts: element i takes values
// 2i (real part) and 2i + 1 (imaginary part) of the stream, drawn independently.
template <TypeSet S = TypeSet::Inexact>
void draw_into(Tensor& t, const char* op, RandomDraw draw, double a, double b) {
    dispatch<S>(t.dtype(), op, [](auto) {});  // the type check, before anything is drawn
    t.prepare_overwrite_();
    const bool parts = is_complex(t.dtype());
    const DType type = parts ? real_type_of(t.dtype()) : t.dtype();
    const int64_t n = parts ? 2 * t.numel() : t.numel();
    const int64_t per = per_block(draw, type);
    const uint64_t blocks = static_cast<uint64_t>((n + per - 1) / per);
    RandomPlan plan{draw, type, t.raw_mem(), n, g_key.load(std::memory_order_relaxed),
                    g_offset.fetch_add(blocks, std::memory_order_relaxed), a, b};
    if (n > 0) kernels_of(t).random(plan);
}

template <class T>
void fill_normal_values(T* p, int64_t n, uint64_t key, uint64_t first, double mean, double stddev, bool fast_math) {
    if (fast_math) {
        fill_blocks<philox::kNormalsPerBlock>(p, n, key, first, 32, [=](const philox::Block& b, T* out) {
            float z0, z1;
            philox::normal_pair_fast(b, z0, z1);
            out[0] = static_cast<T>(mean + stddev * z0);
            out[1] = static_cast<T>(mean + stddev * z1);
        });
    } else {
        fill_blocks<philox::kNormalsPerBlock>(p, n, key, first, 64, [=](const philox::Block& b, T* out) {
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

void fill_uniform_(Tensor& t, double low, double high) { draw_into(t, "fill_rand_uniform", RandomDraw::Uniform, low, high); }

void fill_normal_(Tensor& t, double mean, double stddev) {
    draw_into(t, "fill_rand_normal", RandomDraw::Normal, mean, stddev);
}

void cpu::random(const RandomPlan& r) {
    dispatch(r.type, "random", [&](auto tag) {
        using T = typename decltype(tag)::type;
        T* p = static_cast<T*>(r.data);
        const double a = r.a, b = r.b;
        switch (r.draw) {
            case RandomDraw::Uniform:
                if constexpr (std::is_same_v<T, float>) {
                    const double span = b - a;
                    fill_blocks<philox::kUniform32PerBlock>(p, r.n, r.key, r.first, 4, [=](const philox::Block& k, float* out) {
                        for (int j = 0; j < 4; ++j) out[j] = static_cast<float>(a + span * philox::u24(k.w[j]));
                    });
                } else if constexpr (std::is_floating_point_v<T>) {
                    const double span = b - a;
                    fill_blocks<philox::kUniform64PerBlock>(p, r.n, r.key, r.first, 4, [=](const philox::Block& k, T* out) {
                        for (int j = 0; j < 2; ++j) out[j] = static_cast<T>(a + span * philox::u53(k.w[2 * j], k.w[2 * j + 1]));
                    });
                }
                break;
            case RandomDraw::Normal:
            case RandomDraw::NormalFast:
                if constexpr (std::is_floating_point_v<T>)
                    fill_normal_values(p, r.n, r.key, r.first, a, b, r.draw == RandomDraw::NormalFast);
                break;
            case RandomDraw::Binary:
                fill_blocks<philox::kUniform64PerBlock>(p, r.n, r.key, r.first, 4, [=](const philox::Block& k, T* out) {
                    for (int j = 0; j < 2; ++j) out[j] = static_cast<T>(philox::u53(k.w[2 * j], k.w[2 * j + 1]) >= a);
                });
                break;
        }
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
    draw_into(t, "fill_rand_normal_", fast_math ? RandomDraw::NormalFast : RandomDraw::Normal, mean, stddev);
}

void fill_rand_binary_(Tensor& t, double threshold) {
    if (threshold != threshold) fail<ValueError>("fill_rand_binary_: the threshold must not be NaN");
    draw_into<TypeSet::WithComplex>(t, "fill_rand_binary_", RandomDraw::Binary, threshold, 0.0);
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
