// Bindings of the reduce kernels: sum, mean, l2_norm and l2_norm_grad.
#include <nanobind/stl/string.h>

#include <optional>

#include "bindings/bind.hpp"

namespace pymoira {

using moira::Tensor;
using namespace nb::literals;

namespace {

// None (the whole tensor), an integer, or a one-element list or tuple holding one.
std::optional<int64_t> axis_arg(nb::handle obj, const char* op) {
    PyObject* o = obj.ptr();
    if (obj.is_none()) return std::nullopt;
    if (PyList_Check(o) || PyTuple_Check(o)) {
        Py_ssize_t n = PySequence_Size(o);
        if (n != 1)
            moira::fail<moira::ValueError>(op, ": expected one axis in a list such as [1], got ",
                                           nb::cast<std::string>(nb::repr(obj)));
        nb::object item = nb::steal(PySequence_GetItem(o, 0));
        if (!item.is_valid()) throw nb::python_error();
        return int_arg(item, op, "an axis must be an integer");
    }
    return int_arg(obj, op, "an axis must be an integer");
}

}  // namespace

void init_reduce(TensorClass& cls, nb::module_& moira) {
    (void)moira;
    cls.def(
           "sum",
           [](const Tensor& t, nb::handle axis, nb::handle keepdims) {
               auto a = axis_arg(axis, "sum");
               return a ? moira::sum(t, *a, truth_arg(keepdims)) : moira::sum(t);
           },
           "axis"_a.none() = nb::none(), "keepdims"_a = false,
           "Sum of all elements (shape [1]) or along axis, given as [axis]; sums of bool are int64.")
        .def(
            "mean",
            [](const Tensor& t, nb::handle axis, nb::handle keepdims) {
                auto a = axis_arg(axis, "mean");
                return a ? moira::mean(t, *a, truth_arg(keepdims)) : moira::mean(t);
            },
            "axis"_a.none() = nb::none(), "keepdims"_a = false,
            "Mean of all elements (shape [1]) or along axis, given as [axis]; means of bool and int64 are float32.")
        .def(
            "l2_norm",
            [](const Tensor& t, nb::handle axis, nb::handle keepdims) -> nb::object {
                auto a = axis_arg(axis, "l2_norm");
                if (!a) return wrap_core(moira::l2_norm(t));
                auto [norms, sumsq] = moira::l2_norm(t, *a, truth_arg(keepdims));
                nb::list out;
                out.append(wrap_core(std::move(norms)));
                out.append(wrap_core(std::move(sumsq)));
                return std::move(out);
            },
            "axis"_a.none() = nb::none(), "keepdims"_a = false,
            "Euclidean norm of all elements (shape [1]); along an axis, the list [norms, sums of squares].")
        .def_static(
            "l2_norm_grad",
            [](const Tensor& t, const Tensor& g, const Tensor& sumsq, nb::handle axis) {
                auto a = axis_arg(axis, "l2_norm_grad");
                if (!a) moira::fail<moira::TypeError>("l2_norm_grad: an axis is required");
                return moira::l2_norm_grad(t, g, sumsq, *a);
            },
            "t"_a, "grad"_a, "sumsq"_a, "axis"_a.none(),
            "Gradient of l2_norm along axis: t * grad / sqrt(sumsq) spread along the axis; 0 where sumsq is 0.");
}

}  // namespace pymoira
