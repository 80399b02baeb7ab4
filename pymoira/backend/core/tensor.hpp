// Tensor: element type, shape, device and contiguous row-major storage.
//
// Every operation returns a new contiguous tensor; methods ending in an underscore change the
// receiver. Shape and storage are kept apart so strided views can be added later without
// changing this interface.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "core/device.hpp"
#include "core/dtype.hpp"
#include "core/scalar.hpp"
#include "core/shape.hpp"
#include "core/storage.hpp"

namespace moira {

class MOIRA_API Tensor {
  public:
    // An empty float32 tensor of shape [0].
    Tensor();
    // Uninitialised values of the given type and shape on `device`.
    Tensor(DType dtype, Shape shape, int device = kCPU);

    DType dtype() const { return dtype_; }
    const Shape& shape() const { return shape_; }
    int64_t ndim() const { return static_cast<int64_t>(shape_.size()); }
    int64_t numel() const { return numel_; }
    int device() const { return device_; }
    size_t nbytes() const { return static_cast<size_t>(numel_) * itemsize(dtype_); }

    void* raw() const { return storage_ ? storage_->data() : nullptr; }
    template <class T>
    T* data() const { return static_cast<T*>(raw()); }

    // True when no other handle uses this tensor's buffer.
    bool sole_owner() const { return storage_.use_count() <= 1; }
    // True when both handles use the same buffer.
    bool shares_storage(const Tensor& other) const { return storage_ == other.storage_; }

    // A copy with its own storage, optionally converted to another element type.
    Tensor clone() const;
    Tensor to(DType dtype) const;

    // The same values under a new shape (one -1 is inferred): a copy, and in place.
    Tensor reshape(const Shape& shape) const;
    void reshape_(const Shape& shape);

    // Moves to the CPU / a GPU in place. The CPU backend has no GPU: to_gpu_ raises.
    void to_cpu_();
    void to_gpu_(int device = kCudaBase);

    void fill_(Scalar value);
    // Copies `src` into this tensor, converting the element type; shapes must be equal.
    void copy_from_(const Tensor& src);

    // The single value of a one-element tensor.
    Scalar item() const;
    // Value of element `flat` (row-major) as a double; for printing and tests.
    double value_at(int64_t flat) const;

  private:
    std::shared_ptr<Storage> storage_;
    Shape shape_;
    int64_t numel_ = 0;
    DType dtype_ = kDefaultFloat;
    int device_ = kCPU;
};

}  // namespace moira
