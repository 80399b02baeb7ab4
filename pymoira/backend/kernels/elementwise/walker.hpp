// The one iterator that walks element-wise operands: N inputs broadcast against a contiguous
// output.
//
// Note [Walking broadcast operands]
// Each input gets a stride per output axis (0 on an axis it is broadcast along). Adjacent axes
// that are contiguous for every operand are merged, so [1024, 1024] + [1024] becomes 1024 rows
// of one inner loop with strides (1, 1). The walker hands each row to the kernel as
// (output offset, input offsets, row length, inner strides); kernels specialise the inner
// loop for the common stride patterns (1, 1), (1, 0), (0, 1). Rows are split across threads
// when the output is large.
#pragma once

#include <array>
#include <cstdint>
#include <vector>

#include "core/errors.hpp"
#include "core/shape.hpp"
#include "kernels/parallel.hpp"

namespace moira {

template <int N>
struct BroadcastWalker {
    Shape extents;                         // merged output extents, outermost first
    std::array<Shape, N> strides;          // element strides of each input per merged axis

    BroadcastWalker(const Shape& out, const std::array<const Shape*, N>& in) {
        const size_t nd = out.size();
        std::array<Shape, N> full;
        for (int k = 0; k < N; ++k) {
            const Shape& s = *in[k];
            Shape cs = contiguous_strides(s);
            full[k].assign(nd, 0);
            size_t off = nd - s.size();
            for (size_t d = 0; d < s.size(); ++d) full[k][off + d] = s[d] == 1 ? 0 : cs[d];
        }
        merge(out, full);
    }

    // Operands given by their element strides per output axis (0 where an operand repeats).
    BroadcastWalker(const Shape& out, const std::array<Shape, N>& full) { merge(out, full); }

  private:
    void merge(const Shape& out, const std::array<Shape, N>& full) {
        const size_t nd = out.size();
        // Merge axis d into the axis before it when every operand steps through both as one.
        for (size_t d = 0; d < nd; ++d) {
            if (out[d] == 1) continue;  // length-1 axes carry no iteration
            bool merge = !extents.empty();
            if (merge) {
                for (int k = 0; k < N; ++k)
                    if (strides[k].back() != full[k][d] * out[d]) merge = false;
            }
            if (merge) {
                extents.back() *= out[d];
                for (int k = 0; k < N; ++k) strides[k].back() = full[k][d];
            } else {
                extents.push_back(out[d]);
                for (int k = 0; k < N; ++k) strides[k].push_back(full[k][d]);
            }
        }
        if (extents.empty()) {
            extents.push_back(1);
            for (int k = 0; k < N; ++k) strides[k].push_back(0);
        }
    }

  public:

    // Number of innermost rows.
    int64_t rows() const {
        int64_t r = 1;
        for (size_t d = 0; d + 1 < extents.size(); ++d) r *= extents[d];
        return r;
    }

    // row(out_offset, in_offsets, length, inner_strides) for every innermost row.
    template <class Row>
    void run(Row&& row, int64_t grain = kParallelGrain) const {
        int64_t row_grain = std::max<int64_t>(1, grain / std::max<int64_t>(extents.back(), 1));
        parallel_for(rows(), [&](int64_t lo, int64_t hi) { run_rows(lo, hi, row); }, row_grain);
    }

    // The same for rows [lo, hi) on the calling thread. Allocates nothing, so it may run inside
    // a parallel region.
    template <class Row>
    void run_rows(int64_t lo, int64_t hi, Row&& row) const {
        const size_t nd = extents.size();
        MOIRA_INTERNAL_ASSERT(nd <= kMaxAxes);
        const int64_t inner = extents.back();
        std::array<int64_t, N> inner_strides;
        for (int k = 0; k < N; ++k) inner_strides[k] = strides[k].back();
        // Offsets of row `lo`, then advanced like an odometer.
        std::array<int64_t, kMaxAxes> idx{};
        std::array<int64_t, N> off{};
        int64_t r = lo;
        for (size_t d = nd - 1; d-- > 0;) {
            idx[d] = r % extents[d];
            r /= extents[d];
            for (int k = 0; k < N; ++k) off[k] += idx[d] * strides[k][d];
        }
        for (int64_t rr = lo; rr < hi; ++rr) {
            row(rr * inner, off, inner, inner_strides);
            for (size_t d = nd - 1; d-- > 0;) {
                for (int k = 0; k < N; ++k) off[k] += strides[k][d];
                if (++idx[d] < extents[d]) break;
                for (int k = 0; k < N; ++k) off[k] -= strides[k][d] * extents[d];
                idx[d] = 0;
            }
        }
    }

    // Merged axes never outnumber the axes walked (two per tensor axis for tiling gradients).
    static constexpr size_t kMaxAxes = 2 * 64 + 2;
};

}  // namespace moira
