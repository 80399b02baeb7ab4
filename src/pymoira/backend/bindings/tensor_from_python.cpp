// Tensors from Python data; see Note [Building a tensor from Python data].
#include "bindings/tensor_from_python.hpp"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <string>
#include <vector>

#include "bindings/arguments.hpp"
#include "kernels/iter/walker.hpp"

namespace pymoira {

using moira::DType;
using moira::Scalar;
using moira::Shape;
using moira::Tensor;

namespace {

// ---- arrays: numpy arrays and scalars, and other objects with the buffer protocol ----
//
// Note [Converting arrays]
// The element type of an array is described once (Elem), from its buffer format. numpy objects
// are asked for their dtype where the format is not enough: a datetime64 array exports no
// buffer, datetime64 and bytes scalars export their raw bytes as uint8, and a format we do not
// read (strings, structured, float128) is refused by its dtype's name. The description picks one
// row converter, a loop over the innermost axis for that source type and byte order, and the
// strided walker (kernels/iter/walker.hpp) walks the source together with the contiguous result,
// merging the axes the source steps over as one (a contiguous array is one row). The walker adds
// strides without knowing their unit: the source's are its byte strides as given, which need not
// be multiples of the item size, and the result's are in elements. C-contiguous arrays of a
// tensor type in native byte order are copied with one memcpy.

enum class ElemKind : uint8_t { Bool, Signed, Unsigned, Float };

struct Elem {
    ElemKind kind;
    Py_ssize_t size;
    bool swap;  // stored in the other byte order than this machine's
};

constexpr bool kBigEndianHost = __BYTE_ORDER__ == __ORDER_BIG_ENDIAN__;

bool size_supported(ElemKind k, Py_ssize_t size) {
    switch (k) {
        case ElemKind::Bool: return size == 1;
        case ElemKind::Float: return size == 2 || size == 4 || size == 8;
        default: return size == 1 || size == 2 || size == 4 || size == 8;
    }
}

Elem make_elem(ElemKind k, Py_ssize_t size, char order) {
    bool big = order == '>' || order == '!', little = order == '<';
    return {k, size, size > 1 && (kBigEndianHost ? little : big)};
}

Elem elem_of_dtype(const NumpyType& t) {
    ElemKind k;
    switch (t.kind) {
        case 'b': k = ElemKind::Bool; break;
        case 'i': k = ElemKind::Signed; break;
        case 'u': k = ElemKind::Unsigned; break;
        case 'f': k = ElemKind::Float; break;
        default:
            moira::fail<moira::TypeError>("cannot build a tensor from an array of dtype ", t.name(),
                                          ": elements must be numbers (bool, integer or float)");
    }
    if (!size_supported(k, t.itemsize))
        moira::fail<moira::TypeError>("cannot build a tensor from an array of dtype ", t.name(),
                                      ": supported are bool, integers of up to 64 bits and float16/32/64");
    return make_elem(k, t.itemsize, t.order);
}

[[noreturn]] void unsupported_format(const char* fmt) {
    std::string f = fmt ? fmt : "B";
    if (f.find('O') != std::string::npos) moira::fail<moira::TypeError>("cannot build a tensor from an object array");
    moira::fail<moira::TypeError>("cannot build a tensor from an array of element format '", f,
                                  "': supported are bool, integer and float16/32/64 arrays");
}

// False for formats other than one bool, integer or float16/32/64 element.
bool elem_of_format(const char* fmt, Py_ssize_t itemsize, Elem& out) {
    const char* f = fmt ? fmt : "B";
    char order = *f && std::strchr("@=<>!", *f) ? *f++ : '@';
    if (f[0] == '\0' || f[1] != '\0') return false;
    ElemKind k;
    Py_ssize_t want = itemsize;
    switch (f[0]) {
        case '?': k = ElemKind::Bool; break;
        case 'b': case 'h': case 'i': case 'l': case 'q': case 'n': k = ElemKind::Signed; break;
        case 'B': case 'H': case 'I': case 'L': case 'Q': case 'N': k = ElemKind::Unsigned; break;
        case 'e': k = ElemKind::Float; want = 2; break;
        case 'f': k = ElemKind::Float; want = 4; break;
        case 'd': k = ElemKind::Float; want = 8; break;
        default: return false;
    }
    if (itemsize != want || !size_supported(k, itemsize)) return false;
    out = make_elem(k, itemsize, order);
    return true;
}

DType tensor_type(const Elem& e) {
    switch (e.kind) {
        case ElemKind::Bool: return DType::Bool;
        case ElemKind::Float: return e.size == 8 ? DType::Float64 : DType::Float32;
        default: return DType::Int64;
    }
}

float bits_to_float(uint32_t b) {
    float f;
    std::memcpy(&f, &b, 4);
    return f;
}

uint32_t float_to_bits(float f) {
    uint32_t b;
    std::memcpy(&b, &f, 4);
    return b;
}

// float16 bits as float32, exactly, with masks instead of branches so row loops vectorise:
// exponent and mantissa move into place and the exponent is rebased; infinities and NaN keep
// an all-ones exponent; zeros and subnormals are renormalised by one exact float subtraction.
float half_to_float(uint16_t h) {
    const uint32_t moved = uint32_t(h & 0x7fff) << 13, exp = moved & 0x0f800000;
    const uint32_t special = 0u - uint32_t(exp == 0x0f800000), small = 0u - uint32_t(exp == 0);
    const uint32_t normal = moved + ((127 - 15) << 23) + (special & ((128 - 16) << 23));
    const uint32_t renormalised = float_to_bits(bits_to_float(normal + (1 << 23)) - 6.103515625e-05f);  // - 2^-14
    return bits_to_float((renormalised & small) | (normal & ~small) | uint32_t(h & 0x8000) << 16);
}

struct Half { uint16_t bits; };

// The tensor element type each source type becomes.
template <class S> struct TensorOf { using type = int64_t; };
template <> struct TensorOf<bool> { using type = bool; };
template <> struct TensorOf<Half> { using type = float; };
template <> struct TensorOf<float> { using type = float; };
template <> struct TensorOf<double> { using type = double; };

template <size_t N> struct BitsOf;
template <> struct BitsOf<1> { using type = uint8_t; };
template <> struct BitsOf<2> { using type = uint16_t; };
template <> struct BitsOf<4> { using type = uint32_t; };
template <> struct BitsOf<8> { using type = uint64_t; };

// One source element at p, as its tensor type.
template <class S, bool Swap>
typename TensorOf<S>::type load(const char* p) {
    using U = typename BitsOf<sizeof(S)>::type;
    U u;
    std::memcpy(&u, p, sizeof u);
    if constexpr (Swap && sizeof(U) == 2) u = __builtin_bswap16(u);
    if constexpr (Swap && sizeof(U) == 4) u = __builtin_bswap32(u);
    if constexpr (Swap && sizeof(U) == 8) u = __builtin_bswap64(u);
    if constexpr (std::is_same_v<S, bool>) return u != 0;
    else if constexpr (std::is_same_v<S, Half>) return half_to_float(u);
    else {
        S v;
        std::memcpy(&v, &u, sizeof v);
        return static_cast<typename TensorOf<S>::type>(v);  // uint64 wraps; checked afterwards
    }
}

// Converts n elements `step` bytes apart into the contiguous row dst.
using RowConverter = void (*)(const char* src, Py_ssize_t step, void* dst, int64_t n);

template <class S, bool Swap>
void convert_row(const char* src, Py_ssize_t step, void* dst, int64_t n) {
    auto* out = static_cast<typename TensorOf<S>::type*>(dst);
    if (step == static_cast<Py_ssize_t>(sizeof(S)))  // a fixed step, so the loop vectorises
        for (int64_t j = 0; j < n; ++j) out[j] = load<S, Swap>(src + j * sizeof(S));
    else  // unrolled: a one-element loop ran at half speed or full depending on where it was linked
#pragma GCC unroll 4
        for (int64_t j = 0; j < n; ++j) out[j] = load<S, Swap>(src + j * step);
}

template <class S>
RowConverter row_converter_for(bool swap) { return swap ? &convert_row<S, true> : &convert_row<S, false>; }

RowConverter row_converter(const Elem& e) {
    const bool w = e.swap;
    switch (e.kind) {
        case ElemKind::Bool: return row_converter_for<bool>(false);
        case ElemKind::Signed:
            return e.size == 1 ? row_converter_for<int8_t>(false) : e.size == 2 ? row_converter_for<int16_t>(w)
                 : e.size == 4 ? row_converter_for<int32_t>(w) : row_converter_for<int64_t>(w);
        case ElemKind::Unsigned:
            return e.size == 1 ? row_converter_for<uint8_t>(false) : e.size == 2 ? row_converter_for<uint16_t>(w)
                 : e.size == 4 ? row_converter_for<uint32_t>(w) : row_converter_for<uint64_t>(w);
        case ElemKind::Float:
            return e.size == 2 ? row_converter_for<Half>(w) : e.size == 4 ? row_converter_for<float>(w)
                                                             : row_converter_for<double>(w);
    }
    return nullptr;
}

// Copies the elements of `v` into the contiguous tensor `out` (Note [Converting arrays]).
void convert_buffer(const Py_buffer& v, const Elem& e, Tensor& out) {
    Shape in_steps(static_cast<size_t>(v.ndim));  // bytes
    Py_ssize_t c_step = v.itemsize;
    for (int d = v.ndim - 1; d >= 0; --d) {
        in_steps[d] = v.strides ? v.strides[d] : c_step;
        c_step *= v.shape[d];
    }
    const moira::StridedWalker<2> walk(out.shape(), {out.strides(), in_steps});
    const RowConverter row = row_converter(e);
    const size_t item = moira::itemsize(out.dtype());
    const char* src = static_cast<const char*>(v.buf);
    char* dst = static_cast<char*>(out.raw());
    walk.run_range(0, walk.size(), [&](const auto& off, int64_t n, const auto& step) {  // one row per call
        row(src + off[1], step[1], dst + off[0] * item, n);
    });
    if (e.kind == ElemKind::Unsigned && e.size == 8) {  // values past int64's range wrapped negative
        const int64_t* p = out.data<int64_t>();
        const int64_t* bad = std::find_if(p, p + out.numel(), [](int64_t x) { return x < 0; });
        if (bad != p + out.numel())
            moira::fail<moira::OverflowError>("cannot build a tensor from a uint64 array: its value ",
                                              static_cast<uint64_t>(*bad), " is out of bounds for int64");
    }
}

struct BufferGuard {
    Py_buffer view{};
    bool held = false;
    ~BufferGuard() { if (held) PyBuffer_Release(&view); }
};

// A numpy complex array (any layout and byte order): its values copied from a native-order
// C-contiguous version numpy makes (none when the array is one already).
Tensor tensor_from_complex_array(nb::handle obj, const NumpyType& nt, int device) {
    if (nt.itemsize != 8 && nt.itemsize != 16)
        moira::fail<moira::TypeError>("cannot build a tensor from an array of dtype ", nt.name(),
                                      ": supported complex types are complex64 and complex128");
    nb::object numpy = nb::module_::import_("numpy");
    nb::object native = numpy.attr("asarray")(obj, nt.itemsize == 8 ? "c8" : "c16", "C");  // keeps 0-d arrays
    BufferGuard g;
    if (PyObject_GetBuffer(native.ptr(), &g.view, PyBUF_C_CONTIGUOUS) != 0) throw nb::python_error();
    g.held = true;
    Tensor out(nt.itemsize == 8 ? DType::Complex64 : DType::Complex128, Shape(g.view.shape, g.view.shape + g.view.ndim),
               device);
    if (out.numel() > 0) std::memcpy(out.raw(), g.view.buf, out.nbytes());
    return out;
}

Tensor tensor_from_array(nb::handle obj, int device) {
    BufferGuard g;
    NumpyType nt;
    if (numpy_type(obj, nt) && nt.kind == 'c') return tensor_from_complex_array(obj, nt, device);
    if (PyObject_GetBuffer(obj.ptr(), &g.view, PyBUF_RECORDS_RO) != 0) {
        nb::python_error err;
        if (numpy_type(obj, nt)) elem_of_dtype(nt);  // refuses a dtype that exports no buffer
        throw err;
    }
    g.held = true;
    const Py_buffer& v = g.view;
    if (v.format && std::strchr(v.format, 'Z'))  // complex items of another exporter (a memoryview)
        return tensor_from_array(nb::module_::import_("numpy").attr("asarray")(obj), device);
    Elem e{};
    const bool known = elem_of_format(v.format, v.itemsize, e);
    if (!known || std::strcmp(v.format ? v.format : "B", "B") == 0) {  // see Note [Converting arrays]
        if (numpy_type(obj, nt)) e = elem_of_dtype(nt);
        else if (!known) unsupported_format(v.format);
        if (e.size != v.itemsize)
            moira::fail<moira::TypeError>("cannot build a tensor from ", py_type_name(obj), ": its buffer holds items",
                                          " of ", v.itemsize, " bytes but its dtype ", nt.name(), " has ", e.size);
    }
    Tensor out(tensor_type(e), Shape(v.shape, v.shape + v.ndim), device);
    if (out.numel() == 0) return out;
    // Bools go through the converter, which reads any nonzero byte as 1 (kernels count them).
    if (!e.swap && e.kind != ElemKind::Unsigned && e.kind != ElemKind::Bool && static_cast<Py_ssize_t>(moira::itemsize(out.dtype())) == e.size &&
        PyBuffer_IsContiguous(&v, 'C')) {
        std::memcpy(out.raw(), v.buf, out.nbytes());
        return out;
    }
    convert_buffer(v, e, out);
    return out;
}

// ---- numbers and nested lists ----

// A Python int (or bool) as float32; OverflowError beyond float32's range.
float float32_from_int(PyObject* o) {
    double d = PyLong_AsDouble(o);
    if (d == -1.0 && PyErr_Occurred()) {
        if (!PyErr_ExceptionMatches(PyExc_OverflowError)) throw nb::python_error();
        PyErr_Clear();
        d = HUGE_VAL;
    }
    const float f = static_cast<float>(d);
    if (std::isinf(f))
        moira::fail<moira::OverflowError>("cannot build a tensor from ", int_text(o), ": too large for float32");
    return f;
}

// numpy's integer, floating and bool scalar types, looked up once (null without numpy).
struct NumpyScalarTypes {
    PyTypeObject *integer = nullptr, *floating = nullptr, *boolean = nullptr;
};

const NumpyScalarTypes& numpy_scalar_types() {
    static const NumpyScalarTypes types = [] {
        NumpyScalarTypes t;
        nb::object np = nb::steal(PyImport_ImportModule("numpy"));
        if (!np.is_valid()) {
            PyErr_Clear();
            return t;
        }
        // Strong references kept for the life of the process, like numpy's own module.
        auto get = [&](const char* name) {
            return reinterpret_cast<PyTypeObject*>(nb::object(np.attr(name)).release().ptr());
        };
        t.integer = get("integer");
        t.floating = get("floating");
        t.boolean = get("bool_");
        return t;
    }();
    return types;
}

// A numpy integer, floating or bool scalar as float32 (the common list elements after Python
// numbers); false for anything else.
bool numpy_scalar_as_float32(PyObject* o, float& v) {
    const NumpyScalarTypes& t = numpy_scalar_types();
    if (!t.integer) return false;
    if (PyObject_TypeCheck(o, t.floating)) {
        double d = PyFloat_AsDouble(o);
        if (d == -1.0 && PyErr_Occurred()) throw nb::python_error();
        v = static_cast<float>(d);
    } else if (PyObject_TypeCheck(o, t.integer)) {
        nb::object idx = nb::steal(PyNumber_Index(o));
        if (!idx.is_valid()) throw nb::python_error();
        v = scalar_from_int(idx.ptr()).as<float>();
    } else if (PyObject_TypeCheck(o, t.boolean)) {
        int truth = PyObject_IsTrue(o);
        if (truth < 0) throw nb::python_error();
        v = truth ? 1.0f : 0.0f;
    } else {
        return false;
    }
    return true;
}

[[noreturn]] void ragged(size_t depth, Py_ssize_t expected, Py_ssize_t got) {
    moira::fail<moira::ValueError>("cannot build a tensor from a ragged nested list: expected ", expected,
                                   " elements at depth ", depth, " but found ", got);
}

void refuse_element(PyObject* o) {
    if (o == Py_None || is_text(o) || PyDict_Check(o))
        moira::fail<moira::TypeError>("cannot build a tensor from a list holding ", py_type_name(o),
                                      ": elements must be numbers");
}

// Fills `out` from a nested list whose shape was read from its first elements. Python numbers,
// numpy scalars and 0-d arrays are numbers; returns false at any other element (an array, or a
// Python complex, which sets `complex_seen`: the caller then asks numpy).
bool fill_from_nested(PyObject* obj, const Shape& shape, size_t depth, float*& out, bool& complex_seen) {
    if (depth == shape.size()) {
        if (PyFloat_Check(obj)) { *out++ = static_cast<float>(PyFloat_AS_DOUBLE(obj)); return true; }
        if (PyLong_Check(obj)) { *out++ = float32_from_int(obj); return true; }
        if (PyComplex_Check(obj)) {
            complex_seen = true;
            return false;
        }
        if (is_sequence(obj)) ragged(depth, 0, PySequence_Size(obj));
        if (numpy_scalar_as_float32(obj, *out)) { ++out; return true; }
        refuse_element(obj);
        Scalar s;
        if (!scalar_from_python(obj, s)) return false;
        *out++ = s.as<float>();
        return true;
    }
    if (!is_sequence(obj)) {
        if (PyFloat_Check(obj) || PyLong_Check(obj)) ragged(depth, shape[depth], 0);
        refuse_element(obj);
        return false;
    }
    Py_ssize_t len = PySequence_Fast_GET_SIZE(obj);
    if (len != shape[depth]) ragged(depth, shape[depth], len);
    PyObject** items = PySequence_Fast_ITEMS(obj);
    for (Py_ssize_t i = 0; i < len; ++i)
        if (!fill_from_nested(items[i], shape, depth + 1, out, complex_seen)) return false;
    return true;
}

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
    bool complex_seen = false;
    if (fill_from_nested(obj.ptr(), shape, 0, p, complex_seen)) return out;
    // Lists of numpy arrays: numpy decides the element type. Python complex numbers make
    // complex64, the complex counterpart of the default float32.
    nb::object numpy = nb::module_::import_("numpy");
    nb::object arr = complex_seen ? numpy.attr("asarray")(obj, "c8") : numpy.attr("asarray")(obj);
    return tensor_from_array(arr, device);
}

// The tensor on the CPU; tensor_from_python moves it.
Tensor host_tensor_from_python(nb::handle data) {
    PyObject* o = data.ptr();
    const int dev = moira::kCPU;
    if (is_core(data)) return core_ref(data, "tensor").clone();
    // Exact Python numbers; numpy scalars (even float subclasses) take the array route and keep
    // their type.
    if (PyFloat_CheckExact(o) || PyLong_Check(o) || (PyFloat_Check(o) && !PyObject_CheckBuffer(o))) {
        Tensor t(DType::Float32, Shape{1}, dev);
        t.data<float>()[0] = PyFloat_Check(o) ? static_cast<float>(PyFloat_AS_DOUBLE(o)) : float32_from_int(o);
        t.set_weak_(scalar_arg(data, "tensor"));  // a Python number stays exact in operations (Note [Weak scalars])
        return t;
    }
    if (is_sequence(o)) return tensor_from_nested(data, dev);
    if (PyComplex_Check(o) && !PyObject_CheckBuffer(o)) {  // complex64, the counterpart of the default float32
        const Py_complex c = PyComplex_AsCComplex(o);
        if (c.real == -1.0 && PyErr_Occurred()) throw nb::python_error();
        Tensor t(DType::Complex64, Shape{1}, dev);
        t.data<moira::complex64>()[0] = moira::complex64(static_cast<float>(c.real), static_cast<float>(c.imag));
        t.set_weak_(moira::Scalar::from_complex(c.real, c.imag));
        return t;
    }
    if (is_text(o))
        moira::fail<moira::TypeError>("cannot build a tensor from ", py_type_name(data), ": expected numbers, nested lists or a numpy array");
    if (PyObject_CheckBuffer(o)) return tensor_from_array(data, dev);
    moira::fail<moira::TypeError>("cannot build a tensor from an object of type ", py_type_name(data),
                                  ": expected numbers, nested lists or a numpy array");
}

}  // namespace

Tensor tensor_from_python(nb::handle data, int64_t device) {
    const int dev = moira::device(device).number;  // validated before anything is read
    Tensor t = host_tensor_from_python(data);
    return dev == moira::kCPU ? t : t.to_device(dev);
}

}  // namespace pymoira
