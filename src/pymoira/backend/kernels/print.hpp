// Text form of a tensor's values.
#pragma once

#include <string>

#include "core/tensor.hpp"

namespace moira {

// Note [Printed layout]
// The opening bracket stands alone on the first line and the closing bracket on the last; in
// between, one row per line, values separated by ", ". A 1-D tensor (and a 0-d one) is a
// single row; a tensor without elements prints as "[\n]". Tensors of three or more axes print
// each sub-tensor along the first axis in this same layout, separated by ",\n", inside an outer
// pair of bracket lines. Floats have `precision` decimals, integers print as integers and bools
// as True/False.
MOIRA_API std::string tensor_print(const Tensor& t, int precision);

}  // namespace moira
