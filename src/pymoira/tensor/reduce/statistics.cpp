// std and var with their gradients, var_match_shape and the four gradient helpers.
//
// Note [Divisors of var and std]
// The forward value takes `unbiased` by its truth (the backend divides by n - 1 for a true one),
// while the gradients divide by n - 1 only when `unbiased` is the value True itself and by n
// otherwise, so var(t, unbiased=1) has a forward value with n - 1 and a gradient with n. The
// gradients: d var / d x = 2 (x - mean) / D and d std / d x = (x - mean) / (D std), times the
// result's gradient spread back along the reduced axis. Results live on the input's device; the
// edge has no name (Combined pattern, see Note [Recording a result]).
#include <optional>

#include "autograd/record.hpp"
#include "bindings/to_python.hpp"
#include "indexing/wrap_dim.hpp"
#include "init.hpp"
#include "reduce/sums.hpp"

namespace pymoira {

using moira::BinaryOp;
using moira::Scalar;
using moira::Tensor;
using namespace nb::literals;

namespace {

using moira::binary;

// A tensor without axes reduces like one of shape [1]: its gradient gets the input's shape back.
Tensor in_shape_of(const Tensor& x, Tensor grad) {
    return grad.shape() == x.shape() || grad.numel() != x.numel() ? grad : moira::reshape(grad, x.shape());
}

Scalar divisor(int64_t n, bool unbiased_is_true) { return Scalar::from_int(unbiased_is_true ? n - 1 : n); }

// The gradient of var (data null) or std (data: the forward result) for the input x, g the
// result's gradient. Whole tensor: var: 2 (x - mean) / D * g; std: (x - mean) / data / D * g.
// Along an axis: the same with g spread back over the axis and the mean (and std) kept along it.
Tensor spread_grad(const Tensor& g, const Tensor& x, const Tensor* data, std::optional<int64_t> axis,
                   bool unbiased_is_true) {
    if (!axis) {
        Tensor dev = binary(BinaryOp::Sub, x, moira::mean(x));
        Tensor temp = data ? binary(BinaryOp::Div, dev, *data) : binary(BinaryOp::Mult, dev, Scalar::from_int(2));
        Tensor scaled = binary(BinaryOp::Div, temp, divisor(x.numel(), unbiased_is_true));
        return in_shape_of(x, binary(BinaryOp::Mult, scaled, g));
    }
    auto [spread, n] = mean_match_shape(g, x.shape(), *axis);
    const int64_t wrap = x.ndim() == 0 ? 0 : maybe_wrap_dim(*axis, x.ndim());
    Tensor dev = binary(BinaryOp::Sub, x, moira::mean(x, wrap, true));
    Tensor temp;
    if (data) {
        moira::Shape kept = x.shape();
        if (!kept.empty()) kept[wrap] = 1;
        temp = binary(BinaryOp::Div, dev, moira::reshape(*data, kept));
    } else {
        temp = binary(BinaryOp::Mult, dev, Scalar::from_int(2));
    }
    return in_shape_of(x, binary(BinaryOp::Div, binary(BinaryOp::Mult, spread, temp), divisor(n, unbiased_is_true)));
}

// saved: the input (and for std the forward result).
struct Spread {
    std::optional<int64_t> axis;  // none: the whole tensor
    bool unbiased_is_true;
};
Tensor var_grad(const GradFn& f, const Tensor& g) {
    const Spread& p = f.payload<Spread>();
    return spread_grad(g, f.saved[0], nullptr, p.axis, p.unbiased_is_true);
}
Tensor std_grad(const GradFn& f, const Tensor& g) {
    const Spread& p = f.payload<Spread>();
    return spread_grad(g, f.saved[0], &f.saved[1], p.axis, p.unbiased_is_true);
}

nb::object spread(bool root, nb::handle t, nb::handle axis, nb::handle keepdims, nb::handle unbiased) {
    const char* name = root ? "std" : "var";
    QArg x(t, name);
    Record rec(Tracking::Combined, {x.q});
    const int64_t ddof = truth_arg(unbiased) ? 1 : 0;
    const bool unbiased_is_true = unbiased.ptr() == Py_True;
    const std::optional<int64_t> a = optional_axis_arg(axis, name);
    const bool keep = a && truth_arg(keepdims);
    Tensor data = root ? moira::std_dev(x.core(), a, keep, ddof) : moira::var(x.core(), a, keep, ddof);
    if (rec.wants_edge(*x.q)) {
        GradFn fn(root ? &std_grad : &var_grad, name);
        if (root) fn.save(x.core(), data);
        else fn.save(x.core());
        rec.edge(t, std::move(fn.with(Spread{a, unbiased_is_true})));
    }
    return rec.finish(std::move(data));
}

bool is_true(nb::handle v) { return v.ptr() == Py_True; }

}  // namespace

void init_statistics(nb::module_& m, QTensorClass& cls) {
    (void)cls;
    m.def(
        "var",
        [](nb::handle t, nb::handle axis, nb::handle keepdims, nb::handle unbiased) {
            return spread(false, t, axis, keepdims, unbiased);
        },
        nb::sig("def var(t: QTensor, axis: int | None = None, keepdims: bool = False, "
                "unbiased: bool = True) -> QTensor"),
        "t"_a, "axis"_a.none() = nb::none(), "keepdims"_a.none() = false, "unbiased"_a.none() = true,
        "The variance of t's elements, or along axis; unbiased divides by n - 1.");
    m.def(
        "std",
        [](nb::handle t, nb::handle axis, nb::handle keepdims, nb::handle unbiased) {
            return spread(true, t, axis, keepdims, unbiased);
        },
        nb::sig("def std(t: QTensor, axis: int | None = None, keepdims: bool = False, "
                "unbiased: bool = True) -> QTensor"),
        "t"_a, "axis"_a.none() = nb::none(), "keepdims"_a.none() = false, "unbiased"_a.none() = true,
        "The standard deviation of t's elements, or along axis; unbiased divides by n - 1.");
    m.def(
        "var_match_shape",
        [](nb::handle x, nb::handle shape, nb::handle axis) {
            if (axis.is_none()) throw nb::type_error("list indices must be integers or slices, not NoneType");
            auto [out, n] = mean_match_shape(core_ref(x, "var_match_shape"), shape_from_python(shape, "var_match_shape"),
                                             axis_arg(axis, "var_match_shape"));
            return nb::make_tuple(wrap_core(std::move(out)), n);
        },
        nb::sig("def var_match_shape(x: CoreTensor, shape: Sequence[int], axis: int | None) -> tuple[CoreTensor, int]"),
        "x"_a, "shape"_a, "axis"_a.none(),
        "x repeated along axis into shape (on x's device), and the length of shape along axis.");
    m.def(
        "_var_grad_withoutaxis",
        [](nb::handle g, nb::handle t, nb::handle unbiased) {
            return spread_grad(core_ref(g, "_var_grad_withoutaxis"), *qtensor_ref(t, "_var_grad_withoutaxis").core,
                               nullptr, std::nullopt, is_true(unbiased));
        },
        "g"_a, "t"_a, "unbiased"_a.none(), "The gradient of a whole-tensor variance for t.");
    m.def(
        "_std_grad_withoutaxis",
        [](nb::handle g, nb::handle t, nb::handle data, nb::handle unbiased) {
            return spread_grad(core_ref(g, "_std_grad_withoutaxis"), *qtensor_ref(t, "_std_grad_withoutaxis").core,
                               &core_ref(data, "_std_grad_withoutaxis"), std::nullopt, is_true(unbiased));
        },
        "g"_a, "t"_a, "data"_a, "unbiased"_a.none(), "The gradient of a whole-tensor standard deviation (data) for t.");
    m.def(
        "_var_grad_withaxis",
        [](nb::handle x, nb::handle t, nb::handle t_shape, nb::handle axis, nb::handle keepdims, nb::handle unbiased) {
            (void)t_shape, (void)keepdims;
            return spread_grad(core_ref(x, "_var_grad_withaxis"), *qtensor_ref(t, "_var_grad_withaxis").core, nullptr,
                               axis_arg(axis, "_var_grad_withaxis"), is_true(unbiased));
        },
        "x"_a, "t"_a, "t_shape"_a, "axis"_a, "keepdims"_a.none(), "unbiased"_a.none(),
        "The gradient of a variance along axis for t.");
    m.def(
        "_std_grad_withaxis",
        [](nb::handle x, nb::handle t, nb::handle data, nb::handle t_shape, nb::handle axis, nb::handle keepdims,
           nb::handle unbiased) {
            (void)t_shape, (void)keepdims;
            return spread_grad(core_ref(x, "_std_grad_withaxis"), *qtensor_ref(t, "_std_grad_withaxis").core,
                               &core_ref(data, "_std_grad_withaxis"), axis_arg(axis, "_std_grad_withaxis"),
                               is_true(unbiased));
        },
        "x"_a, "t"_a, "data"_a, "t_shape"_a, "axis"_a, "keepdims"_a.none(), "unbiased"_a.none(),
        "The gradient of a standard deviation (data) along axis for t.");
}

}  // namespace pymoira
