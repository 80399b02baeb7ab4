// Matrix products: shape checks, type promotion and the choice between BLAS, the blocked kernel
// and the integer loops (see Note [Matrix product types and paths]).
#include "kernels/linalg/matmul.hpp"

#include <atomic>
#include <climits>

#include "core/errors.hpp"
#include "kernels/linalg/blas.hpp"
#include "kernels/linalg/gemm.hpp"
#include "kernels/parallel.hpp"

namespace moira {

namespace {

#ifdef MOIRA_HAVE_BLAS
constexpr bool kHaveBlas = true;
#else
constexpr bool kHaveBlas = false;
#endif

std::atomic<bool> g_use_blas{kHaveBlas};

// A product of `rank`-D operands, checked: the batch extents, and m x k times k x n.
struct Problem {
    Shape out_shape;
    int64_t batch = 1, m = 0, n = 0, k = 0;
};

std::string operand_text(const Tensor& t, bool transposed) {
    return shape_str(t.shape()) + (transposed ? " (transposed)" : "");
}

Problem check(const Tensor& a, const Tensor& b, bool ta, bool tb, int64_t rank, const char* op) {
    if (a.ndim() != rank || b.ndim() != rank)
        fail<ValueError>(op, ": expected two ", rank, "-D tensors, got shapes ", shape_str(a.shape()), " and ",
                         shape_str(b.shape()));
    check_same_device(a, b, op);
    const Shape& sa = a.shape();
    const Shape& sb = b.shape();
    Problem p;
    for (int64_t d = 0; d < rank - 2; ++d) {
        if (sa[d] != sb[d])
            fail<ValueError>(op, ": batch extents of shapes ", shape_str(sa), " and ", shape_str(sb), " do not match");
        p.out_shape.push_back(sa[d]);
        p.batch *= sa[d];
    }
    const int64_t r0 = rank - 2, r1 = rank - 1;
    p.m = ta ? sa[r1] : sa[r0];
    const int64_t ka = ta ? sa[r0] : sa[r1];
    p.k = tb ? sb[r1] : sb[r0];
    p.n = tb ? sb[r0] : sb[r1];
    if (ka != p.k)
        fail<ValueError>(op, ": inner extents of shapes ", operand_text(a, ta), " and ", operand_text(b, tb),
                         " do not match (", ka, " and ", p.k, ")");
    p.out_shape.push_back(p.m);
    p.out_shape.push_back(p.n);
    return p;
}

template <class T>
GemmCall<T> make_call(const Problem& p, const Tensor& a, const Tensor& b, Tensor& out, bool ta, bool tb) {
    GemmCall<T> c;
    c.m = p.m;
    c.n = p.n;
    c.k = p.k;
    c.a = a.data<T>();
    c.lda = ta ? p.m : p.k;
    c.ta = ta;
    c.b = b.data<T>();
    c.ldb = tb ? p.k : p.n;
    c.tb = tb;
    c.c = out.data<T>();
    c.ldc = p.n;
    c.batch = p.batch;
    c.stride_a = p.m * p.k;
    c.stride_b = p.k * p.n;
    c.stride_c = p.m * p.n;
    return c;
}

// int64 (and bool) products: each output row accumulates a(i, p) times row p of B. Unsigned
// arithmetic wraps on overflow as integer types do in numpy, without undefined behaviour.
void integer_product(const GemmCall<int64_t>& c) {
    const int64_t rows = c.batch * c.m;
    const int64_t per_row = std::max<int64_t>(1, c.n * c.k);
    parallel_for(rows, [&](int64_t lo, int64_t hi) {
        for (int64_t r = lo; r < hi; ++r) {
            const int64_t bi = r / c.m, i = r % c.m;
            const int64_t* a = c.a + bi * c.stride_a;
            const int64_t* b = c.b + bi * c.stride_b;
            int64_t* out = c.c + bi * c.stride_c + i * c.ldc;
            for (int64_t j = 0; j < c.n; ++j) out[j] = 0;
            for (int64_t p = 0; p < c.k; ++p) {
                const uint64_t av = static_cast<uint64_t>(c.ta ? a[p * c.lda + i] : a[i * c.lda + p]);
                if (c.tb) {
                    for (int64_t j = 0; j < c.n; ++j)
                        out[j] = static_cast<int64_t>(static_cast<uint64_t>(out[j]) +
                                                      av * static_cast<uint64_t>(b[j * c.ldb + p]));
                } else {
                    const int64_t* brow = b + p * c.ldb;
                    for (int64_t j = 0; j < c.n; ++j)
                        out[j] = static_cast<int64_t>(static_cast<uint64_t>(out[j]) + av * static_cast<uint64_t>(brow[j]));
                }
            }
        }
    }, std::max<int64_t>(1, kParallelGrain / per_row));
}

#ifdef MOIRA_HAVE_BLAS
// Note [BLAS threads]
// Two thread pools must not take turns. After a parallel region the workers of a pool spin for a
// while before they sleep, and on a machine with few cores a spinning pool starves the one that
// works: an element-wise add (our OpenMP team) followed by a product (OpenBLAS's own threads)
// ran half again slower than the product alone. So OpenBLAS is held to one thread from its first
// use, and products take their parallelism from our OpenMP team: each thread calls BLAS on its
// own share of the work, whole products of a batch or a range of rows (or columns) of one
// product. A single-threaded OpenBLAS call runs in the calling thread and is safe from several
// threads at once. A BLAS without OpenBLAS's thread controls keeps its own threading and is
// called once per product, one product at a time.
bool blas_single_threaded() {
    static const bool single = [] {
        if (!openblas_set_num_threads) return false;
        openblas_set_num_threads(1);
        return true;
    }();
    return single;
}

// Products below this many multiply-adds (the whole batch) stay on the calling thread.
constexpr double kBlasParallelWork = 64.0 * 64.0 * 64.0;
// A share of rows or columns is at least this wide.
constexpr int64_t kMinShare = 16;

// BLAS takes 32-bit extents; larger products go to the blocked kernel.
template <class T>
bool blas_fits(const GemmCall<T>& c) {
    return c.m <= INT_MAX && c.n <= INT_MAX && c.k <= INT_MAX && c.lda <= INT_MAX && c.ldb <= INT_MAX &&
           c.ldc <= INT_MAX;
}

void gemm_call(bool ta, bool tb, int64_t m, int64_t n, int64_t k, const float* a, int64_t lda, const float* b,
               int64_t ldb, float* c, int64_t ldc) {
    cblas_sgemm(kCblasRowMajor, ta ? kCblasTrans : kCblasNoTrans, tb ? kCblasTrans : kCblasNoTrans, int(m), int(n),
                int(k), 1.0f, a, int(lda), b, int(ldb), 0.0f, c, int(ldc));
}
void gemm_call(bool ta, bool tb, int64_t m, int64_t n, int64_t k, const double* a, int64_t lda, const double* b,
               int64_t ldb, double* c, int64_t ldc) {
    cblas_dgemm(kCblasRowMajor, ta ? kCblasTrans : kCblasNoTrans, tb ? kCblasTrans : kCblasNoTrans, int(m), int(n),
                int(k), 1.0, a, int(lda), b, int(ldb), 0.0, c, int(ldc));
}

// Share `part` of `parts` of product `bi`: a range of C's rows when split_rows, else of columns.
template <class T>
void blas_share(const GemmCall<T>& c, int64_t bi, int64_t part, int64_t parts, bool split_rows) {
    const T* a = c.a + bi * c.stride_a;
    const T* b = c.b + bi * c.stride_b;
    T* out = c.c + bi * c.stride_c;
    const int64_t extent = split_rows ? c.m : c.n;
    auto edge = [&](int64_t p) { return p == parts ? extent : extent * p / parts / kMinShare * kMinShare; };
    const int64_t lo = edge(part), hi = edge(part + 1);
    if (lo >= hi) return;
    if (split_rows) {
        gemm_call(c.ta, c.tb, hi - lo, c.n, c.k, a + (c.ta ? lo : lo * c.lda), c.lda, b, c.ldb, out + lo * c.ldc, c.ldc);
    } else {
        gemm_call(c.ta, c.tb, c.m, hi - lo, c.k, a, c.lda, b + (c.tb ? lo * c.ldb : lo), c.ldb, out + lo, c.ldc);
    }
}

template <class T>
void blas_product(const GemmCall<T>& c) {
    const double work = double(c.m) * double(c.n) * double(c.k);
    int threads = 1;
#ifdef _OPENMP
    if (blas_single_threaded() && work * double(c.batch) >= kBlasParallelWork)
        threads = static_cast<int>(parallel_threads());
#endif
    if (threads < 2) {
        for (int64_t bi = 0; bi < c.batch; ++bi) blas_share(c, bi, 0, 1, true);
        return;
    }
    // Whole products per thread when the batch alone keeps the threads busy; else each product
    // is cut along its longer side of C.
    const bool split_rows = c.m >= c.n;
    const int64_t extent = split_rows ? c.m : c.n;
    const int64_t parts = c.batch >= 2 * threads ? 1 : std::max<int64_t>(1, std::min<int64_t>(threads, extent / kMinShare));
    parallel_for(c.batch * parts, [&](int64_t lo, int64_t hi) {
        for (int64_t it = lo; it < hi; ++it) blas_share(c, it / parts, it % parts, parts, split_rows);
    }, 1);
}
#endif

template <class T>
void float_product(const GemmCall<T>& c) {
#ifdef MOIRA_HAVE_BLAS
    // BLAS refuses empty depths (its leading dimensions must be at least 1); the blocked kernel
    // writes the zeros instead.
    if (g_use_blas.load(std::memory_order_relaxed) && c.k > 0 && blas_fits(c)) return blas_product(c);
#endif
    gemm_blocked(c);
}

// An operand in the compute type that the kernels read as a dense array: t itself when it is
// contiguous, or when it is the transpose of a contiguous tensor (its last two axes swapped), in
// which case the stored tensor is read with the opposite transpose flag; else a contiguous copy.
Tensor gemm_operand(const Tensor& t, DType ct, bool& trans) {
    const int64_t nd = t.ndim();
    if (t.dtype() == ct && !t.is_contiguous() && nd >= 2) {
        Shape shape = t.shape(), strides = t.strides();
        std::swap(shape[nd - 1], shape[nd - 2]);
        std::swap(strides[nd - 1], strides[nd - 2]);
        Tensor stored = t.view(shape, strides, t.offset());
        if (stored.is_contiguous()) {
            trans = !trans;
            return stored;
        }
    }
    return t.contiguous_as(ct);
}

Tensor product(const Tensor& a, const Tensor& b, bool ta, bool tb, int64_t rank, const char* op) {
    const Problem p = check(a, b, ta, tb, rank, op);
    const DType result = promote(a.dtype(), b.dtype());
    const DType ct = result == DType::Bool ? DType::Int64 : result;
    const Tensor A = gemm_operand(a, ct, ta);
    const Tensor B = gemm_operand(b, ct, tb);
    Tensor out(ct, p.out_shape, a.device());
    if (out.numel() > 0) {
        dispatch<TypeSet::Numeric>(ct, op, [&](auto tag) {
            using T = typename decltype(tag)::type;
            const GemmCall<T> call = make_call<T>(p, A, B, out, ta, tb);
            if constexpr (std::is_floating_point_v<T>) float_product(call);
            else integer_product(call);
        });
    }
    return result == ct ? out : out.to(result);
}

}  // namespace

Tensor mult2D(const Tensor& a, const Tensor& b, bool trans_a, bool trans_b) {
    return product(a, b, trans_a, trans_b, 2, "mult2D");
}

Tensor bmm(const Tensor& a, const Tensor& b, bool trans_a, bool trans_b) {
    return product(a, b, trans_a, trans_b, 3, "bmm");
}

Tensor matmul(const Tensor& a, const Tensor& b, bool trans_a, bool trans_b) {
    return product(a, b, trans_a, trans_b, 4, "matmul");
}

bool blas_available() { return kHaveBlas; }

bool blas_enabled() { return kHaveBlas && g_use_blas.load(); }

bool set_blas(bool on) {
    bool previous = blas_enabled();
    g_use_blas.store(kHaveBlas && on);
    return previous;
}

}  // namespace moira
