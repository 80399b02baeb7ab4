// pymoira.tensor.tensor: the QTensor type, the autograd engine and every module function,
// assembled from the subsystem folders.
#include "autograd/record.hpp"
#include "init.hpp"

#include <algorithm>
#include <string_view>

namespace nb = nanobind;

NB_MODULE(tensor, m) {
    using namespace pymoira;
    // The backend first: it registers the Tensor type that QTensor.data holds.
    nb::module_ core = nb::module_::import_("pymoira._core");
    m.attr("_core") = core;
    m.attr("CoreTensor") = core.attr("Tensor");
    m.attr("_moira") = core.attr("moira");
    m.attr("np") = nb::module_::import_("numpy");
    nb::module_ typing = nb::module_::import_("typing");
    m.attr("Optional") = typing.attr("Optional");
    m.attr("Union") = typing.attr("Union");
    m.attr("List") = typing.attr("List");
    m.attr("reduce") = nb::module_::import_("functools").attr("reduce");
    nb::module_ builtins = nb::module_::import_("builtins");
    m.attr("py_slice") = builtins.attr("slice");
    m.attr("py_max") = builtins.attr("max");

    init_grad_fn(m);
    nb::class_<QTensor> cls = init_object(m);
    init_record(cls);
    init_fills(cls);
    init_graph_node(m, cls);
    init_backward(m, cls);
    init_no_grad(m);
    init_interop(m, cls);
    init_creation(m);
    init_unary(m, cls);
    init_binary(m, cls);
    init_ternary(m, cls);
    init_sums(m, cls);
    init_reshape(m, cls);
    init_permute(m, cls);
    init_join(m);
    init_split(m);
    init_tile(m);
    init_flip_triangle(m);
    init_extremes(m, cls);
    init_statistics(m, cls);
    init_order(m, cls);
    init_matmul(m);
    init_contract(m);
    init_wrap_dim(m);
    init_select(m);
    init_advanced(m);
    init_subscript(m, cls);

    // __all__: every public name bound above, less the modules and builtins kept here for the
    // module's own use, so `import *` gives the functions and classes alone.
    const std::string_view helpers[] = {"np", "Optional", "Union", "List", "reduce", "py_slice", "py_max"};
    nb::list all;
    for (auto [name, value] : nb::borrow<nb::dict>(m.attr("__dict__"))) {
        std::string_view key = nb::borrow<nb::str>(name).c_str();
        if (key[0] != '_' && std::find(std::begin(helpers), std::end(helpers), key) == std::end(helpers))
            all.append(name);
    }
    m.attr("__all__") = all;
}
