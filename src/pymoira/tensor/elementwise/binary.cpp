// Binary element-wise functions with their gradients: add, sub, mul and divide (broadcasting,
// with the arithmetic operators of QTensor), broadcast and _broadcast, power and the ** operators,
// maximum and minimum; and the comparisons and logical functions, masks (is_bool) that never
// track gradients.
//
// Note [Broadcast gradients fold back through the broadcast copies]
// When the operands' shapes differ, both are first replaced by broadcast copies whose own
// edges lead back to the caller's operands. The operation then records its edges on the
// copies, whose shapes equal the result's, so its gradient functions need no reduction; the
// copies' edges fold the gradient back onto each operand's shape (fold_to). The copies are
// views (stride 0 along the broadcast axes): nothing is expanded in memory, and the values are
// computed from the caller's operands, which the kernel broadcasts itself.
#include <nanobind/stl/string.h>

#include <string>
#include <string_view>

#include "autograd/record.hpp"
#include "bindings/to_python.hpp"
#include "init.hpp"

namespace pymoira {

using moira::binary;
using moira::BinaryOp;
using moira::Scalar;
using moira::Tensor;
using moira::unary;
using moira::UnaryOp;
using namespace nb::literals;

namespace {

// ---- add, sub, mul, divide ----

Tensor grad_fold(const GradFn& f, const Tensor& g) { return moira::fold_to(g, f.shape); }

Tensor grad_fold_neg(const GradFn& f, const Tensor& g) {
    return moira::fold_to(unary(UnaryOp::Neg, g), f.shape);
}

// Complex factors enter conjugated (Note [Complex gradients]). saved[0]: the other factor.
Tensor grad_mul(const GradFn& f, const Tensor& g) {
    return moira::fold_to(binary(BinaryOp::MultConj, g, f.saved[0]), f.shape);
}

// saved[0]: the divisor.
Tensor grad_div_numerator(const GradFn& f, const Tensor& g) {
    return moira::fold_to(binary(BinaryOp::Div, g, conjugated(f.saved[0])), f.shape);
}

// -g * t1 / t2^2, negated, multiplied and divided in that order. saved: t1, t2.
Tensor grad_div_denominator(const GradFn& f, const Tensor& g) {
    Tensor v = binary(BinaryOp::Mult, unary(UnaryOp::Neg, g), conjugated(f.saved[0]));
    v = binary(BinaryOp::Div, v, unary(UnaryOp::Sqr, conjugated(f.saved[1])));
    return moira::fold_to(v, f.shape);
}

enum class Saves { Nothing, Other, Both };

struct EdgeRule {
    GradFn::Routine routine;
    Saves saves;
};

struct ArithOp {
    const char* name;
    BinaryOp op;
    const char* word;  // in the edge names
    EdgeRule first, second;
    const char* doc;
};

constexpr ArithOp kAdd{"add", BinaryOp::Add, " add ", {grad_fold, Saves::Nothing}, {grad_fold, Saves::Nothing},
                       "Element-wise t1 + t2 in the broadcast shape of the two tensors."};
constexpr ArithOp kSub{"sub", BinaryOp::Sub, " sub ", {grad_fold, Saves::Nothing}, {grad_fold_neg, Saves::Nothing},
                       "Element-wise t1 - t2 in the broadcast shape of the two tensors."};
constexpr ArithOp kMul{"mul", BinaryOp::Mult, " mul ", {grad_mul, Saves::Other}, {grad_mul, Saves::Other},
                       "Element-wise t1 * t2 in the broadcast shape of the two tensors."};
constexpr ArithOp kDiv{"divide", BinaryOp::Div, " div ", {grad_div_numerator, Saves::Other},
                       {grad_div_denominator, Saves::Both},
                       "Element-wise t1 / t2 in the broadcast shape of the two tensors."};

// `shape` is the edge's operand's shape; the saved factors may be the caller's operands before
// broadcasting: the kernels broadcast them against g to the same values.
GradFn make_grad(const EdgeRule& rule, const char* label, const moira::Shape& shape, const Tensor& other,
                 const Tensor& t1, const Tensor& t2) {
    GradFn f(rule.routine, label);
    f.with_shape(shape);
    if (rule.saves == Saves::Other) f.save(other);
    else if (rule.saves == Saves::Both) f.save(t1, t2);
    return f;
}

// broadcast(t1, t2): both operands in their common shape (views), each with an edge back to its
// operand; the flags are copied from the operands, NO_GRAD is not consulted.
nb::tuple broadcast_pair(const QArg& a, const QArg& b) {
    std::pair<Tensor, Tensor> expanded = moira::broadcast(a.core(), b.core());
    Record first(Tracking::CopyFlag, {a.q});
    if (first.wants_edge(*a.q))
        first.edge(a.obj, GradFn(grad_fold, "broadcast").with_shape(a.core().shape()),
                   EdgeName::two("t1 grad ", a.core().shape(), " broadcast ", b.core().shape()));
    Record second(Tracking::CopyFlag, {b.q});
    if (second.wants_edge(*b.q))
        second.edge(b.obj, GradFn(grad_fold, "broadcast").with_shape(b.core().shape()),
                    EdgeName::two("t2 grad ", a.core().shape(), " broadcast ", b.core().shape()));
    return nb::make_tuple(first.finish(std::move(expanded.first)), second.finish(std::move(expanded.second)));
}

nb::object arith(const ArithOp& op, nb::handle t1, nb::handle t2) {
    QArg a(t1, op.name), b(t2, op.name);
    // The kernel broadcasts the caller's operands itself (the same values as the broadcast
    // copies, without reading the expanded one); the edges still go to the copies.
    const Tensor x = a.core(), y = b.core();
    nb::tuple expanded;
    if (x.shape() != y.shape()) {
        expanded = broadcast_pair(a, b);
        a = QArg(expanded[0], op.name);
        b = QArg(expanded[1], op.name);
    }
    Tensor r = binary(op.op, x, y);
    Record rec(Tracking::OwnFlags, {a.q, b.q});
    if (rec.wants_edge(*a.q))
        rec.edge(a.obj, make_grad(op.first, op.name, a.core().shape(), y, x, y),
                 EdgeName::two("t1 grad ", a.core().shape(), op.word, b.core().shape()));
    if (rec.wants_edge(*b.q))
        rec.edge(b.obj, make_grad(op.second, op.name, b.core().shape(), x, x, y),
                 EdgeName::two("t2 grad ", a.core().shape(), op.word, b.core().shape()));
    return rec.finish(std::move(r));
}

// The signatures (Note [Signatures of the tensor bindings] in object/qtensor.hpp) of an arithmetic
// operator and of a module function of two tensors.
std::string operator_sig(const char* name) {
    return std::string("def ") + name + "(self, other: _Operand, /) -> QTensor";
}

std::string pair_sig(const char* name) { return std::string("def ") + name + "(t1: QTensor, t2: QTensor) -> QTensor"; }

void def_operators(QTensorClass& cls, const char* fwd, const char* rev, const ArithOp& op) {
    const ArithOp* p = &op;
    cls.def(fwd, [p](nb::handle self, nb::handle other) { return arith(*p, self, operand_like(other, self)); },
            nb::sig(operator_sig(fwd).c_str()));
    cls.def(rev, [p](nb::handle self, nb::handle other) { return arith(*p, operand_like(other, self), self); },
            nb::sig(operator_sig(rev).c_str()));
}

// ---- power, maximum, minimum ----

void require_equal_shapes(const QArg& a, const QArg& b) {
    if (a.core().shape() != b.core().shape()) throw nb::value_error("t1 and t2 shape should be equal");
}

// d/d base: g * t2 * t1 ** (t2 - 1), with the exponent replaced by 1 where t2 is 0 (so the
// gradient is exactly 0 there). saved: t1, t2.
Tensor d_power_base(const GradFn& f, const Tensor& g) {
    const Tensor x = conjugated(f.saved[0]);
    const Tensor y = conjugated(f.saved[1]);
    Tensor exponent = moira::where(y, binary(BinaryOp::Sub, y, Scalar::from_int(1)), moira::ones_like(y));
    Tensor v = binary(BinaryOp::Mult, binary(BinaryOp::Mult, g, y), binary(BinaryOp::Pow, x, exponent));
    return moira::fold_to(v, f.shape);
}

// d/d exponent: g * r * ln t1, with ln 1 = 0 where t1 is 0. saved: t1, r.
Tensor d_power_exponent(const GradFn& f, const Tensor& g) {
    const Tensor x = conjugated(f.saved[0]);
    Tensor log_base = unary(UnaryOp::Log, moira::where(x, x, moira::ones_like(x)));
    return moira::fold_to(binary(BinaryOp::Mult, g, binary(BinaryOp::Mult, conjugated(f.saved[1]), log_base)),
                          f.shape);
}

nb::object power(nb::handle t1, nb::handle t2) {
    QArg a(t1, "power"), b(t2, "power");
    require_equal_shapes(a, b);
    Tensor r = binary(BinaryOp::Pow, a.core(), b.core());
    Record rec(Tracking::OwnFlags, {a.q, b.q});
    if (rec.wants_edge(*a.q))
        rec.edge(a.obj, GradFn(d_power_base, "power").save(a.core(), b.core()).with_shape(a.core().shape()),
                 EdgeName::two(" x^a grad: input shape ", a.core().shape(), " power shape ", r.shape()));
    if (rec.wants_edge(*b.q))
        rec.edge(b.obj, GradFn(d_power_exponent, "power").save(a.core(), r).with_shape(b.core().shape()),
                 EdgeName::two("a^x grad: input shape ", a.core().shape(), " power shape ", r.shape()));
    return rec.finish(std::move(r));
}

// The share of the gradient that reaches x, one of two compared inputs: [x == r] / ([x == other] + 1):
// 1 for the strict winner, 0 for the loser, 1/2 each on a tie. saved: x, r, the other input.
Tensor d_extreme(const GradFn& f, const Tensor& g) {
    const Tensor& x = f.saved[0];
    Tensor weight = binary(BinaryOp::Div, binary(BinaryOp::Equal, x, f.saved[1]),
                           binary(BinaryOp::Add, binary(BinaryOp::Equal, x, f.saved[2]), Scalar::from_double(1.0)));
    return moira::fold_to(binary(BinaryOp::Mult, g, weight), f.shape);
}

nb::object extreme(BinaryOp op, const char* name, nb::handle t1, nb::handle t2) {
    QArg a(t1, name), b(t2, name);
    require_equal_shapes(a, b);
    Tensor r = binary(op, a.core(), b.core());
    Record rec(Tracking::OwnFlags, {a.q, b.q});
    if (rec.wants_edge(*a.q))
        rec.edge(a.obj, GradFn(d_extreme, name).save(a.core(), r, b.core()).with_shape(a.core().shape()));
    if (rec.wants_edge(*b.q))
        rec.edge(b.obj, GradFn(d_extreme, name).save(b.core(), r, a.core()).with_shape(b.core().shape()));
    return rec.finish(std::move(r));
}

// ---- comparisons and logical functions ----

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
        r = binary(c.op, a.core(), *qtensor_ref(other, c.op_name).core);
    } else if (PyLong_Check(other.ptr()) || PyFloat_Check(other.ptr())) {
        r = binary(c.op, a.core(), scalar_arg(other, c.op_name));
    } else {
        std::string text = nb::cast<std::string>(nb::str(other));
        throw std::runtime_error(std::string(c.message) + text);
    }
    return Record::leaf().as_mask().finish(std::move(r));
}

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

void init_binary(nb::module_& m, QTensorClass& cls) {
    m.def(
        "broadcast",
        [](nb::handle t1, nb::handle t2) { return broadcast_pair(QArg(t1, "broadcast"), QArg(t2, "broadcast")); },
        nb::sig("def broadcast(t1: QTensor, t2: QTensor) -> tuple[QTensor, QTensor]"), "t1"_a, "t2"_a,
        "Both tensors expanded to their common broadcast shape, each with an edge to its input.");
    m.def(
        "_broadcast",
        [](nb::handle un_broadcast_grad, nb::handle broadcast_grad) -> nb::object {
            const Tensor& in = core_ref(un_broadcast_grad, "_broadcast");
            const Tensor& g = core_ref(broadcast_grad, "_broadcast");
            if (in.shape() == g.shape()) return nb::borrow(broadcast_grad);
            return wrap_core(moira::fold_to(g, in.shape()));
        },
        "un_broadcast_grad"_a, "broadcast_grad"_a,
        "Fold a gradient of a broadcast shape back onto the shape of un_broadcast_grad.");
    for (const ArithOp* op : {&kAdd, &kSub, &kMul, &kDiv})
        m.def(op->name, [op](nb::handle t1, nb::handle t2) { return arith(*op, t1, t2); },
              nb::sig(pair_sig(op->name).c_str()), "t1"_a, "t2"_a, op->doc);

    def_operators(cls, "__add__", "__radd__", kAdd);
    def_operators(cls, "__sub__", "__rsub__", kSub);
    def_operators(cls, "__mul__", "__rmul__", kMul);
    def_operators(cls, "__truediv__", "__rtruediv__", kDiv);

    m.def("power", &power, nb::sig("def power(t1: QTensor, t2: QTensor) -> QTensor"), "t1"_a, "t2"_a,
          "t1 raised to the power t2, element by element (equal shapes).");
    m.def(
        "maximum", [](nb::handle t1, nb::handle t2) { return extreme(BinaryOp::Maximum, "maximum", t1, t2); },
        nb::sig("def maximum(t1: QTensor, t2: QTensor) -> QTensor"), "t1"_a,
        "t2"_a, "The element-wise larger value of two tensors of equal shape; ties split the gradient evenly.");
    m.def(
        "minimum", [](nb::handle t1, nb::handle t2) { return extreme(BinaryOp::Minimum, "minimum", t1, t2); },
        nb::sig("def minimum(t1: QTensor, t2: QTensor) -> QTensor"), "t1"_a,
        "t2"_a, "The element-wise smaller value of two tensors of equal shape; ties split the gradient evenly.");
    cls.def("__pow__", [](nb::handle self, nb::handle t) { return power(self, operand_like(t, self)); },
            nb::sig(operator_sig("__pow__").c_str()));
    cls.def("__rpow__", [](nb::handle self, nb::handle t) { return power(operand_like(t, self), self); },
            nb::sig(operator_sig("__rpow__").c_str()));

    for (const Comparison& c : kComparisons) {
        const Comparison* p = &c;
        // `other` may be None, which is refused with the operator's own message.
        // __eq__ and __ne__ take any object, as object's do, but narrow their result: their stubs come
        // from stubs.pat, which adds the comment that tells the type checker so.
        const bool any_other = std::string_view(c.op_name) == "__eq__" || std::string_view(c.op_name) == "__ne__";
        const std::string op_sig = std::string("def ") + c.op_name + "(self, other: " +
                                   (any_other ? "object" : "QTensor | _Number") + ") -> QTensor";
        cls.def(c.op_name, [p](nb::handle self, nb::handle other) { return compare(*p, self, other); },
                nb::sig(op_sig.c_str()), "other"_a.none());
        m.def(
            c.function,
            [p](nb::handle t1, nb::handle t2) {
                return Record::leaf().as_mask().finish(
                    binary(p->op, QArg(t1, p->function).core(), QArg(t2, p->function).core()));
            },
            nb::sig(pair_sig(c.function).c_str()), "t1"_a, "t2"_a,
            "Element-wise comparison of two tensors as a mask of 1 and 0.");
    }
    for (const Logical& l : kLogical) {
        const Logical* p = &l;
        m.def(
            l.name,
            [p](nb::handle t1, nb::handle t2) {
                return Record::leaf().as_mask().finish(
                    binary(p->op, QArg(t1, p->name).core(), QArg(t2, p->name).core()));
            },
            nb::sig(pair_sig(l.name).c_str()), "t1"_a, "t2"_a, l.doc);
    }
    // Comparison operators return tensors; identity hashing stays (__hash__ is defined on QTensor).
}

}  // namespace pymoira
