// The strided copy behind clone, to, contiguous, prepare_write_ and copyTensor.
//
// Note [Copying between layouts]
// The copy walks both operands in the destination's memory order. When the source's fastest
// axis is another one (a transpose made contiguous), rows of one would be read with a large
// stride, touching a new cache line per element; the copy then runs in tiles over the two fast
// axes, so each tile's lines of both operands stay in cache while it is moved. Where both fast
// axes step by one element (a plain transpose of 4- or 8-byte values), a tile is moved in 8 x 8
// (4 x 4) blocks transposed in SSE registers, each row read and written as vectors. Tiles are
// strips of 32 source rows, long along the destination's rows, so every source row streams
// through the cache once and each destination row gets 128-byte pieces. A large destination
// is written with streaming stores of whole cache lines gathered in a small buffer: a normal
// store first reads the line it writes, a third memory transfer a plain copy does not make.
// Equal layouts of one element type are moved with memcpy in cache-sized pieces across
// threads.
#include "kernels/iter/copy.hpp"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <vector>

#include "kernels/iter/walker.hpp"
#include "kernels/table.hpp"

#if defined(__SSE2__)
#include <emmintrin.h>
#include <xmmintrin.h>
#endif

namespace moira {

namespace {

// Tile extents: along the source's fast axis (the destination's rows) and along the
// destination's fast axis (source rows). Both operands' lines of a tile stay in L1/L2.
constexpr int64_t kTileU = 256;
constexpr int64_t kTileI = 32;
// Destinations from this size on are written with streaming stores (they would not stay in
// the cache anyway).
constexpr size_t kStreamBytes = size_t(8) << 20;

#if defined(__SSE2__)
// One 4 x 4 block of floats (2 x 2 of doubles) read as rows of s, written as rows of d.
inline void block4(float* d, int64_t du, const float* s, int64_t si) {
    __m128 r0 = _mm_loadu_ps(s), r1 = _mm_loadu_ps(s + si), r2 = _mm_loadu_ps(s + 2 * si), r3 = _mm_loadu_ps(s + 3 * si);
    _MM_TRANSPOSE4_PS(r0, r1, r2, r3);
    _mm_storeu_ps(d, r0);
    _mm_storeu_ps(d + du, r1);
    _mm_storeu_ps(d + 2 * du, r2);
    _mm_storeu_ps(d + 3 * du, r3);
}
inline void block4(double* d, int64_t du, const double* s, int64_t si) {
    const __m128d r0 = _mm_loadu_pd(s), r1 = _mm_loadu_pd(s + si);
    _mm_storeu_pd(d, _mm_unpacklo_pd(r0, r1));
    _mm_storeu_pd(d + du, _mm_unpackhi_pd(r0, r1));
}
#endif

#if defined(__SSE2__)
inline void stream16(float* d, const float* s) { _mm_stream_ps(d, _mm_load_ps(s)); }
inline void stream16(double* d, const double* s) { _mm_stream_pd(d, _mm_load_pd(s)); }
#endif

// d[a * du + b] = s[a + b * si] for a < na, b < nb: a transpose of equal element types whose two
// fast axes step by one. Square blocks of four register blocks (8 x 8 floats, 4 x 4 doubles)
// where they fit, elements at the edges. With `stream` (d and du keep 16-byte alignment) a full
// tile's rows are gathered in a buffer, 8 (4) destination rows at a time, and written out as
// whole cache lines with streaming stores, which skip reading the destination first.
template <class T>
void transpose_tile(T* d, int64_t du, const T* s, int64_t si, int64_t na, int64_t nb, bool stream) {
    int64_t a_full = 0, b_full = 0;
#if defined(__SSE2__)
    using V = std::conditional_t<sizeof(T) == 4, float, double>;
    constexpr int64_t h = sizeof(T) == 4 ? 4 : 2, n = 2 * h;
    V* dv = reinterpret_cast<V*>(d);
    const V* sv = reinterpret_cast<const V*>(s);
    auto square = [&](V* q, int64_t dq, const V* p) {
        block4(q, dq, p, si);
        block4(q + h, dq, p + h * si, si);
        block4(q + h * dq, dq, p + h, si);
        block4(q + h * dq + h, dq, p + h + h * si, si);
    };
    a_full = na - na % n;
    b_full = nb - nb % n;
    if (stream && nb == kTileI) {
        alignas(64) V buf[n * kTileI];
        for (int64_t a = 0; a < a_full; a += n) {
            for (int64_t b = 0; b < kTileI; b += n) square(buf + b, kTileI, sv + a + b * si);
            for (int64_t r = 0; r < n; ++r)
                for (int64_t c = 0; c < kTileI; c += h) stream16(dv + (a + r) * du + c, buf + r * kTileI + c);
        }
    } else {
        for (int64_t a = 0; a < a_full; a += n)
            for (int64_t b = 0; b < b_full; b += n) square(dv + a * du + b, du, sv + a + b * si);
    }
#else
    (void)stream;
#endif
    // The rows the blocks left out, then the columns they left out in the rows they covered.
    for (int64_t r = a_full; r < na; ++r)
        for (int64_t b = 0; b < nb; ++b) d[r * du + b] = s[r + b * si];
    for (int64_t r = 0; r < a_full; ++r)
        for (int64_t b = b_full; b < nb; ++b) d[r * du + b] = s[r + b * si];
}

template <class D, class S>
void copy_run(D* d, const S* s, int64_t len, int64_t sd, int64_t ss) {
    if (sd == 1 && ss == 1) {
        if constexpr (std::is_same_v<D, S>) {
            // In pieces: a piece stays in cache, where one large memcpy streams past it with
            // non-temporal stores at a fraction of the speed.
            constexpr int64_t kPiece = (int64_t(1) << 18) / int64_t(sizeof(D));
            for (int64_t p = 0; p < len; p += kPiece)
                std::memcpy(d + p, s + p, static_cast<size_t>(std::min(kPiece, len - p)) * sizeof(D));
        } else {
            for (int64_t j = 0; j < len; ++j) d[j] = convert<D>(s[j]);
        }
    } else if (ss == 0) {
        const D v = convert<D>(s[0]);
        for (int64_t j = 0; j < len; ++j) d[j * sd] = v;
    } else {
        for (int64_t j = 0; j < len; ++j) d[j * sd] = convert<D>(s[j * ss]);
    }
}

// The tiled copy over merged axes u (where the source steps by one) and the innermost axis;
// the other axes are walked position by position.
template <class D, class S>
void copy_tiled(D* dst, const S* src, const StridedWalker<2>& w, size_t u) {
    const size_t nd = w.extents.size(), in = nd - 1;
    Shape ext, sd, ss;
    for (size_t d = 0; d < in; ++d)
        if (d != u) {
            ext.push_back(w.extents[d]);
            sd.push_back(w.strides[0][d]);
            ss.push_back(w.strides[1][d]);
        }
    const int64_t nu = w.extents[u], ni = w.extents[in];
    const int64_t du = w.strides[0][u], su = w.strides[1][u];
    const int64_t di = w.strides[0][in], si = w.strides[1][in];
    const int64_t tu = (nu + kTileU - 1) / kTileU, ti = (ni + kTileI - 1) / kTileI;
    const int64_t tiles = numel(ext) * tu * ti;
    // Plain transposes of one element type go through the register blocks.
    constexpr bool kBlocks = std::is_same_v<D, S> && (sizeof(D) == 4 || sizeof(D) == 8);
    const bool blocks = kBlocks && su == 1 && di == 1;
    const bool stream = blocks && static_cast<size_t>(numel(w.extents)) * sizeof(D) >= kStreamBytes &&
                        reinterpret_cast<uintptr_t>(dst) % 16 == 0 && (du * int64_t(sizeof(D))) % 16 == 0 &&
                        std::all_of(sd.begin(), sd.end(), [](int64_t x) { return (x * int64_t(sizeof(D))) % 16 == 0; });
    parallel_for(tiles, [&](int64_t lo, int64_t hi) {
        for (int64_t t = lo; t < hi; ++t) {
            int64_t rest = t / (tu * ti), tile = t % (tu * ti);
            int64_t od = 0, os = 0;
            for (size_t k = ext.size(); k-- > 0;) {
                const int64_t i = rest % ext[k];
                rest /= ext[k];
                od += i * sd[k];
                os += i * ss[k];
            }
            // Tiles run along u first, so consecutive tiles of a thread share source rows.
            const int64_t u0 = (tile % tu) * kTileU, i0 = (tile / tu) * kTileI;
            const int64_t u1 = std::min(nu, u0 + kTileU), i1 = std::min(ni, i0 + kTileI);
            D* dt = dst + od + u0 * du + i0 * di;
            const S* st = src + os + u0 * su + i0 * si;
            if constexpr (kBlocks) {
                if (blocks) {
                    transpose_tile(dt, du, reinterpret_cast<const D*>(st), si, u1 - u0, i1 - i0, stream);
                    continue;
                }
            }
            for (int64_t a = 0; a < u1 - u0; ++a) {
                D* d = dt + a * du;
                const S* s = st + a * su;
                for (int64_t b = 0; b < i1 - i0; ++b) d[b * di] = convert<D>(s[b * si]);
            }
        }
#if defined(__SSE2__)
        if (stream) _mm_sfence();  // streaming stores are seen by other threads only after this
#endif
    }, std::max<int64_t>(1, kParallelGrain / (kTileU * kTileI)));
}

template <class D, class S>
void copy_typed(const WalkPlan<2>& p) {
    D* d = static_cast<D*>(p.data[0]);
    const S* s = static_cast<const S*>(p.data[1]);
    if (p.flat[1] && p.numel <= kParallelGrain) {
        copy_run(d, s, p.numel, 1, 1);
        return;
    }
    const StridedWalker<2> w = p.walker();
    const size_t nd = w.extents.size();
    const int64_t si = w.strides[1].back();
    if (nd >= 2 && si != 1 && si != -1 && si != 0) {
        // The source's fastest axis, when it is not the innermost one: tile over both.
        for (size_t u = 0; u + 1 < nd; ++u) {
            const int64_t su = w.strides[1][u];
            if ((su == 1 || su == -1) && w.extents[u] >= 16 && w.extents.back() >= 16)
                return copy_tiled(d, s, w, u);
        }
    }
    const int64_t grain = std::is_same_v<D, S> ? kParallelGrain * 4 / int64_t(sizeof(D)) : kParallelGrain;
    w.run([&](const std::array<int64_t, 2>& off, int64_t len, const std::array<int64_t, 2>& st) {
        copy_run(d + off[0], s + off[1], len, st[0], st[1]);
    }, grain);
}

}  // namespace

void copy_into(Tensor& dst, const Tensor& src) {
    if (src.shape() != dst.shape())
        fail<ValueError>("copyTensor: source shape ", shape_str(src.shape()), " differs from destination shape ",
                         shape_str(dst.shape()));
    device_of(src, dst, "copyTensor");
    if (is_complex(src.dtype()) && !is_complex(dst.dtype()))
        fail<TypeError>("copyTensor: cannot write ", dtype_name(src.dtype()), " values into a ", dtype_name(dst.dtype()),
                        " tensor (that would discard their imaginary parts)");
    if (dst.numel() == 0) return;
    if (src.raw_mem() == dst.raw_mem() && src.strides() == dst.strides() && src.dtype() == dst.dtype()) return;
    // Every element is written: a shared destination gets fresh storage, the source (which may
    // share the old one) is read intact.
    dst.prepare_overwrite_();
    copy_elements(dst, src);
}

void copy_elements(const Tensor& dst, const Tensor& src) {
    MOIRA_INTERNAL_ASSERT(src.shape() == dst.shape() && src.device() == dst.device());
    if (dst.numel() == 0) return;
    kernels_of(dst).copy(dst.dtype(), src.dtype(), plan_walk<2>(dst, {&src}));
}

void cpu::copy(DType dst, DType src, const WalkPlan<2>& plan) {
    dispatch<TypeSet::WithComplex>(src, "copyTensor", [&](auto stag) {
        using S = typename decltype(stag)::type;
        dispatch<TypeSet::WithComplex>(dst, "copyTensor", [&](auto dtag) {
            using D = typename decltype(dtag)::type;
            copy_typed<D, S>(plan);
        });
    });
}

Tensor written_values(const Tensor& target, const Tensor& values, const char* op) {
    if (values.device() == target.device()) return values;
    if (values.device() != kCPU) device_of(target, values, op);
    return values.to_device(target.device());
}

Tensor host_index(const Tensor& indexed, const Tensor& index, const char* op) {
    if (index.device() != kCPU) device_of(indexed, index, op);
    return index.to_host();
}

bool is_dense(const Tensor& t) { return t.is_contiguous() || is_dense_layout(t.shape(), t.strides()); }

bool is_dense_layout(const Shape& shape, const Shape& strides) {
    std::vector<size_t> axes;
    for (size_t d = 0; d < shape.size(); ++d) {
        if (shape[d] == 0) return true;
        if (shape[d] == 1) continue;
        if (strides[d] <= 0) return false;
        axes.push_back(d);
    }
    std::sort(axes.begin(), axes.end(), [&](size_t a, size_t b) { return strides[a] > strides[b]; });
    int64_t expected = 1;
    for (size_t k = axes.size(); k-- > 0;) {
        if (strides[axes[k]] != expected) return false;
        expected *= shape[axes[k]];
    }
    return true;
}

bool same_steps(const Shape& shape, const Shape& a, const Shape& b) {
    for (size_t d = 0; d < shape.size(); ++d)
        if (shape[d] != 1 && a[d] != b[d]) return false;
    return true;
}

Tensor empty_in_layout_of(DType dtype, const Shape& shape, const Tensor& like) {
    if (like.is_contiguous()) return Tensor(dtype, shape, like.device());
    Tensor out(dtype, shape, like.device());
    if (like.shape() != shape || !is_dense(like)) return out;
    Shape strides = like.strides();
    // Length-1 axes may carry any stride; give them one that keeps the view checks simple.
    for (size_t d = 0; d < shape.size(); ++d)
        if (shape[d] == 1) strides[d] = 1;
    out.set_view_(shape, std::move(strides), 0);
    return out;
}

Tensor Tensor::clone() const { return to(dtype_); }

Tensor Tensor::to(DType dtype) const {
    Tensor out(dtype, shape_, device_);
    copy_into(out, *this);
    return out;
}

Tensor Tensor::contiguous() const { return contiguous_ ? *this : clone(); }

Tensor Tensor::contiguous_as(DType dtype) const { return dtype == dtype_ ? contiguous() : to(dtype); }

Tensor Tensor::to_host() const { return host_accessible() ? *this : to_device(kCPU); }

Tensor Tensor::to_device(int number) const {
    const Device& target = moira::device(number);
    if (number == device_) return *this;
    // Contiguous on the source device first, then one transfer through the allocator that owns
    // device memory (host-accessible memory is read and written directly).
    const Tensor src = contiguous();
    Tensor out(dtype_, shape_, target.number);
    if (is_weak()) out.set_weak_(weak_value_);  // the same Python number on another device
    const size_t n = nbytes();
    if (n == 0) return out;
    const Device& from = moira::device(device_);
    if (!from.host_accessible && !target.host_accessible) {
        const Tensor staged = src.to_device(kCPU);
        target.allocator->copy_from_host(out.raw_mem(), staged.raw_mem(), n);
    } else if (!from.host_accessible) {
        from.allocator->copy_to_host(out.raw_mem(), src.raw_mem(), n);
    } else {
        target.allocator->copy_from_host(out.raw_mem(), src.raw_mem(), n);
    }
    return out;
}

void Tensor::prepare_write_() {
    weak_ = false;
    if (!writable_in_place()) *this = clone();
}

void Tensor::prepare_overwrite_() {
    weak_ = false;
    if (!writable_in_place()) *this = Tensor(dtype_, shape_, device_);
}

}  // namespace moira
