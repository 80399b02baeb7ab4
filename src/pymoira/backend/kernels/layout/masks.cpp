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
    // Diagonal offsets beyond the matrix act like the nearest one that still cuts it. The
    // [rows, cols] mask of kept elements is made on the host; one where() applies it to every
    // matrix on t's device.
    const int64_t kk = std::clamp<int64_t>(k, -rows - 1, cols + 1);
    Tensor keep(DType::Bool, Shape{rows, cols}, kCPU);
    bool* m = keep.data<bool>();
    for (int64_t r = 0; r < rows; ++r)
        for (int64_t c = 0; c < cols; ++c) m[r * cols + c] = upper ? c - r >= kk : c - r <= kk;
    const Tensor mask = keep.to_device(t.device());
    const Tensor zero = zeros(Shape{}, t.device(), t.dtype());
    kernels_of(out).where(t.dtype(), plan_walk<4>(out, {&mask, &t, &zero}));
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
    // The diagonal as a strided view, summed as the sums add (floats into float64; complex values
    // add in complex128 and keep their type).
    if (n == 0)
        return is_complex(t.dtype()) ? Scalar::from_complex(0.0, 0.0)
               : is_floating(t.dtype()) ? Scalar::from_double(0.0) : Scalar::from_int(0);
    const Tensor diagonal = t.view(Shape{n}, Shape{t.strides()[0] + t.strides()[1]},
                                   t.offset() + r0 * t.strides()[0] + c0 * t.strides()[1]);
    Tensor total(is_complex(t.dtype()) ? t.dtype() : is_floating(t.dtype()) ? DType::Float64 : DType::Int64, Shape{1},
                 t.device());
    const LanesPlan p{AxisLanes(total, diagonal, 0, false), t.dtype(), total.dtype(), diagonal.raw_mem(),
                      total.raw_mem()};
    kernels_of(total).lanes(LaneOp::Sum, p);
    return total.item();
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
