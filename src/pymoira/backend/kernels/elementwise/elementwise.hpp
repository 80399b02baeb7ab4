// Element-wise kernels: binary operations with numpy broadcasting (tensor or scalar operands),
// unary functions, and their in-place forms. Each operation is an entry of the lists below and a
// functor; the tables of elementwise.cpp (and of the CUDA kernels) are built from the lists.
#pragma once

#include "core/tensor.hpp"

namespace moira {

// Every operation: its functor's name in kernels/elementwise/functors.hpp (also its enum entry)
// and its kernel name. The enums below and each device's table are built from these lists, so a
// new operation is one entry here and its functor.
#define MOIRA_BINARY_OPS(X)                                                                     \
    X(Add, "add") X(Sub, "sub") X(Mult, "mult") X(Div, "div") X(Pow, "element_pow")              \
    X(Maximum, "maximum") X(Minimum, "minimum") X(Equal, "equal") X(NotEqual, "not_equal")       \
    X(Less, "less") X(LessEqual, "less_equal") X(Greater, "greater")                            \
    X(GreaterEqual, "greater_equal") X(LogicalAnd, "logical_and") X(LogicalOr, "logical_or")    \
    X(LogicalXor, "logical_xor")
#define MOIRA_UNARY_OPS(X)                                                                      \
    X(Neg, "neg") X(Sqr, "sqr") X(Abs, "abs") X(Sign, "sign") X(Round, "round")                 \
    X(Floor, "floor") X(Ceil, "ceil") X(Exp, "exp") X(Log, "log") X(Sqrt, "sqrt") X(Sin, "sin")  \
    X(Cos, "cos") X(Tan, "tan") X(Asin, "asin") X(Acos, "acos") X(Atan, "atan")                 \
    X(Sinh, "sinh") X(Cosh, "cosh") X(Tanh, "tanh") X(Reciprocal, "reciprocal")                 \
    X(LogicalNot, "logical_not") X(IsFinite, "isfinite") X(IsInf, "isinf") X(IsNan, "isnan")     \
    X(IsNegInf, "isneginf") X(IsPosInf, "isposinf")

#define MOIRA_ENUM_ENTRY(F, name) F,
enum class BinaryOp : int { MOIRA_BINARY_OPS(MOIRA_ENUM_ENTRY) Count };
enum class UnaryOp : int { MOIRA_UNARY_OPS(MOIRA_ENUM_ENTRY) Count };
#undef MOIRA_ENUM_ENTRY

MOIRA_API const char* op_name(BinaryOp op);
MOIRA_API const char* op_name(UnaryOp op);

MOIRA_API Tensor binary(BinaryOp op, const Tensor& a, const Tensor& b);
MOIRA_API Tensor binary(BinaryOp op, const Tensor& a, Scalar b);
MOIRA_API Tensor binary(BinaryOp op, Scalar a, const Tensor& b);

// self <- self op other, `other` broadcast to self's shape; the result is converted to self's
// element type. ValueError when other does not broadcast to self's shape. self is prepared for
// writing first (copy-on-write).
MOIRA_API void binary_(BinaryOp op, Tensor& self, const Tensor& other);
MOIRA_API void binary_(BinaryOp op, Tensor& self, Scalar other);

MOIRA_API Tensor unary(UnaryOp op, const Tensor& t);
MOIRA_API void unary_(UnaryOp op, Tensor& t);

// int64 positions of the non-zero elements, one row of t.ndim() indices per element, in
// row-major order: shape [count, ndim].
MOIRA_API Tensor nonzero(const Tensor& t);

// where(cond, a, b): a's element where cond is non-zero, else b's; the three broadcast.
MOIRA_API Tensor where(const Tensor& cond, const Tensor& a, const Tensor& b);
// Limits t to [lo, hi].
MOIRA_API Tensor clamp(const Tensor& t, Scalar lo, Scalar hi);

}  // namespace moira
