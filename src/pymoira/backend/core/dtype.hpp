// Element types and the one dtype dispatch of the backend.
//
// Note [Type promotion]
// bool < int64 < float32 < float64: a binary operation computes in the higher of its operands'
// types. Comparisons, logical functions and finiteness tests give bool; index results give
// int64; division of integers and the float-only functions (exp, log, ...) of integers give
// float32, the framework's default type. A Python number passed as a scalar never raises the
// type of a float tensor (see Scalar).
#pragma once

#include <cstddef>
#include <cstdint>
#include <limits>
#include <type_traits>

#include "core/errors.hpp"

namespace moira {

enum class DType : uint8_t { Bool, Int64, Float32, Float64 };

constexpr DType kDefaultFloat = DType::Float32;

constexpr size_t itemsize(DType t) {
    switch (t) {
        case DType::Bool: return 1;
        case DType::Int64: return 8;
        case DType::Float32: return 4;
        case DType::Float64: return 8;
    }
    return 0;
}

constexpr const char* dtype_name(DType t) {
    switch (t) {
        case DType::Bool: return "bool";
        case DType::Int64: return "int64";
        case DType::Float32: return "float32";
        case DType::Float64: return "float64";
    }
    return "?";
}

constexpr bool is_floating(DType t) { return t == DType::Float32 || t == DType::Float64; }

constexpr DType promote(DType a, DType b) { return a > b ? a : b; }

// The type a float-only function computes in: floats keep their type, others become float32.
constexpr DType float_type_of(DType t) { return is_floating(t) ? t : kDefaultFloat; }

template <class T> struct dtype_of;
template <> struct dtype_of<bool> { static constexpr DType value = DType::Bool; };
template <> struct dtype_of<int64_t> { static constexpr DType value = DType::Int64; };
template <> struct dtype_of<float> { static constexpr DType value = DType::Float32; };
template <> struct dtype_of<double> { static constexpr DType value = DType::Float64; };

template <class T> struct TypeTag { using type = T; };

// Conversion between element types. Floats become int64 with NaN as 0 and out-of-range values
// clamped to the int64 range (a plain cast is undefined there).
template <class D, class S>
constexpr D convert(S v) {
    if constexpr (std::is_same_v<D, int64_t> && std::is_floating_point_v<S>) {
        if (!(v == v)) return 0;
        if (v >= static_cast<S>(9.2233720368547758e18)) return std::numeric_limits<int64_t>::max();
        if (v <= static_cast<S>(-9.2233720368547758e18)) return std::numeric_limits<int64_t>::min();
    }
    return static_cast<D>(v);
}

// The element types an operation accepts.
enum class TypeSet { All, Numeric, Floating };

template <TypeSet S, class T>
constexpr bool in_type_set() {
    if constexpr (S == TypeSet::All) return true;
    if constexpr (S == TypeSet::Numeric) return !std::is_same_v<T, bool>;
    return std::is_floating_point_v<T>;
}

// Calls f(TypeTag<T>{}) with the C++ type of `t`. Types outside S raise TypeError naming `op`;
// they are never instantiated. Every dtype switch of the backend goes through here.
template <TypeSet S = TypeSet::All, class F>
decltype(auto) dispatch(DType t, const char* op, F&& f) {
    switch (t) {
        case DType::Bool:
            if constexpr (in_type_set<S, bool>()) return f(TypeTag<bool>{});
            break;
        case DType::Int64:
            if constexpr (in_type_set<S, int64_t>()) return f(TypeTag<int64_t>{});
            break;
        case DType::Float32:
            if constexpr (in_type_set<S, float>()) return f(TypeTag<float>{});
            break;
        case DType::Float64:
            if constexpr (in_type_set<S, double>()) return f(TypeTag<double>{});
            break;
    }
    fail<TypeError>(op, ": unsupported element type ", dtype_name(t));
}

}  // namespace moira
