// The one-pass gate kernel: checks and plan (apply_matrix) and the CPU's entry.
//
// Note [Applying a gate]
// A gate on q axes of a state is a small matrix M (rows x cols, cols = the product of the axes'
// lengths) applied to every fibre along those axes. The plan walks the positions of the other
// axes with the element-wise walker (operands: out, x and M's batch entry, whose stride is
// non-zero along the batch axis only) and keeps, for the cols combinations of the gate axes, the
// offsets in x and, for the rows, those in out. At each position the kernel loads the cols
// values, multiplies by M (kept in registers while the batch entry does not change) and stores
// the rows results: each amplitude is read and written once, so the cost is that of a copy of
// the state. The positions split over threads as any element-wise walk does.
#include "kernels/linalg/gate.hpp"

#include <algorithm>
#include <array>
#include <vector>

#include "core/errors.hpp"
#include "kernels/creation.hpp"
#include "kernels/elementwise/functors.hpp"
#include "kernels/reduce/accumulate.hpp"
#include "kernels/table.hpp"

namespace moira {

namespace {

// R x C (template sizes for the common gates, so the loops unroll and M stays in registers; 0:
// the plan's sizes at run time).
template <class T, int RS, int CS>
void apply_plan(const GatePlan& p) {
    using fn::times;
    const int64_t R = RS ? RS : p.rows, C = CS ? CS : p.cols;
    T* out = static_cast<T*>(p.walk.data[0]);
    const T* x = static_cast<const T*>(p.walk.data[1]);
    const T* m = static_cast<const T*>(p.walk.data[2]);
    auto load = [&](int64_t off, T* mat) {
        for (int64_t z = 0; z < R; ++z)
            for (int64_t b = 0; b < C; ++b) {
                const T v = m[off + z * p.m_row + b * p.m_col];
                mat[z * C + b] = p.conj ? fn::conj_of(v) : v;
            }
    };
    const StridedWalker<3> walk = p.walk.walker();
    walk.run([&](const std::array<int64_t, 3>& off, int64_t len, const std::array<int64_t, 3>& st) {
        std::array<T, kMaxGateSide * kMaxGateSide> mat;
        std::array<T, kMaxGateSide> v;
        std::array<int64_t, kMaxGateSide> xo, oo;
        for (int64_t b = 0; b < C; ++b) xo[b] = p.x_offsets[b];
        for (int64_t z = 0; z < R; ++z) oo[z] = p.out_offsets[z];
        load(off[2], mat.data());
        const T* xj = x + off[1];
        T* oj = out + off[0];
        for (int64_t j = 0; j < len; ++j, xj += st[1], oj += st[0]) {
            if (st[2] != 0 && j > 0) load(off[2] + j * st[2], mat.data());
            for (int64_t b = 0; b < C; ++b) v[b] = xj[xo[b]];
            for (int64_t z = 0; z < R; ++z) {
                T sum = times(mat[z * C], v[0]);
                for (int64_t b = 1; b < C; ++b) sum += times(mat[z * C + b], v[b]);
                oj[oo[z]] = sum;
            }
        }
    }, std::max<int64_t>(1, kParallelGrain / (R * C)));
}

// dM from g and x: each fixed chunk of the walk sums into a block of its own (in the wider
// accumulation type), the blocks add in chunk order.
template <class T, int RS, int CS>
void outer_plan(const GatePlan& p) {
    using fn::times;
    using A = typename SumTypes<T>::A;
    constexpr int64_t kChunk = int64_t(1) << 14;
    const int64_t R = RS ? RS : p.rows, C = CS ? CS : p.cols;
    const T* g = static_cast<const T*>(p.walk.data[0]);
    const T* x = static_cast<const T*>(p.walk.data[1]);
    T* dm = static_cast<T*>(p.walk.data[2]);
    const StridedWalker<3> walk = p.walk.walker();
    const int64_t total = walk.size(), chunks = (total + kChunk - 1) / kChunk, block = p.entries * R * C;
    std::vector<A> partial(static_cast<size_t>(chunks * block), A(0));
    parallel_for(chunks, [&](int64_t lo, int64_t hi) {
        for (int64_t c = lo; c < hi; ++c) {
            A* acc = partial.data() + c * block;
            walk.run_range(c * kChunk, std::min(total, (c + 1) * kChunk),
                           [&](const std::array<int64_t, 3>& off, int64_t len, const std::array<int64_t, 3>& st) {
                std::array<T, kMaxGateSide> v;
                for (int64_t j = 0; j < len; ++j) {
                    const T* gj = g + off[0] + j * st[0];
                    const T* xj = x + off[1] + j * st[1];
                    A* a = acc + off[2] + j * st[2];
                    for (int64_t b = 0; b < C; ++b) v[b] = fn::conj_of(xj[p.x_offsets[b]]);
                    for (int64_t z = 0; z < R; ++z) {
                        const T gz = gj[p.out_offsets[z]];
                        for (int64_t b = 0; b < C; ++b) a[z * C + b] += A(times(gz, v[b]));
                    }
                }
            });
        }
    }, 1);
    for (int64_t e = 0; e < block; ++e) {
        A sum(0);
        for (int64_t c = 0; c < chunks; ++c) sum += partial[static_cast<size_t>(c * block + e)];
        dm[e] = T(sum);
    }
}

// The offsets of the combined index of `axes` (row-major over them), with those axes' strides.
void combined_offsets(const Shape& shape, const Shape& strides, const std::vector<int64_t>& axes,
                      std::array<int64_t, kMaxGateSide>& out) {
    int64_t n = 1;
    out[0] = 0;
    for (int64_t a : axes) {
        const int64_t len = shape[a], step = strides[a];
        for (int64_t i = n * len - 1; i >= 0; --i) out[i] = out[i / len] + (i % len) * step;
        n *= len;
    }
}

// A plan over the positions of the axes other than `axes` (those given length 1): operand 0
// `first` (shaped as apply_matrix's result), 1 x, 2 `third`, which steps by `third_step` along the
// batch axis only.
GatePlan plan_over_rest(DType t, int64_t rows, int64_t cols, const Tensor& first, const Tensor& x, void* third,
                        const std::vector<int64_t>& axes, int64_t batch_axis, int64_t third_step) {
    GatePlan p;
    p.type = t;
    p.rows = rows;
    p.cols = cols;
    combined_offsets(x.shape(), x.strides(), axes, p.x_offsets);
    combined_offsets(first.shape(), first.strides(), axes, p.out_offsets);
    Shape rest = first.shape();
    for (int64_t a : axes) rest[a] = 1;
    p.walk.numel = numel(rest);
    p.walk.data = {first.raw_mem(), x.raw_mem(), third};
    p.walk.shape = rest;
    p.walk.strides[0] = first.strides();
    p.walk.strides[1] = x.strides();
    p.walk.strides[2] = Shape(rest.size(), 0);
    if (batch_axis >= 0) p.walk.strides[2][static_cast<size_t>(batch_axis)] = third_step;
    return p;
}

}  // namespace

void cpu::gate(GateOp op, const GatePlan& p) {
    dispatch<TypeSet::Inexact>(p.type, "apply_matrix", [&](auto tag) {
        using T = typename decltype(tag)::type;
        if (op == GateOp::Outer) {
            if (p.rows == 2 && p.cols == 2) outer_plan<T, 2, 2>(p);
            else outer_plan<T, 0, 0>(p);
        } else if (p.rows == 2 && p.cols == 2) {
            apply_plan<T, 2, 2>(p);
        } else if (p.rows == 4 && p.cols == 4) {
            apply_plan<T, 4, 4>(p);
        } else {
            apply_plan<T, 0, 0>(p);
        }
    });
}

Tensor apply_matrix(const Tensor& m, const Tensor& x, const std::vector<int64_t>& axes_in, int64_t batch_axis,
                    bool adjoint) {
    const char* op = "apply_matrix";
    device_of(m, x, op);
    const int64_t nd = x.ndim();
    std::vector<int64_t> axes;
    for (int64_t a : axes_in) {
        if (a < -nd || a >= nd) fail<ValueError>(op, ": axis ", a, " is out of range for a tensor of ", nd, " axes");
        const int64_t w = a < 0 ? a + nd : a;
        if (std::find(axes.begin(), axes.end(), w) != axes.end()) fail<ValueError>(op, ": axis ", a, " is repeated");
        axes.push_back(w);
    }
    if (axes.empty()) fail<ValueError>(op, ": no axis to apply the matrix along");
    const bool batched = batch_axis != -1;
    if (batched) {
        if (batch_axis < 0 || batch_axis >= nd) fail<ValueError>(op, ": batch axis ", batch_axis, " is out of range");
        if (std::find(axes.begin(), axes.end(), batch_axis) != axes.end())
            fail<ValueError>(op, ": the batch axis ", batch_axis, " is also a gate axis");
    }
    if (m.ndim() != (batched ? 3 : 2))
        fail<ValueError>(op, ": expected a ", batched ? "[K, rows, cols]" : "[rows, cols]", " matrix, got shape ",
                         shape_str(m.shape()));
    const int64_t mr = m.shape()[m.ndim() - 2], mc = m.shape()[m.ndim() - 1];
    const int64_t rows = adjoint ? mc : mr, cols = adjoint ? mr : mc;
    int64_t fibre = 1;
    for (int64_t a : axes) fibre *= x.shape()[a];
    if (cols != fibre)
        fail<ValueError>(op, ": a matrix of shape ", shape_str(m.shape()), adjoint ? " (adjoint)" : "",
                         " does not fit axes of ", fibre, " elements together");
    if (rows > kMaxGateSide || cols > kMaxGateSide || rows == 0 || cols == 0)
        fail<ValueError>(op, ": matrix sides must be 1 to ", kMaxGateSide, ", got ", rows, " x ", cols);
    if (axes.size() > 1 && rows != cols)
        fail<ValueError>(op, ": a matrix along several axes must be square, got ", rows, " x ", cols);
    if (batched && m.shape()[0] != x.shape()[batch_axis])
        fail<ValueError>(op, ": ", m.shape()[0], " matrices for a batch axis of length ", x.shape()[batch_axis]);
    const DType t = promote(m.dtype(), x.dtype());
    dispatch<TypeSet::Inexact>(t, op, [](auto) {});
    const Tensor M = m.dtype() == t ? m : m.to(t);
    const Tensor X = x.dtype() == t ? x : x.to(t);
    Shape oshape = X.shape();
    if (axes.size() == 1) oshape[axes[0]] = rows;
    Tensor out(t, oshape, X.device());
    if (out.numel() == 0) return out;

    GatePlan p = plan_over_rest(t, rows, cols, out, X, M.raw_mem(), axes, batch_axis, batched ? M.strides()[0] : 0);
    const int64_t rs = M.strides()[M.ndim() - 2], cs = M.strides()[M.ndim() - 1];
    p.m_row = adjoint ? cs : rs;
    p.m_col = adjoint ? rs : cs;
    p.conj = adjoint && is_complex(t);
    kernels_of(out).gate(GateOp::Apply, p);
    return out;
}

Tensor gate_outer(const Tensor& g, const Tensor& x, const std::vector<int64_t>& axes, int64_t batch_axis) {
    device_of(g, x, "gate_outer");
    const int64_t nd = x.ndim();
    if (g.ndim() != nd || axes.empty() || batch_axis < -1 || batch_axis >= nd)
        fail<ValueError>("gate_outer: the gradient and the tensor must have alike axes");
    int64_t rows = 1, cols = 1;
    for (int64_t a : axes) {
        if (a < 0 || a >= nd) fail<ValueError>("gate_outer: axis ", a, " is out of range");
        rows *= g.shape()[a];
        cols *= x.shape()[a];
    }
    if (rows > kMaxGateSide || cols > kMaxGateSide) fail<ValueError>("gate_outer: the matrix is larger than 16 x 16");
    for (int64_t d = 0; d < nd; ++d)
        if (std::find(axes.begin(), axes.end(), d) == axes.end() && g.shape()[d] != x.shape()[d])
            fail<ValueError>("gate_outer: the gradient of shape ", shape_str(g.shape()), " does not match ",
                             shape_str(x.shape()));
    const DType t = promote(g.dtype(), x.dtype());
    dispatch<TypeSet::Inexact>(t, "gate_outer", [](auto) {});
    const Tensor G = g.dtype() == t ? g : g.to(t);
    const Tensor X = x.dtype() == t ? x : x.to(t);
    const int64_t entries = batch_axis >= 0 ? x.shape()[batch_axis] : 1;
    Tensor dm(t, batch_axis >= 0 ? Shape{entries, rows, cols} : Shape{rows, cols}, x.device());
    GatePlan p = plan_over_rest(t, rows, cols, G, X, dm.raw_mem(), axes, batch_axis, rows * cols);
    p.entries = entries;
    if (p.walk.numel == 0 || dm.numel() == 0) {
        fill_(dm, Scalar::from_int(0));
        return dm;
    }
    kernels_of(dm).gate(GateOp::Outer, p);
    return dm;
}

}  // namespace moira
