// Shape arithmetic shared by every kernel.
#include "core/shape.hpp"

#include <algorithm>
#include <limits>

#include "core/errors.hpp"

namespace moira {

void fail_overflow(const char* what) {
    fail<OverflowError>(what, " is too large: the size it gives overflows a 64-bit integer");
}

// Note [Extents of empty shapes]
// The extents other than 0 obey the element limit even when some extent is 0: contiguous strides
// are products of trailing extents, and [0, 2**62, 2**62] would give a stride of 2**124 (numpy
// refuses such shapes too). So every stride of a contiguous layout fits well inside int64.
int64_t checked_numel(const Shape& shape) {
    if (shape.size() > kMaxDims)
        fail<ValueError>("a tensor has at most ", kMaxDims, " axes, got a shape with ", shape.size());
    constexpr int64_t kLimit = int64_t(1) << 48;
    int64_t n = 1;  // the product of the extents other than 0
    bool empty = false;
    for (int64_t e : shape) {
        if (e < 0) fail<ValueError>("negative dimension ", e, " in shape ", shape_str(shape));
        if (e == 0) {
            empty = true;
            continue;
        }
        if (n > kLimit / e) {
            // A product past int64 before any 0 keeps the message it always had.
            const bool zero_later = !empty && std::find(shape.begin(), shape.end(), 0) != shape.end();
            if (empty || (zero_later && n <= std::numeric_limits<int64_t>::max() / e))
                fail<ValueError>("shape ", shape_str(shape), " is too large: its extents other than 0 multiply to more than ",
                                 kLimit, " positions");
            fail<ValueError>("shape ", shape_str(shape), " has too many elements");
        }
        n *= e;
    }
    return empty ? 0 : n;
}

Shape contiguous_strides(const Shape& shape) {
    Shape strides(shape.size());
    int64_t s = 1;
    for (size_t k = shape.size(); k-- > 0;) {
        strides[k] = s;
        s *= shape[k];
    }
    return strides;
}

bool reshape_strides(const Shape& shape, const Shape& strides, const Shape& target, Shape& out) {
    out.assign(target.size(), 0);
    if (numel(shape) == 0) {
        out = contiguous_strides(target);
        return true;
    }
    // The axes of length other than 1: length-1 axes carry no stride information.
    Shape os, ost;
    for (size_t d = 0; d < shape.size(); ++d)
        if (shape[d] != 1) {
            os.push_back(shape[d]);
            ost.push_back(strides[d]);
        }
    size_t oi = 0, ni = 0;
    const size_t on = os.size(), nn = target.size();
    while (ni < nn) {
        if (target[ni] == 1) {  // any stride reads the one position
            out[ni] = oi < on ? ost[oi] * os[oi] : 1;
            ++ni;
            continue;
        }
        // The smallest groups of old and new axes with equal element counts.
        size_t oj = oi + 1, nj = ni + 1;
        int64_t op = os[oi], np = target[ni];
        while (op != np) {
            if (op < np) op *= os[oj++];
            else np *= target[nj++];
        }
        for (size_t k = oi; k + 1 < oj; ++k)
            if (ost[k] != ost[k + 1] * os[k + 1]) return false;
        out[nj - 1] = ost[oj - 1];
        for (size_t k = nj - 1; k > ni; --k) out[k - 1] = out[k] * target[k];
        oi = oj;
        ni = nj;
    }
    return true;
}

std::string shape_str(const Shape& shape) {
    std::string s = "[";
    for (size_t k = 0; k < shape.size(); ++k) {
        if (k) s += ", ";
        s += std::to_string(shape[k]);
    }
    return s + "]";
}

Shape broadcast_shapes(const Shape& a, const Shape& b) {
    size_t n = std::max(a.size(), b.size());
    Shape out(n);
    for (size_t k = 0; k < n; ++k) {
        int64_t ea = k < n - a.size() ? 1 : a[k - (n - a.size())];
        int64_t eb = k < n - b.size() ? 1 : b[k - (n - b.size())];
        if (ea != eb && ea != 1 && eb != 1)
            fail<ValueError>("shapes ", shape_str(a), " and ", shape_str(b), " cannot be broadcast together");
        out[k] = ea == 1 ? eb : ea;
    }
    return out;
}

Shape resolve_reshape(const Shape& requested, int64_t count, const char* op) {
    Shape out = requested;
    int infer = -1;
    int64_t known = 1;
    bool huge = false;
    for (size_t k = 0; k < out.size(); ++k) {
        if (out[k] == -1) {
            if (infer >= 0) fail<ValueError>(op, ": only one dimension can be -1, got ", shape_str(requested));
            infer = static_cast<int>(k);
        } else if (out[k] < 0) {
            fail<ValueError>(op, ": negative dimension ", out[k], " in shape ", shape_str(requested));
        } else if (!huge && __builtin_mul_overflow(known, out[k], &known)) {
            huge = true;  // far more than any count (checked_numel below names the shape)
        }
    }
    if (infer >= 0) {
        if (huge || known == 0 || count % known != 0)
            fail<ValueError>(op, ": cannot reshape ", count, " elements into shape ", shape_str(requested));
        out[infer] = count / known;
    }
    if (checked_numel(out) != count)
        fail<ValueError>(op, ": cannot reshape ", count, " elements into shape ", shape_str(requested));
    return out;
}

int64_t wrap_axis(int64_t axis, int64_t ndim, const char* op) {
    int64_t n = ndim > 0 ? ndim : 1;
    if (axis < -n || axis >= n)
        fail<IndexError>(op, ": axis ", axis, " is out of range for a tensor with ", ndim, " axes");
    return axis < 0 ? axis + n : axis;
}

}  // namespace moira
