// The BLAS path of the float matrix products: gemv or gemm for each product of a batch, and the
// threads that run them (Note [BLAS threads]). Empty in a build without BLAS.
#include "kernels/linalg/blas.hpp"

#ifdef MOIRA_HAVE_BLAS

#include <algorithm>
#include <cstdint>

#include "kernels/parallel.hpp"

namespace moira {

namespace {

// Note [BLAS threads]
// Two thread pools must not take turns. After a parallel region the workers of a pool spin for a
// while before they sleep, and on a machine with few cores a spinning pool starves the one that
// works: an element-wise add (our OpenMP team) followed by a product (OpenBLAS's own threads)
// ran half again slower than the product alone. So OpenBLAS is held to one thread from its first
// use, and the products take their parallelism from our OpenMP team (`choose`):
//  - Serial: calls too small to pay for waking the team run on the calling thread;
//  - Batch: a batch of products is one parallel loop over its entries, whole products each;
//  - Split: each product is cut into one share per thread of C's columns, or of its rows when C
//    is taller than wide (one column or row: shares of gemv's output). Each share is a BLAS call
//    of its own, so it packs only its share of the larger operand; the smaller one is shared and
//    packed by each share, which is why there are no more shares than threads (smaller shares
//    also made gemv slower: shorter runs of each row).
// Threads take batch entries and shares as they become free (dynamic schedule), so a thread the
// system holds up leaves its part to the others.
// OpenBLAS's own threading, run on its pool or on our team through its threads callback, shares
// the packed operands between threads, but it was no faster than these plans on an idle machine,
// and its threads wait for one another by spinning, which made it many times slower while other
// work shared the cores (figures in docs/architecture.md); it is never used. A single-threaded OpenBLAS call
// runs in the calling thread and is safe from several threads at once. A BLAS without OpenBLAS's
// thread control keeps its own threading and is called once per product, one product at a time.

// Calls below this many multiply-adds (the whole batch) stay on the calling thread. A gemv reads
// each matrix element once from memory, which costs about as much as kGemvWeight multiply-adds of
// gemm.
constexpr double kParallelWork = double(1 << 21);
constexpr double kGemvWeight = 8.0;
// Batches of products this small are spread over the threads whole, whatever their count.
constexpr double kSplitWork = double(1 << 24);
// A share is at least this many rows or columns wide.
constexpr int64_t kMinShare = 16;
// OpenBLAS's small-matrix gemm beats its gemv on one row times a matrix up to this many elements.
constexpr int64_t kSmallRow = 96 * 96;

bool blas_single_threaded() {
    static const bool single = [] {
        if (!MOIRA_BLAS_NAME(openblas_set_num_threads)) return false;
        MOIRA_BLAS_NAME(openblas_set_num_threads)(1);
        return true;
    }();
    return single;
}

// A stored operand's read: as it is, transposed, or conjugated and transposed (GemmCall's flags).
int read_code(bool trans, bool conj) { return conj ? kCblasConjTrans : trans ? kCblasTrans : kCblasNoTrans; }

void gemm(int ta, int tb, int64_t m, int64_t n, int64_t k, const float* a, int64_t lda, const float* b,
          int64_t ldb, float* c, int64_t ldc) {
    MOIRA_BLAS_NAME(cblas_sgemm)(kCblasRowMajor, ta, tb, int(m), int(n), int(k), 1.0f, a, int(lda), b, int(ldb),
                                 0.0f, c, int(ldc));
}
void gemm(int ta, int tb, int64_t m, int64_t n, int64_t k, const double* a, int64_t lda, const double* b,
          int64_t ldb, double* c, int64_t ldc) {
    MOIRA_BLAS_NAME(cblas_dgemm)(kCblasRowMajor, ta, tb, int(m), int(n), int(k), 1.0, a, int(lda), b, int(ldb), 0.0,
                                 c, int(ldc));
}
void gemm(int ta, int tb, int64_t m, int64_t n, int64_t k, const complex64* a, int64_t lda, const complex64* b,
          int64_t ldb, complex64* c, int64_t ldc) {
    const complex64 one(1), zero(0);
    MOIRA_BLAS_NAME(cblas_cgemm)(kCblasRowMajor, ta, tb, int(m), int(n), int(k), &one, a, int(lda), b, int(ldb),
                                 &zero, c, int(ldc));
}
void gemm(int ta, int tb, int64_t m, int64_t n, int64_t k, const complex128* a, int64_t lda, const complex128* b,
          int64_t ldb, complex128* c, int64_t ldc) {
    const complex128 one(1), zero(0);
    MOIRA_BLAS_NAME(cblas_zgemm)(kCblasRowMajor, ta, tb, int(m), int(n), int(k), &one, a, int(lda), b, int(ldb),
                                 &zero, c, int(ldc));
}

// y = M x, or Mᵀ x when trans, for M stored row-major as rows x cols.
void gemv(bool trans, int64_t rows, int64_t cols, const float* mat, int64_t ld, const float* x, int64_t incx,
          float* y, int64_t incy) {
    MOIRA_BLAS_NAME(cblas_sgemv)(kCblasRowMajor, trans ? kCblasTrans : kCblasNoTrans, int(rows), int(cols), 1.0f,
                                 mat, int(ld), x, int(incx), 0.0f, y, int(incy));
}
void gemv(bool trans, int64_t rows, int64_t cols, const double* mat, int64_t ld, const double* x, int64_t incx,
          double* y, int64_t incy) {
    MOIRA_BLAS_NAME(cblas_dgemv)(kCblasRowMajor, trans ? kCblasTrans : kCblasNoTrans, int(rows), int(cols), 1.0,
                                 mat, int(ld), x, int(incx), 0.0, y, int(incy));
}
void gemv(bool trans, int64_t rows, int64_t cols, const complex64* mat, int64_t ld, const complex64* x,
          int64_t incx, complex64* y, int64_t incy) {
    const complex64 one(1), zero(0);
    MOIRA_BLAS_NAME(cblas_cgemv)(kCblasRowMajor, trans ? kCblasTrans : kCblasNoTrans, int(rows), int(cols), &one,
                                 mat, int(ld), x, int(incx), &zero, y, int(incy));
}
void gemv(bool trans, int64_t rows, int64_t cols, const complex128* mat, int64_t ld, const complex128* x,
          int64_t incx, complex128* y, int64_t incy) {
    const complex128 one(1), zero(0);
    MOIRA_BLAS_NAME(cblas_zgemv)(kCblasRowMajor, trans ? kCblasTrans : kCblasNoTrans, int(rows), int(cols), &one,
                                 mat, int(ld), x, int(incx), &zero, y, int(incy));
}

// The products of one call as BLAS sees them: a gemv when C is one column or (beyond kSmallRow)
// one row, else a gemm. A share is a range of C's rows (split_rows) or columns. A conjugated
// operand always takes gemm: a gemv that swaps the roles of its operands would need a conjugate
// without the transpose, which CBLAS does not have.
template <class T>
struct Products {
    const GemmCall<T>& c;
    bool column = false;  // C = op(A) b: gemv on A
    bool row = false;     // C = a op(B): gemv on B
    bool split_rows = false;
    int64_t extent = 0;  // C's rows or columns, whichever the shares divide

    explicit Products(const GemmCall<T>& call) : c(call) {
        const bool conj = c.ca || c.cb;
        column = !conj && c.n == 1;
        row = !conj && !column && c.m == 1 && c.n * c.k > kSmallRow;
        split_rows = c.m >= c.n;
        extent = split_rows ? c.m : c.n;
    }

    // Multiply-adds of one product, gemv weighted by its cost per element. A complex multiply-add is four real ones.
    double work() const {
        return double(c.m) * double(c.n) * double(c.k) * (column || row ? kGemvWeight : 1.0) *
               (is_complex_v<T> ? 4.0 : 1.0);
    }

    int64_t parts(int threads) const { return std::max<int64_t>(1, std::min<int64_t>(threads, extent / kMinShare)); }

    // Rows or columns [lo, hi) of product bi.
    void run(int64_t bi, int64_t lo, int64_t hi) const {
        const EntryOffsets e = at(c, bi);
        const T* a = c.a + e.a;
        const T* b = c.b + e.b;
        T* out = c.c + e.c;
        const int64_t len = hi - lo;
        if (column) {  // rows [lo, hi) of op(A), times b
            gemv(c.ta, c.ta ? c.k : len, c.ta ? len : c.k, a + (c.ta ? lo : lo * c.lda), c.lda, b, c.tb ? 1 : c.ldb,
                 out + lo * c.ldc, c.ldc);
        } else if (row) {  // a times columns [lo, hi) of op(B)
            gemv(!c.tb, c.tb ? len : c.k, c.tb ? c.k : len, b + (c.tb ? lo * c.ldb : lo), c.ldb, a, c.ta ? c.lda : 1,
                 out + lo, 1);
        } else if (split_rows) {
            gemm(read_code(c.ta, c.ca), read_code(c.tb, c.cb), len, c.n, c.k, a + (c.ta ? lo : lo * c.lda), c.lda, b,
                 c.ldb, out + lo * c.ldc, c.ldc);
        } else {
            gemm(read_code(c.ta, c.ca), read_code(c.tb, c.cb), c.m, len, c.k, a, c.lda,
                 b + (c.tb ? lo * c.ldb : lo), c.ldb, out + lo, c.ldc);
        }
    }

    // Share `part` of `parts`, its edges on multiples of kMinShare.
    void run_part(int64_t bi, int64_t part, int64_t parts) const {
        auto edge = [&](int64_t p) { return p == parts ? extent : extent * p / parts / kMinShare * kMinShare; };
        const int64_t lo = edge(part), hi = edge(part + 1);
        if (lo < hi) run(bi, lo, hi);
    }
};

enum class Plan { Serial, Batch, Split };

template <class T>
Plan choose(const Products<T>& p, int threads) {
    const double work = p.work();
    const int64_t batch = p.c.batch;
    if (threads < 2 || work * double(batch) < kParallelWork) return Plan::Serial;
    if (batch > 1 && (work < kSplitWork || batch % threads == 0 || batch >= 4 * threads)) return Plan::Batch;
    return p.parts(threads) > 1 ? Plan::Split : Plan::Serial;
}

// body(i) for i in [0, n), each thread taking the next index when it is free (see the Note).
template <class F>
void dynamic_for(int64_t n, int threads, F&& body) {
#ifdef _OPENMP
#pragma omp parallel for schedule(dynamic, 1) num_threads(threads)
    for (int64_t i = 0; i < n; ++i) body(i);
#else
    (void)threads;
    for (int64_t i = 0; i < n; ++i) body(i);
#endif
}

template <class T>
void run_products(const Products<T>& p) {
    const int threads = blas_single_threaded() ? static_cast<int>(parallel_threads()) : 1;
    const int64_t batch = p.c.batch;
    switch (choose(p, threads)) {
        case Plan::Serial:
            for (int64_t bi = 0; bi < batch; ++bi) p.run(bi, 0, p.extent);
            return;
        case Plan::Batch:
            dynamic_for(batch, threads, [&](int64_t bi) { p.run(bi, 0, p.extent); });
            return;
        case Plan::Split: {
            const int64_t parts = p.parts(threads);
            dynamic_for(batch * parts, threads, [&](int64_t it) { p.run_part(it / parts, it % parts, parts); });
            return;
        }
    }
}

}  // namespace

void blas_product(const GemmCall<float>& call) { run_products(Products<float>(call)); }
void blas_product(const GemmCall<double>& call) { run_products(Products<double>(call)); }
void blas_product(const GemmCall<complex64>& call) { run_products(Products<complex64>(call)); }
void blas_product(const GemmCall<complex128>& call) { run_products(Products<complex128>(call)); }

}  // namespace moira

#endif
