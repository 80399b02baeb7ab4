// Extremes and whole-tensor queries: maxima, minima and their positions, medians, all/any.
//
// Note [Extremes and NaN]
// As in numpy, a NaN wins every comparison of max, min, argmax and argmin: a lane holding a
// NaN has the maximum (and minimum) NaN, and argmax/argmin give the position of its first NaN.
// Among equal extremes the first position wins. A median is NaN when its lane holds a NaN; for
// an even count it is the mean of the two middle values. These reductions have no value for an
// empty lane: a tensor without elements, or an axis of length 0, raises ValueError (numpy's
// rule), while a reduction with no lanes at all gives an empty result.
//
// Result types: max and min keep the element type; argmax and argmin give int64 (along an axis,
// positions along it; of the whole tensor, the row-major position); medians of floats keep
// their type, of bool and int64 are float32. Shapes: Note [Shapes of reduction results].
#pragma once

#include "core/tensor.hpp"
#include "kernels/reduce/reduce.hpp"

namespace moira {

MOIRA_API Tensor amax(const Tensor& t, Axis axis = std::nullopt, bool keepdims = false);
MOIRA_API Tensor amin(const Tensor& t, Axis axis = std::nullopt, bool keepdims = false);
MOIRA_API Tensor argmax(const Tensor& t, Axis axis = std::nullopt, bool keepdims = false);
MOIRA_API Tensor argmin(const Tensor& t, Axis axis = std::nullopt, bool keepdims = false);
MOIRA_API Tensor median(const Tensor& t, Axis axis = std::nullopt, bool keepdims = false);

// Whether every / some element is non-zero (NaN counts as non-zero). True / false when empty.
MOIRA_API bool all(const Tensor& t);
MOIRA_API bool any(const Tensor& t);

}  // namespace moira
