// Splitting: split, chunk and SplitBackward, the state of one output piece. A piece's gradient
// is g written into a zero tensor of the input's shape at the piece's place, addressed by an
// index-string list.
//
// Note [Split edges]
// A piece's edge shows Python the bound method SplitBackward(...)._get_split_grad (or
// _get_chunk_grad) as its df, and carries a native GradFn that runs the same code on the same
// SplitBackward object, so the backward pass calls it without Python. Both read the object's
// attributes when they run; assigning another df to the edge drops the native function. In the
// backward pass the native function adds g into the piece's region of the input's gradient
// (GradFn::into) instead of building a zero tensor of the whole input per piece: splitting a
// tensor into k pieces costs one pass over its gradient, not k.
#include <limits>

#include "bindings/arguments.hpp"
#include "indexing/wrap_dim.hpp"
#include "init.hpp"
#include "layout/layout_args.hpp"

namespace pymoira {

using namespace nb::literals;

namespace {

struct SplitBackward {
    nb::object index;
    nb::object split_section;
    nb::object t;
    nb::object axis;
    nb::object string_s;
};

int split_traverse(PyObject* self, visitproc visit, void* arg) {
    Py_VISIT(Py_TYPE(self));
    if (!nb::inst_ready(self)) return 0;
    SplitBackward* s = nb::inst_ptr<SplitBackward>(self);
    Py_VISIT(s->index.ptr());
    Py_VISIT(s->split_section.ptr());
    Py_VISIT(s->t.ptr());
    Py_VISIT(s->axis.ptr());
    Py_VISIT(s->string_s.ptr());
    return 0;
}

int split_clear(PyObject* self) {
    SplitBackward* s = nb::inst_ptr<SplitBackward>(self);
    s->index.reset();
    s->split_section.reset();
    s->t.reset();
    s->axis.reset();
    s->string_s.reset();
    return 0;
}

PyType_Slot split_slots[] = {{Py_tp_traverse, (void*)split_traverse}, {Py_tp_clear, (void*)split_clear}, {0, nullptr}};

nb::object or_none(const nb::object& o) { return o.is_valid() ? o : nb::none(); }

// Note [Piece ranges in Python integers]
// SplitBackward is public and its attributes writable, so a piece's range is computed with
// Python's integer arithmetic from the values as stored, as the same Python class would: any
// index, section size or chunk count gives the exact decimal text Python writes, and the
// backend's index parser clamps a bound beyond the axis like any slice bound (an index past
// the pieces addresses nothing). Values stay int64 while no step can overflow (the checks are
// exact) and become Python ints beyond.
class PyInt {
  public:
    explicit PyInt(int64_t v) : small_(v) {}

    // The value of an integer attribute (TypeError naming `what` for anything else).
    static PyInt of(const nb::object& o, const char* what) {
        PyObject* p = o.ptr();
        if (PyFloat_Check(p) || !PyIndex_Check(p)) int_arg(o, "SplitBackward", what);  // raises TypeError
        nb::object i = nb::steal(PyNumber_Index(p));
        if (!i.is_valid()) throw nb::python_error();
        int overflow = 0;
        const long long v = PyLong_AsLongLongAndOverflow(i.ptr(), &overflow);
        if (v == -1 && PyErr_Occurred()) throw nb::python_error();
        PyInt r(v);
        if (overflow) r.big_ = std::move(i);
        return r;
    }

    PyInt operator+(const PyInt& b) const {
        int64_t r;
        if (!big_.is_valid() && !b.big_.is_valid() && !__builtin_add_overflow(small_, b.small_, &r)) return PyInt(r);
        return PyInt(nb::steal(PyNumber_Add(object().ptr(), b.object().ptr())));
    }
    PyInt operator*(const PyInt& b) const {
        int64_t r;
        if (!big_.is_valid() && !b.big_.is_valid() && !__builtin_mul_overflow(small_, b.small_, &r)) return PyInt(r);
        return PyInt(nb::steal(PyNumber_Multiply(object().ptr(), b.object().ptr())));
    }
    // Floor division (ZeroDivisionError for 0, as Python's //).
    PyInt floor_div(const PyInt& b) const {
        if (!big_.is_valid() && !b.big_.is_valid() && b.small_ != 0 &&
            !(small_ == std::numeric_limits<int64_t>::min() && b.small_ == -1))
            return PyInt(small_ / b.small_ - ((small_ % b.small_ != 0) && ((small_ < 0) != (b.small_ < 0))));
        return PyInt(nb::steal(PyNumber_FloorDivide(object().ptr(), b.object().ptr())));
    }

    // The loop bound of a count: the value, or the largest int64 for a count beyond it.
    int64_t clamped() const {
        if (!big_.is_valid()) return small_;
        return small_ < 0 ? std::numeric_limits<int64_t>::min() : std::numeric_limits<int64_t>::max();
    }
    std::string text() const { return big_.is_valid() ? py_text(big_) : std::to_string(small_); }

  private:
    explicit PyInt(nb::object big) : small_(0), big_(std::move(big)) {
        if (!big_.is_valid()) throw nb::python_error();
        int overflow = 0;
        const long long v = PyLong_AsLongLongAndOverflow(big_.ptr(), &overflow);
        if (v == -1 && PyErr_Occurred()) throw nb::python_error();
        if (overflow) {
            small_ = py_negative(big_) ? -1 : 1;  // the sign, for clamped()
        } else {
            big_.reset();
            small_ = v;
        }
    }
    static bool py_negative(const nb::object& o) {
        nb::object zero = nb::int_(0);
        const int r = PyObject_RichCompareBool(o.ptr(), zero.ptr(), Py_LT);
        if (r < 0) throw nb::python_error();
        return r == 1;
    }
    nb::object object() const { return big_.is_valid() ? big_ : nb::int_(small_); }

    int64_t small_;
    nb::object big_;  // set only beyond int64
};

const nb::object& attr(const nb::object& o, const char* name) {
    if (!o.is_valid()) throw nb::attribute_error(name);
    return o;
}

// self.t.data
const moira::Tensor& input_of(const SplitBackward& s) {
    return *qtensor_ref(attr(s.t, "t"), "SplitBackward").core;
}

// "start:stop", the positions of the piece along the axis (see Note [Piece ranges in Python
// integers]): the sizes of the pieces before it, summed, and its own size (split); multiples of
// t.data.shape[axis] // chunks (chunk).
std::string split_range(const SplitBackward& s) {
    const PyInt index = PyInt::of(attr(s.index, "index"), "attributes must be integers");
    const nb::object& sections = attr(s.split_section, "split_section");
    PyInt start(0);
    const int64_t last = index.clamped();  // a list ends long before an index beyond int64
    for (int64_t k = 0; k <= last; ++k) {
        nb::object size = nb::steal(PySequence_GetItem(sections.ptr(), static_cast<Py_ssize_t>(k)));
        if (!size.is_valid()) throw nb::python_error();
        const PyInt n = PyInt::of(size, "split sizes must be integers");
        if (k == last) return start.text() + ":" + (start + n).text();
        start = start + n;
    }
    throw nb::index_error("list index out of range");  // a negative index
}

std::string chunk_range(const SplitBackward& s) {
    const PyInt index = PyInt::of(attr(s.index, "index"), "attributes must be integers");
    const PyInt chunks = PyInt::of(attr(s.split_section, "split_section"), "attributes must be integers");
    const moira::Shape& shape = input_of(s).shape();
    const nb::object& axis_obj = attr(s.axis, "axis");
    PyInt::of(axis_obj, "attributes must be integers");  // the type check
    // shape[axis] as Python's list reads it (IndexError beyond Py_ssize_t, too)
    const Py_ssize_t nd = static_cast<Py_ssize_t>(shape.size());
    const Py_ssize_t axis = PyNumber_AsSsize_t(axis_obj.ptr(), PyExc_IndexError);
    if (axis == -1 && PyErr_Occurred()) throw nb::python_error();
    if (axis < -nd || axis >= nd) throw nb::index_error("list index out of range");
    const PyInt count = PyInt(shape[static_cast<size_t>(axis < 0 ? axis + nd : axis)]).floor_div(chunks);
    return (count * index).text() + ":" + (count * (index + PyInt(1))).text();
}

// string_s[axis] = text (the list is changed in place); the list for the backend.
moira::IndexList region_index(SplitBackward& s, const std::string& text) {
    if (!s.string_s.is_valid()) throw nb::attribute_error("string_s");
    if (PyObject_SetItem(s.string_s.ptr(), attr(s.axis, "axis").ptr(), nb::str(text.c_str(), text.size()).ptr()) != 0)
        throw nb::python_error();
    return index_list_from_python(s.string_s, "set_select");
}

// grads = zeros_like(t.data); grads.set_select(string_s, g).
moira::Tensor piece_grad(SplitBackward& s, bool chunks, const moira::Tensor& g) {
    const std::string range = chunks ? chunk_range(s) : split_range(s);
    moira::Tensor grads = moira::zeros_like(input_of(s));
    moira::set_select_(grads, region_index(s, range), g);
    return grads;
}

SplitBackward& split_ref(const GradFn& f) { return *nb::inst_ptr<SplitBackward>(f.extra); }
moira::Tensor native_split_grad(const GradFn& f, const moira::Tensor& g) { return piece_grad(split_ref(f), false, g); }
moira::Tensor native_chunk_grad(const GradFn& f, const moira::Tensor& g) { return piece_grad(split_ref(f), true, g); }

// The same contribution added straight into the input's gradient (GradFn::into): only the
// piece's region is touched. Inputs that are not floating point (whose zeros_like rounds g)
// and gradients of another shape take the general way.
template <bool Chunks>
void piece_grad_into(const GradFn& f, const moira::Tensor& g, moira::Tensor& grad) {
    SplitBackward& s = split_ref(f);
    const moira::Tensor& input = input_of(s);
    if (!moira::is_floating(input.dtype()) || grad.shape() != input.shape())
        return moira::binary_(moira::BinaryOp::Add, grad, piece_grad(s, Chunks, g));
    moira::add_region_(grad, region_index(s, Chunks ? chunk_range(s) : split_range(s)), g);
}

// SplitBackward(index, split_section, t, axis): string_s is [":"] * len(t.data.shape).
SplitBackward new_state(nb::object index, nb::handle sections, nb::handle t, nb::handle axis) {
    SplitBackward s;
    s.index = std::move(index);
    s.split_section = nb::borrow(sections);
    s.t = nb::borrow(t);
    s.axis = nb::borrow(axis);
    const Py_ssize_t n = is_qtensor(t) ? static_cast<Py_ssize_t>(qtensor_ref(t, "SplitBackward").core->ndim())
                                       : static_cast<Py_ssize_t>(nb::len(nb::object(t.attr("data").attr("shape"))));
    nb::object colons = nb::steal(PyList_New(n));
    if (!colons.is_valid()) throw nb::python_error();
    nb::str colon(":");
    for (Py_ssize_t k = 0; k < n; ++k) PyList_SET_ITEM(colons.ptr(), k, colon.inc_ref().ptr());
    s.string_s = std::move(colons);
    return s;
}

// The pieces as QTensors (the OwnFlags pattern): each with one edge to t when t tracks gradients.
nb::list pieces_of(nb::handle t, std::vector<moira::Tensor> pieces, nb::handle sections, nb::handle axis, bool chunks) {
    QArg x(t, chunks ? "chunk" : "split");
    nb::list out;
    for (size_t i = 0; i < pieces.size(); ++i) {
        Record rec(Tracking::OwnFlags, {x.q});
        nb::object sb;
        if (rec.wants_edge(*x.q)) {
            sb = nb::cast(new_state(nb::int_(static_cast<int64_t>(i)), sections, t, axis), nb::rv_policy::move);
            GradFn fn(chunks ? &native_chunk_grad : &native_split_grad, chunks ? "chunk" : "split");
            fn.into = chunks ? &piece_grad_into<true> : &piece_grad_into<false>;
            fn.extra = sb;
            rec.edge(t, std::move(fn));
        }
        nb::object piece = rec.finish(std::move(pieces[i]));
        if (sb.is_valid()) {
            nb::handle edge = PyList_GET_ITEM(nb::inst_ptr<QTensor>(piece)->nodes.ptr(), 0);
            graph_node_ref(edge).df = sb.attr(chunks ? "_get_chunk_grad" : "_get_split_grad");
        }
        out.append(piece);
    }
    return out;
}

nb::list split(nb::handle t, nb::handle split_section, nb::handle axis) {
    check_arg_type(split_section, &PyList_Type, "split_section");
    QArg x(t, "split");
    if (split_section.is_none()) throw nb::type_error("split: sections must be a list of integers, got NoneType");
    const std::vector<int64_t> sizes = int_items(split_section, "split", "split sizes must be integers");
    return pieces_of(t, moira::split(x.core(), sizes, axis_arg(axis, "split")), split_section,
                     axis, false);
}

nb::list chunk(nb::handle t, nb::handle chunks, nb::handle axis) {
    QArg x(t, "chunk");
    return pieces_of(t,
                     moira::chunk(x.core(), int_arg(chunks, "chunk", "chunks must be an integer"),
                                  axis_arg(axis, "chunk")),
                     chunks, axis, true);
}

}  // namespace

void init_split(nb::module_& m) {
    nb::class_<SplitBackward> cls(m, "SplitBackward", nb::type_slots(split_slots), "Helper class for split calculations");
    cls.def(
           "__init__",
           [](SplitBackward* self, nb::handle index, nb::handle split_section, nb::handle t, nb::handle axis) {
               new (self) SplitBackward(new_state(nb::borrow(index), split_section, t, axis));
           },
           nb::sig("def __init__(self, index: int, split_section: Sequence[int] | int, t: QTensor, axis: int) -> None"),
           "index"_a.none(), "split_section"_a.none(), "t"_a.none(), "axis"_a.none());
    // The methods are bound through Python's instancemethod, so `obj._get_split_grad` is an
    // ordinary bound method, which the garbage collector tracks (nanobind's own bound-method
    // objects are not tracked, so a cycle through an edge's df would never be collected).
    auto method = [&](const char* name, bool chunks) {
        nb::object f = nb::cpp_function(
            [chunks](SplitBackward& s, nb::handle g) { return piece_grad(s, chunks, core_ref(g, "SplitBackward")); },
            nb::name(name), nb::scope(cls), "self"_a, "g"_a);
        nb::object bound = nb::steal(PyInstanceMethod_New(f.ptr()));
        if (!bound.is_valid()) throw nb::python_error();
        cls.attr(name) = bound;
    };
    method("_get_split_grad", false);
    method("_get_chunk_grad", true);
    const char* names[] = {"index", "split_section", "t", "axis", "string_s"};
    nb::object SplitBackward::*fields[] = {&SplitBackward::index, &SplitBackward::split_section, &SplitBackward::t,
                                           &SplitBackward::axis, &SplitBackward::string_s};
    for (int k = 0; k < 5; ++k) {
        auto field = fields[k];
        cls.def_prop_rw(
            names[k], [field](SplitBackward& s) { return or_none(s.*field); },
            [field](SplitBackward& s, nb::handle v) { s.*field = nb::borrow(v); }, nb::arg("value").none());
    }

    m.def("split", &split,
          nb::sig("def split(t: QTensor, split_section: Sequence[int], axis: int = 0) -> list[QTensor]"), "t"_a,
          "split_section"_a.none(), "axis"_a = 0,
          "Split t into parts of the sizes in split_section along axis; returns a list of QTensor.");
    m.def("chunk", &chunk, nb::sig("def chunk(t: QTensor, chunks: int, axis: int = 0) -> list[QTensor]"), "t"_a,
          "chunks"_a, "axis"_a = 0,
          "Split t into `chunks` parts of equal length along axis; returns a list of QTensor.");
}

}  // namespace pymoira
