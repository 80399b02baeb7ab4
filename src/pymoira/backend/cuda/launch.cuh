// Launch geometry and error checks shared by the CUDA kernels (nvcc only).
#pragma once

#include <cuda_runtime.h>

#include <algorithm>
#include <cstdint>

#include "core/errors.hpp"

namespace moira::cuda {

constexpr int kThreads = 256;

// Blocks for a grid-stride loop over n items: enough to fill the device, never more than the
// items need.
inline unsigned grid_for(int64_t n) {
    return static_cast<unsigned>(std::max<int64_t>(1, std::min<int64_t>((n + kThreads - 1) / kThreads, 4096)));
}

inline bool aligned(const void* p, size_t bytes) { return reinterpret_cast<uintptr_t>(p) % bytes == 0; }

// A failed launch (bad configuration, a device fault) becomes a RuntimeError naming the
// operation; the error is cleared so the device stays usable.
inline void check_launch(const char* op) {
    const cudaError_t e = cudaGetLastError();
    if (e != cudaSuccess) fail<RuntimeError>(op, ": CUDA kernel launch failed: ", cudaGetErrorString(e));
}

}  // namespace moira::cuda
