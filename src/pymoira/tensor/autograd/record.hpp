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
#pragma once

#include <initializer_list>

#include "autograd/graph_node.hpp"
#include "object/qtensor.hpp"

namespace pymoira {

enum class Tracking { Combined, OwnFlags, CopyFlag, Untracked };

// QTensor.NO_GRAD: the assigned object, and its truth value read by every operation.
struct NoGrad {
    static PyObject* object;  // owned reference, never released
    static bool on;
    // Sets NO_GRAD to `value` (as assigning it does) and returns the object it held before.
    static nb::object swap(nb::handle value);
};

class Record {
  public:
    Record(Tracking mode, std::initializer_list<const QTensor*> inputs);
    // A result that records nothing: a leaf.
    static Record leaf() { return Record(Tracking::Untracked, {}); }

    bool requires_grad() const { return flag_; }
    bool wants_edge(const QTensor& input) const {
        return mode_ == Tracking::Combined ? flag_ && input.rg : mode_ != Tracking::Untracked && input.rg;
    }
    void edge(nb::handle input, GradFn fn, EdgeName name = EdgeName::none());
    // An edge whose name the operation has already made (a Python str).
    void edge(nb::handle input, GradFn fn, nb::object name);

    // Untracked results: requires_grad is this object itself (a true one gives zero gradients).
    Record& with_flag(nb::object requires_grad);
    // The result is a mask (is_bool), as comparisons make.
    Record& as_mask();
    // The result's `device` attribute is this object, not its backend tensor's device number
    // (conversions that keep the number the caller gave).
    Record& on_device(nb::object device);

    nb::object finish(moira::Tensor data);
    // A backend tensor object that the result shares (conversions).
    nb::object finish(nb::object data);

  private:
    Tracking mode_;
    bool flag_ = false;
    bool mask_ = false;
    nb::object flag_object_;  // CopyFlag: the input's requires_grad; with_flag: the given one
    nb::object device_;
    nb::object nodes_;
};

void init_record(nb::class_<QTensor>& cls);

}  // namespace pymoira
