// A Python number on its way into a kernel: kept exact (an int stays an int64, a float a double)
// until the kernel knows the element type it computes in.
//
// Note [Weak scalars]
// Python numbers are weak, as in numpy 2: they keep their exact value and do not raise the type
// of the tensor they meet. float64 tensor op 0.1 computes with the double 0.1; float32 op 0.1
// rounds 0.1 once to float32; int64 op 1 stays int64 (wrapping as integers do); int64 op 0.5
// gives the default float type (float32); bool op 1 gives int64. A one-element tensor made from
// a Python number remembers the number (Tensor::is_weak) and binary operations with a tensor
// that is not weak treat it exactly like the number. numpy scalar objects are typed, not weak.
// A Python complex is weak too: float32 op 1j is complex64, float64 op 1j complex128, and a
// complex tensor keeps its type; bool and int64 op 1j give the default complex type, complex64.
#pragma once

#include <cmath>
#include <cstdint>
#include <iomanip>
#include <sstream>

#include "core/dtype.hpp"

namespace moira {

struct Scalar {
    DType kind = DType::Float64;  // Bool, Int64, Float64 or Complex128
    int64_t i = 0;
    double d = 0.0;  // the value (of a complex one, the real part)
    // An integer beyond int64's range (a Python int of more than 64 bits): `d` holds it rounded,
    // so float kernels can take it; integer kernels raise OverflowError (see as_int64).
    bool wide = false;
    double im = 0.0;  // the imaginary part of a complex value

    static Scalar from_bool(bool v) { return {DType::Bool, v ? 1 : 0, v ? 1.0 : 0.0}; }
    static Scalar from_int(int64_t v) { return {DType::Int64, v, static_cast<double>(v)}; }
    static Scalar from_wide_int(double v) { return {DType::Int64, 0, v, true}; }
    static Scalar from_double(double v) { return {DType::Float64, convert<int64_t>(v), v}; }
    static Scalar from_complex(double re, double imag) {
        return {DType::Complex128, convert<int64_t>(re), re, false, imag};
    }

    bool is_floating() const { return kind == DType::Float64; }
    bool is_complex() const { return kind == DType::Complex128; }

    // The value in element type T. A complex value in a real type is its real part: callers
    // refuse that where it would discard an imaginary part (see Scalar::is_complex).
    template <class T>
    T as() const {
        const bool real_in_d = is_floating() || is_complex() || wide;
        if constexpr (is_complex_v<T>) {
            using R = typename T::value_type;
            return T(real_in_d ? static_cast<R>(d) : static_cast<R>(i), static_cast<R>(im));
        } else if constexpr (std::is_same_v<T, bool>) {
            return real_in_d ? d != 0.0 || im != 0.0 : i != 0;
        } else if constexpr (std::is_integral_v<T>) {
            return static_cast<T>(as_int64());
        } else {
            return real_in_d ? static_cast<T>(d) : static_cast<T>(i);
        }
    }

    // The value as an integer element: OverflowError for a wide int, ValueError for NaN and
    // infinities (never a silent 0); finite floats beyond int64 saturate, as `convert` does.
    int64_t as_int64() const {
        if (wide) {
            std::ostringstream os;
            os << std::setprecision(17) << d;
            fail<OverflowError>("Python integer ", os.str(), " out of bounds for int64");
        }
        if (!is_floating() && !is_complex()) return i;
        if (std::isnan(d)) fail<ValueError>("cannot convert float NaN to integer");
        if (std::isinf(d)) fail<ValueError>("cannot convert float infinity to integer");
        return convert<int64_t>(d);
    }

    // The type a tensor of type `t` combined with this scalar computes in: a float scalar lifts
    // bool and int64 tensors to float32; an int scalar lifts bool to int64; nothing else changes.
    DType result_type_with(DType t) const {
        if (is_complex()) return moira::is_complex(t) ? t : t == DType::Float64 ? DType::Complex128 : DType::Complex64;
        if (is_floating() && !moira::is_floating(t) && !moira::is_complex(t)) return kDefaultFloat;
        if (kind == DType::Int64 && t == DType::Bool) return DType::Int64;
        return t;
    }
};

}  // namespace moira
