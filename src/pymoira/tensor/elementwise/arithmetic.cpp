// Broadcasting binary arithmetic: broadcast, _broadcast, add, sub, mul, divide and the
// arithmetic operators of QTensor.
//
// Note [Broadcast gradients fold back through the broadcast copies]
// When the operands' shapes differ, both are first replaced by broadcast copies whose own
// edges lead back to the caller's operands. The operation then records its edges on the
// copies, whose shapes equal the result's, so its gradient functions need no reduction; the
// copies' edges fold the gradient back onto each operand's shape (fold_to). The copies are
// views (stride 0 along the broadcast axes): nothing is expanded in memory, and the values are
// computed from the caller's operands, which the kernel broadcasts itself.
#include "autograd/record.hpp"
#include "init.hpp"

namespace pymoira {

using moira::BinaryOp;
using moira::check_same_device;
using moira::Tensor;
using namespace nb::literals;

namespace {

// ---- gradient routines: `shape` is the operand's shape; saved tensors as noted ----

Tensor grad_fold(const GradFn& f, const Tensor& g) { return moira::fold_to(g, f.shape); }

Tensor grad_fold_neg(const GradFn& f, const Tensor& g) {
    return moira::fold_to(moira::unary(moira::UnaryOp::Neg, g), f.shape);
}

// saved[0]: the other factor.
Tensor grad_mul(const GradFn& f, const Tensor& g) {
    return moira::fold_to(moira::binary(BinaryOp::Mult, f.saved[0], g), f.shape);
}

// saved[0]: the divisor.
Tensor grad_div_numerator(const GradFn& f, const Tensor& g) {
    return moira::fold_to(moira::binary(BinaryOp::Div, g, f.saved[0]), f.shape);
}

// -g * t1 / t2^2, negated, multiplied and divided in that order. saved: t1, t2.
Tensor grad_div_denominator(const GradFn& f, const Tensor& g) {
    Tensor v = moira::binary(BinaryOp::Mult, moira::unary(moira::UnaryOp::Neg, g), f.saved[0]);
    v = moira::binary(BinaryOp::Div, v, moira::unary(moira::UnaryOp::Sqr, f.saved[1]));
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
    Tensor r = moira::binary(op.op, x, y);
    Record rec(Tracking::OwnFlags, {a.q, b.q});
    if (rec.wants_edge(*a.q))
        rec.edge(a.obj, make_grad(op.first, op.name, a.core().shape(), y, x, y),
                 EdgeName::two("t1 grad ", a.core().shape(), op.word, b.core().shape()));
    if (rec.wants_edge(*b.q))
        rec.edge(b.obj, make_grad(op.second, op.name, b.core().shape(), x, x, y),
                 EdgeName::two("t2 grad ", a.core().shape(), op.word, b.core().shape()));
    return rec.finish(std::move(r));
}

void def_operators(QTensorClass& cls, const char* fwd, const char* rev, const ArithOp& op) {
    const ArithOp* p = &op;
    cls.def(fwd, [p](nb::handle self, nb::handle other) { return arith(*p, self, to_qtensor(other)); });
    cls.def(rev, [p](nb::handle self, nb::handle other) { return arith(*p, to_qtensor(other), self); });
}

}  // namespace

void init_arithmetic(nb::module_& m, QTensorClass& cls) {
    m.def(
        "broadcast",
        [](nb::handle t1, nb::handle t2) { return broadcast_pair(QArg(t1, "broadcast"), QArg(t2, "broadcast")); },
        "t1"_a, "t2"_a, "Both tensors expanded to their common broadcast shape, each with an edge to its input.");
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
        m.def(op->name, [op](nb::handle t1, nb::handle t2) { return arith(*op, t1, t2); }, "t1"_a, "t2"_a, op->doc);

    def_operators(cls, "__add__", "__radd__", kAdd);
    def_operators(cls, "__sub__", "__rsub__", kSub);
    def_operators(cls, "__mul__", "__rmul__", kMul);
    def_operators(cls, "__truediv__", "__rtruediv__", kDiv);
}

}  // namespace pymoira
