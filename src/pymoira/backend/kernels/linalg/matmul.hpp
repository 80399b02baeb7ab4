// Matrix products of 2-D matrices and of 3-D and 4-D batches, each operand optionally
// transposed (its last two axes swapped) or, for the gradients of complex products, read as its
// adjoint (the conjugate transpose), without being materialised.
//
// Note [Matrix product types and paths]
// The operands are promoted (bool < int64 < float32 < float64) and the result has the promoted
// type; bool products compute in int64 and give true where the count of true pairs is non-zero.
// float32, float64, complex64 and complex128 call BLAS when one is linked and switched on
// (set_blas): gemv where one side is a single row or column, gemm otherwise (blas.hpp); without
// it float types take the built-in blocked kernel (gemm.hpp) and complex types plain loops
// (loop_product.cpp), which also run batches of tiny products of every float type; int64 uses
// plain loops with wrap-around arithmetic. Zero-size axes give empty results, or zeros when only the inner axis is empty.
#pragma once

#include <string>
#include <vector>

#include "core/tensor.hpp"

namespace moira {

// How a product reads an operand: as it is, transposed, or as its adjoint (the conjugate
// transpose, which is the transpose of a real operand).
enum class MatrixRead { Plain, Transposed, Adjoint };

// [n, k] x [k, m] -> [n, m]; ValueError naming both shapes unless both are 2-D with matching
// inner extents (after the transposes).
MOIRA_API Tensor mult2D(const Tensor& a, const Tensor& b, MatrixRead read_a, MatrixRead read_b);
// [b, n, k] x [b, k, m] -> [b, n, m].
MOIRA_API Tensor bmm(const Tensor& a, const Tensor& b, MatrixRead read_a, MatrixRead read_b);
// [a, b, n, k] x [a, b, k, m] -> [a, b, n, m].
MOIRA_API Tensor matmul(const Tensor& a, const Tensor& b, MatrixRead read_a, MatrixRead read_b);

inline MatrixRead transposed_if(bool t) { return t ? MatrixRead::Transposed : MatrixRead::Plain; }
inline Tensor mult2D(const Tensor& a, const Tensor& b, bool trans_a = false, bool trans_b = false) {
    return mult2D(a, b, transposed_if(trans_a), transposed_if(trans_b));
}
inline Tensor bmm(const Tensor& a, const Tensor& b, bool trans_a = false, bool trans_b = false) {
    return bmm(a, b, transposed_if(trans_a), transposed_if(trans_b));
}
inline Tensor matmul(const Tensor& a, const Tensor& b, bool trans_a = false, bool trans_b = false) {
    return matmul(a, b, transposed_if(trans_a), transposed_if(trans_b));
}

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
