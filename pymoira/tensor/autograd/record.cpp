// Record and the NO_GRAD switch; see Note [Recording a result].
#include "autograd/record.hpp"

namespace pymoira {

PyObject* NoGrad::object = nullptr;
bool NoGrad::on = false;

Record::Record(Tracking mode, std::initializer_list<const QTensor*> inputs) : mode_(mode) {
    if (mode == Tracking::Untracked) return;
    for (const QTensor* in : inputs) flag_ = flag_ || in->rg;
    if (mode == Tracking::CopyFlag) {
        copied_flag_ = (*inputs.begin())->requires_grad;
        return;
    }
    flag_ = flag_ && !NoGrad::on;
}

void Record::edge(nb::handle input, GradFn fn, EdgeName name) {
    if (!nodes_.is_valid()) nodes_ = nb::list();
    PyList_Append(nodes_.ptr(), make_edge(input, std::move(fn), std::move(name)).ptr());
}

nb::object Record::finish(moira::Tensor data) {
    if (mode_ == Tracking::CopyFlag)
        return make_qtensor(wrap_core(std::move(data)), copied_flag_, nodes_, nb::int_(0));
    return make_qtensor(std::move(data), flag_, nodes_);
}

nb::object Record::finish(moira::Tensor data, nb::object device) {
    nb::object rg = mode_ == Tracking::CopyFlag ? copied_flag_ : nb::bool_(flag_);
    return make_qtensor(wrap_core(std::move(data)), rg, nodes_, std::move(device));
}

void init_record(nb::class_<QTensor>& cls) {
    NoGrad::object = Py_False;
    Py_INCREF(Py_False);
    cls.def_prop_rw_static(
        "NO_GRAD", [](nb::handle) { return nb::borrow(NoGrad::object); },
        [](nb::handle, nb::handle value) {
            bool on = truth_arg(value);
            Py_INCREF(value.ptr());
            Py_XDECREF(NoGrad::object);
            NoGrad::object = value.ptr();
            NoGrad::on = on;
        },
        "While true, no newly computed result requires gradients. Assign True to stop graph recording "
        "and False to resume.");
}

}  // namespace pymoira
