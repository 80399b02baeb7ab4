// The axis-lanes walker: one way to walk "outer x axis x inner" for every operation along an
// axis (reductions, scans, sorts, softmax), over strided tensors.
//
// Note [Walking lanes along an axis]
// An operation along axis a sees its input as lanes: one lane per position of the other axes,
// each lane the n elements along a. AxisLanes pairs every input lane with its output: one
// element per lane for a reduction, a lane of its own for a scan or a sort. It hands the
// operation blocks of lanes that lie at a constant distance from each other,
//     block(in, in_lane_step, out, out_lane_step, lanes)
// where element k of lane j is in[j * in_lane_step + k * in_axis_step] and its output is
// out[j * out_lane_step] (reductions) or out[j * out_lane_step + k * out_axis_step] (scans).
// The operation, the pluggable combine, chooses its loop from the steps: along a contiguous
// lane (in_axis_step == 1) it runs down each lane; across adjacent lanes (in_lane_step == 1)
// it walks the axis once and updates a row of lanes per step, which vectorises; anything else
// falls back to a plain strided loop. Blocks are split across threads by lanes.
#pragma once

#include <algorithm>
#include <cstdint>

#include "kernels/iter/walker.hpp"

namespace moira {

struct AxisLanes {
    int64_t n = 1;              // elements per lane
    int64_t in_axis_step = 0;   // input stride along the axis
    int64_t out_axis_step = 0;  // output stride along the axis; 0 for a reduction
    Shape lane_shape;
    StridedWalker<2> lanes;     // over lane_shape: operand 0 the output, 1 the input

    // `axis` is already wrapped into [0, in.ndim()) (any value for a tensor without axes).
    // out_has_axis: `out` has in's shape (a scan or sort); otherwise `out` is a contiguous
    // tensor of one element per lane (a reduction, with or without the kept axis).
    AxisLanes(const Tensor& out, const Tensor& in, int64_t axis, bool out_has_axis)
        : lanes(make(out, in, axis, out_has_axis)) {}

    int64_t lane_count() const { return numel(lane_shape); }

    // block(in_ptr, in_lane_step, out_ptr, out_lane_step, lanes) over every lane; `cost` is the
    // work per lane in element operations, which decides how many lanes a thread takes.
    template <class T, class O, class Block>
    void run(const T* in, O* out, Block&& block, int64_t cost) const {
        const int64_t grain = std::max<int64_t>(1, kParallelGrain / std::max<int64_t>(cost, 1));
        lanes.run([&](const std::array<int64_t, 2>& off, int64_t len, const std::array<int64_t, 2>& st) {
            block(in + off[1], st[1], out + off[0], st[0], len);
        }, grain);
    }

  private:
    StridedWalker<2> make(const Tensor& out, const Tensor& in, int64_t axis, bool out_has_axis) {
        Shape in_ls, out_ls;
        const Shape& s = in.shape();
        for (size_t d = 0; d < s.size(); ++d) {
            if (static_cast<int64_t>(d) == axis) {
                n = s[d];
                in_axis_step = in.strides()[d];
                if (out_has_axis) out_axis_step = out.strides()[d];
                continue;
            }
            lane_shape.push_back(s[d]);
            in_ls.push_back(in.strides()[d]);
            if (out_has_axis) out_ls.push_back(out.strides()[d]);
        }
        if (!out_has_axis) out_ls = contiguous_strides(lane_shape);
        return StridedWalker<2>(lane_shape, {out_ls, in_ls}, 1);
    }
};

}  // namespace moira
