// Shapes: extents, their element counts, strides and numpy broadcasting.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "core/export.hpp"
#include "core/small_vec.hpp"

namespace moira {

// Extents or strides, one per axis; up to six axes live inside the object (no heap allocation).
using Shape = SmallVec<int64_t, 6>;

// The most axes a tensor may have (numpy's limit). Kernels that walk axes recursively rely on it.
constexpr size_t kMaxDims = 64;

// Number of elements; raises ValueError on a negative extent, on more than kMaxDims axes, or
// when the extents other than 0 multiply past the element limit of 2**48 (an empty shape
// included: Note [Extents of empty shapes]).
MOIRA_API int64_t checked_numel(const Shape& shape);

// a * b and a + b on int64, or OverflowError naming `what` (the argument the values came from)
// when the exact result does not fit. User-given sizes, counts, steps and positions go through
// these before they enter any other arithmetic.
[[noreturn]] MOIRA_API void fail_overflow(const char* what);
inline int64_t checked_mul(int64_t a, int64_t b, const char* what) {
    int64_t r;
    if (__builtin_mul_overflow(a, b, &r)) fail_overflow(what);
    return r;
}
inline int64_t checked_add(int64_t a, int64_t b, const char* what) {
    int64_t r;
    if (__builtin_add_overflow(a, b, &r)) fail_overflow(what);
    return r;
}

inline int64_t numel(const Shape& shape) {
    int64_t n = 1;
    for (int64_t e : shape) n *= e;
    return n;
}

// Element strides of a contiguous row-major layout.
MOIRA_API Shape contiguous_strides(const Shape& shape);

// The strides under which a view of `shape` with `strides` reads as `target` (the same element
// count) in row-major order without moving elements, or false when the layout does not allow
// it: axes are regrouped only where they step through memory as one (numpy's rule).
MOIRA_API bool reshape_strides(const Shape& shape, const Shape& strides, const Shape& target, Shape& out);

// "[2, 3]": the way Python prints a list of ints.
MOIRA_API std::string shape_str(const Shape& shape);

// numpy's rule: trailing axes aligned, an extent of 1 (or a missing leading axis) stretches.
// Raises ValueError naming both shapes when they do not broadcast.
MOIRA_API Shape broadcast_shapes(const Shape& a, const Shape& b);

// A reshape target with at most one -1 resolved against `numel`; ValueError when it does not fit.
MOIRA_API Shape resolve_reshape(const Shape& requested, int64_t numel, const char* op);

// Wraps a possibly negative axis into [0, ndim); IndexError naming `op` when out of range.
MOIRA_API int64_t wrap_axis(int64_t axis, int64_t ndim, const char* op);

}  // namespace moira
