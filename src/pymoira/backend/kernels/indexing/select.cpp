// select, set_select_, select_bp and set_select_bp. A region of ranges and single positions is a
// view; a region with position lists is copied row by row with one RegionWalk, as the writes
// and the gradient are (see Note [Walking an addressed region]).
#include "kernels/indexing/select.hpp"

#include <algorithm>

#include "core/errors.hpp"
#include "kernels/creation.hpp"
#include "kernels/iter/copy.hpp"
#include "kernels/layout/views.hpp"
#include "kernels/indexing/index_plan.hpp"
#include "kernels/indexing/region_walk.hpp"
#include "kernels/parallel.hpp"
#include "kernels/table.hpp"

namespace moira {

namespace {

// Runs f(row, offset) over every row, split across threads when the region is large and the
// rows may run in any order.
template <class F>
void for_rows(const RegionWalk& walk, bool ordered, F&& f) {
    const int64_t rows = walk.rows();
    if (ordered) {
        walk.run(0, rows, f);
        return;
    }
    const int64_t grain = std::max<int64_t>(1, kParallelGrain / std::max<int64_t>(walk.block(), 1));
    parallel_for(rows, [&](int64_t lo, int64_t hi) { walk.run(lo, hi, f); }, grain);
}

// `values` in the region's shape, contiguous: as is, or broadcast to it. ValueError when it does
// not fit.
Tensor fit_to_region(const Tensor& values, const Shape& region, const IndexList& index, const char* op) {
    Shape v = values.shape();
    size_t lead = 0;
    while (v.size() - lead > region.size() && v[lead] == 1) ++lead;
    v.erase(v.begin(), v.begin() + static_cast<std::ptrdiff_t>(lead));
    bool fits = v.size() <= region.size();
    for (size_t k = 0; fits && k < v.size(); ++k) {
        int64_t r = region[region.size() - v.size() + k];
        fits = v[k] == r || v[k] == 1;
    }
    if (!fits) {
        std::string list = "[";
        for (size_t k = 0; k < index.size(); ++k) list += (k ? ", '" : "'") + index[k] + "'";
        fail<ValueError>(op, ": values of shape ", shape_str(values.shape()),
                         " do not fit the region of shape ", shape_str(region), " addressed by ", list, "]");
    }
    return broadcast_to(reshape(values, v), region).contiguous();
}

// The view of the region when no axis holds a position list.
Tensor region_view(const Tensor& t, const IndexPlan& plan) {
    Shape shape, strides;
    int64_t offset = t.offset();
    for (size_t k = 0; k < plan.axes.size(); ++k) {
        const AxisIndex& ax = plan.axes[k];
        if (ax.count > 0) offset += ax.start * t.strides()[k];
        if (!ax.kept) continue;
        shape.push_back(ax.count);
        strides.push_back(t.strides()[k] * ax.step);
    }
    if (shape.empty()) {
        shape.push_back(1);
        strides.push_back(1);
    }
    return t.view(std::move(shape), std::move(strides), offset);
}

// A copy of the region of t when some axis holds a position list.
Tensor copy_region(const Tensor& t, const IndexPlan& plan, const char* op) {
    (void)op;
    RegionWalk walk(plan, t.shape(), t.strides());
    Tensor out(t.dtype(), plan.region, t.device());
    kernels_of(out).region(RegionOp::Read, {t.dtype(), out.raw_mem(), t.raw_mem(), &walk, false});
    return out;
}

Tensor select_region(const Tensor& t, const IndexList& index, const char* op) {
    IndexPlan plan = parse_index(index, t.shape(), op);
    for (const AxisIndex& ax : plan.axes)
        if (ax.is_list) return copy_region(t, plan, op);
    return region_view(t, plan);
}

}  // namespace

Tensor select(const Tensor& t, const IndexList& index) { return select_region(t, index, "select"); }

void set_select_(Tensor& t, const IndexList& index, const Tensor& given) {
    const Tensor values = written_values(t, given, "set_select");
    IndexPlan plan = parse_index(index, t.shape(), "set_select");
    // The values are fitted (and converted) before the target may get its own storage, so values
    // that share it are read intact.
    const Tensor fitted = fit_to_region(values_as(values, t.dtype()), plan.region, index, "set_select").contiguous();
    t.prepare_write_();
    RegionWalk walk(plan, t.shape(), t.strides());
    kernels_of(t).region(RegionOp::Write, {t.dtype(), t.raw_mem(), fitted.raw_mem(), &walk, plan.has_repeats});
}

Tensor select_bp(const Shape& shape, const IndexList& index, const Tensor& g) {
    IndexPlan plan = parse_index(index, shape, "select_bp");
    // Repeated positions add up in order; float32 ones in double, as the sums accumulate (Note
    // [How reductions add]), rounded once.
    if (plan.has_repeats && g.dtype() == DType::Float32)
        return select_bp(shape, index, g.contiguous_as(DType::Float64)).contiguous_as(DType::Float32);
    Tensor fitted = fit_to_region(g, plan.region, index, "select_bp");
    Tensor out = zeros(shape, g.device(), g.dtype());
    RegionWalk walk(plan, shape, out.strides());
    kernels_of(out).region(RegionOp::Add, {g.dtype(), out.raw_mem(), fitted.raw_mem(), &walk, plan.has_repeats});
    return out;
}

Tensor select_bp(const Tensor& t, const IndexList& index, const Tensor& g) {
    device_of(t, g, "select_bp");
    return select_bp(t.shape(), index, g);
}

Tensor set_select_bp(const Tensor& t, const IndexList& index, const Tensor& g) {
    device_of(t, g, "set_select_bp");
    if (g.shape() != t.shape())
        fail<ValueError>("set_select_bp: the gradient of shape ", shape_str(g.shape()),
                         " differs from the target's shape ", shape_str(t.shape()));
    return select_region(g, index, "set_select_bp");
}

void cpu::region(RegionOp op, const RegionPlan& p) {
    const RegionWalk& walk = *p.walk;
    const int64_t block = walk.block();
    dispatch<TypeSet::WithComplex>(p.type, "select", [&](auto tag) {
        using T = typename decltype(tag)::type;
        T* dst = static_cast<T*>(p.dst);
        const T* src = static_cast<const T*>(p.src);
        switch (op) {
            case RegionOp::Read:
                if (block == 1) for_rows(walk, p.ordered, [&](int64_t r, int64_t off) { dst[r] = src[off]; });
                else for_rows(walk, p.ordered, [&](int64_t r, int64_t off) { std::copy_n(src + off, block, dst + r * block); });
                break;
            case RegionOp::Write:
                if (block == 1) for_rows(walk, p.ordered, [&](int64_t r, int64_t off) { dst[off] = src[r]; });
                else for_rows(walk, p.ordered, [&](int64_t r, int64_t off) { std::copy_n(src + r * block, block, dst + off); });
                break;
            case RegionOp::Add:
                if (block == 1) {
                    for_rows(walk, p.ordered, [&](int64_t r, int64_t off) { dst[off] = T(dst[off] + src[r]); });
                } else {
                    for_rows(walk, p.ordered, [&](int64_t r, int64_t off) {
                        const T* s = src + r * block;
                        T* d = dst + off;
                        for (int64_t j = 0; j < block; ++j) d[j] = T(d[j] + s[j]);
                    });
                }
                break;
        }
    });
}

}  // namespace moira
