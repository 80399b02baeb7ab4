// Record: the one way an operation builds its result and the result's edges.
//
// Note [Recording a result]
// Every operation follows one of four tracking patterns:
//   Combined  the result requires grad when an input does and NO_GRAD is off; edges are
//             recorded only then.
//   OwnFlags  the same flag, but each input whose own requires_grad is true gets its edge even
//             while NO_GRAD is on (the result then carries edges it will never use).
//   CopyFlag  NO_GRAD is not consulted; the flag (the object itself) is copied from the input
//             and edges follow the input's own flag.
//   Untracked no gradient at all: leaves (creation functions, conversions) and the
//             non-differentiable operations (comparisons, masks, rounding).
// An operation computes its backend result, creates a Record over its differentiable inputs,
// asks wants_edge(input) for each and adds the edge with its native GradFn, then finish()es
// with the backend result. The result lives on the device of its backend tensor. A result that
// requires grad gets zero gradients at once, as the QTensor constructor gives them. A leaf may
// take a requires_grad object of its own (with_flag); a mask result is marked (as_mask).
//
// Which inputs count as requiring grad is a second, independent choice (Tracks): those whose
// requires_grad is true (Truth), or, for the few operations that test it by identity, those
// whose requires_grad is the object True itself (TrueItself). The same rule decides the result's
// flag and wants_edge.
//
// A write into an existing tensor (set_select, subscript assignment) records the same way and
// ends with inplace(target) instead of finish: the edges are appended to the target's own edge
// list and the target takes the flag object (and the device given with on_device) that a new
// result would take. It gets no zero gradients: the target keeps whatever gradient it had.
#pragma once

#include <initializer_list>
#include <vector>

#include "autograd/graph_node.hpp"
#include "object/qtensor.hpp"

namespace pymoira {

enum class Tracking { Combined, OwnFlags, CopyFlag, Untracked };
enum class Tracks { Truth, TrueItself };

// QTensor.NO_GRAD: the assigned object, and its truth value read by every operation.
struct NoGrad {
    static PyObject* object;  // owned reference, never released
    static bool on;
    // Sets NO_GRAD to `value` (as assigning it does) and returns the object it held before.
    static nb::object swap(nb::handle value);
};

// Whether the backward pass leaves each intermediate tensor its gradient (the default) or
// releases it once passed on, so that only leaves keep theirs (retain_intermediate_grads(False),
// Note [Releasing intermediate gradients] in backward.cpp).
struct RetainGrads {
    static bool on;
};

class Record {
  public:
    // The differentiable inputs: a braced list, or a vector built at run time. Only the
    // constructor reads them.
    Record(Tracking mode, std::initializer_list<const QTensor*> inputs, Tracks rule = Tracks::Truth)
        : Record(mode, inputs.begin(), inputs.end(), rule) {}
    Record(Tracking mode, const std::vector<const QTensor*>& inputs, Tracks rule = Tracks::Truth)
        : Record(mode, inputs.data(), inputs.data() + inputs.size(), rule) {}
    // A result that records nothing: a leaf.
    static Record leaf() { return Record(Tracking::Untracked, {}); }

    bool requires_grad() const { return flag_; }
    // Whether `input` counts as requiring grad under this record's rule.
    bool tracks(const QTensor& input) const {
        return rule_ == Tracks::Truth ? input.rg : input.requires_grad.ptr() == Py_True;
    }
    bool wants_edge(const QTensor& input) const {
        return mode_ == Tracking::Combined ? flag_ && tracks(input) : mode_ != Tracking::Untracked && tracks(input);
    }
    void edge(nb::handle input, GradFn fn, EdgeName name = EdgeName::none());
    // An edge whose name the operation has already made (a Python str).
    void edge(nb::handle input, GradFn fn, nb::object name);

    // requires_grad is this object itself: for Untracked results (a true one gives zero
    // gradients), or an object of the same truth as the computed flag.
    Record& with_flag(nb::object requires_grad);
    // The result is a mask (is_bool), as comparisons make.
    Record& as_mask();
    // The result's `device` attribute is this object, not its backend tensor's device number
    // (conversions that keep the number the caller gave).
    Record& on_device(nb::object device);

    nb::object finish(moira::Tensor data);
    // A backend tensor object that the result shares (conversions).
    nb::object finish(nb::object data);
    // The target of an in-place write takes the edges, flag and device (see the Note above).
    void inplace(QTensor& target);

  private:
    Record(Tracking mode, const QTensor* const* first, const QTensor* const* last, Tracks rule);

    Tracking mode_;
    Tracks rule_;
    bool flag_ = false;
    bool mask_ = false;
    nb::object flag_object_;  // CopyFlag: the input's requires_grad; with_flag: the given one
    nb::object device_;
    nb::object nodes_;
};

void init_record(nb::class_<QTensor>& cls);

}  // namespace pymoira
