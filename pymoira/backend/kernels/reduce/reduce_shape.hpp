// ReduceView: a tensor seen as [outer, n, inner] around the axis a reduction runs along.
#pragma once

#include "core/tensor.hpp"

namespace moira {

struct ReduceView {
    int64_t outer = 1, n = 1, inner = 1;
    int64_t axis = 0;  // wrapped

    static ReduceView whole(const Tensor& t) { return {1, t.numel(), 1, 0}; }

    // IndexError naming `op` for an axis outside [-ndim, ndim) (a tensor without axes counts as one axis).
    static ReduceView along(const Tensor& t, int64_t axis, const char* op) {
        ReduceView v;
        v.axis = wrap_axis(axis, t.ndim(), op);
        const Shape& s = t.shape();
        if (s.empty()) return v;
        v.n = s[v.axis];
        for (int64_t k = 0; k < v.axis; ++k) v.outer *= s[k];
        for (size_t k = v.axis + 1; k < s.size(); ++k) v.inner *= s[k];
        return v;
    }
};

}  // namespace moira
