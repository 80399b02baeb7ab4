// Bindings of the linalg kernels.
#include "bindings/bind.hpp"

namespace pymoira {

void init_linalg(TensorClass& cls, nb::module_& moira) {
    (void)cls;
    (void)moira;
}

}  // namespace pymoira
