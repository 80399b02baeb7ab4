// tensor_print: see Note [Printed layout].
#include "kernels/print.hpp"

#include <cmath>
#include <cstdio>

#include "core/errors.hpp"

namespace moira {

namespace {

template <class T>
void append_value(std::string& out, T v, int precision) {
    char buf[64];
    if constexpr (is_complex_v<T>) {  // numpy's form: 1.0000000+2.0000000j
        append_value(out, v.real(), precision);
        const auto im = v.imag();
        if (!std::signbit(im) || std::isnan(im)) out += "+";  // numpy writes +nan
        append_value(out, im, precision);
        out += "j";
        return;
    } else if constexpr (std::is_same_v<T, bool>) {
        out += v ? "True" : "False";
        return;
    } else if constexpr (std::is_integral_v<T>) {
        std::snprintf(buf, sizeof buf, "%lld", static_cast<long long>(v));
    } else {
        if (std::isnan(v)) { out += "nan"; return; }
        if (std::isinf(v)) { out += v > 0 ? "inf" : "-inf"; return; }
        std::snprintf(buf, sizeof buf, "%.*f", precision, static_cast<double>(v));
    }
    out += buf;
}

// Prints the block of `shape` starting at element `base` of p.
template <class T>
void print_block(std::string& out, const T* p, const Shape& shape, size_t axis, int precision) {
    size_t nd = shape.size();
    out += "[\n";
    if (nd - axis <= 2) {
        int64_t rows = nd - axis == 2 ? shape[axis] : 1;
        int64_t cols = nd - axis >= 1 ? shape[nd - 1] : 1;
        for (int64_t r = 0; r < rows; ++r) {
            for (int64_t c = 0; c < cols; ++c) {
                if (c) out += ", ";
                append_value(out, p[r * cols + c], precision);
            }
            if (cols) out += "\n";
        }
    } else {
        int64_t inner = 1;
        for (size_t d = axis + 1; d < nd; ++d) inner *= shape[d];
        for (int64_t i = 0; i < shape[axis]; ++i) {
            if (i) out += ",\n";
            print_block(out, p + i * inner, shape, axis + 1, precision);
        }
        if (shape[axis]) out += "\n";
    }
    out += "]";
}

}  // namespace

std::string tensor_print(const Tensor& input, int precision) {
    if (precision < 0 || precision > 30)
        fail<ValueError>("tensor_print: precision must be between 0 and 30, got ", precision);
    std::string out;
    if (input.numel() == 0) return "[\n]";
    const Tensor t = input.to_host().contiguous();
    dispatch<TypeSet::WithComplex>(t.dtype(), "tensor_print", [&](auto tag) {
        using T = typename decltype(tag)::type;
        print_block(out, t.data<T>(), t.shape(), 0, precision);
    });
    return out;
}

}  // namespace moira
