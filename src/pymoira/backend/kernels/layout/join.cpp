// concat, stack and tile: every input is copied once into its region of a new contiguous
// result (copy_elements walks any input layout, converting element types on the way); and
// add_region_.
#include "kernels/layout/join.hpp"

#include "kernels/iter/copy.hpp"
#include "kernels/parallel.hpp"
#include "kernels/iter/walker.hpp"
#include "kernels/layout/views.hpp"
#include "kernels/table.hpp"

namespace moira {

namespace {

// The common element type and device, checked; ValueError for an empty list.
DType joined_type(const std::vector<Tensor>& tensors, const char* op) {
    if (tensors.empty()) fail<ValueError>(op, ": need at least one tensor to join");
    DType t = tensors[0].dtype();
    for (const Tensor& x : tensors) {
        device_of(tensors[0], x, op);
        t = promote(t, x.dtype());
    }
    return t;
}

// copy(i) for every input: whole inputs per thread when there are enough of them (one parallel
// region instead of one per input), else one after the other, each copy split across threads.
template <class Copy>
void copy_each(int64_t inputs, int64_t total, Copy&& copy) {
    if (inputs >= parallel_threads() && total >= 2 * kParallelGrain) {
        parallel_for(inputs, [&](int64_t lo, int64_t hi) {
            for (int64_t i = lo; i < hi; ++i) copy(i);
        }, 1);
        return;
    }
    for (int64_t i = 0; i < inputs; ++i) copy(i);
}

}  // namespace

Tensor concat(const std::vector<Tensor>& tensors, int64_t axis) {
    const DType dtype = joined_type(tensors, "concat");
    const Tensor& first = tensors[0];
    if (first.ndim() == 0) fail<ValueError>("concat: tensors without axes cannot be joined");
    const int64_t d = wrap_axis(axis, first.ndim(), "concat");
    Shape shape = first.shape();
    shape[d] = 0;
    for (size_t i = 0; i < tensors.size(); ++i) {
        const Shape& s = tensors[i].shape();
        bool same = s.size() == shape.size();
        for (size_t k = 0; same && k < s.size(); ++k) same = static_cast<int64_t>(k) == d || s[k] == shape[k];
        if (!same)
            fail<ValueError>("concat: tensor ", i, " has shape ", shape_str(s), ", which does not match shape ",
                             shape_str(first.shape()), " of tensor 0 off axis ", axis);
        if (s[d] > (int64_t(1) << 48) - shape[d]) fail<ValueError>("concat: the joined axis is too long");
        shape[d] += s[d];
    }
    checked_numel(shape);
    Tensor out(dtype, shape, first.device());
    std::vector<int64_t> starts(tensors.size(), 0);
    for (size_t i = 1; i < tensors.size(); ++i) starts[i] = starts[i - 1] + tensors[i - 1].shape()[d];
    copy_each(static_cast<int64_t>(tensors.size()), out.numel(), [&](int64_t i) {
        const Tensor& x = tensors[static_cast<size_t>(i)];
        if (x.numel() > 0) copy_elements(slice_axis(out, d, starts[static_cast<size_t>(i)], 1, x.shape()[d]), x);
    });
    return out;
}

Tensor stack(const std::vector<Tensor>& tensors, int64_t axis) {
    const DType dtype = joined_type(tensors, "stack");
    const Shape& shape = tensors[0].shape();
    for (size_t i = 0; i < tensors.size(); ++i)
        if (tensors[i].shape() != shape)
            fail<ValueError>("stack: tensor ", i, " has shape ", shape_str(tensors[i].shape()),
                             ", which differs from shape ", shape_str(shape), " of tensor 0");
    const int64_t d = wrap_axis(axis, tensors[0].ndim() + 1, "stack");
    Shape out_shape = shape;
    out_shape.insert(out_shape.begin() + d, static_cast<int64_t>(tensors.size()));
    checked_numel(out_shape);
    Tensor out(dtype, out_shape, tensors[0].device());
    copy_each(static_cast<int64_t>(tensors.size()), out.numel(), [&](int64_t i) {
        copy_elements(squeeze(slice_axis(out, d, i, 1, 1), d), tensors[static_cast<size_t>(i)]);
    });
    return out;
}

Tensor tile(const Tensor& t, const Shape& reps) {
    for (int64_t r : reps)
        if (r < 0) fail<ValueError>("tile: negative repetition count ", r, " in ", shape_str(reps));
    const size_t n = std::max(reps.size(), t.shape().size());
    Shape in(n, 1), rp(n, 1), in_strides(n, 0);
    std::copy(t.shape().begin(), t.shape().end(), in.begin() + static_cast<std::ptrdiff_t>(n - t.shape().size()));
    std::copy(t.strides().begin(), t.strides().end(),
              in_strides.begin() + static_cast<std::ptrdiff_t>(n - t.shape().size()));
    std::copy(reps.begin(), reps.end(), rp.begin() + static_cast<std::ptrdiff_t>(n - reps.size()));
    // Axis i of the result splits into (copy, position): a view of t over [r0, s0, r1, s1, ...]
    // with stride 0 along every copy axis, written out in row-major order. Axes of length 1
    // are left out, so the split never has more axes than an addressable tensor.
    Shape shape(n), split, split_strides;
    for (size_t i = 0; i < n; ++i) {
        if (in[i] != 0 && rp[i] > (int64_t(1) << 48) / in[i])
            fail<ValueError>("tile: repeating shape ", shape_str(t.shape()), " by ", shape_str(reps), " is too large");
        shape[i] = in[i] * rp[i];
        if (rp[i] != 1) {
            split.push_back(rp[i]);
            split_strides.push_back(0);
        }
        if (in[i] != 1) {
            split.push_back(in[i]);
            split_strides.push_back(in_strides[i]);
        }
    }
    checked_numel(shape);
    Tensor out(t.dtype(), shape, t.device());
    if (out.numel() == 0) return out;
    const Tensor source = t.view(split, split_strides, t.offset());
    Tensor target = out.view(split, contiguous_strides(split), 0);
    copy_elements(target, source);
    return out;
}

void add_region_(Tensor& t, const IndexList& index, const Tensor& g) {
    device_of(t, g, "add_region_");
    Shape region;
    {
        const Tensor probe = select(t, index);  // validates the index; released before the write
        if (!probe.shares_storage(t))
            fail<ValueError>("add_region_: the index must address a region of ranges, not a list of positions");
        region = probe.shape();
    }
    Shape gs = g.shape();
    while (gs.size() > region.size() && gs.front() == 1) gs.erase(gs.begin());
    const Tensor values = broadcast_to(reshape(g, gs), region);
    t.prepare_write_();
    const Tensor target = select(t, index);  // the same region of t's own storage
    if (target.numel() == 0) return;
    // target += values in place, in t's type (the region is a view of t's own storage).
    const Tensor addend = values.dtype() == t.dtype() ? values : values.to(t.dtype());
    if (t.dtype() == DType::Bool) {  // a bool sum is an or
        kernels_of(t).binary(BinaryOp::LogicalOr, DType::Bool, plan_walk<3>(target, {&target, &addend}));
        return;
    }
    kernels_of(t).binary(BinaryOp::Add, t.dtype(), plan_walk<3>(target, {&target, &addend}));
}

}  // namespace moira
