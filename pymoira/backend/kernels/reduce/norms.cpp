// Euclidean norms (whole tensor or along an axis) and the norm's gradient.
#include <cmath>

#include "core/errors.hpp"
#include "kernels/parallel.hpp"
#include "kernels/reduce/accumulate.hpp"
#include "kernels/reduce/reduce.hpp"
#include "kernels/reduce/reduce_shape.hpp"

namespace moira {

namespace {

// Sums of squares of t seen as [outer, n, inner] into `sumsq`, and their roots into `norms`
// (either may be null).
void square_sums(const Tensor& t, const ReduceView& v, Tensor* norms, Tensor* sumsq) {
    dispatch(t.dtype(), "l2_norm", [&](auto tag) {
        using T = typename decltype(tag)::type;
        using L = std::conditional_t<std::is_floating_point_v<T>, T, double>;
        using A = double;
        dispatch<TypeSet::Floating>(float_type_of(t.dtype()), "l2_norm", [&](auto otag) {
            using O = typename decltype(otag)::type;
            O* pn = norms ? norms->data<O>() : nullptr;
            O* ps = sumsq ? sumsq->data<O>() : nullptr;
            auto sq = [](T a) { L x = L(a); return x * x; };
            reduce_sum<L, A>(t.data<T>(), v.outer, v.n, v.inner, sq, [&](int64_t i, A s) {
                if (pn) pn[i] = O(std::sqrt(s));
                if (ps) ps[i] = O(s);
            });
        });
    });
}

}  // namespace

Tensor l2_norm(const Tensor& t) {
    Tensor out(float_type_of(t.dtype()), Shape{1}, t.device());
    square_sums(t, ReduceView::whole(t), &out, nullptr);
    return out;
}

std::pair<Tensor, Tensor> l2_norm(const Tensor& t, int64_t axis, bool keepdims) {
    ReduceView v = ReduceView::along(t, axis, "l2_norm");
    Shape s = reduced_shape(t.shape(), v.axis, keepdims);
    Tensor norms(float_type_of(t.dtype()), s, t.device());
    Tensor sumsq(float_type_of(t.dtype()), s, t.device());
    square_sums(t, v, &norms, &sumsq);
    return {std::move(norms), std::move(sumsq)};
}

Tensor l2_norm_grad(const Tensor& t, const Tensor& g, const Tensor& sumsq, int64_t axis) {
    check_same_device(t, g, "l2_norm_grad");
    check_same_device(t, sumsq, "l2_norm_grad");
    ReduceView v = ReduceView::along(t, axis, "l2_norm_grad");
    const int64_t reduced = v.outer * v.inner;
    if (g.numel() != reduced || sumsq.numel() != reduced)
        fail<ValueError>("l2_norm_grad: the gradient of shape ", shape_str(g.shape()), " and the sums of squares of shape ",
                         shape_str(sumsq.shape()), " must both hold the ", reduced, " values of ", shape_str(t.shape()),
                         " reduced along axis ", v.axis);
    const DType ct = float_type_of(promote(t.dtype(), g.dtype()));
    const Tensor T_ = t.dtype() == ct ? t : t.to(ct);
    const Tensor G = g.dtype() == ct ? g : g.to(ct);
    const Tensor S = sumsq.dtype() == ct ? sumsq : sumsq.to(ct);
    Tensor out(ct, t.shape(), t.device());
    dispatch<TypeSet::Floating>(ct, "l2_norm_grad", [&](auto tag) {
        using C = typename decltype(tag)::type;
        // coef = g / sqrt(sumsq), 0 where sumsq is 0.
        std::vector<C> coef(static_cast<size_t>(reduced));
        const C* pg = G.data<C>();
        const C* ps = S.data<C>();
        for (int64_t i = 0; i < reduced; ++i) coef[i] = ps[i] == C(0) ? C(0) : C(pg[i] / std::sqrt(ps[i]));
        const C* x = T_.data<C>();
        C* o = out.data<C>();
        const int64_t n = v.n, inner = v.inner;
        parallel_for(v.outer * n, [&](int64_t lo, int64_t hi) {
            for (int64_t r = lo; r < hi; ++r) {
                const C* c = coef.data() + (r / n) * inner;
                const C* xr = x + r * inner;
                C* orow = o + r * inner;
                for (int64_t j = 0; j < inner; ++j) orow[j] = xr[j] * c[j];
            }
        }, std::max<int64_t>(1, kParallelGrain / std::max<int64_t>(inner, 1)));
    });
    return out;
}

}  // namespace moira
