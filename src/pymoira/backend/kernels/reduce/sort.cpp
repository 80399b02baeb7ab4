// sort, argsort and top-k as a combine over the axis lanes (out_has_axis: each lane writes a
// lane of its own), over the order keys and radix sort of keys.hpp.
#include "kernels/reduce/sort.hpp"

#include <cmath>
#include <cstdint>
#include <limits>
#include <memory>
#include <type_traits>

#include "kernels/creation.hpp"
#include "kernels/iter/axis_lanes.hpp"
#include "kernels/iter/gather.hpp"
#include "kernels/layout/views.hpp"
#include "kernels/table.hpp"
#include "kernels/reduce/keys.hpp"

namespace moira {

namespace {

// Lanes whose top-k is small next to their length are selected by insertion into a sorted
// buffer of k entries (about one comparison per element); others are sorted in full.
constexpr int64_t kSelectMax = 32;

// The k smallest keys of a lane in ascending order, the earlier position first among equal
// keys, with their positions.
template <class T, class Key, class I>
void select_smallest(const T* x, int64_t step, int64_t n, int64_t k, Key flip, Key* bk, I* bi) {
    int64_t filled = 0;
    for (int64_t i = 0; i < n; ++i) {
        const Key key = Key(OrderKey<T>::of(x[i * step]) ^ flip);
        if (filled == k) {
            if (!(key < bk[k - 1])) continue;
        } else {
            ++filled;
        }
        int64_t j = filled - 1;
        for (; j > 0 && bk[j - 1] > key; --j) {
            bk[j] = bk[j - 1];
            bi[j] = bi[j - 1];
        }
        bk[j] = key;
        bi[j] = I(i);
    }
}

// Scratch for one thread's lanes.
template <class Key, class I>
struct LaneBuffers {
    std::unique_ptr<Key[]> keys, tk;
    std::unique_ptr<I[]> idx, ti;
    LaneBuffers(int64_t n, bool with_idx)
        : keys(new Key[n]), tk(new Key[n]), idx(with_idx ? new I[n] : nullptr), ti(with_idx ? new I[n] : nullptr) {}
};

// One lane of x (n elements, `step` apart) ordered, its first k written to o (`ostep` apart):
// positions (Positions) or values. Without position buffers the lane is a full sort of values.
template <bool Positions, class T, class O, class I>
void order_lane(const T* x, int64_t step, int64_t n, int64_t k, bool descending, O* o, int64_t ostep,
                LaneBuffers<typename OrderKey<T>::Key, I>& buf) {
    using Key = typename OrderKey<T>::Key;
    const Key flip = descending ? Key(~Key(0)) : Key(0);
    Key* keys = buf.keys.get();
    I* idx = buf.idx.get();
    if (!idx) {
        // A full sort of values: the keys alone are sorted and turned back into values. Keys
        // merge -0.0 with 0.0 and every NaN into one; where the lane holds such values, their
        // run is refilled from the lane in order, so the result is bit for bit the stable order.
        bool neg_zero = false, nan = false;
        for (int64_t i = 0; i < n; ++i) {
            const T v = x[i * step];
            keys[i] = Key(OrderKey<T>::of(v) ^ flip);
            if constexpr (std::is_floating_point_v<T>) {
                neg_zero |= (v == T(0)) & std::signbit(v);
                nan |= v != v;
            }
        }
        radix_sort<Key, I>(keys, nullptr, buf.tk.get(), nullptr, n);
        for (int64_t i = 0; i < n; ++i) o[i * ostep] = O(OrderKey<T>::value(Key(keys[i] ^ flip)));
        if constexpr (std::is_floating_point_v<T>) {
            auto refill = [&](Key run_key, auto member) {
                int64_t at = 0;
                while (keys[at] != run_key) ++at;
                for (int64_t i = 0; i < n; ++i)
                    if (member(x[i * step])) o[(at++) * ostep] = O(x[i * step]);
            };
            if (neg_zero) refill(Key(OrderKey<T>::of(T(0)) ^ flip), [](T v) { return v == T(0); });
            if (nan) refill(Key(std::numeric_limits<Key>::max() ^ flip), [](T v) { return v != v; });
        }
        return;
    }
    if (k <= kSelectMax && n >= 4 * k) {
        select_smallest<T, Key, I>(x, step, n, k, flip, keys, idx);
    } else {
        for (int64_t i = 0; i < n; ++i) {
            keys[i] = Key(OrderKey<T>::of(x[i * step]) ^ flip);
            idx[i] = I(i);
        }
        radix_sort<Key, I>(keys, idx, buf.tk.get(), buf.ti.get(), n);
    }
    for (int64_t i = 0; i < k; ++i) {
        if constexpr (Positions) o[i * ostep] = O(idx[i]);
        else o[i * ostep] = O(x[int64_t(idx[i]) * step]);
    }
}

// Sorts the lanes of t along `axis` (k == n) or keeps the first k of each sorted lane, as
// values or as positions.
Tensor order(const Tensor& t0, int64_t axis, int64_t k, bool descending, bool positions, bool full, const char* op) {
    dispatch(t0.dtype(), op, [](auto) {});  // an order is needed: complex values are refused by name
    const int64_t a = wrap_axis(axis, t0.ndim(), op);
    // Top-k of a tensor without axes: that of its one-element list (the result has k elements).
    const Tensor t = t0.ndim() == 0 && !full ? reshape(t0, Shape{1}) : t0;
    const int64_t n = t.ndim() == 0 ? 1 : t.shape()[a];
    if (full) k = n;
    if (k < 0) fail<ValueError>(op, ": k must not be negative, got ", k);
    if (k > n)
        fail<ValueError>(op, ": k = ", k, " is larger than the ", n, " elements along axis ", a, " of a tensor of shape ",
                         shape_str(t.shape()));
    Shape shape = t.shape();
    if (t.ndim() > 0) shape[a] = k;
    Tensor out(positions ? DType::Int64 : t.dtype(), shape, t.device());
    if (out.numel() == 0) return out;
    LanesPlan p{AxisLanes(out, t, a, true), t.dtype(), out.dtype(), t.raw_mem(), out.raw_mem()};
    p.k = k;
    p.descending = descending;
    p.positions = positions;
    kernels_of(out).lanes(LaneOp::Order, p);
    return out;
}

}  // namespace

Tensor sort(const Tensor& t, int64_t axis, bool descending, bool /*stable*/) {
    return order(t, axis, 0, descending, false, true, "sort");
}
Tensor argsort(const Tensor& t, int64_t axis, bool descending, bool /*stable*/) {
    return order(t, axis, 0, descending, true, true, "argsort");
}
Tensor topk(const Tensor& t, int64_t k, int64_t axis, bool largest) {
    return order(t, axis, k, largest, false, false, "topK");
}
Tensor argtopk(const Tensor& t, int64_t k, int64_t axis, bool largest) {
    return order(t, axis, k, largest, true, false, "argtopK");
}

Tensor topk_grad(const Tensor& t, const Tensor& g, int64_t k, int64_t axis, bool largest) {
    device_of(t, g, "topKgrad");
    if (t.ndim() == 0) {  // as its one-element list, the gradient in t's shape
        (void)wrap_axis(axis, 0, "topKgrad");
        const Tensor g1 = g.ndim() == 0 ? reshape(g, Shape{1}) : g;
        return reshape(topk_grad(reshape(t, Shape{1}), g1, k, 0, largest), Shape{});
    }
    const Tensor pos = argtopk(t, k, axis, largest);
    if (g.shape() != pos.shape())
        fail<ValueError>("topKgrad: the gradient of shape ", shape_str(g.shape()), " does not match the top-", k,
                         " result of shape ", shape_str(pos.shape()));
    Tensor out = zeros(t.shape(), t.device(), float_type_of(promote(t.dtype(), g.dtype())));
    index_add_(out, index_along_axis(t.shape(), axis, pos, "topKgrad"), g);
    return out;
}

void cpu::order_lanes(LaneOp, const LanesPlan& p) {
    const AxisLanes& lanes = p.lanes;
    const int64_t n = lanes.n, k = p.k;
    const bool descending = p.descending, positions = p.positions;
    dispatch(p.in_type, "sort", [&](auto tag) {
        using T = typename decltype(tag)::type;
        using Key = typename OrderKey<T>::Key;
        auto run = [&](auto itag, auto ptag, auto* o) {
            constexpr bool kPositions = decltype(ptag)::value;
            using I = typename decltype(itag)::type;
            using O = std::remove_pointer_t<decltype(o)>;
            // Values of a whole sorted lane need no positions (see order_lane).
            const bool with_idx = positions || k < n;
            auto block = [&](const T* x, int64_t xs, O* ob, int64_t os, int64_t count) {
                LaneBuffers<Key, I> buf(n, with_idx);
                for (int64_t j = 0; j < count; ++j)
                    order_lane<kPositions, T, O, I>(x + j * xs, lanes.in_axis_step, n, k, descending, ob + j * os,
                                                    lanes.out_axis_step, buf);
            };
            lanes.run(static_cast<const T*>(p.in), o, block, 8 * n);
        };
        auto with_index_type = [&](auto ptag, auto* o) {
            if (n <= int64_t(std::numeric_limits<uint32_t>::max())) run(TypeTag<uint32_t>{}, ptag, o);
            else run(TypeTag<uint64_t>{}, ptag, o);
        };
        if (positions) with_index_type(std::true_type{}, static_cast<int64_t*>(p.out));
        else with_index_type(std::false_type{}, static_cast<T*>(p.out));
    });
}

}  // namespace moira
