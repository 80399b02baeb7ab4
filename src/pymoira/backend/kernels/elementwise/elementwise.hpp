// Element-wise kernels: binary operations with numpy broadcasting (tensor or scalar operands),
// unary functions, and their in-place forms. Each operation is an entry of the lists below and a
// functor; the tables of elementwise.cpp (and of the CUDA kernels) are built from the lists.
#pragma once

#include "core/tensor.hpp"
#include "kernels/elementwise/functors.hpp"

namespace moira {

// Every operation is an entry of MOIRA_BINARY_OPS or MOIRA_UNARY_OPS, beside its functor in
// functors.hpp; the enums below and each device's table are built from these lists.
#define MOIRA_ENUM_ENTRY(F, name) F,
enum class BinaryOp : int { MOIRA_BINARY_OPS(MOIRA_ENUM_ENTRY) Count };
enum class UnaryOp : int { MOIRA_UNARY_OPS(MOIRA_ENUM_ENTRY) Count };
#undef MOIRA_ENUM_ENTRY

// The enum entry of a functor: op_of<fn::Add>() is BinaryOp::Add.
template <class F>
struct OpOf;
#define MOIRA_BINARY_OP_OF(F, name) \
    template <>                     \
    struct OpOf<fn::F> {            \
        static constexpr BinaryOp value = BinaryOp::F; \
    };
#define MOIRA_UNARY_OP_OF(F, name) \
    template <>                    \
    struct OpOf<fn::F> {           \
        static constexpr UnaryOp value = UnaryOp::F; \
    };
MOIRA_BINARY_OPS(MOIRA_BINARY_OP_OF)
MOIRA_UNARY_OPS(MOIRA_UNARY_OP_OF)
#undef MOIRA_BINARY_OP_OF
#undef MOIRA_UNARY_OP_OF
template <class F>
constexpr auto op_of() { return OpOf<F>::value; }

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
