// Storage allocation through the device's allocator.
#include "core/storage.hpp"

#include "core/device.hpp"

namespace moira {

std::shared_ptr<Storage> Storage::allocate(size_t nbytes, int device) {
    return std::make_shared<Storage>(nbytes, device_fast(device));
}

Storage::Storage(size_t nbytes, const Device& device)
    : data_(inline_), nbytes_(nbytes), device_(device.number), allocator_(device.allocator),
      host_accessible_(device.host_accessible) {
    if (nbytes > kInlineBytes || !host_accessible_) {
        data_ = nbytes ? allocator_->allocate(nbytes) : nullptr;
        owns_ = nbytes != 0;
    }
}

std::shared_ptr<Storage> Storage::wrap(void* data, size_t nbytes, int device, void (*release)(void*), void* context) {
    auto s = std::make_shared<Storage>(0, moira::device(device));
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
    if (owns_) allocator_->release(data_, nbytes_);
}

}  // namespace moira
