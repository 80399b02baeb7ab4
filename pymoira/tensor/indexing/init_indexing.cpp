// Registers the indexing functions of pymoira.tensor.tensor.
#include "init.hpp"

namespace pymoira {

void init_indexing(nb::module_& m, QTensorClass& cls) {
    (void)m;
    (void)cls;
}

}  // namespace pymoira
