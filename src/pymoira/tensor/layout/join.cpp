// Joining: concatenate and stack. Each input's gradient is its part of g, cut with an
// index-string list at the input's running offset along the axis (a view of g).
#include "bindings/to_python.hpp"
#include "indexing/wrap_dim.hpp"
#include "init.hpp"
#include "layout/layout_args.hpp"

namespace pymoira {

using namespace nb::literals;

namespace {

// [":"] * ndim with entry `axis` (a Python list index: negative counts from the end) = text.
moira::IndexList axis_region(int64_t ndim, int64_t axis, std::string text) {
    if (axis < -ndim || axis >= ndim) throw nb::index_error("list assignment index out of range");
    moira::IndexList index(static_cast<size_t>(ndim), ":");
    index[static_cast<size_t>(axis < 0 ? axis + ndim : axis)] = std::move(text);
    return index;
}

std::string range_text(int64_t start, int64_t stop) { return std::to_string(start) + ":" + std::to_string(stop); }

// x.shape[axis] of the input's backend tensor, indexed as a Python list.
int64_t length_along(const moira::Shape& shape, int64_t axis) {
    const int64_t nd = static_cast<int64_t>(shape.size());
    if (axis < -nd || axis >= nd) throw nb::index_error("list index out of range");
    return shape[static_cast<size_t>(axis < 0 ? axis + nd : axis)];
}

// concatenate's gradient: the input's offset along the axis; the input's length along it is
// read when the gradient runs.
struct ConcatPart {
    int64_t start, axis;
};
moira::Tensor concat_grad(const GradFn& f, const moira::Tensor& g) {
    if (g.ndim() > 4) {
        nb::object args = nb::make_tuple("grad can not greater that 4", wrap_core(g));
        PyErr_SetObject(PyExc_OverflowError, args.ptr());
        throw nb::python_error();
    }
    const ConcatPart& p = f.payload<ConcatPart>();
    const int64_t stop = p.start + length_along(input_shape(f), p.axis);
    return moira::select(g, axis_region(g.ndim(), p.axis, range_text(p.start, stop)));
}

// stack's gradient: one position of the new axis, the axis removed.
struct StackPart {
    int64_t position, axis;
};
moira::Tensor stack_grad(const GradFn& f, const moira::Tensor& g) {
    const StackPart& p = f.payload<StackPart>();
    moira::Tensor part = moira::select(g, axis_region(g.ndim(), p.axis, range_text(p.position, p.position + 1)));
    moira::squeeze_(part, p.axis);
    return part;
}

// The items of a list or tuple (or any sequence) as borrowed handles kept alive by `seq`.
struct Items {
    nb::object seq;
    PyObject** items = nullptr;
    Py_ssize_t n = 0;
    explicit Items(nb::handle obj) : seq(nb::steal(PySequence_Fast(obj.ptr(), "expected a sequence of QTensor"))) {
        if (!seq.is_valid()) throw nb::python_error();
        items = PySequence_Fast_ITEMS(seq.ptr());
        n = PySequence_Fast_GET_SIZE(seq.ptr());
    }
};

std::vector<const QTensor*> qtensors_of(const Items& in, const char* op) {
    std::vector<const QTensor*> out;
    out.reserve(static_cast<size_t>(in.n));
    for (Py_ssize_t i = 0; i < in.n; ++i) out.push_back(&qtensor_ref(in.items[i], op));
    return out;
}

std::vector<moira::Tensor> cores_of(const Items& in, const char* op) {
    std::vector<moira::Tensor> out;
    out.reserve(static_cast<size_t>(in.n));
    for (Py_ssize_t i = 0; i < in.n; ++i) out.push_back(*qtensor_ref(in.items[i], op).core);
    return out;
}

nb::object concatenate(nb::handle args, nb::handle axis_obj) {
    Items in(args);
    const int64_t axis = axis_arg(axis_obj, "concatenate");
    moira::Tensor data = moira::concat(cores_of(in, "concatenate"), axis);
    // Inputs whose requires_grad is True itself get an edge, whatever NO_GRAD says.
    const std::vector<const QTensor*> qs = qtensors_of(in, "concatenate");
    Record rec(Tracking::OwnFlags, qs, Tracks::TrueItself);
    int64_t start = 0;
    for (Py_ssize_t i = 0; i < in.n; ++i) {
        QArg x(in.items[i], "concatenate");
        if (rec.wants_edge(*x.q)) {
            GradFn fn(&concat_grad, "concatenate");
            fn.with(ConcatPart{start, axis}).extra = x->data;
            std::string name = std::to_string(i) + " " + moira::shape_str(x->shape()) + " concat grad ";
            rec.edge(in.items[i], std::move(fn), nb::str(name.c_str(), name.size()));
        }
        start += length_along(x.core().shape(), axis);
    }
    return rec.finish(std::move(data));
}

nb::object stack(nb::handle tensors, nb::handle axis_obj) {
    check_arg_type(tensors, &PyList_Type, "QTensors");
    if (tensors.is_none()) throw nb::type_error("'NoneType' object is not iterable");
    Items in(tensors);
    const int64_t axis = axis_arg(axis_obj, "stack");
    moira::Tensor data = moira::stack(cores_of(in, "stack"), axis);
    Record rec(Tracking::OwnFlags, qtensors_of(in, "stack"));
    for (Py_ssize_t i = 0; i < in.n; ++i) {
        QArg x(in.items[i], "stack");
        if (!rec.wants_edge(*x.q)) continue;
        GradFn fn(&stack_grad, "stack");
        fn.with(StackPart{i, axis});
        std::string name = "stack grad " + std::to_string(i) + "tensor" + moira::shape_str(x->shape());
        rec.edge(in.items[i], std::move(fn), nb::str(name.c_str(), name.size()));
    }
    return rec.finish(std::move(data));
}

}  // namespace

void init_join(nb::module_& m) {
    m.def("concatenate", &concatenate, nb::sig("def concatenate(args: Sequence[QTensor], axis: int = 1) -> QTensor"),
          "args"_a, "axis"_a = 1,
          "concatenate with channel, i.e. concatenate C of Tensor shape (N,C,H,W)");
    m.def("stack", &stack, nb::sig("def stack(QTensors: Sequence[QTensor], axis: int) -> QTensor"), "QTensors"_a.none(),
          "axis"_a, "Join a sequence of arrays along a new axis,return a new Tensor.");
}

}  // namespace pymoira
