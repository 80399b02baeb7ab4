// Ternary element-wise functions with their gradients: where and clip.
#include "autograd/record.hpp"
#include "init.hpp"

namespace pymoira {

using moira::binary;
using moira::BinaryOp;
using moira::Scalar;
using moira::Tensor;
using namespace nb::literals;

namespace {

// g where the clipped value lies strictly inside the bounds. saved: r.
struct ClipBounds {
    Scalar lo, hi;
};
Tensor d_clip(const GradFn& f, const Tensor& g) {
    const Tensor& r = f.saved[0];
    const ClipBounds& b = f.payload<ClipBounds>();
    Tensor inside =
        binary(BinaryOp::LogicalAnd, binary(BinaryOp::NotEqual, r, b.lo), binary(BinaryOp::NotEqual, r, b.hi));
    return binary(BinaryOp::Mult, g, inside);
}

nb::object clip(nb::handle t, nb::handle min_val, nb::handle max_val) {
    QArg a(t, "clip");
    moira::dispatch(a.core().dtype(), "clip", [](auto) {});  // complex values have no order: refused by name
    Scalar lo = scalar_arg(min_val, "clip"), hi = scalar_arg(max_val, "clip");
    Tensor r = moira::clamp(a.core(), lo, hi);
    Record rec(Tracking::Combined, {a.q});
    if (rec.wants_edge(*a.q)) rec.edge(a.obj, GradFn(d_clip, "clip").save(r).with(ClipBounds{lo, hi}));
    return rec.finish(std::move(r));
}

// saved: the condition. g goes where it holds to t1, where it does not to t2; an operand that
// was broadcast gets its gradient folded back onto its shape.
struct WhereRoute {
    bool first;  // the edge leads to t1
};
Tensor d_where(const GradFn& f, const Tensor& g) {
    Tensor zeros = moira::zeros_like(g);
    const Tensor& condition = f.saved[0];
    Tensor routed =
        f.payload<WhereRoute>().first ? moira::where(condition, g, zeros) : moira::where(condition, zeros, g);
    return moira::fold_to(routed, f.shape);
}

nb::object where(nb::handle condition, nb::handle t1, nb::handle t2) {
    if (t1.is_none() || t2.is_none()) throw nb::value_error("t1 and t2 should not be None.");
    nb::object x = operand_like(t1, condition), y = operand_like(t2, condition);
    QArg c(condition, "where"), a(x, "where"), b(y, "where");
    Tensor r = moira::where(c.core(), a.core(), b.core());
    Record rec(Tracking::OwnFlags, {a.q, b.q});
    if (rec.wants_edge(*a.q))
        rec.edge(a.obj, GradFn(d_where, "where").save(c.core()).with(WhereRoute{true}).with_shape(a.core().shape()));
    if (rec.wants_edge(*b.q))
        rec.edge(b.obj, GradFn(d_where, "where").save(c.core()).with(WhereRoute{false}).with_shape(b.core().shape()));
    return rec.finish(std::move(r));
}

}  // namespace

void init_ternary(nb::module_& m, QTensorClass& cls) {
    (void)cls;
    m.def("clip", &clip, nb::sig("def clip(t: QTensor, min_val: float, max_val: float) -> QTensor"), "t"_a, "min_val"_a,
          "max_val"_a, "t limited to [min_val, max_val].");
    m.def("where", &where,
          nb::sig("def where(condition: QTensor, t1: QTensor | _Number, t2: QTensor | _Number) -> QTensor"),
          "condition"_a, "t1"_a.none(), "t2"_a.none(),
          "t1's element where condition is non-zero, else t2's.");
}

}  // namespace pymoira
