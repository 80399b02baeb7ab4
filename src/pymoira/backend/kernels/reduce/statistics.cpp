// var and std_dev: the moments combine over the axis lanes; see Note [Stable variance].
#include "kernels/reduce/statistics.hpp"

#include <algorithm>
#include <cmath>
#include <limits>
#include <type_traits>
#include <vector>

#include "kernels/parallel.hpp"
#include "kernels/reduce/accumulate.hpp"
#include "kernels/reduce/reduction.hpp"

namespace moira {

namespace {

// Count, mean and sum of squared deviations of a run of values.
struct Moments {
    double n = 0, mean = 0, m2 = 0;
};

// Chan's parallel formula.
Moments merge(const Moments& a, const Moments& b) {
    if (a.n == 0) return b;
    if (b.n == 0) return a;
    const double n = a.n + b.n, d = b.mean - a.mean;
    return {n, a.mean + d * (b.n / n), a.m2 + b.m2 + d * d * (a.n * b.n / n)};
}

Moments merge_range(const std::vector<Moments>& m, size_t lo, size_t hi) {
    if (hi - lo == 1) return m[lo];
    const size_t mid = lo + (hi - lo) / 2;
    return merge(merge_range(m, lo, mid), merge_range(m, mid, hi));
}

// Moments of p[0, n), n >= 1: the mean, then the sums of d = x - mean and d^2 in 16 lanes of L
// flushed into double every 8 steps.
template <class L, class T>
Moments run_moments(const T* p, int64_t n) {
    const L c = L(run_sum<L, double>(p, n, [](T a) { return L(a); }) / double(n));
    constexpr int64_t kBlock = 16 * 8;
    double sd[16] = {}, sq[16] = {};
    int64_t i = 0;
    for (; i + kBlock <= n; i += kBlock) {
        L ld[16] = {}, lq[16] = {};
        for (int64_t k = 0; k < kBlock; k += 16)
            for (int j = 0; j < 16; ++j) {
                const L d = L(p[i + k + j]) - c;
                ld[j] += d;
                lq[j] += d * d;
            }
        for (int j = 0; j < 16; ++j) {
            sd[j] += double(ld[j]);
            sq[j] += double(lq[j]);
        }
    }
    double s1 = 0, s2 = 0;
    for (; i < n; ++i) {
        const double d = double(L(p[i]) - c);
        s1 += d;
        s2 += d * d;
    }
    for (int j = 0; j < 16; ++j) {
        s1 += sd[j];
        s2 += sq[j];
    }
    const double dn = double(n);
    return {dn, double(c) + s1 / dn, s2 - s1 * s1 / dn};
}

// A contiguous lane: fixed chunks on separate threads, merged pairwise in a fixed order.
template <class L, class T>
Moments contiguous_moments(const T* p, int64_t n) {
    if (n <= kChunk) return run_moments<L>(p, n);
    const int64_t chunks = (n + kChunk - 1) / kChunk;
    std::vector<Moments> part(static_cast<size_t>(chunks));
    parallel_for(chunks, [&](int64_t lo, int64_t hi) {
        for (int64_t c = lo; c < hi; ++c) part[c] = run_moments<L>(p + c * kChunk, std::min(kChunk, n - c * kChunk));
    }, 2);
    return merge_range(part, 0, part.size());
}

template <class T>
Moments strided_moments(const T* p, int64_t n, int64_t step) {
    double s = 0;
    for (int64_t k = 0; k < n; ++k) s += double(p[k * step]);
    const double mean = s / double(n);
    double s1 = 0, s2 = 0;
    for (int64_t k = 0; k < n; ++k) {
        const double d = double(p[k * step]) - mean;
        s1 += d;
        s2 += d * d;
    }
    return {double(n), mean + s1 / double(n), s2 - s1 * s1 / double(n)};
}

// var (Root false) or std (Root true) of every complex lane: the mean squared modulus of the
// deviations, which is the real parts' sum of squared deviations plus the imaginary parts' (each
// a strided lane of reals).
template <bool Root, class T>
void complex_spread_lanes(const LanesPlan& p) {
    using R = typename T::value_type;
    const AxisLanes& lanes = p.lanes;
    const int64_t n = lanes.n;
    const double divisor = double(n - p.ddof);
    const int64_t step = 2 * lanes.in_axis_step;
    auto block = [&](const T* x, int64_t xs, R* o, int64_t os, int64_t count) {
        for (int64_t j = 0; j < count; ++j) {
            if (n == 0 || divisor <= 0) {
                o[j * os] = std::numeric_limits<R>::quiet_NaN();
                continue;
            }
            const R* parts = reinterpret_cast<const R*>(x + j * xs);
            const double m2 = strided_moments(parts, n, step).m2 + strided_moments(parts + 1, n, step).m2;
            const double v = std::max(m2, 0.0) / divisor;
            o[j * os] = R(Root ? std::sqrt(v) : v);
        }
    };
    lanes.run(static_cast<const T*>(p.in), static_cast<R*>(p.out), block, 4 * n);
}

// var (Root false) or std (Root true) of every lane.
template <bool Root>
void spread_lanes(const LanesPlan& p) {
    const AxisLanes& lanes = p.lanes;
    const int64_t n = lanes.n, ddof = p.ddof;
    if (p.in_type == DType::Complex64) return complex_spread_lanes<Root, complex64>(p);
    if (p.in_type == DType::Complex128) return complex_spread_lanes<Root, complex128>(p);
    dispatch(p.in_type, "var", [&](auto tag) {
        using T = typename decltype(tag)::type;
        using L = std::conditional_t<std::is_floating_point_v<T>, T, double>;
        dispatch<TypeSet::Floating>(p.out_type, "var", [&](auto otag) {
            using O = typename decltype(otag)::type;
            const double divisor = double(n - ddof);
            auto finish = [&](double m2) {
                if (divisor <= 0) return std::numeric_limits<O>::quiet_NaN();
                const double v = std::max(m2, 0.0) / divisor;
                return O(Root ? std::sqrt(v) : v);
            };
            const int64_t step = lanes.in_axis_step;
            auto block = [&](const T* x, int64_t xs, O* o, int64_t os, int64_t count) {
                if (n == 0) {
                    for (int64_t j = 0; j < count; ++j) o[j * os] = std::numeric_limits<O>::quiet_NaN();
                } else if (step == 1 || n == 1) {
                    for (int64_t j = 0; j < count; ++j) o[j * os] = finish(contiguous_moments<L>(x + j * xs, n).m2);
                } else if (xs == 1) {  // adjacent lanes: two walks down the axis, a row of lanes per step
                    constexpr int64_t kRows = 8;
                    double s1[kLaneBlock], s2[kLaneBlock];
                    L c[kLaneBlock], p1[kLaneBlock], p2[kLaneBlock];
                    for (int64_t j0 = 0; j0 < count; j0 += kLaneBlock) {
                        const int64_t w = std::min(kLaneBlock, count - j0);
                        const T* base = x + j0;
                        std::fill(s1, s1 + w, 0.0);
                        std::fill(s2, s2 + w, 0.0);
                        for (int64_t k0 = 0; k0 < n; k0 += kRows) {
                            const int64_t k1 = std::min(n, k0 + kRows);
                            std::fill(p1, p1 + w, L(0));
                            for (int64_t k = k0; k < k1; ++k) {
                                const T* row = base + k * step;
                                for (int64_t j = 0; j < w; ++j) p1[j] += L(row[j]);
                            }
                            for (int64_t j = 0; j < w; ++j) s1[j] += double(p1[j]);
                        }
                        for (int64_t j = 0; j < w; ++j) {
                            c[j] = L(s1[j] / double(n));
                            s1[j] = 0.0;
                        }
                        for (int64_t k0 = 0; k0 < n; k0 += kRows) {
                            const int64_t k1 = std::min(n, k0 + kRows);
                            std::fill(p1, p1 + w, L(0));
                            std::fill(p2, p2 + w, L(0));
                            for (int64_t k = k0; k < k1; ++k) {
                                const T* row = base + k * step;
                                for (int64_t j = 0; j < w; ++j) {
                                    const L d = L(row[j]) - c[j];
                                    p1[j] += d;
                                    p2[j] += d * d;
                                }
                            }
                            for (int64_t j = 0; j < w; ++j) {
                                s1[j] += double(p1[j]);
                                s2[j] += double(p2[j]);
                            }
                        }
                        for (int64_t j = 0; j < w; ++j)
                            o[(j0 + j) * os] = finish(s2[j] - s1[j] * s1[j] / double(n));
                    }
                } else {
                    for (int64_t j = 0; j < count; ++j) o[j * os] = finish(strided_moments(x + j * xs, n, step).m2);
                }
            };
            lanes.run(static_cast<const T*>(p.in), static_cast<O*>(p.out), block, 2 * n);
        });
    });
}

// Real results: complex values spread by the moduli of their deviations.
template <bool Root>
Tensor spread(const Reduction& r, int64_t ddof) {
    const DType t = r.in.dtype();
    Tensor out(is_complex(t) ? real_type_of(t) : float_type_of(t), r.out_shape, r.in.device());
    r.run(Root ? LaneOp::Std : LaneOp::Var, out, ddof);
    return out;
}

void check_ddof(int64_t ddof, const char* op) {
    if (ddof < 0) fail<ValueError>(op, ": ddof must be >= 0, got ", ddof);
}

}  // namespace

Tensor var(const Tensor& t, Axis axis, bool keepdims, int64_t ddof) {
    check_ddof(ddof, "var");
    return spread<false>(Reduction::of(t, axis, keepdims, "var"), ddof);
}
Tensor std_dev(const Tensor& t, Axis axis, bool keepdims, int64_t ddof) {
    check_ddof(ddof, "std");
    return spread<true>(Reduction::of(t, axis, keepdims, "std"), ddof);
}

void cpu::moment_lanes(LaneOp op, const LanesPlan& p) {
    if (op == LaneOp::Std) spread_lanes<true>(p);
    else spread_lanes<false>(p);
}

}  // namespace moira
