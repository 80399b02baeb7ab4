// tile_grad and fold_to: one walk of the gradient that adds each element into the output
// position it was copied from.
//
// Note [Folding a gradient]
// Axis i of g (length shape[i] * reps[i]) splits into (copy c, position p), element index
// c * shape[i] + p. Walking g over that split shape with the output's stride 0 along every
// copy axis adds each element into position p. The walk follows g's own memory order, so the
// inner loop is either a row added into a row of the output or a run summed into one output
// element. Rows may add into the same outputs: a large job gives each thread an equal range of
// g and a zeroed partial output of its own (allocated before the parallel region), and sums the
// partials at the end; small jobs run on one thread straight into the output.
#include "kernels/iter/fold.hpp"

#include <algorithm>

#include "kernels/iter/walker.hpp"

namespace moira {

namespace {

// One run of the walk: a row added into a row of the output, or a run summed into one element.
template <class T>
void fold_run(T* r, const T* a, int64_t len, int64_t sr, int64_t sa) {
    if (sr == 1 && sa == 1) {
        for (int64_t j = 0; j < len; ++j) r[j] += a[j];
    } else if (sr == 0) {
        T acc = r[0];
        for (int64_t j = 0; j < len; ++j) acc += a[j * sa];
        r[0] = acc;
    } else {
        for (int64_t j = 0; j < len; ++j) r[j * sr] += a[j * sa];
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
    Shape split, out_strides, g_strides;
    const Shape cs = contiguous_strides(in);
    for (size_t i = 0; i < n; ++i) {
        split.push_back(rp[i]);
        out_strides.push_back(0);
        g_strides.push_back(g.strides()[i] * in[i]);
        split.push_back(in[i]);
        out_strides.push_back(cs[i]);
        g_strides.push_back(g.strides()[i]);
    }
    dispatch(g.dtype(), "TileGrad", [&](auto tag) {
        using T = typename decltype(tag)::type;
        T* po = out.data<T>();
        const T* pg = g.strided_data<T>();
        const int64_t n_out = out.numel();
        std::fill(po, po + n_out, T(0));
        if (g.numel() == 0) return;
        StridedWalker<2> walk(split, {out_strides, g_strides}, 1);
        auto add_range = [&](T* target, int64_t lo, int64_t hi) {
            walk.run_range(lo, hi, [target, pg](const std::array<int64_t, 2>& off, int64_t len,
                                                const std::array<int64_t, 2>& st) {
                fold_run(target + off[0], pg + off[1], len, st[0], st[1]);
            });
        };
        const int64_t total = walk.size();
        const int64_t blocks = std::min<int64_t>(parallel_threads(), total / kParallelGrain);
        if (blocks < 2 || n_out * 8 > total) {
            add_range(po, 0, total);
            return;
        }
        Tensor partials(g.dtype(), Shape{(blocks - 1) * n_out}, g.device());
        T* partial = partials.data<T>();
        std::fill(partial, partial + partials.numel(), T(0));
        const int64_t per_block = (total + blocks - 1) / blocks;
        parallel_for(blocks, [&](int64_t lo, int64_t hi) {
            for (int64_t b = lo; b < hi; ++b)
                add_range(b == 0 ? po : partial + (b - 1) * n_out, b * per_block, std::min(total, (b + 1) * per_block));
        }, 1);
        for (int64_t b = 1; b < blocks; ++b) {
            const T* p = partial + (b - 1) * n_out;
            for (int64_t i = 0; i < n_out; ++i) po[i] += p[i];
        }
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
