// Creation kernels.
#include "kernels/creation.hpp"

#include <cmath>
#include <cstring>

#include "core/errors.hpp"
#include "kernels/parallel.hpp"
#include "kernels/table.hpp"

namespace moira {

Tensor empty(const Shape& shape, int device, DType dtype) { return Tensor(dtype, shape, device); }

Tensor zeros(const Shape& shape, int device, DType dtype) {
    Tensor t(dtype, shape, device);
    if (t.numel() > 0) kernels_of(t).fill(dtype, t.raw_mem(), t.numel(), Scalar::from_int(0));
    return t;
}

Tensor ones(const Shape& shape, int device, DType dtype) { return full(shape, Scalar::from_int(1), device, dtype); }

Tensor full(const Shape& shape, Scalar value, int device, DType dtype) {
    Tensor t(dtype, shape, device);
    fill_(t, value);
    return t;
}

void fill_(Tensor& t, Scalar value) {
    if (value.is_complex() && !is_complex(t.dtype()))
        fail<TypeError>("fill_: cannot write a complex number into a ", dtype_name(t.dtype()),
                        " tensor (that would discard its imaginary part)");
    t.prepare_overwrite_();
    kernels_of(t).fill(t.dtype(), t.raw_mem(), t.numel(), value);
}

void cpu::fill(DType type, void* data, int64_t n, Scalar value) {
    dispatch<TypeSet::WithComplex>(type, "fill_", [&](auto tag) {
        using T = typename decltype(tag)::type;
        const T v = value.as<T>();
        T* p = static_cast<T*>(data);
        if (n == 1) {
            p[0] = v;
            return;
        }
        const T zero{};
        if (std::memcmp(&v, &zero, sizeof(T)) == 0) {  // every byte zero: memset's speed
            char* bytes = static_cast<char*>(data);
            parallel_for(n * static_cast<int64_t>(sizeof(T)), [&](int64_t lo, int64_t hi) {
                std::memset(bytes + lo, 0, static_cast<size_t>(hi - lo));
            }, kParallelGrain * 4);
            return;
        }
        parallel_for(n, [&](int64_t lo, int64_t hi) {
            for (int64_t i = lo; i < hi; ++i) p[i] = v;
        });
    });
}

Tensor values_as(const Tensor& v, DType dtype) {
    if (is_complex(v.dtype()) && !is_complex(dtype))
        fail<TypeError>("cannot write ", dtype_name(v.dtype()), " values into a ", dtype_name(dtype),
                        " tensor (that would discard their imaginary parts)");
    if (v.is_weak()) return full(v.shape(), v.weak_value(), v.device(), dtype);
    return v.contiguous_as(dtype);
}

Tensor zeros_like(const Tensor& t) { return zeros(t.shape(), t.device(), t.dtype()); }
Tensor ones_like(const Tensor& t) { return ones(t.shape(), t.device(), t.dtype()); }
Tensor full_like(const Tensor& t, Scalar value) { return full(t.shape(), value, t.device(), t.dtype()); }

namespace {

// A new 1-D tensor of `n` elements holding value(i) computed in double: made on the host, then
// moved to `device`.
template <class V>
Tensor generate(int64_t n, int device, DType dtype, const char* op, V value) {
    check_device(device);
    Tensor t(dtype, Shape{n}, kCPU);
    dispatch<TypeSet::Numeric>(dtype, op, [&](auto tag) {
        using T = typename decltype(tag)::type;
        T* p = t.data<T>();
        for (int64_t i = 0; i < n; ++i) p[i] = static_cast<T>(value(i));
    });
    return t.to_device(device);
}

// |k| beyond this gives a 1-D diag result of more elements than any shape allows.
constexpr int64_t kMaxDiagOffset = int64_t(1) << 32;

void check_count(int64_t nums, const char* op) {
    if (nums < 0) fail<ValueError>(op, ": number of samples must be non-negative, got ", nums);
}

}  // namespace

Tensor arange(double start, double end, double step, int device, DType dtype) {
    if (!std::isfinite(start) || !std::isfinite(end) || !std::isfinite(step))
        fail<ValueError>("arange: start, end and step must be finite");
    if (step == 0) fail<ValueError>("arange: step must not be zero");
    double count = std::ceil((end - start) / step);
    if (!(count > 0)) count = 0;
    if (count > double(int64_t(1) << 48)) fail<ValueError>("arange: too many elements (", count, ")");
    return generate(static_cast<int64_t>(count), device, dtype, "arange",
                    [&](int64_t i) { return start + static_cast<double>(i) * step; });
}

Tensor linspace(double start, double end, int64_t nums, int device) {
    check_count(nums, "linspace");
    double step = nums > 1 ? (end - start) / static_cast<double>(nums - 1) : 0.0;
    return generate(nums, device, kDefaultFloat, "linspace", [&](int64_t i) {
        return i == nums - 1 && nums > 1 ? end : start + static_cast<double>(i) * step;
    });
}

Tensor logspace(double start, double end, int64_t nums, double base, int device) {
    check_count(nums, "logspace");
    double step = nums > 1 ? (end - start) / static_cast<double>(nums - 1) : 0.0;
    return generate(nums, device, kDefaultFloat, "logspace", [&](int64_t i) {
        double e = i == nums - 1 && nums > 1 ? end : start + static_cast<double>(i) * step;
        return std::pow(base, e);
    });
}

Tensor eye(int64_t n, int64_t offset, int device) {
    if (n < 0) fail<ValueError>("eye: size must be non-negative, got ", n);
    check_device(device);
    Tensor t = zeros(Shape{n, n}, kCPU);  // made on the host, then moved
    if (offset > -n && offset < n) {      // else no diagonal inside (and r + offset cannot overflow)
        float* p = t.data<float>();
        for (int64_t r = 0; r < n; ++r) {
            int64_t c = r + offset;
            if (c >= 0 && c < n) p[r * n + c] = 1.0f;
        }
    }
    return t.to_device(device);
}

namespace {

Tensor diag_on_host(const Tensor& t, int64_t k) {
    if (t.ndim() == 1) {
        int64_t m = t.numel();
        if (k > kMaxDiagOffset || k < -kMaxDiagOffset)
            fail<ValueError>("diag: diagonal ", k, " is too far from the main one for a square result");
        int64_t n = m + (k < 0 ? -k : k);
        Tensor out = zeros(Shape{n, n}, t.device(), t.dtype());
        dispatch(t.dtype(), "diag", [&](auto tag) {
            using T = typename decltype(tag)::type;
            const T* s = t.data<T>();
            T* d = out.data<T>();
            for (int64_t i = 0; i < m; ++i) {
                int64_t r = k >= 0 ? i : i - k, c = k >= 0 ? i + k : i;
                d[r * n + c] = s[i];
            }
        });
        return out;
    }
    if (t.ndim() == 2) {
        Tensor out = zeros_like(t);
        int64_t rows = t.shape()[0], cols = t.shape()[1];
        if (k <= -rows || k >= cols) return out;  // no element on diagonal k (and r + k cannot overflow)
        dispatch(t.dtype(), "diag", [&](auto tag) {
            using T = typename decltype(tag)::type;
            const T* s = t.data<T>();
            T* d = out.data<T>();
            for (int64_t r = 0; r < rows; ++r) {
                int64_t c = r + k;
                if (c >= 0 && c < cols) d[r * cols + c] = s[r * cols + c];
            }
        });
        return out;
    }
    fail<ValueError>("diag: expected a 1-D or 2-D tensor, got shape ", shape_str(t.shape()));
}

}  // namespace

Tensor diag(const Tensor& input, int64_t k) {
    // Made on the host from a host copy, then moved to the input's device.
    const Tensor t = input.to_host().contiguous();
    return diag_on_host(t, k).to_device(input.device());
}

}  // namespace moira
