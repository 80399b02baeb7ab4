// Assertions with messages, argument-type checks and edge names of the layout functions.
#include "layout/layout_args.hpp"

#include "indexing/wrap_dim.hpp"

namespace pymoira {

void assert_that(bool ok, const char* message) {
    if (ok || !assertions_enabled()) return;
    PyErr_SetString(PyExc_AssertionError, message);
    throw nb::python_error();
}

void assert_that(bool ok, const std::string& message) {
    if (!ok) assert_that(false, message.c_str());
}

void check_arg_type(nb::handle obj, PyTypeObject* type, const char* name, bool none_ok) {
    if (Py_TYPE(obj.ptr()) == type || (none_ok && obj.is_none())) return;
    PyErr_Format(PyExc_TypeError, "Argument '%.200s' has incorrect type (expected %.200s, got %.200s)", name,
                 type->tp_name, Py_TYPE(obj.ptr())->tp_name);
    throw nb::python_error();
}

std::vector<int64_t> int_items(nb::handle obj, const char* op, const char* what) {
    std::vector<int64_t> out;
    for (nb::handle item : obj) out.push_back(int_arg(item, op, what));
    return out;
}

bool plain_int_list(nb::handle obj, moira::Shape& out) {
    PyObject* o = obj.ptr();
    if (!PyList_CheckExact(o)) return false;
    const Py_ssize_t n = PyList_GET_SIZE(o);
    out.resize(static_cast<size_t>(n));
    for (Py_ssize_t i = 0; i < n; ++i) {
        PyObject* item = PyList_GET_ITEM(o, i);
        if (!PyLong_CheckExact(item)) return false;
        int overflow = 0;
        out[static_cast<size_t>(i)] = PyLong_AsLongLongAndOverflow(item, &overflow);
        if (overflow) return false;
    }
    return true;
}

void edge_with_text(Record& rec, nb::handle input, GradFn fn, const char* prefix, const moira::Shape& shape,
                    const char* middle, nb::handle obj) {
    moira::Shape values;
    if (plain_int_list(obj, values)) return rec.edge(input, std::move(fn), EdgeName::two(prefix, shape, middle, values));
    std::string text = prefix + moira::shape_str(shape) + middle + py_text(obj);
    rec.edge(input, std::move(fn), nb::str(text.c_str(), text.size()));
}

void edge_with_text(Record& rec, nb::handle input, GradFn fn, const char* prefix, nb::handle obj) {
    moira::Shape values;
    if (plain_int_list(obj, values)) return rec.edge(input, std::move(fn), EdgeName::one(prefix, values));
    std::string text = prefix + py_text(obj);
    rec.edge(input, std::move(fn), nb::str(text.c_str(), text.size()));
}

}  // namespace pymoira
