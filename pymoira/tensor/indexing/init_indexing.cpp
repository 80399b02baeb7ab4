// Registers the indexing functions of pymoira.tensor.tensor.
#include "indexing/index_strings.hpp"
#include "indexing/wrap_dim.hpp"
#include "init.hpp"

namespace pymoira {

void init_indexing(nb::module_& m, QTensorClass& cls) {
    (void)cls;
    init_wrap_dim(m);
    init_index_strings(m);
}

}  // namespace pymoira
