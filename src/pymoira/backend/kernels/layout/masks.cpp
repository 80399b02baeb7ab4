// triu, tril, trace and mask_fill.
#include "kernels/layout/masks.hpp"

#include <algorithm>
#include <cstring>

#include "kernels/creation.hpp"
#include "kernels/iter/walker.hpp"
#include "kernels/table.hpp"

namespace moira {

namespace {

// Each row of each matrix: the columns [lo, hi) copied from t, the others zero. For row r,
// triu keeps the columns c >= r + k, tril the columns c <= r + k.
Tensor triangle(const Tensor& t, int64_t k, bool upper, const char* op) {
    if (t.ndim() < 2)
        fail<ValueError>(op, ": expected a matrix or a batch of matrices, got a tensor of shape ", shape_str(t.shape()));
    const int64_t rows = t.shape()[t.ndim() - 2], cols = t.shape()[t.ndim() - 1];
    Tensor out(t.dtype(), t.shape(), t.device());
    if (out.numel() == 0) return out;
    const Tensor src = t.contiguous();
    const int64_t lines = out.numel() / cols;
    // Diagonal offsets beyond the matrix act like the nearest one that still cuts it.
    const int64_t kk = std::clamp<int64_t>(k, -rows - 1, cols + 1);
    dispatch(t.dtype(), op, [&](auto tag) {
        using T = typename decltype(tag)::type;
        const T* s = src.mem<T>();
        T* d = out.mem<T>();
        parallel_for(lines, [&](int64_t lo_line, int64_t hi_line) {
            for (int64_t line = lo_line; line < hi_line; ++line) {
                const int64_t r = line % rows, edge = std::clamp<int64_t>(r + kk, 0, cols);
                const int64_t lo = upper ? edge : 0;
                const int64_t hi = upper ? cols : std::clamp<int64_t>(r + kk + 1, 0, cols);
                const T* a = s + line * cols;
                T* b = d + line * cols;
                std::fill(b, b + lo, T(0));
                if (hi > lo) std::memcpy(b + lo, a + lo, static_cast<size_t>(hi - lo) * sizeof(T));
                std::fill(b + std::max(lo, hi), b + cols, T(0));
            }
        }, std::max<int64_t>(1, kParallelGrain / std::max<int64_t>(1, cols)));
    });
    return out;
}

}  // namespace

Tensor triu(const Tensor& t, int64_t k) { return triangle(t, k, true, "triu"); }
Tensor tril(const Tensor& t, int64_t k) { return triangle(t, k, false, "tril"); }

Scalar trace(const Tensor& t, int64_t k) {
    if (t.ndim() != 2) fail<ValueError>("trace: expected a matrix, got a tensor of shape ", shape_str(t.shape()));
    const int64_t rows = t.shape()[0], cols = t.shape()[1];
    k = std::clamp<int64_t>(k, -rows, cols);
    // Diagonal k starts at (r0, c0) and has n elements.
    const int64_t r0 = k < 0 ? -k : 0, c0 = k > 0 ? k : 0;
    const int64_t n = std::max<int64_t>(0, std::min(rows - r0, cols - c0));
    const int64_t step = t.strides()[0] + t.strides()[1];
    return dispatch(t.dtype(), "trace", [&](auto tag) {
        using T = typename decltype(tag)::type;
        const T* p = n > 0 ? t.strided_mem<T>() + r0 * t.strides()[0] + c0 * t.strides()[1] : nullptr;
        if constexpr (std::is_floating_point_v<T>) {
            double acc = 0.0;
            for (int64_t i = 0; i < n; ++i) acc += static_cast<double>(p[i * step]);
            return Scalar::from_double(acc);
        } else {
            int64_t acc = 0;
            for (int64_t i = 0; i < n; ++i) acc += static_cast<int64_t>(p[i * step]);
            return Scalar::from_int(acc);
        }
    });
}

Tensor mask_fill(const Tensor& t, const Tensor& mask, Scalar value) {
    device_of(t, mask, "mask_fill_broadcast");
    const Shape shape = broadcast_shapes(t.shape(), mask.shape());
    Tensor out(t.dtype(), shape, t.device());
    if (out.numel() == 0) return out;
    const Tensor m = mask.dtype() == DType::Bool ? mask : mask.to(DType::Bool);
    const Tensor v = full(Shape{}, value, t.device(), t.dtype());
    kernels_of(out).where(t.dtype(), plan_walk<4>(out, {&m, &v, &t}));
    return out;
}

}  // namespace moira
