// log_softmax and its gradient as combines over the axis lanes; see Note [Log-softmax].
//
// Both kernels make their operands contiguous in the computing type first, so every operand
// and the result share one layout: a lane's offset in the walked input is its offset in the
// others.
#include "kernels/reduce/softmax.hpp"

#include <algorithm>
#include <cmath>
#include <memory>
#include <type_traits>

#include "kernels/elementwise/bulk.hpp"
#include "kernels/elementwise/vecmath.hpp"
#include "kernels/iter/axis_lanes.hpp"
#include "kernels/reduce/accumulate.hpp"
#include "kernels/reduce/extreme_rows.hpp"
#include "kernels/simd.hpp"
#include "kernels/table.hpp"

namespace moira {

namespace {

template <class C>
inline C exp_of(C x) {
    if constexpr (std::is_same_v<C, float>) return vec::exp(x);
    else return std::exp(x);
}

// out[i] = exp(in[i]); float32 through the multiversioned bulk loop (wide vectors where the
// machine has them).
template <class C>
void exp_into(const C* in, C* out, int64_t n) {
    if constexpr (std::is_same_v<C, float>) bulk::exp_f32(in, out, n);
    else for (int64_t i = 0; i < n; ++i) out[i] = std::exp(in[i]);
}

template <class C>
C lane_sum(const C* p, int64_t n) {
    return C(run_sum<C, double>(p, n, [](C v) { return v; }));
}

// The larger of x and m, NaN winning.
template <class C>
inline C max_nan(C x, C m) {
    return beats<true>(x, m) ? x : m;
}

// One contiguous lane: o = (x - m) - log(sum(exp(x - m))), m the lane's maximum; e is scratch
// of n values. A function of its own, compiled for the widest vectors the CPU has.
template <class C>
MOIRA_MULTIVERSION void log_softmax_lane(const C* x, C* o, C* e, int64_t n) {
    const C m = run_extreme<true>(x, n);
    for (int64_t k = 0; k < n; ++k) o[k] = x[k] - m;
    exp_into(o, e, n);
    const C ls = std::log(lane_sum(e, n));
    for (int64_t k = 0; k < n; ++k) o[k] -= ls;
}

// One contiguous lane of the gradient: o = g - exp(y) * sum(g).
template <class C>
MOIRA_MULTIVERSION void log_softmax_grad_lane(const C* g, const C* y, C* o, int64_t n) {
    const C s = lane_sum(g, n);
    exp_into(y, o, n);
    for (int64_t k = 0; k < n; ++k) o[k] = g[k] - o[k] * s;
}

// log_softmax along every lane (input and output contiguous, of one floating type).
void log_softmax_lanes(const LanesPlan& p) {
    const AxisLanes& lanes = p.lanes;
    dispatch<TypeSet::Floating>(p.in_type, "log_softmax", [&](auto tag) {
        using C = typename decltype(tag)::type;
        const int64_t n = lanes.n, step = lanes.in_axis_step;
        auto block = [&](const C* x, int64_t xs, C* o, int64_t os, int64_t count) {
            if (step == 1 || n == 1) {
                std::unique_ptr<C[]> e(new C[n]);
                for (int64_t j = 0; j < count; ++j) log_softmax_lane(x + j * xs, o + j * os, e.get(), n);
            } else if (xs == 1) {  // adjacent lanes: a row of lanes per step
                C m[kLaneBlock], s[kLaneBlock];
                for (int64_t j0 = 0; j0 < count; j0 += kLaneBlock) {
                    const int64_t w = std::min(kLaneBlock, count - j0);
                    const C* base = x + j0;
                    C* obase = o + j0;
                    std::copy(base, base + w, m);
                    for (int64_t k = 1; k < n; ++k)
                        for (int64_t j = 0; j < w; ++j) m[j] = max_nan(base[k * step + j], m[j]);
                    std::fill(s, s + w, C(0));
                    for (int64_t k = 0; k < n; ++k)
                        for (int64_t j = 0; j < w; ++j) s[j] += exp_of(C(base[k * step + j] - m[j]));
                    for (int64_t j = 0; j < w; ++j) s[j] = std::log(s[j]);
                    for (int64_t k = 0; k < n; ++k)
                        for (int64_t j = 0; j < w; ++j) obase[k * step + j] = (base[k * step + j] - m[j]) - s[j];
                }
            } else {
                for (int64_t j = 0; j < count; ++j) {
                    const C* lx = x + j * xs;
                    C* lo = o + j * os;
                    C m = lx[0];
                    for (int64_t k = 1; k < n; ++k) m = max_nan(lx[k * step], m);
                    C s = C(0);
                    for (int64_t k = 0; k < n; ++k) s += exp_of(C(lx[k * step] - m));
                    const C ls = std::log(s);
                    for (int64_t k = 0; k < n; ++k) lo[k * step] = (lx[k * step] - m) - ls;
                }
            }
        };
        lanes.run(static_cast<const C*>(p.in), static_cast<C*>(p.out), block, 3 * n);
    });
}

// Its gradient: in the incoming gradient, aux the forward result (laid out alike).
void log_softmax_grad_lanes(const LanesPlan& p) {
    const AxisLanes& lanes = p.lanes;
    dispatch<TypeSet::Floating>(p.in_type, "log_softmax_grad", [&](auto tag) {
        using C = typename decltype(tag)::type;
        const C* g0 = static_cast<const C*>(p.in);
        const C* y0 = static_cast<const C*>(p.aux);
        const int64_t n = lanes.n, step = lanes.in_axis_step;
        auto block = [&](const C* x, int64_t xs, C* o, int64_t os, int64_t count) {
            const C* y = y0 + (x - g0);  // the same lanes of the forward result
            if (step == 1 || n == 1) {
                for (int64_t j = 0; j < count; ++j) log_softmax_grad_lane(x + j * xs, y + j * xs, o + j * os, n);
            } else if (xs == 1) {  // the sums of g as the reductions add adjacent lanes
                double acc[kLaneBlock];
                C s[kLaneBlock];
                for (int64_t j0 = 0; j0 < count; j0 += kLaneBlock) {
                    const int64_t w = std::min(kLaneBlock, count - j0);
                    std::fill(acc, acc + w, 0.0);
                    add_rows<C>([&](int64_t k) { return x + j0 + k * step; }, n, w, acc, [](C v) { return v; });
                    for (int64_t j = 0; j < w; ++j) s[j] = C(acc[j]);
                    for (int64_t k = 0; k < n; ++k)
                        for (int64_t j = 0; j < w; ++j) {
                            const int64_t at = j0 + k * step + j;
                            o[at] = x[at] - exp_of(y[at]) * s[j];
                        }
                }
            } else {
                for (int64_t j = 0; j < count; ++j) {
                    const C* lg = x + j * xs;
                    const C* ly = y + j * xs;
                    C* lo = o + j * os;
                    double acc = 0;
                    for (int64_t k = 0; k < n; ++k) acc += lg[k * step];
                    const C s = C(acc);
                    for (int64_t k = 0; k < n; ++k) lo[k * step] = lg[k * step] - exp_of(ly[k * step]) * s;
                }
            }
        };
        lanes.run(g0, static_cast<C*>(p.out), block, 3 * n);
    });
}

}  // namespace

Tensor log_softmax(const Tensor& t, int64_t axis) {
    const int64_t a = wrap_axis(axis, t.ndim(), "log_softmax");
    const DType ct = float_type_of(t.dtype());
    const Tensor X = t.contiguous_as(ct);
    Tensor out(ct, t.shape(), t.device());
    if (out.numel() == 0) return out;
    const LanesPlan p{AxisLanes(out, X, a, true), ct, ct, X.raw_mem(), out.raw_mem()};
    kernels_of(out).lanes(LaneOp::LogSoftmax, p);
    return out;
}

Tensor log_softmax_grad(const Tensor& g, const Tensor& out, int64_t axis) {
    device_of(g, out, "log_softmax_grad");
    if (g.shape() != out.shape())
        fail<ValueError>("log_softmax_grad: the gradient of shape ", shape_str(g.shape()),
                         " and the forward result of shape ", shape_str(out.shape()), " differ");
    const int64_t a = wrap_axis(axis, g.ndim(), "log_softmax_grad");
    const DType ct = float_type_of(promote(g.dtype(), out.dtype()));
    const Tensor G = g.contiguous_as(ct);
    const Tensor Y = out.contiguous_as(ct);
    Tensor res(ct, g.shape(), g.device());
    if (res.numel() == 0) return res;
    LanesPlan p{AxisLanes(res, G, a, true), ct, ct, G.raw_mem(), res.raw_mem()};
    p.aux = Y.raw_mem();
    kernels_of(res).lanes(LaneOp::LogSoftmaxGrad, p);
    return res;
}

void cpu::softmax_lanes(LaneOp op, const LanesPlan& p) {
    if (op == LaneOp::LogSoftmax) log_softmax_lanes(p);
    else log_softmax_grad_lanes(p);
}

}  // namespace moira
