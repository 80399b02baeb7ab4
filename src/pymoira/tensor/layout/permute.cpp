// Axis permutation: QTensor.transpose and transpose_, and transpose, permute, swapaxis.
//
// Results are views (see Note [Views and value semantics]); the gradient applies the inverse
// permutation to g.
#include "indexing/wrap_dim.hpp"
#include "init.hpp"
#include "layout/layout_args.hpp"

namespace pymoira {

using namespace nb::literals;

namespace {

struct InversePermutation {
    moira::Shape axes;
};
moira::Tensor transpose_grad(const GradFn& f, const moira::Tensor& g) {
    return moira::permute(g, f.payload<InversePermutation>().axes);
}

// The two axes, exchanged back.
struct SwappedAxes {
    int64_t first, second;
};
moira::Tensor swapaxis_grad(const GradFn& f, const moira::Tensor& g) {
    const SwappedAxes& p = f.payload<SwappedAxes>();
    return moira::swapaxes(g, p.second, p.first);
}

// The permutation check of the two methods. Under python -O only the wrapping and the
// bookkeeping run, and fail as the same Python would (IndexError for a short list or an entry
// that wrapping leaves outside the axes).
void check_permutation(nb::handle new_dims, int64_t ndim) {
    assert_that(PyList_Check(new_dims.ptr()), "second para should be list");
    if (assertions_enabled()) {
        const Py_ssize_t len = PyObject_Length(new_dims.ptr());
        if (len < 0) throw nb::python_error();
        assert_that(len == ndim, "second para dim not equal to tensor shape");
    }
    std::vector<bool> seen(static_cast<size_t>(ndim), false);
    for (int64_t i = 0; i < ndim; ++i) {
        nb::object entry = nb::steal(PySequence_GetItem(new_dims.ptr(), static_cast<Py_ssize_t>(i)));
        if (!entry.is_valid()) throw nb::python_error();
        int64_t dim = maybe_wrap_dim(int_arg(entry, "transpose", "permutation entries must be integers"), ndim);
        if (dim < -ndim || dim >= ndim) throw nb::index_error("list assignment index out of range");
        if (dim < 0) dim += ndim;
        assert_that(!seen[static_cast<size_t>(dim)], "repeat dim in second para is not valid ");
        seen[static_cast<size_t>(dim)] = true;
    }
}

std::vector<int64_t> dims_arg(nb::handle dim, int64_t ndim, const char* op) {
    if (dim.is_none()) return moira::reversed_axes(ndim);
    return int_items(dim, op, "permutation entries must be integers");
}

// transpose(t, dim) after its type check: the OwnFlags pattern.
nb::object transpose_by(nb::handle t, nb::handle dim) {
    QArg x(t, "transpose");
    const int64_t nd = x.core().ndim();
    const std::vector<int64_t> dims = dims_arg(dim, nd, "transpose");
    moira::Tensor data = moira::permute(x.core(), dims);
    Record rec(Tracking::OwnFlags, {x.q});
    if (rec.wants_edge(*x.q)) {
        moira::Shape inverse(dims.size());
        for (size_t k = 0; k < dims.size(); ++k) inverse[static_cast<size_t>(dims[k] < 0 ? dims[k] + nd : dims[k])] = int64_t(k);
        GradFn fn(&transpose_grad, "transpose");
        fn.with(InversePermutation{std::move(inverse)});
        if (dim.is_none()) rec.edge(t, std::move(fn), EdgeName::text("tranpose grad dim = None"));
        else edge_with_text(rec, t, std::move(fn), "tranpose grad dim = ", dim);
    }
    return rec.finish(std::move(data));
}

nb::object transpose(nb::handle t, nb::handle dim) {
    check_arg_type(dim, &PyList_Type, "dim");
    return transpose_by(t, dim);
}

nb::object method_transpose(nb::handle self, nb::handle new_dims) {
    QArg x(self, "transpose");
    if (!new_dims.is_none()) {
        check_permutation(new_dims, x.core().ndim());
        return transpose(self, new_dims);
    }
    // The reversed order: a result without an edge, given zero gradients when self's
    // requires_grad is True itself.
    moira::Tensor data = moira::permute(x.core(), moira::reversed_axes(x.core().ndim()));
    Record rec = Record::leaf();
    if (x->requires_grad.ptr() == Py_True) rec.with_flag(nb::borrow(Py_True));
    return rec.finish(std::move(data));
}

void method_transpose_(nb::handle self, nb::handle new_dims) {
    QArg x(self, "transpose_");
    if (new_dims.is_none()) return moira::permute_(*x->core, moira::reversed_axes(x.core().ndim()));
    check_permutation(new_dims, x.core().ndim());
    moira::permute_(*x->core, dims_arg(new_dims, x.core().ndim(), "transpose_"));
}

nb::object swapaxis(nb::handle t, nb::handle axis1, nb::handle axis2) {
    QArg x(t, "swapaxis");
    const int64_t a = int_arg(axis1, "swapaxis", "axis1 must be an integer");
    const int64_t b = int_arg(axis2, "swapaxis", "axis2 must be an integer");
    moira::Tensor data = moira::swapaxes(x.core(), a, b);
    Record rec(Tracking::Combined, {x.q});
    if (rec.wants_edge(*x.q))
        rec.edge(t, GradFn(&swapaxis_grad, "swapaxis").with(SwappedAxes{a, b}),
                 EdgeName::one("swapaxis of tensor ", x->shape()));
    return rec.finish(std::move(data));
}

}  // namespace

void init_permute(nb::module_& m, QTensorClass& cls) {
    cls.def("transpose", &method_transpose,
            nb::sig("def transpose(self, new_dims: Sequence[int] | None = None) -> QTensor"),
            "new_dims"_a.none() = nb::none(),
            "A new QTensor with permuted axes (reversed when new_dims is None).");
    cls.def("transpose_", &method_transpose_,
            nb::sig("def transpose_(self, new_dims: Sequence[int] | None = None) -> None"),
            "new_dims"_a.none() = nb::none(),
            "Permute the axes in place (reversed when new_dims is None); returns None.");
    m.def("transpose", &transpose, nb::sig("def transpose(t: QTensor, dim: Sequence[int] | None) -> QTensor"), "t"_a,
          "dim"_a.none(), "A new QTensor with axis k taken from axis dim[k] of t.");
    m.def(
        "permute",
        [](nb::handle t, nb::handle dim) {
            check_arg_type(dim, &PyList_Type, "dim");
            return transpose(t, dim);
        },
        nb::sig("def permute(t: QTensor, dim: Sequence[int] | None) -> QTensor"), "t"_a, "dim"_a.none(),
        "The same as transpose(t, dim).");
    m.def("swapaxis", &swapaxis, nb::sig("def swapaxis(t: QTensor, axis1: int, axis2: int) -> QTensor"), "t"_a,
          "axis1"_a, "axis2"_a, "A new QTensor with axes axis1 and axis2 exchanged.");
}

}  // namespace pymoira
