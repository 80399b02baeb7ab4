// Tensor: construction, shape and layout queries, numpy interop, printing, device moves,
// fills and copies.
#include <nanobind/stl/string.h>
#include <nanobind/stl/vector.h>

#include "bindings/bind.hpp"

namespace pymoira {

using moira::Tensor;
using namespace nb::literals;

namespace {

nb::list shape_list_of(const moira::Shape& s) {
    nb::list out;
    for (int64_t e : s) out.append(e);
    return out;
}

nb::list shape_list(const Tensor& t) { return shape_list_of(t.shape()); }

// A list of integers (any sign): the strides of as_strided.
moira::Shape strides_from_python(nb::handle obj, const char* op) {
    if (!PyList_Check(obj.ptr()) && !PyTuple_Check(obj.ptr()))
        moira::fail<moira::TypeError>(op, ": strides must be a list of integers, got ", Py_TYPE(obj.ptr())->tp_name);
    moira::Shape out;
    for (nb::handle item : obj) out.push_back(int_arg(item, op, "strides must be integers"));
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
        .def_prop_ro("strides", [](const Tensor& t) { return shape_list_of(t.strides()); },
                     "The steps in elements between neighbours along each axis (0 where values repeat, negative "
                     "where the axis is read backwards).")
        .def_prop_ro("storage_offset", &Tensor::offset, "The position of the first element in the shared storage.")
        .def("is_contiguous", &Tensor::is_contiguous,
             "Whether the values lie in row-major order without gaps in the tensor's storage.")
        .def("contiguous", &Tensor::contiguous,
             "This tensor when its values are contiguous, else a contiguous copy of them.")
        .def(
            "as_strided",
            [](const Tensor& t, nb::handle shape, nb::handle strides, int64_t offset) {
                return t.view(shape_from_python(shape, "as_strided"), strides_from_python(strides, "as_strided"), offset);
            },
            "shape"_a, "strides"_a, "offset"_a = 0,
            "A view of this tensor's storage with the given shape, element strides and offset (in elements from "
            "the start of the storage); ValueError when it would reach outside the storage.")
        .def(
            "fill_",
            [](nb::handle self, nb::handle value) {
                moira::fill_(core_ref(self, "fill_"), scalar_arg(value, "fill_"));
                return nb::borrow(self);
            },
            "value"_a, "Fill the tensor with the specified value inplace; returns the tensor.")
        .def_static(
            "copyTensor", [](const Tensor& src, Tensor& dst) { moira::copy_into(dst, src); }, "src"_a, "dst"_a,
            "Copy the values of `src` into `dst` (equal shapes; the element type of `dst` is kept).");

    moira.def(
        "copyTensor", [](const Tensor& src, Tensor& dst) { moira::copy_into(dst, src); }, "src"_a, "dst"_a,
        "Copy the values of `src` into `dst` (equal shapes; the element type of `dst` is kept).");
}

}  // namespace pymoira
