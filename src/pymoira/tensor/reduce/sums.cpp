// sums, mean and frobenius_norm with their gradients, and _mean_match_shape.
//
// Each result has at most one edge, to the input, recorded in the Combined pattern (see Note
// [Recording a result]); the whole-tensor mean alone tests the input's requires_grad by identity
// with True. Whole-tensor results have shape [1] (Note [Shapes of reduction results]).
#include <cmath>
#include <optional>
#include <string>

#include "arity.hpp"
#include "autograd/record.hpp"
#include "bindings/to_python.hpp"
#include "indexing/wrap_dim.hpp"
#include "init.hpp"
#include "reduce/sums.hpp"

namespace pymoira {

using namespace nb::literals;

namespace {

// The one value of a whole-tensor reduction's gradient, as a 0-d float64 (complex128) tensor on
// g's device.
moira::Tensor first_value(const moira::Tensor& g, const char* op) {
    if (g.numel() == 0) moira::fail<moira::ValueError>(op, ": the gradient is empty");
    const moira::Tensor flat = moira::flatten(g).contiguous();
    return flat.view(moira::Shape{}, moira::Shape{}, flat.offset())
        .to(moira::is_complex(g.dtype()) ? moira::DType::Complex128 : moira::DType::Float64);
}

moira::DType grad_type(const moira::Tensor& g) { return moira::float_type_of(g.dtype()); }

// The reduced axis of sums, mean and frobenius_norm; none: the whole tensor, whose result has
// shape [1].
struct ReducedAxis {
    std::optional<int64_t> axis;
};

// g spread over the input's shape: the one value of g everywhere, or g repeated along the axis.
moira::Tensor sums_grad(const GradFn& self, const moira::Tensor& g) {
    const std::optional<int64_t>& axis = self.payload<ReducedAxis>().axis;
    if (axis) return mean_match_shape(g, self.shape, *axis).first;
    if (g.numel() != 1)
        moira::fail<moira::ValueError>("sums grad: expected a one-element gradient, got shape ", moira::shape_str(g.shape()));
    return moira::broadcast_to(moira::reshape(g, moira::Shape(self.shape.size(), 1)), self.shape);
}

// The same divided by the number of elements each value of the result averaged.
moira::Tensor mean_grad(const GradFn& self, const moira::Tensor& g) {
    const std::optional<int64_t>& axis = self.payload<ReducedAxis>().axis;
    if (axis) {
        auto [grad, n] = mean_match_shape(g, self.shape, *axis);
        return moira::binary(moira::BinaryOp::Div, grad, moira::Scalar::from_int(n));
    }
    const double size = static_cast<double>(moira::numel(self.shape));
    const moira::Tensor v = moira::binary(moira::BinaryOp::Div, first_value(g, "mean grad"), moira::Scalar::from_double(size));
    return moira::broadcast_to(v.to(grad_type(g)), self.shape).contiguous();
}

// t * g / |t|, 0 where |t| is 0. saved: the input, and the forward norm (whole tensor) or the sums
// of squares along the axis.
moira::Tensor frobenius_grad(const GradFn& self, const moira::Tensor& g) {
    const std::optional<int64_t>& axis = self.payload<ReducedAxis>().axis;
    if (axis) return moira::l2_norm_grad(self.saved[0], g, self.saved[1], *axis);
    if (g.numel() != 1)
        moira::fail<moira::ValueError>("frobenius_norm grad: expected a one-element gradient, got shape ",
                                       moira::shape_str(g.shape()));
    // g / norm in double precision, 0 where the norm is 0, then as a Python float would combine with t.
    using moira::BinaryOp;
    const moira::Tensor norm = first_value(self.saved[1], "frobenius_norm grad");
    const moira::Tensor quotient = moira::binary(BinaryOp::Div, first_value(g, "frobenius_norm grad"), norm);
    const moira::Tensor coef = moira::where(moira::binary(BinaryOp::Equal, norm, moira::Scalar::from_double(0.0)),
                                            moira::zeros_like(quotient), quotient);
    const moira::Tensor& t = self.saved[0];
    return moira::binary(BinaryOp::Mult, t, coef.to(moira::Scalar::from_double(0.0).result_type_with(t.dtype())));
}

nb::object sums(nb::handle t, nb::handle axis, nb::handle keepdims) {
    QArg x(t, "sums");
    Record rec(Tracking::Combined, {x.q});
    const std::optional<int64_t> a = optional_axis_arg(axis, "sums");
    moira::Tensor data = moira::sum(x.core(), a, a && truth_arg(keepdims));
    if (rec.wants_edge(*x.q))
        rec.edge(t, GradFn(&sums_grad, "sums").with_shape(x->shape()).with(ReducedAxis{a}),
                 EdgeName::one("sums grad ", x->shape()));
    return rec.finish(std::move(data));
}

nb::object mean(nb::handle t, nb::handle axis, nb::handle keepdims) {
    QArg x(t, "mean");
    const std::optional<int64_t> a = optional_axis_arg(axis, "mean");
    // The whole-tensor mean tracks gradients only for requires_grad that is True itself.
    Record rec(Tracking::Combined, {x.q}, a ? Tracks::Truth : Tracks::TrueItself);
    moira::Tensor data = moira::mean(x.core(), a, a && truth_arg(keepdims));
    if (rec.wants_edge(*x.q))
        rec.edge(t, GradFn(&mean_grad, "mean").with_shape(x->shape()).with(ReducedAxis{a}),
                 EdgeName::text("mean grad"));
    return rec.finish(std::move(data));
}

nb::object frobenius_norm(nb::handle t, nb::handle axis, nb::handle keepdims) {
    QArg x(t, "frobenius_norm");
    Record rec(Tracking::Combined, {x.q});
    std::optional<int64_t> a = optional_axis_arg(axis, "frobenius_norm");
    if (!a) {
        moira::Tensor data = moira::l2_norm(x.core()).first;
        if (rec.wants_edge(*x.q))
            rec.edge(t, GradFn(&frobenius_grad, "frobenius_norm").save(x.core(), data).with(ReducedAxis{}));
        return rec.finish(std::move(data));
    }
    a = maybe_wrap_dim(*a, x.core().ndim());
    auto [norms, sumsq] = moira::l2_norm(x.core(), *a, truth_arg(keepdims));
    if (rec.wants_edge(*x.q))
        rec.edge(t, GradFn(&frobenius_grad, "frobenius_norm").save(x.core(), std::move(sumsq)).with(ReducedAxis{a}));
    return rec.finish(std::move(norms));
}

}  // namespace

std::pair<moira::Tensor, int64_t> mean_match_shape(const moira::Tensor& x, const moira::Shape& shape, int64_t axis) {
    if (shape.empty()) return {moira::reshape(x, shape), 1};  // a tensor without axes: its one value
    int64_t wrap = maybe_wrap_dim(axis, static_cast<int64_t>(shape.size()));
    if (wrap < 0 || wrap >= static_cast<int64_t>(shape.size()))  // only when assertions are off
        moira::fail<moira::IndexError>("index ", axis, " is out of bounds for axis 0 with size ", shape.size());
    const int64_t num_reps = shape[wrap];
    moira::Shape new_shape = shape;
    new_shape[wrap] = 1;
    return {moira::broadcast_to(moira::reshape(x, new_shape), shape), num_reps};
}

void init_sums(nb::module_& m, nb::class_<QTensor>& cls) {
    cls.def(
        "l2_norm", [](QTensor& q) { return wrap_core(moira::l2_norm(*q.core).first); },
        nb::sig("def l2_norm(self) -> CoreTensor"),
        "The Euclidean norm of all elements, as the backend's one-element tensor.");
    // Wrong argument counts raise the interpreter's own messages (arity.hpp).
    const struct {
        const char* name;
        nb::object (*fn)(nb::handle, nb::handle, nb::handle);
        const char* doc;
    } reductions[] = {
        {"sums", &sums, "Sum of all elements of t, or along axis."},
        {"mean", &mean, "Mean of all elements of t, or along axis."},
        {"frobenius_norm", &frobenius_norm, "Square root of the sum of squares of t's elements, or along axis."},
    };
    for (const auto& r : reductions) {
        const std::string sig = std::string("def ") + r.name + "(t: QTensor, axis: int | None = None, keepdims: bool = False) -> QTensor";
        m.def(r.name, r.fn, "t"_a.none(), "axis"_a.none() = nb::none(), "keepdims"_a.none() = false, nb::sig(sig.c_str()),
              r.doc);
        guard_arity(m, r.name, {{"t", "axis", "keepdims"}, 1}, "(t, axis=None, keepdims=False)", r.doc);
    }
    m.def(
        "_mean_match_shape",
        [](nb::handle x, nb::handle shape, nb::handle axis) {
            if (axis.is_none())
                throw nb::type_error("list indices must be integers or slices, not NoneType");
            auto [grad, n] = mean_match_shape(core_ref(x, "_mean_match_shape"), shape_from_python(shape, "_mean_match_shape"),
                                              axis_arg(axis, "_mean_match_shape"));
            return nb::make_tuple(wrap_core(std::move(grad)), n);
        },
        "x"_a, "shape"_a, "axis"_a.none(),
        "x repeated along axis into shape, and the length of shape along axis.");
}

}  // namespace pymoira
