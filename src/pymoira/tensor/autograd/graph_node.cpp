// GraphNode: construction from Python, the df and name attributes, edge calls.
#include "autograd/graph_node.hpp"
#include "bindings/arguments.hpp"

#include <nanobind/stl/string.h>


namespace pymoira {

using namespace nb::literals;

namespace {

PyTypeObject* g_node_type = nullptr;

int node_traverse(PyObject* self, visitproc visit, void* arg) {
    Py_VISIT(Py_TYPE(self));
    if (!nb::inst_ready(self)) return 0;
    GraphNode* n = nb::inst_ptr<GraphNode>(self);
    Py_VISIT(n->tensor.ptr());
    Py_VISIT(n->df.ptr());
    Py_VISIT(n->name.ptr());
    Py_VISIT(n->native.extra.ptr());
    return 0;
}

int node_clear(PyObject* self) {
    GraphNode* n = nb::inst_ptr<GraphNode>(self);
    n->tensor.reset();
    n->df.reset();
    n->name.reset();
    n->native.extra.reset();
    return 0;
}

PyType_Slot node_slots[] = {{Py_tp_traverse, (void*)node_traverse}, {Py_tp_clear, (void*)node_clear}, {0, nullptr}};

nb::object or_none(const nb::object& o) { return o.is_valid() ? o : nb::none(); }

}  // namespace

bool is_graph_node(nb::handle obj) {
    PyTypeObject* t = Py_TYPE(obj.ptr());
    return t == g_node_type || PyType_IsSubtype(t, g_node_type);
}

GraphNode& graph_node_ref(nb::handle obj) {
    if (!is_graph_node(obj))
        moira::fail<moira::TypeError>("backward: an edge list holds ", Py_TYPE(obj.ptr())->tp_name,
                                      ", expected QTensor.GraphNode");
    return *nb::inst_ptr<GraphNode>(obj);
}

nb::object make_edge(nb::handle tensor, GradFn&& fn, EdgeName&& name) {
    // Constructed in place in its Python object: the gradient function is moved once.
    nb::object obj = nb::inst_alloc(nb::handle((PyObject*)g_node_type));
    GraphNode* n = new (nb::inst_ptr<GraphNode>(obj)) GraphNode();
    n->tensor = nb::borrow(tensor);
    n->native = std::move(fn);
    n->lazy_name = std::move(name);
    nb::inst_mark_ready(obj);
    return obj;
}

moira::Tensor call_edge(GraphNode& edge, nb::handle g, const moira::Tensor& g_core) {
    if (edge.native.valid()) return edge.native(g_core);
    if (!edge.df.is_valid() || edge.df.is_none())
        moira::fail<moira::TypeError>("backward: an edge has no gradient function");
    nb::object df = edge.df;  // owned for the call: the function may reassign edge.df
    nb::object r = df(g);
    if (!is_core(r))
        moira::fail<moira::TypeError>("backward: a gradient function returned ", Py_TYPE(r.ptr())->tp_name,
                                      ", expected a backend Tensor");
    return core_ref(r, "backward");
}

void init_graph_node(nb::module_& m, nb::handle qtensor_class) {
    (void)m;
    nb::class_<GraphNode> cls(qtensor_class, "GraphNode", nb::type_slots(node_slots),
                              "Helper class which models a node in the computational graph.");
    g_node_type = (PyTypeObject*)cls.ptr();
    cls.def(
           "__init__",
           [](GraphNode* self, nb::handle tensor, nb::handle df, nb::handle name) {
               GraphNode n;
               n.tensor = nb::borrow(tensor);
               n.df = nb::borrow(df);
               n.name = nb::borrow(name);
               new (self) GraphNode(std::move(n));
           },
           "tensor"_a.none(), "df"_a.none(), "name"_a.none() = "",
           nb::sig("def __init__(self, tensor: pymoira.tensor.tensor.QTensor, df: _GradFunction, "
                   "name: str = '') -> None"))
        .def_prop_rw(
            "tensor", [](GraphNode& n) { return or_none(n.tensor); },
            [](GraphNode& n, nb::handle v) { n.tensor = nb::borrow(v); }, nb::arg("value").none(),
            nb::for_getter(nb::sig("def tensor(self) -> pymoira.tensor.tensor.QTensor")),
            nb::for_setter(nb::sig("def tensor(self, value: pymoira.tensor.tensor.QTensor) -> None")),
            "The input of the operation that this edge leads to.")
        .def_prop_rw(
            "df",
            [](GraphNode& n) -> nb::object {
                if (!n.df.is_valid() && n.native.valid()) n.df = nb::cast(GradFn(n.native), nb::rv_policy::move);
                return or_none(n.df);
            },
            [](GraphNode& n, nb::handle v) {
                n.df = nb::borrow(v);
                n.native = GradFn();
            },
            nb::for_getter(nb::sig("def df(self) -> _GradFunction")),
            nb::for_setter(nb::sig("def df(self, value: _GradFunction) -> None")),
            nb::arg("value").none(), "The gradient function: result gradient -> contribution to `tensor`'s gradient.")
        .def_prop_rw(
            "name",
            [](GraphNode& n) -> nb::object {
                if (!n.name.is_valid()) n.name = nb::str(n.lazy_name.str().c_str());
                return n.name;
            },
            [](GraphNode& n, nb::handle v) { n.name = nb::borrow(v); }, nb::arg("value").none(),
            nb::for_getter(nb::sig("def name(self) -> str")),
            nb::for_setter(nb::sig("def name(self, value: str) -> None")),
            "A description for people.");
}

}  // namespace pymoira
