// select and set_select: index-string lists built from mixed entries, the backend calls and the
// gradient edges.
//
// Note [Index tensors written as text]
// A QTensor entry becomes one position-list entry: every element followed by ",". select writes
// each element as Python's int() of it would print (1.7 -> "1"; NaN and infinities raise as int()
// does); set_select writes the numpy element's own text (int64 "1", float "1.0", bool "True"),
// which the backend reads as the same position. The common cases are formatted here directly;
// rare values (huge or non-integral floats) go through Python so the text is exactly Python's.
#include <cmath>
#include <cstdio>

#include "autograd/record.hpp"
#include "bindings/arguments.hpp"
#include "indexing/select.hpp"

namespace pymoira {

using namespace nb::literals;

namespace {

enum class ItemText { AsInt, AsNumpy };

// The index-string list: the Python list of str (kept by the gradient and shown in edge names)
// and its C++ copy for the backend.
struct BuiltIndex {
    nb::list texts;
    moira::IndexList entries;

    void push(nb::object text) {
        Py_ssize_t len = 0;
        const char* s = PyUnicode_AsUTF8AndSize(text.ptr(), &len);
        if (!s) throw nb::python_error();
        entries.emplace_back(s, static_cast<size_t>(len));
        texts.append(text);
    }
};

void append_int(std::string& out, long long v) {
    char buf[32];
    int n = std::snprintf(buf, sizeof buf, "%lld", v);
    out.append(buf, static_cast<size_t>(n));
}

// One element of a float index tensor, as `mode` writes it.
template <class T>
void append_float(std::string& out, T v, ItemText mode) {
    const double d = static_cast<double>(v);
    if (std::isfinite(d) && d == std::trunc(d) && std::fabs(d) < 1e15) {
        if (mode == ItemText::AsInt) return append_int(out, static_cast<long long>(d));
        if (d == 0.0 && std::signbit(d)) out += "-0";
        else append_int(out, static_cast<long long>(d));
        out += ".0";
        return;
    }
    if (mode == ItemText::AsInt) {
        if (std::isfinite(d) && std::fabs(d) < 9e18) return append_int(out, static_cast<long long>(d));
        nb::object i = nb::steal(PyLong_FromDouble(d));  // raises as int() does for NaN and inf
        if (!i.is_valid()) throw nb::python_error();
        out += py_text(i);
        return;
    }
    nb::object np = nb::module_::import_("numpy");
    out += py_text(np.attr(std::is_same_v<T, float> ? "float32" : "float64")(d));
}

// The position-list entry of an index tensor.
nb::object positions_text(const moira::Tensor& t, ItemText mode) {
    std::string out;
    const moira::Tensor values = t.to_host().contiguous();
    moira::dispatch(t.dtype(), "select", [&](auto tag) {
        using T = typename decltype(tag)::type;
        const T* p = values.data<T>();
        for (int64_t i = 0; i < t.numel(); ++i) {
            if constexpr (std::is_same_v<T, bool>) out += mode == ItemText::AsInt ? (p[i] ? "1" : "0") : (p[i] ? "True" : "False");
            else if constexpr (std::is_integral_v<T>) append_int(out, static_cast<long long>(p[i]));
            else append_float(out, p[i], mode);
            out += ',';
        }
    });
    return nb::str(out.c_str(), out.size());
}

BuiltIndex build_index(nb::handle index, ItemText mode) {
    BuiltIndex b;
    nb::object it = nb::steal(PyObject_GetIter(index.ptr()));
    if (!it.is_valid()) throw nb::python_error();
    while (true) {
        nb::object item = nb::steal(PyIter_Next(it.ptr()));
        if (!item.is_valid()) {
            if (PyErr_Occurred()) throw nb::python_error();
            break;
        }
        PyObject* o = item.ptr();
        if (is_qtensor(item)) {
            b.push(positions_text(*qtensor_ref(item, "select").core, mode));
        } else if (PyLong_Check(o)) {
            b.push(nb::steal(PyObject_Str(o)));
        } else if (PyUnicode_Check(o)) {
            b.push(std::move(item));
        }
    }
    return b;
}

// The edge name: prefix + str(shape) + middle + str(list).
nb::object index_edge_name(const char* prefix, const moira::Shape& shape, const char* middle, const nb::list& texts) {
    std::string s = prefix + moira::shape_str(shape) + middle + py_text(texts);
    return nb::str(s.c_str(), s.size());
}

moira::Tensor select_grad(const GradFn& self, const moira::Tensor& g) {
    return moira::select_bp(self.shape, index_list_from_python(self.extra, "select_bp"), g);
}

// The written values' gradient: g at the addressed positions, folded back onto the values'
// own shape when they were broadcast over the region.
moira::Tensor set_select_grad(const GradFn& self, const moira::Tensor& g) {
    moira::Tensor r = moira::set_select_bp(self.saved[0], index_list_from_python(self.extra, "set_select_bp"), g);
    if (r.shape() == self.shape) return r;
    moira::Shape v = self.shape;
    while (v.size() > r.shape().size() && v.front() == 1) v.erase(v.begin());
    return moira::reshape(moira::fold_to(r, v), self.shape);
}

}  // namespace

nb::object select(nb::handle t, nb::handle index) {
    QArg x(t, "select");
    BuiltIndex idx = build_index(index, ItemText::AsInt);
    moira::Tensor data = moira::select(x.core(), idx.entries);
    Record rec(Tracking::Combined, {x.q});
    if (rec.wants_edge(*x.q)) {
        GradFn fn(&select_grad, "select");
        fn.shape = x->shape();
        fn.extra = idx.texts;
        rec.edge(t, std::move(fn), index_edge_name("select grad input: ", x->shape(), "select index ", idx.texts));
    }
    return rec.finish(std::move(data));
}

void set_select(nb::handle t, nb::handle index, nb::handle set_tensor) {
    QArg x(t, "set_select");
    BuiltIndex idx = build_index(index, ItemText::AsNumpy);
    QArg v(set_tensor, "set_select");
    moira::set_select_(*x->core, idx.entries, v.core());

    // t.requires_grad = set_tensor.requires_grad and not QTensor.NO_GRAD: False while NO_GRAD is
    // on, set_tensor's own object when that is false.
    Record rec(Tracking::Combined, {v.q});
    if (!v->rg) rec.with_flag(v->requires_grad);
    if (rec.wants_edge(*v.q)) {
        GradFn fn(&set_select_grad, "set_select");
        fn.save(*x->core);
        fn.shape = v->shape();
        fn.extra = idx.texts;
        rec.edge(set_tensor, std::move(fn),
                 index_edge_name("set select grad input: ", x->shape(), "set select index ", idx.texts));
    }
    rec.inplace(*x.q);
}

nb::object parse_slice_string(nb::handle x, nb::handle i, nb::handle it) {
    if (!PySlice_Check(it.ptr()))
        throw nb::type_error(("_parse_slice_string() argument 'it' must be slice, not " +
                              std::string(Py_TYPE(it.ptr())->tp_name)).c_str());
    PySliceObject* s = reinterpret_cast<PySliceObject*>(it.ptr());
    std::string text = s->start == Py_None ? "0" : py_text(s->start);
    text += ':';
    if (s->stop != Py_None) {
        text += py_text(s->stop);
    } else if (is_qtensor(x) && PyLong_CheckExact(i.ptr())) {
        const moira::Shape& shape = qtensor_ref(x, "_parse_slice_string").shape();
        long long k = PyLong_AsLongLong(i.ptr());
        if (k == -1 && PyErr_Occurred()) throw nb::python_error();
        const long long nd = static_cast<long long>(shape.size());
        if (k < 0) k += nd;
        if (k < 0 || k >= nd) throw nb::index_error("list index out of range");
        text += std::to_string(shape[static_cast<size_t>(k)]);
    } else {
        text += py_text(x.attr("shape")[i]);
    }
    text += ':';
    text += s->step == Py_None ? "1" : py_text(s->step);
    return nb::str(text.c_str(), text.size());
}

nb::object subscript_slice_string(nb::handle x, nb::handle i, nb::handle it) {
    PySliceObject* s = reinterpret_cast<PySliceObject*>(it.ptr());
    const bool negative_step = s->step != Py_None && PyLong_Check(s->step) && PyObject_RichCompareBool(s->step, nb::int_(0).ptr(), Py_LT) == 1;
    if (!negative_step || (s->start != Py_None && s->stop != Py_None)) return parse_slice_string(x, i, it);
    // slice.indices gives the bounds Python uses; a bound before position 0 (-1 there) is written
    // as -(n + 1), which counts from the end to just before the axis (-1 would be the last one).
    const moira::Shape& shape = qtensor_ref(x, "__getitem__").shape();
    const size_t axis = static_cast<size_t>(nb::cast<int64_t>(i));
    if (axis >= shape.size()) throw nb::index_error("list index out of range");
    const int64_t n = shape[axis];
    nb::tuple bounds = nb::borrow<nb::tuple>(it.attr("indices")(n));
    const int64_t start = nb::cast<int64_t>(bounds[0]), stop = nb::cast<int64_t>(bounds[1]);
    auto bound = [n](int64_t b) { return std::to_string(b < 0 ? -(n + 1) : b); };  // -1: before position 0
    // The step stays as given (it may exceed int64; the backend saturates it).
    std::string text = bound(start) + ":" + bound(stop) + ":" + py_text(bounds[2]);
    return nb::str(text.c_str(), text.size());
}

void just_item(nb::handle x_ndim, nb::handle len_item) {
    int r = PyObject_RichCompareBool(len_item.ptr(), x_ndim.ptr(), Py_GT);
    if (r < 0) throw nb::python_error();
    if (r) throw nb::value_error("numbers of keys should not more than input shape length");
}

namespace {

// The index-string list of a basic subscript key.
nb::list basic_index_list(nb::handle key, nb::handle x) {
    nb::list list;
    nb::object ndim = x.attr("ndim");
    Py_ssize_t n = PyObject_Length(key.ptr());
    if (n < 0) throw nb::python_error();
    just_item(ndim, nb::int_(n));
    nb::object it = nb::steal(PyObject_GetIter(key.ptr()));
    if (!it.is_valid()) throw nb::python_error();
    for (Py_ssize_t i = 0;; ++i) {
        nb::object entry = nb::steal(PyIter_Next(it.ptr()));
        if (!entry.is_valid()) {
            if (PyErr_Occurred()) throw nb::python_error();
            break;
        }
        if (PySlice_Check(entry.ptr())) list.append(subscript_slice_string(x, nb::int_(i), entry));
        else if (PyLong_Check(entry.ptr())) list.append(nb::steal(PyObject_Str(entry.ptr())));
        else throw nb::value_error("only support slice and integar index");
    }
    return list;
}

}  // namespace

nb::object process_select_with_basic_indexings(nb::handle item, nb::handle x) {
    return select(x, basic_index_list(item, x));
}

void process_set_select_with_basic_indexings(nb::handle key, nb::handle x, nb::handle value) {
    set_select(x, basic_index_list(key, x), value);
}

void init_select(nb::module_& m) {
    m.def("select", &select, nb::sig("def select(t: QTensor, index: Sequence[str | int | QTensor]) -> QTensor"), "t"_a,
          "index"_a, "Return QTensor in the tensor at the given axis.");
    m.def("set_select", &set_select,
          nb::sig("def set_select(t: QTensor, index: Sequence[str | int | QTensor], set_tensor: QTensor) -> None"),
          "t"_a, "index"_a, "set_tensor"_a, "Set QTensor t index value with set_tensor.");
    m.def("_parse_slice_string", &parse_slice_string, "x"_a, "i"_a, "it"_a.none(),
          "The range entry 'B:E:S' of slice `it` on axis i of x.");
    m.def("_just_item", &just_item, "x_ndim"_a, "len_item"_a,
          "ValueError when a key has more entries than the tensor has axes.");
    m.def("_process_select_with_basic_indexings", &process_select_with_basic_indexings, "item"_a.none(), "x"_a,
          "select with a key of slices and integers.");
    m.def("_process_set_select_with_basic_indexings", &process_set_select_with_basic_indexings, "key"_a.none(), "x"_a,
          "value"_a.none(), "set_select with a key of slices and integers.");
}

}  // namespace pymoira
