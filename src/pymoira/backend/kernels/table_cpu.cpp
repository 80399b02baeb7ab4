// The CPU's kernel table (Note [The kernel table]); stand-in GPUs share it.
#include "kernels/table.hpp"

namespace moira {

extern const Kernels kCpuKernels;
const Kernels kCpuKernels = {
    &cpu::copy, &cpu::fill, &cpu::binary, &cpu::unary, &cpu::where, &cpu::clamp, &cpu::gemm, &cpu::random,
};

}  // namespace moira
