// Element-wise kernels of CUDA devices: one generic kernel per arity applies the scalar functors
// of kernels/elementwise/functors.hpp, the same ones the CPU loops apply.
#include "cuda/elementwise.cuh"

#include <cuda_runtime.h>

#include <algorithm>
#include <type_traits>

#include "cuda/launch.cuh"
#include "kernels/elementwise/functors.hpp"

namespace moira::cuda {

namespace {

// N values of T in one aligned 16-byte (or narrower, for the result) memory access.
template <class T, int N>
struct alignas(sizeof(T) * N) Pack {
    T v[N];
};

template <int K>
__device__ inline void offsets_of(int64_t i, const Walk<K>& w, int64_t (&off)[K]) {
    for (int k = 0; k < K; ++k) off[k] = 0;
    for (int d = w.ndim - 1; d >= 0; --d) {
        const int64_t e = w.extent[d], at = i % e;
        i /= e;
        for (int k = 0; k < K; ++k) off[k] += at * w.stride[k][d];
    }
}

// r[i] = f(a[i * sa], b[i * sb]) with sa, sb in {0, 1}; packs of N when every operand moves.
template <class F, class T, class O, int N>
__global__ void binary_flat(O* __restrict__ r, const T* __restrict__ a, const T* __restrict__ b, int64_t n,
                            int64_t sa, int64_t sb, bool packed) {
    F f;
    int64_t i = blockIdx.x * int64_t(blockDim.x) + threadIdx.x;
    const int64_t step = int64_t(gridDim.x) * blockDim.x;
    if (packed) {
        for (; i < n / N; i += step) {
            const Pack<T, N> x = reinterpret_cast<const Pack<T, N>*>(a)[i];
            const Pack<T, N> y = reinterpret_cast<const Pack<T, N>*>(b)[i];
            Pack<O, N> z;
            for (int j = 0; j < N; ++j) z.v[j] = f(x.v[j], y.v[j]);
            reinterpret_cast<Pack<O, N>*>(r)[i] = z;
        }
        for (i = n / N * N + blockIdx.x * int64_t(blockDim.x) + threadIdx.x; i < n; i += step) r[i] = f(a[i], b[i]);
        return;
    }
    for (; i < n; i += step) r[i] = f(a[i * sa], b[i * sb]);
}

template <class F, class T, class O>
__global__ void binary_strided(O* r, const T* a, const T* b, Walk<3> w) {
    F f;
    for (int64_t i = blockIdx.x * int64_t(blockDim.x) + threadIdx.x; i < w.numel; i += int64_t(gridDim.x) * blockDim.x) {
        int64_t off[3];
        offsets_of(i, w, off);
        r[off[0]] = f(a[off[1]], b[off[2]]);
    }
}

template <class F, class T, class O>
__global__ void unary_flat(O* __restrict__ r, const T* __restrict__ a, int64_t n) {
    F f;
    for (int64_t i = blockIdx.x * int64_t(blockDim.x) + threadIdx.x; i < n; i += int64_t(gridDim.x) * blockDim.x)
        r[i] = f(a[i]);
}

template <class F, class T, class O>
__global__ void unary_strided(O* r, const T* a, Walk<2> w) {
    F f;
    for (int64_t i = blockIdx.x * int64_t(blockDim.x) + threadIdx.x; i < w.numel; i += int64_t(gridDim.x) * blockDim.x) {
        int64_t off[2];
        offsets_of(i, w, off);
        r[off[0]] = f(a[off[1]]);
    }
}

// The stride every axis of operand k has when it is contiguous in the walk's extents (0 when
// broadcast in every axis); -1 for any other layout.
template <int K>
int64_t flat_step(const Walk<K>& w, int k) {
    bool zero = true, dense = true;
    int64_t expect = 1;
    for (int d = w.ndim - 1; d >= 0; --d) {
        if (w.extent[d] == 1) continue;
        zero = zero && w.stride[k][d] == 0;
        dense = dense && w.stride[k][d] == expect;
        expect *= w.extent[d];
    }
    return dense ? 1 : zero ? 0 : -1;
}

template <class F, class T>
void launch_binary(void* out, const void* a, const void* b, const Walk<3>& w, cudaStream_t s) {
    using O = decltype(F{}(T{}, T{}));
    constexpr int N = 16 / sizeof(T);
    auto* r = static_cast<O*>(out);
    auto* pa = static_cast<const T*>(a);
    auto* pb = static_cast<const T*>(b);
    const int64_t so = flat_step(w, 0), sa = flat_step(w, 1), sb = flat_step(w, 2);
    if (so == 1 && sa >= 0 && sb >= 0) {
        const bool packed = sa == 1 && sb == 1 && aligned(pa, 16) && aligned(pb, 16) && aligned(r, sizeof(O) * N);
        binary_flat<F, T, O, N><<<grid_for(packed ? w.numel / N : w.numel), kThreads, 0, s>>>(r, pa, pb, w.numel, sa, sb, packed);
    } else {
        binary_strided<F, T, O><<<grid_for(w.numel), kThreads, 0, s>>>(r, pa, pb, w);
    }
}

template <class F, class T>
void launch_unary(void* out, const void* a, const Walk<2>& w, cudaStream_t s) {
    using O = decltype(F{}(T{}));
    auto* r = static_cast<O*>(out);
    auto* pa = static_cast<const T*>(a);
    if (flat_step(w, 0) == 1 && flat_step(w, 1) == 1)
        unary_flat<F, T, O><<<grid_for(w.numel), kThreads, 0, s>>>(r, pa, w.numel);
    else
        unary_strided<F, T, O><<<grid_for(w.numel), kThreads, 0, s>>>(r, pa, w);
}

// Only the pairs the front end computes in are built (fn::binary_computes_in, unary_computes_in).
template <class F, class T>
constexpr bool launch_binary_ok() {
    return fn::binary_computes_in<F, T>();
}

template <class F, class T>
constexpr bool launch_unary_ok() {
    return fn::unary_computes_in<F, T>();
}

// The launch of functor F for the type the front end computes in.
#define MOIRA_CASE(launch, T, ...)                                                  \
    if constexpr (launch##_ok<F, T>()) return launch<F, T>(__VA_ARGS__);           \
    break;
#define MOIRA_BY_TYPE(launch, ...)                                                  \
    switch (type) {                                                                \
        case DType::Bool: MOIRA_CASE(launch, bool, __VA_ARGS__)                    \
        case DType::Int64: MOIRA_CASE(launch, int64_t, __VA_ARGS__)                \
        case DType::Float32: MOIRA_CASE(launch, float, __VA_ARGS__)                \
        case DType::Float64: MOIRA_CASE(launch, double, __VA_ARGS__)               \
    }                                                                              \
    fail<RuntimeError>("internal error: no CUDA kernel for this element type");

template <class F>
void binary_of(DType type, void* out, const void* a, const void* b, const Walk<3>& w, cudaStream_t s) {
    MOIRA_BY_TYPE(launch_binary, out, a, b, w, s)
}

template <class F>
void unary_of(DType type, void* out, const void* a, const Walk<2>& w, cudaStream_t s) {
    MOIRA_BY_TYPE(launch_unary, out, a, w, s)
}
#undef MOIRA_BY_TYPE
#undef MOIRA_CASE

using BinaryFn = void (*)(DType, void*, const void*, const void*, const Walk<3>&, cudaStream_t);
using UnaryFn = void (*)(DType, void*, const void*, const Walk<2>&, cudaStream_t);

#define MOIRA_ROW(F, name) &binary_of<fn::F>,
constexpr BinaryFn kBinary[] = {MOIRA_BINARY_OPS(MOIRA_ROW)};
#undef MOIRA_ROW
#define MOIRA_ROW(F, name) &unary_of<fn::F>,
constexpr UnaryFn kUnary[] = {MOIRA_UNARY_OPS(MOIRA_ROW)};
#undef MOIRA_ROW
static_assert(std::size(kBinary) == static_cast<size_t>(BinaryOp::Count), "one row per BinaryOp");
static_assert(std::size(kUnary) == static_cast<size_t>(UnaryOp::Count), "one row per UnaryOp");

// The kernel arguments of a plan: its axes longer than 1.
template <int K>
Walk<K> walk_of(const WalkPlan<K>& plan) {
    Walk<K> w;
    w.numel = plan.numel;
    if (plan.one_axis) {
        w.ndim = 1;
        w.extent[0] = plan.numel;
        for (int k = 0; k < K; ++k) w.stride[k][0] = plan.flat[k] ? 1 : 0;
        return w;
    }
    for (size_t d = 0; d < plan.shape.size(); ++d) {
        if (plan.shape[d] == 1) continue;
        if (w.ndim == kWalkDims) fail<RuntimeError>("internal error: more than ", kWalkDims, " axes in a CUDA walk");
        w.extent[w.ndim] = plan.shape[d];
        for (int k = 0; k < K; ++k) w.stride[k][w.ndim] = plan.strides[k][d];
        ++w.ndim;
    }
    return w;
}

}  // namespace

void binary(BinaryOp op, DType type, const WalkPlan<3>& plan) {
    if (plan.numel == 0) return;
    kBinary[static_cast<int>(op)](type, plan.data[0], plan.data[1], plan.data[2], walk_of(plan), nullptr);
    check_launch(op_name(op));
}

void unary(UnaryOp op, DType type, const WalkPlan<2>& plan) {
    if (plan.numel == 0) return;
    kUnary[static_cast<int>(op)](type, plan.data[0], plan.data[1], walk_of(plan), nullptr);
    check_launch(op_name(op));
}

}  // namespace moira::cuda
