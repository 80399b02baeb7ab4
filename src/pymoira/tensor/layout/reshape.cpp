// The reshape family: QTensor.reshape and reshape_, and reshape, flatten, squeeze, unsqueeze.
//
// Every result is a view of its input (see Note [Views and value semantics]) with at most one
// edge, whose gradient puts g back into the input's shape, read when the gradient runs.
#include "init.hpp"
#include "indexing/wrap_dim.hpp"
#include "layout/layout_args.hpp"

namespace pymoira {

using namespace nb::literals;

namespace {

// g in the input's current shape (reshape, flatten, squeeze).
moira::Tensor reshape_grad(const GradFn& f, const moira::Tensor& g) { return moira::reshape(g, input_shape(f)); }

// g without the axis unsqueeze added.
struct UnsqueezedAxis {
    int64_t axis;
};
moira::Tensor unsqueeze_grad(const GradFn& f, const moira::Tensor& g) {
    return moira::squeeze(g, f.payload<UnsqueezedAxis>().axis);
}

GradFn reshape_fn(const QArg& x, const char* label) {
    GradFn f(&reshape_grad, label);
    f.extra = x->data;
    return f;
}

// The size check of the two methods: every entry > 0 ("dim should > 0"), and their product
// equal to the tensor's size. Entries that are not plain ints are compared the way Python
// compares them.
void check_new_size(nb::handle new_shape, int64_t size) {
    nb::object it = nb::steal(PyObject_GetIter(new_shape.ptr()));
    if (!it.is_valid()) throw nb::python_error();
    if (!assertions_enabled()) return;
    long long product = 1;
    nb::object big;  // the product as a Python number once it leaves the fast path
    nb::object zero = nb::int_(0);
    while (true) {
        nb::object d = nb::steal(PyIter_Next(it.ptr()));
        if (!d.is_valid()) {
            if (PyErr_Occurred()) throw nb::python_error();
            break;
        }
        int overflow = 0;
        long long v = PyLong_CheckExact(d.ptr()) ? PyLong_AsLongLongAndOverflow(d.ptr(), &overflow) : 0;
        if (PyLong_CheckExact(d.ptr()) && !overflow && !big.is_valid()) {
            assert_that(v > 0, "dim should > 0");
            long long next = 0;
            if (!__builtin_mul_overflow(product, v, &next)) {
                product = next;
                continue;
            }
            big = nb::int_(product);
        } else {
            int positive = PyObject_RichCompareBool(d.ptr(), zero.ptr(), Py_GT);
            if (positive < 0) throw nb::python_error();
            assert_that(positive == 1, "dim should > 0");
            if (!big.is_valid()) big = nb::int_(product);
        }
        big = nb::steal(PyNumber_Multiply(big.ptr(), d.ptr()));
        if (!big.is_valid()) throw nb::python_error();
    }
    if (!big.is_valid()) {
        assert_that(product == size,
                    "new size " + std::to_string(product) + " not equal to old size " + std::to_string(size));
        return;
    }
    nb::object old = nb::int_(size);
    int same = PyObject_RichCompareBool(big.ptr(), old.ptr(), Py_EQ);
    if (same < 0) throw nb::python_error();
    assert_that(same == 1, "new size " + py_text(big) + " not equal to old size " + std::to_string(size));
}

// reshape(t, shape) and QTensor.reshape after its check; the Combined pattern.
nb::object reshape_to(nb::handle t, nb::handle shape) {
    QArg x(t, "reshape");
    moira::Tensor data = moira::reshape(x.core(), shape_from_python(shape, "reshape", true));
    Record rec(Tracking::Combined, {x.q});
    if (rec.wants_edge(*x.q)) edge_with_text(rec, t, reshape_fn(x, "reshape"), "", x->shape(), " reshape ", shape);
    return rec.finish(std::move(data));
}

// new_shape == self.shape, as Python's == decides it.
bool same_shape(nb::handle new_shape, const moira::Shape& shape) {
    moira::Shape values;
    if (plain_int_list(new_shape, values)) return values == shape;
    nb::list current;
    for (int64_t e : shape) current.append(e);
    int r = PyObject_RichCompareBool(new_shape.ptr(), current.ptr(), Py_EQ);
    if (r < 0) throw nb::python_error();
    return r == 1;
}

void reshape_in_place(nb::handle self, nb::handle new_shape) {
    QArg x(self, "reshape_");
    if (same_shape(new_shape, x.core().shape())) return;
    assert_that(PyList_Check(new_shape.ptr()), "second para should be list");
    check_new_size(new_shape, x.core().numel());
    moira::reshape_(*x->core, shape_from_python(new_shape, "reshape_", true));
}

nb::object flatten(nb::handle t, nb::handle start, nb::handle end) {
    QArg x(t, "flatten");
    moira::Tensor data = moira::flatten(x.core(), int_arg(start, "flatten", "start must be an integer"),
                                        int_arg(end, "flatten", "end must be an integer"));
    Record rec(Tracking::Combined, {x.q});
    if (rec.wants_edge(*x.q)) rec.edge(t, reshape_fn(x, "flatten"));
    return rec.finish(std::move(data));
}

nb::object squeeze(nb::handle t, nb::handle axis) {
    QArg x(t, "squeeze");
    moira::Tensor data = moira::squeeze(x.core(), axis_arg(axis, "squeeze"));
    Record rec(Tracking::OwnFlags, {x.q});
    if (rec.wants_edge(*x.q)) rec.edge(t, reshape_fn(x, "squeeze"), EdgeName::one("squeeze grad of tensor ", x->shape()));
    return rec.finish(std::move(data));
}

nb::object unsqueeze(nb::handle t, nb::handle axis) {
    QArg x(t, "unsqueeze");
    const int64_t a = axis_arg(axis, "unsqueeze");
    moira::Tensor data = moira::unsqueeze(x.core(), a);
    Record rec(Tracking::OwnFlags, {x.q});
    if (rec.wants_edge(*x.q))
        rec.edge(t, GradFn(&unsqueeze_grad, "unsqueeze").with(UnsqueezedAxis{a}),
                 EdgeName::one("unsqueeze grad tensor of ", x->shape()));
    return rec.finish(std::move(data));
}

}  // namespace

void init_reshape(nb::module_& m, QTensorClass& cls) {
    cls.def(
        "reshape",
        [](nb::handle self, nb::handle new_shape) {
            check_new_size(new_shape, qtensor_ref(self, "reshape").core->numel());
            return reshape_to(self, new_shape);
        },
        nb::sig("def reshape(self, new_shape: Sequence[int]) -> QTensor"), "new_shape"_a.none(),
        "A new QTensor with the same elements in shape new_shape.");
    cls.def("reshape_", &reshape_in_place, nb::sig("def reshape_(self, new_shape: Sequence[int]) -> None"),
            "new_shape"_a.none(), "Change the tensor's shape in place; returns None.");
    m.def("reshape", &reshape_to, nb::sig("def reshape(t: QTensor, shape: Sequence[int]) -> QTensor"), "t"_a,
          "shape"_a.none(), "A new QTensor of t's elements in the given shape.");
    m.def("flatten", &flatten, nb::sig("def flatten(t: QTensor, start: int = 0, end: int = -1) -> QTensor"), "t"_a,
          "start"_a = 0, "end"_a = -1,
          "A new QTensor in which axes start to end (both included) are merged into one.");
    m.def("squeeze", &squeeze, nb::sig("def squeeze(t: QTensor, axis: int = -1) -> QTensor"), "t"_a, "axis"_a = -1,
          "A new QTensor without the length-one axis `axis`.");
    m.def("unsqueeze", &unsqueeze, nb::sig("def unsqueeze(t: QTensor, axis: int = 0) -> QTensor"), "t"_a, "axis"_a = 0,
          "A new QTensor with a new length-one axis at position `axis`.");
}

}  // namespace pymoira
