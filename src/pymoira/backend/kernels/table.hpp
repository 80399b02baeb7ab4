// The primitive-kernel table: what every device kind implements.
//
// Note [The kernel table]
// An operation (moira::add, clone, matmul, fill_rand_normal_, ...) validates its arguments,
// promotes types, allocates its result and plans the work as plain data in kernels/<family>/;
// then it makes one call of an entry of its device's table (Note [Devices]) with raw device
// addresses and that plan. The entries are primitives, not public operations: a strided walk
// of N operands, a fill, a product batch, a piece of the random stream. The CPU's entries are
// the loops of each family's file (walker, OpenMP, multiversioned code), collected in
// table_cpu.cpp; stand-in GPUs use the CPU's table; a CUDA table fills the same slots with
// launches of the kernels under backend/cuda/. Nothing outside an entry dereferences a device
// address (Note [Host access]).
//
// Adding a device kind: an Allocator, a Kernels value with every slot filled, and a registry
// row (core/device.cpp). Adding a primitive: a slot here, its plan, and an entry per kind (the
// static_assert below counts the slots).
#pragma once

#include <array>
#include <cstdint>

#include "core/dtype.hpp"
#include "core/scalar.hpp"
#include "core/shape.hpp"
#include "core/tensor.hpp"
#include "kernels/elementwise/elementwise.hpp"
#include "kernels/iter/axis_lanes.hpp"
#include "kernels/linalg/gate.hpp"
#include "kernels/linalg/gemm.hpp"

namespace moira {

// N strided operands walked over one shape; operand 0 is the output (Note [Walking strided
// operands]). `flat[k]`: operand k is laid out as the output, contiguous, every element once;
// `single[k]`: operand k is one element repeated. When every operand is flat or single the plan
// is `one_axis`: one axis of numel elements (strides 1 or 0) whatever the shape, and `shape` and
// `strides` stay empty, so small operations build no per-axis data; walker() serves both forms.
template <int N>
struct WalkPlan {
    int64_t numel = 0;
    std::array<void*, N> data{};
    std::array<bool, N> flat{};
    std::array<bool, N> single{};
    bool one_axis = false;
    Shape shape;                   // the output's shape (not one_axis)
    std::array<Shape, N> strides;  // per operand, 0 where it repeats (not one_axis)

    StridedWalker<N> walker() const {
        if (!one_axis) return StridedWalker<N>(shape, strides);
        std::array<Shape, N> steps;
        for (int k = 0; k < N; ++k) steps[static_cast<size_t>(k)] = Shape{flat[static_cast<size_t>(k)] ? 1 : 0};
        return StridedWalker<N>(Shape{numel}, steps);
    }
};

// The plan of out <- f(operands...), operands broadcast to out's shape.
template <int N>
WalkPlan<N> plan_walk(const Tensor& out, const std::array<const Tensor*, N - 1>& in) {
    WalkPlan<N> p;
    p.numel = out.numel();
    p.data[0] = out.raw_mem();
    p.flat[0] = out.is_contiguous();
    p.single[0] = p.numel == 1;
    bool one_axis = p.flat[0];
    for (int k = 1; k < N; ++k) {
        const Tensor& t = *in[static_cast<size_t>(k - 1)];
        const size_t at = static_cast<size_t>(k);
        p.data[at] = t.raw_mem();
        p.flat[at] = p.flat[0] && t.is_contiguous() && t.numel() == p.numel;
        p.single[at] = t.numel() == 1;
        one_axis = one_axis && (p.flat[at] || p.single[at]);
    }
    if (one_axis) {
        p.one_axis = true;
        return p;
    }
    p.shape = out.shape();
    p.strides[0] = out.strides();
    for (int k = 1; k < N; ++k) {
        const Tensor& t = *in[static_cast<size_t>(k - 1)];
        Shape s(p.shape.size(), 0);
        const size_t lead = p.shape.size() - t.shape().size();
        for (size_t d = 0; d < t.shape().size(); ++d) s[lead + d] = t.shape()[d] == 1 ? 0 : t.strides()[d];
        p.strides[static_cast<size_t>(k)] = std::move(s);
    }
    return p;
}

// A batch of C = op(A) op(B) on row-major matrices of one element type: the product call of
// gemm.hpp with untyped addresses.
struct GemmPlan {
    DType type;
    GemmCall<void> call;
};

// A small matrix applied along axes of a tensor (Note [Applying a gate] in linalg/gate.cpp). Apply:
// for every position of the walk (operand 0 out, 1 x, 2 the matrix of the position's batch entry),
// out[out_offsets[z]] = sum_b M(z, b) x[x_offsets[b]], with M(z, b) at z * m_row + b * m_col from
// the matrix, conjugated when `conj`. Outer (the matrix's gradient): operand 0 is the gradient g of
// such an out, and dM(z, b) = sum of g[out_offsets[z]] conj(x[x_offsets[b]]) over the positions of
// each batch entry, dM contiguous ([entries,] rows, cols) at operand 2.
enum class GateOp : int { Apply, Outer };
struct GatePlan {
    DType type;
    WalkPlan<3> walk;
    int64_t rows = 0, cols = 0, entries = 1;
    std::array<int64_t, kMaxGateSide> x_offsets{}, out_offsets{};
    int64_t m_row = 0, m_col = 0;
    bool conj = false;
};

// A piece of the random stream written into n elements (Note [Random streams]): blocks from
// `first` on under `key`, so every device draws the same values.
enum class RandomDraw : int { Uniform, Normal, NormalFast, Binary };
struct RandomPlan {
    RandomDraw draw;
    DType type;
    void* data;
    int64_t n;
    uint64_t key, first;
    double a, b;  // low/high, mean/stddev, or the threshold (a)
};

// Operations along the lanes of an axis (Note [Walking lanes along an axis]): reductions write one
// element per lane, scans, softmax and orderings a lane per lane.
enum class LaneOp : int {
    Sum, Mean, SumSquares,        // sums of x, x / n, x * x (float32 adds in double)
    Max, Min, ArgMax, ArgMin,     // the first of equal extremes wins; NaN is the extreme
    Median, Var, Std,             // `ddof` for var and std
    All, Any,                     // out: one bool per lane
    CumSum,                       // out has the input's shape
    LogSoftmax, LogSoftmaxGrad,   // aux: the forward result (grad)
    Order,                        // sort, argsort, topK, argtopK: `k` of each lane, `descending`,
                                  // positions (int64) or values
};
struct LanesPlan {
    AxisLanes lanes;  // counts and steps, and the walk over the lanes (plain data)
    DType in_type, out_type;
    const void* in = nullptr;
    void* out = nullptr;
    const void* aux = nullptr;
    int64_t k = 0;
    int64_t ddof = 0;
    bool descending = false;
    bool positions = false;
};

// Blocks of k elements moved by block number (Note [Gathering and scattering by index
// tensors]): gather dst[p] <- src block blocks[p]; scatter dst block blocks[p] <- src[p] in
// order of p; index_add adds instead. `blocks` and a mask's flags are host memory (plans are
// host data; a device kind that cannot read host memory copies them over).
enum class BlockOp : int { Gather, Scatter, IndexAdd };
struct BlockPlan {
    DType type;
    void* dst;
    const void* src;
    const int64_t* blocks;
    int64_t n, k;
    int64_t dst_blocks;  // blocks of k elements in dst (scatter, index_add)
};
// Masks over n elements: compact dst[j] <- src[i] for the j-th set flag i (dst holds count + 1
// elements); expand dst[i] <- src[j] for the j-th set flag i, or src[0] for every one.
enum class MaskOp : int { Compact, Expand, ExpandOne };
struct MaskPlan {
    DType type;
    void* dst;
    const void* src;
    const bool* flags;
    int64_t n;
};

// Rows of an addressed region (Note [Walking an addressed region]); the walk is host data. Read:
// region row r <- the block at its offset in src; Write: the block at row r's offset in dst <-
// row r of src; Add: the same, added. `ordered`: rows in order on one thread (repeated rows).
class RegionWalk;
enum class RegionOp : int { Read, Write, Add };
struct RegionPlan {
    DType type;
    void* dst;
    const void* src;
    const RegionWalk* walk;
    bool ordered;
};

struct Kernels {
    // dst <- src converted, over dst's shape (operand 0 dst, 1 src).
    void (*copy)(DType dst, DType src, const WalkPlan<2>& plan);
    // n contiguous elements <- value.
    void (*fill)(DType type, void* data, int64_t n, Scalar value);
    // out <- f(a, b) computed in `type` (the operands are of that type).
    void (*binary)(BinaryOp op, DType type, const WalkPlan<3>& plan);
    // out <- f(a) computed in `type`.
    void (*unary)(UnaryOp op, DType type, const WalkPlan<2>& plan);
    // out <- cond ? a : b (operands out, cond as bool, a, b of `type`).
    void (*where)(DType type, const WalkPlan<4>& plan);
    // out <- a limited to [lo, hi], NaN kept.
    void (*clamp)(DType type, Scalar lo, Scalar hi, const WalkPlan<2>& plan);
    void (*gemm)(const GemmPlan& plan);
    void (*random)(const RandomPlan& plan);
    void (*lanes)(LaneOp op, const LanesPlan& plan);
    void (*blocks)(BlockOp op, const BlockPlan& plan);
    void (*mask)(MaskOp op, const MaskPlan& plan);
    void (*region)(RegionOp op, const RegionPlan& plan);
    void (*gate)(GateOp op, const GatePlan& plan);
};
static_assert(sizeof(Kernels) == 13 * sizeof(void (*)()), "a slot was added: give every device kind its entry");

// The CPU's table (table_cpu.cpp), which stand-in GPUs share.
MOIRA_API extern const Kernels kCpuKernels;

// The table of the device `t` lives on (the CPU's without a lookup).
inline const Kernels& kernels_of(const Tensor& t) {
    return t.device() == kCPU ? kCpuKernels : *device(t.device()).kernels;
}

// The CPU's entries (each family's file defines its own).
namespace cpu {
void copy(DType dst, DType src, const WalkPlan<2>& plan);
void fill(DType type, void* data, int64_t n, Scalar value);
void binary(BinaryOp op, DType type, const WalkPlan<3>& plan);
void unary(UnaryOp op, DType type, const WalkPlan<2>& plan);
void where(DType type, const WalkPlan<4>& plan);
void clamp(DType type, Scalar lo, Scalar hi, const WalkPlan<2>& plan);
void gemm(const GemmPlan& plan);
void random(const RandomPlan& plan);
void lanes(LaneOp op, const LanesPlan& plan);
void blocks(BlockOp op, const BlockPlan& plan);
void mask(MaskOp op, const MaskPlan& plan);
void region(RegionOp op, const RegionPlan& plan);
void gate(GateOp op, const GatePlan& plan);
// The families' parts of cpu::lanes.
void sum_lanes(LaneOp op, const LanesPlan& plan);
void extreme_lanes(LaneOp op, const LanesPlan& plan);
void moment_lanes(LaneOp op, const LanesPlan& plan);
void scan_lanes(LaneOp op, const LanesPlan& plan);
void softmax_lanes(LaneOp op, const LanesPlan& plan);
void order_lanes(LaneOp op, const LanesPlan& plan);
}  // namespace cpu

}  // namespace moira
