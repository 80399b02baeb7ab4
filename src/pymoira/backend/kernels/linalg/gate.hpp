// A small matrix applied along axes of a large tensor in one pass: every element is read once and
// written once, with no permuted copies around a matrix product (Note [Applying a gate]).
#pragma once

#include <cstdint>
#include <vector>

#include "core/tensor.hpp"

namespace moira {

// The largest matrix side apply_matrix takes: a gate on up to four qubits.
constexpr int64_t kMaxGateSide = 16;

// out[..., z, ...] = sum_b M[z, b] x[..., b, ...], b running over the listed axes of x (their
// combined index, row-major in the order given) and z over the same axes of out. M is
// [rows, cols] with cols the product of the axes' lengths, or [K, rows, cols] with a batch of
// matrices along x's axis `batch_axis` (of length K; -1: no batch). Several axes need a square M
// (out keeps x's shape); one axis takes rows to be its new length. `adjoint` applies each M's
// conjugate transpose (the gradient). Every side is at most kMaxGateSide; ValueError naming the
// problem otherwise.
MOIRA_API Tensor apply_matrix(const Tensor& m, const Tensor& x, const std::vector<int64_t>& axes,
                              int64_t batch_axis = -1, bool adjoint = false);

// The gradient of apply_matrix's matrix: dM[k][z, b] = sum over the positions of batch entry k of
// g[..., z, ...] conj(x[..., b, ...]) ([rows, cols], or [K, rows, cols] with a batch axis), g
// shaped as apply_matrix's result. One pass over g and x; the sums add fixed chunks in a fixed
// order, so the result does not depend on the thread count.
MOIRA_API Tensor gate_outer(const Tensor& g, const Tensor& x, const std::vector<int64_t>& axes, int64_t batch_axis = -1);

}  // namespace moira
