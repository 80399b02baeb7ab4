// The one summation engine of the reductions: sums of f(x) over the whole tensor or along one
// axis, seen as [outer, n, inner].
//
// Note [How reductions add]
// Along a contiguous run (a whole tensor, or an axis with inner == 1) values are added pairwise:
// leaves of up to kLeaf elements are summed in 16 independent lanes of the lane type L (the
// compiler turns them into vector adds), and leaves are combined pairwise in the accumulator
// type A. float32 inputs use float lanes and a double accumulator, so a sum of 16M float32
// values is as accurate as numpy's pairwise sum. Long runs are cut into fixed chunks of kChunk
// elements that threads sum independently; the chunk sums are then combined pairwise in a fixed
// order, so the result does not depend on the number of threads.
// Along a strided axis (inner > 1) each output keeps its own accumulator of type A and the n
// rows are added in order with contiguous inner loops; threads take blocks of outputs.
#pragma once

#include <algorithm>
#include <cstdint>
#include <vector>

#include "kernels/parallel.hpp"

namespace moira {

constexpr int64_t kLeaf = 256;
constexpr int64_t kChunk = int64_t(1) << 15;

// Pairwise sum of f(p[i]) for i in [0, n).
template <class L, class A, class T, class F>
A pairwise_sum(const T* p, int64_t n, const F& f) {
    if (n <= kLeaf) {
        L lane[16] = {};
        int64_t i = 0;
        for (; i + 16 <= n; i += 16)
            for (int j = 0; j < 16; ++j) lane[j] += f(p[i + j]);
        L rest = L(0);
        for (; i < n; ++i) rest += f(p[i]);
        for (int j = 0; j < 8; ++j) lane[j] += lane[j + 8];
        for (int j = 0; j < 4; ++j) lane[j] += lane[j + 4];
        return A(lane[0]) + A(lane[1]) + A(lane[2]) + A(lane[3]) + A(rest);
    }
    int64_t half = (n / 2 + 15) / 16 * 16;
    return pairwise_sum<L, A>(p, half, f) + pairwise_sum<L, A>(p + half, n - half, f);
}

// The sum of f(p[i]) over a contiguous run, threads taking fixed chunks.
template <class L, class A, class T, class F>
A contiguous_sum(const T* p, int64_t n, const F& f) {
    if (n <= kChunk) return pairwise_sum<L, A>(p, n, f);
    const int64_t chunks = (n + kChunk - 1) / kChunk;
    std::vector<A> partial(static_cast<size_t>(chunks));
    parallel_for(chunks, [&](int64_t lo, int64_t hi) {
        for (int64_t c = lo; c < hi; ++c) {
            int64_t start = c * kChunk;
            partial[c] = pairwise_sum<L, A>(p + start, std::min(kChunk, n - start), f);
        }
    }, 2);
    auto identity = [](A v) { return v; };
    return pairwise_sum<A, A>(partial.data(), chunks, identity);
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
            for (int64_t o = lo; o < hi; ++o) emit(o, pairwise_sum<L, A>(x + o * n, n, f));
        }, std::max<int64_t>(1, kParallelGrain / std::max<int64_t>(n, 1)));
        return;
    }
    constexpr int64_t W = 1024;  // outputs per task
    const int64_t blocks = (inner + W - 1) / W;
    const int64_t work_per_task = std::max<int64_t>(1, n * std::min(inner, W));
    parallel_for(outer * blocks, [&](int64_t lo, int64_t hi) {
        A acc[W];
        for (int64_t task = lo; task < hi; ++task) {
            const int64_t o = task / blocks;
            const int64_t j0 = (task % blocks) * W;
            const int64_t w = std::min(W, inner - j0);
            std::fill(acc, acc + w, A(0));
            const T* base = x + o * n * inner + j0;
            for (int64_t k = 0; k < n; ++k) {
                const T* row = base + k * inner;
                for (int64_t j = 0; j < w; ++j) acc[j] += A(f(row[j]));
            }
            for (int64_t j = 0; j < w; ++j) emit(o * inner + j0 + j, acc[j]);
        }
    }, std::max<int64_t>(1, kParallelGrain / work_per_task));
}

}  // namespace moira
