// Layout methods of Tensor and functions of moira: reshapes, axis permutations, broadcasting to
// a shape or a tensor, flips, triangles, the trace, joins, splits, tiling and masked fills.
#include <string>

#include "bindings/arguments.hpp"
#include "bindings/bind.hpp"
#include "bindings/to_python.hpp"

namespace pymoira {

using moira::Tensor;
using namespace nb::literals;

namespace {

// A list or tuple of integers of any sign, one integer being a list of one (`what`: "axes",
// "sections", "reps"). The kernels check the values.
std::vector<int64_t> int_or_list_arg(nb::handle obj, const char* op, const char* what) {
    const std::string entries = std::string(what) + " must be integers";
    return int_list_arg(obj, op, what, entries.c_str(), true);
}

std::vector<int64_t> axes_arg(nb::handle obj, const char* op) { return int_or_list_arg(obj, op, "axes"); }

// The permutation argument of transpose: None reverses the axes.
std::vector<int64_t> permutation_arg(const Tensor& t, nb::handle dims, const char* op) {
    return dims.is_none() ? moira::reversed_axes(t.ndim()) : axes_arg(dims, op);
}

// A list or tuple of backend tensors.
std::vector<Tensor> tensors_arg(nb::handle obj, const char* op) {
    PyObject* o = obj.ptr();
    if (!PyList_Check(o) && !PyTuple_Check(o))
        moira::fail<moira::TypeError>(op, ": expected a list of Tensors, got ", Py_TYPE(o)->tp_name);
    std::vector<Tensor> out;
    out.reserve(static_cast<size_t>(PySequence_Size(o)));
    for (nb::handle item : obj) out.push_back(core_ref(item, op));
    return out;
}

nb::list wrap_all(std::vector<Tensor> pieces) {
    nb::list out;
    for (Tensor& p : pieces) out.append(wrap_core(std::move(p)));
    return out;
}

// A fill value: a number or a one-element Tensor.
moira::Scalar fill_value_arg(nb::handle obj, const char* op) {
    if (is_core(obj)) return core_ref(obj, op).item();
    return scalar_arg(obj, op);
}

}  // namespace

void init_layout(TensorClass& cls, nb::module_& moira) {
    cls.def(
           "reshape",
           [](const Tensor& t, nb::handle shape) { return moira::reshape(t, shape_from_python(shape, "reshape", true)); },
           "shape"_a, nb::sig("def reshape(self, shape: " MOIRA_PY_INTS ") -> " MOIRA_PY_TENSOR),
           "The values under a new shape (one entry may be -1): a view when the layout allows it.")
        .def(
            "reshape_",
            [](Tensor& t, nb::handle shape) { moira::reshape_(t, shape_from_python(shape, "reshape_", true)); },
            "shape"_a, nb::sig("def reshape_(self, shape: " MOIRA_PY_INTS ") -> None"),
            "Give the tensor a new shape in place (one entry may be -1).")
        .def(
            "flatten",
            [](const Tensor& t, nb::handle start, nb::handle end) {
                return moira::flatten(t, axis_arg(start, "flatten"), axis_arg(end, "flatten"));
            },
            "start"_a = 0, "end"_a = -1,
            nb::sig("def flatten(self, start: int = 0, end: int = -1) -> " MOIRA_PY_TENSOR),
            "Axes start to end (both included) merged into one.")
        .def(
            "squeeze", [](const Tensor& t, nb::handle axis) { return moira::squeeze(t, axis_arg(axis, "squeeze")); },
            "axis"_a = -1, nb::sig("def squeeze(self, axis: int = -1) -> " MOIRA_PY_TENSOR),
            "Without the length-1 axis `axis` (a view).")
        .def(
            "squeeze_", [](Tensor& t, nb::handle axis) { moira::squeeze_(t, axis_arg(axis, "squeeze_")); },
            "axis"_a = -1, nb::sig("def squeeze_(self, axis: int = -1) -> None"),
            "Remove the length-1 axis `axis` in place.")
        .def(
            "unsqueeze", [](const Tensor& t, nb::handle axis) { return moira::unsqueeze(t, axis_arg(axis, "unsqueeze")); },
            "axis"_a = 0, nb::sig("def unsqueeze(self, axis: int = 0) -> " MOIRA_PY_TENSOR),
            "With a new length-1 axis at position `axis` (a view).")
        .def(
            "transpose",
            [](const Tensor& t, nb::handle dims) { return moira::permute(t, permutation_arg(t, dims, "transpose")); },
            "dims"_a.none() = nb::none(),
            nb::sig("def transpose(self, dims: " MOIRA_PY_INTS " | None = None) -> " MOIRA_PY_TENSOR),
            "The axes permuted: axis k of the result is axis dims[k]; None reverses them (a view).")
        .def(
            "transpose_",
            [](Tensor& t, nb::handle dims) { moira::permute_(t, permutation_arg(t, dims, "transpose_")); },
            "dims"_a.none() = nb::none(),
            nb::sig("def transpose_(self, dims: " MOIRA_PY_INTS " | None = None) -> None"),
            "Permute the axes in place (None reverses them).")
        .def(
            "swapaxis",
            [](const Tensor& t, nb::handle a, nb::handle b) {
                return moira::swapaxes(t, axis_arg(a, "swapaxis"), axis_arg(b, "swapaxis"));
            },
            "axis1"_a, "axis2"_a, nb::sig("def swapaxis(self, axis1: int, axis2: int) -> " MOIRA_PY_TENSOR),
            "Axes axis1 and axis2 exchanged (a view).")
        .def(
            "broadcast_to",
            [](const Tensor& t, nb::handle other) {
                if (is_core(other)) return moira::broadcast_against(t, core_ref(other, "broadcast_to"));
                return moira::broadcast_to(t, shape_from_python(other, "broadcast_to"));
            },
            "other"_a,
            nb::sig("def broadcast_to(self, other: " MOIRA_PY_INTS " | " MOIRA_PY_TENSOR ") -> " MOIRA_PY_TENSOR),
            "The tensor repeated along its broadcast axes (a view): to the shape it broadcasts to together with "
            "`other` when that is a Tensor, else to the shape `other`.")
        .def(
            "flip", [](const Tensor& t, nb::handle axes) { return moira::flip(t, axes_arg(axes, "flip")); }, "axes"_a,
            nb::sig("def flip(self, axes: " MOIRA_PY_INTS ") -> " MOIRA_PY_TENSOR),
            "The values read backwards along each of `axes` (a view).")
        .def(
            "triu", [](const Tensor& t, nb::handle k) { return moira::triu(t, int_arg(k, "triu", "diagonal must be an integer")); },
            "diagonal"_a = 0, nb::sig("def triu(self, diagonal: int = 0) -> " MOIRA_PY_TENSOR),
            "Each matrix of the last two axes with the elements below diagonal `diagonal` zeroed.")
        .def(
            "tril", [](const Tensor& t, nb::handle k) { return moira::tril(t, int_arg(k, "tril", "diagonal must be an integer")); },
            "diagonal"_a = 0, nb::sig("def tril(self, diagonal: int = 0) -> " MOIRA_PY_TENSOR),
            "Each matrix of the last two axes with the elements above diagonal `diagonal` zeroed.")
        .def(
            "trace",
            [](const Tensor& t, nb::handle k) -> nb::object {
                return scalar_to_python(moira::trace(t, int_arg(k, "trace", "k must be an integer")));
            },
            "k"_a = 0, nb::sig("def trace(self, k: int = 0) -> int | float | complex"),
            "The sum of diagonal k of a matrix, as a Python number.")
        .def(
            "split",
            [](const Tensor& t, nb::handle sections, nb::handle axis) {
                return wrap_all(moira::split(t, int_or_list_arg(sections, "split", "sections"), axis_arg(axis, "split")));
            },
            "sections"_a, "axis"_a = 0,
            nb::sig("def split(self, sections: " MOIRA_PY_INTS ", axis: int = 0) -> list[" MOIRA_PY_TENSOR "]"),
            "Consecutive pieces (views) along `axis` of the lengths in `sections`.")
        .def(
            "chunk",
            [](const Tensor& t, nb::handle chunks, nb::handle axis) {
                return wrap_all(moira::chunk(t, int_arg(chunks, "chunk", "chunks must be an integer"), axis_arg(axis, "chunk")));
            },
            "chunks"_a, "axis"_a = 0,
            nb::sig("def chunk(self, chunks: int, axis: int = 0) -> list[" MOIRA_PY_TENSOR "]"),
            "`chunks` pieces (views) of d // chunks positions along `axis` of length d; the last d % chunks "
            "positions belong to no piece.");

    moira.def(
        "concat",
        [](nb::handle tensors, nb::handle axis) { return moira::concat(tensors_arg(tensors, "concat"), axis_arg(axis, "concat")); },
        "tensors"_a, "axis"_a = 0,
        nb::sig("def concat(tensors: " MOIRA_PY_TENSOR_LIST ", axis: int = 0) -> " MOIRA_PY_TENSOR),
        "The tensors joined along `axis` in list order.");
    moira.def(
        "stack",
        [](nb::handle tensors, nb::handle axis) { return moira::stack(tensors_arg(tensors, "stack"), axis_arg(axis, "stack")); },
        "tensors"_a, "axis"_a = 0,
        nb::sig("def stack(tensors: " MOIRA_PY_TENSOR_LIST ", axis: int = 0) -> " MOIRA_PY_TENSOR),
        "The tensors (of one shape) as the positions of a new axis `axis`.");
    moira.def(
        "tile", [](const Tensor& t, nb::handle reps) { return moira::tile(t, int_or_list_arg(reps, "tile", "reps")); }, "t"_a,
        "reps"_a.none(), nb::sig("def tile(t: " MOIRA_PY_TENSOR ", reps: " MOIRA_PY_INTS ") -> " MOIRA_PY_TENSOR),
        "t repeated reps[i] times along axis i (numpy's rule for unequal lengths).");
    moira.def(
        "mask_fill_broadcast",
        [](const Tensor& t, const Tensor& mask, nb::handle value) {
            return moira::mask_fill(t, mask, fill_value_arg(value, "mask_fill_broadcast"));
        },
        "t"_a, "mask"_a, "value"_a,
        nb::sig("def mask_fill_broadcast(t: " MOIRA_PY_TENSOR ", mask: " MOIRA_PY_TENSOR ", value: " MOIRA_PY_OPERAND
                ") -> " MOIRA_PY_TENSOR),
        "t where the mask is zero, `value` where it is set (the two broadcast together).");
    moira.def(
        "mask_fill_broadcast_back",
        [](const Tensor& g, const Tensor& t, const Tensor& mask) {
            moira::broadcast_shapes(t.shape(), mask.shape());
            return moira::mask_fill(g, mask, moira::Scalar::from_int(0));
        },
        "grad"_a, "t"_a, "mask"_a, "The gradient of mask_fill_broadcast: grad with the filled positions zeroed.");
}

}  // namespace pymoira
