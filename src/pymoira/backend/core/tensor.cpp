// The Tensor type's own methods: construction, view validation, single values, device moves.
#include "core/tensor.hpp"

#include <limits>

namespace moira {

Tensor::Tensor() : shape_{0}, strides_{1} {}

Tensor::Tensor(DType dtype, Shape shape, int device)
    : shape_(std::move(shape)), dtype_(dtype), device_(device) {
    numel_ = checked_numel(shape_);
    strides_.resize(shape_.size());
    for (size_t k = shape_.size(), s = 1; k-- > 0; s *= static_cast<size_t>(shape_[k])) strides_[k] = static_cast<int64_t>(s);
    storage_ = Storage::allocate(static_cast<size_t>(numel_) * itemsize(dtype), device);
}

void Tensor::update_layout_() {
    numel_ = moira::numel(shape_);
    int64_t expected = 1;
    contiguous_ = true;
    for (size_t d = shape_.size(); d-- > 0;) {
        if (shape_[d] == 1) continue;
        if (strides_[d] != expected) contiguous_ = false;
        expected *= shape_[d];
    }
    if (numel_ == 0) contiguous_ = true;
}

Tensor Tensor::wrap(std::shared_ptr<Storage> storage, DType dtype, Shape shape, Shape strides, int64_t offset) {
    Tensor t;
    t.storage_ = std::move(storage);
    t.dtype_ = dtype;
    t.device_ = t.storage_->device();
    t.set_view_(std::move(shape), std::move(strides), offset);
    return t;
}

Tensor Tensor::view(Shape shape, Shape strides, int64_t offset) const {
    Tensor out = *this;
    out.set_view_(std::move(shape), std::move(strides), offset);
    return out;
}

void Tensor::set_view_(Shape shape, Shape strides, int64_t offset) {
    if (strides.size() != shape.size())
        fail<ValueError>("view: ", strides.size(), " strides for a shape of ", shape.size(), " axes");
    const int64_t count = checked_numel(shape);
    const int64_t capacity = storage_ ? static_cast<int64_t>(storage_->nbytes() / itemsize(dtype_)) : 0;
    if (count > 0) {
        // The lowest and highest element offsets the view addresses, in 128 bits so that no
        // product or sum can overflow before it is checked.
        __int128 lo = offset, hi = offset;
        for (size_t d = 0; d < shape.size(); ++d) {
            __int128 span = static_cast<__int128>(shape[d] - 1) * strides[d];
            (span < 0 ? lo : hi) += span;
        }
        if (lo < 0 || hi >= capacity)
            fail<ValueError>("view: shape ", shape_str(shape), " with strides ", shape_str(strides), " at offset ",
                             offset, " addresses elements outside a storage of ", capacity, " elements");
    } else {
        offset = 0;  // an empty view addresses nothing
    }
    shape_ = std::move(shape);
    strides_ = std::move(strides);
    offset_ = offset;
    update_layout_();
}

void Tensor::to_cpu_() { *this = to_device(kCPU); }

void Tensor::to_gpu_(int64_t number) { *this = to_device(moira::device(number).number); }

void Tensor::fail_host_access() const {
    fail<RuntimeError>("internal error: the host read the memory of device ", device_,
                       ", which is not host-accessible; copy it with to_host() first");
}

Scalar Tensor::item() const {
    if (numel_ != 1)
        fail<ValueError>("item(): the tensor has ", numel_, " elements, expected exactly one");
    const Tensor host = to_host();
    return dispatch<TypeSet::WithComplex>(dtype_, "item", [&](auto tag) {
        using T = typename decltype(tag)::type;
        T v = *host.strided_data<T>();
        if constexpr (is_complex_v<T>) return Scalar::from_complex(v.real(), v.imag());
        else if constexpr (std::is_same_v<T, bool>) return Scalar::from_bool(v);
        else if constexpr (std::is_integral_v<T>) return Scalar::from_int(v);
        else return Scalar::from_double(static_cast<double>(v));
    });
}

double Tensor::value_at(int64_t flat) const {
    MOIRA_INTERNAL_ASSERT(flat >= 0 && flat < numel_);
    const Tensor host = to_host();
    int64_t off = 0;
    for (size_t d = shape_.size(); d-- > 0;) {
        off += (flat % shape_[d]) * host.strides_[d];
        flat /= shape_[d];
    }
    return dispatch(dtype_, "value_at", [&](auto tag) {
        using T = typename decltype(tag)::type;
        return static_cast<double>(host.strided_data<T>()[off]);
    });
}

}  // namespace moira
