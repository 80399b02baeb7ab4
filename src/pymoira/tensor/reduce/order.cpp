// sort, argsort, argtopK and topK, cumsum and log_softmax along one axis, with the gradients of
// topK, cumsum and log_softmax computed by their backend kernels.
//
// Tracking: sort, argsort and argtopK give leaves. topK and cumsum copy the input's
// requires_grad object and record their edge by its truth whatever NO_GRAD says (CopyFlag);
// log_softmax checks its axis first (AssertionError), and records its edge by the input's own
// flag even while NO_GRAD is set (OwnFlags). See Note [Recording a result].
#include "autograd/record.hpp"
#include "indexing/wrap_dim.hpp"
#include "init.hpp"

namespace pymoira {

using moira::Scalar;
using moira::Tensor;
using namespace nb::literals;

namespace {

// saved: the input.
struct TopK {
    int64_t k, axis;
    bool largest;
};
Tensor topk_grad(const GradFn& f, const Tensor& g) {
    const TopK& p = f.payload<TopK>();
    return moira::topk_grad(f.saved[0], g, p.k, p.axis, p.largest);
}

struct CumsumAxis {
    int64_t axis;
};
Tensor cumsum_grad(const GradFn& f, const Tensor& g) { return moira::cumsum_grad(g, f.payload<CumsumAxis>().axis); }

// saved: the forward result.
struct SoftmaxAxis {
    int64_t axis;
};
Tensor log_softmax_grad(const GradFn& f, const Tensor& g) {
    return moira::log_softmax_grad(g, f.saved[0], f.payload<SoftmaxAxis>().axis);
}

nb::object ordering(bool positions, nb::handle t, nb::handle axis, nb::handle descending, nb::handle stable) {
    const char* name = positions ? "argsort" : "sort";
    QArg x(t, name);
    const int64_t a = axis_arg(axis, name);
    const bool desc = truth_arg(descending), st = truth_arg(stable);
    return Record::leaf().finish(positions ? moira::argsort(x.core(), a, desc, st) : moira::sort(x.core(), a, desc, st));
}

nb::object top_k(nb::handle t, nb::handle k, nb::handle axis, nb::handle if_descent) {
    QArg x(t, "topK");
    const int64_t kk = int_arg(k, "topK", "k must be an integer"), a = axis_arg(axis, "topK");
    const bool largest = truth_arg(if_descent);
    Tensor data = moira::topk(x.core(), kk, a, largest);
    Record rec(Tracking::CopyFlag, {x.q});
    if (rec.wants_edge(*x.q))
        rec.edge(t,
                 GradFn(&topk_grad, "topK")
                     .save(x.core())
                     .with(TopK{kk, a, largest}),
                 EdgeName::two("t1 grad ", data.shape(), " topK ", data.shape()));
    return rec.finish(std::move(data));
}

nb::object cumsum(nb::handle t, nb::handle axis) {
    QArg x(t, "cumsum");
    const int64_t a = axis_arg(axis, "cumsum");
    Tensor data = moira::cumsum(x.core(), a);
    Record rec(Tracking::CopyFlag, {x.q});
    if (rec.wants_edge(*x.q))
        rec.edge(t, GradFn(&cumsum_grad, "cumsum").with(CumsumAxis{a}),
                 EdgeName::two("input grad ", data.shape(), " cumsumgrad ", data.shape()));
    return rec.finish(std::move(data));
}

nb::object log_softmax(nb::handle t, nb::handle axis) {
    QArg x(t, "log_softmax");
    const int64_t dim = maybe_wrap_dim(axis_arg(axis, "log_softmax"), x.core().ndim());
    Tensor data = moira::log_softmax(x.core(), dim);
    Record rec(Tracking::OwnFlags, {x.q});
    if (rec.wants_edge(*x.q))
        rec.edge(t, GradFn(&log_softmax_grad, "log_softmax").save(data).with(SoftmaxAxis{dim}),
                 EdgeName::one("log_softmax grad tensor of ", x->shape()));
    return rec.finish(std::move(data));
}

}  // namespace

void init_order(nb::module_& m, QTensorClass& cls) {
    (void)cls;
    m.def(
        "sort",
        [](nb::handle t, nb::handle axis, nb::handle descending, nb::handle stable) {
            return ordering(false, t, axis, descending, stable);
        },
        nb::sig("def sort(t: QTensor, axis: int, descending: bool = False, stable: bool = True) -> QTensor"), "t"_a,
        "axis"_a, "descending"_a.none() = false, "stable"_a.none() = true,
        "t's values sorted along axis (stable; NaN last, first when descending); no gradient.");
    m.def(
        "argsort",
        [](nb::handle t, nb::handle axis, nb::handle descending, nb::handle stable) {
            return ordering(true, t, axis, descending, stable);
        },
        nb::sig("def argsort(t: QTensor, axis: int, descending: bool = False, stable: bool = True) -> QTensor"), "t"_a,
        "axis"_a, "descending"_a.none() = false, "stable"_a.none() = true,
        "The indices that sort t along axis; no gradient.");
    m.def(
        "argtopK",
        [](nb::handle t, nb::handle k, nb::handle axis, nb::handle if_descent) {
            QArg x(t, "argtopK");
            return Record::leaf().finish(moira::argtopk(x.core(), int_arg(k, "argtopK", "k must be an integer"),
                                                        axis_arg(axis, "argtopK"), truth_arg(if_descent)));
        },
        nb::sig("def argtopK(t: QTensor, k: int, axis: int = -1, if_descent: bool = True) -> QTensor"), "t"_a, "k"_a,
        "axis"_a = -1, "if_descent"_a.none() = true,
        "The indices of the k largest (with if_descent false: smallest) elements along axis; no gradient.");
    m.def("topK", &top_k, nb::sig("def topK(t: QTensor, k: int, axis: int = -1, if_descent: bool = True) -> QTensor"),
          "t"_a, "k"_a, "axis"_a = -1, "if_descent"_a.none() = true,
          "The k largest (with if_descent false: smallest) elements along axis, in that order.");
    m.def("cumsum", &cumsum, nb::sig("def cumsum(t: QTensor, axis: int = -1) -> QTensor"), "t"_a, "axis"_a = -1,
          "The running sums of t along axis.");
    m.def("log_softmax", &log_softmax, nb::sig("def log_softmax(t: QTensor, axis: int) -> QTensor"), "t"_a, "axis"_a,
          "The log of the softmax of t along axis.");
}

}  // namespace pymoira
