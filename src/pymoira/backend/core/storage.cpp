// Aligned host allocation.
#include "core/storage.hpp"

#include <cstdint>
#include <cstdlib>
#include <mutex>
#include <new>
#include <vector>

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

  private:
    static constexpr size_t kMinBytes = size_t(1) << 16;
    static constexpr size_t kMaxTotal = size_t(1) << 27;
    static constexpr size_t kMaxEntries = 16;
    struct Entry {
        void* data;
        size_t bytes;
    };
    std::mutex mutex_;
    std::vector<Entry> entries_;
    size_t total_ = 0;
};

// Never destroyed: storages may still be freed while the process shuts down.
BufferCache& buffer_cache() {
    static BufferCache* cache = new BufferCache;
    return *cache;
}

}  // namespace

std::shared_ptr<Storage> Storage::allocate(size_t nbytes, int device) {
    check_device(device);
    return std::make_shared<Storage>(nbytes, device);
}

Storage::Storage(size_t nbytes, int device) : data_(inline_), nbytes_(nbytes), device_(device) {
    if (nbytes > kInlineBytes) {
        capacity_ = (nbytes + kAlignment - 1) / kAlignment * kAlignment;
        data_ = buffer_cache().take(capacity_);
        if (!data_) {
            data_ = std::aligned_alloc(kAlignment, capacity_);
            if (!data_) throw std::bad_alloc();
            advise_huge_pages(data_, capacity_);
        }
    }
}

std::shared_ptr<Storage> Storage::wrap(void* data, size_t nbytes, int device, void (*release)(void*), void* context) {
    auto s = std::make_shared<Storage>(0, device);
    s->data_ = data;
    s->nbytes_ = nbytes;
    s->release_ = release;
    s->release_context_ = context;
    s->shared_externally_ = true;
    return s;
}

Storage::~Storage() {
    if (release_) {
        release_(release_context_);
        return;
    }
    if (data_ != inline_ && !buffer_cache().give(data_, capacity_)) std::free(data_);
}

}  // namespace moira
