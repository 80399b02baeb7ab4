// Orderings along one axis: sort, argsort, top-k and the gradient of top-k. The order of
// values, NaN and ties: Note [Sort order of values] (keys.hpp).
#pragma once

#include "core/tensor.hpp"

namespace moira {

// t's values / their positions (int64) sorted along `axis`. Every sort is stable, so `stable`
// changes nothing.
MOIRA_API Tensor sort(const Tensor& t, int64_t axis, bool descending, bool stable);
MOIRA_API Tensor argsort(const Tensor& t, int64_t axis, bool descending, bool stable);

// The k largest (largest true) or smallest values along `axis`, in that order, and their
// positions (int64). ValueError, before anything is computed, for k outside [0, n].
MOIRA_API Tensor topk(const Tensor& t, int64_t k, int64_t axis, bool largest);
MOIRA_API Tensor argtopk(const Tensor& t, int64_t k, int64_t axis, bool largest);

// The gradient of topk: g (the shape of topk's result) added at the positions topk took, zeros
// elsewhere, in t's shape.
MOIRA_API Tensor topk_grad(const Tensor& t, const Tensor& g, int64_t k, int64_t axis, bool largest);

}  // namespace moira
