// RegionWalk: visits the addressed region of an IndexPlan as rows of contiguous source elements.
//
// Note [Walking an addressed region]
// The trailing axes that an index takes whole and that lie contiguously in memory, together with
// the axis before them when it is a range of step 1 (or one position), form one contiguous
// block of the source; the region is
// `rows` such blocks, row r landing at r * block in the region's row-major order. The other
// axes ("outer" axes, each with more than one position) are walked like an odometer, the
// innermost one in a tight loop. Outer axes holding a single position only shift the base
// offset. So t[0:512, 3] on [1024, 1024] is 512 rows of one element, 1024 apart, and
// t[2:5] is one row of 3 * 1024 elements.
#pragma once

#include <algorithm>
#include <cstdint>
#include <vector>

#include "kernels/indexing/index_plan.hpp"

namespace moira {

class RegionWalk {
  public:
    // `strides` are the source's element strides (any view).
    RegionWalk(const IndexPlan& plan, const Shape& shape, const Shape& strides) {
        const size_t nd = shape.size();
        size_t tail = nd;
        while (tail > 0 && plan.axes[tail - 1].whole(shape[tail - 1]) &&
               (shape[tail - 1] == 1 || strides[tail - 1] == block_)) {
            block_ *= shape[tail - 1];
            --tail;
        }
        size_t outer_end = tail;
        if (tail > 0) {
            const AxisIndex& ax = plan.axes[tail - 1];
            if (!ax.is_list && (ax.count == 1 || (ax.step == 1 && strides[tail - 1] == block_))) {
                block_ *= ax.count;
                base_ += ax.start * strides[tail - 1];
                outer_end = tail - 1;
            }
        }
        for (size_t k = 0; k < outer_end; ++k) {
            const AxisIndex& ax = plan.axes[k];
            rows_ *= ax.count;
            if (ax.count == 1) base_ += ax.at(0) * strides[k];
            else outer_.push_back({&ax, strides[k]});
        }
        if (block_ == 0) rows_ = 0;
    }

    int64_t rows() const { return rows_; }
    int64_t block() const { return block_; }
    int64_t numel() const { return rows_ * block_; }

    // f(row, source offset) for rows [lo, hi), in order.
    template <class F>
    void run(int64_t lo, int64_t hi, F&& f) const {
        if (lo >= hi) return;
        if (outer_.empty()) {
            for (int64_t r = lo; r < hi; ++r) f(r, base_);
            return;
        }
        const size_t last = outer_.size() - 1;
        std::vector<int64_t> idx(outer_.size(), 0);
        int64_t rem = lo;
        for (size_t d = outer_.size(); d-- > 0;) {
            idx[d] = rem % outer_[d].ax->count;
            rem /= outer_[d].ax->count;
        }
        const Outer& in = outer_[last];
        int64_t r = lo;
        while (r < hi) {
            int64_t off = base_;
            for (size_t d = 0; d < last; ++d) off += outer_[d].ax->at(idx[d]) * outer_[d].stride;
            const int64_t j0 = idx[last];
            const int64_t jn = std::min(in.ax->count, j0 + (hi - r));
            if (in.ax->is_list) {
                const int64_t* p = in.ax->list.data();
                for (int64_t j = j0; j < jn; ++j) f(r++, off + p[j] * in.stride);
            } else {
                const int64_t delta = in.ax->step * in.stride;
                int64_t pos = off + in.ax->at(j0) * in.stride;
                for (int64_t j = j0; j < jn; ++j, pos += delta) f(r++, pos);
            }
            idx[last] = 0;
            for (size_t d = last; d-- > 0;) {
                if (++idx[d] < outer_[d].ax->count) break;
                idx[d] = 0;
            }
        }
    }

  private:
    struct Outer {
        const AxisIndex* ax;
        int64_t stride;
    };
    std::vector<Outer> outer_;
    int64_t base_ = 0;
    int64_t block_ = 1;
    int64_t rows_ = 1;
};

}  // namespace moira
