// sums, mean and frobenius_norm with their gradients, and _mean_match_shape.
//
// Each result has at most one edge, to the input, recorded in the Combined pattern (see Note
// [Recording a result]); the whole-tensor mean alone tests the input's requires_grad by identity
// with True. Whole-tensor results have shape [1] (Note [Shapes of reduction results]).
#include <cmath>

#include "arity.hpp"
#include "autograd/record.hpp"
#include "indexing/wrap_dim.hpp"
#include "init.hpp"
#include "reduce/match_shape.hpp"

namespace pymoira {

using namespace nb::literals;

namespace {

// The one value of a whole-tensor reduction's gradient.
double first_value(const moira::Tensor& g, const char* op) {
    if (g.numel() == 0) moira::fail<moira::ValueError>(op, ": the gradient is empty");
    return g.value_at(0);
}

moira::DType grad_type(const moira::Tensor& g) { return moira::float_type_of(g.dtype()); }

// g (shape [1]) spread over the input's shape.
moira::Tensor sums_grad(const GradFn& self, const moira::Tensor& g) {
    if (g.numel() != 1)
        moira::fail<moira::ValueError>("sums grad: expected a one-element gradient, got shape ", moira::shape_str(g.shape()));
    return moira::broadcast_to(moira::reshape(g, moira::Shape(self.shape.size(), 1)), self.shape);
}

// g repeated along the reduced axis.
moira::Tensor sums_axis_grad(const GradFn& self, const moira::Tensor& g) {
    return mean_match_shape(g, self.shape, self.axis).first;
}

moira::Tensor mean_grad(const GradFn& self, const moira::Tensor& g) {
    const double size = static_cast<double>(moira::numel(self.shape));
    return moira::full(self.shape, moira::Scalar::from_double(first_value(g, "mean grad") / size), moira::kCPU,
                       grad_type(g));
}

moira::Tensor mean_axis_grad(const GradFn& self, const moira::Tensor& g) {
    auto [grad, n] = mean_match_shape(g, self.shape, self.axis);
    return moira::binary(moira::BinaryOp::Div, grad, moira::Scalar::from_int(n));
}

// t * g / |t|, 0 when |t| is 0. saved: the input, the forward norm.
moira::Tensor frobenius_grad(const GradFn& self, const moira::Tensor& g) {
    if (g.numel() != 1)
        moira::fail<moira::ValueError>("frobenius_norm grad: expected a one-element gradient, got shape ",
                                       moira::shape_str(g.shape()));
    const double norm = self.saved[1].value_at(0);
    const double coef = norm == 0.0 ? 0.0 : first_value(g, "frobenius_norm grad") / norm;
    return moira::binary(moira::BinaryOp::Mult, self.saved[0], moira::Scalar::from_double(coef));
}

// saved: the input, the sums of squares along the axis.
moira::Tensor frobenius_axis_grad(const GradFn& self, const moira::Tensor& g) {
    return moira::l2_norm_grad(self.saved[0], g, self.saved[1], self.axis);
}

nb::object sums(nb::handle t, nb::handle axis, nb::handle keepdims) {
    QArg x(t, "sums");
    Record rec(Tracking::Combined, {x.q});
    moira::Tensor data;
    GradFn fn;
    if (axis.is_none()) {
        data = moira::sum(x.core());
        fn = GradFn(&sums_grad, "sums");
    } else {
        int64_t a = int_arg(axis, "sums", "axis must be an integer or None");
        data = moira::sum(x.core(), a, truth_arg(keepdims));
        fn = GradFn(&sums_axis_grad, "sums");
        fn.with_axis(a);
    }
    if (rec.wants_edge(*x.q)) rec.edge(t, std::move(fn.with_shape(x->shape())), EdgeName::one("sums grad ", x->shape()));
    return rec.finish(std::move(data));
}

nb::object mean(nb::handle t, nb::handle axis, nb::handle keepdims) {
    QArg x(t, "mean");
    if (axis.is_none()) {
        // The whole-tensor mean tracks gradients only for requires_grad that is True itself.
        Record rec(Tracking::Combined, {x.q}, Tracks::TrueItself);
        moira::Tensor data = moira::mean(x.core());
        if (rec.wants_edge(*x.q))
            rec.edge(t, GradFn(GradFn(&mean_grad, "mean").with_shape(x->shape())), EdgeName::text("mean grad"));
        return rec.finish(std::move(data));
    }
    Record rec(Tracking::Combined, {x.q});
    int64_t a = int_arg(axis, "mean", "axis must be an integer or None");
    moira::Tensor data = moira::mean(x.core(), a, truth_arg(keepdims));
    if (rec.wants_edge(*x.q))
        rec.edge(t, GradFn(GradFn(&mean_axis_grad, "mean").with_shape(x->shape()).with_axis(a)),
                 EdgeName::text("mean grad"));
    return rec.finish(std::move(data));
}

nb::object frobenius_norm(nb::handle t, nb::handle axis, nb::handle keepdims) {
    QArg x(t, "frobenius_norm");
    Record rec(Tracking::Combined, {x.q});
    if (axis.is_none()) {
        moira::Tensor data = moira::l2_norm(x.core());
        if (rec.wants_edge(*x.q)) rec.edge(t, GradFn(GradFn(&frobenius_grad, "frobenius_norm").save(x.core(), data)));
        return rec.finish(std::move(data));
    }
    int64_t a = maybe_wrap_dim(int_arg(axis, "frobenius_norm", "axis must be an integer or None"), x.core().ndim());
    auto [norms, sumsq] = moira::l2_norm(x.core(), a, truth_arg(keepdims));
    if (rec.wants_edge(*x.q))
        rec.edge(t, GradFn(GradFn(&frobenius_axis_grad, "frobenius_norm").save(x.core(), std::move(sumsq)).with_axis(a)));
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
        "l2_norm", [](QTensor& q) { return wrap_core(moira::l2_norm(*q.core)); },
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
        m.def(r.name, r.fn, "t"_a.none(), "axis"_a.none() = nb::none(), "keepdims"_a.none() = false, r.doc);
        guard_arity(m, r.name, {{"t", "axis", "keepdims"}, 1}, "(t, axis=None, keepdims=False)", r.doc);
    }
    m.def(
        "_mean_match_shape",
        [](nb::handle x, nb::handle shape, nb::handle axis) {
            if (axis.is_none())
                throw nb::type_error("list indices must be integers or slices, not NoneType");
            auto [grad, n] = mean_match_shape(core_ref(x, "_mean_match_shape"), shape_from_python(shape, "_mean_match_shape"),
                                              int_arg(axis, "_mean_match_shape", "axis must be an integer"));
            return nb::make_tuple(wrap_core(std::move(grad)), n);
        },
        "x"_a, "shape"_a, "axis"_a.none(),
        "x repeated along axis into shape, and the length of shape along axis.");
}

}  // namespace pymoira
