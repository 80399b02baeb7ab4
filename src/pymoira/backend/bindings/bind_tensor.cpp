// Tensor: construction, shape and layout queries, numpy interop, printing, device moves,
// fills and copies.
#include <nanobind/stl/string.h>
#include <nanobind/stl/vector.h>

#include "bindings/arguments.hpp"
#include "bindings/bind.hpp"
#include "bindings/dlpack.hpp"
#include "bindings/tensor_from_python.hpp"
#include "bindings/to_python.hpp"

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

nb::object numpy_dtype(moira::DType t) {
    // Never released: the interpreter may be gone when static objects are destroyed.
    static PyObject* dtype = nb::object(nb::module_::import_("numpy").attr("dtype")).release().ptr();
    return nb::handle(dtype)(moira::dtype_name(t));
}

// The buffer protocol: a read-only view of the values in their own layout (strides in bytes, as
// numpy's), or a contiguous copy for a consumer that cannot take strides. Writable requests are
// refused: a writer through the buffer would bypass copy-on-write (Note [Views and value
// semantics]). The export holds a handle to the storage until it is released.
struct BufferExport {
    Tensor held;
    std::vector<Py_ssize_t> shape, strides;
    const char* format = nullptr;
};

int tensor_getbuffer(PyObject* self, Py_buffer* view, int flags) {
    view->obj = nullptr;
    if (flags & PyBUF_WRITABLE) {
        PyErr_SetString(PyExc_BufferError,
                        "a Tensor exports a read-only buffer; copy it (np.array) or share memory through DLPack");
        return -1;
    }
    try {
        const Tensor t = nb::inst_ptr<Tensor>(self)->to_host();
        const bool strided = (flags & PyBUF_STRIDES) == PyBUF_STRIDES;
        auto* e = new BufferExport{strided || t.is_contiguous() ? t : t.contiguous(), {}, {}};
        const Py_ssize_t item = static_cast<Py_ssize_t>(moira::itemsize(t.dtype()));
        for (size_t d = 0; d < e->held.shape().size(); ++d) {
            e->shape.push_back(static_cast<Py_ssize_t>(e->held.shape()[d]));
            e->strides.push_back(static_cast<Py_ssize_t>(e->held.strides()[d]) * item);
        }
        e->format = moira::dtype_info(t.dtype()).format;
        static char empty_buffer[8];
        view->buf = e->held.raw() ? e->held.raw() : empty_buffer;
        view->len = static_cast<Py_ssize_t>(e->held.numel()) * item;
        view->itemsize = item;
        view->readonly = 1;
        view->ndim = static_cast<int>(e->shape.size());
        view->format = (flags & PyBUF_FORMAT) ? const_cast<char*>(e->format) : nullptr;
        view->shape = (flags & PyBUF_ND) == PyBUF_ND ? e->shape.data() : nullptr;
        view->strides = strided ? e->strides.data() : nullptr;
        view->suboffsets = nullptr;
        view->internal = e;
        view->obj = self;
        Py_INCREF(self);
        return 0;
    } catch (const std::exception& ex) {
        PyErr_SetString(PyExc_BufferError, ex.what());
        return -1;
    }
}

void tensor_releasebuffer(PyObject*, Py_buffer* view) { delete static_cast<BufferExport*>(view->internal); }

#if PY_VERSION_HEX < 0x03090000
#define Py_bf_getbuffer 1
#define Py_bf_releasebuffer 2
#endif

PyType_Slot tensor_slots[] = {{Py_bf_getbuffer, (void*)tensor_getbuffer},
                              {Py_bf_releasebuffer, (void*)tensor_releasebuffer},
                              {0, nullptr}};

}  // namespace

PyType_Slot* tensor_type_slots() { return tensor_slots; }

void init_tensor(TensorClass& cls, nb::module_& moira) {
    cls.def(
           "__init__",
           [](Tensor* self, nb::handle data, nb::handle device) {
               new (self) Tensor(tensor_from_python(data, device_arg(device, "Tensor")));
           },
           "data"_a.none(), "device"_a = 0,
           nb::sig("def __init__(self, data: " MOIRA_PY_TENSOR " | numpy.typing.ArrayLike, device: int = 0) -> None"),
           "Build a tensor from a number, a nested list of numbers or a numpy array on `device`.")
        .def_prop_ro("shape", &shape_list, nb::for_getter(nb::sig("def shape(self) -> list[int]")),
                     "The extents of the axes, as a list of ints.")
        .def_prop_ro("ndim", &Tensor::ndim, "The number of axes.")
        .def_prop_ro("size", &Tensor::numel, "The number of elements.")
        .def_prop_ro("device", &Tensor::device, "The device number: 0 for the CPU, 1000 + i for CUDA device i.")
        .def_prop_ro("dtype", [](const Tensor& t) { return numpy_dtype(t.dtype()); },
                     nb::for_getter(nb::sig("def dtype(self) -> numpy.dtype[typing.Any]")),
                     "The element type, as a numpy dtype (bool, int64, float32, float64, complex64 or complex128).")
        .def(
            "__dlpack__",
            [](Tensor& t, nb::handle stream, nb::handle max_version, nb::handle dl_device, nb::handle copy) {
                bool versioned = false;
                if (PyTuple_Check(max_version.ptr()) && PyTuple_GET_SIZE(max_version.ptr()) >= 1) {
                    PyObject* major = PyTuple_GET_ITEM(max_version.ptr(), 0);
                    if (!PyLong_Check(major))
                        moira::fail<moira::TypeError>("__dlpack__: max_version must be a tuple of ints, got ",
                                                       nb::cast<std::string>(nb::repr(max_version)));
                    const int ge1 = PyObject_RichCompareBool(major, nb::int_(1).ptr(), Py_GE);
                    if (ge1 < 0) throw nb::python_error();
                    versioned = ge1 == 1;
                }
                if (!stream.is_none() && !(PyLong_Check(stream.ptr()) && PyLong_AsLong(stream.ptr()) == -1))
                    moira::fail<moira::ValueError>("__dlpack__: a CPU tensor takes no stream, got ",
                                                   nb::cast<std::string>(nb::repr(stream)));
                if (!dl_device.is_none() && !dl_device.equal(dlpack_device(t)))
                    throw nb::buffer_error("__dlpack__: the tensor lives on the CPU (DLPack device (1, 0))");
                if (!t.host_accessible()) {
                    // A stand-in GPU's memory is exported through the CPU, as a copy.
                    if (copy.ptr() == Py_False)
                        throw nb::buffer_error(("__dlpack__: device " + std::to_string(t.device()) +
                                                " is exported through the CPU, which needs a copy")
                                                   .c_str());
                    Tensor c = t.to_host();
                    return dlpack_capsule(c, versioned, true);
                }
                if (copy.ptr() == Py_True) {
                    Tensor c = t.clone();
                    return dlpack_capsule(c, versioned, true);
                }
                return dlpack_capsule(t, versioned);
            },
            nb::kw_only(), "stream"_a.none() = nb::none(), "max_version"_a.none() = nb::none(),
            "dl_device"_a.none() = nb::none(), "copy"_a.none() = nb::none(),
            nb::sig("def __dlpack__(self, *, stream: typing.Any | None = None, max_version: tuple[int, int] | None = "
                    "None, dl_device: tuple[int, int] | None = None, copy: bool | None = None) -> typing.Any"),
            "The DLPack capsule of this tensor's memory: the consumer shares it without a copy, and writes on "
            "either side are seen by the other (copy=True exports a copy instead).")
        .def("__dlpack_device__", &dlpack_device,
             nb::sig("def __dlpack_device__(self) -> tuple[int, int]"),
             "DLPack's (device type, id): (1, 0) for the CPU and for stand-in GPUs, which export through it; "
             "(2, i) for CUDA device 1000 + i.")
        // The state's array is a read-only view: pickling writes its bytes out, and loading copies them.
        .def("__getstate__", [](const Tensor& t) { return nb::make_tuple(to_numpy(t, false), t.device()); },
             nb::sig("def __getstate__(self) -> tuple[typing.Any, ...]"))
        .def("__setstate__",
             [](Tensor& self, nb::handle state) {
                 if (!PyTuple_Check(state.ptr()) || PyTuple_GET_SIZE(state.ptr()) != 2)
                     moira::fail<moira::ValueError>("Tensor: cannot restore a pickled tensor from ",
                                                    nb::cast<std::string>(nb::repr(state)));
                 nb::tuple st = nb::borrow<nb::tuple>(state);
                 new (&self) Tensor(tensor_from_python(st[0], device_arg(st[1], "Tensor")));
             },
             nb::sig("def __setstate__(self, state: tuple[typing.Any, ...], /) -> None"))
        .def("getShape", &shape_list, nb::sig("def getShape(self) -> list[int]"),
             "A new list of the extents of the axes.")
        .def("getdata", [](const Tensor& t) { return to_numpy(t, true); },
             nb::sig("def getdata(self) -> " MOIRA_PY_ARRAY), "A new numpy array holding a copy of the values.")
        .def(
            "__array__",
            [](nb::handle self, nb::handle dtype, nb::handle copy) {
                nb::object arr = to_numpy(core_ref(self, "__array__"), copy.ptr() == Py_True);
                if (!dtype.is_none()) arr = arr.attr("astype")(dtype);
                return arr;
            },
            "dtype"_a.none() = nb::none(), "copy"_a.none() = nb::none(),
            nb::sig("def __array__(self, dtype: " MOIRA_PY_DTYPE " = None, copy: bool | None = None) -> "
                    MOIRA_PY_ARRAY),
            "numpy view of the values (a copy when asked for).")
        .def(
            "item", [](const Tensor& t) { return scalar_to_python(t.item()); },
            nb::sig("def item(self) -> " MOIRA_PY_NUMBER),
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
                     nb::for_getter(nb::sig("def strides(self) -> list[int]")),
                     "The steps in elements between neighbours along each axis (0 where values repeat, negative "
                     "where the axis is read backwards).")
        .def_prop_ro("storage_offset", &Tensor::offset, "The position of the first element in the shared storage.")
        .def("is_contiguous", &Tensor::is_contiguous,
             "Whether the values lie in row-major order without gaps in the tensor's storage.")
        .def("contiguous", &Tensor::contiguous,
             "This tensor when its values are contiguous, else a contiguous copy of them.")
        .def(
            "as_strided",
            [](const Tensor& t, nb::handle shape, nb::handle strides, nb::handle offset) {
                return t.view(shape_from_python(shape, "as_strided"),
                              int_list_arg(strides, "as_strided", "strides", "strides must be integers"),
                              int_arg(offset, "as_strided", "offset must be an integer"));
            },
            "shape"_a, "strides"_a, "offset"_a = 0,
            nb::sig("def as_strided(self, shape: " MOIRA_PY_INTS ", strides: " MOIRA_PY_INT_LIST
                    ", offset: int = 0) -> " MOIRA_PY_TENSOR),
            "A view of this tensor's storage with the given shape, element strides and offset (in elements from "
            "the start of the storage); ValueError when it would reach outside the storage.")
        .def(
            "fill_",
            [](nb::handle self, nb::handle value) {
                moira::fill_(core_ref(self, "fill_"), scalar_arg(value, "fill_"));
                return nb::borrow(self);
            },
            "value"_a, nb::sig("def fill_(self, value: " MOIRA_PY_NUMBER ") -> " MOIRA_PY_TENSOR),
            "Fill the tensor with the specified value inplace; returns the tensor.")
        .def_static(
            "copyTensor", [](const Tensor& src, Tensor& dst) { moira::copy_into(dst, src); }, "src"_a, "dst"_a,
            "Copy the values of `src` into `dst` (equal shapes; the element type of `dst` is kept).");

    moira.def("from_dlpack", &tensor_from_dlpack, "obj"_a,
              "A tensor over the memory of `obj` (a numpy array, a torch tensor, anything with __dlpack__) without a "
              "copy: writes on either side are seen by the other.");
    moira.def(
        "copyTensor", [](const Tensor& src, Tensor& dst) { moira::copy_into(dst, src); }, "src"_a, "dst"_a,
        "Copy the values of `src` into `dst` (equal shapes; the element type of `dst` is kept).");

    moira.def(
        "memory_stats",
        [](nb::handle device) {
            const moira::MemoryStats s = moira::device(device_arg(device, "memory_stats")).allocator->stats();
            nb::dict d;
            d["in_use"] = s.in_use;
            d["peak"] = s.peak;
            d["cached"] = s.cached;
            return d;
        },
        "device"_a = 0, nb::sig("def memory_stats(device: int = 0) -> dict[str, int]"),
        "Bytes of `device`'s memory: 'in_use' by tensors now, 'peak' in use at once since the last "
        "reset_peak_memory, and 'cached' (freed, kept for reuse).");
    moira.def(
        "reset_peak_memory",
        [](nb::handle device) { moira::device(device_arg(device, "reset_peak_memory")).allocator->reset_peak(); },
        "device"_a = 0, nb::sig("def reset_peak_memory(device: int = 0) -> None"),
        "Start measuring `device`'s peak memory from the bytes in use now.");
    moira.def("gpu_count", &moira::gpu_count, "The number of GPU devices (1000, 1001, ...) this process has.");
    moira.def("get_num_threads", &moira::get_num_threads,
              "The number of threads pymoira's parallel loops and matrix products use: OMP_NUM_THREADS when "
              "pymoira was imported (else one per core), until set_num_threads changes it.");
    moira.def(
        "set_num_threads",
        [](nb::handle n) { moira::set_num_threads(int_arg(n, "set_num_threads", "the number of threads must be an integer")); },
        nb::sig("def set_num_threads(n: int) -> None"), "n"_a,
        "Use n threads (n >= 1) in pymoira's parallel loops and matrix products from now on, in every thread of "
        "the process; numpy's and PyTorch's own thread pools are not affected.");
    // What a binding that forgot to_host() would do: tests provoke the host-access check with it.
    moira.def(
        "_read_without_host_copy", [](const Tensor& t) { return t.raw() != nullptr; }, "t"_a,
        "Reads the tensor's memory address as host memory, without to_host(); for tests of the host-access check.");
}

}  // namespace pymoira
