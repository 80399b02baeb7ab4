// The backward pass: QTensor.backward, get_prev, toposort and backprop.
//
// Note [Order of the backward pass]
// toposort works in two phases over Python-list-like stacks taken from the end. Counting: every
// tensor reachable from the end is expanded once and counts the edges that reach it. Emitting:
// a tensor is yielded when its last incoming edge has been passed; among ready tensors the one
// made ready last comes first. backprop consumes that order lazily: it calls a tensor's
// gradient functions right after the tensor is yielded and before the emitting phase reads
// the tensor's parents. The native pass below follows exactly that order, so what Python code
// observes (gradient functions called, gradients allocated) is the same as with the generator.
//
// Note [How gradients accumulate]
// The end node passes on the seed only (its own grad received the seed in backward()); every
// other node passes on its whole grad, the sum of this pass's contributions and whatever it held
// before. Contributions are added in place into the inputs' existing gradient storage.
//
// Note [Releasing intermediate gradients]
// By default every tensor of the graph keeps its gradient after the pass. Inside
// retain_intermediate_grads(False) a tensor with edges (an intermediate result, the end node
// included) drops its gradient as soon as it has passed it on: `grad` reads None afterwards and
// the storage returns to the allocator while the pass goes on, so a deep circuit's peak holds
// the gradients of one frontier of the graph, not of all of it. Leaves keep their gradients; a
// later pass gives the dropped tensors zero gradients again, as for any tensor without one.
#include <unordered_map>
#include <vector>

#include "autograd/record.hpp"

namespace pymoira {

using namespace nb::literals;

namespace {

// The inputs of `node`, one per edge; gives zero gradients to inputs that track gradients and
// have none (get_prev).
void collect_parents(nb::handle node, std::vector<nb::object>& out) {
    QTensor& q = qtensor_ref(node, "get_prev");
    if (!q.nodes.is_valid()) return;
    nb::object seq = nb::steal(PySequence_Fast(q.nodes.ptr(), "QTensor.nodes must be a list"));
    if (!seq.is_valid()) throw nb::python_error();
    Py_ssize_t n = PySequence_Fast_GET_SIZE(seq.ptr());
    for (Py_ssize_t i = 0; i < n; ++i) {
        GraphNode& edge = graph_node_ref(PySequence_Fast_GET_ITEM(seq.ptr(), i));
        QTensor& t = qtensor_ref(edge.tensor, "get_prev");
        if (t.rg && !has_grad(t)) allocate_grad(t);
        out.push_back(edge.tensor);
    }
}

// The module's get_prev function object: toposort's default, run natively.
PyObject* g_get_prev = nullptr;

nb::list get_prev(nb::handle node) {
    std::vector<nb::object> parents;
    collect_parents(node, parents);
    nb::list out;
    for (auto& p : parents) out.append(p);
    return out;
}

// The parents of a node through a user's callable.
void call_parents(nb::handle parents_fn, nb::handle node, std::vector<nb::object>& out) {
    nb::object r = parents_fn(node);
    nb::object seq = nb::steal(PySequence_Fast(r.ptr(), "toposort: parents() must return a list"));
    if (!seq.is_valid()) throw nb::python_error();
    Py_ssize_t n = PySequence_Fast_GET_SIZE(seq.ptr());
    for (Py_ssize_t i = 0; i < n; ++i) out.push_back(nb::borrow(PySequence_Fast_GET_ITEM(seq.ptr(), i)));
}

// Both phases of toposort over one graph. Keys are object identities; `order` keeps the
// objects alive while the maps hold their pointers.
class TopoOrder {
  public:
    TopoOrder(nb::handle end, nb::handle parents_fn) : parents_fn_(nb::borrow(parents_fn)) {
        std::vector<nb::object> stack{nb::borrow(end)};
        std::vector<nb::object> ps;
        while (!stack.empty()) {
            nb::object node = std::move(stack.back());
            stack.pop_back();
            auto it = counts_.find(node.ptr());
            if (it != counts_.end()) {
                ++it->second;
                continue;
            }
            counts_.emplace(node.ptr(), 1);
            ps.clear();
            parents(node, ps);
            for (auto& p : ps) stack.push_back(std::move(p));
            seen_.push_back(std::move(node));
        }
        ready_.push_back(nb::borrow(end));
    }

    // The next node, or an invalid object when done. `release(node)` must be called after the
    // caller is through with the node, before the next call.
    nb::object next() {
        if (ready_.empty()) return {};
        nb::object node = std::move(ready_.back());
        ready_.pop_back();
        return node;
    }

    void release(nb::handle node) {
        std::vector<nb::object> ps;
        parents(node, ps);
        for (auto& p : ps) {
            auto it = counts_.find(p.ptr());
            if (it == counts_.end())
                moira::fail<moira::RuntimeError>("toposort: the graph changed while it was being traversed");
            if (it->second == 1) ready_.push_back(std::move(p));
            else --it->second;
        }
    }

    void traverse(visitproc visit, void* arg, int& ret) const {
        for (auto* v : {&seen_, &ready_})
            for (auto& o : *v)
                if (int r = visit(o.ptr(), arg)) { ret = r; return; }
        if (int r = visit(parents_fn_.ptr(), arg)) ret = r;
    }

    void clear() {
        seen_.clear();
        ready_.clear();
        counts_.clear();
    }

  private:
    void parents(nb::handle node, std::vector<nb::object>& out) {
        if (parents_fn_.is_none() || parents_fn_.ptr() == g_get_prev) collect_parents(node, out);
        else call_parents(parents_fn_, node, out);
    }

    nb::object parents_fn_;  // None: get_prev
    std::unordered_map<PyObject*, int> counts_;
    std::vector<nb::object> seen_;
    std::vector<nb::object> ready_;
};

// The generator returned by toposort(): counting runs on the first next(), emitting interleaves
// with the consumer.
struct TopoSortIterator {
    nb::object end;
    nb::object parents_fn;
    std::unique_ptr<TopoOrder> order;
    nb::object last;  // yielded, parents not yet released
    bool done = false;
};

int topo_traverse(PyObject* self, visitproc visit, void* arg) {
    Py_VISIT(Py_TYPE(self));
    if (!nb::inst_ready(self)) return 0;
    TopoSortIterator* it = nb::inst_ptr<TopoSortIterator>(self);
    Py_VISIT(it->end.ptr());
    Py_VISIT(it->parents_fn.ptr());
    Py_VISIT(it->last.ptr());
    int ret = 0;
    if (it->order) it->order->traverse(visit, arg, ret);
    return ret;
}

int topo_clear(PyObject* self) {
    TopoSortIterator* it = nb::inst_ptr<TopoSortIterator>(self);
    it->end.reset();
    it->parents_fn.reset();
    it->last.reset();
    if (it->order) it->order->clear();
    it->done = true;
    return 0;
}

PyType_Slot topo_slots[] = {{Py_tp_traverse, (void*)topo_traverse}, {Py_tp_clear, (void*)topo_clear}, {0, nullptr}};

nb::object topo_next(TopoSortIterator& it) {
    if (it.done) throw nb::stop_iteration();
    if (!it.order) it.order = std::make_unique<TopoOrder>(it.end, it.parents_fn);
    if (it.last.is_valid()) {
        nb::object last = std::move(it.last);
        it.order->release(last);
    }
    nb::object node = it.order->next();
    if (!node.is_valid()) {
        it.done = true;
        it.order.reset();
        throw nb::stop_iteration();
    }
    it.last = node;
    return node;
}

// The gradient a node passes on, as the backend tensor native gradient functions take and, made
// when a gradient function written in Python needs it, the Python object of that tensor.
class PassedGrad {
  public:
    // The seed (a QTensor) for the end node.
    static PassedGrad of_seed(nb::handle seed) {
        PassedGrad p;
        p.obj_ = qtensor_ref(seed, "backprop").data;
        p.core_ = *qtensor_ref(seed, "backprop").core;
        return p;
    }
    // The node's own gradient.
    static PassedGrad of_node(QTensor& q) {
        PassedGrad p;
        p.node_ = &q;
        p.core_ = grad_tensor(q);
        return p;
    }
    const moira::Tensor& core() const { return core_; }
    // Owned: a gradient function may reassign the holder's data while later edges still need it.
    nb::handle obj() {
        if (!obj_.is_valid()) obj_ = qtensor_ref(grad_object(*node_), "backward").data;
        return obj_;
    }

  private:
    QTensor* node_ = nullptr;
    moira::Tensor core_;
    nb::object obj_;
};

// The pass from `end`, whose gradient to pass on is `seed`: see the Notes above. Every other
// node passes on its own gradient, the sum of what its consumers gave it.
void run_pass(nb::handle end, PassedGrad seed) {
    TopoOrder order(end, nb::none());
    std::vector<nb::object> edges;
    bool first = true;
    while (true) {
        nb::object node = order.next();
        if (!node.is_valid()) break;
        QTensor& q = qtensor_ref(node, "backward");
        PassedGrad g = first ? std::move(seed) : PassedGrad::of_node(q);
        first = false;
        bool intermediate = false;  // the node has edges
        if (q.nodes.is_valid()) {
            nb::object seq = nb::steal(PySequence_Fast(q.nodes.ptr(), "QTensor.nodes must be a list"));
            if (!seq.is_valid()) throw nb::python_error();
            edges.clear();
            Py_ssize_t n = PySequence_Fast_GET_SIZE(seq.ptr());
            intermediate = n > 0;
            for (Py_ssize_t i = 0; i < n; ++i) edges.push_back(nb::borrow(PySequence_Fast_GET_ITEM(seq.ptr(), i)));
            for (nb::object& e : edges) {
                GraphNode& edge = graph_node_ref(e);
                nb::object parent = edge.tensor;
                QTensor& pq = qtensor_ref(parent, "backward");
                if (edge.native.into && has_grad(pq)) {
                    // The contribution goes straight into the gradient (GradFn::into).
                    edge.native.into(edge.native, g.core(), grad_tensor(pq));
                } else {
                    moira::Tensor ingrad =
                        edge.native.valid() ? edge.native(g.core()) : call_edge(edge, g.obj(), g.core());
                    if (!has_grad(pq))
                        moira::fail<moira::RuntimeError>(
                            "backward: an edge leads to a tensor that does not require grad (it has no gradient "
                            "storage)");
                    accumulate_grad(pq, std::move(ingrad));
                }
            }
        }
        if (!RetainGrads::on && intermediate) release_grad(q);
        order.release(node);
    }
}

void backprop(nb::handle g, nb::handle end) { run_pass(end, PassedGrad::of_seed(g)); }

void backward(nb::handle self, nb::handle grad) {
    QTensor& q = qtensor_ref(self, "backward");
    if (!q.rg) throw std::runtime_error("This tensor did not require grad!");
    if (!has_grad(q)) allocate_grad(q);
    if (grad.is_none()) {
        moira::Tensor ones = moira::ones(q.shape(), q.core->device(), grad_dtype(q.core->dtype()));
        if (q.grad_pending) {
            // Zeros plus ones: the gradient is the seed itself, made here and never handed out.
            adopt_grad(q, std::move(ones));
            run_pass(self, PassedGrad::of_node(q));
            return;
        }
        nb::object seed = make_qtensor(std::move(ones), false);
        accumulate_grad(q, *qtensor_ref(seed, "backward").core);
        run_pass(self, PassedGrad::of_seed(seed));
        return;
    }
    nb::object seed = to_qtensor(grad);
    accumulate_grad(q, *qtensor_ref(seed, "backward").core);
    run_pass(self, PassedGrad::of_seed(seed));
}

}  // namespace

void init_backward(nb::module_& m, nb::class_<QTensor>& cls) {
    cls.def("backward", &backward,
            nb::sig("def backward(self, grad: QTensor | CoreTensor | ArrayLike | None = None) -> None"),
            "grad"_a.none() = nb::none(),
            "Backward function for QTensor,can input specific value.");

    m.def("get_prev", &get_prev, nb::sig("def get_prev(q: QTensor) -> list[QTensor]"), "q"_a,
          "The inputs of q, one per edge, in edge order.");
    g_get_prev = m.attr("get_prev").ptr();
    Py_INCREF(g_get_prev);

    nb::class_<TopoSortIterator>(m, "_TopoSortIterator", nb::type_slots(topo_slots))
        .def("__iter__", [](nb::handle self) { return nb::borrow(self); })
        .def("__next__", &topo_next);

    m.def(
        "toposort",
        [](nb::handle end_node, nb::handle parents) {
            TopoSortIterator it;
            it.end = nb::borrow(end_node);
            it.parents_fn = nb::borrow(parents);
            return it;
        },
        nb::sig("def toposort(end_node: QTensor, parents: Callable[[QTensor], "
                "list[QTensor]] = ...) -> Iterator[QTensor]"),
        "end_node"_a, "parents"_a = nb::borrow(g_get_prev),
        "toposort for bp: a lazy generator of every tensor reachable from end_node, each after every tensor "
        "that has an edge to it. `parents` maps a tensor to the list of its inputs (default: get_prev).");

    m.def("backprop", &backprop, nb::sig("def backprop(g: QTensor, end_node: QTensor) -> None"), "g"_a, "end_node"_a,
          "Run the backward pass from end_node with the seed gradient g, accumulating into every input's grad.");
}

}  // namespace pymoira
