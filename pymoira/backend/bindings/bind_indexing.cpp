// Bindings of the indexing kernels: basic indexing through index-string lists, and gathers and
// scatters by index tensors.
#include <nanobind/stl/vector.h>

#include "bindings/bind.hpp"
#include "bindings/index_list.hpp"

namespace pymoira {

using moira::Tensor;
using namespace nb::literals;

namespace {

// A list or tuple of backend tensors: the index tensors of the leading axes.
std::vector<Tensor> index_tensors(nb::handle obj, const char* op) {
    if (!PyList_Check(obj.ptr()) && !PyTuple_Check(obj.ptr()))
        moira::fail<moira::TypeError>(op, ": indices must be a list of Tensors, got ", Py_TYPE(obj.ptr())->tp_name);
    std::vector<Tensor> out;
    for (nb::handle item : obj) out.push_back(core_ref(item, op));
    return out;
}

}  // namespace

void init_indexing(TensorClass& cls, nb::module_& moira) {
    moira.def(
        "gather",
        [](const Tensor& t, nb::handle indices) {
            return moira::gather(t, moira::index_leading(t.shape(), index_tensors(indices, "gather"), "gather"));
        },
        "t"_a, "indices"_a,
        "t[i0, i1, ...] with integer index tensors for the leading axes, broadcast together (numpy's advanced "
        "indexing); negative positions count from the end.");
    moira.def(
        "scatter_",
        [](Tensor& t, nb::handle indices, const Tensor& values) {
            moira::scatter_(t, moira::index_leading(t.shape(), index_tensors(indices, "scatter_"), "scatter_"), values);
        },
        "t"_a, "indices"_a, "values"_a,
        "t[i0, i1, ...] = values in place; where a position repeats, the last value written stays.");
    moira.def(
        "index_add_",
        [](Tensor& t, nb::handle indices, const Tensor& values) {
            moira::index_add_(t, moira::index_leading(t.shape(), index_tensors(indices, "index_add_"), "index_add_"),
                              values);
        },
        "t"_a, "indices"_a, "values"_a, "t[i0, i1, ...] += values in place; repeated positions accumulate.");
    moira.def(
        "gather_along",
        [](const Tensor& t, int64_t axis, const Tensor& positions) {
            return moira::gather(t, moira::index_along_axis(t.shape(), axis, positions, "gather_along"));
        },
        "t"_a, "axis"_a, "positions"_a, "The elements at `positions` along `axis`, one lane of positions per lane.");
    moira.def(
        "index_add_along_",
        [](Tensor& t, int64_t axis, const Tensor& positions, const Tensor& values) {
            moira::index_add_(t, moira::index_along_axis(t.shape(), axis, positions, "index_add_along_"), values);
        },
        "t"_a, "axis"_a, "positions"_a, "values"_a,
        "Adds `values` into the elements at `positions` along `axis`, in place; repeated positions accumulate.");
    cls.def(
           "select", [](const Tensor& t, nb::handle index) { return moira::select(t, index_list_from_python(index, "select")); },
           "index"_a,
           "The part addressed by a list of index strings (one per leading axis: ':', 'B:E', 'B:E:S', an "
           "integer, or positions 'I1,I2,...,') as a new tensor.")
        .def(
            "set_select",
            [](Tensor& t, nb::handle index, const Tensor& values) {
                moira::set_select_(t, index_list_from_python(index, "set_select"), values);
            },
            "index"_a, "values"_a,
            "Write values (of the addressed part's shape, or broadcastable to it) into the addressed part, in place.")
        .def_static(
            "select_bp",
            [](const Tensor& t, nb::handle index, const Tensor& g) {
                return moira::select_bp(t, index_list_from_python(index, "select_bp"), g);
            },
            "t"_a, "index"_a, "grad"_a,
            "Gradient of select: zeros of t's shape with grad added at the addressed positions.")
        .def_static(
            "set_select_bp",
            [](const Tensor& t, nb::handle index, const Tensor& g) {
                return moira::set_select_bp(t, index_list_from_python(index, "set_select_bp"), g);
            },
            "t"_a, "index"_a, "grad"_a,
            "Gradient of set_select for the written values: grad (of t's shape) at the addressed positions.");
}

}  // namespace pymoira
