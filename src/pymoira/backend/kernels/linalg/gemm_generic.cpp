// The blocked matrix product for any CPU (the compiler's baseline vectors).
#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <new>

#include "kernels/linalg/gemm.hpp"
#include "kernels/parallel.hpp"

#define MOIRA_GEMM_NS gemm_generic

namespace moira {
namespace gemm_generic {
namespace {
template <class T> struct Tile;
template <> struct Tile<float> { static constexpr int mr = 6, nr = 8, vl = 4; };
template <> struct Tile<double> { static constexpr int mr = 6, nr = 4, vl = 2; };
}  // namespace
}  // namespace gemm_generic
}  // namespace moira

#include "kernels/linalg/gemm_kernel.hpp"
