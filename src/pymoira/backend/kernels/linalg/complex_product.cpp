// Complex matrix products without BLAS (none linked, switched off, or extents beyond its
// integers): plain loops over the rows of C, in the operands' own precision as BLAS computes.
#include <complex>

#include "core/dtype.hpp"
#include "kernels/linalg/gemm.hpp"
#include "kernels/parallel.hpp"

namespace moira {

namespace {

// The textbook product: no recovery of infinities from NaN parts (C99's rule), which would keep
// the loops from vectorising; numpy's products are the same.
template <class T>
inline T times(T x, T y) {
    return T(x.real() * y.real() - x.imag() * y.imag(), x.real() * y.imag() + x.imag() * y.real());
}

template <class T>
void product_loops(const GemmCall<T>& c) {
    const int64_t rows = c.batch * c.m;
    const int64_t per_row = std::max<int64_t>(1, c.n * c.k);
    parallel_for(rows, [&](int64_t lo, int64_t hi) {
        for (int64_t r = lo; r < hi; ++r) {
            const int64_t bi = r / c.m, i = r % c.m;
            const T* a = c.a + bi * c.stride_a;
            const T* b = c.b + bi * c.stride_b;
            T* out = c.c + bi * c.stride_c + i * c.ldc;
            auto a_at = [&](int64_t p) {
                const T v = c.ta ? a[p * c.lda + i] : a[i * c.lda + p];
                return c.ca ? std::conj(v) : v;
            };
            if (c.tb) {  // dot products of row i of op(A) with the stored rows of B
                for (int64_t j = 0; j < c.n; ++j) {
                    const T* brow = b + j * c.ldb;
                    T sum(0);
                    for (int64_t p = 0; p < c.k; ++p) sum += times(a_at(p), c.cb ? std::conj(brow[p]) : brow[p]);
                    out[j] = sum;
                }
                continue;
            }
            for (int64_t j = 0; j < c.n; ++j) out[j] = T(0);
            for (int64_t p = 0; p < c.k; ++p) {
                const T av = a_at(p);
                const T* brow = b + p * c.ldb;
                if (c.cb)
                    for (int64_t j = 0; j < c.n; ++j) out[j] += times(av, std::conj(brow[j]));
                else
                    for (int64_t j = 0; j < c.n; ++j) out[j] += times(av, brow[j]);
            }
        }
    }, std::max<int64_t>(1, kParallelGrain / per_row));
}

}  // namespace

void complex_product(const GemmCall<complex64>& call) { product_loops(call); }
void complex_product(const GemmCall<complex128>& call) { product_loops(call); }

}  // namespace moira
