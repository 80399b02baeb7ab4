// QTensor methods that fill a tensor in place (fill_, the fill_rand_ family) or query all of its
// values (all, any, argmax, argmin). None records edges or touches requires_grad or grad: a fill
// changes the values behind the graph's back, and a query gives a leaf or a plain value.
#include "autograd/record.hpp"
#include "init.hpp"

namespace pymoira {

using namespace nb::literals;

namespace {

double number(nb::handle v, const char* op) { return scalar_arg(v, op).as<double>(); }

// argmax / argmin: the positional arguments go to the backend as given (none, or an axis list
// and a keepdim flag); the index tensor becomes a leaf.
nb::object position(const char* name, QTensor& q, const nb::args& kargs) {
    return to_qtensor(nb::type<moira::Tensor>().attr(name)(q.data, *kargs));
}

}  // namespace

void init_fills(QTensorClass& cls) {
    cls.def(
           "fill_",
           [](QTensor& q, nb::handle v) {
               moira::fill_(*q.core, scalar_arg(v, "fill_"));
               return to_qtensor(q.data);
           },
           "v"_a.none(), nb::sig("def fill_(self, v: _Number) -> QTensor"),
           "Fill the tensor with the specified value inplace; returns a new QTensor over the same data.")
        .def(
            "fill_rand_uniform_with_bound_",
            [](QTensor& q, nb::handle lo, nb::handle hi) {
                const char* op = "fill_rand_uniform_withbound_";
                moira::fill_rand_uniform_withbound_(*q.core, number(lo, op), number(hi, op));
            },
            "min_value"_a.none(), "max_value"_a.none(),
            nb::sig("def fill_rand_uniform_with_bound_(self, min_value: float, max_value: float) -> None"),
            "Fill with values drawn uniformly between min_value (lower bound) and max_value (upper bound).")
        .def(
            "fill_rand_uniform_",
            [](QTensor& q, nb::handle v) { moira::fill_rand_uniform_(*q.core, number(v, "fill_rand_uniform_")); },
            "v"_a.none() = 1, nb::sig("def fill_rand_uniform_(self, v: float = 1) -> None"),
            "Fill with values drawn uniformly from [0, 1), scaled by v.")
        .def(
            "fill_rand_signed_uniform_",
            [](QTensor& q, nb::handle v) {
                moira::fill_rand_signed_uniform_(*q.core, number(v, "fill_rand_signed_uniform_"));
            },
            "v"_a.none() = 1, nb::sig("def fill_rand_signed_uniform_(self, v: float = 1) -> None"),
            "Fill with values drawn uniformly from [-1, 1), scaled by v.")
        .def(
            "fill_rand_normal_",
            [](QTensor& q, nb::handle m, nb::handle s, nb::handle fast_math) {
                const char* op = "fill_rand_normal_";
                moira::fill_rand_normal_(*q.core, number(m, op), number(s, op), truth_arg(fast_math));
            },
            "m"_a.none() = 0, "s"_a.none() = 1, "fast_math"_a.none() = true,
            nb::sig("def fill_rand_normal_(self, m: float = 0, s: float = 1, fast_math: bool = True) -> None"),
            "Fill with values drawn from a normal distribution of mean m and standard deviation s; fast_math "
            "selects the faster float-precision transform.")
        .def(
            "fill_rand_binary_",
            [](QTensor& q, nb::handle v) { moira::fill_rand_binary_(*q.core, number(v, "fill_rand_binary_")); },
            "v"_a.none() = 0.5, nb::sig("def fill_rand_binary_(self, v: float = 0.5) -> None"),
            "Fill with random 0 and 1: each uniform draw from [0, 1) compared with v, 1 if it is >= v, 0 otherwise.")
        .def(
            "all", [](QTensor& q) { return moira::all(*q.core); }, "True if every element is non-zero.")
        .def(
            "any", [](QTensor& q) { return moira::any(*q.core); }, "True if some element is non-zero.")
        .def(
            "argmax", [](QTensor& q, nb::args kargs) { return position("argmax", q, kargs); },
            nb::sig("def argmax(self, *args: Any) -> QTensor"),
            "The index of the largest element as a one-element tensor; with ([dim], keepdim) the indices along dim.")
        .def(
            "argmin", [](QTensor& q, nb::args kargs) { return position("argmin", q, kargs); },
            nb::sig("def argmin(self, *args: Any) -> QTensor"),
            "The index of the smallest element as a one-element tensor; with ([dim], keepdim) the indices along dim.");
}

}  // namespace pymoira
