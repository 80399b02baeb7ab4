// Creation functions (static methods of Tensor), the random fills (the fill_rand_ family) and
// the random generator's seed.
#include "bindings/arguments.hpp"
#include "bindings/bind.hpp"

namespace pymoira {

using moira::Tensor;
using namespace nb::literals;

namespace {

int dev(nb::handle device, const char* op) {
    int64_t d = device_arg(device, op);
    moira::check_device(d);
    return static_cast<int>(d);
}

double number(nb::handle v, const char* op) { return scalar_arg(v, op).as<double>(); }

}  // namespace

void init_creation(TensorClass& cls, nb::module_& moira) {
    cls.def_static(
           "empty",
           [](nb::handle shape, nb::handle device, nb::handle dtype) {
               return moira::empty(shape_from_python(shape, "empty"), dev(device, "empty"), dtype_arg(dtype, "empty"));
           },
           "shape"_a, "device"_a = 0, "dtype"_a.none() = nb::none(),
           nb::sig("def empty(shape: " MOIRA_PY_INTS ", device: int = 0, dtype: " MOIRA_PY_DTYPE " = None) -> "
                   MOIRA_PY_TENSOR),
           "A tensor of the shape with uninitialised values.")
        .def_static(
            "zeros",
            [](nb::handle shape, nb::handle device, nb::handle dtype) {
                return moira::zeros(shape_from_python(shape, "zeros"), dev(device, "zeros"), dtype_arg(dtype, "zeros"));
            },
            "shape"_a, "device"_a = 0, "dtype"_a.none() = nb::none(),
            nb::sig("def zeros(shape: " MOIRA_PY_INTS ", device: int = 0, dtype: " MOIRA_PY_DTYPE " = None) -> "
                    MOIRA_PY_TENSOR), "A tensor of zeros.")
        .def_static(
            "ones",
            [](nb::handle shape, nb::handle device, nb::handle dtype) {
                return moira::ones(shape_from_python(shape, "ones"), dev(device, "ones"), dtype_arg(dtype, "ones"));
            },
            "shape"_a, "device"_a = 0, "dtype"_a.none() = nb::none(),
            nb::sig("def ones(shape: " MOIRA_PY_INTS ", device: int = 0, dtype: " MOIRA_PY_DTYPE " = None) -> "
                    MOIRA_PY_TENSOR), "A tensor of ones.")
        .def_static(
            "full",
            [](nb::handle shape, nb::handle value, nb::handle device, nb::handle dtype) {
                return moira::full(shape_from_python(shape, "full"), scalar_arg(value, "full"), dev(device, "full"),
                                   dtype_arg(dtype, "full"));
            },
            "shape"_a, "value"_a, "device"_a = 0, "dtype"_a.none() = nb::none(),
            nb::sig("def full(shape: " MOIRA_PY_INTS ", value: " MOIRA_PY_NUMBER ", device: int = 0, dtype: "
                    MOIRA_PY_DTYPE " = None) -> " MOIRA_PY_TENSOR),
            "A tensor filled with `value`.")
        .def("zeros_like", &moira::zeros_like, "Zeros of this tensor's shape, type and device.")
        .def("ones_like", &moira::ones_like, "Ones of this tensor's shape, type and device.")
        .def(
            "full_like", [](const Tensor& t, nb::handle v) { return moira::full_like(t, scalar_arg(v, "full_like")); },
            "value"_a, nb::sig("def full_like(self, value: " MOIRA_PY_NUMBER ") -> " MOIRA_PY_TENSOR),
            "`value` in this tensor's shape, type and device.")
        .def_static(
            "arange",
            [](double start, double end, double step, nb::handle device) {
                return moira::arange(start, end, step, dev(device, "arange"));
            },
            "start"_a, "end"_a, "step"_a = 1.0, "device"_a = 0,
            nb::sig("def arange(start: float, end: float, step: float = 1.0, device: int = 0) -> " MOIRA_PY_TENSOR),
            "start, start + step, ... stopping before end (float32).")
        .def_static(
            "linspace",
            [](double start, double end, nb::handle nums, nb::handle device) {
                return moira::linspace(start, end, int_arg(nums, "linspace", "nums must be an integer"),
                                       dev(device, "linspace"));
            },
            "start"_a, "end"_a, "nums"_a, "device"_a = 0,
            nb::sig("def linspace(start: float, end: float, nums: int, device: int = 0) -> " MOIRA_PY_TENSOR),
            "`nums` evenly spaced values from start to end.")
        .def_static(
            "logspace",
            [](double start, double end, nb::handle nums, double base, nb::handle device) {
                return moira::logspace(start, end, int_arg(nums, "logspace", "nums must be an integer"), base,
                                       dev(device, "logspace"));
            },
            "start"_a, "end"_a, "nums"_a, "base"_a, "device"_a = 0,
            nb::sig("def logspace(start: float, end: float, nums: int, base: float, device: int = 0) -> "
                    MOIRA_PY_TENSOR),
            "`nums` values from base ** start to base ** end, evenly spaced on a log scale.")
        .def_static(
            "eye",
            [](nb::handle size, nb::handle offset, nb::handle device) {
                return moira::eye(int_arg(size, "eye", "size must be an integer"),
                                  int_arg(offset, "eye", "offset must be an integer"), dev(device, "eye"));
            },
            "size"_a, "offset"_a = 0, "device"_a = 0,
            nb::sig("def eye(size: int, offset: int = 0, device: int = 0) -> " MOIRA_PY_TENSOR),
            "A size x size matrix with ones on diagonal `offset`.")
        .def(
            "diag", [](const Tensor& t, nb::handle k) { return moira::diag(t, int_arg(k, "diag", "k must be an integer")); },
            "k"_a = 0, nb::sig("def diag(self, k: int = 0) -> " MOIRA_PY_TENSOR),
            "1-D: a square matrix with these values on diagonal k. 2-D: a copy with everything off diagonal k set "
            "to 0.")
        .def_static(
            "randu", [](nb::handle shape, nb::handle device) { return moira::randu(shape_from_python(shape, "randu"), dev(device, "randu")); },
            "shape"_a, "device"_a = 0,
            nb::sig("def randu(shape: " MOIRA_PY_INTS ", device: int = 0) -> " MOIRA_PY_TENSOR),
            "Uniform random values in [0, 1).")
        .def_static(
            "randn", [](nb::handle shape, nb::handle device) { return moira::randn(shape_from_python(shape, "randn"), dev(device, "randn")); },
            "shape"_a, "device"_a = 0,
            nb::sig("def randn(shape: " MOIRA_PY_INTS ", device: int = 0) -> " MOIRA_PY_TENSOR),
            "Standard normal random values.")
        .def(
            "fill_rand_uniform_withbound_",
            [](Tensor& t, nb::handle lo, nb::handle hi) {
                const char* op = "fill_rand_uniform_withbound_";
                moira::fill_rand_uniform_withbound_(t, number(lo, op), number(hi, op));
            },
            "min_value"_a, "max_value"_a,
            nb::sig("def fill_rand_uniform_withbound_(self, min_value: float, max_value: float) -> None"),
            "Fill in place with values drawn uniformly from [min_value, max_value) (ValueError when min_value > "
            "max_value).")
        .def(
            "fill_rand_uniform_",
            [](Tensor& t, nb::handle v) { moira::fill_rand_uniform_(t, number(v, "fill_rand_uniform_")); }, "v"_a = 1,
            nb::sig("def fill_rand_uniform_(self, v: float = 1) -> None"),
            "Fill in place with v * u, u drawn uniformly from [0, 1).")
        .def(
            "fill_rand_signed_uniform_",
            [](Tensor& t, nb::handle v) { moira::fill_rand_signed_uniform_(t, number(v, "fill_rand_signed_uniform_")); },
            "v"_a = 1, nb::sig("def fill_rand_signed_uniform_(self, v: float = 1) -> None"),
            "Fill in place with v * u, u drawn uniformly from [-1, 1).")
        .def(
            "fill_rand_normal_",
            [](Tensor& t, nb::handle m, nb::handle s, nb::handle fast_math) {
                const char* op = "fill_rand_normal_";
                moira::fill_rand_normal_(t, number(m, op), number(s, op), truth_arg(fast_math));
            },
            "m"_a = 0, "s"_a = 1, "fast_math"_a = true,
            nb::sig("def fill_rand_normal_(self, m: float = 0, s: float = 1, fast_math: bool = True) -> None"),
            "Fill in place with normal values of mean m and standard deviation s (ValueError when s < 0); "
            "fast_math computes the transform in float precision.")
        .def(
            "fill_rand_binary_", [](Tensor& t, nb::handle v) { moira::fill_rand_binary_(t, number(v, "fill_rand_binary_")); },
            "v"_a = 0.5, nb::sig("def fill_rand_binary_(self, v: float = 0.5) -> None"),
            "Fill in place with 1 where a uniform draw from [0, 1) is >= v, 0 otherwise (any element type).");

    moira.def(
        "seed", [](uint64_t value) { moira::seed(value); }, "value"_a,
        "Restart the random generator shared by every random function (randu, randn, the fill_rand_ family) "
        "from `value`, so that a run can be reproduced. Without a call the generator starts from a fixed seed.");
}

}  // namespace pymoira
