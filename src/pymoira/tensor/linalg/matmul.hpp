// The matrix products of pymoira.tensor.tensor; see matmul.cpp.
#pragma once

#include "object/qtensor.hpp"

namespace pymoira {

nb::object matmul_any(nb::handle t1, nb::handle t2);
nb::object matmul_2d(nb::handle t1, nb::handle t2);
nb::object matmul_bmm(nb::handle t1, nb::handle t2);
nb::object matmul_4d(nb::handle t1, nb::handle t2);


}  // namespace pymoira
