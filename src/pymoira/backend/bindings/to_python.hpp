// Backend values back to Python, shared by both extension modules: the Python object of a
// Tensor, numpy arrays of its values, and Python numbers.
#pragma once

#include <nanobind/nanobind.h>

#include "moira.hpp"

namespace pymoira {

namespace nb = nanobind;

// A new Python object holding `t`.
nb::object wrap_core(moira::Tensor t);

// numpy array of t's values: a view that keeps the storage alive, or an independent copy.
nb::object to_numpy(const moira::Tensor& t, bool copy);

// A Scalar as the Python number of its kind: bool, int or float.
nb::object scalar_to_python(moira::Scalar s);

}  // namespace pymoira
