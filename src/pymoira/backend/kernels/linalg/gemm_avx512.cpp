// The blocked matrix product for CPUs with AVX-512 (32 vector registers of 16 floats).
#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <new>

#include "kernels/linalg/gemm.hpp"
#include "kernels/parallel.hpp"

#if defined(__x86_64__)
#pragma GCC target("avx512f,avx512vl,avx512dq,avx512bw,avx2,fma,prefer-vector-width=512")
#endif
#define MOIRA_GEMM_NS gemm_avx512

namespace moira {
namespace gemm_avx512 {
namespace {
template <class T> struct Tile;
template <> struct Tile<float> { static constexpr int mr = 12, nr = 32, vl = 16; };
template <> struct Tile<double> { static constexpr int mr = 12, nr = 16, vl = 8; };
}  // namespace
}  // namespace gemm_avx512
}  // namespace moira

#include "kernels/linalg/gemm_kernel.hpp"
