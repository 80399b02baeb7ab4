// Reduction: the input of a reduction and the axis its lanes run along, with the result's shape.
#pragma once

#include <optional>

#include "core/tensor.hpp"
#include "kernels/iter/axis_lanes.hpp"
#include "kernels/table.hpp"

namespace moira {

struct Reduction {
    Tensor in;        // the input; one lane of all its elements for a whole-tensor reduction
    int64_t axis = 0;  // wrapped
    Shape out_shape;

    // All elements, result shape [1] (Note [Shapes of reduction results]).
    static Reduction whole(const Tensor& t) {
        Reduction r;
        r.in = t.contiguous();
        r.in.set_view_(Shape{t.numel()}, Shape{1}, r.in.offset());
        r.out_shape = Shape{1};
        return r;
    }

    // The whole tensor (no axis) or along it.
    static Reduction of(const Tensor& t, std::optional<int64_t> axis, bool keepdims, const char* op) {
        return axis ? along(t, *axis, keepdims, op) : whole(t);
    }

    // Along `axis`; IndexError naming `op` for an axis outside [-ndim, ndim) (a tensor without
    // axes counts as one axis).
    static Reduction along(const Tensor& t, int64_t axis, bool keepdims, const char* op) {
        Reduction r;
        r.in = t;
        r.axis = wrap_axis(axis, t.ndim(), op);
        r.out_shape = reduced_shape(t.shape(), r.axis, keepdims);
        return r;
    }

    int64_t n() const { return in.ndim() == 0 ? 1 : in.shape()[axis]; }
    // The walk pairing each lane with one element of `out` (contiguous, of out_shape).
    AxisLanes lanes(const Tensor& out) const { return AxisLanes(out, in, axis, false); }

    // Runs `op` over every lane into `out` on their device (Note [The kernel table]).
    void run(LaneOp op, Tensor& out, int64_t ddof = 0) const {
        LanesPlan p{lanes(out), in.dtype(), out.dtype(), in.raw_mem(), out.raw_mem()};
        p.ddof = ddof;
        kernels_of(out).lanes(op, p);
    }

    // The shape of a reduction of `shape` along `axis` (already wrapped): see Note [Shapes of
    // reduction results] in reduce.hpp.
    static Shape reduced_shape(const Shape& shape, int64_t axis, bool keepdims) {
        Shape out = shape;
        if (!out.empty()) {
            if (keepdims) out[axis] = 1;
            else out.erase(out.begin() + axis);
        }
        if (out.empty()) out.push_back(1);
        return out;
    }
};

}  // namespace moira
