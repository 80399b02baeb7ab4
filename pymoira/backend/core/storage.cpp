// Aligned host allocation.
#include "core/storage.hpp"

#include <cstdint>
#include <cstdlib>
#include <new>

#ifdef __linux__
#include <sys/mman.h>
#endif

#include "core/device.hpp"

namespace moira {

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

}  // namespace

std::shared_ptr<Storage> Storage::allocate(size_t nbytes, int device) {
    check_device(device);
    return std::make_shared<Storage>(nbytes, device);
}

Storage::Storage(size_t nbytes, int device) : data_(inline_), nbytes_(nbytes), device_(device) {
    if (nbytes > kInlineBytes) {
        size_t rounded = (nbytes + kAlignment - 1) / kAlignment * kAlignment;
        data_ = std::aligned_alloc(kAlignment, rounded);
        if (!data_) throw std::bad_alloc();
        advise_huge_pages(data_, rounded);
    }
}

Storage::~Storage() {
    if (data_ != inline_) std::free(data_);
}

}  // namespace moira
