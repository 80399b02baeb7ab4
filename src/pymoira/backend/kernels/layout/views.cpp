// Views: reshape, flatten, squeeze, permute, broadcast_to, flip, axis slices and the pieces of
// split and chunk as new strides over one storage.
#include "kernels/layout/views.hpp"

#include <algorithm>

#include "core/errors.hpp"

namespace moira {

Tensor reshape(const Tensor& t, const Shape& shape) {
    Tensor out = t;
    reshape_(out, shape);
    return out;
}

void reshape_(Tensor& t, const Shape& shape) {
    Shape target = resolve_reshape(shape, t.numel(), "reshape");
    Shape strides;
    if (reshape_strides(t.shape(), t.strides(), target, strides)) {
        t.set_view_(std::move(target), std::move(strides), t.offset());
        return;
    }
    Tensor copy = t.clone();
    copy.set_view_(target, contiguous_strides(target), 0);
    t = std::move(copy);
}

Tensor flatten(const Tensor& t, int64_t start, int64_t end) {
    const int64_t s = wrap_axis(start, t.ndim(), "flatten"), e = wrap_axis(end, t.ndim(), "flatten");
    if (t.ndim() == 0) return reshape(t, Shape{1});
    if (s > e) fail<ValueError>("flatten: start axis ", start, " comes after end axis ", end);
    Shape shape(t.shape().begin(), t.shape().begin() + s);
    shape.push_back(numel(Shape(t.shape().begin() + s, t.shape().begin() + e + 1)));
    shape.insert(shape.end(), t.shape().begin() + e + 1, t.shape().end());
    return reshape(t, shape);
}

namespace {

// The shape and strides of t without axis `axis` (wrapped, of length 1).
void squeezed_layout(const Tensor& t, int64_t axis, Shape& shape, Shape& strides) {
    shape = t.shape();
    strides = t.strides();
    if (t.ndim() == 0) {
        wrap_axis(axis, 0, "squeeze");
        return;
    }
    const int64_t d = wrap_axis(axis, t.ndim(), "squeeze");
    if (shape[d] != 1)
        fail<ValueError>("squeeze: axis ", axis, " has length ", shape[d], ", only an axis of length 1 can be removed");
    shape.erase(shape.begin() + d);
    strides.erase(strides.begin() + d);
}

// The shape and strides of t with its axes in the order `axes` (checked).
void permuted_layout(const Tensor& t, const std::vector<int64_t>& axes, Shape& shape, Shape& strides) {
    const int64_t nd = t.ndim();
    if (static_cast<int64_t>(axes.size()) != nd)
        fail<ValueError>("transpose: ", axes.size(), " axes given for a tensor with ", nd, " axes");
    std::vector<bool> seen(static_cast<size_t>(nd), false);
    shape.assign(axes.size(), 0);
    strides.assign(axes.size(), 0);
    for (size_t d = 0; d < axes.size(); ++d) {
        int64_t a = axes[d];
        if (a < -nd || a >= nd)
            fail<ValueError>("transpose: axis ", a, " is out of range for a tensor with ", nd, " axes");
        if (a < 0) a += nd;
        if (seen[a]) fail<ValueError>("transpose: axis ", axes[d], " is repeated in the permutation");
        seen[a] = true;
        shape[d] = t.shape()[a];
        strides[d] = t.strides()[a];
    }
}

}  // namespace

Tensor squeeze(const Tensor& t, int64_t axis) {
    Shape shape, strides;
    squeezed_layout(t, axis, shape, strides);
    return t.view(std::move(shape), std::move(strides), t.offset());
}

void squeeze_(Tensor& t, int64_t axis) {
    Shape shape, strides;
    squeezed_layout(t, axis, shape, strides);
    t.set_view_(std::move(shape), std::move(strides), t.offset());
}

Tensor unsqueeze(const Tensor& t, int64_t axis) {
    const int64_t d = wrap_axis(axis, t.ndim() + 1, "unsqueeze");
    Shape shape = t.shape(), strides = t.strides();
    if (shape.size() >= kMaxDims) fail<ValueError>("unsqueeze: a tensor has at most ", kMaxDims, " axes");
    // Any stride reads the one position; the row-major one keeps contiguous tensors contiguous.
    const int64_t stride = d < t.ndim() ? strides[d] * shape[d] : 1;
    shape.insert(shape.begin() + d, 1);
    strides.insert(strides.begin() + d, stride);
    return t.view(std::move(shape), std::move(strides), t.offset());
}

Tensor permute(const Tensor& t, const std::vector<int64_t>& axes) {
    Shape shape, strides;
    permuted_layout(t, axes, shape, strides);
    return t.view(std::move(shape), std::move(strides), t.offset());
}

void permute_(Tensor& t, const std::vector<int64_t>& axes) {
    Shape shape, strides;
    permuted_layout(t, axes, shape, strides);
    t.set_view_(std::move(shape), std::move(strides), t.offset());
}

std::vector<int64_t> reversed_axes(int64_t ndim) {
    std::vector<int64_t> axes(static_cast<size_t>(ndim));
    for (int64_t d = 0; d < ndim; ++d) axes[static_cast<size_t>(d)] = ndim - 1 - d;
    return axes;
}

Tensor swapaxes(const Tensor& t, int64_t a, int64_t b) {
    const int64_t i = wrap_axis(a, t.ndim(), "swapaxis"), j = wrap_axis(b, t.ndim(), "swapaxis");
    if (t.ndim() == 0) return t;
    Shape shape = t.shape(), strides = t.strides();
    std::swap(shape[i], shape[j]);
    std::swap(strides[i], strides[j]);
    return t.view(std::move(shape), std::move(strides), t.offset());
}

Tensor broadcast_to(const Tensor& t, const Shape& shape) {
    if (t.shape() == shape) return t;
    if (shape.size() < t.shape().size() || broadcast_shapes(t.shape(), shape) != shape)
        fail<ValueError>("broadcast_to: cannot broadcast a tensor of shape ", shape_str(t.shape()), " to shape ",
                         shape_str(shape));
    Shape strides(shape.size(), 0);
    const size_t lead = shape.size() - t.shape().size();
    for (size_t d = 0; d < t.shape().size(); ++d)
        strides[lead + d] = t.shape()[d] == shape[lead + d] ? t.strides()[d] : 0;
    return t.view(shape, std::move(strides), t.offset());
}

Tensor broadcast_against(const Tensor& t, const Tensor& other) {
    device_of(t, other, "broadcast_to");
    return broadcast_to(t, broadcast_shapes(t.shape(), other.shape()));
}

std::pair<Tensor, Tensor> broadcast(const Tensor& a, const Tensor& b) {
    const int d = combined_device(a, b, "broadcast");
    const Shape s = broadcast_shapes(a.shape(), b.shape());
    if (a.device() != d) return {broadcast_to(a.to_device(d), s), broadcast_to(b, s)};  // a Python number
    if (b.device() != d) return {broadcast_to(a, s), broadcast_to(b.to_device(d), s)};
    return {broadcast_to(a, s), broadcast_to(b, s)};
}

Tensor flip(const Tensor& t, const std::vector<int64_t>& axes) {
    Shape strides = t.strides();
    int64_t offset = t.offset();
    std::vector<bool> flipped(static_cast<size_t>(t.ndim()), false);
    for (int64_t a : axes) {
        const int64_t d = wrap_axis(a, t.ndim(), "flip");
        if (t.ndim() == 0) continue;
        if (flipped[d]) fail<ValueError>("flip: axis ", a, " is named twice");
        flipped[d] = true;
        if (t.shape()[d] > 0) offset += (t.shape()[d] - 1) * strides[d];
        strides[d] = -strides[d];
    }
    return t.view(t.shape(), std::move(strides), offset);
}

Tensor slice_axis(const Tensor& t, int64_t axis, int64_t start, int64_t step, int64_t count) {
    Shape shape = t.shape(), strides = t.strides();
    const int64_t offset = count > 0 ? t.offset() + start * strides[axis] : t.offset();
    shape[axis] = count;
    strides[axis] *= step;
    return t.view(std::move(shape), std::move(strides), offset);
}

std::vector<Tensor> split(const Tensor& t, const Shape& sizes, int64_t axis) {
    const int64_t d = wrap_axis(axis, t.ndim(), "split");
    if (t.ndim() == 0) fail<ValueError>("split: a tensor without axes cannot be split");
    const int64_t length = t.shape()[d];
    int64_t total = 0;
    for (int64_t n : sizes) {
        if (n < 0) fail<ValueError>("split: negative section size ", n, " in ", shape_str(sizes));
        if (n > length - total)
            fail<ValueError>("split: sections ", shape_str(sizes), " exceed the length ", length, " of axis ", axis);
        total += n;
    }
    if (total != length)
        fail<ValueError>("split: sections ", shape_str(sizes), " add up to ", total, ", not to the length ", length,
                         " of axis ", axis);
    std::vector<Tensor> pieces;
    pieces.reserve(sizes.size());
    int64_t start = 0;
    for (int64_t n : sizes) {
        pieces.push_back(slice_axis(t, d, start, 1, n));
        start += n;
    }
    return pieces;
}

std::vector<Tensor> chunk(const Tensor& t, int64_t chunks, int64_t axis) {
    const int64_t d = wrap_axis(axis, t.ndim(), "chunk");
    if (t.ndim() == 0) fail<ValueError>("chunk: a tensor without axes cannot be split");
    if (chunks < 1) fail<ValueError>("chunk: the number of chunks must be at least 1, got ", chunks);
    const int64_t n = t.shape()[d] / chunks;
    if (n == 0 && chunks > (int64_t(1) << 16))  // a list of that many empty pieces is a mistake, not a request
        fail<ValueError>("chunk: ", chunks, " chunks of an axis of length ", t.shape()[d], " would all be empty");
    std::vector<Tensor> pieces;
    pieces.reserve(static_cast<size_t>(chunks));
    for (int64_t i = 0; i < chunks; ++i) pieces.push_back(slice_axis(t, d, i * n, 1, n));
    return pieces;
}

}  // namespace moira
