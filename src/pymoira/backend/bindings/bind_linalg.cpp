// Matrix products of Tensor (mult2D, bmm, matmul, each with two transpose flags) and the
// moira functions that choose the kernel behind them.
#include <nanobind/stl/string.h>
#include <nanobind/stl/vector.h>

#include <string>

#include "bindings/arguments.hpp"
#include "bindings/bind.hpp"

namespace pymoira {

using moira::Tensor;
using namespace nb::literals;

namespace {

// A transpose flag: 0 or 1 (True and False included); ValueError for other integers.
bool flag_arg(nb::handle obj, const char* name, const char* op) {
    std::string what = std::string(name) + " must be 0 or 1";
    int64_t v = -1;
    try {
        v = int_arg(obj, op, what.c_str());
    } catch (const moira::OverflowError&) {  // outside the 64-bit range: not a flag either
    }
    if (v != 0 && v != 1) moira::fail<moira::ValueError>(op, ": ", name, " must be 0 or 1, got ", nb::repr(obj).c_str());
    return v == 1;
}

using Product = Tensor (*)(const Tensor&, const Tensor&, bool, bool);

void def_product(TensorClass& cls, const char* name, Product fn, const char* doc) {
    const std::string sig = std::string("def ") + name + "(self, other: " MOIRA_PY_TENSOR
                            ", trans_a: int = 0, trans_b: int = 0) -> " MOIRA_PY_TENSOR;
    cls.def(
        name,
        [fn, name](const Tensor& a, const Tensor& b, nb::handle ta, nb::handle tb) {
            return fn(a, b, flag_arg(ta, "trans_a", name), flag_arg(tb, "trans_b", name));
        },
        "other"_a, "trans_a"_a = 0, "trans_b"_a = 0, nb::sig(sig.c_str()), doc);
}

}  // namespace

void init_linalg(TensorClass& cls, nb::module_& moira) {
    def_product(cls, "mult2D", &moira::mult2D,
                "The matrix product [n, k] x [k, m] -> [n, m]. trans_a = 1 (trans_b = 1) uses the transpose of "
                "this (the other) matrix, without copying it.");
    def_product(cls, "bmm", &moira::bmm,
                "The batch of matrix products [b, n, k] x [b, k, m] -> [b, n, m]; trans_a and trans_b transpose the "
                "last two axes of either operand.");
    def_product(cls, "matmul", &moira::matmul,
                "The batch of matrix products [a, b, n, k] x [a, b, k, m] -> [a, b, n, m]; trans_a and trans_b "
                "transpose the last two axes of either operand.");

    moira.def("blas_available", &moira::blas_available,
              "Whether this build links a BLAS library for float32 and float64 matrix products.");
    moira.def("blas_enabled", &moira::blas_enabled, "Whether float matrix products use the BLAS library now.");
    moira.def("set_blas", &moira::set_blas, "on"_a,
              "Route float matrix products through the BLAS library (True, the default when one is linked) or "
              "through the built-in blocked kernel (False). Returns the previous setting.");
    moira.def("blocked_kernels", &moira::blocked_kernels,
              "The variants of the built-in matrix product kernel this CPU can run, e.g. ['generic', 'avx2'].");
    moira.def("set_blocked_kernel", &moira::set_blocked_kernel, "name"_a,
              "Select a variant of the built-in kernel by name ('auto' picks the best); for testing.");
}

}  // namespace pymoira
