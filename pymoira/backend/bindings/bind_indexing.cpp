// Bindings of the indexing kernels: basic indexing through index-string lists.
#include "bindings/bind.hpp"
#include "bindings/index_list.hpp"

namespace pymoira {

using moira::Tensor;
using namespace nb::literals;

void init_indexing(TensorClass& cls, nb::module_& moira) {
    (void)moira;
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
