// The BLAS routines behind the float matrix products, declared here so the build needs the
// library only, not its headers, and the BLAS path of the products (blas_product.cpp). Present
// when CMake found a BLAS (MOIRA_HAVE_BLAS). The OpenBLAS that pymoira installs inside its
// package (MOIRA_BLAS_SCIPY) exports every symbol with the prefix scipy_, which keeps it apart
// from numpy's own OpenBLAS in the same process; a system BLAS uses the plain names.
#pragma once

#ifdef MOIRA_HAVE_BLAS

#include <climits>

#include "kernels/linalg/gemm.hpp"

#ifdef MOIRA_BLAS_SCIPY
#define MOIRA_BLAS_NAME(name) scipy_##name
#else
#define MOIRA_BLAS_NAME(name) name
#endif

extern "C" {

// CBLAS enumerations, passed as the ints they are.
enum { kCblasRowMajor = 101, kCblasNoTrans = 111, kCblasTrans = 112, kCblasConjTrans = 113 };

void MOIRA_BLAS_NAME(cblas_sgemm)(int order, int trans_a, int trans_b, int m, int n, int k, float alpha,
                                  const float* a, int lda, const float* b, int ldb, float beta, float* c, int ldc);
void MOIRA_BLAS_NAME(cblas_dgemm)(int order, int trans_a, int trans_b, int m, int n, int k, double alpha,
                                  const double* a, int lda, const double* b, int ldb, double beta, double* c,
                                  int ldc);
void MOIRA_BLAS_NAME(cblas_sgemv)(int order, int trans, int m, int n, float alpha, const float* a, int lda,
                                  const float* x, int incx, float beta, float* y, int incy);
void MOIRA_BLAS_NAME(cblas_dgemv)(int order, int trans, int m, int n, double alpha, const double* a, int lda,
                                  const double* x, int incx, double beta, double* y, int incy);

// Complex routines take alpha and beta by address; matrices are interleaved (real, imaginary).
void MOIRA_BLAS_NAME(cblas_cgemm)(int order, int trans_a, int trans_b, int m, int n, int k, const void* alpha,
                                  const void* a, int lda, const void* b, int ldb, const void* beta, void* c, int ldc);
void MOIRA_BLAS_NAME(cblas_zgemm)(int order, int trans_a, int trans_b, int m, int n, int k, const void* alpha,
                                  const void* a, int lda, const void* b, int ldb, const void* beta, void* c, int ldc);
void MOIRA_BLAS_NAME(cblas_cgemv)(int order, int trans, int m, int n, const void* alpha, const void* a, int lda,
                                  const void* x, int incx, const void* beta, void* y, int incy);
void MOIRA_BLAS_NAME(cblas_zgemv)(int order, int trans, int m, int n, const void* alpha, const void* a, int lda,
                                  const void* x, int incx, const void* beta, void* y, int incy);

// OpenBLAS's thread control. Weak: another BLAS lacks it and leaves this null.
void MOIRA_BLAS_NAME(openblas_set_num_threads)(int threads) __attribute__((weak));

}  // extern "C"

namespace moira {

// Whether BLAS can take the call: its extents and row lengths fit BLAS's 32-bit integers and
// the depth is not empty (BLAS refuses leading dimensions of 0).
template <class T>
bool blas_fits(const GemmCall<T>& c) {
    return c.k > 0 && c.m <= INT_MAX && c.n <= INT_MAX && c.k <= INT_MAX && c.lda <= INT_MAX && c.ldb <= INT_MAX &&
           c.ldc <= INT_MAX;
}

// The product through BLAS: gemv where one side is a vector, gemm otherwise, on threads chosen
// per shape (Note [BLAS threads]). The call must fit (blas_fits).
void blas_product(const GemmCall<float>& call);
void blas_product(const GemmCall<double>& call);
void blas_product(const GemmCall<complex64>& call);
void blas_product(const GemmCall<complex128>& call);

}  // namespace moira

#endif
