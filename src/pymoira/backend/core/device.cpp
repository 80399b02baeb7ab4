// The device registry and the host allocators: the CPU's, and the stand-in GPUs'.
#include "core/device.hpp"

#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#ifdef __linux__
#include <sys/mman.h>
#endif

#include "core/errors.hpp"
#include "core/tensor.hpp"

namespace moira {

MOIRA_API extern const Kernels kCpuKernels;  // kernels/table_cpu.cpp

Allocator::~Allocator() = default;

MemoryStats Allocator::stats() const {
    MemoryStats s;
    s.in_use = in_use_.load(std::memory_order_relaxed);
    s.peak = peak_.load(std::memory_order_relaxed);
    s.cached = cached_bytes();
    return s;
}

namespace {

constexpr size_t kAlignment = 64;

// Large buffers ask for transparent huge pages (as numpy does): streaming kernels over tens of
// megabytes otherwise spend much of their time on TLB misses.
void advise_huge_pages(void* p, size_t nbytes) {
#if defined(__linux__) && defined(MADV_HUGEPAGE)
    constexpr size_t kHugeThreshold = size_t(1) << 22;
    constexpr size_t kPage = 4096;
    if (nbytes < kHugeThreshold) return;
    uintptr_t begin = (reinterpret_cast<uintptr_t>(p) + kPage - 1) / kPage * kPage;
    uintptr_t end = (reinterpret_cast<uintptr_t>(p) + nbytes) / kPage * kPage;
    if (end > begin) madvise(reinterpret_cast<void*>(begin), end - begin, MADV_HUGEPAGE);  // a hint only
#else
    (void)p;
    (void)nbytes;
#endif
}

// Note [Reusing large buffers]
// Freed buffers of 64 KiB and more are kept (up to 16 of them, 128 MiB in all) and handed out
// again for the same size. A training loop allocates the same large shapes on every step; without
// this, the C library returns them to the system and every step pays for faulting in and zeroing
// fresh pages. The cache is bounded, so the memory it holds back stays small.
class BufferCache {
  public:
    void* take(size_t bytes) {
        if (bytes < kMinBytes) return nullptr;
        std::lock_guard<std::mutex> lock(mutex_);
        for (size_t i = entries_.size(); i-- > 0;) {
            if (entries_[i].bytes != bytes) continue;
            void* p = entries_[i].data;
            total_ -= bytes;
            entries_.erase(entries_.begin() + static_cast<std::ptrdiff_t>(i));
            return p;
        }
        return nullptr;
    }

    // Keeps `data` for reuse, or returns false when it should be freed.
    bool give(void* data, size_t bytes) {
        if (bytes < kMinBytes || bytes > kMaxTotal) return false;
        std::lock_guard<std::mutex> lock(mutex_);
        while (!entries_.empty() && (entries_.size() >= kMaxEntries || total_ + bytes > kMaxTotal)) {
            std::free(entries_.front().data);
            total_ -= entries_.front().bytes;
            entries_.erase(entries_.begin());
        }
        entries_.push_back({data, bytes});
        total_ += bytes;
        return true;
    }

    size_t total() const {
        std::lock_guard<std::mutex> lock(mutex_);
        return total_;
    }

  private:
    static constexpr size_t kMinBytes = size_t(1) << 16;
    static constexpr size_t kMaxTotal = size_t(1) << 27;
    static constexpr size_t kMaxEntries = 16;
    struct Entry {
        void* data;
        size_t bytes;
    };
    mutable std::mutex mutex_;
    std::vector<Entry> entries_;
    size_t total_ = 0;
};

// Host memory: blocks below a page from the C library's fast small-block path (16-byte aligned,
// as malloc aligns), larger ones 64-byte aligned and, from 64 KiB, reused through a BufferCache.
// The CPU and the stand-in GPUs each have one: a stand-in's memory is host memory that only its
// kernel table touches.
class HostAllocator final : public Allocator {
  public:
    explicit HostAllocator(int device) : device_(device) {}

    void* allocate(size_t nbytes) override {
        if (nbytes < kSmallBytes) {
            void* small = std::malloc(nbytes);
            if (!small) fail<MemoryError>("cannot allocate ", nbytes, " bytes on device ", device_);
            count(nbytes);
            return small;
        }
        const size_t capacity = rounded(nbytes);
        void* p = cache_.take(capacity);
        if (!p) {
            p = capacity >= nbytes ? std::aligned_alloc(kAlignment, capacity) : nullptr;
            if (!p)
                fail<MemoryError>("cannot allocate ", nbytes, " bytes on device ", device_,
                                  device_ == kCPU ? " (the CPU)" : "");
            advise_huge_pages(p, capacity);
        }
        count(nbytes);
        return p;
    }
    void release(void* data, size_t nbytes) override {
        uncount(nbytes);
        if (nbytes < kSmallBytes || !cache_.give(data, rounded(nbytes))) std::free(data);
    }
    void copy_to_host(void* host, const void* dev, size_t nbytes) const override {
        if (nbytes) std::memcpy(host, dev, nbytes);
    }
    void copy_from_host(void* dev, const void* host, size_t nbytes) const override {
        if (nbytes) std::memcpy(dev, host, nbytes);
    }
    size_t cached_bytes() const override { return cache_.total(); }

  private:
    static constexpr size_t kSmallBytes = 4096;
    static size_t rounded(size_t nbytes) { return (nbytes + kAlignment - 1) / kAlignment * kAlignment; }
    int device_;
    BufferCache cache_;
};

// Parses MOIRA_VIRTUAL_GPUS: unset or empty is 0.
int virtual_gpus_from_environment() {
    const char* text = std::getenv("MOIRA_VIRTUAL_GPUS");
    if (!text || !*text) return 0;
    constexpr int kMaxVirtual = 64;
    int n = 0;
    for (const char* c = text; *c; ++c) {
        if (*c < '0' || *c > '9' || n > kMaxVirtual) {
            n = -1;
            break;
        }
        n = n * 10 + (*c - '0');
    }
    if (n < 0 || n > kMaxVirtual)
        fail<ValueError>("MOIRA_VIRTUAL_GPUS must be a whole number of stand-in GPU devices from 0 to ", kMaxVirtual,
                         ", got '", text, "'");
    return n;
}

struct Registry {
    // Never destroyed: storages may still be freed while the process shuts down.
    HostAllocator* cpu_allocator = new HostAllocator(kCPU);
    Device cpu{kCPU, DeviceKind::CPU, cpu_allocator, &kCpuKernels, true};
    std::vector<Device> gpus;

    Registry() {
        const int n = virtual_gpus_from_environment();
        for (int i = 0; i < n; ++i)
            gpus.push_back({kCudaBase + i, DeviceKind::StandIn, new HostAllocator(kCudaBase + i), &kCpuKernels, false});
    }
};

Registry& registry() {
    static Registry* r = new Registry;
    return *r;
}

}  // namespace

const Device& cpu_device() {
    static const Device& cpu = registry().cpu;
    return cpu;
}

const Device& device(int64_t number) {
    if (number == kCPU) return cpu_device();
    const Registry& r = registry();
    if (number >= kCudaBase) {
        const int64_t i = number - kCudaBase;
        if (i < static_cast<int64_t>(r.gpus.size())) return r.gpus[static_cast<size_t>(i)];
        if (r.gpus.empty())
            fail<RuntimeError>("no CUDA device is available: cannot use device ", number,
                               " (this build of pymoira runs on the CPU only)");
        fail<RuntimeError>("no GPU device ", number, ": the GPU devices are 1000 to ",
                           kCudaBase + static_cast<int64_t>(r.gpus.size()) - 1);
    }
    fail<ValueError>("invalid device number ", number, ": use 0 for the CPU or 1000 + i for CUDA device i");
}

int device_of(const Tensor& a, const Tensor& b, const char* op) {
    if (a.device() != b.device())
        fail<RuntimeError>(op, ": operands are on different devices (", a.device(), " and ", b.device(), ")");
    return a.device();
}

int combined_device(const Tensor& a, const Tensor& b, const char* op) {
    if (a.device() == b.device()) return a.device();
    if (b.is_weak() && !a.is_weak()) return a.device();
    if (a.is_weak() && !b.is_weak()) return b.device();
    return device_of(a, b, op);
}

void init_devices() { (void)registry(); }

int gpu_count() { return static_cast<int>(registry().gpus.size()); }

}  // namespace moira
