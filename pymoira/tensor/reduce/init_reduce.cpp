// Registers the reduce functions of pymoira.tensor.tensor.
#include "init.hpp"

namespace pymoira {

void init_sums(nb::module_& m, QTensorClass& cls);

void init_reduce(nb::module_& m, QTensorClass& cls) {
    init_sums(m, cls);
}

}  // namespace pymoira
