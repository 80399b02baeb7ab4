// The Python face of GradFn: a callable from a backend tensor to a backend tensor.
#include "autograd/grad_fn.hpp"
#include "bindings/arguments.hpp"
#include "bindings/to_python.hpp"

#include <nanobind/stl/string.h>


namespace pymoira {

namespace {

int grad_fn_traverse(PyObject* self, visitproc visit, void* arg) {
    Py_VISIT(Py_TYPE(self));
    if (!nb::inst_ready(self)) return 0;
    Py_VISIT(nb::inst_ptr<GradFn>(self)->extra.ptr());
    return 0;
}

int grad_fn_clear(PyObject* self) {
    nb::inst_ptr<GradFn>(self)->extra.reset();
    return 0;
}

PyType_Slot grad_fn_slots[] = {
    {Py_tp_traverse, (void*)grad_fn_traverse}, {Py_tp_clear, (void*)grad_fn_clear}, {0, nullptr}};

}  // namespace

void init_grad_fn(nb::module_& m) {
    nb::class_<GradFn>(m, "GradFn", nb::type_slots(grad_fn_slots),
                       "A built-in operation's gradient function: called with the backend tensor of the result's "
                       "gradient, returns the backend tensor of one input's gradient contribution.")
        .def(
            "__call__",
            [](const GradFn& f, nb::handle g) -> nb::object {
                const moira::Tensor& gc = core_ref(g, f.label);
                moira::Tensor r = f(gc);
                // A function that passes its gradient through returns the very object it got (not
                // a view that reads the same storage in another order: a flip, a transpose).
                if (r.shares_storage(gc) && r.shape() == gc.shape() && r.strides() == gc.strides() &&
                    r.offset() == gc.offset() && r.dtype() == gc.dtype())
                    return nb::borrow(g);
                return wrap_core(std::move(r));
            },
            nb::arg("grad"), nb::sig("def __call__(self, grad: CoreTensor) -> CoreTensor"))
        .def("__repr__", [](const GradFn& f) { return std::string("<GradFn ") + f.label + ">"; });
}

}  // namespace pymoira
