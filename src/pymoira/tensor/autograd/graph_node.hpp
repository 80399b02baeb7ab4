// GraphNode: one edge of the graph, from a result to one of its inputs, with the function that
// turns the result's gradient into that input's gradient contribution.
#pragma once

#include "autograd/grad_fn.hpp"

namespace pymoira {

struct GraphNode {
    nb::object tensor;  // the input QTensor
    nb::object df;      // a Python callable, or null while `native` holds the function
    GradFn native;      // the built-in operations' gradient function
    nb::object name;    // null until read when the edge was recorded with `lazy_name`
    EdgeName lazy_name;
};

bool is_graph_node(nb::handle obj);
GraphNode& graph_node_ref(nb::handle obj);

// A new edge object recorded by a built-in operation.
nb::object make_edge(nb::handle tensor, GradFn&& fn, EdgeName&& name);

// Calls the edge's gradient function on `g` (the Python object of the backend tensor
// `g_core`) and returns the contribution. Native functions run without Python; a Python df
// must return a backend tensor.
moira::Tensor call_edge(GraphNode& edge, nb::handle g, const moira::Tensor& g_core);

void init_graph_node(nb::module_& m, nb::handle qtensor_class);

}  // namespace pymoira
