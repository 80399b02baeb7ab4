// Folding a gradient back onto the shape it was expanded from: the one routine behind the
// gradients of tiling and of broadcasting.
#pragma once

#include "core/tensor.hpp"

namespace moira {

// The gradient of tiling: `g` is `shape` tiled `reps` times (shape and reps padded with leading
// ones to g's rank); each output element is the sum of g over the copies laid onto it. The
// result is a new contiguous tensor of `shape`. ValueError when g's shape is not
// shape[i] * reps[i] on every axis.
MOIRA_API Tensor tile_grad(const Tensor& g, const Shape& shape, const Shape& reps);

// The gradient of broadcasting a tensor of `shape` to g's shape: g summed over the broadcast
// axes, in `shape` (tile_grad with the repetitions the broadcast made). Returns g itself (the
// same storage) when the shapes are equal. ValueError when `shape` does not broadcast to g's.
MOIRA_API Tensor fold_to(const Tensor& g, const Shape& shape);

}  // namespace moira
