// Matrix products by plain loops, in the operands' own precision as BLAS computes: complex
// products without BLAS (none linked, switched off, or extents beyond its integers), and, for
// any float type, batches of tiny products, where a BLAS call per entry costs more than its
// arithmetic (a gate along the last axes of a state: [2, 2] x [2, 1] thousands of times), and
// products of a tiny depth, which BLAS would pack for nothing (a gate along the first axes).
#include <algorithm>
#include <complex>
#include <vector>

#include "core/dtype.hpp"
#include "kernels/elementwise/functors.hpp"
#include "kernels/linalg/gemm.hpp"
#include "kernels/parallel.hpp"

namespace moira {

namespace {

// Columns of C per work item: a row of C is cut into blocks so that a few long rows (a gate
// applied along the first axes of a state: [2, 2] x [2, n]) still spread over the threads.
constexpr int64_t kColumns = 512;

template <bool Conj, class T>
inline T read(T v) {
    if constexpr (Conj) return fn::conj_of(v);
    else return v;
}

// out[j0:j1] = row (k values of op(A)) times columns j0:j1 of op(B): B's stored rows streamed, or,
// when B is read transposed, dot products with its stored rows.
template <bool ConjB, class T>
void row_times(const GemmCall<T>& c, const T* row, const T* b, T* out, int64_t j0, int64_t j1) {
    using fn::times;  // complex: the textbook product, as numpy's
    if (c.tb) {
        for (int64_t j = j0; j < j1; ++j) {
            const T* brow = b + j * c.ldb;
            T sum(0);
            for (int64_t p = 0; p < c.k; ++p) sum += times(row[p], read<ConjB>(brow[p]));
            out[j] = sum;
        }
    } else if (c.n == 1) {
        T sum(0);
        for (int64_t p = 0; p < c.k; ++p) sum += times(row[p], read<ConjB>(b[p * c.ldb]));
        out[0] = sum;
    } else {
        for (int64_t j = j0; j < j1; ++j) out[j] = T(0);
        for (int64_t p = 0; p < c.k; ++p) {
            const T av = row[p];
            const T* brow = b + p * c.ldb;
            for (int64_t j = j0; j < j1; ++j) out[j] += times(av, read<ConjB>(brow[j]));
        }
    }
}

// C[e](i, j0:j1) for every work item (entry e, row i, column block) of [lo, hi), walked with
// counters (no division per item: the items of a gate on the last axis are single elements).
// A row of op(A) that is not a stored row (transposed or conjugated) is gathered into `buffer`.
template <class T>
void product_items(const GemmCall<T>& c, int64_t blocks, int64_t lo, int64_t hi) {
    std::vector<T> buffer(c.ta || c.ca ? static_cast<size_t>(c.k) : 0);
    int64_t jb = lo % blocks, i = (lo / blocks) % c.m;
    Entries<T> entries(c, lo / blocks / c.m);
    for (int64_t it = lo; it < hi; ++it) {
        const EntryOffsets e = *entries;
        const T* a = c.a + e.a;
        const T* row = a + i * c.lda;
        if (c.ta || c.ca) {
            for (int64_t p = 0; p < c.k; ++p) {
                const T v = c.ta ? a[p * c.lda + i] : a[i * c.lda + p];
                buffer[p] = c.ca ? fn::conj_of(v) : v;
            }
            row = buffer.data();
        }
        const int64_t j0 = jb * kColumns, j1 = std::min(c.n, j0 + kColumns);
        T* out = c.c + e.c + i * c.ldc;
        if (c.cb) row_times<true>(c, row, c.b + e.b, out, j0, j1);
        else row_times<false>(c, row, c.b + e.b, out, j0, j1);
        if (++jb == blocks) {
            jb = 0;
            if (++i == c.m) {
                i = 0;
                entries.next();
            }
        }
    }
}

template <class T>
void product_loops(const GemmCall<T>& c) {
    if (c.m == 0 || c.n == 0) return;
    const int64_t blocks = (c.n + kColumns - 1) / kColumns;
    const int64_t per_item = std::max<int64_t>(1, c.k * std::min(c.n, kColumns));
    parallel_for(c.batch * c.m * blocks, [&](int64_t lo, int64_t hi) { product_items(c, blocks, lo, hi); },
                 std::max<int64_t>(1, kParallelGrain / per_item));
}

}  // namespace

void loop_product(const GemmCall<float>& call) { product_loops(call); }
void loop_product(const GemmCall<double>& call) { product_loops(call); }
void loop_product(const GemmCall<complex64>& call) { product_loops(call); }
void loop_product(const GemmCall<complex128>& call) { product_loops(call); }

}  // namespace moira
