// Index-string lists from Python: a list or tuple of str, for the indexing bindings and the
// tensor module's index-string functions.
#pragma once

#include <nanobind/nanobind.h>

#include "kernels/indexing/select.hpp"

namespace pymoira {

namespace nb = nanobind;

// TypeError naming `op` when `obj` is not a list or tuple of str.
inline moira::IndexList index_list_from_python(nb::handle obj, const char* op) {
    PyObject* o = obj.ptr();
    if (!PyList_Check(o) && !PyTuple_Check(o))
        moira::fail<moira::TypeError>(op, ": the index must be a list of str, got ", Py_TYPE(o)->tp_name);
    nb::object seq = nb::steal(PySequence_Fast(o, "index must be a sequence"));
    if (!seq.is_valid()) throw nb::python_error();
    Py_ssize_t n = PySequence_Fast_GET_SIZE(seq.ptr());
    PyObject** items = PySequence_Fast_ITEMS(seq.ptr());
    moira::IndexList out;
    out.reserve(static_cast<size_t>(n));
    for (Py_ssize_t i = 0; i < n; ++i) {
        if (!PyUnicode_Check(items[i]))
            moira::fail<moira::TypeError>(op, ": index entry ", i, " must be a str, got ", Py_TYPE(items[i])->tp_name);
        Py_ssize_t len = 0;
        const char* text = PyUnicode_AsUTF8AndSize(items[i], &len);
        if (!text) throw nb::python_error();
        out.emplace_back(text, static_cast<size_t>(len));
    }
    return out;
}

}  // namespace pymoira
