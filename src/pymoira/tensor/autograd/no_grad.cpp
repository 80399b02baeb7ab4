// no_grad: a context manager and decorator that sets QTensor.NO_GRAD for a block or a function
// and restores the previous value on the way out, exceptions included; and
// retain_intermediate_grads, the context manager of the backward pass's RetainGrads switch.
#include <nanobind/stl/string.h>

#include <string>
#include <vector>

#include "autograd/record.hpp"
#include "init.hpp"

namespace pymoira {

using namespace nb::literals;

namespace {

// The context manager. Each __enter__ remembers the value it replaced, so one object may be
// entered again while it is active (nested blocks restore in order).
struct NoGradContext {
    std::vector<nb::object> saved;
};

int context_traverse(PyObject* self, visitproc visit, void* arg) {
    Py_VISIT(Py_TYPE(self));
    if (!nb::inst_ready(self)) return 0;
    for (const nb::object& o : nb::inst_ptr<NoGradContext>(self)->saved) Py_VISIT(o.ptr());
    return 0;
}

int context_clear(PyObject* self) {
    nb::inst_ptr<NoGradContext>(self)->saved.clear();
    return 0;
}

PyType_Slot context_slots[] = {
    {Py_tp_traverse, (void*)context_traverse}, {Py_tp_clear, (void*)context_clear}, {0, nullptr}};

// A function decorated with no_grad(): calls the function with NO_GRAD set.
struct NoGradFunction {
    nb::object fn;
};

int function_traverse(PyObject* self, visitproc visit, void* arg) {
    Py_VISIT(Py_TYPE(self));
    if (!nb::inst_ready(self)) return 0;
    Py_VISIT(nb::inst_ptr<NoGradFunction>(self)->fn.ptr());
    return 0;
}

int function_clear(PyObject* self) {
    nb::inst_ptr<NoGradFunction>(self)->fn.reset();
    return 0;
}

PyType_Slot function_slots[] = {
    {Py_tp_traverse, (void*)function_traverse}, {Py_tp_clear, (void*)function_clear}, {0, nullptr}};

nb::object call_without_grad(NoGradFunction& f, nb::args args, nb::kwargs kwargs) {
    if (!f.fn.is_valid()) throw nb::type_error("no_grad: the decorated function was cleared");
    nb::object previous = NoGrad::swap(Py_True);
    try {
        nb::object r = f.fn(*args, **kwargs);
        NoGrad::swap(previous);
        return r;
    } catch (...) {
        NoGrad::swap(previous);
        throw;
    }
}

// retain_intermediate_grads(flag): RetainGrads::on is `flag` inside the block.
struct RetainContext {
    bool flag = true;
    std::vector<bool> saved;
};

nb::object wrapped_attr(const NoGradFunction& f, const char* name) {
    return f.fn.is_valid() ? nb::getattr(f.fn, name, nb::none()) : nb::none();
}

}  // namespace

bool RetainGrads::on = true;

void init_no_grad(nb::module_& m) {
    nb::class_<RetainContext>(m, "retain_intermediate_grads",
                              "Context manager: with flag False, backward() releases the gradient of every "
                              "intermediate tensor as soon as it has been passed on, so only leaves keep `grad` "
                              "(intermediate results read None) and a deep graph's backward pass needs far less "
                              "memory. With True (the default outside any block) every tensor keeps its gradient."
                              "\n\n    with retain_intermediate_grads(False):\n        loss.backward()")
        .def("__init__", [](RetainContext* self, nb::handle flag) { new (self) RetainContext{truth_arg(flag), {}}; },
             "flag"_a, nb::sig("def __init__(self, flag: bool) -> None"))
        .def("__enter__",
             [](nb::handle self) {
                 RetainContext& c = *nb::inst_ptr<RetainContext>(self);
                 c.saved.push_back(RetainGrads::on);
                 RetainGrads::on = c.flag;
                 return nb::borrow(self);
             },
             nb::sig("def __enter__(self) -> retain_intermediate_grads"))
        .def(
            "__exit__",
            [](RetainContext& c, nb::handle, nb::handle, nb::handle) {
                if (c.saved.empty())
                    throw nb::value_error("retain_intermediate_grads: __exit__ without a matching __enter__");
                RetainGrads::on = c.saved.back();
                c.saved.pop_back();
                return false;
            },
            "exc_type"_a.none(), "exc_value"_a.none(), "traceback"_a.none(),
            nb::sig("def __exit__(self, exc_type: type[BaseException] | None, exc_value: BaseException | None, "
                    "traceback: TracebackType | None) -> bool"));

    nb::class_<NoGradFunction>(m, "_NoGradFunction", nb::type_slots(function_slots), nb::is_weak_referenceable(),
                               "A function that runs with QTensor.NO_GRAD set (made by no_grad()(function)).")
        .def("__call__", &call_without_grad, "args"_a, "kwargs"_a)
        .def(
            "__get__",
            [](nb::handle self, nb::handle obj, nb::handle) -> nb::object {
                if (obj.is_none()) return nb::borrow(self);
                return nb::module_::import_("types").attr("MethodType")(self, obj);
            },
            "obj"_a.none(), "owner"_a.none() = nb::none())
        .def_prop_ro("__wrapped__", [](NoGradFunction& f) { return f.fn.is_valid() ? f.fn : nb::none(); })
        .def_prop_ro("__doc__", [](NoGradFunction& f) { return wrapped_attr(f, "__doc__"); })
        // Everything else (__name__, __qualname__, __module__, ...) reads as the function's own.
        .def("__getattr__", [](NoGradFunction& f, const std::string& name) -> nb::object {
            if (!f.fn.is_valid()) throw nb::attribute_error(name.c_str());
            return nb::getattr(f.fn, name.c_str());
        });

    nb::class_<NoGradContext>(m, "no_grad", nb::type_slots(context_slots),
                              "Context manager and decorator that stops graph recording: inside it QTensor.NO_GRAD "
                              "is True, and the previous value is restored on the way out, also when an exception "
                              "passes through.\n\n    with no_grad():\n        w.data.sub_(w.grad.data.mult(lr))\n\n"
                              "    @no_grad()\n    def evaluate(x): ...")
        .def(nb::init<>())
        .def("__enter__",
             [](nb::handle self) {
                 nb::inst_ptr<NoGradContext>(self)->saved.push_back(NoGrad::swap(Py_True));
                 return nb::borrow(self);
             },
             nb::sig("def __enter__(self) -> no_grad"))
        .def(
            "__exit__",
            [](NoGradContext& c, nb::handle, nb::handle, nb::handle) {
                if (c.saved.empty()) throw nb::value_error("no_grad: __exit__ without a matching __enter__");
                nb::object previous = std::move(c.saved.back());
                c.saved.pop_back();
                NoGrad::swap(previous);
                return false;
            },
            "exc_type"_a.none(), "exc_value"_a.none(), "traceback"_a.none(),
            nb::sig("def __exit__(self, exc_type: type[BaseException] | None, exc_value: BaseException | None, "
                    "traceback: TracebackType | None) -> bool"))
        .def("__call__", [](nb::handle, nb::handle fn) {
            if (!PyCallable_Check(fn.ptr())) throw nb::type_error("no_grad() decorates a callable");
            return NoGradFunction{nb::borrow(fn)};
        }, nb::sig("def __call__(self, func: _F, /) -> _F"));
}

}  // namespace pymoira
