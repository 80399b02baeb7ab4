// Aligned host allocation.
#include "core/storage.hpp"

#include <cstdlib>
#include <new>

#include "core/device.hpp"

namespace moira {

namespace {
constexpr size_t kAlignment = 64;
}

std::shared_ptr<Storage> Storage::allocate(size_t nbytes, int device) {
    check_device(device);
    return std::make_shared<Storage>(nbytes, device);
}

Storage::Storage(size_t nbytes, int device) : data_(inline_), nbytes_(nbytes), device_(device) {
    if (nbytes > kInlineBytes) {
        size_t rounded = (nbytes + kAlignment - 1) / kAlignment * kAlignment;
        data_ = std::aligned_alloc(kAlignment, rounded);
        if (!data_) throw std::bad_alloc();
    }
}

Storage::~Storage() {
    if (data_ != inline_) std::free(data_);
}

}  // namespace moira
