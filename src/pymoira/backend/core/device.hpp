// Devices: a registry that gives every device number its kind, allocator and kernel table.
//
// Note [Devices]
// Device 0 is the CPU; 1000 + i is GPU i. Each present device has a kind (the CPU, a stand-in
// GPU, CUDA), an Allocator that its Storage allocates and frees through, the table of primitive
// kernels that every operation on its memory ends in (kernels/table.hpp), and whether the host
// may read its memory directly. Only the CPU's memory is host-accessible: Tensor::data() and
// friends refuse other memory (an internal error), and the bindings move values with to_host()
// and to_device() (Note [Host access]).
//
// Stand-in GPUs: with MOIRA_VIRTUAL_GPUS=N in the environment when the library is first used,
// devices 1000 ... 1000 + N - 1 exist. Their memory comes from an allocator of their own and
// counts as not host-accessible; their table is the CPU's. To everything else they are GPUs,
// so every device rule, transfer and kernel path is tested on machines without one. Without
// them (and without CUDA) a GPU number raises RuntimeError saying no CUDA device is available;
// any other number is a ValueError.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

#include "core/export.hpp"

namespace moira {

constexpr int kCPU = 0;
constexpr int kCudaBase = 1000;

class Tensor;
struct Kernels;

enum class DeviceKind { CPU, StandIn, Cuda };

// Bytes a device's allocator hands out: in use by storages now, the most in use at once since
// the last reset_peak, and held back for reuse. The CPU's buffers of up to 64 bytes live inside
// their storage object (Storage::kInlineBytes) and are not counted.
struct MemoryStats {
    size_t in_use = 0;
    size_t peak = 0;
    size_t cached = 0;
};

// Memory of one device. allocate() raises MemoryError naming the size it could not provide and
// stays usable afterwards. Copies to and from host memory go through the allocator that owns
// the device memory.
class MOIRA_API Allocator {
  public:
    virtual ~Allocator();
    virtual void* allocate(size_t nbytes) = 0;
    virtual void release(void* data, size_t nbytes) = 0;
    virtual void copy_to_host(void* host, const void* device, size_t nbytes) const = 0;
    virtual void copy_from_host(void* device, const void* host, size_t nbytes) const = 0;
    virtual size_t cached_bytes() const { return 0; }

  protected:
    // Bytes handed out and given back. The peak is raised with a plain store: two threads
    // allocating at once may leave it a little low, which a statistic can afford (a
    // compare-and-swap loop on every allocation would cost more).
    void count(size_t nbytes) {
        const size_t now = in_use_.fetch_add(nbytes, std::memory_order_relaxed) + nbytes;
        if (now > peak_.load(std::memory_order_relaxed)) peak_.store(now, std::memory_order_relaxed);
    }
    void uncount(size_t nbytes) { in_use_.fetch_sub(nbytes, std::memory_order_relaxed); }

  public:
    MemoryStats stats() const;
    void reset_peak() { peak_.store(in_use_.load(std::memory_order_relaxed), std::memory_order_relaxed); }

  private:
    std::atomic<size_t> in_use_{0};
    std::atomic<size_t> peak_{0};
};

struct Device {
    int number;
    DeviceKind kind;
    Allocator* allocator;
    const Kernels* kernels;
    bool host_accessible;
};

// The CPU's entry, without a lookup.
MOIRA_API const Device& cpu_device();

// The entry of a present device; the errors described in Note [Devices] otherwise.
MOIRA_API const Device& device(int64_t number);

inline const Device& device_fast(int number) { return number == kCPU ? cpu_device() : device(number); }

// Validates a device number for creating a tensor there.
inline void check_device(int64_t number) { (void)device(number); }

// The one device both operands live on; RuntimeError naming `op` and both devices otherwise.
MOIRA_API int device_of(const Tensor& a, const Tensor& b, const char* op);

// The device an element-wise operation of a and b runs on: a one-element tensor made from a
// Python number (a weak scalar) follows the other operand, so `gpu_tensor + 2` works; otherwise
// as device_of. The caller moves the weak operand (Tensor::to_device).
MOIRA_API int combined_device(const Tensor& a, const Tensor& b, const char* op);

// Reads MOIRA_VIRTUAL_GPUS; ValueError naming the variable when it is not a small non-negative
// integer. Called when the extension module loads, so a bad value fails the import.
MOIRA_API void init_devices();

// How many GPU devices (stand-ins or CUDA) exist.
MOIRA_API int gpu_count();

}  // namespace moira
