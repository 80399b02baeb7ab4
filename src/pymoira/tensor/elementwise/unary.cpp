// Unary element-wise functions: the math functions with their gradients (one table row per
// function), floor, ceil, round and sign (not differentiable), and the predicates and nonzero,
// masks (is_bool) that never track gradients.
#include <string>

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

// Gradient routines: g is the result's gradient; saved[0] is the input t, or the result r where
// the row says so. A complex saved value enters conjugated (Note [Complex gradients]).
Tensor d_neg(const GradFn&, const Tensor& g) { return unary(UnaryOp::Neg, g); }
// real and conj of a real tensor are the tensor; imag and angle are constant.
Tensor d_pass(const GradFn&, const Tensor& g) { return g; }
Tensor d_zero(const GradFn&, const Tensor& g) { return moira::zeros_like(g); }
// Of a complex input: imag gives i g, conj conj(g), angle i g z / |z|^2 (0 at 0).
Tensor d_imag(const GradFn&, const Tensor& g) { return binary(BinaryOp::Mult, g, Scalar::from_complex(0.0, 1.0)); }
Tensor d_conj(const GradFn&, const Tensor& g) { return unary(UnaryOp::Conj, g); }
Tensor d_angle(const GradFn& f, const Tensor& g) {
    const Tensor& z = f.saved[0];
    const Tensor r = unary(UnaryOp::Abs, z);
    const Tensor safe = moira::where(r, r, moira::ones_like(r));  // sign(z) is 0 where r is
    const Tensor ig = binary(BinaryOp::Mult, g, Scalar::from_complex(0.0, 1.0));
    return binary(BinaryOp::Mult, ig, binary(BinaryOp::Div, unary(UnaryOp::Sign, z), safe));
}
Tensor d_exp(const GradFn& f, const Tensor& g) { return binary(BinaryOp::MultConj, g, f.saved[0]); }
Tensor d_tanh(const GradFn& f, const Tensor& g) {
    return binary(BinaryOp::Div, g, unary(UnaryOp::Sqr, unary(UnaryOp::Cosh, conjugated(f.saved[0]))));
}
Tensor d_sinh(const GradFn& f, const Tensor& g) {
    return binary(BinaryOp::Mult, g, unary(UnaryOp::Cosh, conjugated(f.saved[0])));
}
Tensor d_cosh(const GradFn& f, const Tensor& g) {
    return binary(BinaryOp::Mult, g, unary(UnaryOp::Sinh, conjugated(f.saved[0])));
}
// sign(t) g; of a complex t, g z / |z| (sign is z / |z| there, 0 at 0).
Tensor d_abs(const GradFn& f, const Tensor& g) { return binary(BinaryOp::Mult, unary(UnaryOp::Sign, f.saved[0]), g); }
Tensor d_log(const GradFn& f, const Tensor& g) { return binary(BinaryOp::Div, g, conjugated(f.saved[0])); }
Tensor d_sqrt(const GradFn& f, const Tensor& g) {
    return binary(BinaryOp::Mult, binary(BinaryOp::Mult, g, Scalar::from_double(0.5)),
                  binary(BinaryOp::Pow, conjugated(f.saved[0]), Scalar::from_double(-0.5)));
}
Tensor d_square(const GradFn& f, const Tensor& g) {
    return binary(BinaryOp::MultConj, binary(BinaryOp::Mult, g, Scalar::from_int(2)), f.saved[0]);
}
Tensor d_sin(const GradFn& f, const Tensor& g) {
    return binary(BinaryOp::Mult, g, unary(UnaryOp::Cos, conjugated(f.saved[0])));
}
Tensor d_cos(const GradFn& f, const Tensor& g) {
    return binary(BinaryOp::Mult, unary(UnaryOp::Neg, g), unary(UnaryOp::Sin, conjugated(f.saved[0])));
}
Tensor d_tan(const GradFn& f, const Tensor& g) {
    return binary(BinaryOp::Div, g,
                  binary(BinaryOp::Pow, unary(UnaryOp::Cos, conjugated(f.saved[0])), Scalar::from_int(2)));
}
// -(r * r) * g from the result r.
Tensor d_reciprocal(const GradFn& f, const Tensor& g) {
    const Tensor r = conjugated(f.saved[0]);
    return binary(BinaryOp::Mult, binary(BinaryOp::Mult, r, unary(UnaryOp::Neg, r)), g);
}

// acos, asin and atan build one tensor, t * t, and finish in place.
Tensor one_minus_square_root_inverse(const Tensor& t) {
    Tensor y = binary(BinaryOp::Mult, t, t);
    moira::unary_(UnaryOp::Neg, y);
    moira::binary_(BinaryOp::Add, y, Scalar::from_double(1.0));
    moira::unary_(UnaryOp::Sqrt, y);
    moira::unary_(UnaryOp::Reciprocal, y);
    return y;
}
Tensor d_acos(const GradFn& f, const Tensor& g) {
    Tensor y = one_minus_square_root_inverse(f.saved[0]);
    moira::unary_(UnaryOp::Neg, y);
    moira::binary_(BinaryOp::Mult, y, g);
    return y;
}
Tensor d_asin(const GradFn& f, const Tensor& g) {
    Tensor y = one_minus_square_root_inverse(f.saved[0]);
    moira::binary_(BinaryOp::Mult, y, g);
    return y;
}
Tensor d_atan(const GradFn& f, const Tensor& g) {
    Tensor y = binary(BinaryOp::Mult, f.saved[0], f.saved[0]);
    moira::binary_(BinaryOp::Add, y, Scalar::from_double(1.0));
    moira::unary_(UnaryOp::Reciprocal, y);
    moira::binary_(BinaryOp::Mult, y, g);
    return y;
}

enum class Keeps { Input, Result, Nothing };

struct UnaryFunction {
    const char* name;
    UnaryOp op;
    GradFn::Routine grad;
    Keeps keeps;
    Tracking tracking;
    const char* name_prefix;  // edge name: prefix [+ str(t.shape) + suffix]
    bool name_has_shape;
    const char* name_suffix;
    const char* doc;
    GradFn::Routine complex_grad = nullptr;  // of a complex input, where the real formula does not serve
};

const UnaryFunction kFunctions[] = {
    {"reciprocal", UnaryOp::Reciprocal, d_reciprocal, Keeps::Result, Tracking::OwnFlags, "reciprocal ", true, " grad",
     "Element-wise 1 / t."},
    {"neg", UnaryOp::Neg, d_neg, Keeps::Nothing, Tracking::Combined, "", false, "", "Element-wise -t."},
    {"exp", UnaryOp::Exp, d_exp, Keeps::Result, Tracking::Combined, "", false, "", "Element-wise e ** t."},
    {"acos", UnaryOp::Acos, d_acos, Keeps::Input, Tracking::Combined, "", false, "", "Element-wise inverse cosine."},
    {"asin", UnaryOp::Asin, d_asin, Keeps::Input, Tracking::Combined, "", false, "", "Element-wise inverse sine."},
    {"atan", UnaryOp::Atan, d_atan, Keeps::Input, Tracking::Combined, "", false, "", "Element-wise inverse tangent."},
    {"tanh", UnaryOp::Tanh, d_tanh, Keeps::Input, Tracking::Combined, "", false, "", "Element-wise hyperbolic tangent."},
    {"sinh", UnaryOp::Sinh, d_sinh, Keeps::Input, Tracking::Combined, "", false, "", "Element-wise hyperbolic sine."},
    {"cosh", UnaryOp::Cosh, d_cosh, Keeps::Input, Tracking::Combined, "", false, "", "Element-wise hyperbolic cosine."},
    {"abs", UnaryOp::Abs, d_abs, Keeps::Input, Tracking::Combined, "", false, "", "Element-wise absolute value."},
    {"log", UnaryOp::Log, d_log, Keeps::Input, Tracking::Combined, "", false, "", "Element-wise natural logarithm."},
    {"sqrt", UnaryOp::Sqrt, d_sqrt, Keeps::Input, Tracking::Combined, "", false, "", "Element-wise square root."},
    {"square", UnaryOp::Sqr, d_square, Keeps::Input, Tracking::Combined, "square grad", false, "",
     "Element-wise t ** 2."},
    {"sin", UnaryOp::Sin, d_sin, Keeps::Input, Tracking::Combined, "sin grad of tensor ", true, "",
     "Element-wise sine."},
    {"cos", UnaryOp::Cos, d_cos, Keeps::Input, Tracking::Combined, "", false, "", "Element-wise cosine."},
    {"tan", UnaryOp::Tan, d_tan, Keeps::Input, Tracking::Combined, "", false, "", "Element-wise tangent."},
    {"real", UnaryOp::Real, d_pass, Keeps::Nothing, Tracking::Combined, "", false, "",
     "The real part of each element (a real tensor: the tensor)."},
    {"imag", UnaryOp::Imag, d_zero, Keeps::Nothing, Tracking::Combined, "", false, "",
     "The imaginary part of each element (a real tensor: zeros).", d_imag},
    {"conj", UnaryOp::Conj, d_pass, Keeps::Nothing, Tracking::Combined, "", false, "",
     "The complex conjugate of each element (a real tensor: the tensor).", d_conj},
    {"angle", UnaryOp::Angle, d_zero, Keeps::Input, Tracking::Combined, "", false, "",
     "The angle of each element, atan2(imaginary part, real part) (a real tensor: 0, or pi where negative).",
     d_angle},
};

nb::object apply(const UnaryFunction& fn, nb::handle t) {
    QArg a(t, fn.name);
    Tensor r = unary(fn.op, a.core());
    Record rec(fn.tracking, {a.q});
    if (rec.wants_edge(*a.q)) {
        const bool complex = fn.complex_grad && moira::is_complex(a.core().dtype());
        GradFn f(complex ? fn.complex_grad : fn.grad, fn.name);
        if (fn.keeps == Keeps::Input) f.save(a.core());
        else if (fn.keeps == Keeps::Result) f.save(r);
        EdgeName name = fn.name_has_shape ? EdgeName::one(fn.name_prefix, a.core().shape(), fn.name_suffix)
                                          : EdgeName::text(fn.name_prefix);
        rec.edge(a.obj, std::move(f), std::move(name));
    }
    return rec.finish(std::move(r));
}

struct Predicate {
    const char* name;
    UnaryOp op;
    const char* doc;
};

const Predicate kPredicates[] = {
    {"isfinite", UnaryOp::IsFinite, "1 where the element is neither infinite nor NaN."},
    {"isinf", UnaryOp::IsInf, "1 where the element is positive or negative infinity."},
    {"isnan", UnaryOp::IsNan, "1 where the element is NaN."},
    {"isneginf", UnaryOp::IsNegInf, "1 where the element is negative infinity."},
    {"isposinf", UnaryOp::IsPosInf, "1 where the element is positive infinity."},
    {"logical_not", UnaryOp::LogicalNot, "Truth of not t, an element counting as false exactly when it is 0."},
};

const UnaryFunction& find(const char* name) {
    for (const auto& f : kFunctions)
        if (std::string(f.name) == name) return f;
    moira::fail<moira::RuntimeError>("no unary function ", name);
}

// The signature of a function of one tensor passed by position (Note [Signatures of the tensor
// bindings] in object/qtensor.hpp).
std::string positional_sig(const char* name) { return std::string("def ") + name + "(t: QTensor, /) -> QTensor"; }

}  // namespace

void init_unary(nb::module_& m, QTensorClass& cls) {
    for (const UnaryFunction& fn : kFunctions) {
        const UnaryFunction* p = &fn;
        m.def(fn.name, [p](nb::handle t) { return apply(*p, t); }, nb::sig(positional_sig(fn.name).c_str()), fn.doc);
    }
    m.def(
        "floor",
        [](nb::handle t) { return Record::leaf().finish(unary(UnaryOp::Floor, *qtensor_ref(t, "floor").core)); },
        nb::sig("def floor(t: QTensor) -> QTensor"), "t"_a,
        "Return a new tensor with the floor of the elements of input, the largest integer not above each.");
    m.def(
        "ceil", [](nb::handle t) { return Record::leaf().finish(unary(UnaryOp::Ceil, *qtensor_ref(t, "ceil").core)); },
        nb::sig("def ceil(t: QTensor) -> QTensor"), "t"_a,
        "Return a new tensor with the ceil of the elements of input, the smallest integer not below each.");
    m.def(
        "round", [](nb::handle t) { return Record::leaf().finish(unary(UnaryOp::Round, QArg(t, "round").core())); },
        nb::sig(positional_sig("round").c_str()),
        "Element-wise rounding to the nearest integer (halves to even); not differentiable.");
    m.def(
        "sign", [](nb::handle t) { return Record::leaf().finish(unary(UnaryOp::Sign, QArg(t, "sign").core())); },
        nb::sig(positional_sig("sign").c_str()),
        "Element-wise -1, 0 or 1 by the sign of t; not differentiable.");
    for (const Predicate& pr : kPredicates) {
        const Predicate* p = &pr;
        m.def(
            pr.name,
            [p](nb::handle t) { return Record::leaf().as_mask().finish(unary(p->op, QArg(t, p->name).core())); },
            nb::sig((std::string("def ") + pr.name + "(t: QTensor) -> QTensor").c_str()), "t"_a, pr.doc);
    }
    m.def(
        "nonzero",
        [](nb::handle t) { return Record::leaf().as_mask().finish(moira::nonzero(QArg(t, "nonzero").core())); },
        nb::sig("def nonzero(t: QTensor) -> QTensor"), "t"_a,
        "a tensor containing the indices of nonzero elements: one row of indices per element (int64).");
    const UnaryFunction* neg = &find("neg");
    cls.def("__neg__", [neg](nb::handle self) { return apply(*neg, self); }, nb::sig("def __neg__(self) -> QTensor"));
}

}  // namespace pymoira
