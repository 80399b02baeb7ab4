// Tensor: construction, shape queries, numpy interop, printing, device moves, reshapes, fills.
#include <nanobind/stl/string.h>
#include <nanobind/stl/vector.h>

#include "bindings/bind.hpp"

namespace pymoira {

using moira::Tensor;
using namespace nb::literals;

namespace {

nb::list shape_list(const Tensor& t) {
    nb::list out;
    for (int64_t e : t.shape()) out.append(e);
    return out;
}

nb::object scalar_to_python(moira::Scalar s) {
    switch (s.kind) {
        case moira::DType::Bool: return nb::bool_(s.i != 0);
        case moira::DType::Int64: return nb::int_(s.i);
        default: return nb::float_(s.d);
    }
}

}  // namespace

moira::DType dtype_arg(nb::handle obj, const char* op) {
    if (obj.is_none()) return moira::kDefaultFloat;
    nb::object name;
    if (nb::isinstance<nb::str>(obj)) name = nb::borrow(obj);
    else if (nb::hasattr(obj, "name") && nb::isinstance<nb::str>(obj.attr("name"))) name = obj.attr("name");
    else if (nb::hasattr(obj, "__name__")) name = obj.attr("__name__");
    std::string s = name.is_valid() ? nb::cast<std::string>(nb::str(name)) : "";
    if (s == "float32") return moira::DType::Float32;
    if (s == "float64" || s == "float") return moira::DType::Float64;
    if (s == "int64" || s == "int") return moira::DType::Int64;
    if (s == "bool" || s == "bool_") return moira::DType::Bool;
    moira::fail<moira::TypeError>(op, ": unsupported dtype ", nb::cast<std::string>(nb::repr(obj)),
                                  " (use 'bool', 'int64', 'float32' or 'float64')");
}

void init_tensor(TensorClass& cls, nb::module_& moira) {
    cls.def(
           "__init__",
           [](Tensor* self, nb::handle data, nb::handle device) {
               new (self) Tensor(tensor_from_python(data, device_arg(device, "Tensor")));
           },
           "data"_a.none(), "device"_a = 0,
           "Build a tensor from a number, a nested list of numbers or a numpy array on `device`.")
        .def_prop_ro("shape", &shape_list, "The extents of the axes, as a list of ints.")
        .def_prop_ro("ndim", &Tensor::ndim, "The number of axes.")
        .def_prop_ro("size", &Tensor::numel, "The number of elements.")
        .def_prop_ro("device", &Tensor::device, "The device number: 0 for the CPU, 1000 + i for CUDA device i.")
        .def_prop_ro("dtype", [](const Tensor& t) { return moira::dtype_name(t.dtype()); },
                     "The element type's name.")
        .def("getShape", &shape_list, "A new list of the extents of the axes.")
        .def("getdata", [](const Tensor& t) { return to_numpy(t, true); },
             "A new numpy array holding a copy of the values.")
        .def(
            "__array__",
            [](nb::handle self, nb::handle dtype, nb::handle copy) {
                nb::object arr = to_numpy(core_ref(self, "__array__"), copy.ptr() == Py_True);
                if (!dtype.is_none()) arr = arr.attr("astype")(dtype);
                return arr;
            },
            "dtype"_a.none() = nb::none(), "copy"_a.none() = nb::none(),
            "numpy view of the values (a copy when asked for).")
        .def(
            "item", [](const Tensor& t) { return scalar_to_python(t.item()); },
            "The value of a one-element tensor as a Python number.")
        .def("tensor_print", &moira::tensor_print, "precision"_a = 7,
             "The values as text: bracket lines around one row per line, `precision` decimals.")
        .def("__repr__",
             [](const Tensor& t) {
                 std::string head = "Tensor(shape=" + moira::shape_str(t.shape()) + ", dtype=" +
                                    moira::dtype_name(t.dtype()) + ", device=" + std::to_string(t.device()) + ")";
                 return t.numel() <= 1000 ? head + "\n" + moira::tensor_print(t, 7) : head;
             })
        .def("toCPU", &Tensor::to_cpu_, "Move the values to the CPU in place.")
        .def("toGPU", &Tensor::to_gpu_, "device"_a = moira::kCudaBase,
             "Move the values to a CUDA device in place (raises when none is available).")
        .def(
            "reshape",
            [](const Tensor& t, nb::handle shape) { return t.reshape(shape_from_python(shape, "reshape", true)); },
            "shape"_a, "A copy of the values with a new shape (one entry may be -1).")
        .def(
            "reshape_",
            [](Tensor& t, nb::handle shape) { t.reshape_(shape_from_python(shape, "reshape_", true)); },
            "shape"_a, "Give the tensor a new shape in place (one entry may be -1).")
        .def(
            "fill_",
            [](nb::handle self, nb::handle value) {
                core_ref(self, "fill_").fill_(scalar_arg(value, "fill_"));
                return nb::borrow(self);
            },
            "value"_a, "Fill the tensor with the specified value inplace; returns the tensor.")
        .def_static(
            "copyTensor", [](const Tensor& src, Tensor& dst) { dst.copy_from_(src); }, "src"_a, "dst"_a,
            "Copy the values of `src` into `dst` (equal shapes; the element type of `dst` is kept).");

    moira.def(
        "copyTensor", [](const Tensor& src, Tensor& dst) { dst.copy_from_(src); }, "src"_a, "dst"_a,
        "Copy the values of `src` into `dst` (equal shapes; the element type of `dst` is kept).");
}

}  // namespace pymoira
