// The element-wise operation lists and their scalar functors: one line of arithmetic each, free of loops and
// of memory, marked MOIRA_HD so that nvcc builds the same functor as device code.
//
// `floating` functors compute in a floating type (integers are first converted to float32);
// the others compute in their operands' common type. A functor whose result is bool writes a
// bool tensor. `complex` functors also take complex operands (numpy's principal branches);
// the others refuse them with TypeError naming the operation and the type.
#pragma once

#include <cmath>
#include <cstdint>
#include <type_traits>
#include <utility>

#include "core/dtype.hpp"
#include "core/host_device.hpp"
#include "kernels/elementwise/bulk.hpp"

// Every operation: its functor's name (also its enum entry) and its kernel name. The enums of
// elementwise.hpp and each device's table are built from these lists, so a new operation is one
// entry here and its functor below.
#define MOIRA_BINARY_OPS(X)                                                                     \
    X(Add, "add") X(Sub, "sub") X(Mult, "mult") X(Div, "div") X(Pow, "element_pow")              \
    X(Maximum, "maximum") X(Minimum, "minimum") X(Equal, "equal") X(NotEqual, "not_equal")       \
    X(Less, "less") X(LessEqual, "less_equal") X(Greater, "greater")                            \
    X(GreaterEqual, "greater_equal") X(LogicalAnd, "logical_and") X(LogicalOr, "logical_or")    \
    X(LogicalXor, "logical_xor") X(MultConj, "mult_conj")
#define MOIRA_UNARY_OPS(X)                                                                      \
    X(Neg, "neg") X(Sqr, "sqr") X(Abs, "abs") X(Sign, "sign") X(Round, "round")                 \
    X(Floor, "floor") X(Ceil, "ceil") X(Exp, "exp") X(Log, "log") X(Sqrt, "sqrt") X(Sin, "sin")  \
    X(Cos, "cos") X(Tan, "tan") X(Asin, "asin") X(Acos, "acos") X(Atan, "atan")                 \
    X(Sinh, "sinh") X(Cosh, "cosh") X(Tanh, "tanh") X(Reciprocal, "reciprocal")                 \
    X(LogicalNot, "logical_not") X(IsFinite, "isfinite") X(IsInf, "isinf") X(IsNan, "isnan")     \
    X(IsNegInf, "isneginf") X(IsPosInf, "isposinf") X(Real, "real") X(Imag, "imag") X(Conj, "conj")          \
    X(Angle, "angle")

namespace moira::fn {

template <class T> MOIRA_HD constexpr bool is_nan(T x) {
    if constexpr (std::is_floating_point_v<T>) return x != x;
    else if constexpr (is_complex_v<T>) return x.real() != x.real() || x.imag() != x.imag();
    else return false;
}
// An infinite part (a complex value is infinite when either part is, as in numpy).
template <class T> MOIRA_HD bool is_inf(T x) {
    if constexpr (is_complex_v<T>) return std::isinf(x.real()) || std::isinf(x.imag());
    else return std::isinf(double(x));
}
// The modulus of re + i im, as hypot gives it (an infinite part wins over NaN) but in selects that
// vectorise: float parts square in double, which neither overflows nor underflows; double parts
// square directly while the larger lies in (2^-500, 2^500), else scale by it (an ulp or two).
template <class R> MOIRA_HD R modulus(R re, R im) {
    if constexpr (std::is_same_v<R, float>) {
        const double a = re, b = im;
        const R m = R(std::sqrt(a * a + b * b));
        return std::isinf(re) || std::isinf(im) ? R(INFINITY) : m;
    } else {
        const double ax = std::fabs(re), ay = std::fabs(im);
        const double big = ax > ay ? ax : ay, small = ax > ay ? ay : ax;
        const double q = small / big;
        const double scaled = big == 0 ? 0.0 : big * std::sqrt(1.0 + q * q);
        double m = big < 0x1p500 && big > 0x1p-500 ? std::sqrt(ax * ax + ay * ay) : scaled;
        m = ax != ax || ay != ay ? ax + ay : m;
        return ax == double(INFINITY) || ay == double(INFINITY) ? double(INFINITY) : m;
    }
}
// The textbook complex product, as numpy computes it: no recovery of infinities from NaN parts
// (C99's rule), which would keep the loops from vectorising.
template <class T> MOIRA_HD T times(T a, T b) {
    if constexpr (is_complex_v<T>)
        return T(a.real() * b.real() - a.imag() * b.imag(), a.real() * b.imag() + a.imag() * b.real());
    else return a * b;
}
// |x|: a complex value's modulus is real.
template <class T> MOIRA_HD auto abs_of(T x) {
    if constexpr (is_complex_v<T>) return modulus(x.real(), x.imag());
    else return T(x < T(0) ? -x : x);
}
// The parts of a value, its conjugate and its angle (atan2(imaginary, real), as numpy's): a real
// value is its own real part and conjugate, with imaginary part 0 and angle 0 or pi.
template <class T> MOIRA_HD auto real_of(T x) {
    if constexpr (is_complex_v<T>) return x.real();
    else return x;
}
template <class T> MOIRA_HD auto imag_of(T x) {
    if constexpr (is_complex_v<T>) return x.imag();
    else return T(0);
}
template <class T> MOIRA_HD T conj_of(T x) {
    if constexpr (is_complex_v<T>) return std::conj(x);
    else return x;
}
template <class T> MOIRA_HD auto angle_of(T x) {
    if constexpr (is_complex_v<T>) return std::arg(x);
    else return T(std::atan2(T(0), x));
}
// x / |x| for complex values (0 at 0), the sign for real ones.
template <class T> MOIRA_HD T sign_of(T x) {
    if constexpr (is_complex_v<T>) return x == T(0) ? T(0) : x / modulus(x.real(), x.imag());
    else return T(is_nan(x) ? x : T((T(0) < x) - (x < T(0))));
}

// ---- binary ----
struct Add { static constexpr bool complex = true; static constexpr bool floating = false; template <class T> MOIRA_HD T operator()(T a, T b) const { return a + b; } };
struct Sub { static constexpr bool complex = true; static constexpr bool floating = false; template <class T> MOIRA_HD T operator()(T a, T b) const { return a - b; } };
struct Mult { static constexpr bool complex = true; static constexpr bool floating = false; template <class T> MOIRA_HD T operator()(T a, T b) const { return times(a, b); } };
// a * conj(b): the factor of a complex gradient in one pass (a * b for real values).
struct MultConj { static constexpr bool complex = true; static constexpr bool floating = false; template <class T> MOIRA_HD T operator()(T a, T b) const { return times(a, conj_of(b)); } };
struct Div { static constexpr bool complex = true; static constexpr bool floating = true; template <class T> MOIRA_HD T operator()(T a, T b) const { return a / b; } };
struct Pow { static constexpr bool complex = true; static constexpr bool floating = true; template <class T> MOIRA_HD T operator()(T a, T b) const { return std::pow(a, b); } };
struct Maximum {
    static constexpr bool complex = false;
    static constexpr bool floating = false;
    template <class T> MOIRA_HD T operator()(T a, T b) const { return is_nan(a) ? a : (is_nan(b) ? b : (a < b ? b : a)); }
};
struct Minimum {
    static constexpr bool complex = false;
    static constexpr bool floating = false;
    template <class T> MOIRA_HD T operator()(T a, T b) const { return is_nan(a) ? a : (is_nan(b) ? b : (b < a ? b : a)); }
};
struct Equal { static constexpr bool complex = true; static constexpr bool floating = false; template <class T> MOIRA_HD bool operator()(T a, T b) const { return a == b; } };
struct NotEqual { static constexpr bool complex = true; static constexpr bool floating = false; template <class T> MOIRA_HD bool operator()(T a, T b) const { return a != b; } };
struct Less { static constexpr bool complex = false; static constexpr bool floating = false; template <class T> MOIRA_HD bool operator()(T a, T b) const { return a < b; } };
struct LessEqual { static constexpr bool complex = false; static constexpr bool floating = false; template <class T> MOIRA_HD bool operator()(T a, T b) const { return a <= b; } };
struct Greater { static constexpr bool complex = false; static constexpr bool floating = false; template <class T> MOIRA_HD bool operator()(T a, T b) const { return a > b; } };
struct GreaterEqual { static constexpr bool complex = false; static constexpr bool floating = false; template <class T> MOIRA_HD bool operator()(T a, T b) const { return a >= b; } };
struct LogicalAnd { static constexpr bool complex = true; static constexpr bool floating = false; template <class T> MOIRA_HD bool operator()(T a, T b) const { return (a != T(0)) && (b != T(0)); } };
struct LogicalOr { static constexpr bool complex = true; static constexpr bool floating = false; template <class T> MOIRA_HD bool operator()(T a, T b) const { return (a != T(0)) || (b != T(0)); } };
struct LogicalXor { static constexpr bool complex = true; static constexpr bool floating = false; template <class T> MOIRA_HD bool operator()(T a, T b) const { return (a != T(0)) != (b != T(0)); } };

// ---- unary ----
// kind: Floating computes in a float type; Keep keeps the operand's type (bool computes as
// int64); Predicate writes bool.
enum class UnaryKind { Floating, Keep, Predicate };

#define MOIRA_UNARY(Name, Kind, Complex, expr)                                      \
    struct Name {                                                                   \
        static constexpr UnaryKind kind = UnaryKind::Kind;                          \
        static constexpr bool complex = Complex;                                    \
        template <class T> MOIRA_HD auto operator()(T x) const { return expr; }              \
    };

MOIRA_UNARY(Neg, Keep, true, T(-x))
MOIRA_UNARY(Sqr, Keep, true, times(x, x))
MOIRA_UNARY(Sign, Keep, true, sign_of(x))
MOIRA_UNARY(Round, Keep, false, T(std::is_floating_point_v<T> ? std::nearbyint(x) : x))
MOIRA_UNARY(Floor, Keep, false, T(std::is_floating_point_v<T> ? std::floor(x) : x))
MOIRA_UNARY(Ceil, Keep, false, T(std::is_floating_point_v<T> ? std::ceil(x) : x))
MOIRA_UNARY(Log, Floating, true, T(std::log(x)))
MOIRA_UNARY(Sqrt, Floating, true, T(std::sqrt(x)))
MOIRA_UNARY(Sin, Floating, true, T(std::sin(x)))
MOIRA_UNARY(Cos, Floating, true, T(std::cos(x)))
MOIRA_UNARY(Tan, Floating, true, T(std::tan(x)))
MOIRA_UNARY(Asin, Floating, false, T(std::asin(x)))
MOIRA_UNARY(Acos, Floating, false, T(std::acos(x)))
MOIRA_UNARY(Atan, Floating, false, T(std::atan(x)))
MOIRA_UNARY(Sinh, Floating, true, T(std::sinh(x)))
MOIRA_UNARY(Reciprocal, Floating, true, T(T(1) / x))
MOIRA_UNARY(LogicalNot, Predicate, true, bool(x == T(0)))
MOIRA_UNARY(IsFinite, Predicate, true, bool(!is_nan(x) && !is_inf(x)))
MOIRA_UNARY(IsInf, Predicate, true, bool(is_inf(x)))
MOIRA_UNARY(IsNan, Predicate, true, bool(is_nan(x)))
MOIRA_UNARY(IsNegInf, Predicate, false, bool(std::isinf(double(x)) && x < T(0)))
MOIRA_UNARY(IsPosInf, Predicate, false, bool(std::isinf(double(x)) && x > T(0)))
MOIRA_UNARY(Real, Keep, true, real_of(x))
MOIRA_UNARY(Imag, Keep, true, imag_of(x))
MOIRA_UNARY(Conj, Keep, true, conj_of(x))
MOIRA_UNARY(Angle, Floating, true, angle_of(x))

#undef MOIRA_UNARY

// Functors with a `bulk` loop for a type use it on contiguous runs of it (see bulk.hpp).
struct Exp {
    static constexpr UnaryKind kind = UnaryKind::Floating;
    static constexpr bool complex = true;
    template <class T> MOIRA_HD T operator()(T x) const { return std::exp(x); }
    static void bulk(const float* in, float* out, int64_t n) { bulk::exp_f32(in, out, n); }
};

// |x|; contiguous complex128 runs take the bulk loop (the plain formula, redone where it could
// overflow or underflow).
struct Abs {
    static constexpr UnaryKind kind = UnaryKind::Keep;
    static constexpr bool complex = true;
    template <class T> MOIRA_HD auto operator()(T x) const { return abs_of(x); }
    static void bulk(const complex128* in, double* out, int64_t n) {
        bulk::abs_c128(reinterpret_cast<const double*>(in), out, n);
    }
};

struct Tanh {
    static constexpr UnaryKind kind = UnaryKind::Floating;
    static constexpr bool complex = true;
    template <class T> MOIRA_HD T operator()(T x) const { return std::tanh(x); }
    static void bulk(const float* in, float* out, int64_t n) { bulk::tanh_f32(in, out, n); }
};
struct Cosh {
    static constexpr UnaryKind kind = UnaryKind::Floating;
    static constexpr bool complex = true;
    template <class T> MOIRA_HD T operator()(T x) const { return std::cosh(x); }
    static void bulk(const float* in, float* out, int64_t n) { bulk::cosh_f32(in, out, n); }
};

// ---- the type a functor computes in (shared by every device's table) ----
// Binary: floating functors in the float type of the promoted operand type, the others in it.
template <class F>
constexpr DType binary_compute_type(DType promoted) {
    return F::floating ? float_type_of(promoted) : promoted;
}
// Unary: Floating in a float type, Keep in the operand's type (bool as int64), Predicate as is.
template <class F>
constexpr DType unary_compute_type(DType t) {
    if constexpr (F::kind == UnaryKind::Floating) return float_type_of(t);
    else if constexpr (F::kind == UnaryKind::Keep) return t == DType::Bool ? DType::Int64 : t;
    else return t;
}
// Whether functor F is ever computed in the C++ type T: the kernels of other pairs are not built.
template <class F, class T>
constexpr bool binary_computes_in() {
    return binary_compute_type<F>(dtype_of<T>::value) == dtype_of<T>::value;
}
template <class F, class T>
constexpr bool unary_computes_in() {
    return unary_compute_type<F>(dtype_of<T>::value) == dtype_of<T>::value;
}

// The element types functor F takes (see `complex` above).
template <class F>
constexpr TypeSet types_of() { return F::complex ? TypeSet::WithComplex : TypeSet::All; }

// Whether F has a bulk loop for runs of T.
template <class F, class T, class = void> struct has_bulk : std::false_type {};
template <class F, class T>
struct has_bulk<F, T, std::void_t<decltype(F::bulk(std::declval<const T*>(), std::declval<decltype(F{}(T{}))*>(),
                                                    int64_t{}))>> : std::true_type {};

}  // namespace moira::fn
