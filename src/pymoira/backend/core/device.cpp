// Device validation.
#include "core/device.hpp"

#include "core/errors.hpp"
#include "core/tensor.hpp"

namespace moira {

void check_device(int64_t device) {
    if (device == kCPU) return;
    if (device >= kCudaBase)
        fail<RuntimeError>("no CUDA device is available: cannot use device ", device,
                           " (this build of pymoira runs on the CPU only)");
    fail<ValueError>("invalid device number ", device, ": use 0 for the CPU or 1000 + i for CUDA device i");
}

void check_same_device(const Tensor& a, const Tensor& b, const char* op) {
    if (a.device() != b.device())
        fail<RuntimeError>(op, ": operands are on different devices (", a.device(), " and ", b.device(), ")");
}

}  // namespace moira
