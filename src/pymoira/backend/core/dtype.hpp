// Element types and the one dtype dispatch of the backend.
//
// Note [Type promotion]
// bool < int64 < float32 < float64: a binary operation computes in the higher of its operands'
// types. Comparisons, logical functions and finiteness tests give bool; index results give
// int64; division of integers and the float-only functions (exp, log, ...) of integers give
// float32, the framework's default type. A Python number passed as a scalar never raises the
// type of a float tensor (see Scalar). Complex types follow numpy 2: the result is complex, of
// double precision when either side needs it (float64 and int64 do): float32 with complex64
// gives complex64, float64 or int64 with complex64 give complex128.
#pragma once

#include <complex>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <type_traits>

#include "core/errors.hpp"

namespace moira {

// Note [The element-type table]
// Every element type is one row of MOIRA_DTYPES: its enum name, C++ type, name (also numpy's),
// buffer-protocol format, DLPack type code, whether its values are ordered, whether it is
// floating (real) and whether it is complex. The enum, the table of DTypeInfo, the dispatch
// below and the trait dtype_of are all built from these rows; bindings read formats and codes
// from the table. A new element type is a row here plus its kernels. Complex values are stored
// interleaved (real, imaginary), numpy's layout.
using complex64 = std::complex<float>;
using complex128 = std::complex<double>;
#define MOIRA_DTYPES(X)                                                \
    X(Bool, bool, "bool", "?", 6, true, false, false)                  \
    X(Int64, int64_t, "int64", "q", 0, true, false, false)             \
    X(Float32, float, "float32", "f", 2, true, true, false)            \
    X(Float64, double, "float64", "d", 2, true, true, false)           \
    X(Complex64, complex64, "complex64", "Zf", 5, false, false, true)  \
    X(Complex128, complex128, "complex128", "Zd", 5, false, false, true)

#define MOIRA_DTYPE_ENUM(E, C, ...) E,
enum class DType : uint8_t { MOIRA_DTYPES(MOIRA_DTYPE_ENUM) };
#undef MOIRA_DTYPE_ENUM

struct DTypeInfo {
    const char* name;
    size_t itemsize;
    const char* format;   // the buffer protocol's
    uint8_t dlpack_code;  // DLPack's kDLInt 0, kDLFloat 2, kDLComplex 5, kDLBool 6 (bits: 8 * itemsize)
    bool ordered;
    bool floating;
    bool complex;
};

#define MOIRA_DTYPE_INFO(E, C, NAME, FORMAT, DLPACK, ORDERED, FLOATING, COMPLEX) \
    DTypeInfo{NAME, sizeof(C), FORMAT, DLPACK, ORDERED, FLOATING, COMPLEX},
inline constexpr DTypeInfo kDTypes[] = {MOIRA_DTYPES(MOIRA_DTYPE_INFO)};
#undef MOIRA_DTYPE_INFO
#define MOIRA_DTYPE_COUNT(...) +1
inline constexpr size_t kDTypeCount = 0 MOIRA_DTYPES(MOIRA_DTYPE_COUNT);
#undef MOIRA_DTYPE_COUNT
static_assert(sizeof(kDTypes) / sizeof(kDTypes[0]) == kDTypeCount, "one DTypeInfo per element type");

constexpr const DTypeInfo& dtype_info(DType t) { return kDTypes[static_cast<size_t>(t)]; }

constexpr DType kDefaultFloat = DType::Float32;

constexpr size_t itemsize(DType t) { return dtype_info(t).itemsize; }

constexpr const char* dtype_name(DType t) { return dtype_info(t).name; }

constexpr bool is_floating(DType t) { return dtype_info(t).floating; }

constexpr bool is_complex(DType t) { return dtype_info(t).complex; }

// The complex type of a real or complex type's precision: complex128 for float64 and int64.
constexpr DType complex_type_of(DType t) {
    return t == DType::Float64 || t == DType::Int64 || t == DType::Complex128 ? DType::Complex128 : DType::Complex64;
}

// The real type of a complex type's parts (a real type stays itself).
constexpr DType real_type_of(DType t) {
    return t == DType::Complex64 ? DType::Float32 : t == DType::Complex128 ? DType::Float64 : t;
}

// See Note [Type promotion].
constexpr DType promote(DType a, DType b) {
    if (!is_complex(a) && !is_complex(b)) return a > b ? a : b;
    return complex_type_of(a) == DType::Complex128 || complex_type_of(b) == DType::Complex128 ? DType::Complex128
                                                                                              : DType::Complex64;
}

// The type a float-only function computes in: floats and complex keep their type, others become
// float32.
constexpr DType float_type_of(DType t) { return is_floating(t) || is_complex(t) ? t : kDefaultFloat; }

template <class T> struct dtype_of;
#define MOIRA_DTYPE_OF(E, C, ...) \
    template <> struct dtype_of<C> { static constexpr DType value = DType::E; };
MOIRA_DTYPES(MOIRA_DTYPE_OF)
#undef MOIRA_DTYPE_OF

template <class T> struct TypeTag { using type = T; };

template <class T> struct is_complex_type : std::false_type {};
template <class R> struct is_complex_type<std::complex<R>> : std::true_type {};
template <class T> inline constexpr bool is_complex_v = is_complex_type<T>::value;

// Conversion between element types. Floats become int64 with NaN as 0 and out-of-range values
// clamped to the int64 range (a plain cast is undefined there). A real value becomes a complex
// one with imaginary part 0; a complex value becomes a real one through its real part (callers
// refuse that where numpy's casting rules do: only explicit conversions discard the imaginary
// part).
template <class D, class S>
constexpr D convert(S v) {
    if constexpr (is_complex_v<S> && !is_complex_v<D>) {
        if constexpr (std::is_same_v<D, bool>) return v != S(0);
        else return convert<D>(v.real());
    } else if constexpr (is_complex_v<D> && !is_complex_v<S>) {
        return D(static_cast<typename D::value_type>(v), 0);
    } else {
        if constexpr (std::is_same_v<D, int64_t> && std::is_floating_point_v<S>) {
            if (!(v == v)) return 0;
            if (v >= static_cast<S>(9.2233720368547758e18)) return std::numeric_limits<int64_t>::max();
            if (v <= static_cast<S>(-9.2233720368547758e18)) return std::numeric_limits<int64_t>::min();
        }
        return static_cast<D>(v);
    }
}

// The element types an operation accepts. The first three are real types only, so an operation
// takes complex operands only where it says so (WithComplex: every type; Inexact: floating and
// complex); others raise TypeError naming the operation and the type.
enum class TypeSet { All, Numeric, Floating, WithComplex, Inexact };

template <TypeSet S, class T>
constexpr bool in_type_set() {
    if constexpr (S == TypeSet::WithComplex) return true;
    if constexpr (S == TypeSet::Inexact) return std::is_floating_point_v<T> || is_complex_v<T>;
    if constexpr (is_complex_v<T>) return false;
    if constexpr (S == TypeSet::All) return true;
    if constexpr (S == TypeSet::Numeric) return !std::is_same_v<T, bool>;
    return std::is_floating_point_v<T>;
}

// Calls f(TypeTag<T>{}) with the C++ type of `t`. Types outside S raise TypeError naming `op`;
// they are never instantiated. Every dtype switch of the backend goes through here.
template <TypeSet S = TypeSet::All, class F>
decltype(auto) dispatch(DType t, const char* op, F&& f) {
#define MOIRA_DTYPE_CASE(E, C, ...)                              \
    case DType::E:                                               \
        if constexpr (in_type_set<S, C>()) return f(TypeTag<C>{}); \
        break;
    switch (t) { MOIRA_DTYPES(MOIRA_DTYPE_CASE) }
#undef MOIRA_DTYPE_CASE
    fail<TypeError>(op, ": unsupported element type ", dtype_name(t));
}

}  // namespace moira
