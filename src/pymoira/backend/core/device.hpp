// Device numbers: 0 is the CPU, 1000 + i is CUDA device i.
//
// The CPU backend is the only one built so far. A GPU device number is recognised and refused
// with a RuntimeError that says no CUDA device is available; any other number is a ValueError.
// Kernels reach devices through the tensor's own device inside the backend, so the tensor
// module never branches on devices.
#pragma once

#include <cstdint>

#include "core/export.hpp"

namespace moira {

constexpr int kCPU = 0;
constexpr int kCudaBase = 1000;

class Tensor;

// Validates a device number for creating a tensor there.
MOIRA_API void check_device(int64_t device);

// Raises RuntimeError naming both devices when two operands live on different devices.
MOIRA_API void check_same_device(const Tensor& a, const Tensor& b, const char* op);

}  // namespace moira
