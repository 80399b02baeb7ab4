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
    size_t rounded = (nbytes + kAlignment - 1) / kAlignment * kAlignment;
    void* p = std::aligned_alloc(kAlignment, rounded ? rounded : kAlignment);
    if (!p) throw std::bad_alloc();
    return std::make_shared<Storage>(p, nbytes, device);
}

Storage::~Storage() { std::free(data_); }

}  // namespace moira
