// Advanced-index gathers and scatters and boolean masks over the gather machinery of
// kernels/iter/gather.hpp; see Note [Block addressing of advanced indexing].
#include "kernels/indexing/advanced.hpp"

#include <vector>

#include "kernels/creation.hpp"
#include "kernels/elementwise/elementwise.hpp"
#include "kernels/iter/copy.hpp"
#include "kernels/iter/gather.hpp"
#include "kernels/layout/views.hpp"
#include "kernels/table.hpp"

namespace moira {

namespace {

constexpr int64_t kMaxIndexedAxes = 10;

// The checked BlockIndex of `rows` over a tensor of `shape`.
BlockIndex block_index_of(const BlockRows& r, const Shape& shape, const char* op) {
    if (r.m < 0 || r.m > kMaxIndexedAxes)
        fail<IndexError>(op, ": ", r.m, " indexed axes; at most ", kMaxIndexedAxes, " can be indexed");
    if (r.n < 0 || r.k < 0) fail<ValueError>(op, ": negative count n = ", r.n, " or block size k = ", r.k);
    if (static_cast<int64_t>(r.mshape.size()) < r.m || static_cast<int64_t>(r.strides.size()) < r.m)
        fail<ValueError>(op, ": mshape and strides need an entry for each of the ", r.m, " indexed axes");
    const int64_t mn = checked_mul(r.m, r.n, "n");
    if (r.indice.numel() != mn)
        fail<ValueError>(op, ": the index tensor holds ", r.indice.numel(), " positions, not m * n = ", mn);
    checked_mul(r.n, r.k, "n * k");  // the gathered element count, which the callers compute
    const int64_t total = numel(shape);
    if (r.k > 0 && total % r.k != 0)
        fail<ValueError>(op, ": a tensor of shape ", shape_str(shape), " does not split into blocks of ", r.k,
                         " elements");
    bool empty_axis = false;
    for (int64_t i = 0; i < r.m; ++i) {
        if (r.mshape[i] < 0) fail<ValueError>(op, ": negative axis length ", r.mshape[i], " in mshape");
        empty_axis = empty_axis || r.mshape[i] == 0;
    }
    // Blocks of no elements (an axis of length 0 behind the indexed ones) cannot be counted from
    // the data's size: there are as many as the indexed axes address (0 when one of them is
    // empty), though none holds anything.
    int64_t blocks = r.k > 0 ? total / r.k : 1;
    if (r.k == 0)
        for (int64_t i = 0; i < r.m; ++i) blocks = empty_axis ? 0 : checked_mul(blocks, r.mshape[i], "mshape");
    std::vector<Tensor> positions;
    Shape lengths, strides;
    const Tensor rows = moira::reshape(r.indice.contiguous(), Shape{r.m, r.n});
    for (int64_t i = 0; i < r.m; ++i) {
        positions.push_back(slice_axis(rows, 0, i, 1, 1).view(Shape{r.n}, Shape{1}, rows.offset() + i * r.n));
        lengths.push_back(r.mshape[i]);
        strides.push_back(r.strides[i]);
    }
    BlockIndex ix = block_index(positions, lengths, strides, shape, r.k, op);
    ix.index_shape = Shape{r.n};
    ix.block_shape = Shape{r.k};
    ix.k = r.k;
    const int64_t* b = ix.blocks.data<int64_t>();
    for (int64_t p = 0; p < ix.blocks.numel(); ++p)
        if (b[p] < 0 || b[p] >= blocks)
            fail<IndexError>(op, ": position ", p, " addresses block ", b[p], " of a tensor of shape ", shape_str(shape),
                             ", which has ", blocks, " blocks of ", r.k, " elements");
    return ix;
}

void check_count(const Tensor& t, const BlockRows& r, const char* what, const char* op) {
    if (t.numel() != r.n * r.k)
        fail<ValueError>(op, ": ", what, " of shape ", shape_str(t.shape()), " does not hold n * k = ", r.n * r.k,
                         " elements");
}

// The mask as a contiguous bool tensor of the data's shape, and how many elements it sets.
// IndexError when the shapes differ.
std::pair<Tensor, int64_t> mask_flags(const Tensor& data, const Tensor& mask, const char* op) {
    if (mask.shape() != data.shape())
        fail<IndexError>(op, ": a mask of shape ", shape_str(mask.shape()), " does not match the indexed shape ",
                         shape_str(data.shape()));
    const Tensor host = host_index(data, mask, op);
    Tensor set = (host.dtype() == DType::Bool ? host : binary(BinaryOp::NotEqual, host, Scalar::from_int(0))).contiguous();
    const bool* f = set.data<bool>();
    int64_t count = 0;
    for (int64_t i = 0; i < set.numel(); ++i) count += f[i];
    return {std::move(set), count};
}

// dst[j] = src[i] for the j-th set flag i (compacting; it writes dst[count] too, so dst holds
// count + 1 elements), or dst[i] = src[j] (expanding; src[0] for every i with one_value).
template <class T>
void mask_copy(T* dst, const T* src, const bool* flags, int64_t n, bool compact, bool one_value) {
    int64_t j = 0;
    if (compact) {
        for (int64_t i = 0; i < n; ++i) {
            dst[j] = src[i];
            j += flags[i];
        }
    } else {
        for (int64_t i = 0; i < n; ++i)
            if (flags[i]) dst[i] = src[one_value ? 0 : j++];
    }
}

}  // namespace

void advance_gather_into(const Tensor& data, const BlockRows& rows, Tensor& result) {
    device_of(data, result, "advance_indexing_for_pyfun");
    const BlockIndex ix = block_index_of(rows, data.shape(), "advance_indexing_for_pyfun");
    check_count(result, rows, "the result", "advance_indexing_for_pyfun");
    gather_into(data, ix, result);
}

void advance_gather_bp_(const Tensor& g, const BlockRows& rows, Tensor& out) {
    device_of(g, out, "advance_indexing_bp_for_pyfun");
    const BlockIndex ix = block_index_of(rows, out.shape(), "advance_indexing_bp_for_pyfun");
    check_count(g, rows, "the gradient", "advance_indexing_bp_for_pyfun");
    index_add_(out, ix, moira::reshape(g, Shape{rows.n, rows.k}));
}

void advance_scatter_(Tensor& data, const BlockRows& rows, const Tensor& given) {
    const Tensor values = written_values(data, given, "set_advance_indexing_for_pyfun");
    const BlockIndex ix = block_index_of(rows, data.shape(), "set_advance_indexing_for_pyfun");
    check_count(values, rows, "the values", "set_advance_indexing_for_pyfun");
    scatter_(data, ix, moira::reshape(values, Shape{rows.n, rows.k}));
}

Tensor advance_scatter_bp(const Tensor& g, const BlockRows& rows, const Shape& shape) {
    const BlockIndex ix = block_index_of(rows, g.shape(), "set_advance_indexing_bp_for_pyfun");
    const int64_t count = rows.n * rows.k;  // checked by block_index_of
    if (checked_numel(shape) != count)
        fail<ValueError>("set_advance_indexing_bp_for_pyfun: shape ", shape_str(shape), " does not hold n * k = ",
                         count, " elements");
    return moira::reshape(gather(g, ix), shape);
}

Tensor mask_select(const Tensor& data, const Tensor& mask) {
    const auto [flags, count] = mask_flags(data, mask, "slice");
    const Tensor src = data.contiguous();
    // The branch-free compaction writes one slot past the last value: a buffer of count + 1
    // elements, of which the result views the first count.
    Tensor buffer(data.dtype(), Shape{count + 1}, data.device());
    kernels_of(buffer).mask(MaskOp::Compact, {data.dtype(), buffer.raw_mem(), src.raw_mem(), flags.data<bool>(), data.numel()});
    return buffer.view(Shape{count}, Shape{1}, 0);
}

Tensor mask_select_bp(const Tensor& data, const Tensor& mask, const Tensor& g) {
    const auto [flags, count] = mask_flags(data, mask, "slice_bp");
    if (g.numel() != count)
        fail<ValueError>("slice_bp: the gradient holds ", g.numel(), " values for ", count, " set positions");
    device_of(data, g, "slice_bp");
    Tensor out = zeros(data.shape(), data.device(), g.dtype());
    const Tensor src = g.contiguous();
    kernels_of(out).mask(MaskOp::Expand, {g.dtype(), out.raw_mem(), src.raw_mem(), flags.data<bool>(), data.numel()});
    return out;
}

void mask_set_(Tensor& data, const Tensor& mask, const Tensor& given) {
    const Tensor values = written_values(data, given, "set_slice");
    const auto [flags, count] = mask_flags(data, mask, "set_slice");
    if (values.numel() != count && values.numel() != 1)
        fail<ValueError>("set_slice: ", values.numel(), " values for ", count,
                         " set positions (give one value per position, or one for all)");
    const Tensor v = values_as(values, data.dtype());
    data.prepare_write_();
    kernels_of(data).mask(v.numel() == 1 ? MaskOp::ExpandOne : MaskOp::Expand,
                          {data.dtype(), data.raw_mem(), v.raw_mem(), flags.data<bool>(), data.numel()});
}

Tensor mask_set_bp(const Tensor& data, const Tensor& mask, const Tensor& g) {
    if (g.shape() != data.shape())
        fail<ValueError>("set_slice_bp: the gradient of shape ", shape_str(g.shape()), " differs from the target's ",
                         shape_str(data.shape()));
    return mask_select(g, mask);
}

void cpu::mask(MaskOp op, const MaskPlan& p) {
    dispatch<TypeSet::WithComplex>(p.type, "mask", [&](auto tag) {
        using T = typename decltype(tag)::type;
        mask_copy(static_cast<T*>(p.dst), static_cast<const T*>(p.src), p.flags, p.n, op == MaskOp::Compact,
                  op == MaskOp::ExpandOne);
    });
}

}  // namespace moira
