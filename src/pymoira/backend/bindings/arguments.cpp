// Reading arguments from Python; see arguments.hpp.
#include "bindings/arguments.hpp"

namespace pymoira {

using moira::Scalar;
using moira::Shape;
using moira::Tensor;

namespace {

// operator.index(item) as a long long. Objects that have the slot but refuse (numpy arrays
// other than integer scalars) raise TypeError naming `op` and `what` was expected; an int
// beyond int64 raises OverflowError naming the argument ("chunk: chunks must fit in a 64-bit
// integer, got Python integer 18446744073709551616" for `what` "chunks must be an integer").
long long index_value(PyObject* item, const char* op, const char* what) {
    nb::object idx = nb::steal(PyNumber_Index(item));
    if (!idx.is_valid()) {
        PyErr_Clear();
        moira::fail<moira::TypeError>(op, ": ", what, ", got ", Py_TYPE(item)->tp_name);
    }
    int overflow = 0;
    long long v = PyLong_AsLongLongAndOverflow(idx.ptr(), &overflow);
    if (v == -1 && PyErr_Occurred()) throw nb::python_error();
    if (overflow) {
        std::string name(what);
        name = name.substr(0, name.find(" must be"));  // "chunks must be an integer" names chunks
        moira::fail<moira::OverflowError>(op, ": ", name, " must fit in a 64-bit integer, got ", int_text(idx.ptr()));
    }
    return v;
}

// One int, not a float nor a sequence (numpy arrays have __index__ too).
bool is_one_int(PyObject* o) { return PyIndex_Check(o) && !PyFloat_Check(o) && !PySequence_Check(o); }

PyTypeObject* core_type() {
    static PyTypeObject* t = (PyTypeObject*)nb::type<Tensor>().ptr();
    return t;
}

}  // namespace

std::string py_type_name(nb::handle obj) { return Py_TYPE(obj.ptr())->tp_name; }

std::string int_text(PyObject* o) {
    nb::object bits = nb::steal(PyObject_CallMethod(o, "bit_length", nullptr));
    if (bits.is_valid() && nb::cast<int64_t>(bits) > 256)
        return std::to_string(nb::cast<int64_t>(bits)) + "-bit Python integer";
    PyErr_Clear();
    return "Python integer " + nb::cast<std::string>(nb::str(o));
}

Scalar scalar_from_int(PyObject* o) {
    int overflow = 0;
    long long v = PyLong_AsLongLongAndOverflow(o, &overflow);
    if (v == -1 && PyErr_Occurred()) throw nb::python_error();
    if (!overflow) return Scalar::from_int(v);
    double d = PyLong_AsDouble(o);
    if (d == -1.0 && PyErr_Occurred()) {
        PyErr_Clear();
        moira::fail<moira::OverflowError>(int_text(o), " out of bounds for int64 and float64");
    }
    return Scalar::from_wide_int(d);
}

bool numpy_type(nb::handle obj, NumpyType& out) {
    static PyObject* const dtype_s = PyUnicode_InternFromString("dtype");
    static PyObject* const kind_s = PyUnicode_InternFromString("kind");
    static PyObject* const order_s = PyUnicode_InternFromString("byteorder");
    static PyObject* const size_s = PyUnicode_InternFromString("itemsize");
    nb::object dt = nb::steal(PyObject_GetAttr(obj.ptr(), dtype_s)), kind, order, size;
    if (dt.is_valid()) kind = nb::steal(PyObject_GetAttr(dt.ptr(), kind_s));
    if (kind.is_valid()) order = nb::steal(PyObject_GetAttr(dt.ptr(), order_s));
    if (order.is_valid()) size = nb::steal(PyObject_GetAttr(dt.ptr(), size_s));
    auto one_char = [](const nb::object& s) { return PyUnicode_Check(s.ptr()) && PyUnicode_GET_LENGTH(s.ptr()) == 1; };
    if (!size.is_valid() || !one_char(kind) || !one_char(order) || !PyLong_Check(size.ptr())) {
        PyErr_Clear();
        return false;
    }
    out.kind = static_cast<char>(PyUnicode_READ_CHAR(kind.ptr(), 0));
    out.order = static_cast<char>(PyUnicode_READ_CHAR(order.ptr(), 0));
    out.itemsize = PyLong_AsSsize_t(size.ptr());
    if (out.itemsize == -1 && PyErr_Occurred()) throw nb::python_error();
    out.dtype = std::move(dt);
    return true;
}

bool scalar_from_python(nb::handle obj, Scalar& out) {
    PyObject* o = obj.ptr();
    if (PyBool_Check(o)) { out = Scalar::from_bool(o == Py_True); return true; }
    if (PyLong_Check(o)) { out = scalar_from_int(o); return true; }
    if (PyFloat_Check(o)) { out = Scalar::from_double(PyFloat_AS_DOUBLE(o)); return true; }
    if (PyComplex_Check(o)) {
        const Py_complex c = PyComplex_AsCComplex(o);
        if (c.real == -1.0 && PyErr_Occurred()) throw nb::python_error();
        out = Scalar::from_complex(c.real, c.imag);
        return true;
    }
    if (is_sequence(o) || is_text(o) || is_core(obj)) return false;
    NumpyType nt;
    const bool numpy = numpy_type(obj, nt);
    if (numpy) {  // numpy scalars and 0-d arrays, by their dtype
        nb::object nd = nb::borrow(obj).attr("ndim");
        if (!nb::isinstance<nb::int_>(nd) || nb::cast<int>(nd) != 0) return false;
        switch (nt.kind) {
            case 'b': {
                int truth = PyObject_IsTrue(o);
                if (truth < 0) throw nb::python_error();
                out = Scalar::from_bool(truth == 1);
                return true;
            }
            case 'i': case 'u': case 'f': break;
            case 'c': {
                const Py_complex c = PyComplex_AsCComplex(nb::object(nb::borrow(obj).attr("item")()).ptr());
                if (PyErr_Occurred()) throw nb::python_error();
                out = Scalar::from_complex(c.real, c.imag);
                return true;
            }
            default: return false;  // datetime64, strings, ...: not numbers
        }
    }
    // Integers (numpy's and other types with __index__), then anything with __float__.
    if (numpy ? nt.kind != 'f' : PyIndex_Check(o)) {
        nb::object idx = nb::steal(PyNumber_Index(o));
        if (idx.is_valid()) {
            out = scalar_from_int(idx.ptr());
            return true;
        }
        if (numpy) throw nb::python_error();
        PyErr_Clear();
    }
    PyNumberMethods* nm = Py_TYPE(o)->tp_as_number;
    if (nm && nm->nb_float) {
        double d = PyFloat_AsDouble(o);
        if (d == -1.0 && PyErr_Occurred()) throw nb::python_error();
        out = Scalar::from_double(d);
        return true;
    }
    return false;
}

Scalar scalar_arg(nb::handle obj, const char* op) {
    Scalar s;
    if (!scalar_from_python(obj, s))
        moira::fail<moira::TypeError>(op, ": expected a number, got ", py_type_name(obj));
    return s;
}

int64_t int_arg(nb::handle obj, const char* op, const char* what) {
    PyObject* o = obj.ptr();
    if (PyFloat_Check(o) || !PyIndex_Check(o)) moira::fail<moira::TypeError>(op, ": ", what, ", got ", py_type_name(obj));
    return index_value(o, op, what);
}

int64_t axis_arg(nb::handle obj, const char* op) { return int_arg(obj, op, "axis must be an integer"); }

std::optional<int64_t> optional_axis_arg(nb::handle obj, const char* op, bool in_list) {
    PyObject* o = obj.ptr();
    if (obj.is_none()) return std::nullopt;
    if (in_list && (PyList_Check(o) || PyTuple_Check(o))) {
        if (PySequence_Size(o) != 1)
            moira::fail<moira::ValueError>(op, ": expected one axis in a list such as [1], got ",
                                           nb::cast<std::string>(nb::repr(obj)));
        nb::object item = nb::steal(PySequence_GetItem(o, 0));
        if (!item.is_valid()) throw nb::python_error();
        return int_arg(item, op, "an axis must be an integer");
    }
    return int_arg(obj, op, "axis must be an integer or None");
}

int64_t device_arg(nb::handle obj, const char* op) { return int_arg(obj, op, "device must be an integer"); }

bool truth_arg(nb::handle obj) {
    if (obj.ptr() == Py_True) return true;
    if (obj.ptr() == Py_False || obj.is_none()) return false;
    int r = PyObject_IsTrue(obj.ptr());
    if (r < 0) throw nb::python_error();
    return r == 1;
}

Shape shape_from_python(nb::handle obj, const char* op, bool allow_infer) {
    PyObject* o = obj.ptr();
    Shape shape;
    auto read = [&](PyObject* item) {
        if (PyFloat_Check(item) || !PyIndex_Check(item))
            moira::fail<moira::TypeError>(op, ": shape entries must be integers, got ", Py_TYPE(item)->tp_name);
        long long v = index_value(item, op, "shape entries must be integers");
        if (v < 0 && !(allow_infer && v == -1))
            moira::fail<moira::ValueError>(op, ": negative dimension ", v, " in shape");
        shape.push_back(v);
    };
    if (is_one_int(o)) {
        read(o);
        return shape;
    }
    if (is_text(o) || !PySequence_Check(o))
        moira::fail<moira::TypeError>(op, ": shape must be a list of integers, got ", py_type_name(obj));
    nb::object seq = nb::steal(PySequence_Fast(o, "shape must be a sequence"));
    if (!seq.is_valid()) throw nb::python_error();
    Py_ssize_t n = PySequence_Fast_GET_SIZE(seq.ptr());
    PyObject** items = PySequence_Fast_ITEMS(seq.ptr());
    for (Py_ssize_t i = 0; i < n; ++i) read(items[i]);
    if (!allow_infer) moira::checked_numel(shape);
    return shape;
}

std::vector<int64_t> int_list_arg(nb::handle obj, const char* op, const char* what, const char* entries, bool one_int) {
    PyObject* o = obj.ptr();
    if (one_int && is_one_int(o)) return {int_arg(obj, op, entries)};
    if (!is_sequence(o))
        moira::fail<moira::TypeError>(op, ": ", what, " must be a list of integers, got ", py_type_name(obj));
    std::vector<int64_t> out;
    out.reserve(static_cast<size_t>(PySequence_Fast_GET_SIZE(o)));
    for (nb::handle item : obj) out.push_back(int_arg(item, op, entries));
    return out;
}

moira::DType dtype_arg(nb::handle obj, const char* op) {
    if (obj.is_none()) return moira::kDefaultFloat;
    nb::object name;
    if (nb::isinstance<nb::str>(obj)) name = nb::borrow(obj);
    else if (nb::hasattr(obj, "name") && nb::isinstance<nb::str>(obj.attr("name"))) name = obj.attr("name");
    else if (nb::hasattr(obj, "__name__")) name = obj.attr("__name__");
    std::string s = name.is_valid() ? nb::cast<std::string>(nb::str(name)) : "";
    if (s == "float") return moira::DType::Float64;
    if (s == "int") return moira::DType::Int64;
    if (s == "bool_") return moira::DType::Bool;
    if (s == "complex") return moira::DType::Complex128;
    for (size_t i = 0; i < moira::kDTypeCount; ++i)
        if (s == moira::kDTypes[i].name) return static_cast<moira::DType>(i);
    moira::fail<moira::TypeError>(op, ": unsupported dtype ", nb::cast<std::string>(nb::repr(obj)),
                                  " (use 'bool', 'int64', 'float32', 'float64', 'complex64' or 'complex128')");
}

moira::IndexList index_list_from_python(nb::handle obj, const char* op) {
    PyObject* o = obj.ptr();
    if (!is_sequence(o))
        moira::fail<moira::TypeError>(op, ": the index must be a list of str, got ", Py_TYPE(o)->tp_name);
    const Py_ssize_t n = PySequence_Fast_GET_SIZE(o);
    PyObject** items = PySequence_Fast_ITEMS(o);
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

bool is_core(nb::handle obj) {
    PyTypeObject* t = Py_TYPE(obj.ptr());
    return t == core_type() || PyType_IsSubtype(t, core_type());
}

Tensor& core_ref(nb::handle obj, const char* op) {
    if (!is_core(obj))
        moira::fail<moira::TypeError>(op, ": expected a backend Tensor, got ", py_type_name(obj));
    return *nb::inst_ptr<Tensor>(obj);
}

}  // namespace pymoira
