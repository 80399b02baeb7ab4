// min and max with their gradient, median, and the helpers _min_max_match_shape and
// _min_max_grad.
//
// Note [Gradients of max and min]
// The gradient goes to every element equal to the extreme of its slice: the mask
// equal(input, extreme spread back) times the gradient spread back. Along an axis each tied
// element receives the slice's whole gradient; over the whole tensor the gradient is shared
// equally, the masked gradient being divided by the number of tied elements. The result of max
// tracks gradients when the input's requires_grad is true; min only when it is True itself
// (Combined pattern otherwise, see Note [Recording a result]). median records nothing.
#include <optional>

#include "autograd/record.hpp"
#include "bindings/tensor_from_python.hpp"
#include "indexing/wrap_dim.hpp"
#include "init.hpp"

namespace pymoira {

using moira::BinaryOp;
using moira::Tensor;
using namespace nb::literals;

namespace {

// x spread over `shape`: along `axis`, or over every axis when there is none.
Tensor match_shape(const Tensor& x, const moira::Shape& shape, std::optional<int64_t> axis) {
    moira::Shape kept(shape.size(), 1);
    if (axis && !shape.empty()) {
        const int64_t wrap = maybe_wrap_dim(*axis, static_cast<int64_t>(shape.size()));
        if (wrap < 0 || wrap >= static_cast<int64_t>(shape.size()))  // only when assertions are off
            moira::fail<moira::IndexError>("index ", *axis, " is out of bounds for axis 0 with size ", shape.size());
        kept = shape;
        kept[wrap] = 1;
    }
    return moira::broadcast_to(moira::reshape(x, kept), shape);
}

// The gradient of an extreme for its input; see Note [Gradients of max and min].
Tensor min_max_grad(const Tensor& x, const Tensor& result, const Tensor& inputs, std::optional<int64_t> axis) {
    const moira::Shape& shape = inputs.shape();
    Tensor mask = moira::binary(BinaryOp::Equal, inputs, match_shape(result, shape, axis));
    Tensor prod = moira::binary(BinaryOp::Mult, match_shape(x, shape, axis), mask);
    if (axis) return prod;
    // The count of ties as a number without axes, so the quotient keeps the input's shape (a
    // tensor without axes included).
    return moira::binary(BinaryOp::Div, prod, moira::reshape(moira::sum(mask), moira::Shape{}));
}

// saved: the input, the extreme.
struct ExtremeAxis {
    std::optional<int64_t> axis;  // none: the whole tensor
};
Tensor extreme_grad(const GradFn& f, const Tensor& g) {
    return min_max_grad(g, f.saved[1], f.saved[0], f.payload<ExtremeAxis>().axis);
}

nb::object extreme(bool is_max, nb::handle t, nb::handle axis, nb::handle keepdims) {
    const char* name = is_max ? "max" : "min";
    QArg x(t, name);
    Record rec(Tracking::Combined, {x.q}, is_max ? Tracks::Truth : Tracks::TrueItself);
    const std::optional<int64_t> a = optional_axis_arg(axis, name);
    const bool keep = a && truth_arg(keepdims);
    Tensor y = is_max ? moira::amax(x.core(), a, keep) : moira::amin(x.core(), a, keep);
    if (rec.wants_edge(*x.q))
        rec.edge(t, GradFn(&extreme_grad, name).save(x.core(), y).with(ExtremeAxis{a}),
                 EdgeName::one("", x->shape(), is_max ? " max grad" : " min grad"));
    return rec.finish(std::move(y));
}

// A backend tensor from the `result` argument of _min_max_grad: a tensor, or a float made into
// one on the input's device.
Tensor result_arg(nb::handle result, const Tensor& inputs) {
    if (is_core(result)) return core_ref(result, "_min_max_grad");
    if (PyFloat_Check(result.ptr())) return tensor_from_python(result, inputs.device());
    moira::fail<moira::TypeError>("_min_max_grad: result must be a backend Tensor or a float, got ",
                                  Py_TYPE(result.ptr())->tp_name);
}

}  // namespace

void init_extremes(nb::module_& m, QTensorClass& cls) {
    (void)cls;
    m.def(
        "max", [](nb::handle t, nb::handle axis, nb::handle keepdims) { return extreme(true, t, axis, keepdims); },
        nb::sig("def max(t: QTensor, axis: int | None = None, keepdims: bool = False) -> QTensor"), "t"_a,
        "axis"_a.none() = nb::none(), "keepdims"_a.none() = false,
        "The largest element of t, or the largest along axis. The gradient reaches every element equal to the "
        "maximum (shared equally among them for the whole tensor).");
    m.def(
        "min", [](nb::handle t, nb::handle axis, nb::handle keepdims) { return extreme(false, t, axis, keepdims); },
        nb::sig("def min(t: QTensor, axis: int | None = None, keepdims: bool = False) -> QTensor"), "t"_a,
        "axis"_a.none() = nb::none(), "keepdims"_a.none() = false,
        "The smallest element of t, or the smallest along axis. The gradient reaches every element equal to the "
        "minimum (shared equally among them for the whole tensor).");
    m.def(
        "median",
        [](nb::handle t, nb::args kargs) {
            QArg x(t, "median");
            // The extra arguments go to the backend as given (an axis list and a keepdims flag).
            return to_qtensor(nb::type<Tensor>().attr("median")(x->data, *kargs));
        },
        nb::sig("def median(t: QTensor, *kargs: Any) -> QTensor"), "t"_a, "kargs"_a,
        "The median of t, or along the axis given as [axis] with a keepdims flag; no gradient.");
    m.def(
        "_min_max_match_shape",
        [](nb::handle x, nb::handle shape, nb::handle axis) {
            const std::optional<int64_t> a = optional_axis_arg(axis, "_min_max_match_shape");
            return match_shape(core_ref(x, "_min_max_match_shape"),
                               shape_from_python(shape, "_min_max_match_shape"), a);
        },
        "x"_a, "shape"_a, "axis"_a.none(), "x spread over shape along axis (over every axis when axis is None).");
    m.def(
        "_min_max_grad",
        [](nb::handle x, nb::handle result, nb::handle inputs, nb::handle axis) {
            const Tensor& in = core_ref(inputs, "_min_max_grad");
            const std::optional<int64_t> a = optional_axis_arg(axis, "_min_max_grad");
            return min_max_grad(core_ref(x, "_min_max_grad"), result_arg(result, in), in, a);
        },
        "x"_a, "result"_a.none(), "inputs"_a, "axis"_a.none(),
        "The gradient of min/max for their input: x at the positions equal to the extreme result (shared "
        "equally among ties when axis is None).");
}

}  // namespace pymoira
