// Registers the elementwise functions of pymoira.tensor.tensor.
#include "init.hpp"

namespace pymoira {

void init_elementwise(nb::module_& m, QTensorClass& cls) {
    (void)m;
    (void)cls;
}

}  // namespace pymoira
