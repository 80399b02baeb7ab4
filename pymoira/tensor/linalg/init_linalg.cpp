// Registers the linalg functions of pymoira.tensor.tensor.
#include "init.hpp"

namespace pymoira {

void init_linalg(nb::module_& m, QTensorClass& cls) {
    (void)m;
    (void)cls;
}

}  // namespace pymoira
