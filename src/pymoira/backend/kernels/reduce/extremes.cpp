// max, min, argmax, argmin and median as combines over the axis lanes; all and any.
#include "kernels/reduce/extremes.hpp"

#include <algorithm>
#include <limits>
#include <memory>
#include <type_traits>
#include <utility>
#include <vector>

#include "kernels/parallel.hpp"
#include "kernels/reduce/accumulate.hpp"
#include "kernels/reduce/extreme_rows.hpp"
#include "kernels/reduce/reduction.hpp"

namespace moira {

namespace {

// Long contiguous lanes: fixed chunks on separate threads, combined in order (so the first of
// equal extremes still wins).
template <bool Max, class T>
std::pair<T, int64_t> contiguous_arg(const T* p, int64_t n, bool need_position) {
    auto run = [&](const T* q, int64_t len) {
        return need_position ? run_arg<Max>(q, len) : std::pair<T, int64_t>(run_extreme<Max>(q, len), 0);
    };
    if (n <= kChunk) return run(p, n);
    const int64_t chunks = (n + kChunk - 1) / kChunk;
    std::vector<std::pair<T, int64_t>> part(static_cast<size_t>(chunks));
    parallel_for(chunks, [&](int64_t lo, int64_t hi) {
        for (int64_t c = lo; c < hi; ++c) {
            part[c] = run(p + c * kChunk, std::min(kChunk, n - c * kChunk));
            part[c].second += c * kChunk;
        }
    }, 2);
    std::pair<T, int64_t> best = part[0];
    for (int64_t c = 1; c < chunks; ++c)
        if (better<Max>(part[c].first, best.first)) best = part[c];
    return best;
}

void require_elements(int64_t n, const Reduction& r, bool whole, const char* op, const char* what) {
    if (n > 0) return;
    if (whole) fail<ValueError>(op, ": the tensor has no elements, so it has no ", what);
    fail<ValueError>(op, ": axis ", r.axis, " has length 0, so there is no ", what, " along it");
}

// The extreme (Arg false) or its position (Arg true) of every lane.
template <bool Max, bool Arg>
void extreme_lanes(const LanesPlan& p) {
    const AxisLanes& lanes = p.lanes;
    const int64_t n = lanes.n;
    dispatch(p.in_type, "max", [&](auto tag) {
        using T = typename decltype(tag)::type;
        using O = std::conditional_t<Arg, int64_t, T>;
        using P = SameInt<T>;
        const int64_t step = lanes.in_axis_step;
        auto block = [&](const T* x, int64_t xs, O* o, int64_t os, int64_t count) {
            if (step == 1 || n == 1) {
                for (int64_t j = 0; j < count; ++j) {
                    auto e = contiguous_arg<Max>(x + j * xs, n, Arg);
                    if constexpr (Arg) o[j * os] = e.second;
                    else o[j * os] = e.first;
                }
            } else if (xs == 1 && n <= std::numeric_limits<P>::max()) {
                // adjacent lanes: walk the axis once, a row of lanes per step
                constexpr int64_t kLanes = 4096;  // a row of this many lanes stays in L1 cache
                T acc[kLanes];
                P at[kLanes];
                for (int64_t j0 = 0; j0 < count; j0 += kLanes) {
                    const int64_t w = std::min(kLanes, count - j0);
                    const T* base = x + j0;
                    auto reset = [&] {
                        std::copy(base, base + w, acc);
                        if constexpr (Arg) std::fill(at, at + w, P(0));
                    };
                    reset();
                    if constexpr (Arg) {
                        fold_checked([&] { return fold_positions<Max, false>(base, step, n, w, acc, at, P(0)); },
                                     [&] { return fold_positions<Max, true>(base, step, n, w, acc, at, P(0)); }, reset);
                        for (int64_t j = 0; j < w; ++j) o[(j0 + j) * os] = at[j];
                    } else {
                        fold_checked([&] { return fold_values<Max, false>(base, step, n, w, acc); },
                                     [&] { return fold_values<Max, true>(base, step, n, w, acc); }, reset);
                        for (int64_t j = 0; j < w; ++j) o[(j0 + j) * os] = acc[j];
                    }
                }
            } else {
                for (int64_t j = 0; j < count; ++j) {
                    const T* lane = x + j * xs;
                    T m = lane[0];
                    int64_t a = 0;
                    for (int64_t k = 1; k < n; ++k)
                        if (better<Max>(lane[k * step], m)) {
                            m = lane[k * step];
                            a = k;
                        }
                    if constexpr (Arg) o[j * os] = a;
                    else o[j * os] = m;
                }
            }
        };
        lanes.run(static_cast<const T*>(p.in), static_cast<O*>(p.out), block, n);
    });
}

// The median of every lane: a copy of the lane partially ordered by nth_element.
void median_lanes(const LanesPlan& p) {
    const AxisLanes& lanes = p.lanes;
    const int64_t n = lanes.n;
    dispatch(p.in_type, "median", [&](auto tag) {
        using T = typename decltype(tag)::type;
        dispatch<TypeSet::Floating>(p.out_type, "median", [&](auto otag) {
            using O = typename decltype(otag)::type;
            const int64_t step = lanes.in_axis_step;
            auto block = [&](const T* x, int64_t xs, O* o, int64_t os, int64_t count) {
                std::unique_ptr<T[]> buf(new T[static_cast<size_t>(n)]);  // not vector<bool>'s bits
                for (int64_t j = 0; j < count; ++j) {
                    const T* lane = x + j * xs;
                    bool nan = false;
                    for (int64_t k = 0; k < n; ++k) {
                        buf[k] = lane[k * step];
                        nan |= buf[k] != buf[k];
                    }
                    if (nan) {
                        o[j * os] = std::numeric_limits<O>::quiet_NaN();
                        continue;
                    }
                    T* mid = buf.get() + n / 2;
                    std::nth_element(buf.get(), mid, buf.get() + n);
                    if (n % 2) {
                        o[j * os] = O(*mid);
                    } else {
                        const T lo = *std::max_element(buf.get(), mid);
                        // Floats average in their own type, as numpy's mean of the two does.
                        if constexpr (std::is_floating_point_v<T>) o[j * os] = O((lo + *mid) / T(2));
                        else o[j * os] = O((double(lo) + double(*mid)) / 2.0);
                    }
                }
            };
            lanes.run(static_cast<const T*>(p.in), static_cast<O*>(p.out), block, 2 * n);
        });
    });
}

// Whether some element of the one contiguous lane is non-zero (Any) / every element is (!Any),
// stopping at the first answer.
template <bool Any>
void truth_lane(const LanesPlan& plan) {
    bool found = false;  // an element that decides: non-zero for any, zero for all
    dispatch<TypeSet::WithComplex>(plan.in_type, Any ? "any" : "all", [&](auto tag) {
        using T = typename decltype(tag)::type;
        const T* p = static_cast<const T*>(plan.in);
        const int64_t n = plan.lanes.n;
        constexpr int64_t kBlock = 4096;
        for (int64_t b0 = 0; b0 < n && !found; b0 += kBlock) {
            const int64_t b1 = std::min(n, b0 + kBlock);
            bool hit = false;
            for (int64_t i = b0; i < b1; ++i) hit |= Any ? p[i] != T(0) : p[i] == T(0);
            found = hit;
        }
    });
    *static_cast<bool*>(plan.out) = Any ? found : !found;
}

Tensor extreme(const Reduction& r, bool whole, LaneOp op, const char* name) {
    dispatch(r.in.dtype(), name, [](auto) {});  // an order is needed: complex values are refused by name
    const bool max = op == LaneOp::Max || op == LaneOp::ArgMax;
    require_elements(r.n(), r, whole, name, max ? "maximum" : "minimum");
    const bool arg = op == LaneOp::ArgMax || op == LaneOp::ArgMin;
    Tensor out(arg ? DType::Int64 : r.in.dtype(), r.out_shape, r.in.device());
    r.run(op, out);
    return out;
}

Tensor median_of(const Reduction& r, bool whole) {
    dispatch(r.in.dtype(), "median", [](auto) {});
    require_elements(r.n(), r, whole, "median", "median");
    Tensor out(float_type_of(r.in.dtype()), r.out_shape, r.in.device());
    r.run(LaneOp::Median, out);
    return out;
}

bool truth(const Tensor& t, LaneOp op) {
    const Reduction r = Reduction::whole(t);
    Tensor out(DType::Bool, r.out_shape, t.device());
    r.run(op, out);
    return out.item().i != 0;
}

}  // namespace

Tensor amax(const Tensor& t, Axis axis, bool keepdims) {
    return extreme(Reduction::of(t, axis, keepdims, "max"), !axis, LaneOp::Max, "max");
}
Tensor amin(const Tensor& t, Axis axis, bool keepdims) {
    return extreme(Reduction::of(t, axis, keepdims, "min"), !axis, LaneOp::Min, "min");
}
Tensor argmax(const Tensor& t, Axis axis, bool keepdims) {
    return extreme(Reduction::of(t, axis, keepdims, "argmax"), !axis, LaneOp::ArgMax, "argmax");
}
Tensor argmin(const Tensor& t, Axis axis, bool keepdims) {
    return extreme(Reduction::of(t, axis, keepdims, "argmin"), !axis, LaneOp::ArgMin, "argmin");
}
Tensor median(const Tensor& t, Axis axis, bool keepdims) {
    return median_of(Reduction::of(t, axis, keepdims, "median"), !axis);
}

bool all(const Tensor& t) { return truth(t, LaneOp::All); }
bool any(const Tensor& t) { return truth(t, LaneOp::Any); }

void cpu::extreme_lanes(LaneOp op, const LanesPlan& p) {
    switch (op) {
        case LaneOp::Max: return moira::extreme_lanes<true, false>(p);
        case LaneOp::Min: return moira::extreme_lanes<false, false>(p);
        case LaneOp::ArgMax: return moira::extreme_lanes<true, true>(p);
        case LaneOp::ArgMin: return moira::extreme_lanes<false, true>(p);
        case LaneOp::Median: return median_lanes(p);
        case LaneOp::All: return truth_lane<false>(p);
        case LaneOp::Any: return truth_lane<true>(p);
        default: MOIRA_INTERNAL_ASSERT(false);
    }
}

}  // namespace moira
