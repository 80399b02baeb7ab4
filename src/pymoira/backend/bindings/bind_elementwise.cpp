// Element-wise methods of Tensor: arithmetic and comparisons with a tensor or a number,
// unary functions, their in-place forms, and where/clamp.
#include <string>

#include "bindings/arguments.hpp"
#include "bindings/bind.hpp"
#include "bindings/tensor_from_python.hpp"
#include "bindings/to_python.hpp"

namespace pymoira {

using moira::BinaryOp;
using moira::Tensor;
using moira::UnaryOp;
using namespace nb::literals;

namespace {

Tensor apply_binary(BinaryOp op, const Tensor& a, nb::handle b) {
    if (is_core(b)) return moira::binary(op, a, core_ref(b, moira::op_name(op)));
    moira::Scalar s;
    if (scalar_from_python(b, s)) return moira::binary(op, a, s);
    moira::fail<moira::TypeError>(moira::op_name(op), ": expected a Tensor or a number, got ", Py_TYPE(b.ptr())->tp_name);
}

// A Tensor argument, or a Python number as a weak one-element tensor (Note [Weak scalars]).
Tensor tensor_or_number(nb::handle obj, const char* op) {
    if (is_core(obj)) return core_ref(obj, op);
    moira::Scalar s;
    if (!scalar_from_python(obj, s))
        moira::fail<moira::TypeError>(op, ": expected a Tensor or a number, got ", Py_TYPE(obj.ptr())->tp_name);
    return tensor_from_python(obj, 0);
}

void apply_binary_(BinaryOp op, Tensor& a, nb::handle b) {
    if (is_core(b)) return moira::binary_(op, a, core_ref(b, moira::op_name(op)));
    moira::Scalar s;
    if (scalar_from_python(b, s)) return moira::binary_(op, a, s);
    moira::fail<moira::TypeError>(moira::op_name(op), ": expected a Tensor or a number, got ", Py_TYPE(b.ptr())->tp_name);
}

void def_binary(TensorClass& cls, BinaryOp op) {
    const std::string sig = std::string("def ") + moira::op_name(op) + "(self, other: " MOIRA_PY_OPERAND ") -> "
                            MOIRA_PY_TENSOR;
    cls.def(moira::op_name(op), [op](const Tensor& a, nb::handle b) { return apply_binary(op, a, b); }, "other"_a,
            nb::sig(sig.c_str()));
}

void def_binary_(TensorClass& cls, const char* name, BinaryOp op) {
    const std::string sig = std::string("def ") + name + "(self, other: " MOIRA_PY_OPERAND ") -> None";
    cls.def(name, [op](Tensor& a, nb::handle b) { apply_binary_(op, a, b); }, "other"_a, nb::sig(sig.c_str()));
}

void def_unary(TensorClass& cls, UnaryOp op) {
    cls.def(moira::op_name(op), [op](const Tensor& t) { return moira::unary(op, t); });
}

void def_unary_(TensorClass& cls, const char* name, UnaryOp op) {
    cls.def(name, [op](Tensor& t) { moira::unary_(op, t); });
}

}  // namespace

void init_elementwise(TensorClass& cls, nb::module_& moira) {
    for (int i = 0; i < static_cast<int>(BinaryOp::Count); ++i) def_binary(cls, static_cast<BinaryOp>(i));
    for (int i = 0; i < static_cast<int>(UnaryOp::Count); ++i) def_unary(cls, static_cast<UnaryOp>(i));

    def_binary_(cls, "add_", BinaryOp::Add);
    def_binary_(cls, "sub_", BinaryOp::Sub);
    def_binary_(cls, "mult_", BinaryOp::Mult);
    def_binary_(cls, "div_", BinaryOp::Div);
    def_unary_(cls, "neg_", UnaryOp::Neg);
    def_unary_(cls, "sqrt_", UnaryOp::Sqrt);
    def_unary_(cls, "reciprocal_", UnaryOp::Reciprocal);

    cls.def(
        "clamp",
        [](const Tensor& t, nb::handle lo, nb::handle hi) {
            return moira::clamp(t, scalar_arg(lo, "clamp"), scalar_arg(hi, "clamp"));
        },
        "min"_a, "max"_a,
        nb::sig("def clamp(self, min: float, max: float) -> " MOIRA_PY_TENSOR), "The values limited to [min, max].");

    cls.def("pow", [](const Tensor& a, nb::handle b) { return apply_binary(BinaryOp::Pow, a, b); }, "exponent"_a,
            nb::sig("def pow(self, exponent: " MOIRA_PY_OPERAND ") -> " MOIRA_PY_TENSOR),
            "The values raised to `exponent` (a tensor or a number).");
    cls.def("nonzero", &moira::nonzero,
            "a tensor containing the indices of nonzero elements: int64, one row of indices per element.");
    cls.def(
        "broadcast",
        [](const Tensor& a, const Tensor& b) {
            auto r = moira::broadcast(a, b);
            return nb::make_tuple(wrap_core(std::move(r.first)), wrap_core(std::move(r.second)));
        },
        "other"_a,
        nb::sig("def broadcast(self, other: " MOIRA_PY_TENSOR ") -> tuple[" MOIRA_PY_TENSOR ", " MOIRA_PY_TENSOR "]"),
        "Both tensors expanded to their common broadcast shape (views).");
    moira.def(
        "TileGrad",
        [](const Tensor& g, nb::handle shape, nb::handle reps) {
            return moira::tile_grad(g, shape_from_python(shape, "TileGrad"), shape_from_python(reps, "TileGrad"));
        },
        "grad"_a, "shape"_a, "reps"_a,
        nb::sig("def TileGrad(grad: " MOIRA_PY_TENSOR ", shape: " MOIRA_PY_INTS ", reps: " MOIRA_PY_INTS ") -> "
                MOIRA_PY_TENSOR),
        "The gradient of tiling a tensor of `shape` `reps` times: the sum of `grad` over the copies, in `shape`.");

    moira.def(
        "where",
        [](const Tensor& condition, nb::handle x, nb::handle y) {
            return moira::where(condition, tensor_or_number(x, "where"), tensor_or_number(y, "where"));
        },
        "condition"_a, "x"_a, "y"_a,
        nb::sig("def where(condition: " MOIRA_PY_TENSOR ", x: " MOIRA_PY_OPERAND ", y: " MOIRA_PY_OPERAND ") -> "
                MOIRA_PY_TENSOR),
        "x's element where condition is non-zero, else y's; the three broadcast. x and y may be Python numbers, "
        "which keep their exact value and do not raise the result's type.");
}

}  // namespace pymoira
