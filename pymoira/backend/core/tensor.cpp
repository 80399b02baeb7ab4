// The Tensor type's own methods: construction, copies, reshaping, fills and device moves.
#include "core/tensor.hpp"

#include <algorithm>
#include <cstring>

#include "core/errors.hpp"
#include "kernels/parallel.hpp"

namespace moira {

Tensor::Tensor() : shape_{0} {}

Tensor::Tensor(DType dtype, Shape shape, int device)
    : shape_(std::move(shape)), dtype_(dtype), device_(device) {
    numel_ = checked_numel(shape_);
    storage_ = Storage::allocate(static_cast<size_t>(numel_) * itemsize(dtype), device);
}

Tensor Tensor::clone() const { return to(dtype_); }

Tensor Tensor::to(DType dtype) const {
    Tensor out(dtype, shape_, device_);
    out.copy_from_(*this);
    return out;
}

Tensor Tensor::reshape(const Shape& shape) const {
    Tensor out = clone();
    out.reshape_(shape);
    return out;
}

void Tensor::reshape_(const Shape& shape) { shape_ = resolve_reshape(shape, numel_, "reshape"); }

void Tensor::to_cpu_() {}

void Tensor::to_gpu_(int device) { check_device(device); }

void Tensor::fill_(Scalar value) {
    dispatch(dtype_, "fill_", [&](auto tag) {
        using T = typename decltype(tag)::type;
        T v = value.as<T>();
        T* p = data<T>();
        parallel_for(numel_, [&](int64_t lo, int64_t hi) {
            for (int64_t i = lo; i < hi; ++i) p[i] = v;
        });
    });
}

void Tensor::copy_from_(const Tensor& src) {
    if (src.shape_ != shape_)
        fail<ValueError>("copyTensor: source shape ", shape_str(src.shape_),
                         " differs from destination shape ", shape_str(shape_));
    check_same_device(src, *this, "copyTensor");
    if (src.storage_ == storage_) return;
    if (src.dtype_ == dtype_) {
        // In pieces across threads: a piece stays in cache, where one large memcpy streams past
        // it with non-temporal stores at a fraction of the speed.
        char* d = static_cast<char*>(raw());
        const char* s = static_cast<const char*>(src.raw());
        parallel_for(static_cast<int64_t>(nbytes()), [&](int64_t lo, int64_t hi) {
            constexpr int64_t kPiece = int64_t(1) << 18;
            for (int64_t p = lo; p < hi; p += kPiece)
                std::memcpy(d + p, s + p, static_cast<size_t>(std::min(kPiece, hi - p)));
        }, kParallelGrain * 4);
        return;
    }
    dispatch(src.dtype_, "copyTensor", [&](auto stag) {
        using S = typename decltype(stag)::type;
        dispatch(dtype_, "copyTensor", [&](auto dtag) {
            using D = typename decltype(dtag)::type;
            const S* s = src.data<S>();
            D* d = data<D>();
            parallel_for(numel_, [&](int64_t lo, int64_t hi) {
                for (int64_t i = lo; i < hi; ++i) d[i] = convert<D>(s[i]);
            });
        });
    });
}

Scalar Tensor::item() const {
    if (numel_ != 1)
        fail<ValueError>("item(): the tensor has ", numel_, " elements, expected exactly one");
    return dispatch(dtype_, "item", [&](auto tag) {
        using T = typename decltype(tag)::type;
        T v = data<T>()[0];
        if constexpr (std::is_same_v<T, bool>) return Scalar::from_bool(v);
        else if constexpr (std::is_integral_v<T>) return Scalar::from_int(v);
        else return Scalar::from_double(static_cast<double>(v));
    });
}

double Tensor::value_at(int64_t flat) const {
    MOIRA_INTERNAL_ASSERT(flat >= 0 && flat < numel_);
    return dispatch(dtype_, "value_at", [&](auto tag) {
        using T = typename decltype(tag)::type;
        return static_cast<double>(data<T>()[flat]);
    });
}

}  // namespace moira
