// Views: reshape, permute, broadcast_to, flip and axis slices as new strides over one storage.
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

Tensor permute(const Tensor& t, const std::vector<int64_t>& axes) {
    const int64_t nd = t.ndim();
    if (static_cast<int64_t>(axes.size()) != nd)
        fail<ValueError>("permute: ", axes.size(), " axes given for a tensor with ", nd, " axes");
    std::vector<bool> seen(static_cast<size_t>(nd), false);
    Shape shape(axes.size()), strides(axes.size());
    for (size_t d = 0; d < axes.size(); ++d) {
        int64_t a = axes[d];
        if (a < -nd || a >= nd)
            fail<ValueError>("permute: axis ", a, " is out of range for a tensor with ", nd, " axes");
        if (a < 0) a += nd;
        if (seen[a]) fail<ValueError>("permute: axis ", axes[d], " is repeated in the permutation");
        seen[a] = true;
        shape[d] = t.shape()[a];
        strides[d] = t.strides()[a];
    }
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

std::pair<Tensor, Tensor> broadcast(const Tensor& a, const Tensor& b) {
    check_same_device(a, b, "broadcast");
    const Shape s = broadcast_shapes(a.shape(), b.shape());
    return {broadcast_to(a, s), broadcast_to(b, s)};
}

Tensor flip(const Tensor& t, const std::vector<int64_t>& axes) {
    Shape strides = t.strides();
    int64_t offset = t.offset();
    std::vector<bool> flipped(static_cast<size_t>(t.ndim()), false);
    for (int64_t a : axes) {
        const int64_t d = wrap_axis(a, t.ndim(), "flip");
        if (t.ndim() == 0 || flipped[d]) continue;
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

}  // namespace moira
