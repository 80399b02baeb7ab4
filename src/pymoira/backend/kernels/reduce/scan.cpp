// cumsum and its gradient: the running-sum combine over the axis lanes; see Note [Cumulative sums].
// Complex running sums are kept in complex128.
#include "kernels/reduce/scan.hpp"

#include <algorithm>
#include <type_traits>

#include "kernels/iter/axis_lanes.hpp"
#include "kernels/layout/views.hpp"
#include "kernels/reduce/accumulate.hpp"
#include "kernels/table.hpp"

namespace moira {

namespace {

// Running sums along every lane; the output has lanes of its own, any layout.
void running_sums(const LanesPlan& p) {
    const AxisLanes& lanes = p.lanes;
    const int64_t n = lanes.n, step = lanes.in_axis_step, ostep = lanes.out_axis_step;
    dispatch<TypeSet::WithComplex>(p.in_type, "cumsum", [&](auto tag) {
        using T = typename decltype(tag)::type;
        using A = std::conditional_t<is_complex_v<T>, complex128,
                                     std::conditional_t<std::is_floating_point_v<T>, double, int64_t>>;
        using O = std::conditional_t<std::is_same_v<T, bool>, int64_t, T>;
        auto block = [&](const T* x, int64_t xs, O* o, int64_t os, int64_t count) {
            if (xs == 1 && os == 1 && count > 1) {  // adjacent lanes: a row of lanes per step
                A acc[kLaneBlock];
                for (int64_t j0 = 0; j0 < count; j0 += kLaneBlock) {
                    const int64_t w = std::min(kLaneBlock, count - j0);
                    std::fill(acc, acc + w, A(0));
                    for (int64_t k = 0; k < n; ++k) {
                        const T* row = x + j0 + k * step;
                        O* orow = o + j0 + k * ostep;
                        for (int64_t j = 0; j < w; ++j) {
                            acc[j] += A(row[j]);
                            orow[j] = O(acc[j]);
                        }
                    }
                }
                return;
            }
            constexpr int64_t kGroup = 4;  // lanes scanned together: independent chains
            int64_t j0 = 0;
            for (; j0 + kGroup <= count; j0 += kGroup) {
                A acc[kGroup] = {};
                const T* xl = x + j0 * xs;
                O* ol = o + j0 * os;
                for (int64_t k = 0; k < n; ++k)
                    for (int64_t g = 0; g < kGroup; ++g) {
                        acc[g] += A(xl[g * xs + k * step]);
                        ol[g * os + k * ostep] = O(acc[g]);
                    }
            }
            for (; j0 < count; ++j0) {
                A acc = A(0);
                const T* xl = x + j0 * xs;
                O* ol = o + j0 * os;
                for (int64_t k = 0; k < n; ++k) {
                    acc += A(xl[k * step]);
                    ol[k * ostep] = O(acc);
                }
            }
        };
        lanes.run(static_cast<const T*>(p.in), static_cast<O*>(p.out), block, n);
    });
}

// out <- running sums of in along `axis` (wrapped); out has in's shape, any layout.
void scan_into(Tensor& out, const Tensor& in, int64_t axis) {
    const LanesPlan p{AxisLanes(out, in, axis, true), in.dtype(), out.dtype(), in.raw_mem(), out.raw_mem()};
    kernels_of(out).lanes(LaneOp::CumSum, p);
}

DType scan_type(DType t) { return t == DType::Bool ? DType::Int64 : t; }

}  // namespace

Tensor cumsum(const Tensor& t, int64_t axis) {
    const int64_t a = wrap_axis(axis, t.ndim(), "cumsum");
    Tensor out(scan_type(t.dtype()), t.shape(), t.device());
    scan_into(out, t, a);
    return out;
}

Tensor cumsum_grad(const Tensor& g, int64_t axis) {
    const int64_t a = wrap_axis(axis, g.ndim(), "cumsumgrad");
    Tensor out(scan_type(g.dtype()), g.shape(), g.device());
    Tensor backwards = flip(out, {a});  // a view: writing it fills out from the end
    scan_into(backwards, flip(g, {a}), a);
    return out;
}

void cpu::scan_lanes(LaneOp, const LanesPlan& p) { running_sums(p); }

}  // namespace moira
