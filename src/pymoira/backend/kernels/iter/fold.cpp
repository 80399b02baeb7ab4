// tile_grad and fold_to: the gradient summed over the copies laid onto each output element, as
// the reductions add.
//
// Note [Folding a gradient]
// Axis i of g (length shape[i] * reps[i]) splits into (copy c, position p), element index
// c * shape[i] + p, so g is viewed, without a copy, with the split shape [reps0, shape0, reps1,
// shape1, ...]; the fold is the sum of that view over its copy axes. Length-1 axes are dropped
// and neighbouring axes of one kind merged where the view steps over them as one ([N, K] folded
// to [1] is one lane of N * K elements). Each copy axis left is then summed away by the
// reduction machinery (sum_lanes, Note [How reductions add]): the longest first, into a
// contiguous intermediate in the accumulator type (double for float32), the last into the
// result. So a folded gradient adds exactly as `sum` does: float32 in double accumulators, long
// lanes in fixed chunks combined pairwise, the same bits whatever the thread count. g may be any
// view, stride-0 axes (a broadcast seed) included; without copy axes left the fold is a copy,
// and an empty g folds to zeros.
#include "kernels/iter/fold.hpp"

#include <algorithm>
#include <vector>

#include "kernels/iter/copy.hpp"
#include "kernels/creation.hpp"
#include "kernels/reduce/accumulate.hpp"
#include "kernels/table.hpp"

namespace moira {

namespace {

// One axis of the split view of g: a copy axis is summed away, a position axis kept.
struct SplitAxis {
    int64_t len, stride;
    bool copy;
};

// Length-1 axes dropped, neighbours of one kind merged where the outer one steps over the inner.
std::vector<SplitAxis> merge_axes(const std::vector<SplitAxis>& axes) {
    std::vector<SplitAxis> out;
    for (const SplitAxis& a : axes) {
        if (a.len == 1) continue;
        if (!out.empty() && out.back().copy == a.copy && out.back().stride == a.stride * a.len) {
            out.back().len *= a.len;
            out.back().stride = a.stride;
        } else {
            out.push_back(a);
        }
    }
    return out;
}

// src viewed with `axes` summed over axes[which] into `out` (one element per position of the
// other axes, row-major), as the sums add (a float32 source in double, rounded into out's type).
void sum_axis(const Tensor& src, const std::vector<SplitAxis>& axes, size_t which, Tensor& out) {
    Shape shape, strides;
    for (const SplitAxis& a : axes) {
        shape.push_back(a.len);
        strides.push_back(a.stride);
    }
    const Tensor in = src.view(shape, strides, src.offset());
    const LanesPlan p{AxisLanes(out, in, static_cast<int64_t>(which), false), in.dtype(), out.dtype(), in.raw_mem(),
                      out.raw_mem()};
    kernels_of(out).lanes(LaneOp::Sum, p);
}

// out (contiguous, T) <- g viewed with `axes` summed over its copy axes.
template <class T>
void fold_axes(const Tensor& g, std::vector<SplitAxis> axes, Tensor& out) {
    using A = typename SumTypes<T>::A;
    axes = merge_axes(axes);
    Tensor cur = g;
    bool first = true;
    for (;;) {
        size_t which = axes.size(), copies = 0;
        for (size_t i = 0; i < axes.size(); ++i)
            if (axes[i].copy) {
                ++copies;
                if (which == axes.size() || axes[i].len > axes[which].len) which = i;
            }
        if (copies == 0) {  // nothing repeated: a copy (only when no axis was ever summed)
            Shape shape, strides;
            for (const SplitAxis& a : axes) {
                shape.push_back(a.len);
                strides.push_back(a.stride);
            }
            Tensor flat = out.view(shape, contiguous_strides(shape), 0);
            copy_elements(flat, cur.view(shape, strides, cur.offset()));
            return;
        }
        if (copies == 1) {
            sum_axis(cur, axes, which, out);
            return;
        }
        Shape kept;
        for (size_t i = 0; i < axes.size(); ++i)
            if (i != which) kept.push_back(axes[i].len);
        Tensor next(dtype_of<A>::value, kept, g.device());
        sum_axis(cur, axes, which, next);
        axes.erase(axes.begin() + static_cast<std::ptrdiff_t>(which));
        const Shape cs = contiguous_strides(kept);
        for (size_t i = 0; i < axes.size(); ++i) axes[i].stride = cs[i];
        axes = merge_axes(axes);
        cur = std::move(next);
        first = false;
    }
}

}  // namespace

Tensor tile_grad(const Tensor& g, const Shape& shape, const Shape& reps) {
    const size_t n = static_cast<size_t>(g.ndim());
    if (shape.size() > n || reps.size() > n)
        fail<ValueError>("TileGrad: shape ", shape_str(shape), " and reps ", shape_str(reps),
                         " have more axes than the gradient of shape ", shape_str(g.shape()));
    Shape in(n, 1), rp(n, 1);
    std::copy(shape.begin(), shape.end(), in.begin() + static_cast<std::ptrdiff_t>(n - shape.size()));
    std::copy(reps.begin(), reps.end(), rp.begin() + static_cast<std::ptrdiff_t>(n - reps.size()));
    for (size_t i = 0; i < n; ++i)
        if (in[i] < 0 || rp[i] < 0 || static_cast<__int128>(in[i]) * rp[i] != g.shape()[i])
            fail<ValueError>("TileGrad: a gradient of shape ", shape_str(g.shape()), " is not shape ", shape_str(shape),
                             " tiled ", shape_str(reps), " times");
    Tensor out(g.dtype(), in, g.device());
    std::vector<SplitAxis> axes;
    for (size_t i = 0; i < n; ++i) {
        axes.push_back({rp[i], g.strides()[i] * in[i], true});
        axes.push_back({in[i], g.strides()[i], false});
    }
    dispatch<TypeSet::WithComplex>(g.dtype(), "TileGrad", [&](auto tag) {
        using T = typename decltype(tag)::type;
        if (out.numel() == 0) return;
        if (g.numel() == 0) {  // no copies at all: every sum is empty
            fill_(out, Scalar::from_int(0));
            return;
        }
        fold_axes<T>(g, std::move(axes), out);
    });
    out.set_view_(shape, contiguous_strides(shape), 0);
    return out;
}

Tensor fold_to(const Tensor& g, const Shape& shape) {
    if (g.shape() == shape) return g;
    Shape common;
    try {
        common = broadcast_shapes(shape, g.shape());
    } catch (const ValueError&) {
        fail<ValueError>("cannot fold a gradient of shape ", shape_str(g.shape()), " onto shape ", shape_str(shape));
    }
    if (common != g.shape()) {
        // A gradient smaller than the result it belongs to (a one-number seed given to backward)
        // stands for its broadcast: fold a zero-stride view of it.
        const size_t lead = common.size() - static_cast<size_t>(g.ndim());
        Shape strides(common.size(), 0);
        for (size_t i = 0; i < static_cast<size_t>(g.ndim()); ++i)
            if (g.shape()[i] == common[lead + i]) strides[lead + i] = g.strides()[i];
        return fold_to(g.view(common, strides, g.offset()), shape);
    }
    const size_t n = static_cast<size_t>(g.ndim());
    Shape padded(n - shape.size(), 1);
    padded.insert(padded.end(), shape.begin(), shape.end());
    Shape reps(n);
    for (size_t i = 0; i < n; ++i) reps[i] = padded[i] == g.shape()[i] ? 1 : g.shape()[i];
    Tensor out = tile_grad(g, padded, reps);
    out.set_view_(shape, contiguous_strides(shape), 0);
    return out;
}

}  // namespace moira
