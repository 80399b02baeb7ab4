// Layout operations that keep some elements and replace the others: triangles of matrices and
// fills where a mask is set; and the trace, the sum along one diagonal.
#pragma once

#include "core/tensor.hpp"

namespace moira {

// The upper (triu) or lower (tril) triangle of each matrix of the last two axes: elements on and
// above (below) diagonal k (0: the main one, positive: above it) kept, the others zero.
// ValueError for a tensor with fewer than 2 axes.
MOIRA_API Tensor triu(const Tensor& t, int64_t k = 0);
MOIRA_API Tensor tril(const Tensor& t, int64_t k = 0);

// The sum of diagonal k of a matrix (positive k above the main diagonal); 0 when the diagonal
// is empty. An int64 sum for bool and int64 matrices, a double one for floats. ValueError
// unless t has 2 axes.
MOIRA_API Scalar trace(const Tensor& t, int64_t k = 0);

// t and mask broadcast together; where the mask is set (non-zero) the result holds `value`
// (converted to t's type), elsewhere t's element.
MOIRA_API Tensor mask_fill(const Tensor& t, const Tensor& mask, Scalar value);

}  // namespace moira
