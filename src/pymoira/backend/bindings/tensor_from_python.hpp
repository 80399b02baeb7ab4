// Tensors from Python data, shared by both extension modules: numbers, nested lists, numpy
// arrays and scalars, and other objects with the buffer protocol.
#pragma once

#include <nanobind/nanobind.h>

#include "moira.hpp"

namespace pymoira {

namespace nb = nanobind;

// Note [Building a tensor from Python data]
// Python numbers and nested lists of them become float32 (the framework's default type;
// lists of integers are data, not indices); numpy scalars and 0-d arrays inside lists count as
// numbers, and an int beyond float32's range raises OverflowError. numpy arrays and scalars of
// any layout and byte order, and other objects with the buffer protocol, keep float32, float64
// and bool; other integer types become int64 (OverflowError for uint64 values beyond it) and
// float16 becomes float32 (Note [Converting arrays] in the .cpp). Ragged lists raise
// ValueError; strings, None, complex numbers and arrays whose dtype is not a number (object,
// datetime64, strings, structured) raise TypeError naming what was given.
moira::Tensor tensor_from_python(nb::handle data, int64_t device);

}  // namespace pymoira
