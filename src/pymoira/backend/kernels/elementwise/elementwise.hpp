// Element-wise kernels: binary operations with numpy broadcasting (tensor or scalar operands),
// unary functions, and their in-place forms. Each operation is a row of a table (see
// elementwise.cpp); adding one means a functor, an enum entry and a table row.
#pragma once

#include "core/tensor.hpp"

namespace moira {

enum class BinaryOp : int {
    Add, Sub, Mult, Div, Pow, Maximum, Minimum,
    Equal, NotEqual, Less, LessEqual, Greater, GreaterEqual,
    LogicalAnd, LogicalOr, LogicalXor,
    Count
};

enum class UnaryOp : int {
    Neg, Sqr, Abs, Sign, Round, Floor, Ceil,
    Exp, Log, Sqrt, Sin, Cos, Tan, Asin, Acos, Atan, Sinh, Cosh, Tanh, Reciprocal,
    LogicalNot, IsFinite, IsInf, IsNan, IsNegInf, IsPosInf,
    Count
};

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
