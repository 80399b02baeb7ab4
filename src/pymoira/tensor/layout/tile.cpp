// Tiling, broadcasting to a tensor's shape and masked fills.
//
// The gradients undo the layout step: tiles and broadcast copies are summed back by the one
// folding routine, masked positions get zero.
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

}  // namespace

void init_tile(nb::module_& m) {
    m.def("tile", &tile, nb::sig("def tile(t: QTensor, reps: Sequence[int]) -> QTensor"), "t"_a, "reps"_a.none(),
          "Construct a QTensor by repeating t the number of times given by reps.");
    m.def("broadcast_to", &broadcast_to, nb::sig("def broadcast_to(t: QTensor, ref: QTensor) -> QTensor"), "t"_a,
          "ref"_a, "t expanded to the shape it broadcasts to together with ref.");
    m.def("masked_fill", &masked_fill, nb::sig("def masked_fill(t: QTensor, mask: QTensor, value: _Number) -> QTensor"),
          "t"_a, "mask"_a, "value"_a.none(),
          "A new QTensor: t with the elements where mask is set replaced by value.");
}

}  // namespace pymoira
