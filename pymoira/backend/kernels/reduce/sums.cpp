// sum, mean and sum_to over the summation engine of accumulate.hpp.
#include "core/errors.hpp"
#include "kernels/reduce/accumulate.hpp"
#include "kernels/reduce/reduce.hpp"
#include "kernels/reduce/reduce_shape.hpp"

namespace moira {

namespace {

// Lane and accumulator types per input type (Note [How reductions add]).
template <class T> struct SumTypes { using L = T; using A = T; };
template <> struct SumTypes<bool> { using L = int64_t; using A = int64_t; };
template <> struct SumTypes<float> { using L = float; using A = double; };

// Sum (mean when `average`) of t seen as [outer, n, inner], into a tensor of `out_shape`.
Tensor sum_impl(const Tensor& t, const ReduceView& v, const Shape& out_shape, bool average, const char* op) {
    DType out_type = average ? float_type_of(t.dtype()) : (t.dtype() == DType::Bool ? DType::Int64 : t.dtype());
    Tensor out(out_type, out_shape, t.device());
    dispatch(t.dtype(), op, [&](auto tag) {
        using T = typename decltype(tag)::type;
        const T* x = t.data<T>();
        if (average) {
            using L = std::conditional_t<std::is_floating_point_v<T>, typename SumTypes<T>::L, double>;
            using A = double;
            auto f = [](T a) { return L(a); };
            dispatch<TypeSet::Floating>(out_type, op, [&](auto otag) {
                using O = typename decltype(otag)::type;
                O* o = out.data<O>();
                const double n = double(v.n);
                reduce_sum<L, A>(x, v.outer, v.n, v.inner, f, [&](int64_t i, A s) { o[i] = O(s / n); });
            });
        } else {
            using L = typename SumTypes<T>::L;
            using A = typename SumTypes<T>::A;
            using O = std::conditional_t<std::is_same_v<T, bool>, int64_t, T>;
            auto f = [](T a) { return L(a); };
            O* o = out.data<O>();
            reduce_sum<L, A>(x, v.outer, v.n, v.inner, f, [&](int64_t i, A s) { o[i] = O(s); });
        }
    });
    return out;
}

}  // namespace

Tensor sum(const Tensor& t) { return sum_impl(t, ReduceView::whole(t), Shape{1}, false, "sum"); }

Tensor sum(const Tensor& t, int64_t axis, bool keepdims) {
    ReduceView v = ReduceView::along(t, axis, "sum");
    return sum_impl(t, v, reduced_shape(t.shape(), v.axis, keepdims), false, "sum");
}

Tensor mean(const Tensor& t) { return sum_impl(t, ReduceView::whole(t), Shape{1}, true, "mean"); }

Tensor mean(const Tensor& t, int64_t axis, bool keepdims) {
    ReduceView v = ReduceView::along(t, axis, "mean");
    return sum_impl(t, v, reduced_shape(t.shape(), v.axis, keepdims), true, "mean");
}

Shape reduced_shape(const Shape& shape, int64_t axis, bool keepdims) {
    Shape out = shape;
    if (!out.empty()) {
        if (keepdims) out[axis] = 1;
        else out.erase(out.begin() + axis);
    }
    if (out.empty()) out.push_back(1);
    return out;
}

Tensor sum_to(const Tensor& t, const Shape& shape) {
    const Shape& from = t.shape();
    if (shape.size() > from.size() || broadcast_shapes(shape, from) != from)
        fail<ValueError>("sum_to: shape ", shape_str(shape), " does not broadcast to the shape ", shape_str(from));
    if (shape == from) return t;
    Tensor r = shape.empty() ? sum(t) : t;  // no axes left: one value
    for (size_t k = 0; k < from.size() - shape.size() && !shape.empty(); ++k) r = sum(r, 0, false);
    for (size_t k = 0; k < shape.size(); ++k)
        if (shape[k] == 1 && r.shape()[k] != 1) r = sum(r, static_cast<int64_t>(k), true);
    r.reshape_(shape);
    return r;
}

}  // namespace moira
