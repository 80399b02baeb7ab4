// maybe_wrap_dim and the assertion switch; see Note [Assertion checks].
#include "bindings/arguments.hpp"
#include "indexing/wrap_dim.hpp"


namespace pymoira {

using namespace nb::literals;

bool assertions_enabled() {
    static const bool enabled = [] {
        nb::object optimize = nb::module_::import_("sys").attr("flags").attr("optimize");
        return nb::cast<long>(optimize) == 0;
    }();
    return enabled;
}

void module_assert(bool ok) {
    if (ok || !assertions_enabled()) return;
    PyErr_SetNone(PyExc_AssertionError);
    throw nb::python_error();
}

int64_t maybe_wrap_dim(int64_t dim, int64_t dim_post_expr, bool wrap_scalar) {
    if (dim_post_expr <= 0) {
        module_assert(wrap_scalar);
        dim_post_expr = 1;
    }
    const int64_t minv = -dim_post_expr, maxv = dim_post_expr - 1;
    module_assert(!(dim < minv || dim > maxv));
    if (dim < 0) dim += dim_post_expr;
    return dim;
}

namespace {

// An int argument of maybe_wrap_dim as a Python int (TypeError for anything else).
nb::object int_object(nb::handle v, const char* name) {
    if (PyFloat_Check(v.ptr()) || !PyIndex_Check(v.ptr()))
        moira::fail<moira::TypeError>("maybe_wrap_dim: ", name, " must be an integer, got ", Py_TYPE(v.ptr())->tp_name);
    nb::object i = nb::steal(PyNumber_Index(v.ptr()));
    if (!i.is_valid()) throw nb::python_error();
    return i;
}

bool fits(const nb::object& i, int64_t& out) {
    int overflow = 0;
    out = PyLong_AsLongLongAndOverflow(i.ptr(), &overflow);
    if (out == -1 && PyErr_Occurred()) throw nb::python_error();
    return overflow == 0;
}

bool compare(const nb::object& a, const nb::object& b, int op) {
    const int r = PyObject_RichCompareBool(a.ptr(), b.ptr(), op);
    if (r < 0) throw nb::python_error();
    return r == 1;
}

nb::object number_op(PyObject* r) {
    if (!r) throw nb::python_error();
    return nb::steal(r);
}

}  // namespace

void init_wrap_dim(nb::module_& m) {
    m.def(
        "maybe_wrap_dim",
        [](nb::handle dim_arg, nb::handle post_arg, nb::handle wrap_scalar) -> nb::object {
            nb::object dim = int_object(dim_arg, "dim"), post = int_object(post_arg, "dim_post_expr");
            int64_t d = 0, n = 0;
            if (fits(dim, d) && fits(post, n)) {
                bool scalar_ok = true;
                if (n <= 0) scalar_ok = truth_arg(wrap_scalar);  // read only where it matters, as `assert` would
                return nb::int_(maybe_wrap_dim(d, n, scalar_ok));
            }
            // Ints beyond int64 take Python's arithmetic, as the same Python function would.
            const nb::object zero = nb::int_(0), one = nb::int_(1);
            if (compare(post, zero, Py_LE)) {
                module_assert(truth_arg(wrap_scalar));
                post = one;
            }
            const nb::object minv = number_op(PyNumber_Negative(post.ptr()));
            const nb::object maxv = number_op(PyNumber_Subtract(post.ptr(), one.ptr()));
            module_assert(!(compare(dim, minv, Py_LT) || compare(dim, maxv, Py_GT)));
            if (compare(dim, zero, Py_LT)) dim = number_op(PyNumber_Add(dim.ptr(), post.ptr()));
            return dim;
        },
        nb::sig("def maybe_wrap_dim(dim: int, dim_post_expr: int, wrap_scalar: bool = True) -> int"), "dim"_a,
        "dim_post_expr"_a, "wrap_scalar"_a.none() = true, "check dim valid");
}

}  // namespace pymoira
