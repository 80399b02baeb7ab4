// power, maximum, minimum, clip and where, with their gradients; the ** operators.
#include "autograd/record.hpp"
#include "init.hpp"

namespace pymoira {

using moira::binary;
using moira::BinaryOp;
using moira::Scalar;
using moira::Tensor;
using moira::unary;
using moira::UnaryOp;
using namespace nb::literals;

namespace {

void require_equal_shapes(const QArg& a, const QArg& b) {
    if (a.core().shape() != b.core().shape()) throw nb::value_error("t1 and t2 shape should be equal");
}

// d/d base: g * t2 * t1 ** (t2 - 1), with the exponent replaced by 1 where t2 is 0 (so the
// gradient is exactly 0 there). saved: t1, t2.
Tensor d_power_base(const GradFn& f, const Tensor& g) {
    const Tensor& x = f.saved[0];
    const Tensor& y = f.saved[1];
    Tensor exponent = moira::where(y, binary(BinaryOp::Sub, y, Scalar::from_int(1)), moira::ones_like(y));
    Tensor v = binary(BinaryOp::Mult, binary(BinaryOp::Mult, g, y), binary(BinaryOp::Pow, x, exponent));
    return moira::fold_to(v, f.shape);
}

// d/d exponent: g * r * ln t1, with ln 1 = 0 where t1 is 0. saved: t1, r.
Tensor d_power_exponent(const GradFn& f, const Tensor& g) {
    const Tensor& x = f.saved[0];
    Tensor log_base = unary(UnaryOp::Log, moira::where(x, x, moira::ones_like(x)));
    return moira::fold_to(binary(BinaryOp::Mult, g, binary(BinaryOp::Mult, f.saved[1], log_base)), f.shape);
}

nb::object power(nb::handle t1, nb::handle t2) {
    QArg a(t1, "power"), b(t2, "power");
    require_equal_shapes(a, b);
    Tensor r = binary(BinaryOp::Pow, a.core(), b.core());
    Record rec(Tracking::OwnFlags, {a.q, b.q});
    if (rec.wants_edge(*a.q))
        rec.edge(a.obj, GradFn(d_power_base, "power").save(a.core(), b.core()).with_shape(a.core().shape()),
                 EdgeName::two(" x^a grad: input shape ", a.core().shape(), " power shape ", r.shape()));
    if (rec.wants_edge(*b.q))
        rec.edge(b.obj, GradFn(d_power_exponent, "power").save(a.core(), r).with_shape(b.core().shape()),
                 EdgeName::two("a^x grad: input shape ", a.core().shape(), " power shape ", r.shape()));
    return rec.finish(std::move(r));
}

// The share of the gradient that reaches x, one of two compared inputs: [x == r] / ([x == other] + 1):
// 1 for the strict winner, 0 for the loser, 1/2 each on a tie. saved: x, r, the other input.
Tensor d_extreme(const GradFn& f, const Tensor& g) {
    const Tensor& x = f.saved[0];
    Tensor weight = binary(BinaryOp::Div, binary(BinaryOp::Equal, x, f.saved[1]),
                        binary(BinaryOp::Add, binary(BinaryOp::Equal, x, f.saved[2]), Scalar::from_double(1.0)));
    return moira::fold_to(binary(BinaryOp::Mult, g, weight), f.shape);
}

nb::object extreme(BinaryOp op, const char* name, nb::handle t1, nb::handle t2) {
    QArg a(t1, name), b(t2, name);
    require_equal_shapes(a, b);
    Tensor r = binary(op, a.core(), b.core());
    Record rec(Tracking::OwnFlags, {a.q, b.q});
    if (rec.wants_edge(*a.q))
        rec.edge(a.obj, GradFn(d_extreme, name).save(a.core(), r, b.core()).with_shape(a.core().shape()));
    if (rec.wants_edge(*b.q))
        rec.edge(b.obj, GradFn(d_extreme, name).save(b.core(), r, a.core()).with_shape(b.core().shape()));
    return rec.finish(std::move(r));
}

// g where the clipped value lies strictly inside the bounds. saved: r.
struct ClipBounds {
    Scalar lo, hi;
};
Tensor d_clip(const GradFn& f, const Tensor& g) {
    const Tensor& r = f.saved[0];
    const ClipBounds& b = f.payload<ClipBounds>();
    Tensor inside = binary(BinaryOp::LogicalAnd, binary(BinaryOp::NotEqual, r, b.lo),
                        binary(BinaryOp::NotEqual, r, b.hi));
    return binary(BinaryOp::Mult, g, inside);
}

nb::object clip(nb::handle t, nb::handle min_val, nb::handle max_val) {
    QArg a(t, "clip");
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
    Tensor routed = f.payload<WhereRoute>().first ? moira::where(f.saved[0], g, zeros) : moira::where(f.saved[0], zeros, g);
    return moira::fold_to(routed, f.shape);
}

nb::object where(nb::handle condition, nb::handle t1, nb::handle t2) {
    if (t1.is_none() || t2.is_none()) throw nb::value_error("t1 and t2 should not be None.");
    nb::object x = to_qtensor(t1), y = to_qtensor(t2);
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

void init_power(nb::module_& m, QTensorClass& cls) {
    m.def("power", &power, "t1"_a, "t2"_a, "t1 raised to the power t2, element by element (equal shapes).");
    m.def(
        "maximum", [](nb::handle t1, nb::handle t2) { return extreme(BinaryOp::Maximum, "maximum", t1, t2); }, "t1"_a,
        "t2"_a, "The element-wise larger value of two tensors of equal shape; ties split the gradient evenly.");
    m.def(
        "minimum", [](nb::handle t1, nb::handle t2) { return extreme(BinaryOp::Minimum, "minimum", t1, t2); }, "t1"_a,
        "t2"_a, "The element-wise smaller value of two tensors of equal shape; ties split the gradient evenly.");
    m.def("clip", &clip, "t"_a, "min_val"_a, "max_val"_a, "t limited to [min_val, max_val].");
    m.def("where", &where, "condition"_a, "t1"_a.none(), "t2"_a.none(),
          "t1's element where condition is non-zero, else t2's.");
    cls.def("__pow__", [](nb::handle self, nb::handle t) { return power(self, to_qtensor(t)); });
    cls.def("__rpow__", [](nb::handle self, nb::handle t) { return power(to_qtensor(t), self); });
}

}  // namespace pymoira
