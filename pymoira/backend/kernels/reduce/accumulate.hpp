// The one summation engine of the reductions: sums of f(x) over the whole tensor or along one
// axis, seen as [outer, n, inner].
//
// Note [How reductions add]
// Along a contiguous run (a whole tensor, or an axis with inner == 1) values are summed in 16
// independent lanes of the lane type L (the compiler turns them into vector adds); every 8
// steps the lanes are flushed into 16 accumulators of type A. float32 inputs use float lanes
// and double accumulators: float speed, with a relative error near 1e-10 rather than float32's
// 1e-7. Long runs are cut into fixed chunks of kChunk elements that threads sum independently;
// the chunk sums are combined pairwise in a fixed order, so the result does not depend on the
// number of threads.
// Along a strided axis (inner > 1) the n rows are added in order with contiguous inner loops,
// in L for 8 rows at a time and then into one accumulator of type A per output; threads take
// blocks of outputs.
#pragma once

#include <algorithm>
#include <cstdint>
#include <vector>

#include "kernels/parallel.hpp"

namespace moira {

constexpr int64_t kChunk = int64_t(1) << 15;

// The sum of f(p[i]) for i in [0, n): 16 lanes of L flushed into A every 8 steps.
template <class L, class A, class T, class F>
A run_sum(const T* p, int64_t n, const F& f) {
    constexpr int64_t kBlock = 16 * 8;
    A acc[16] = {};
    int64_t i = 0;
    for (; i + kBlock <= n; i += kBlock) {
        L lane[16] = {};
        for (int64_t k = 0; k < kBlock; k += 16)
            for (int j = 0; j < 16; ++j) lane[j] += f(p[i + k + j]);
        for (int j = 0; j < 16; ++j) acc[j] += A(lane[j]);
    }
    A rest = A(0);
    for (; i < n; ++i) rest += A(f(p[i]));
    for (int j = 0; j < 8; ++j) acc[j] += acc[j + 8];
    for (int j = 0; j < 4; ++j) acc[j] += acc[j + 4];
    return (acc[0] + acc[1]) + (acc[2] + acc[3]) + rest;
}

// Pairwise sum of the n values at p.
template <class A>
A pairwise(const A* p, int64_t n) {
    if (n <= 8) {
        A s = A(0);
        for (int64_t i = 0; i < n; ++i) s += p[i];
        return s;
    }
    return pairwise(p, n / 2) + pairwise(p + n / 2, n - n / 2);
}

// The sum of f(p[i]) over a contiguous run, threads taking fixed chunks.
template <class L, class A, class T, class F>
A contiguous_sum(const T* p, int64_t n, const F& f) {
    if (n <= kChunk) return run_sum<L, A>(p, n, f);
    const int64_t chunks = (n + kChunk - 1) / kChunk;
    std::vector<A> partial(static_cast<size_t>(chunks));
    parallel_for(chunks, [&](int64_t lo, int64_t hi) {
        for (int64_t c = lo; c < hi; ++c) {
            int64_t start = c * kChunk;
            partial[c] = run_sum<L, A>(p + start, std::min(kChunk, n - start), f);
        }
    }, 2);
    return pairwise(partial.data(), chunks);
}

// emit(o * inner + j, sum over k of f(x[(o * n + k) * inner + j])) for every o < outer, j < inner.
template <class L, class A, class T, class F, class Emit>
void reduce_sum(const T* x, int64_t outer, int64_t n, int64_t inner, const F& f, const Emit& emit) {
    if (outer * inner == 0) return;
    if (inner == 1) {
        if (outer == 1) {
            emit(0, contiguous_sum<L, A>(x, n, f));
            return;
        }
        parallel_for(outer, [&](int64_t lo, int64_t hi) {
            for (int64_t o = lo; o < hi; ++o) emit(o, contiguous_sum<L, A>(x + o * n, n, f));
        }, std::max<int64_t>(1, kParallelGrain / std::max<int64_t>(n, 1)));
        return;
    }
    // Outputs per task: wide rows stream best, but every thread should get a task.
    int64_t W = std::min<int64_t>(inner, 8192);
    const int64_t threads = parallel_threads();
    if (outer < threads && n * inner >= 2 * kParallelGrain)
        W = std::max<int64_t>(256, std::min(W, (inner + threads - 1) / threads));
    W = (W + 15) / 16 * 16;
    constexpr int64_t kRows = 8;  // rows added in L before a flush into A
    const int64_t blocks = (inner + W - 1) / W;
    const int64_t work_per_task = std::max<int64_t>(1, n * std::min(inner, W));
    parallel_for(outer * blocks, [&](int64_t lo, int64_t hi) {
        std::vector<A> acc_buf(static_cast<size_t>(W));
        std::vector<L> part_buf(static_cast<size_t>(W));
        A* acc = acc_buf.data();
        L* part = part_buf.data();
        for (int64_t task = lo; task < hi; ++task) {
            const int64_t o = task / blocks;
            const int64_t j0 = (task % blocks) * W;
            const int64_t w = std::min(W, inner - j0);
            std::fill(acc, acc + w, A(0));
            const T* base = x + o * n * inner + j0;
            for (int64_t k0 = 0; k0 < n; k0 += kRows) {
                const int64_t k1 = std::min(n, k0 + kRows);
                const T* first = base + k0 * inner;
                for (int64_t j = 0; j < w; ++j) part[j] = f(first[j]);
                for (int64_t k = k0 + 1; k < k1; ++k) {
                    const T* row = base + k * inner;
                    for (int64_t j = 0; j < w; ++j) part[j] += f(row[j]);
                }
                for (int64_t j = 0; j < w; ++j) acc[j] += A(part[j]);
            }
            for (int64_t j = 0; j < w; ++j) emit(o * inner + j0 + j, acc[j]);
        }
    }, std::max<int64_t>(1, kParallelGrain / work_per_task));
}

}  // namespace moira
