// Registers the element-wise functions and operators of pymoira.tensor.tensor.
#include "init.hpp"

namespace pymoira {

void init_arithmetic(nb::module_& m, QTensorClass& cls);
void init_unary(nb::module_& m, QTensorClass& cls);
void init_power(nb::module_& m, QTensorClass& cls);
void init_compare(nb::module_& m, QTensorClass& cls);

void init_elementwise(nb::module_& m, QTensorClass& cls) {
    init_arithmetic(m, cls);
    init_unary(m, cls);
    init_power(m, cls);
    init_compare(m, cls);
}

}  // namespace pymoira
