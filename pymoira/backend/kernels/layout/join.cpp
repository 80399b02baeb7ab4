// concat, stack and tile: every input is copied once into its region of a new contiguous
// result (copy_elements walks any input layout, converting element types on the way).
#include "kernels/layout/join.hpp"

#include "kernels/iter/copy.hpp"
#include "kernels/layout/views.hpp"

namespace moira {

namespace {

// The common element type and device, checked; ValueError for an empty list.
DType joined_type(const std::vector<Tensor>& tensors, const char* op) {
    if (tensors.empty()) fail<ValueError>(op, ": need at least one tensor to join");
    DType t = tensors[0].dtype();
    for (const Tensor& x : tensors) {
        check_same_device(tensors[0], x, op);
        t = promote(t, x.dtype());
    }
    return t;
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
    int64_t start = 0;
    for (const Tensor& x : tensors) {
        if (x.numel() > 0) copy_elements(slice_axis(out, d, start, 1, x.shape()[d]), x);
        start += x.shape()[d];
    }
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
    for (size_t i = 0; i < tensors.size(); ++i)
        copy_elements(squeeze(slice_axis(out, d, static_cast<int64_t>(i), 1, 1), d), tensors[i]);
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

}  // namespace moira
