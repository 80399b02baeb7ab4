// The blocked matrix product kernel, included once per instruction set (see Note
// [Instruction-set variants of the blocked kernel] in gemm.hpp). The including unit includes
// every header first, then sets its `#pragma GCC target`, defines MOIRA_GEMM_NS and the
// register-tile sizes Tile<float> and Tile<double> inside `namespace moira::MOIRA_GEMM_NS {
// namespace { ... } }`, and includes this file. No include guard: each unit includes it once.
//
// Note [Blocked matrix product]
// The classic three-level blocking: C is walked in column blocks of NC, the depth in slices of
// KC, and the rows in blocks of MC. For each (column block, depth slice) the slice of B is packed
// once into NR-wide panels (p-major, so the micro-kernel reads NR consecutive values per step);
// for each row block the slice of A is packed into MR-tall panels. The micro-kernel multiplies
// one A panel by one B panel into an MR x NR tile of accumulators held in registers (plain loops
// with constant trip counts, which gcc unrolls and vectorises along NR) and stores or adds the
// tile into C; partial tiles at the edges are computed in full on zero-padded panels and only
// their valid part is written. Packing reads the operands through their transpose flags, so a
// transposed operand is never materialised. Threads share the packed B slice and split the
// (row block x panel range) work items; each packs the A blocks of its own items.

namespace moira {
namespace MOIRA_GEMM_NS {
namespace {

// Depth slice, row block and column block. A row block of A (kMC x kKC) takes about 192 KiB
// and stays in L2; a B micro-panel (kKC x NR) stays in L1.
constexpr int64_t kKC = 256;
template <class T>
constexpr int64_t kMC = 192 * 4 / sizeof(T);
constexpr int64_t kNC = 3072;
// Products below this many multiply-adds stay on one thread.
constexpr double kParallelWork = 48.0 * 48.0 * 48.0;
// Matrices below this many multiply-adds are spread over threads one whole product at a time
// when the batch has enough of them.
constexpr double kBatchParallelWork = 160.0 * 160.0 * 160.0;

constexpr int64_t round_up(int64_t x, int64_t to) { return (x + to - 1) / to * to; }

template <class T>
struct Buffer {
    T* p = nullptr;
    explicit Buffer(int64_t n) {
        size_t bytes = (static_cast<size_t>(n) * sizeof(T) + 63) / 64 * 64;
        p = static_cast<T*>(std::aligned_alloc(64, bytes ? bytes : 64));
        if (!p) throw std::bad_alloc();
    }
    ~Buffer() { std::free(p); }
    Buffer(const Buffer&) = delete;
    Buffer& operator=(const Buffer&) = delete;
};

// A[i0 : i0+mc, p0 : p0+kc] as MR-tall panels; rows past mc are zero.
template <class T>
void pack_a(const GemmCall<T>& c, const T* a, int64_t i0, int64_t mc, int64_t p0, int64_t kc, T* out) {
    constexpr int MR = Tile<T>::mr;
    for (int64_t ir = 0; ir < mc; ir += MR) {
        const int64_t rows = std::min<int64_t>(MR, mc - ir);
        T* dst = out + ir * kc;
        if (c.ta) {  // stored k x m: row p of the storage holds A(., p)
            for (int64_t p = 0; p < kc; ++p) {
                const T* src = a + (p0 + p) * c.lda + i0 + ir;
                for (int64_t i = 0; i < rows; ++i) dst[p * MR + i] = src[i];
                for (int64_t i = rows; i < MR; ++i) dst[p * MR + i] = T(0);
            }
        } else {
            for (int64_t i = 0; i < rows; ++i) {
                const T* src = a + (i0 + ir + i) * c.lda + p0;
                for (int64_t p = 0; p < kc; ++p) dst[p * MR + i] = src[p];
            }
            for (int64_t i = rows; i < MR; ++i)
                for (int64_t p = 0; p < kc; ++p) dst[p * MR + i] = T(0);
        }
    }
}

// NR-wide panels [jp0, jp1) of B[p0 : p0+kc, j0 : j0+nc]; columns past nc are zero.
template <class T>
void pack_b(const GemmCall<T>& c, const T* b, int64_t p0, int64_t kc, int64_t j0, int64_t nc, int64_t jp0,
            int64_t jp1, T* out) {
    constexpr int NR = Tile<T>::nr;
    for (int64_t jp = jp0; jp < jp1; ++jp) {
        const int64_t jr = jp * NR;
        const int64_t cols = std::min<int64_t>(NR, nc - jr);
        T* dst = out + jr * kc;
        if (c.tb) {  // stored n x k: row j of the storage holds B(., j)
            for (int64_t j = 0; j < cols; ++j) {
                const T* src = b + (j0 + jr + j) * c.ldb + p0;
                for (int64_t p = 0; p < kc; ++p) dst[p * NR + j] = src[p];
            }
            for (int64_t j = cols; j < NR; ++j)
                for (int64_t p = 0; p < kc; ++p) dst[p * NR + j] = T(0);
        } else {
            for (int64_t p = 0; p < kc; ++p) {
                const T* src = b + (p0 + p) * c.ldb + j0 + jr;
                for (int64_t j = 0; j < cols; ++j) dst[p * NR + j] = src[j];
                for (int64_t j = cols; j < NR; ++j) dst[p * NR + j] = T(0);
            }
        }
    }
}

// The MR x NR tile C[0:rows, 0:cols] (=, or += when `add`) a_panel · b_panel over kc steps.
// The accumulators are compiler vectors of Tile<T>::vl elements (GCC/Clang vector extensions:
// plain arithmetic, lowered to the unit's instruction set), MR x NR/vl of them in registers.
template <class T>
void micro_kernel(int64_t kc, const T* __restrict a, const T* __restrict b, T* __restrict cp, int64_t ldc,
                  int64_t rows, int64_t cols, bool add) {
    constexpr int MR = Tile<T>::mr;
    constexpr int NR = Tile<T>::nr;
    constexpr int VL = Tile<T>::vl;
    constexpr int NV = NR / VL;
    static_assert(NR % VL == 0, "a register tile is a whole number of vectors wide");
    typedef T V __attribute__((vector_size(sizeof(T) * VL)));
    V acc[MR][NV];
#pragma GCC unroll 32
    for (int i = 0; i < MR; ++i)
#pragma GCC unroll 8
        for (int v = 0; v < NV; ++v) acc[i][v] = V{};
    for (int64_t p = 0; p < kc; ++p) {
        const T* ap = a + p * MR;
        const T* bp = b + p * NR;
        V bv[NV];
#pragma GCC unroll 8
        for (int v = 0; v < NV; ++v) std::memcpy(&bv[v], bp + v * VL, sizeof(V));
#pragma GCC unroll 32
        for (int i = 0; i < MR; ++i) {
            const V ai = V{} + ap[i];
#pragma GCC unroll 8
            for (int v = 0; v < NV; ++v) acc[i][v] += ai * bv[v];
        }
    }
    if (rows == MR && cols == NR) {
#pragma GCC unroll 32
        for (int i = 0; i < MR; ++i) {
#pragma GCC unroll 8
            for (int v = 0; v < NV; ++v) {
                T* dst = cp + i * ldc + v * VL;
                V out = acc[i][v];
                if (add) {
                    V old;
                    std::memcpy(&old, dst, sizeof(V));
                    out += old;
                }
                std::memcpy(dst, &out, sizeof(V));
            }
        }
        return;
    }
    T tile[MR][NR];
    std::memcpy(tile, acc, sizeof(tile));
    for (int64_t i = 0; i < rows; ++i)
        for (int64_t j = 0; j < cols; ++j) cp[i * ldc + j] = add ? cp[i * ldc + j] + tile[i][j] : tile[i][j];
}

// C[i0 : i0+mc, j0 + panels [jp0, jp1)] from the packed A block and B slice.
template <class T>
void macro_kernel(const T* ap, const T* bp, int64_t kc, int64_t mc, int64_t nc, int64_t jp0, int64_t jp1, T* cblock,
                  int64_t ldc, bool add) {
    constexpr int MR = Tile<T>::mr;
    constexpr int NR = Tile<T>::nr;
    for (int64_t jp = jp0; jp < jp1; ++jp) {
        const int64_t jr = jp * NR;
        const int64_t cols = std::min<int64_t>(NR, nc - jr);
        for (int64_t ir = 0; ir < mc; ir += MR) {
            const int64_t rows = std::min<int64_t>(MR, mc - ir);
            micro_kernel<T>(kc, ap + ir * kc, bp + jr * kc, cblock + ir * ldc + jr, ldc, rows, cols, add);
        }
    }
}

int thread_id() {
#ifdef _OPENMP
    return omp_get_thread_num();
#else
    return 0;
#endif
}

// Packing buffers: one B slice per product running at once, one A block per thread. Allocated
// before any parallel region, since an exception must never leave one.
template <class T>
struct Workspace {
    int64_t b_size, a_size;
    Buffer<T> b, a;
    Workspace(const GemmCall<T>& c, int64_t mc, int products, int threads)
        : b_size(std::min(kNC, round_up(c.n, Tile<T>::nr)) * std::min(kKC, c.k)),
          a_size(std::min(mc, round_up(c.m, Tile<T>::mr)) * std::min(kKC, c.k)),
          b(b_size * products),
          a(a_size * threads) {}
    T* b_slice(int i) const { return b.p + i * b_size; }
    T* a_block(int i) const { return a.p + i * a_size; }
};

// Rows per block: small enough that every thread gets one when the matrix is short.
template <class T>
int64_t row_block(const GemmCall<T>& c, int threads) {
    constexpr int MR = Tile<T>::mr;
    if (threads <= 1) return kMC<T>;
    return std::min(kMC<T>, std::max<int64_t>(MR, round_up((c.m + threads - 1) / threads, MR)));
}

// One product of the batch, on up to `threads` threads. `slot` picks this product's buffers
// when several run at once (then threads is 1).
template <class T>
void gemm_one(const GemmCall<T>& c, const T* a, const T* b, T* cmat, int threads, const Workspace<T>& ws, int slot) {
    constexpr int NR = Tile<T>::nr;
    T* bpack = ws.b_slice(slot);
    const int64_t mc = row_block(c, threads);
    const int64_t row_blocks = (c.m + mc - 1) / mc;

    for (int64_t j0 = 0; j0 < c.n; j0 += kNC) {
        const int64_t nc = std::min(kNC, c.n - j0);
        const int64_t panels = (nc + NR - 1) / NR;
        for (int64_t p0 = 0; p0 < c.k; p0 += kKC) {
            const int64_t kc = std::min(kKC, c.k - p0);
            const bool add = p0 > 0;
            // Packing costs 1/mc of the products that follow; threads pay only for wide slices.
            if (threads > 1 && kc * nc >= (int64_t(1) << 18)) {
                parallel_for(panels, [&](int64_t lo, int64_t hi) { pack_b(c, b, p0, kc, j0, nc, lo, hi, bpack); }, 1);
            } else {
                pack_b(c, b, p0, kc, j0, nc, 0, panels, bpack);
            }
            // Work items: (row block, share of the panels); panel shares only when rows are few.
            const int64_t shares = threads > 1 && row_blocks < threads
                                       ? std::min<int64_t>(panels, (threads + row_blocks - 1) / row_blocks)
                                       : 1;
            const int64_t items = row_blocks * shares;
            auto body = [&](int64_t lo, int64_t hi) {
                T* apack = ws.a_block(threads > 1 ? thread_id() : slot);
                int64_t packed = -1;
                for (int64_t it = lo; it < hi; ++it) {
                    const int64_t rb = it / shares, sh = it % shares;
                    const int64_t i0 = rb * mc;
                    const int64_t mcur = std::min(mc, c.m - i0);
                    if (packed != rb) {
                        pack_a(c, a, i0, mcur, p0, kc, apack);
                        packed = rb;
                    }
                    const int64_t jp0 = panels * sh / shares, jp1 = panels * (sh + 1) / shares;
                    macro_kernel<T>(apack, bpack, kc, mcur, nc, jp0, jp1, cmat + i0 * c.ldc + j0, c.ldc, add);
                }
            };
            if (threads > 1 && items > 1) parallel_for(items, body, 1);
            else body(0, items);
        }
    }
}

template <class T>
void run_impl(const GemmCall<T>& c) {
    if (c.m == 0 || c.n == 0 || c.batch == 0) return;
    if (c.k == 0) {
        for (int64_t bi = 0; bi < c.batch; ++bi)
            for (int64_t i = 0; i < c.m; ++i) std::fill_n(c.c + at(c, bi).c + i * c.ldc, c.n, T(0));
        return;
    }
    const double work = double(c.m) * double(c.n) * double(c.k);
    const int threads = work * double(c.batch) >= kParallelWork ? static_cast<int>(parallel_threads()) : 1;
    auto one = [&](int64_t bi, int th, const Workspace<T>& ws, int slot) {
        const EntryOffsets e = at(c, bi);
        gemm_one(c, c.a + e.a, c.b + e.b, c.c + e.c, th, ws, slot);
    };
    if (threads > 1 && c.batch >= 2 && (work < kBatchParallelWork || c.batch >= 4 * threads)) {
        // One whole product per thread, each with its own buffers.
        const Workspace<T> ws(c, row_block(c, 1), threads, threads);
        parallel_for(c.batch, [&](int64_t lo, int64_t hi) {
            const int slot = thread_id();
            for (int64_t bi = lo; bi < hi; ++bi) one(bi, 1, ws, slot);
        }, 1);
    } else {
        const int th = work >= kParallelWork ? threads : 1;
        const Workspace<T> ws(c, row_block(c, th), 1, th);
        for (int64_t bi = 0; bi < c.batch; ++bi) one(bi, th, ws, 0);
    }
}

}  // namespace

void run(const GemmCall<float>& call) { run_impl(call); }
void run(const GemmCall<double>& call) { run_impl(call); }

}  // namespace MOIRA_GEMM_NS
}  // namespace moira
