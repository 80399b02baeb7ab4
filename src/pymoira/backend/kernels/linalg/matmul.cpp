// Matrix products: shape checks, type promotion and the choice between BLAS, the blocked kernel
// and the integer loops (see Note [Matrix product types and paths]).
#include "kernels/linalg/matmul.hpp"

#include <atomic>
#include <tuple>
#include <utility>

#include "core/errors.hpp"
#include "kernels/linalg/blas.hpp"
#include "kernels/linalg/gemm.hpp"
#include "kernels/parallel.hpp"
#include "kernels/table.hpp"

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
    device_of(a, b, op);
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

// How the kernels read a stored operand: transposed, and conjugated (only with the transpose).
struct Stored {
    bool trans = false, conj = false;
};

// The batch strides of an operand of `rank` axes as a call reads them: (outer, inner stride).
std::pair<int64_t, int64_t> batch_strides(const Tensor& t, int64_t rank) {
    if (rank == 4) return {t.strides()[0], t.strides()[1]};
    if (rank == 3) return {0, t.strides()[0]};
    return {0, 0};
}

GemmPlan make_plan(const Problem& p, int64_t rank, DType type, const Tensor& a, const Tensor& b, Tensor& out,
                   Stored ra, Stored rb) {
    const bool ta = ra.trans, tb = rb.trans;
    GemmCall<void> c;
    c.m = p.m;
    c.n = p.n;
    c.k = p.k;
    c.a = a.raw_mem();
    c.lda = ta ? p.m : p.k;
    c.ta = ta;
    c.ca = ra.conj;
    c.b = b.raw_mem();
    c.ldb = tb ? p.k : p.n;
    c.tb = tb;
    c.cb = rb.conj;
    c.c = out.raw_mem();
    c.ldc = p.n;
    c.batch = p.batch;
    c.inner = rank == 4 ? std::max<int64_t>(1, out.shape()[1]) : std::max<int64_t>(1, p.batch);
    std::tie(c.outer_a, c.stride_a) = batch_strides(a, rank);
    std::tie(c.outer_b, c.stride_b) = batch_strides(b, rank);
    std::tie(c.outer_c, c.stride_c) = batch_strides(out, rank);
    return {type, c};
}

// The plan's call with the addresses typed.
template <class T>
GemmCall<T> typed_call(const GemmCall<void>& u) {
    GemmCall<T> c;
    c.m = u.m;
    c.n = u.n;
    c.k = u.k;
    c.a = static_cast<const T*>(u.a);
    c.lda = u.lda;
    c.ta = u.ta;
    c.ca = u.ca;
    c.b = static_cast<const T*>(u.b);
    c.ldb = u.ldb;
    c.tb = u.tb;
    c.cb = u.cb;
    c.c = static_cast<T*>(u.c);
    c.ldc = u.ldc;
    c.batch = u.batch;
    c.inner = u.inner;
    c.stride_a = u.stride_a;
    c.stride_b = u.stride_b;
    c.stride_c = u.stride_c;
    c.outer_a = u.outer_a;
    c.outer_b = u.outer_b;
    c.outer_c = u.outer_c;
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
            const EntryOffsets e = at(c, bi);
            const int64_t* a = c.a + e.a;
            const int64_t* b = c.b + e.b;
            int64_t* out = c.c + e.c + i * c.ldc;
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

// Entries of a batch below kTinyProduct multiply-adds, and products of a depth up to kTinyDepth,
// run as plain loops: a BLAS call (or a pass of the blocked kernel) per entry would cost more
// than the arithmetic, and a tiny depth leaves nothing for packing to win.
constexpr int64_t kTinyProduct = 512;
constexpr int64_t kTinyDepth = 4;

template <class T>
void float_product(const GemmCall<T>& c) {
    if ((c.batch > 1 && c.m * c.n * c.k <= kTinyProduct) || (c.k > 0 && c.k <= kTinyDepth)) return loop_product(c);
#ifdef MOIRA_HAVE_BLAS
    // Empty depths (zeros) and extents beyond BLAS's integers go to the blocked kernel (complex
    // types: to plain loops).
    if (g_use_blas.load(std::memory_order_relaxed) && blas_fits(c)) return blas_product(c);
#endif
    if constexpr (is_complex_v<T>) loop_product(c);
    else gemm_blocked(c);
}

// An operand in the compute type as the kernels read it: t itself when its matrices (the last two
// axes) are dense row-major, or dense column-major (the transpose of a dense matrix, read with the
// opposite transpose flag), whatever the strides of its batch axes (a broadcast gate matrix is
// read in place); else a contiguous copy. An adjoint read of a complex operand is a transposed
// and conjugated read (a conjugate without the transpose is not a BLAS read), so a column-major
// complex matrix is copied there.
Tensor gemm_operand(const Tensor& t, DType ct, MatrixRead read, Stored& s) {
    s.trans = read != MatrixRead::Plain;
    s.conj = read == MatrixRead::Adjoint && is_complex(ct);
    const int64_t nd = t.ndim();
    if (t.dtype() == ct && nd >= 2) {
        const int64_t rows = t.shape()[nd - 2], cols = t.shape()[nd - 1];
        const int64_t row_step = t.strides()[nd - 2], col_step = t.strides()[nd - 1];
        if ((cols == 1 || col_step == 1) && (rows == 1 || row_step == cols)) return t;
        if ((rows == 1 || row_step == 1) && (cols == 1 || col_step == rows) && !s.conj) {
            s.trans = !s.trans;
            return t;
        }
    }
    return t.contiguous_as(ct);
}

Tensor product(const Tensor& a, const Tensor& b, MatrixRead ra, MatrixRead rb, int64_t rank, const char* op) {
    const Problem p = check(a, b, ra != MatrixRead::Plain, rb != MatrixRead::Plain, rank, op);
    const DType result = promote(a.dtype(), b.dtype());
    const DType ct = result == DType::Bool ? DType::Int64 : result;
    dispatch<TypeSet::WithComplex>(ct, op, [](auto) {});
    Stored sa, sb;
    const Tensor A = gemm_operand(a, ct, ra, sa);
    const Tensor B = gemm_operand(b, ct, rb, sb);
    Tensor out(ct, p.out_shape, a.device());
    if (out.numel() > 0) kernels_of(out).gemm(make_plan(p, rank, ct, A, B, out, sa, sb));
    return result == ct ? out : out.to(result);
}

}  // namespace

Tensor mult2D(const Tensor& a, const Tensor& b, MatrixRead read_a, MatrixRead read_b) {
    return product(a, b, read_a, read_b, 2, "mult2D");
}

Tensor bmm(const Tensor& a, const Tensor& b, MatrixRead read_a, MatrixRead read_b) {
    return product(a, b, read_a, read_b, 3, "bmm");
}

Tensor matmul(const Tensor& a, const Tensor& b, MatrixRead read_a, MatrixRead read_b) {
    return product(a, b, read_a, read_b, 4, "matmul");
}

void cpu::gemm(const GemmPlan& plan) {
    dispatch<TypeSet::WithComplex>(plan.type, "matmul", [&](auto tag) {
        using T = typename decltype(tag)::type;
        if constexpr (std::is_floating_point_v<T> || is_complex_v<T>) float_product(typed_call<T>(plan.call));
        else if constexpr (std::is_same_v<T, int64_t>) integer_product(typed_call<T>(plan.call));
        else fail<RuntimeError>("matmul: bool products compute in int64");
    });
}

bool blas_available() { return kHaveBlas; }

bool blas_enabled() { return kHaveBlas && g_use_blas.load(); }

bool set_blas(bool on) {
    bool previous = blas_enabled();
    g_use_blas.store(kHaveBlas && on);
    return previous;
}

}  // namespace moira
