// Bindings of the indexing kernels: basic indexing through index-string lists, and gathers and
// scatters by index tensors.
#include <nanobind/stl/vector.h>

#include "bindings/arguments.hpp"
#include "bindings/bind.hpp"

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

moira::BlockRows block_rows(nb::handle n, nb::handle m, nb::handle k, nb::handle mshape, nb::handle strides,
                            const Tensor& indice, const char* op) {
    moira::BlockRows r;
    r.n = int_arg(n, op, "n must be an integer");
    r.m = int_arg(m, op, "m must be an integer");
    r.k = int_arg(k, op, "k must be an integer");
    r.mshape = int_list_arg(mshape, op, "mshape", "entries must be integers");
    r.strides = int_list_arg(strides, op, "strides", "entries must be integers");
    r.indice = indice;
    return r;
}

}  // namespace

void init_indexing(TensorClass& cls, nb::module_& moira) {
    // Advanced indexing: see Note [Block addressing of advanced indexing].
    cls.def(
           "advance_indexing_for_pyfun",
           [](const Tensor& t, nb::handle n, nb::handle m, nb::handle k, nb::handle mshape, nb::handle strides,
              const Tensor& indice, Tensor& result) {
               moira::advance_gather_into(t, block_rows(n, m, k, mshape, strides, indice, "advance_indexing_for_pyfun"),
                                          result);
           },
           "n"_a, "m"_a, "k"_a, "mshape"_a, "strides"_a, "indice"_a, "result"_a,
           nb::sig("def advance_indexing_for_pyfun(self, n: int, m: int, k: int, mshape: " MOIRA_PY_INT_LIST
                   ", strides: " MOIRA_PY_INT_LIST ", indice: " MOIRA_PY_TENSOR ", result: " MOIRA_PY_TENSOR
                   ") -> None"),
           "Fill `result` (n * k elements) with the blocks of k elements that the n positions of `indice` address.")
        .def(
            "advance_indexing_bp_for_pyfun",
            [](const Tensor& g, nb::handle n, nb::handle m, nb::handle k, nb::handle mshape, nb::handle strides,
               const Tensor& indice, Tensor& out) {
                moira::advance_gather_bp_(
                    g, block_rows(n, m, k, mshape, strides, indice, "advance_indexing_bp_for_pyfun"), out);
            },
            "n"_a, "m"_a, "k"_a, "mshape"_a, "strides"_a, "indice"_a, "out"_a,
            nb::sig("def advance_indexing_bp_for_pyfun(self, n: int, m: int, k: int, mshape: " MOIRA_PY_INT_LIST
                    ", strides: " MOIRA_PY_INT_LIST ", indice: " MOIRA_PY_TENSOR ", out: " MOIRA_PY_TENSOR ") -> None"),
            "Add block p of this gradient into the block of `out` that position p addresses (repeats accumulate).")
        .def(
            "set_advance_indexing_for_pyfun",
            [](Tensor& t, nb::handle n, nb::handle m, nb::handle k, nb::handle mshape, nb::handle strides,
               const Tensor& indice, const Tensor& values) {
                moira::advance_scatter_(
                    t, block_rows(n, m, k, mshape, strides, indice, "set_advance_indexing_for_pyfun"), values);
            },
            "n"_a, "m"_a, "k"_a, "mshape"_a, "strides"_a, "indice"_a, "values"_a,
            nb::sig("def set_advance_indexing_for_pyfun(self, n: int, m: int, k: int, mshape: " MOIRA_PY_INT_LIST
                    ", strides: " MOIRA_PY_INT_LIST ", indice: " MOIRA_PY_TENSOR ", values: " MOIRA_PY_TENSOR
                    ") -> None"),
            "Write block p of `values` into the block that position p addresses, in order, in place.")
        .def(
            "set_advance_indexing_bp_for_pyfun",
            [](const Tensor& g, nb::handle n, nb::handle m, nb::handle k, nb::handle mshape, nb::handle strides,
               const Tensor& indice, nb::handle out_shape) {
                return moira::advance_scatter_bp(
                    g, block_rows(n, m, k, mshape, strides, indice, "set_advance_indexing_bp_for_pyfun"),
                    shape_from_python(out_shape, "set_advance_indexing_bp_for_pyfun"));
            },
            "n"_a, "m"_a, "k"_a, "mshape"_a, "strides"_a, "indice"_a, "out_shape"_a,
            nb::sig("def set_advance_indexing_bp_for_pyfun(self, n: int, m: int, k: int, mshape: " MOIRA_PY_INT_LIST
                    ", strides: " MOIRA_PY_INT_LIST ", indice: " MOIRA_PY_TENSOR ", out_shape: " MOIRA_PY_INTS
                    ") -> " MOIRA_PY_TENSOR),
            "The blocks of this gradient that the positions address, as a new tensor of `out_shape`.")
        .def_static("slice", &moira::mask_select, "data"_a, "mask"_a,
                    "The elements of data where mask (of data's shape) is not zero, in row-major order, 1-D.")
        .def_static("slice_bp", &moira::mask_select_bp, "data"_a, "mask"_a, "grad"_a,
                    "Zeros of data's shape with grad's values at the positions where mask is set.")
        .def_static("set_slice", &moira::mask_set_, "data"_a, "mask"_a, "values"_a,
                    "Write values (one per set position, or one for all) into data where mask is set, in place.")
        .def_static("set_slice_bp", &moira::mask_set_bp, "data"_a, "mask"_a, "grad"_a,
                    "grad's values at the positions where mask is set, 1-D.");

    moira.def(
        "gather",
        [](const Tensor& t, nb::handle indices) {
            return moira::gather(t, moira::index_leading(t.shape(), index_tensors(indices, "gather"), "gather"));
        },
        "t"_a, "indices"_a,
        nb::sig("def gather(t: " MOIRA_PY_TENSOR ", indices: " MOIRA_PY_TENSOR_LIST ") -> " MOIRA_PY_TENSOR),
        "t[i0, i1, ...] with integer index tensors for the leading axes, broadcast together (numpy's advanced "
        "indexing); negative positions count from the end.");
    moira.def(
        "scatter_",
        [](Tensor& t, nb::handle indices, const Tensor& values) {
            moira::scatter_(t, moira::index_leading(t.shape(), index_tensors(indices, "scatter_"), "scatter_"), values);
        },
        "t"_a, "indices"_a, "values"_a,
        nb::sig("def scatter_(t: " MOIRA_PY_TENSOR ", indices: " MOIRA_PY_TENSOR_LIST ", values: " MOIRA_PY_TENSOR
                ") -> None"),
        "t[i0, i1, ...] = values in place; where a position repeats, the last value written stays.");
    moira.def(
        "index_add_",
        [](Tensor& t, nb::handle indices, const Tensor& values) {
            moira::index_add_(t, moira::index_leading(t.shape(), index_tensors(indices, "index_add_"), "index_add_"),
                              values);
        },
        "t"_a, "indices"_a, "values"_a,
        nb::sig("def index_add_(t: " MOIRA_PY_TENSOR ", indices: " MOIRA_PY_TENSOR_LIST ", values: " MOIRA_PY_TENSOR
                ") -> None"),
        "t[i0, i1, ...] += values in place; repeated positions accumulate.");
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
           "index"_a, nb::sig("def select(self, index: " MOIRA_PY_INDEX_LIST ") -> " MOIRA_PY_TENSOR),
           "The part addressed by a list of index strings (one per leading axis: ':', 'B:E', 'B:E:S', an "
           "integer, or positions 'I1,I2,...,') as a new tensor.")
        .def(
            "set_select",
            [](Tensor& t, nb::handle index, const Tensor& values) {
                moira::set_select_(t, index_list_from_python(index, "set_select"), values);
            },
            "index"_a, "values"_a,
            nb::sig("def set_select(self, index: " MOIRA_PY_INDEX_LIST ", values: " MOIRA_PY_TENSOR ") -> None"),
            "Write values (of the addressed part's shape, or broadcastable to it) into the addressed part, in place.")
        .def_static(
            "select_bp",
            [](const Tensor& t, nb::handle index, const Tensor& g) {
                return moira::select_bp(t, index_list_from_python(index, "select_bp"), g);
            },
            "t"_a, "index"_a, "grad"_a,
            nb::sig("def select_bp(t: " MOIRA_PY_TENSOR ", index: " MOIRA_PY_INDEX_LIST ", grad: " MOIRA_PY_TENSOR
                    ") -> " MOIRA_PY_TENSOR),
            "Gradient of select: zeros of t's shape with grad added at the addressed positions.")
        .def_static(
            "set_select_bp",
            [](const Tensor& t, nb::handle index, const Tensor& g) {
                return moira::set_select_bp(t, index_list_from_python(index, "set_select_bp"), g);
            },
            "t"_a, "index"_a, "grad"_a,
            nb::sig("def set_select_bp(t: " MOIRA_PY_TENSOR ", index: " MOIRA_PY_INDEX_LIST ", grad: " MOIRA_PY_TENSOR
                    ") -> " MOIRA_PY_TENSOR),
            "Gradient of set_select for the written values: grad (of t's shape) at the addressed positions.");
}

}  // namespace pymoira
