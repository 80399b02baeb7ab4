// Euclidean norms (whole tensor or along an axis) and the norm's gradient.
#include <cmath>

#include "core/errors.hpp"
#include "kernels/parallel.hpp"
#include "kernels/reduce/accumulate.hpp"
#include "kernels/reduce/reduce.hpp"
#include "kernels/reduce/reduction.hpp"

namespace moira {

namespace {

// Sums of squares of every lane of r, in the floating type of the input.
Tensor square_sums(const Reduction& r) {
    const Tensor& t = r.in;
    Tensor out(float_type_of(t.dtype()), r.out_shape, t.device());
    const AxisLanes lanes = r.lanes(out);
    dispatch(t.dtype(), "l2_norm", [&](auto tag) {
        using T = typename decltype(tag)::type;
        using L = std::conditional_t<std::is_floating_point_v<T>, T, double>;
        dispatch<TypeSet::Floating>(out.dtype(), "l2_norm", [&](auto otag) {
            using O = typename decltype(otag)::type;
            reduce_sum<L, double>(lanes, t.strided_mem<T>(), out.mem<O>(), [](T a) { L x = L(a); return x * x; },
                                  [](double s) { return O(s); });
        });
    });
    return out;
}

Tensor roots(const Tensor& sumsq) {
    Tensor out(sumsq.dtype(), sumsq.shape(), sumsq.device());
    dispatch<TypeSet::Floating>(sumsq.dtype(), "l2_norm", [&](auto tag) {
        using T = typename decltype(tag)::type;
        const T* s = sumsq.mem<T>();  // a fresh reduction result: contiguous
        T* o = out.mem<T>();
        for (int64_t i = 0; i < out.numel(); ++i) o[i] = std::sqrt(s[i]);
    });
    return out;
}

}  // namespace

Tensor l2_norm(const Tensor& t) { return roots(square_sums(Reduction::whole(t))); }

std::pair<Tensor, Tensor> l2_norm(const Tensor& t, int64_t axis, bool keepdims) {
    Tensor sumsq = square_sums(Reduction::along(t, axis, keepdims, "l2_norm"));
    Tensor norms = roots(sumsq);
    return {std::move(norms), std::move(sumsq)};
}

Tensor l2_norm_grad(const Tensor& t, const Tensor& g, const Tensor& sumsq, int64_t axis) {
    device_of(t, g, "l2_norm_grad");
    device_of(t, sumsq, "l2_norm_grad");
    const Reduction r = Reduction::along(t, axis, false, "l2_norm_grad");
    const int64_t n = r.n();
    const int64_t reduced = n == 0 ? numel(r.out_shape) : t.numel() / n;
    if (g.numel() != reduced || sumsq.numel() != reduced)
        fail<ValueError>("l2_norm_grad: the gradient of shape ", shape_str(g.shape()), " and the sums of squares of shape ",
                         shape_str(sumsq.shape()), " must both hold the ", reduced, " values of ", shape_str(t.shape()),
                         " reduced along axis ", r.axis);
    const DType ct = float_type_of(promote(t.dtype(), g.dtype()));
    const Tensor X = t.contiguous_as(ct);
    const Tensor G = g.contiguous_as(ct);
    const Tensor S = sumsq.contiguous_as(ct);
    Tensor out(ct, t.shape(), t.device());
    int64_t inner = 1;
    for (int64_t d = r.axis + 1; d < t.ndim(); ++d) inner *= t.shape()[d];
    dispatch<TypeSet::Floating>(ct, "l2_norm_grad", [&](auto tag) {
        using C = typename decltype(tag)::type;
        // coef = g / sqrt(sumsq), 0 where sumsq is 0.
        std::vector<C> coef(static_cast<size_t>(reduced));
        const C* pg = G.mem<C>();
        const C* ps = S.mem<C>();
        for (int64_t i = 0; i < reduced; ++i) coef[i] = ps[i] == C(0) ? C(0) : C(pg[i] / std::sqrt(ps[i]));
        const C* x = X.mem<C>();
        C* o = out.mem<C>();
        const int64_t outer = n == 0 || inner == 0 ? 0 : t.numel() / (n * inner);
        parallel_for(outer * n, [&](int64_t lo, int64_t hi) {
            for (int64_t row = lo; row < hi; ++row) {
                const C* c = coef.data() + (row / n) * inner;
                const C* xr = x + row * inner;
                C* orow = o + row * inner;
                for (int64_t j = 0; j < inner; ++j) orow[j] = xr[j] * c[j];
            }
        }, std::max<int64_t>(1, kParallelGrain / std::max<int64_t>(inner, 1)));
    });
    return out;
}

}  // namespace moira
