// Bindings of the reduce kernels.
#include "bindings/bind.hpp"

namespace pymoira {

void init_reduce(TensorClass& cls, nb::module_& moira) {
    (void)cls;
    (void)moira;
}

}  // namespace pymoira
