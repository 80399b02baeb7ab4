// sum and mean over the summation combine of accumulate.hpp.
#include "core/errors.hpp"
#include "kernels/reduce/accumulate.hpp"
#include "kernels/reduce/reduce.hpp"
#include "kernels/reduce/reduction.hpp"

namespace moira {

namespace {

// The sum (mean when `average`) of every lane of r.
Tensor sum_impl(const Reduction& r, bool average) {
    const Tensor& t = r.in;  // complex sums and means stay complex
    DType out_type = average ? float_type_of(t.dtype()) : (t.dtype() == DType::Bool ? DType::Int64 : t.dtype());
    Tensor out(out_type, r.out_shape, t.device());
    r.run(average ? LaneOp::Mean : LaneOp::Sum, out);
    return out;
}

}  // namespace

Tensor sum(const Tensor& t, Axis axis, bool keepdims) { return sum_impl(Reduction::of(t, axis, keepdims, "sum"), false); }

Tensor mean(const Tensor& t, Axis axis, bool keepdims) { return sum_impl(Reduction::of(t, axis, keepdims, "mean"), true); }

// Sums and means of complex lanes, complex64 adding in complex128 as float32 adds in double; sums
// of squared moduli in the real type of the parts.
template <class T>
void complex_sum_lanes(LaneOp op, const LanesPlan& p) {
    using L = typename SumTypes<T>::L;
    using A = typename SumTypes<T>::A;
    const T* x = static_cast<const T*>(p.in);
    if (op == LaneOp::SumSquares) {
        using R = typename T::value_type;
        MOIRA_INTERNAL_ASSERT(p.out_type == dtype_of<R>::value);
        using RL = typename SumTypes<R>::L;
        reduce_sum<RL, double>(p.lanes, x, static_cast<R*>(p.out),
                               [](T a) { return RL(a.real()) * RL(a.real()) + RL(a.imag()) * RL(a.imag()); },
                               [](double s) { return R(s); });
        return;
    }
    // The passes of a fold add complex64 into a complex128 intermediate and back.
    const double n = op == LaneOp::Mean ? double(p.lanes.n) : 1.0;
    auto into = [&](auto* o) {
        using O = std::remove_pointer_t<decltype(o)>;
        reduce_sum<L, A>(p.lanes, x, o, [](T a) { return L(a); }, [n](A s) { return O(s / typename A::value_type(n)); });
    };
    MOIRA_INTERNAL_ASSERT(is_complex(p.out_type));
    if (p.out_type == DType::Complex64) into(static_cast<complex64*>(p.out));
    else into(static_cast<complex128*>(p.out));
}

void cpu::sum_lanes(LaneOp op, const LanesPlan& p) {
    const AxisLanes& lanes = p.lanes;
    if (p.in_type == DType::Complex64) return complex_sum_lanes<complex64>(op, p);
    if (p.in_type == DType::Complex128) return complex_sum_lanes<complex128>(op, p);
    dispatch(p.in_type, "sum", [&](auto tag) {
        using T = typename decltype(tag)::type;
        const T* x = static_cast<const T*>(p.in);
        if (op == LaneOp::Sum) {
            using L = typename SumTypes<T>::L;
            using A = typename SumTypes<T>::A;
            using O = std::conditional_t<std::is_same_v<T, bool>, int64_t, T>;
            if (p.out_type == dtype_of<O>::value) {
                reduce_sum<L, A>(lanes, x, static_cast<O*>(p.out), [](T a) { return L(a); }, [](A s) { return O(s); });
            } else {  // the passes of a fold, which add in a wider type and round at the end
                dispatch(p.out_type, "sum", [&](auto otag) {
                    using F = typename decltype(otag)::type;
                    reduce_sum<L, A>(lanes, x, static_cast<F*>(p.out), [](T a) { return L(a); }, [](A s) { return F(s); });
                });
            }
            return;
        }
        using L = std::conditional_t<std::is_floating_point_v<T>, typename SumTypes<T>::L, double>;
        dispatch<TypeSet::Floating>(p.out_type, "sum", [&](auto otag) {
            using O = typename decltype(otag)::type;
            O* o = static_cast<O*>(p.out);
            if (op == LaneOp::Mean) {
                const double n = double(lanes.n);
                reduce_sum<L, double>(lanes, x, o, [](T a) { return L(a); }, [n](double s) { return O(s / n); });
            } else {
                reduce_sum<L, double>(lanes, x, o, [](T a) { L v = L(a); return v * v; }, [](double s) { return O(s); });
            }
        });
    });
}

}  // namespace moira
