// Comparisons, logical functions and predicates: masks (is_bool) that never track gradients.
#include "autograd/record.hpp"
#include "init.hpp"

#include <nanobind/stl/string.h>

namespace pymoira {

using moira::BinaryOp;
using moira::Tensor;
using moira::UnaryOp;
using namespace nb::literals;

namespace {

nb::object mask(moira::Tensor r) { return Record::leaf().as_mask().finish(std::move(r)); }

struct Comparison {
    const char* op_name;   // Python operator
    const char* function;  // module function
    BinaryOp op;
    const char* message;   // prefix when the operand is not accepted
};

const Comparison kComparisons[] = {
    {"__eq__", "equal", BinaryOp::Equal, "__eq__ not implmented for type "},
    {"__ne__", "not_equal", BinaryOp::NotEqual, "__ne__ not implmented for type "},
    {"__lt__", "less", BinaryOp::Less, "__lt__ not implmented for type "},
    {"__gt__", "greater", BinaryOp::Greater, "__gt__ not implmented for type "},
    {"__le__", "less_equal", BinaryOp::LessEqual, "__le__ not implmented for type "},
    {"__ge__", "greater_equal", BinaryOp::GreaterEqual, "__ge__ not implmented for type "},
};

// The operator form: a QTensor or a Python number on the right; the left operand's device.
nb::object compare(const Comparison& c, nb::handle self, nb::handle other) {
    QArg a(self, c.op_name);
    Tensor r;
    if (is_qtensor(other)) {
        r = moira::binary(c.op, a.core(), *qtensor_ref(other, c.op_name).core);
    } else if (PyLong_Check(other.ptr()) || PyFloat_Check(other.ptr())) {
        r = moira::binary(c.op, a.core(), scalar_arg(other, c.op_name));
    } else {
        std::string text = nb::cast<std::string>(nb::str(other));
        throw std::runtime_error(std::string(c.message) + text);
    }
    return mask(std::move(r));
}

struct Predicate {
    const char* name;
    UnaryOp op;
    const char* doc;
};

const Predicate kPredicates[] = {
    {"isfinite", UnaryOp::IsFinite, "1 where the element is neither infinite nor NaN."},
    {"isinf", UnaryOp::IsInf, "1 where the element is positive or negative infinity."},
    {"isnan", UnaryOp::IsNan, "1 where the element is NaN."},
    {"isneginf", UnaryOp::IsNegInf, "1 where the element is negative infinity."},
    {"isposinf", UnaryOp::IsPosInf, "1 where the element is positive infinity."},
    {"logical_not", UnaryOp::LogicalNot, "Truth of not t, an element counting as false exactly when it is 0."},
};

struct Logical {
    const char* name;
    BinaryOp op;
    const char* doc;
};

const Logical kLogical[] = {
    {"logical_and", BinaryOp::LogicalAnd, "Truth of t1 and t2, an element counting as false exactly when it is 0."},
    {"logical_or", BinaryOp::LogicalOr, "Truth of t1 or t2, an element counting as false exactly when it is 0."},
    {"logical_xor", BinaryOp::LogicalXor, "Truth of t1 xor t2, an element counting as false exactly when it is 0."},
};

}  // namespace

void init_compare(nb::module_& m, QTensorClass& cls) {
    for (const Comparison& c : kComparisons) {
        const Comparison* p = &c;
        // `other` may be None, which is refused with the operator's own message.
        cls.def(c.op_name, [p](nb::handle self, nb::handle other) { return compare(*p, self, other); },
                "other"_a.none());
        m.def(
            c.function,
            [p](nb::handle t1, nb::handle t2) {
                return mask((moira::binary(p->op, QArg(t1, p->function).core(), QArg(t2, p->function).core())));
            },
            "t1"_a, "t2"_a, "Element-wise comparison of two tensors as a mask of 1 and 0.");
    }
    for (const Logical& l : kLogical) {
        const Logical* p = &l;
        m.def(
            l.name,
            [p](nb::handle t1, nb::handle t2) {
                return mask((moira::binary(p->op, QArg(t1, p->name).core(), QArg(t2, p->name).core())));
            },
            "t1"_a, "t2"_a, l.doc);
    }
    for (const Predicate& pr : kPredicates) {
        const Predicate* p = &pr;
        m.def(
            pr.name, [p](nb::handle t) { return mask((moira::unary(p->op, QArg(t, p->name).core()))); }, "t"_a,
            pr.doc);
    }
    m.def(
        "nonzero", [](nb::handle t) { return mask((moira::nonzero(QArg(t, "nonzero").core()))); }, "t"_a,
        "a tensor containing the indices of nonzero elements: one row of indices per element (int64).");
    // Comparison operators return tensors; identity hashing stays (__hash__ is defined on QTensor).
}

}  // namespace pymoira
