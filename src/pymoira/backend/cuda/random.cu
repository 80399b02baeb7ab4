// Random fills of CUDA devices: one thread per Philox block, converting its words as the CPU does.
#include "cuda/random.cuh"

#include <cuda_runtime.h>

#include "cuda/launch.cuh"
#include "kernels/random/philox.hpp"

namespace moira::cuda {

namespace {

// low + span * u as the CPU computes it: a rounded double multiply, then a rounded add.
__device__ inline double affine(double low, double span, double u) { return __dadd_rn(low, __dmul_rn(span, u)); }

template <class T>
__global__ void uniform_kernel(T* p, int64_t n, uint64_t key, uint64_t offset, double low, double span) {
    constexpr int per = sizeof(T) == 4 ? philox::kUniform32PerBlock : philox::kUniform64PerBlock;
    const int64_t blocks = (n + per - 1) / per;
    for (int64_t c = blockIdx.x * int64_t(blockDim.x) + threadIdx.x; c < blocks; c += int64_t(gridDim.x) * blockDim.x) {
        const philox::Block b = philox::block(offset + c, key);
        for (int j = 0; j < per && c * per + j < n; ++j) {
            const double u = per == 4 ? double(philox::u24(b.w[j])) : philox::u53(b.w[2 * j], b.w[2 * j + 1]);
            p[c * per + j] = static_cast<T>(affine(low, span, u));
        }
    }
}

template <class T>
__global__ void normal_kernel(T* p, int64_t n, uint64_t key, uint64_t offset, double mean, double stddev, bool fast) {
    const int64_t blocks = (n + philox::kNormalsPerBlock - 1) / philox::kNormalsPerBlock;
    for (int64_t c = blockIdx.x * int64_t(blockDim.x) + threadIdx.x; c < blocks; c += int64_t(gridDim.x) * blockDim.x) {
        const philox::Block b = philox::block(offset + c, key);
        double z[2];
        if (fast) {
            float f0, f1;
            philox::normal_pair_fast(b, f0, f1);
            z[0] = f0;
            z[1] = f1;
        } else {
            philox::normal_pair(b, z[0], z[1]);
        }
        for (int j = 0; j < 2 && 2 * c + j < n; ++j) p[2 * c + j] = static_cast<T>(affine(mean, stddev, z[j]));
    }
}

}  // namespace

void fill_uniform(DType type, void* p, int64_t n, uint64_t key, uint64_t offset, double low, double span, void* stream) {
    if (n == 0) return;
    cudaStream_t s = static_cast<cudaStream_t>(stream);
    if (type == DType::Float32)
        uniform_kernel<<<grid_for((n + 3) / 4), kThreads, 0, s>>>(static_cast<float*>(p), n, key, offset, low, span);
    else
        uniform_kernel<<<grid_for((n + 1) / 2), kThreads, 0, s>>>(static_cast<double*>(p), n, key, offset, low, span);
    check_launch("fill_rand_uniform");
}

void fill_normal(DType type, void* p, int64_t n, uint64_t key, uint64_t offset, double mean, double stddev,
                 bool fast_math, void* stream) {
    if (n == 0) return;
    cudaStream_t s = static_cast<cudaStream_t>(stream);
    if (type == DType::Float32)
        normal_kernel<<<grid_for((n + 1) / 2), kThreads, 0, s>>>(static_cast<float*>(p), n, key, offset, mean, stddev, fast_math);
    else
        normal_kernel<<<grid_for((n + 1) / 2), kThreads, 0, s>>>(static_cast<double*>(p), n, key, offset, mean, stddev, fast_math);
    check_launch("fill_rand_normal");
}

void random(const RandomPlan& r) {
    if (r.type != DType::Float32 && r.type != DType::Float64)
        fail<RuntimeError>("random fills of CUDA devices are built for float32 and float64 only");
    switch (r.draw) {
        case RandomDraw::Uniform: return fill_uniform(r.type, r.data, r.n, r.key, r.first, r.a, r.b - r.a, nullptr);
        case RandomDraw::Normal:
        case RandomDraw::NormalFast:
            return fill_normal(r.type, r.data, r.n, r.key, r.first, r.a, r.b, r.draw == RandomDraw::NormalFast, nullptr);
        case RandomDraw::Binary: fail<RuntimeError>("fill_rand_binary_ is not built for CUDA devices yet");
    }
}

}  // namespace moira::cuda
