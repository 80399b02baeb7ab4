// pymoira._core: the backend's Python face. The Tensor class and the `moira` namespace.
#include <nanobind/nanobind.h>

#include "bindings/bind.hpp"

namespace nb = nanobind;

NB_MODULE(_core, m) {
    m.doc() = "pymoira's numeric backend: the Tensor class and the moira function namespace.";

    // The backend errors that nanobind's defaults would not map.
    nb::register_exception_translator([](const std::exception_ptr& p, void*) {
        try {
            std::rethrow_exception(p);
        } catch (const moira::TypeError& e) {
            PyErr_SetString(PyExc_TypeError, e.what());
        } catch (const moira::MemoryError& e) {
            PyErr_SetString(PyExc_MemoryError, e.what());
        }
    });
    try {
        moira::init_devices();  // a bad MOIRA_VIRTUAL_GPUS fails the import
    } catch (const moira::ValueError& e) {
        PyErr_SetString(PyExc_ValueError, e.what());
        throw nb::python_error();
    }

    pymoira::TensorClass cls(m, "Tensor", nb::type_slots(pymoira::tensor_type_slots()),
                             "An n-dimensional array of bool, int64, float32, float64, complex64 or complex128 values on one device "
                             "(0 is the CPU); possibly a view that shares its storage with other tensors, "
                             "which in-place operations never change.");
    nb::module_ moira = m.def_submodule("moira", "Backend functions that are not methods of Tensor.");

    pymoira::init_tensor(cls, moira);
    pymoira::init_creation(cls, moira);
    pymoira::init_elementwise(cls, moira);
    pymoira::init_reduce(cls, moira);
    pymoira::init_linalg(cls, moira);
    pymoira::init_indexing(cls, moira);
    pymoira::init_layout(cls, moira);
}
