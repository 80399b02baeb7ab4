// The two CBLAS routines the matrix products call, declared here so the build needs the BLAS
// library only, not its headers. Present when CMake found a BLAS (MOIRA_HAVE_BLAS).
#pragma once

#ifdef MOIRA_HAVE_BLAS

extern "C" {

// CBLAS enumerations, passed as the ints they are.
enum { kCblasRowMajor = 101, kCblasNoTrans = 111, kCblasTrans = 112 };

void cblas_sgemm(int order, int trans_a, int trans_b, int m, int n, int k, float alpha, const float* a, int lda,
                 const float* b, int ldb, float beta, float* c, int ldc);
void cblas_dgemm(int order, int trans_a, int trans_b, int m, int n, int k, double alpha, const double* a, int lda,
                 const double* b, int ldb, double beta, double* c, int ldc);

// OpenBLAS's thread control. Weak: another BLAS lacks it and leaves it null.
void openblas_set_num_threads(int threads) __attribute__((weak));

}  // extern "C"

#endif
