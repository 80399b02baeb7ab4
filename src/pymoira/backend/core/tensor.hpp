// Tensor: element type, shape, device, and a strided view of a shared storage.
//
// Note [Views and value semantics]
// A Tensor addresses element (i0, i1, ...) at storage element offset + i0 * strides[0] + ...
// Strides count elements and may be 0 (an axis broadcast by repetition) or negative (an axis
// read backwards). Operations that only re-index (reshape when the layout allows, axis
// permutations, broadcast_to, basic index regions, flip, the pieces of split) return views in
// O(1) that share the storage; every other operation returns a new contiguous tensor.
//
// Users and the tensor module still see every operation return a new tensor: sharing is never
// visible. An in-place operation first calls prepare_write_() (or prepare_overwrite_() when it
// writes every element), the one place that checks it: when the storage is shared with another
// handle (a view, a saved gradient input, a numpy export), or the receiver is not contiguous,
// the receiver gets a contiguous storage of its own (copy-on-write) and only then is written. Metadata-only in-place operations (reshape_,
// transpose_, squeeze_) change the receiver's view and never the storage. So a gradient
// function keeps the values it saved even when Python later writes into the tensor, and a
// parameter updated in place is copied only while something else (a live graph) still holds
// its storage.
//
// Views are validated when they are made (view()): every addressed element lies inside the
// storage, and shapes and strides whose offsets overflow 64 bits are refused, so no kernel
// walking a view can read or write outside its buffer.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "core/device.hpp"
#include "core/dtype.hpp"
#include "core/errors.hpp"
#include "core/scalar.hpp"
#include "core/shape.hpp"
#include "core/storage.hpp"

namespace moira {

class MOIRA_API Tensor {
  public:
    // An empty float32 tensor of shape [0].
    Tensor();
    // Uninitialised values of the given type and shape on `device`, contiguous.
    Tensor(DType dtype, Shape shape, int device);

    DType dtype() const { return dtype_; }
    const Shape& shape() const { return shape_; }
    const Shape& strides() const { return strides_; }
    int64_t offset() const { return offset_; }
    int64_t ndim() const { return static_cast<int64_t>(shape_.size()); }
    int64_t numel() const { return numel_; }
    int device() const { return device_; }
    size_t nbytes() const { return static_cast<size_t>(numel_) * itemsize(dtype_); }

    // Row-major contiguous: the elements fill [offset, offset + numel) in order.
    bool is_contiguous() const { return contiguous_; }

    // Note [Host access]
    // Two kinds of address. raw_mem() is the address on the tensor's own device: planning code
    // puts it into a kernel plan, and only entries of that device's table (kernels/table.hpp)
    // dereference it. data(), strided_data() and raw() are host pointers, for code that reads
    // values on the host (bindings, printing, item(), index data); they are an internal error on
    // memory that is not host-accessible, which to_host() copies first. A stand-in GPU's memory
    // is host memory that only its table touches, so the check catches on every commit what
    // would read a real GPU's memory from the host.
    void* raw_mem() const {
        return storage_ ? static_cast<char*>(storage_->data()) + offset_ * static_cast<int64_t>(itemsize(dtype_))
                        : nullptr;
    }

    // Host pointers (see above). data() is the first element of a contiguous tensor, for code
    // that reads it as a flat array (an internal error on a non-contiguous view, never a wrong
    // read); strided_data() the element at the view's offset, for code that walks strides.
    template <class T>
    T* data() const {
        MOIRA_INTERNAL_ASSERT(contiguous_);
        return static_cast<T*>(raw());
    }
    template <class T>
    T* strided_data() const { return static_cast<T*>(raw()); }
    void* raw() const {
        if (storage_ && !storage_->host_accessible()) fail_host_access();
        return raw_mem();
    }
    bool host_accessible() const { return !storage_ || storage_->host_accessible(); }

    // This tensor when its memory is host-accessible, else a contiguous copy on the CPU.
    Tensor to_host() const;
    // A copy on `device` (this tensor itself when it is there already), through the allocators.
    // A weak scalar stays weak.
    Tensor to_device(int device) const;

    // True when no other handle uses this tensor's storage.
    bool sole_owner() const { return storage_.use_count() <= 1; }
    // True when both handles use the same storage.
    bool shares_storage(const Tensor& other) const { return storage_ == other.storage_; }

    // A view of the same storage; ValueError when an addressed element would lie outside it or
    // an offset overflows. `strides` has one entry per axis.
    Tensor view(Shape shape, Shape strides, int64_t offset) const;
    // The same view under another shape when the strides allow it (see reshape_strides).
    void set_view_(Shape shape, Shape strides, int64_t offset);

    // Defined with the strided copy in kernels/iter/copy.cpp (see Note [Views and value
    // semantics]): a contiguous tensor with its own storage, optionally converted; this tensor
    // itself when it is contiguous already; the copy-on-write check before a write.
    Tensor clone() const;
    Tensor to(DType dtype) const;
    Tensor contiguous() const;
    // contiguous() in another element type (no copy when nothing changes).
    Tensor contiguous_as(DType dtype) const;
    // Whether an in-place write may go straight into the storage: contiguous, and not shared
    // (or shared on purpose with another library, see Note [Who owns a buffer]).
    bool writable_in_place() const {
        if (!contiguous_) return false;
        if (!storage_) return true;
        return !storage_->read_only() && (sole_owner() || storage_->shared_externally());
    }
    // The storage, for the bindings that share it with other libraries.
    const std::shared_ptr<Storage>& storage() const { return storage_; }
    // A tensor over another library's memory (see Storage::wrap), with the given layout.
    static Tensor wrap(std::shared_ptr<Storage> storage, DType dtype, Shape shape, Shape strides, int64_t offset);
    // Before a write that reads the old values: a contiguous storage of its own, values kept.
    void prepare_write_();
    // Before a write of every element: the same, without copying the values it will overwrite.
    void prepare_overwrite_();

    // Moves to the CPU / a GPU in place (views of the old storage stay where they are).
    void to_cpu_();
    void to_gpu_(int64_t device);

    // A one-element tensor made from a Python number: the number itself (Note [Weak scalars]).
    // In-place writes forget it.
    bool is_weak() const { return weak_ && numel_ == 1; }
    const Scalar& weak_value() const { return weak_value_; }
    void set_weak_(Scalar value) {
        weak_ = true;
        weak_value_ = value;
    }

    // The single value of a one-element tensor.
    Scalar item() const;
    // Value of element `flat` (row-major over the shape) as a double; for printing and tests.
    double value_at(int64_t flat) const;

  private:
    void update_layout_();
    [[noreturn]] void fail_host_access() const;

    std::shared_ptr<Storage> storage_;
    Shape shape_;
    Shape strides_;
    int64_t offset_ = 0;
    int64_t numel_ = 0;
    DType dtype_ = kDefaultFloat;
    int device_ = kCPU;
    bool contiguous_ = true;
    bool weak_ = false;
    Scalar weak_value_;
};

}  // namespace moira
