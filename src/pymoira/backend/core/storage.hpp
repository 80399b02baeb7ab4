// Storage: one buffer on one device, allocated through the device's allocator and shared by the
// tensors (views and handles) that use it.
//
// Note [Who owns a buffer]
// A Tensor holds its Storage through a shared_ptr. Operations allocate a fresh Storage for
// every result; views, saved gradient inputs, adopted gradients and numpy exports share one.
// In-place operations write into a Storage only when nothing else uses it (Note [Views and value
// semantics]). The one exception is memory shared on purpose with another library through
// DLPack, either way: such a Storage is marked shared_externally, and in-place writes go
// straight into it so that both libraries see them. A Storage may also wrap memory that another
// library owns; it then calls the release function it was given when the last tensor goes.
#pragma once

#include <cstddef>
#include <memory>

#include "core/export.hpp"

namespace moira {

class Allocator;
struct Device;

class MOIRA_API Storage {
  public:
    // Uninitialised bytes; nbytes may be 0.
    static std::shared_ptr<Storage> allocate(size_t nbytes, int device);

    Storage(const Storage&) = delete;
    Storage& operator=(const Storage&) = delete;
    ~Storage();

    // Memory owned by another library: release(context) is called when the last tensor using
    // it goes. The storage is shared externally from the start.
    static std::shared_ptr<Storage> wrap(void* data, size_t nbytes, int device, void (*release)(void*),
                                         void* context);

    // The buffer's address on its device: host memory only where the device's memory is
    // host-accessible (Note [Host access]).
    void* data() const { return data_; }
    bool host_accessible() const { return host_accessible_; }
    size_t nbytes() const { return nbytes_; }
    int device() const { return device_; }

    // Shared on purpose with another library (DLPack): in-place writes are not copied first.
    bool shared_externally() const { return shared_externally_; }
    void share_externally() {
        if (!read_only_) shared_externally_ = true;
    }
    // Memory another library lends read-only: never written, a tensor over it copies first.
    bool read_only() const { return read_only_; }
    void mark_read_only() {
        read_only_ = true;
        shared_externally_ = false;
    }

    // Host buffers up to this size live inside the Storage object itself, which make_shared puts
    // in the same allocation as the reference count: a small tensor costs one allocation.
    static constexpr size_t kInlineBytes = 64;

    Storage(size_t nbytes, const Device& device);

  private:
    void* data_;
    size_t nbytes_;
    int device_;
    Allocator* allocator_;
    bool host_accessible_;
    bool owns_ = false;  // data_ came from allocator_
    bool shared_externally_ = false;
    bool read_only_ = false;
    void (*release_)(void*) = nullptr;  // wrapped memory
    void* release_context_ = nullptr;
    // 16-byte aligned, as malloc aligns: a stricter alignment would make every small tensor take
    // the slow aligned path of operator new.
    alignas(16) unsigned char inline_[kInlineBytes];
};

}  // namespace moira
