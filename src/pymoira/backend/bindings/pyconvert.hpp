// Conversions between Python objects and backend values, shared by both extension modules:
// tensors from numbers, nested lists and numpy arrays; shapes and scalars from arguments;
// numpy arrays from tensors; and the Python object of a backend Tensor.
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

// A list/tuple/array of non-negative integers. Raises TypeError or ValueError naming `op`.
moira::Shape shape_from_python(nb::handle obj, const char* op, bool allow_infer = false);

// A Python number (bool, int, float or a numpy scalar); false when `obj` is not one. Ints keep
// their exact value within int64 and become wide Scalars beyond it; complex numbers raise
// TypeError.
bool scalar_from_python(nb::handle obj, moira::Scalar& out);
moira::Scalar scalar_arg(nb::handle obj, const char* op);

// An integer argument (ints and numpy integers; floats refused): TypeError naming `op` and
// what was expected (`what`, such as "axis must be an integer").
int64_t int_arg(nb::handle obj, const char* op, const char* what);
// A device number from an argument.
int64_t device_arg(nb::handle obj, const char* op);
// The truth value of an argument, as `bool(obj)` gives it.
bool truth_arg(nb::handle obj);

// True for the Python object of a backend Tensor.
bool is_core(nb::handle obj);
// The Tensor inside such an object (no copy); TypeError naming `op` otherwise.
moira::Tensor& core_ref(nb::handle obj, const char* op);
// A new Python object holding `t`.
nb::object wrap_core(moira::Tensor t);

// numpy array of t's values: a view that keeps the storage alive, or an independent copy.
nb::object to_numpy(const moira::Tensor& t, bool copy);

}  // namespace pymoira
