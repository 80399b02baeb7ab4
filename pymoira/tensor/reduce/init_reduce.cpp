// Registers the reduce functions of pymoira.tensor.tensor.
#include "init.hpp"

namespace pymoira {

void init_sums(nb::module_& m);

void init_reduce(nb::module_& m, QTensorClass& cls) {
    (void)cls;
    init_sums(m);
}

}  // namespace pymoira
