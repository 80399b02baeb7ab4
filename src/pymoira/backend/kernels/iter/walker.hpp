// The element-wise plan: N strided operands walked together over one shape.
//
// Note [Walking strided operands]
// Each operand has a stride per axis of the walked shape (0 on an axis it repeats along, any
// sign otherwise); by convention operand 0 is the output. The axes are put in the order in
// which one chosen operand steps through memory (largest stride first), length-1 axes are
// dropped, and adjacent axes that every operand steps through as one are merged, so
// [1024, 1024] + [1024] becomes 1024 rows of one inner loop with strides (1, 1, 1), and a
// transposed operand keeps its own fast axis innermost when it is the one that orders.
// The walker hands each run of consecutive elements of a row to the kernel as (offsets of its
// first element per operand, run length, inner strides per operand); kernels specialise the
// inner loop for the common stride patterns. Large walks are split into equal element ranges
// across threads, cutting rows where needed, so one long contiguous row keeps every core busy.
#pragma once

#include <algorithm>
#include <array>
#include <cstdint>
#include <numeric>
#include <vector>

#include "core/errors.hpp"
#include "core/tensor.hpp"
#include "kernels/parallel.hpp"

namespace moira {

// The strides of t along the axes of `shape`, which t broadcasts to: 0 on the axes t repeats
// along (a missing leading axis or one of length 1). The caller has checked that t broadcasts.
inline Shape broadcast_strides(const Tensor& t, const Shape& shape) {
    Shape out(shape.size(), 0);
    const size_t lead = shape.size() - t.shape().size();
    for (size_t d = 0; d < t.shape().size(); ++d)
        out[lead + d] = t.shape()[d] == 1 ? 0 : t.strides()[d];
    return out;
}

template <int N>
struct StridedWalker {
    using Offsets = std::array<int64_t, N>;

    Shape extents;                 // merged extents, outermost first (at least one axis)
    std::array<Shape, N> strides;  // element strides of each operand per merged axis

    // `full[k]` holds operand k's stride along each axis of `shape`; axes are ordered by the
    // strides of operand `order_by`.
    StridedWalker(const Shape& shape, const std::array<Shape, N>& full, int order_by = 0) {
        const size_t nd = shape.size();
        std::vector<size_t> axes(nd);
        std::iota(axes.begin(), axes.end(), 0);
        const Shape& key = full[order_by];
        auto mag = [](int64_t s) { return s < 0 ? -s : s; };
        std::stable_sort(axes.begin(), axes.end(),
                         [&](size_t a, size_t b) { return mag(key[a]) > mag(key[b]); });
        for (size_t a : axes) {
            if (shape[a] == 1) continue;  // length-1 axes carry no iteration
            bool merge = !extents.empty();
            for (int k = 0; k < N && merge; ++k)
                if (strides[k].back() != full[k][a] * shape[a]) merge = false;
            if (merge) {
                extents.back() *= shape[a];
                for (int k = 0; k < N; ++k) strides[k].back() = full[k][a];
            } else {
                extents.push_back(shape[a]);
                for (int k = 0; k < N; ++k) strides[k].push_back(full[k][a]);
            }
        }
        if (extents.empty()) {
            extents.push_back(numel(shape) == 0 ? 0 : 1);
            for (int k = 0; k < N; ++k) strides[k].push_back(0);
        }
    }

    int64_t inner() const { return extents.back(); }
    int64_t size() const { return numel(extents); }
    // Number of innermost rows.
    int64_t rows() const { return inner() == 0 ? 0 : size() / inner(); }

    // run(off, length, inner_strides) over every element, split across threads when the walk
    // is at least 2 * grain elements.
    template <class Run>
    void run(Run&& f, int64_t grain = kParallelGrain) const {
        parallel_for(size(), [&](int64_t lo, int64_t hi) { run_range(lo, hi, f); }, grain);
    }

    // The same for the elements [lo, hi) in walking order, on the calling thread. Allocates
    // nothing, so it may run inside a parallel region.
    template <class Run>
    void run_range(int64_t lo, int64_t hi, Run&& f) const {
        const int64_t n_inner = inner();
        if (lo >= hi || n_inner == 0) return;
        const size_t nd = extents.size();
        MOIRA_INTERNAL_ASSERT(nd <= kMaxAxes);
        Offsets inner_strides;
        for (int k = 0; k < N; ++k) inner_strides[k] = strides[k].back();
        // Position of element `lo`: row index digits (odometer) and the column in its row.
        std::array<int64_t, kMaxAxes> idx{};
        Offsets row_off{};
        int64_t r = lo / n_inner, col = lo % n_inner;
        for (size_t d = nd - 1; d-- > 0;) {
            idx[d] = r % extents[d];
            r /= extents[d];
            for (int k = 0; k < N; ++k) row_off[k] += idx[d] * strides[k][d];
        }
        int64_t pos = lo;
        while (pos < hi) {
            const int64_t len = std::min(n_inner - col, hi - pos);
            Offsets off;
            for (int k = 0; k < N; ++k) off[k] = row_off[k] + col * inner_strides[k];
            f(off, len, inner_strides);
            pos += len;
            col = 0;
            for (size_t d = nd - 1; d-- > 0;) {
                for (int k = 0; k < N; ++k) row_off[k] += strides[k][d];
                if (++idx[d] < extents[d]) break;
                for (int k = 0; k < N; ++k) row_off[k] -= strides[k][d] * extents[d];
                idx[d] = 0;
            }
        }
    }

    // Merged axes never outnumber the axes walked (two per tensor axis for tiling gradients).
    static constexpr size_t kMaxAxes = 2 * kMaxDims + 2;
};

}  // namespace moira
