// maybe_wrap_dim and the assertion switch; see Note [Assertion checks].
#include "indexing/wrap_dim.hpp"

#include "bindings/pyconvert.hpp"

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

int64_t axis_arg(nb::handle axis, const char* op) { return int_arg(axis, op, "axis must be an integer"); }

std::optional<int64_t> reduction_axis(nb::handle axis, const char* op) {
    if (axis.is_none()) return std::nullopt;
    return int_arg(axis, op, "axis must be an integer or None");
}

void init_wrap_dim(nb::module_& m) {
    m.def(
        "maybe_wrap_dim",
        [](int64_t dim, int64_t dim_post_expr, nb::handle wrap_scalar) {
            bool scalar_ok = true;
            if (dim_post_expr <= 0) {  // the flag is read only where it matters, as `assert` would
                scalar_ok = truth_arg(wrap_scalar);
            }
            return maybe_wrap_dim(dim, dim_post_expr, scalar_ok);
        },
        "dim"_a, "dim_post_expr"_a, "wrap_scalar"_a.none() = true, "check dim valid");
}

}  // namespace pymoira
