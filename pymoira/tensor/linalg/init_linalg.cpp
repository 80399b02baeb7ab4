// Registers the linalg functions of pymoira.tensor.tensor.
#include "init.hpp"
#include "linalg/matmul.hpp"

namespace pymoira {

void init_linalg(nb::module_& m, QTensorClass& cls) {
    (void)cls;
    init_matmul(m);
}

}  // namespace pymoira
