// The CPU's kernel table (Note [The kernel table]); stand-in GPUs share it.
#include "kernels/table.hpp"

namespace moira {

void cpu::lanes(LaneOp op, const LanesPlan& plan) {
    switch (op) {
        case LaneOp::Sum:
        case LaneOp::Mean:
        case LaneOp::SumSquares: return sum_lanes(op, plan);
        case LaneOp::Max:
        case LaneOp::Min:
        case LaneOp::ArgMax:
        case LaneOp::ArgMin:
        case LaneOp::Median:
        case LaneOp::All:
        case LaneOp::Any: return extreme_lanes(op, plan);
        case LaneOp::Var:
        case LaneOp::Std: return moment_lanes(op, plan);
        case LaneOp::CumSum: return scan_lanes(op, plan);
        case LaneOp::LogSoftmax:
        case LaneOp::LogSoftmaxGrad: return softmax_lanes(op, plan);
        case LaneOp::Order: return order_lanes(op, plan);
    }
}

const Kernels kCpuKernels = {
    &cpu::copy, &cpu::fill, &cpu::binary, &cpu::unary, &cpu::where, &cpu::clamp, &cpu::gemm, &cpu::random, &cpu::lanes,
    &cpu::blocks, &cpu::mask, &cpu::region, &cpu::gate,
};

}  // namespace moira
