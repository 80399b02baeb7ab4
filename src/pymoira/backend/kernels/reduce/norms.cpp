// Euclidean norms (whole tensor or along an axis) and the norm's gradient.
#include <cmath>

#include "core/errors.hpp"
#include "kernels/creation.hpp"
#include "kernels/elementwise/elementwise.hpp"
#include "kernels/layout/views.hpp"
#include "kernels/parallel.hpp"
#include "kernels/reduce/accumulate.hpp"
#include "kernels/reduce/reduce.hpp"
#include "kernels/reduce/reduction.hpp"

namespace moira {

namespace {

// Sums of squares of every lane of r (of moduli for complex values), in the floating type of the
// input (the real type of its parts).
Tensor square_sums(const Reduction& r) {
    const DType t = r.in.dtype();
    Tensor out(is_complex(t) ? real_type_of(t) : float_type_of(t), r.out_shape, r.in.device());
    r.run(LaneOp::SumSquares, out);
    return out;
}

Tensor roots(const Tensor& sumsq) { return unary(UnaryOp::Sqrt, sumsq); }

}  // namespace

std::pair<Tensor, Tensor> l2_norm(const Tensor& t, Axis axis, bool keepdims) {
    Tensor sumsq = square_sums(Reduction::of(t, axis, keepdims, "l2_norm"));
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
    // t * coef with coef = g / sqrt(sumsq), 0 where sumsq is 0, spread along the axis.
    const DType ct = float_type_of(promote(t.dtype(), g.dtype()));
    Shape kept = t.shape();
    if (!kept.empty()) kept[static_cast<size_t>(r.axis)] = 1;
    const Tensor G = reshape(g.contiguous_as(ct), kept);
    const Tensor S = reshape(sumsq.contiguous_as(ct), kept);
    const Tensor q = binary(BinaryOp::Div, G, unary(UnaryOp::Sqrt, S));
    const Tensor coef = where(binary(BinaryOp::Equal, S, Scalar::from_int(0)), zeros_like(q), q);
    return binary(BinaryOp::Mult, t.dtype() == ct ? t : t.to(ct), coef);
}

}  // namespace moira
