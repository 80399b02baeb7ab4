// Matrix products of 2-D matrices and of 3-D and 4-D batches, each operand optionally
// transposed (its last two axes swapped) without being materialised.
//
// Note [Matrix product types and paths]
// The operands are promoted (bool < int64 < float32 < float64) and the result has the promoted
// type; bool products compute in int64 and give true where the count of true pairs is non-zero.
// float32 and float64 call BLAS when one is linked and switched on (set_blas): gemv where one
// side is a single row or column, gemm otherwise (blas.hpp), and the built-in blocked kernel
// otherwise (gemm.hpp); int64 uses plain loops with wrap-around arithmetic. Zero-size axes give empty results, or zeros when only the inner axis is empty.
#pragma once

#include <string>
#include <vector>

#include "core/tensor.hpp"

namespace moira {

// [n, k] x [k, m] -> [n, m]; ValueError naming both shapes unless both are 2-D with matching
// inner extents (after the transposes).
MOIRA_API Tensor mult2D(const Tensor& a, const Tensor& b, bool trans_a = false, bool trans_b = false);
// [b, n, k] x [b, k, m] -> [b, n, m].
MOIRA_API Tensor bmm(const Tensor& a, const Tensor& b, bool trans_a = false, bool trans_b = false);
// [a, b, n, k] x [a, b, k, m] -> [a, b, n, m].
MOIRA_API Tensor matmul(const Tensor& a, const Tensor& b, bool trans_a = false, bool trans_b = false);

// Whether this build links a BLAS; whether float products use it now. set_blas(false) routes them
// through the built-in kernel (set_blas(true) has no effect without a BLAS); returns the previous
// setting.
MOIRA_API bool blas_available();
MOIRA_API bool blas_enabled();
MOIRA_API bool set_blas(bool on);

// The variants of the built-in kernel this CPU can run ("generic", "avx2", "avx512"), and a
// switch for tests: one of those names, or "auto" for the best. ValueError for an unknown name
// or one the CPU cannot run.
MOIRA_API std::vector<std::string> blocked_kernels();
MOIRA_API void set_blocked_kernel(const std::string& name);

}  // namespace moira
