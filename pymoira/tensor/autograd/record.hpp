// Record: the one way an operation builds its result and the result's edges.
//
// Note [Recording a result]
// Every differentiable operation follows one of four tracking patterns:
//   Combined  the result requires grad when an input does and NO_GRAD is off; edges are
//             recorded only then.
//   OwnFlags  the same flag, but each input whose own requires_grad is true gets its edge even
//             while NO_GRAD is on (the result then carries edges it will never use).
//   CopyFlag  NO_GRAD is not consulted; the flag (the object itself) is copied from the input
//             and edges follow the input's own flag.
//   Untracked no gradient at all.
// An operation computes its backend result, creates a Record over its differentiable inputs,
// asks wants_edge(input) for each and adds the edge with its native GradFn, then finish()es
// with the backend result. A result that requires grad gets zero gradients at once, as the
// QTensor constructor gives them.
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
};

class Record {
  public:
    Record(Tracking mode, std::initializer_list<const QTensor*> inputs);

    bool requires_grad() const { return flag_; }
    bool wants_edge(const QTensor& input) const {
        return mode_ == Tracking::Combined ? flag_ && input.rg : mode_ != Tracking::Untracked && input.rg;
    }
    void edge(nb::handle input, GradFn fn, EdgeName name = EdgeName::none());

    // The result on device 0 (operations pass no device) or on `device`.
    nb::object finish(moira::Tensor data);
    nb::object finish(moira::Tensor data, nb::object device);

  private:
    Tracking mode_;
    bool flag_ = false;
    nb::object copied_flag_;  // CopyFlag: the input's requires_grad object
    nb::object nodes_;
};

void init_record(nb::class_<QTensor>& cls);

}  // namespace pymoira
