// The built-in matrix product kernel: a batch of C = op(A) · op(B) on row-major matrices, where
// op transposes the operand when its flag is set. Used when no BLAS is linked or BLAS is
// switched off, and for sizes a BLAS cannot take (extents beyond its 32-bit integers).
#pragma once

#include <cstdint>

#include "core/dtype.hpp"

namespace moira {

// One call: `batch` products, operand i at a + i * stride_a (likewise b and c).
// A is m x k as seen by the product (stored k x m when ta), B is k x n (stored n x k when tb),
// C is m x n. lda/ldb/ldc are the row lengths of the stored matrices. C is overwritten. ca/cb:
// a complex operand is read conjugated; only together with its transpose flag (an adjoint).
template <class T>
struct GemmCall {
    int64_t m = 0, n = 0, k = 0;
    const T* a = nullptr;
    int64_t lda = 0;
    bool ta = false, ca = false;
    const T* b = nullptr;
    int64_t ldb = 0;
    bool tb = false, cb = false;
    T* c = nullptr;
    int64_t ldc = 0;
    int64_t batch = 1;
    int64_t stride_a = 0, stride_b = 0, stride_c = 0;
};

// Note [Instruction-set variants of the blocked kernel]
// gemm_kernel.hpp holds the whole blocked kernel (packing, register-blocked micro-kernel,
// threading). It is compiled three times, each translation unit under its own
// `#pragma GCC target` and register-tile sizes, into the namespaces below; gemm_blocked picks
// the best one the running CPU supports. The code lives in an anonymous namespace in each unit,
// so the three copies of the same templates never meet at link time.
namespace gemm_avx512 {
void run(const GemmCall<float>& call);
void run(const GemmCall<double>& call);
}  // namespace gemm_avx512
namespace gemm_avx2 {
void run(const GemmCall<float>& call);
void run(const GemmCall<double>& call);
}  // namespace gemm_avx2
namespace gemm_generic {
void run(const GemmCall<float>& call);
void run(const GemmCall<double>& call);
}  // namespace gemm_generic

// The blocked kernel for the running CPU. Every extent may be 0.
void gemm_blocked(const GemmCall<float>& call);
void gemm_blocked(const GemmCall<double>& call);

// Complex products by plain loops (complex_product.cpp). Every extent may be 0.
void complex_product(const GemmCall<complex64>& call);
void complex_product(const GemmCall<complex128>& call);

}  // namespace moira
