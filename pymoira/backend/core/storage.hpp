// Storage: one owned, 64-byte aligned buffer on one device, shared by the tensors that use it.
//
// Note [Who owns a buffer]
// A Tensor holds its Storage through a shared_ptr. Operations allocate a fresh Storage for
// every result; in-place operations write into the receiver's Storage. Two tensors share a
// Storage only when one was copied from the other as a handle: a gradient function that
// returns its input unchanged or saves a forward tensor, an operation's internal broadcast copy
// of an operand that already had the broadcast shape, a gradient adopted by the backward pass.
// Never because of a view.
#pragma once

#include <cstddef>
#include <memory>

#include "core/export.hpp"

namespace moira {

class MOIRA_API Storage {
  public:
    // Uninitialised bytes; nbytes may be 0.
    static std::shared_ptr<Storage> allocate(size_t nbytes, int device);

    Storage(const Storage&) = delete;
    Storage& operator=(const Storage&) = delete;
    ~Storage();

    void* data() const { return data_; }
    size_t nbytes() const { return nbytes_; }
    int device() const { return device_; }

    // Buffers up to this size live inside the Storage object itself, which make_shared puts
    // in the same allocation as the reference count: a small tensor costs one allocation.
    static constexpr size_t kInlineBytes = 64;

    Storage(size_t nbytes, int device);

  private:
    void* data_;
    size_t capacity_ = 0;  // bytes allocated for data_ (0 for the inline buffer)
    size_t nbytes_;
    int device_;
    // 16-byte aligned, as malloc aligns: a stricter alignment would make every small tensor take
    // the slow aligned path of operator new.
    alignas(16) unsigned char inline_[kInlineBytes];
};

}  // namespace moira
