// Reading arguments from Python, shared by both extension modules: numbers, integers, truth
// values, devices, shapes, integer lists, element types, index-string lists and backend Tensors.
// Errors name the operation (`op`) and what was expected.
#pragma once

#include <nanobind/nanobind.h>
#include <nanobind/stl/string.h>

#include <optional>
#include <string>
#include <vector>

#include "moira.hpp"

namespace pymoira {

namespace nb = nanobind;

// A Python number (bool, int, float or a numpy scalar); false when `obj` is not one. Ints keep
// their exact value within int64 and become wide Scalars beyond it; complex numbers raise
// TypeError.
bool scalar_from_python(nb::handle obj, moira::Scalar& out);
moira::Scalar scalar_arg(nb::handle obj, const char* op);

// An integer argument (ints and numpy integers; floats refused): TypeError naming `op` and
// what was expected (`what`, such as "axis must be an integer").
int64_t int_arg(nb::handle obj, const char* op, const char* what);
// An axis: an integer argument ("axis must be an integer").
int64_t axis_arg(nb::handle obj, const char* op);
// The axis of a reduction: none (the whole tensor) for None, else an integer ("axis must be an
// integer or None"); with `in_list`, also one held in a one-element list or tuple ([1]), as the
// backend's reductions take it.
std::optional<int64_t> optional_axis_arg(nb::handle obj, const char* op, bool in_list = false);
// A device number from an argument.
int64_t device_arg(nb::handle obj, const char* op);
// The truth value of an argument, as `bool(obj)` gives it.
bool truth_arg(nb::handle obj);

// A list/tuple/array of non-negative integers, or one integer. Raises TypeError or ValueError
// naming `op`; with `allow_infer`, one entry may be -1.
moira::Shape shape_from_python(nb::handle obj, const char* op, bool allow_infer = false);

// A list or tuple of integers of any sign (the kernels check the values): TypeError naming `op`
// when obj is not one ("<what> must be a list of integers") or for an entry that is not an
// integer (`entries`, such as "strides must be integers"). With `one_int`, one integer is a list
// of one.
std::vector<int64_t> int_list_arg(nb::handle obj, const char* op, const char* what, const char* entries,
                                  bool one_int = false);

// A dtype argument: None (the default float32), a name such as "float64", or an object whose
// `name` or `__name__` is one (numpy dtypes and scalar types).
moira::DType dtype_arg(nb::handle obj, const char* op);

// An index-string list: a list or tuple of str; TypeError naming `op` otherwise.
moira::IndexList index_list_from_python(nb::handle obj, const char* op);

// True for the Python object of a backend Tensor.
bool is_core(nb::handle obj);
// The Tensor inside such an object (no copy); TypeError naming `op` otherwise.
moira::Tensor& core_ref(nb::handle obj, const char* op);

// ---- reading Python objects: the pieces tensor_from_python.cpp shares ----

std::string py_type_name(nb::handle obj);
// A list or a tuple: the sequences read as nested data.
inline bool is_sequence(PyObject* o) { return PyList_Check(o) || PyTuple_Check(o); }
// str, bytes or bytearray: never numbers, though some are sequences.
inline bool is_text(PyObject* o) { return PyUnicode_Check(o) || PyBytes_Check(o) || PyByteArray_Check(o); }
// A Python int for a message: "Python integer 123", or its size when it has too many digits.
std::string int_text(PyObject* o);
// A Python int as a Scalar: exact within int64, wide beyond (see Scalar::wide).
moira::Scalar scalar_from_int(PyObject* o);

// The numpy dtype of an array or numpy scalar: kind ('b', 'i', 'u', 'f', 'c', 'M', 'U', ...),
// item size and byte order ('=', '|', '<' or '>').
struct NumpyType {
    char kind = 0;
    char order = '=';
    Py_ssize_t itemsize = 0;
    nb::object dtype;
    std::string name() const { return nb::cast<std::string>(nb::str(dtype.attr("name"))); }
};

// Reads obj.dtype; false for objects that have no numpy dtype.
bool numpy_type(nb::handle obj, NumpyType& out);

}  // namespace pymoira
