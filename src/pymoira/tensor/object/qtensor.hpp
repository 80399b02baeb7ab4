// QTensor: a backend tensor plus what the autograd engine needs (the gradient flag, the edges
// to the inputs it was computed from, the accumulated gradient), and the helpers every
// operation uses to read its arguments and build its result's Python object.
#pragma once

#include <nanobind/nanobind.h>

#include <string>

#include "bindings/arguments.hpp"

namespace pymoira {

// Note [Signatures of the tensor bindings]
// As in pymoira._core (Note [Signatures of the bindings] in bindings/bind.hpp), a binding that
// reads nb::handle arguments or returns an nb::object states its Python signature with nb::sig,
// which help() shows and the stub generator copies. The types are those of the module's stub:
// QTensor, CoreTensor (the backend's Tensor), and the imports and aliases that the stub's prefix
// in src/pymoira/stubs.pat declares (_Number, _Shape, _Operand, _Key, _GradFunction, _F,
// Sequence, ArrayLike, NDArray, ...). A class nested in QTensor is spelled from the module
// (pymoira.tensor.tensor.QTensor.GraphNode), which the generator shortens to QTensor.GraphNode.

// Note [QTensor attributes hold Python objects]
// `data`, `requires_grad`, `nodes`, `device` and `grad` are the very Python objects that were
// assigned (so `QTensor(ct).data is ct` and `t.nodes is the_list_passed`). Two C++ caches sit
// beside them and are updated by every assignment: `core`, the backend Tensor inside `data`,
// and `rg`, the truth value of `requires_grad`. Operations read only the caches.
struct QTensor {
    nb::object data;
    moira::Tensor* core = nullptr;
    nb::object requires_grad;
    bool rg = false;
    nb::object nodes;
    nb::object grad;
    moira::Tensor grad_core;    // the gradient while grad_in_core (no Python holder yet)
    bool grad_pending = false;  // zero gradients given but not yet allocated
    bool grad_in_core = false;  // the gradient is grad_core; its holder is made when needed
    bool grad_private = false;  // grad made by the backward pass and not yet handed out
    nb::object device;
    bool is_bool = false;    // `is_bool is True`: subscripts treat the tensor as a mask
    nb::object is_bool_obj;  // the flag object given when it was not a bool (null otherwise)

    const moira::Shape& shape() const { return core->shape(); }
};

// Stores `flag` as the mask marker as given; only the object True makes the tensor a mask.
void set_boolflag(QTensor& q, nb::handle flag);
// The mask marker as it was stored.
nb::object boolflag(const QTensor& q);

// True for QTensor instances (and instances of Python subclasses).
bool is_qtensor(nb::handle obj);
// The QTensor inside `obj`; TypeError naming `op` when obj is not one.
QTensor& qtensor_ref(nb::handle obj, const char* op);

// A QTensor argument: the Python object (edges and results refer to it) and its C++ state.
struct QArg {
    nb::handle obj;
    QTensor* q;
    QArg(nb::handle h, const char* op) : obj(h), q(&qtensor_ref(h, op)) {}
    QTensor* operator->() const { return q; }
    const moira::Tensor& core() const { return *q->core; }
};

// The QTensor constructor: `self` is the uninitialised C++ part of a new object.
void construct_qtensor(QTensor* self, nb::handle data, nb::handle requires_grad, nb::handle nodes, nb::handle device);

// Builds a QTensor the way its constructor does: the data object is stored as is; a true
// `requires_grad` gives it zero gradients at once. `nodes` may be null (a new empty list).
// Operations build their results through Record (autograd/record.hpp), which calls these.
nb::object make_qtensor(nb::object data, nb::object requires_grad, nb::object nodes, nb::object device);
// The same around a new backend tensor, on that tensor's device, requires_grad True or False.
nb::object make_qtensor(moira::Tensor data, bool requires_grad, nb::object nodes = {});

// str(obj) as a C++ string (for messages and edge names).
std::string py_text(nb::handle obj);

// QTensor._to_tensor: QTensor as is, a number as a [1] tensor, a backend tensor wrapped on its
// device, anything else through the constructor on device 0.
nb::object to_qtensor(nb::handle obj);
// The operand of an operator or a function that mixes tensors and Python numbers: as
// to_qtensor, but a number is made on the device of `like` (a QTensor), so `gpu_tensor * 2`
// computes on the GPU. The converted operand never tracks gradients and is never returned.
nb::object operand_like(nb::handle obj, nb::handle like);

// Note [Lazy zero gradients]
// A tensor that requires grad has zero gradients from its construction on. The zeros are only
// allocated when someone reads `grad`; until then `grad_pending` stands for them. The backward
// pass accumulates into a pending gradient by adopting the contribution itself instead of
// filling zeros and adding. A gradient the pass made lives as a backend tensor (`grad_core`)
// until something needs its Python holder (reading `grad`, a gradient function written in
// Python): most gradients of a pass are never seen by Python, and making two Python objects for
// each was a large part of the cost of a small operation's backward step. The adopted contribution may share its storage with another
// tensor (the gradient an edge passed through, a view, the seed): that sharing is never
// visible, because every in-place write (the next accumulation, zero_grad, a user's add_)
// first gives the written tensor storage of its own (Note [Views and value semantics]).

// Gives q zero gradients (the gradient holder: q's device, no edges), allocated on first read.
void allocate_grad(QTensor& q);
// Drops q's gradient: `grad` reads None (Note [Releasing intermediate gradients] in backward.cpp).
void release_grad(QTensor& q);
// Whether q has gradients (allocated, held in core or pending).
inline bool has_grad(const QTensor& q) {
    return q.grad_pending || q.grad_in_core || (q.grad.is_valid() && !q.grad.is_none());
}
// q's gradient as a backend tensor (zeros allocated when pending); RuntimeError without one.
moira::Tensor& grad_tensor(QTensor& q);
// q.grad's Python holder: allocates pending zeros, makes the holder of a gradient in core.
nb::object grad_object(QTensor& q);
// q.grad for Python: the same, and the gradient now counts as handed out.
nb::object grad_for_user(QTensor& q);
// Installs `g` as q's gradient, made by the backward pass.
void adopt_grad(QTensor& q, moira::Tensor g);
// q.grad += contribution (broadcast into q's shape), in place or by adopting the contribution.
void accumulate_grad(QTensor& q, moira::Tensor contribution);
// The gradient holder's element type for a tensor of type `t`.
moira::DType grad_dtype(moira::DType t);

// Creates the QTensor class with its object-level methods.
nb::class_<QTensor> init_object(nb::module_& m);

}  // namespace pymoira
