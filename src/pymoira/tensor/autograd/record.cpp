// Record and the NO_GRAD switch; see Note [Recording a result].
#include "autograd/record.hpp"
#include "bindings/to_python.hpp"

namespace pymoira {

PyObject* NoGrad::object = nullptr;
bool NoGrad::on = false;

nb::object NoGrad::swap(nb::handle value) {
    bool truth = truth_arg(value);
    nb::object previous = nb::steal(object);
    Py_INCREF(value.ptr());
    object = value.ptr();
    on = truth;
    return previous;
}

Record::Record(Tracking mode, const QTensor* const* first, const QTensor* const* last, Tracks rule)
    : mode_(mode), rule_(rule) {
    if (mode == Tracking::Untracked) return;
    for (auto in = first; in != last; ++in) {
        flag_ = flag_ || tracks(**in);
    }
    if (mode == Tracking::CopyFlag) {
        flag_object_ = (*first)->requires_grad;
        return;
    }
    flag_ = flag_ && !NoGrad::on;
}

void Record::edge(nb::handle input, GradFn fn, EdgeName name) {
    if (!nodes_.is_valid()) nodes_ = nb::list();
    PyList_Append(nodes_.ptr(), make_edge(input, std::move(fn), std::move(name)).ptr());
}

void Record::edge(nb::handle input, GradFn fn, nb::object name) {
    if (!nodes_.is_valid()) nodes_ = nb::list();
    nb::object e = make_edge(input, std::move(fn), EdgeName::none());
    graph_node_ref(e).name = std::move(name);
    PyList_Append(nodes_.ptr(), e.ptr());
}

Record& Record::with_flag(nb::object requires_grad) {
    flag_object_ = std::move(requires_grad);
    return *this;
}

Record& Record::as_mask() {
    mask_ = true;
    return *this;
}

Record& Record::on_device(nb::object device) {
    device_ = std::move(device);
    return *this;
}

nb::object Record::finish(moira::Tensor data) {
    if (!flag_object_.is_valid() && !device_.is_valid() && !mask_) {
        return make_qtensor(std::move(data), flag_, nodes_);
    }
    return finish(wrap_core(std::move(data)));
}

nb::object Record::finish(nb::object data) {
    nb::object device = device_.is_valid() ? device_ : nb::int_(core_ref(data, "QTensor").device());
    nb::object flag = flag_object_.is_valid() ? flag_object_ : nb::bool_(flag_);
    nb::object out = make_qtensor(std::move(data), std::move(flag), nodes_, std::move(device));
    if (mask_) nb::inst_ptr<QTensor>(out)->is_bool = true;
    return out;
}

void Record::inplace(QTensor& target) {
    if (nodes_.is_valid()) {
        if (!target.nodes.is_valid()) target.nodes = nb::list();  // cleared by the garbage collector
        const Py_ssize_t n = PyList_GET_SIZE(nodes_.ptr());
        for (Py_ssize_t i = 0; i < n; ++i) {
            nb::handle e = PyList_GET_ITEM(nodes_.ptr(), i);
            if (PyList_Check(target.nodes.ptr())) {
                if (PyList_Append(target.nodes.ptr(), e.ptr()) < 0) throw nb::python_error();
            } else {
                target.nodes.attr("append")(e);
            }
        }
    }
    target.requires_grad = flag_object_.is_valid() ? flag_object_ : nb::bool_(flag_);
    target.rg = flag_;
    if (device_.is_valid()) target.device = device_;
}

void init_record(nb::class_<QTensor>& cls) {
    NoGrad::object = Py_False;
    Py_INCREF(Py_False);
    cls.def_prop_rw_static(
        "NO_GRAD", [](nb::handle) { return nb::borrow(NoGrad::object); },
        [](nb::handle, nb::handle value) { NoGrad::swap(value); },
        "While true, no newly computed result requires gradients. Assign True to stop graph recording "
        "and False to resume.");
}

}  // namespace pymoira
