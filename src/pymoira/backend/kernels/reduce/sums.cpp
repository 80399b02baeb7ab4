// sum and mean over the summation combine of accumulate.hpp.
#include "core/errors.hpp"
#include "kernels/reduce/accumulate.hpp"
#include "kernels/reduce/reduce.hpp"
#include "kernels/reduce/reduction.hpp"

namespace moira {

namespace {

// The sum (mean when `average`) of every lane of r.
Tensor sum_impl(const Reduction& r, bool average, const char* op) {
    const Tensor& t = r.in;
    DType out_type = average ? float_type_of(t.dtype()) : (t.dtype() == DType::Bool ? DType::Int64 : t.dtype());
    Tensor out(out_type, r.out_shape, t.device());
    const AxisLanes lanes = r.lanes(out);
    dispatch(t.dtype(), op, [&](auto tag) {
        using T = typename decltype(tag)::type;
        const T* x = t.strided_mem<T>();
        if (average) {
            using L = std::conditional_t<std::is_floating_point_v<T>, typename SumTypes<T>::L, double>;
            using A = double;
            dispatch<TypeSet::Floating>(out_type, op, [&](auto otag) {
                using O = typename decltype(otag)::type;
                const double n = double(r.n());
                reduce_sum<L, A>(lanes, x, out.mem<O>(), [](T a) { return L(a); }, [n](A s) { return O(s / n); });
            });
        } else {
            using L = typename SumTypes<T>::L;
            using A = typename SumTypes<T>::A;
            using O = std::conditional_t<std::is_same_v<T, bool>, int64_t, T>;
            reduce_sum<L, A>(lanes, x, out.mem<O>(), [](T a) { return L(a); }, [](A s) { return O(s); });
        }
    });
    return out;
}

}  // namespace

Tensor sum(const Tensor& t) { return sum_impl(Reduction::whole(t), false, "sum"); }

Tensor sum(const Tensor& t, int64_t axis, bool keepdims) {
    return sum_impl(Reduction::along(t, axis, keepdims, "sum"), false, "sum");
}

Tensor mean(const Tensor& t) { return sum_impl(Reduction::whole(t), true, "mean"); }

Tensor mean(const Tensor& t, int64_t axis, bool keepdims) {
    return sum_impl(Reduction::along(t, axis, keepdims, "mean"), true, "mean");
}

}  // namespace moira
