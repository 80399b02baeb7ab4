// Flips, the triangles of matrices and the trace.
//
// The gradients undo the layout step: a flip is flipped back, a triangle is cut again; the trace
// is a number and records nothing.
#include "bindings/to_python.hpp"
#include "indexing/wrap_dim.hpp"
#include "init.hpp"
#include "layout/layout_args.hpp"

namespace pymoira {

using namespace nb::literals;

namespace {

struct FlipAxes {
    moira::Shape axes;
};
moira::Tensor flip_grad(const GradFn& f, const moira::Tensor& g) { return moira::flip(g, f.payload<FlipAxes>().axes); }

struct Diagonal {
    int64_t k;
};
moira::Tensor triu_grad(const GradFn& f, const moira::Tensor& g) { return moira::triu(g, f.payload<Diagonal>().k); }
moira::Tensor tril_grad(const GradFn& f, const moira::Tensor& g) { return moira::tril(g, f.payload<Diagonal>().k); }

nb::object flip(nb::handle t, nb::handle flip_dims) {
    QArg x(t, "flip");
    moira::Shape axes = int_items(flip_dims, "flip", "flip_dims entries must be integers");
    for (int64_t a : axes) maybe_wrap_dim(a, x.core().ndim());
    moira::Tensor data = moira::flip(x.core(), axes);
    Record rec(Tracking::CopyFlag, {x.q});
    if (rec.wants_edge(*x.q))
        rec.edge(t, GradFn(&flip_grad, "flip").with(FlipAxes{axes}),
                 EdgeName::two("input grad ", data.shape(), " flip grad ", data.shape()));
    return rec.finish(std::move(data));
}

template <bool Upper>
nb::object triangle(nb::handle t, nb::handle diagonal) {
    const char* op = Upper ? "triu" : "tril";
    QArg x(t, op);
    if (x.core().ndim() < 2) throw nb::value_error("Only support a matrix (2-D tensor) or batch of matrices input");
    const int64_t k = int_arg(diagonal, op, "diagonal must be an integer");
    moira::Tensor data = Upper ? moira::triu(x.core(), k) : moira::tril(x.core(), k);
    Record rec(Tracking::Combined, {x.q});
    if (rec.wants_edge(*x.q)) rec.edge(t, GradFn(Upper ? &triu_grad : &tril_grad, op).with(Diagonal{k}));
    return rec.finish(std::move(data));
}

}  // namespace

void init_flip_triangle(nb::module_& m) {
    m.def("flip", &flip, nb::sig("def flip(t: QTensor, flip_dims: Sequence[int]) -> QTensor"), "t"_a, "flip_dims"_a,
          "A new QTensor with the elements reversed along the axes in flip_dims.");
    m.def("triu", &triangle<true>, nb::sig("def triu(t: QTensor, diagonal: int = 0) -> QTensor"), "t"_a,
          "diagonal"_a = 0,
          "The upper triangle of a matrix or of each matrix of a batch; the other elements are zero.");
    m.def("tril", &triangle<false>, nb::sig("def tril(t: QTensor, diagonal: int = 0) -> QTensor"), "t"_a,
          "diagonal"_a = 0,
          "The lower triangle of a matrix or of each matrix of a batch; the other elements are zero.");
    m.def(
        "trace",
        [](nb::handle t, nb::handle k) -> nb::object {
            return scalar_to_python(
                moira::trace(*qtensor_ref(t, "trace").core, int_arg(k, "trace", "k must be an integer")));
        },
        nb::sig("def trace(t: QTensor, k: int = 0) -> float | complex"), "t"_a, "k"_a = 0,
        "The sum of diagonal k of t, as the backend returns it.");
}

}  // namespace pymoira
