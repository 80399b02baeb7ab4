// gather, scatter_ and index_add_ over a checked BlockIndex; see Note [Gathering and scattering
// by index tensors].
#include "kernels/iter/gather.hpp"

#include <algorithm>
#include <cstring>
#include <memory>
#include <type_traits>
#include <vector>

#include "kernels/creation.hpp"
#include "kernels/iter/copy.hpp"
#include "kernels/layout/views.hpp"
#include "kernels/parallel.hpp"
#include "kernels/reduce/accumulate.hpp"
#include "kernels/table.hpp"

namespace moira {

Shape BlockIndex::gathered_shape() const {
    Shape s = index_shape;
    s.insert(s.end(), block_shape.begin(), block_shape.end());
    return s;
}

BlockIndex block_index(const std::vector<Tensor>& positions, const Shape& lengths, const Shape& block_strides,
                       const Shape& data_shape, int64_t k, const char* op) {
    MOIRA_INTERNAL_ASSERT(positions.size() == lengths.size() && lengths.size() == block_strides.size());
    BlockIndex ix;
    ix.k = k;
    ix.data_shape = data_shape;
    ix.index_shape = positions.empty() ? Shape{} : positions[0].shape();
    const int64_t n = numel(ix.index_shape);
    ix.blocks = Tensor(DType::Int64, Shape{n}, kCPU);  // a host-side plan
    int64_t* out = ix.blocks.data<int64_t>();
    std::fill(out, out + n, int64_t(0));
    for (size_t i = 0; i < positions.size(); ++i) {
        if (positions[i].shape() != ix.index_shape)
            fail<ValueError>(op, ": index tensors of shapes ", shape_str(ix.index_shape), " and ",
                             shape_str(positions[i].shape()), " differ");
        if (positions[i].dtype() == DType::Bool)
            fail<TypeError>(op, ": an index tensor must hold integers, not bool");
        const Tensor p = positions[i].to_host().contiguous_as(DType::Int64);
        const int64_t* pos = p.data<int64_t>();
        const int64_t len = lengths[i], stride = block_strides[i];
        for (int64_t j = 0; j < n; ++j) {
            int64_t v = pos[j];
            if (v < -len || v >= len)
                fail<IndexError>(op, ": index ", v, " is out of bounds for axis ", i, " with size ", len);
            // A user-given stride may take the block number beyond int64: OverflowError, not a
            // wrapped block.
            out[j] = checked_add(out[j], checked_mul(v < 0 ? v + len : v, stride, "strides"), "strides");
        }
    }
    return ix;
}

BlockIndex index_leading(const Shape& shape, const std::vector<Tensor>& indices, const char* op) {
    const size_t m = indices.size();
    if (m > shape.size())
        fail<IndexError>(op, ": too many indices (", m, ") for a tensor with ", shape.size(), " axes");
    Shape common;
    for (const Tensor& t : indices) common = broadcast_shapes(common, t.shape());
    std::vector<Tensor> positions;
    for (const Tensor& t : indices) positions.push_back(broadcast_to(t, common));
    const Shape lead(shape.begin(), shape.begin() + static_cast<std::ptrdiff_t>(m));
    BlockIndex ix = block_index(positions, lead, contiguous_strides(lead), shape, 1, op);
    ix.block_shape.assign(shape.begin() + static_cast<std::ptrdiff_t>(m), shape.end());
    ix.k = numel(ix.block_shape);
    return ix;
}

BlockIndex index_along_axis(const Shape& shape, int64_t axis, const Tensor& positions, const char* op) {
    const int64_t nd = static_cast<int64_t>(shape.size());
    const int64_t a = wrap_axis(axis, nd, op);
    const Shape& ps = positions.shape();
    bool fits = static_cast<int64_t>(ps.size()) == nd;
    for (int64_t d = 0; fits && d < nd; ++d) fits = d == a || ps[d] == shape[d];
    if (!fits)
        fail<ValueError>(op, ": positions of shape ", shape_str(ps), " do not match a tensor of shape ", shape_str(shape),
                         " outside axis ", a);
    // Block number = the lane's own offset (its coordinates off the axis) + position * stride.
    const Shape strides = contiguous_strides(shape);
    std::vector<Tensor> lanes_and_pos;
    Shape lengths, block_strides;
    for (int64_t d = 0; d < nd; ++d) {
        Tensor coord(DType::Int64, ps, kCPU);
        int64_t* c = coord.data<int64_t>();
        const Shape cs = contiguous_strides(ps);
        for (int64_t j = 0; j < coord.numel(); ++j) c[j] = (j / cs[d]) % ps[d];
        lanes_and_pos.push_back(d == a ? positions : coord);
        lengths.push_back(d == a ? shape[d] : ps[d]);
        block_strides.push_back(strides[d]);
    }
    return block_index(lanes_and_pos, lengths, block_strides, shape, 1, op);
}

namespace {

// `values` in the gathered shape, contiguous, in data's type; ValueError when it does not fit.
Tensor fitted_values(const Tensor& values, const BlockIndex& ix, DType dtype, const char* op) {
    const Shape target = ix.gathered_shape();
    if (values.shape() != target &&
        (values.ndim() > static_cast<int64_t>(target.size()) || broadcast_shapes(values.shape(), target) != target))
        fail<ValueError>(op, ": values of shape ", shape_str(values.shape()), " do not fit the indexed shape ",
                         shape_str(target));
    return broadcast_to(values_as(values, dtype), target).contiguous();
}

void check_data(const Tensor& data, const BlockIndex& ix, const char* op) {
    if (data.shape() != ix.data_shape)
        fail<ValueError>(op, ": the index was made for shape ", shape_str(ix.data_shape), ", not ",
                         shape_str(data.shape()));
}

}  // namespace

// Block copies: dst block p (of k elements) <- src block p, with the block numbers of the
// gather on one side. Single elements are copied as values, larger blocks with memcpy.
template <class T>
void copy_blocks(T* dst, const T* src, const int64_t* blocks, int64_t n, int64_t k, bool gathering, bool parallel) {
    auto run = [&](int64_t lo, int64_t hi) {
        if (k == 1) {
            if (gathering) for (int64_t p = lo; p < hi; ++p) dst[p] = src[blocks[p]];
            else for (int64_t p = lo; p < hi; ++p) dst[blocks[p]] = src[p];
            return;
        }
        const size_t bytes = static_cast<size_t>(k) * sizeof(T);
        if (gathering) for (int64_t p = lo; p < hi; ++p) std::memcpy(dst + p * k, src + blocks[p] * k, bytes);
        else for (int64_t p = lo; p < hi; ++p) std::memcpy(dst + blocks[p] * k, src + p * k, bytes);
    };
    if (parallel) parallel_for(n, run, std::max<int64_t>(1, kParallelGrain / std::max<int64_t>(k, 1)));
    else run(0, n);
}

void gather_into(const Tensor& data, const BlockIndex& ix, Tensor& out) {
    check_data(data, ix, "gather");
    device_of(data, out, "gather");
    if (out.numel() != ix.count() * ix.k)
        fail<ValueError>("gather: a result of shape ", shape_str(out.shape()), " cannot hold the ", ix.count() * ix.k,
                         " gathered elements");
    if (out.dtype() != data.dtype()) {
        Tensor fresh(data.dtype(), out.shape(), data.device());
        gather_into(data, ix, fresh);
        copy_into(out, fresh);
        return;
    }
    const Tensor src = data.contiguous();
    out.prepare_overwrite_();
    if (ix.k == 0 || ix.count() == 0) return;
    kernels_of(out).blocks(BlockOp::Gather, {data.dtype(), out.raw_mem(), src.raw_mem(), ix.blocks.data<int64_t>(),
                                             ix.count(), ix.k, 0});
}

Tensor gather(const Tensor& data, const BlockIndex& ix) {
    Tensor out(data.dtype(), ix.gathered_shape(), data.device());
    gather_into(data, ix, out);
    return out;
}

void scatter_(Tensor& data, const BlockIndex& ix, const Tensor& values) {
    check_data(data, ix, "scatter");
    device_of(data, values, "scatter");
    const Tensor v = fitted_values(values, ix, data.dtype(), "scatter");
    data.prepare_write_();
    if (ix.k == 0) return;
    kernels_of(data).blocks(BlockOp::Scatter, {data.dtype(), data.raw_mem(), v.raw_mem(), ix.blocks.data<int64_t>(),
                                               ix.count(), ix.k, data.numel() / ix.k});
}

namespace {

// The blocks that more than one position addresses, as a bitmap over the blocks.
struct Repeats {
    std::vector<uint64_t> twice;  // bit i: block i is addressed more than once
    std::vector<int64_t> before;  // repeated blocks in the words before each word
    std::vector<int64_t> blocks;  // the repeated blocks, ascending: slot q is blocks[q]

    Repeats(const int64_t* b, int64_t n, int64_t count) {
        const size_t words = static_cast<size_t>(count / 64 + 1);
        std::vector<uint64_t> seen(words, 0);
        twice.assign(words, 0);
        for (int64_t p = 0; p < n; ++p) {
            const size_t w = static_cast<size_t>(b[p] >> 6);
            const uint64_t bit = uint64_t(1) << (b[p] & 63);
            twice[w] |= seen[w] & bit;
            seen[w] |= bit;
        }
        before.resize(words);
        for (size_t w = 0; w < words; ++w) {
            before[w] = static_cast<int64_t>(blocks.size());
            for (uint64_t bits = twice[w]; bits; bits &= bits - 1)
                blocks.push_back(static_cast<int64_t>(w) * 64 + __builtin_ctzll(bits));
        }
    }

    // The slot of block i, or -1 when a single position addresses it.
    int64_t slot(int64_t i) const {
        const size_t w = static_cast<size_t>(i >> 6);
        const uint64_t bit = uint64_t(1) << (i & 63);
        return twice[w] & bit ? before[w] + __builtin_popcountll(twice[w] & (bit - 1)) : -1;
    }
};

}  // namespace

void index_add_(Tensor& data, const BlockIndex& ix, const Tensor& values) {
    check_data(data, ix, "index_add");
    device_of(data, values, "index_add");
    const Tensor v = fitted_values(values, ix, data.dtype(), "index_add");
    data.prepare_write_();
    if (ix.k == 0 || ix.count() == 0) return;
    kernels_of(data).blocks(BlockOp::IndexAdd, {data.dtype(), data.raw_mem(), v.raw_mem(), ix.blocks.data<int64_t>(),
                                                ix.count(), ix.k, data.numel() / ix.k});
}

namespace {

void add_blocks(const BlockPlan& plan) {
    const int64_t* b = plan.blocks;
    const int64_t k = plan.k, n = plan.n;
    dispatch<TypeSet::WithComplex>(plan.type, "index_add", [&](auto tag) {
        using T = typename decltype(tag)::type;
        using A = typename SumTypes<T>::A;
        const T* s = static_cast<const T*>(plan.src);
        T* d = static_cast<T*>(plan.dst);
        if constexpr (std::is_floating_point_v<T> && !std::is_same_v<A, T>) {
            // A block that several positions address adds their rows in order of position in the
            // accumulator type, as a strided lane of the sums adds (Note [How reductions add]),
            // and that total into the block once: float32 gradients of a gather sum in double.
            // Reads stream through the values; threads split the lanes of the rows.
            const Repeats rep(b, n, plan.dst_blocks);
            const int64_t r = static_cast<int64_t>(rep.blocks.size());
            if (r > 0) {
                std::unique_ptr<A[]> acc(new A[static_cast<size_t>(r * k)]());
                if (k == 1) {
                    for (int64_t p = 0; p < n; ++p) {
                        const int64_t q = rep.slot(b[p]);
                        if (q < 0) d[b[p]] = T(d[b[p]] + s[p]);
                        else acc[q] += A(s[p]);
                    }
                    for (int64_t q = 0; q < r; ++q) d[rep.blocks[q]] = T(A(d[rep.blocks[q]]) + acc[q]);
                    return;
                }
                parallel_for(k, [&](int64_t lo, int64_t hi) {
                    for (int64_t p = 0; p < n; ++p) {
                        const T* src = s + p * k;
                        const int64_t q = rep.slot(b[p]);
                        if (q < 0) {
                            T* dst = d + b[p] * k;
                            for (int64_t j = lo; j < hi; ++j) dst[j] = T(dst[j] + src[j]);
                        } else {
                            A* total = acc.get() + q * k;
                            for (int64_t j = lo; j < hi; ++j) total[j] += A(src[j]);
                        }
                    }
                    for (int64_t q = 0; q < r; ++q) {
                        const A* total = acc.get() + q * k;
                        T* dst = d + rep.blocks[q] * k;
                        for (int64_t j = lo; j < hi; ++j) dst[j] = T(A(dst[j]) + total[j]);
                    }
                }, std::max<int64_t>(64, kParallelGrain / n));
                return;
            }
        }
        // Positions in order on one thread, in the element type (for int64 and float64 the
        // accumulator type already; a bool sum is an or); a large block across threads instead.
        for (int64_t p = 0; p < n; ++p) {
            T* dst = d + b[p] * k;
            const T* src = s + p * k;
            if (k < 2 * kParallelGrain) {
                for (int64_t j = 0; j < k; ++j) dst[j] = T(dst[j] + src[j]);
            } else {
                parallel_for(k, [&](int64_t lo, int64_t hi) {
                    for (int64_t j = lo; j < hi; ++j) dst[j] = T(dst[j] + src[j]);
                });
            }
        }
    });
}

}  // namespace

void cpu::blocks(BlockOp op, const BlockPlan& plan) {
    if (op == BlockOp::IndexAdd) return add_blocks(plan);
    dispatch<TypeSet::WithComplex>(plan.type, "gather", [&](auto tag) {
        using T = typename decltype(tag)::type;
        if (op == BlockOp::Gather)
            copy_blocks(static_cast<T*>(plan.dst), static_cast<const T*>(plan.src), plan.blocks, plan.n, plan.k, true, true);
        else  // in order on one thread: where a block repeats, the last write stays
            copy_blocks(static_cast<T*>(plan.dst), static_cast<const T*>(plan.src), plan.blocks, plan.n, plan.k, false,
                        false);
    });
}

}  // namespace moira
