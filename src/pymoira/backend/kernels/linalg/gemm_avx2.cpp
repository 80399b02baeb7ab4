// The blocked matrix product for CPUs with AVX2 and FMA (16 vector registers of 8 floats).
#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <new>

#include "kernels/linalg/gemm.hpp"
#include "kernels/parallel.hpp"

#if defined(__x86_64__)
#pragma GCC target("avx2,fma")
#endif
#define MOIRA_GEMM_NS gemm_avx2

namespace moira {
namespace gemm_avx2 {
namespace {
template <class T> struct Tile;
template <> struct Tile<float> { static constexpr int mr = 6, nr = 16, vl = 8; };
template <> struct Tile<double> { static constexpr int mr = 6, nr = 8, vl = 4; };
}  // namespace
}  // namespace gemm_avx2
}  // namespace moira

#include "kernels/linalg/gemm_kernel.hpp"
