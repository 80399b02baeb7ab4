// Bindings of the reduce kernels: sums, means and norms; extremes, medians and whole-tensor
// queries; variances; sorts, top-k, cumulative sums and log-softmax with their gradients.
#include <nanobind/stl/string.h>

#include <optional>
#include <string>

#include "bindings/arguments.hpp"
#include "bindings/bind.hpp"
#include "bindings/to_python.hpp"

namespace pymoira {

using moira::Tensor;
using namespace nb::literals;

namespace {

// var/std take var(unbiased) for the whole tensor and var([axis], keepdims, unbiased) along an
// axis: a first argument that is not a list, a tuple or None is the unbiased flag.
Tensor spread_call(const Tensor& t, nb::handle axis, nb::handle keepdims, nb::handle unbiased, const char* op,
                   Tensor (*spread)(const Tensor&, moira::Axis, bool, int64_t)) {
    PyObject* o = axis.ptr();
    if (!axis.is_none() && !PyList_Check(o) && !PyTuple_Check(o)) return spread(t, std::nullopt, false, truth_arg(axis));
    const int64_t ddof = truth_arg(unbiased) ? 1 : 0;
    const moira::Axis a = optional_axis_arg(axis, op, true);
    return spread(t, a, a && truth_arg(keepdims), ddof);
}

// The axis argument of the reductions: None, an integer or [integer].
#define MOIRA_PY_AXIS "int | collections.abc.Sequence[int] | None"

int64_t k_int(nb::handle k, const char* op) { return int_arg(k, op, "k must be an integer"); }

}  // namespace

void init_reduce(TensorClass& cls, nb::module_& moira) {
    struct Reduce {
        const char* name;
        Tensor (*reduce)(const Tensor&, moira::Axis, bool);
        const char* doc;
    };
    const Reduce reductions[] = {
        {"sum", moira::sum, "Sum of all elements (shape [1]) or along axis, given as [axis]; sums of bool are int64."},
        {"mean", moira::mean,
         "Mean of all elements (shape [1]) or along axis, given as [axis]; means of bool and int64 are float32."},
        {"max", moira::amax,
         "Largest element (shape [1]) or the largest along axis, given as [axis]; NaN wins, as in numpy."},
        {"min", moira::amin,
         "Smallest element (shape [1]) or the smallest along axis, given as [axis]; NaN wins, as in numpy."},
        {"argmax", moira::argmax,
         "Position (int64) of the largest element in row-major order (shape [1]), or along axis, given as "
         "[axis]; the first of equal maxima, the first NaN if there is one."},
        {"argmin", moira::argmin,
         "Position (int64) of the smallest element in row-major order (shape [1]), or along axis, given as "
         "[axis]; the first of equal minima, the first NaN if there is one."},
        {"median", moira::median,
         "Median of all elements (shape [1]) or along axis, given as [axis]: the mean of the two middle values "
         "for an even count, NaN where a NaN is present; float32 for bool and int64."},
    };
    for (const Reduce& e : reductions) {
        const std::string sig = std::string("def ") + e.name + "(self, axis: " MOIRA_PY_AXIS
                                " = None, keepdims: bool = False) -> " MOIRA_PY_TENSOR;
        cls.def(
            e.name,
            [e](const Tensor& t, nb::handle axis, nb::handle keepdims) {
                const moira::Axis a = optional_axis_arg(axis, e.name, true);
                return e.reduce(t, a, a && truth_arg(keepdims));
            },
            "axis"_a.none() = nb::none(), "keepdims"_a = false, nb::sig(sig.c_str()), e.doc);
    }
    cls.def(
           "var",
           [](const Tensor& t, nb::handle axis, nb::handle keepdims, nb::handle unbiased) {
               return spread_call(t, axis, keepdims, unbiased, "var", moira::var);
           },
           "axis"_a.none() = nb::none(), "keepdims"_a = false, "unbiased"_a = true,
           nb::sig("def var(self, axis: " MOIRA_PY_AXIS " = None, keepdims: bool = False, unbiased: bool = True) -> "
                   MOIRA_PY_TENSOR),
           "Variance of all elements (shape [1]), var(unbiased), or along axis, var([axis], keepdims, unbiased); "
           "unbiased divides by n - 1 (NaN for fewer than 2 elements), otherwise by n.")
        .def(
            "std",
            [](const Tensor& t, nb::handle axis, nb::handle keepdims, nb::handle unbiased) {
                return spread_call(t, axis, keepdims, unbiased, "std", moira::std_dev);
            },
            "axis"_a.none() = nb::none(), "keepdims"_a = false, "unbiased"_a = true,
            nb::sig("def std(self, axis: " MOIRA_PY_AXIS " = None, keepdims: bool = False, unbiased: bool = True) -> "
                    MOIRA_PY_TENSOR),
            "Standard deviation of all elements (shape [1]), std(unbiased), or along axis, std([axis], keepdims, "
            "unbiased); the square root of var.")
        .def(
            "sort",
            [](const Tensor& t, nb::handle axis, nb::handle descending, nb::handle stable) {
                return moira::sort(t, axis_arg(axis, "sort"), truth_arg(descending), truth_arg(stable));
            },
            "axis"_a = -1, "descending"_a = false, "stable"_a = true,
            nb::sig("def sort(self, axis: int = -1, descending: bool = False, stable: bool = True) -> "
                    MOIRA_PY_TENSOR),
            "The values sorted along axis; stable (equal values keep their order), NaN last (first when "
            "descending).")
        .def(
            "argsort",
            [](const Tensor& t, nb::handle axis, nb::handle descending, nb::handle stable) {
                return moira::argsort(t, axis_arg(axis, "argsort"), truth_arg(descending), truth_arg(stable));
            },
            "axis"_a = -1, "descending"_a = false, "stable"_a = true,
            nb::sig("def argsort(self, axis: int = -1, descending: bool = False, stable: bool = True) -> "
                    MOIRA_PY_TENSOR),
            "The positions (int64) that sort the values along axis; stable, NaN last (first when descending).");

    moira.def("all", &moira::all, "t"_a, "True if every element is non-zero (NaN counts as non-zero).");
    moira.def("any", &moira::any, "t"_a, "True if some element is non-zero (NaN counts as non-zero).");
    moira.def(
        "topK",
        [](const Tensor& t, nb::handle k, nb::handle axis, nb::handle if_descent) {
            return moira::topk(t, k_int(k, "topK"), axis_arg(axis, "topK"), truth_arg(if_descent));
        },
        "t"_a, "k"_a, "axis"_a = -1, "if_descent"_a = true,
        nb::sig("def topK(t: " MOIRA_PY_TENSOR ", k: int, axis: int = -1, if_descent: bool = True) -> "
                MOIRA_PY_TENSOR),
        "The k largest values along axis, largest first (with if_descent false: the k smallest, smallest first); "
        "the earlier of equal values first.");
    moira.def(
        "argtopK",
        [](const Tensor& t, nb::handle k, nb::handle axis, nb::handle if_descent) {
            return moira::argtopk(t, k_int(k, "argtopK"), axis_arg(axis, "argtopK"), truth_arg(if_descent));
        },
        "t"_a, "k"_a, "axis"_a = -1, "if_descent"_a = true,
        nb::sig("def argtopK(t: " MOIRA_PY_TENSOR ", k: int, axis: int = -1, if_descent: bool = True) -> "
                MOIRA_PY_TENSOR),
        "The positions (int64) of the values topK gives.");
    moira.def(
        "topKgrad",
        [](const Tensor& t, const Tensor& g, nb::handle k, nb::handle axis, nb::handle if_descent) {
            return moira::topk_grad(t, g, k_int(k, "topKgrad"), axis_arg(axis, "topKgrad"), truth_arg(if_descent));
        },
        "t"_a, "grad"_a, "k"_a, "axis"_a = -1, "if_descent"_a = true,
        nb::sig("def topKgrad(t: " MOIRA_PY_TENSOR ", grad: " MOIRA_PY_TENSOR
                ", k: int, axis: int = -1, if_descent: bool = True) -> "
                MOIRA_PY_TENSOR),
        "Gradient of topK: grad placed at the positions topK took from t, zeros elsewhere, in t's shape.");
    moira.def(
        "cumsum", [](const Tensor& t, nb::handle axis) { return moira::cumsum(t, axis_arg(axis, "cumsum")); }, "t"_a,
        "axis"_a = -1,
        nb::sig("def cumsum(t: " MOIRA_PY_TENSOR ", axis: int = -1) -> " MOIRA_PY_TENSOR),
                "Running sums along axis (bool sums are int64).");
    moira.def(
        "cumsumgrad", [](const Tensor& g, nb::handle axis) { return moira::cumsum_grad(g, axis_arg(axis, "cumsumgrad")); },
        "grad"_a, "axis"_a = -1,
        nb::sig("def cumsumgrad(grad: " MOIRA_PY_TENSOR ", axis: int = -1) -> " MOIRA_PY_TENSOR),
        "Gradient of cumsum: the running sums of grad along axis, taken from its end.");
    moira.def(
        "log_softmax",
        [](const Tensor& t, nb::handle axis) { return moira::log_softmax(t, axis_arg(axis, "log_softmax")); }, "t"_a,
        "axis"_a = -1, nb::sig("def log_softmax(t: " MOIRA_PY_TENSOR ", axis: int = -1) -> " MOIRA_PY_TENSOR),
        "log(softmax(t)) along axis, computed as t - max - log(sum(exp(t - max))).");
    moira.def(
        "log_softmax_grad",
        [](const Tensor& g, const Tensor& out, nb::handle axis) {
            return moira::log_softmax_grad(g, out, axis_arg(axis, "log_softmax_grad"));
        },
        "grad"_a, "out"_a, "axis"_a = -1,
        nb::sig("def log_softmax_grad(grad: " MOIRA_PY_TENSOR ", out: " MOIRA_PY_TENSOR ", axis: int = -1) -> "
                MOIRA_PY_TENSOR),
        "Gradient of log_softmax from its result out: grad - exp(out) * (grad summed along axis).");

    cls.def(
            "l2_norm",
            [](const Tensor& t, nb::handle axis, nb::handle keepdims) -> nb::object {
                auto a = optional_axis_arg(axis, "l2_norm", true);
                auto [norms, sumsq] = moira::l2_norm(t, a, a && truth_arg(keepdims));
                if (!a) return wrap_core(std::move(norms));
                nb::list out;
                out.append(wrap_core(std::move(norms)));
                out.append(wrap_core(std::move(sumsq)));
                return std::move(out);
            },
            "axis"_a.none() = nb::none(), "keepdims"_a = false,
            nb::sig("def l2_norm(self, axis: " MOIRA_PY_AXIS " = None, keepdims: bool = False) -> " MOIRA_PY_TENSOR
                    " | list[" MOIRA_PY_TENSOR "]"),
            "Euclidean norm of all elements (shape [1]); along an axis, the list [norms, sums of squares].")
        .def_static(
            "l2_norm_grad",
            [](const Tensor& t, const Tensor& g, const Tensor& sumsq, nb::handle axis) {
                auto a = optional_axis_arg(axis, "l2_norm_grad", true);
                if (!a) moira::fail<moira::TypeError>("l2_norm_grad: an axis is required");
                return moira::l2_norm_grad(t, g, sumsq, *a);
            },
            "t"_a, "grad"_a, "sumsq"_a, "axis"_a.none(),
            nb::sig("def l2_norm_grad(t: " MOIRA_PY_TENSOR ", grad: " MOIRA_PY_TENSOR ", sumsq: " MOIRA_PY_TENSOR
                    ", axis: " MOIRA_PY_INTS
                    ") -> " MOIRA_PY_TENSOR),
            "Gradient of l2_norm along axis: t * grad / sqrt(sumsq) spread along the axis; 0 where sumsq is 0.");
}

}  // namespace pymoira
