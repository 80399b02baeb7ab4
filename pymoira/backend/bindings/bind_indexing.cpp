// Bindings of the indexing kernels.
#include "bindings/bind.hpp"

namespace pymoira {

void init_indexing(TensorClass& cls, nb::module_& moira) {
    (void)cls;
    (void)moira;
}

}  // namespace pymoira
