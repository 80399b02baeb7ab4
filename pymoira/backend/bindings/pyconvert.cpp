// Python <-> backend conversions; see Note [Building a tensor from Python data].
#include "bindings/pyconvert.hpp"

#include <nanobind/ndarray.h>

#include <cstring>
#include <string>
#include <vector>

namespace pymoira {

using moira::DType;
using moira::Scalar;
using moira::Shape;
using moira::Tensor;

namespace {

std::string py_type_name(nb::handle obj) { return Py_TYPE(obj.ptr())->tp_name; }

bool is_sequence(PyObject* o) { return PyList_Check(o) || PyTuple_Check(o); }

bool is_text(PyObject* o) { return PyUnicode_Check(o) || PyBytes_Check(o) || PyByteArray_Check(o); }

// ---- buffer protocol (numpy arrays and scalars) ----

enum class SrcKind { Bool, Signed, Unsigned, Half, Float };

struct BufferFormat {
    SrcKind kind;
    size_t size;
};

[[noreturn]] void unsupported_format(const char* fmt) {
    std::string f = fmt ? fmt : "B";
    if (f.find('O') != std::string::npos)
        moira::fail<moira::TypeError>("cannot build a tensor from an object array");
    if (f.find('Z') != std::string::npos)
        moira::fail<moira::TypeError>("cannot build a tensor from a complex array: complex element types are not supported yet");
    moira::fail<moira::TypeError>("cannot build a tensor from an array of element format '", f,
                                  "': supported are bool, integer and float16/32/64 arrays");
}

BufferFormat parse_format(const char* fmt, Py_ssize_t itemsize) {
    const char* f = fmt ? fmt : "B";
    bool big_endian = false;
    if (*f == '@' || *f == '=' || *f == '<') ++f;
    else if (*f == '>' || *f == '!') { big_endian = true; ++f; }
    if (f[0] == '\0' || f[1] != '\0') unsupported_format(fmt);
    BufferFormat out;
    switch (f[0]) {
        case '?': out = {SrcKind::Bool, 1}; break;
        case 'b': case 'h': case 'i': case 'l': case 'q': case 'n':
            out = {SrcKind::Signed, static_cast<size_t>(itemsize)}; break;
        case 'B': case 'H': case 'I': case 'L': case 'Q': case 'N':
            out = {SrcKind::Unsigned, static_cast<size_t>(itemsize)}; break;
        case 'e': out = {SrcKind::Half, 2}; break;
        case 'f': out = {SrcKind::Float, 4}; break;
        case 'd': out = {SrcKind::Float, 8}; break;
        default: unsupported_format(fmt);
    }
    if (out.size != static_cast<size_t>(itemsize) ||
        (out.kind != SrcKind::Half && out.kind != SrcKind::Float && out.size != 1 && out.size != 2 &&
         out.size != 4 && out.size != 8))
        unsupported_format(fmt);
    if (big_endian && out.size > 1)
        moira::fail<moira::TypeError>("cannot build a tensor from big-endian data: convert it to native byte order first");
    return out;
}

DType target_type(SrcKind k, size_t size) {
    switch (k) {
        case SrcKind::Bool: return DType::Bool;
        case SrcKind::Signed: case SrcKind::Unsigned: return DType::Int64;
        case SrcKind::Half: return DType::Float32;
        case SrcKind::Float: return size == 8 ? DType::Float64 : DType::Float32;
    }
    return DType::Float32;
}

float half_to_float(uint16_t h) {
    uint32_t sign = uint32_t(h & 0x8000) << 16, exp = (h >> 10) & 0x1f, man = h & 0x3ff, bits;
    if (exp == 0) {
        if (man == 0) bits = sign;
        else {  // subnormal: normalise
            exp = 127 - 15 + 1;
            while (!(man & 0x400)) { man <<= 1; --exp; }
            bits = sign | (exp << 23) | ((man & 0x3ff) << 13);
        }
    } else if (exp == 31) bits = sign | 0x7f800000 | (man << 13);
    else bits = sign | ((exp + 127 - 15) << 23) | (man << 13);
    float f;
    std::memcpy(&f, &bits, 4);
    return f;
}

template <class D>
D read_element(const char* p, SrcKind kind, size_t size) {
    switch (kind) {
        case SrcKind::Bool: return static_cast<D>(*p != 0);
        case SrcKind::Signed: {
            int64_t v = 0;
            if (size == 1) { int8_t x; std::memcpy(&x, p, 1); v = x; }
            else if (size == 2) { int16_t x; std::memcpy(&x, p, 2); v = x; }
            else if (size == 4) { int32_t x; std::memcpy(&x, p, 4); v = x; }
            else { std::memcpy(&v, p, 8); }
            return static_cast<D>(v);
        }
        case SrcKind::Unsigned: {
            uint64_t v = 0;
            if (size == 1) { uint8_t x; std::memcpy(&x, p, 1); v = x; }
            else if (size == 2) { uint16_t x; std::memcpy(&x, p, 2); v = x; }
            else if (size == 4) { uint32_t x; std::memcpy(&x, p, 4); v = x; }
            else { std::memcpy(&v, p, 8); }
            return static_cast<D>(static_cast<int64_t>(v));
        }
        case SrcKind::Half: { uint16_t x; std::memcpy(&x, p, 2); return static_cast<D>(half_to_float(x)); }
        case SrcKind::Float:
            if (size == 4) { float x; std::memcpy(&x, p, 4); return static_cast<D>(x); }
            else { double x; std::memcpy(&x, p, 8); return static_cast<D>(x); }
    }
    return D{};
}

struct BufferGuard {
    Py_buffer view{};
    bool held = false;
    ~BufferGuard() { if (held) PyBuffer_Release(&view); }
};

Tensor tensor_from_buffer(Py_buffer& v, int device) {
    BufferFormat fmt = parse_format(v.format, v.itemsize);
    Shape shape(v.shape, v.shape + v.ndim);
    DType dtype = target_type(fmt.kind, fmt.size);
    Tensor out(dtype, shape, device);
    const int64_t n = out.numel();
    if (n == 0) return out;
    bool contiguous = PyBuffer_IsContiguous(&v, 'C');
    bool same_type = (fmt.kind == SrcKind::Float && ((fmt.size == 4 && dtype == DType::Float32) ||
                                                     (fmt.size == 8 && dtype == DType::Float64))) ||
                     (fmt.kind == SrcKind::Bool) || (fmt.kind == SrcKind::Signed && fmt.size == 8);
    if (contiguous && same_type) {
        std::memcpy(out.raw(), v.buf, out.nbytes());
        return out;
    }
    moira::dispatch(dtype, "tensor", [&](auto tag) {
        using D = typename decltype(tag)::type;
        D* dst = out.data<D>();
        const int nd = v.ndim;
        std::vector<Py_ssize_t> idx(nd, 0);
        std::vector<Py_ssize_t> strides(nd);
        Py_ssize_t s = v.itemsize;
        for (int d = nd - 1; d >= 0; --d) {
            strides[d] = v.strides ? v.strides[d] : s;
            s *= v.shape[d];
        }
        const char* base = static_cast<const char*>(v.buf);
        Py_ssize_t off = 0;
        for (int64_t i = 0; i < n; ++i) {
            dst[i] = read_element<D>(base + off, fmt.kind, fmt.size);
            for (int d = nd - 1; d >= 0; --d) {
                off += strides[d];
                if (++idx[d] < v.shape[d]) break;
                off -= strides[d] * v.shape[d];
                idx[d] = 0;
            }
        }
    });
    return out;
}

// ---- nested lists ----

[[noreturn]] void ragged(const Shape& prefix, size_t depth, Py_ssize_t expected, Py_ssize_t got) {
    moira::fail<moira::ValueError>("cannot build a tensor from a ragged nested list: expected ", expected,
                                   " elements at depth ", depth, " but found ", got);
}

// Fills `out` from a nested list whose shape was read from its first elements. Returns false
// when an element is neither a number nor a list (the caller then asks numpy).
bool fill_from_nested(PyObject* obj, const Shape& shape, size_t depth, float*& out, bool& numpy_needed) {
    if (depth == shape.size()) {
        if (PyFloat_CheckExact(obj)) { *out++ = static_cast<float>(PyFloat_AS_DOUBLE(obj)); return true; }
        if (PyLong_Check(obj) && (PyLong_CheckExact(obj) || PyBool_Check(obj))) {
            double d = PyLong_AsDouble(obj);
            if (d == -1.0 && PyErr_Occurred()) throw nb::python_error();
            *out++ = static_cast<float>(d);
            return true;
        }
        if (is_sequence(obj)) ragged(shape, depth, 0, PySequence_Size(obj));
        if (obj == Py_None || is_text(obj) || PyDict_Check(obj))
            moira::fail<moira::TypeError>("cannot build a tensor from a list holding ", py_type_name(obj),
                                          ": elements must be numbers");
        numpy_needed = true;
        return false;
    }
    if (!is_sequence(obj)) {
        if (PyFloat_Check(obj) || PyLong_Check(obj)) ragged(shape, depth, shape[depth], 0);
        if (obj == Py_None || is_text(obj) || PyDict_Check(obj))
            moira::fail<moira::TypeError>("cannot build a tensor from a list holding ", py_type_name(obj),
                                          ": elements must be numbers");
        numpy_needed = true;
        return false;
    }
    Py_ssize_t len = PySequence_Fast_GET_SIZE(obj);
    if (len != shape[depth]) ragged(shape, depth, shape[depth], len);
    PyObject** items = PySequence_Fast_ITEMS(obj);
    for (Py_ssize_t i = 0; i < len; ++i)
        if (!fill_from_nested(items[i], shape, depth + 1, out, numpy_needed)) return false;
    return true;
}

Tensor tensor_from_buffer_object(nb::handle obj, int device);

Tensor tensor_from_nested(nb::handle obj, int device) {
    Shape shape;
    PyObject* cur = obj.ptr();
    while (is_sequence(cur)) {
        if (shape.size() == moira::kMaxDims)
            moira::fail<moira::ValueError>("cannot build a tensor from a list nested more than ", moira::kMaxDims,
                                           " levels deep");
        Py_ssize_t len = PySequence_Fast_GET_SIZE(cur);
        shape.push_back(len);
        if (len == 0) break;
        cur = PySequence_Fast_ITEMS(cur)[0];
    }
    Tensor out(DType::Float32, shape, device);
    float* p = out.data<float>();
    bool numpy_needed = false;
    if (fill_from_nested(obj.ptr(), shape, 0, p, numpy_needed)) return out;
    // Lists of numpy arrays or scalars: numpy decides the element type.
    nb::object arr = nb::module_::import_("numpy").attr("asarray")(obj);
    return tensor_from_buffer_object(arr, device);
}

Tensor tensor_from_buffer_object(nb::handle obj, int device) {
    BufferGuard g;
    if (PyObject_GetBuffer(obj.ptr(), &g.view, PyBUF_RECORDS_RO) != 0) throw nb::python_error();
    g.held = true;
    return tensor_from_buffer(g.view, device);
}

// operator.index(item) as a long long. Objects that have the slot but refuse (numpy arrays
// other than integer scalars) raise TypeError naming `op` and `what` was expected.
long long index_value(PyObject* item, const char* op, const char* what) {
    nb::object idx = nb::steal(PyNumber_Index(item));
    if (!idx.is_valid()) {
        PyErr_Clear();
        moira::fail<moira::TypeError>(op, ": ", what, ", got ", Py_TYPE(item)->tp_name);
    }
    long long v = PyLong_AsLongLong(idx.ptr());
    if (v == -1 && PyErr_Occurred()) throw nb::python_error();  // OverflowError
    return v;
}

PyTypeObject* core_type() {
    static PyTypeObject* t = (PyTypeObject*)nb::type<Tensor>().ptr();
    return t;
}

}  // namespace

Tensor tensor_from_python(nb::handle data, int64_t device) {
    moira::check_device(device);
    PyObject* o = data.ptr();
    int dev = static_cast<int>(device);
    if (is_core(data)) return core_ref(data, "tensor").clone();
    // Exact Python numbers; numpy scalars (even float subclasses) take the buffer route and keep
    // their type.
    bool number = PyFloat_CheckExact(o) || PyLong_Check(o) ||
                  (PyFloat_Check(o) && !PyObject_CheckBuffer(o));
    if (number) {
        Scalar s = scalar_arg(data, "tensor");
        Tensor t(DType::Float32, Shape{1}, dev);
        t.data<float>()[0] = s.as<float>();
        t.set_weak_(s);  // a Python number stays exact in operations (Note [Weak scalars])
        return t;
    }
    if (is_sequence(o)) return tensor_from_nested(data, dev);
    if (is_text(o))
        moira::fail<moira::TypeError>("cannot build a tensor from ", py_type_name(data), ": expected numbers, nested lists or a numpy array");
    if (PyObject_CheckBuffer(o)) return tensor_from_buffer_object(data, dev);
    moira::fail<moira::TypeError>("cannot build a tensor from an object of type ", py_type_name(data),
                                  ": expected numbers, nested lists or a numpy array");
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
    if (PyIndex_Check(o) && !PyFloat_Check(o) && !PySequence_Check(o)) {  // one int; arrays are sequences
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

bool scalar_from_python(nb::handle obj, Scalar& out) {
    PyObject* o = obj.ptr();
    if (PyBool_Check(o)) { out = Scalar::from_bool(o == Py_True); return true; }
    if (PyLong_Check(o)) {
        int overflow = 0;
        long long v = PyLong_AsLongLongAndOverflow(o, &overflow);
        if (overflow) { out = Scalar::from_double(PyLong_AsDouble(o)); if (PyErr_Occurred()) throw nb::python_error(); }
        else out = Scalar::from_int(v);
        return true;
    }
    if (PyFloat_Check(o)) { out = Scalar::from_double(PyFloat_AS_DOUBLE(o)); return true; }
    if (is_sequence(o) || is_text(o) || is_core(obj)) return false;
    // numpy scalars: integers have __index__, floats __float__; arrays are not scalars.
    if (PyObject_HasAttrString(o, "ndim")) {
        nb::object nd = nb::borrow(obj).attr("ndim");
        if (!nb::isinstance<nb::int_>(nd) || nb::cast<int>(nd) != 0) return false;
    }
    // numpy bools (scalars and 0-d arrays) stay bools.
    if (PyObject_HasAttrString(o, "dtype")) {
        nb::object kind = nb::borrow(obj).attr("dtype").attr("kind");
        if (nb::isinstance<nb::str>(kind) && nb::cast<std::string>(kind) == "b") {
            int truth = PyObject_IsTrue(o);
            if (truth < 0) throw nb::python_error();
            out = Scalar::from_bool(truth == 1);
            return true;
        }
    }
    if (PyIndex_Check(o)) {
        // 0-d float arrays have the slot too but refuse; they are read through __float__ below.
        nb::object idx = nb::steal(PyNumber_Index(o));
        if (idx.is_valid()) {
            long long v = PyLong_AsLongLong(idx.ptr());
            if (v == -1 && PyErr_Occurred()) throw nb::python_error();
            out = Scalar::from_int(v);
            return true;
        }
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

int64_t device_arg(nb::handle obj, const char* op) { return int_arg(obj, op, "device must be an integer"); }

bool truth_arg(nb::handle obj) {
    if (obj.ptr() == Py_True) return true;
    if (obj.ptr() == Py_False || obj.is_none()) return false;
    int r = PyObject_IsTrue(obj.ptr());
    if (r < 0) throw nb::python_error();
    return r == 1;
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

nb::object wrap_core(Tensor t) { return nb::cast(std::move(t), nb::rv_policy::move); }

nb::object to_numpy(const Tensor& t, bool copy) {
    // The array keeps a handle to the storage alive. A view is read-only: numpy may not write
    // behind the copy-on-write check (see Note [Views and value semantics]).
    Tensor* held = new Tensor(t.raw() == nullptr ? moira::zeros_like(t) : copy ? t.clone() : t);
    nb::capsule owner(held, [](void* p) noexcept { delete static_cast<Tensor*>(p); });
    std::vector<size_t> shape(held->shape().begin(), held->shape().end());
    const moira::Shape& strides = held->strides();
    nb::dlpack::dtype dt;
    switch (t.dtype()) {
        case DType::Bool: dt = nb::dtype<bool>(); break;
        case DType::Int64: dt = nb::dtype<int64_t>(); break;
        case DType::Float32: dt = nb::dtype<float>(); break;
        case DType::Float64: dt = nb::dtype<double>(); break;
    }
    if (copy) {
        nb::ndarray<nb::numpy> arr(held->raw(), shape.size(), shape.data(), owner, strides.data(), dt);
        return nb::cast(arr, nb::rv_policy::reference);
    }
    nb::ndarray<nb::numpy, nb::ro> arr(held->raw(), shape.size(), shape.data(), owner, strides.data(), dt);
    return nb::cast(arr, nb::rv_policy::reference);
}

}  // namespace pymoira
