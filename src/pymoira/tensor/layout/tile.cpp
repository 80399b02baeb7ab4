// Tiling, broadcasting to a tensor's shape, masked fills, flips, triangles and the trace.
//
// The gradients undo the layout step: tiles and broadcast copies are summed back by the one
// folding routine, masked positions get zero, a flip is flipped back, a triangle is cut again.
#include "indexing/wrap_dim.hpp"
#include "init.hpp"
#include "layout/layout_args.hpp"

namespace pymoira {

using namespace nb::literals;

namespace {

// The input's shape is read when the gradient runs.
struct TileReps {
    moira::Shape reps;
};
moira::Tensor tile_grad(const GradFn& f, const moira::Tensor& g) {
    return moira::tile_grad(g, input_shape(f), f.payload<TileReps>().reps);
}

// g folded back onto the input's shape (g itself when nothing was broadcast).
moira::Tensor broadcast_to_grad(const GradFn& f, const moira::Tensor& g) { return moira::fold_to(g, input_shape(f)); }

// saved[0]: the broadcast mask.
moira::Tensor masked_fill_grad(const GradFn& f, const moira::Tensor& g) {
    return moira::mask_fill(g, f.saved[0], moira::Scalar::from_int(0));
}

struct FlipAxes {
    moira::Shape axes;
};
moira::Tensor flip_grad(const GradFn& f, const moira::Tensor& g) { return moira::flip(g, f.payload<FlipAxes>().axes); }

struct Diagonal {
    int64_t k;
};
moira::Tensor triu_grad(const GradFn& f, const moira::Tensor& g) { return moira::triu(g, f.payload<Diagonal>().k); }
moira::Tensor tril_grad(const GradFn& f, const moira::Tensor& g) { return moira::tril(g, f.payload<Diagonal>().k); }

nb::object tile(nb::handle t, nb::handle reps) {
    check_arg_type(reps, &PyList_Type, "reps");
    QArg x(t, "tile");
    if (reps.is_none()) throw nb::type_error("tile: reps must be a list of integers, got NoneType");
    moira::Shape r = int_items(reps, "tile", "reps must be integers");
    moira::Tensor data = moira::tile(x.core(), r);
    Record rec(Tracking::OwnFlags, {x.q});
    if (rec.wants_edge(*x.q)) {
        GradFn fn(&tile_grad, "tile");
        fn.with(TileReps{std::move(r)}).extra = x->data;
        rec.edge(t, std::move(fn), EdgeName::one("tile grad dim = ", x->shape()));
    }
    return rec.finish(std::move(data));
}

// broadcast_to(t, ref): the CopyFlag pattern; ref gets no edge.
nb::object broadcast_to(nb::handle t, nb::handle ref) {
    QArg x(t, "broadcast_to"), y(ref, "broadcast_to");
    moira::Tensor data = moira::broadcast_against(x.core(), y.core());
    Record rec(Tracking::CopyFlag, {x.q});
    if (rec.wants_edge(*x.q)) {
        GradFn fn(&broadcast_to_grad, "broadcast_to");
        fn.extra = x->data;
        rec.edge(t, std::move(fn), EdgeName::two("A grad ", x->shape(), " broadcast_to ", y->shape()));
    }
    return rec.finish(std::move(data));
}

// masked_fill: t and mask broadcast against each other first (each copy with its own edge); the
// result's edge leads to t's broadcast copy.
nb::object masked_fill(nb::handle t, nb::handle mask, nb::handle value) {
    QArg x(t, "masked_fill");
    nb::object t_b = broadcast_to(t, mask);
    nb::object mask_b = broadcast_to(mask, t);
    QArg xb(t_b, "masked_fill"), mb(mask_b, "masked_fill");
    // The value as the backend's mask_fill_broadcast reads it: a number or a one-element tensor.
    const moira::Scalar v = is_core(value) ? core_ref(value, "mask_fill_broadcast").item() : scalar_arg(value, "mask_fill_broadcast");
    moira::Tensor filled = moira::mask_fill(xb.core(), mb.core(), v);
    Record rec(Tracking::CopyFlag, {x.q});
    if (rec.wants_edge(*x.q))
        rec.edge(t_b, GradFn(&masked_fill_grad, "masked_fill").save(mb.core()),
                 EdgeName::two("t1 grad ", xb->shape(), " mask_fill ", mb->shape()));
    return rec.finish(std::move(filled));
}

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

void init_tile(nb::module_& m) {
    m.def("tile", &tile, "t"_a, "reps"_a.none(), "Construct a QTensor by repeating t the number of times given by reps.");
    m.def("broadcast_to", &broadcast_to, "t"_a, "ref"_a, "t expanded to the shape it broadcasts to together with ref.");
    m.def("masked_fill", &masked_fill, "t"_a, "mask"_a, "value"_a.none(),
          "A new QTensor: t with the elements where mask is set replaced by value.");
    m.def("flip", &flip, "t"_a, "flip_dims"_a, "A new QTensor with the elements reversed along the axes in flip_dims.");
    m.def("triu", &triangle<true>, "t"_a, "diagonal"_a = 0,
          "The upper triangle of a matrix or of each matrix of a batch; the other elements are zero.");
    m.def("tril", &triangle<false>, "t"_a, "diagonal"_a = 0,
          "The lower triangle of a matrix or of each matrix of a batch; the other elements are zero.");
    m.def(
        "trace",
        [](nb::handle t, nb::handle k) -> nb::object {
            const moira::Scalar s = moira::trace(*qtensor_ref(t, "trace").core, int_arg(k, "trace", "k must be an integer"));
            if (s.kind == moira::DType::Int64) return nb::int_(s.i);
            return nb::float_(s.d);
        },
        "t"_a,
        "k"_a = 0, "The sum of diagonal k of t, as the backend returns it.");
}

}  // namespace pymoira
