// The summation combine of the reductions: sums of f(x) along the lanes of an AxisLanes walk.
//
// Note [How reductions add]
// Down a contiguous lane values are summed in 16 independent lanes of the lane type L (the
// compiler turns them into vector adds); every 8 steps the lanes are flushed into 16
// accumulators of type A. float32 inputs use float lanes and double accumulators: float speed,
// with a relative error near 1e-10 rather than float32's 1e-7. Long lanes (a whole tensor) are
// cut into fixed chunks of kChunk elements that threads sum independently; the chunk sums are
// combined pairwise in a fixed order, so the result does not depend on the number of threads.
// Across adjacent lanes (a strided axis) the axis is walked once, adding a row of up to
// kLaneBlock lanes per step (add_rows): 8 rows in L (kept in registers, a strip of lanes at a
// time), then into one accumulator of type A per lane. Any other lane (strided, or its elements
// listed) is summed in order in one accumulator of type A.
//
// Gradients that add several values into one element add the same way, so they keep float32's
// sums in double and do not depend on the thread count either: a broadcast or tiled gradient
// folded back is a sum of a strided view over its copy axes (Note [Folding a gradient] in
// fold.cpp), and index_add_ (the gradient of a gather) sums the rows of a repeated position in
// order, as a listed lane.
#pragma once

#include <algorithm>
#include <cstdint>
#include <vector>

#include "kernels/iter/axis_lanes.hpp"
#include "kernels/parallel.hpp"

namespace moira {

constexpr int64_t kChunk = int64_t(1) << 15;
constexpr int64_t kLaneBlock = 1024;

// The lane type L and accumulator type A of a sum of T (a bool sum counts in int64).
template <class T> struct SumTypes { using L = T; using A = T; };
template <> struct SumTypes<bool> { using L = int64_t; using A = int64_t; };
template <> struct SumTypes<float> { using L = float; using A = double; };
template <> struct SumTypes<complex64> { using L = complex64; using A = complex128; };

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

// Rows added in L before their partial sum is flushed into A, across adjacent lanes.
constexpr int64_t kFlushRows = 8;

// acc[j] += the sum of f(row(k)[j]) over the rows k in [0, n), for j in [0, w): kFlushRows rows
// at a time in L, a strip of kStrip lanes held in registers, each batch's partial sum then
// flushed into acc. row(k) gives the address of row k's first lane.
template <class L, class A, class F, class Row>
void add_rows(const Row& row, int64_t n, int64_t w, A* acc, const F& f) {
    constexpr int64_t kStrip = 16;
    for (int64_t k0 = 0; k0 < n; k0 += kFlushRows) {
        const int64_t k1 = std::min(n, k0 + kFlushRows);
        const auto* first = row(k0);
        int64_t j = 0;
        for (; j + kStrip <= w; j += kStrip) {
            L part[kStrip];
            for (int64_t i = 0; i < kStrip; ++i) part[i] = f(first[j + i]);
            for (int64_t k = k0 + 1; k < k1; ++k) {
                const auto* r = row(k) + j;
                for (int64_t i = 0; i < kStrip; ++i) part[i] += f(r[i]);
            }
            for (int64_t i = 0; i < kStrip; ++i) acc[j + i] += A(part[i]);
        }
        for (; j < w; ++j) {
            L part = f(first[j]);
            for (int64_t k = k0 + 1; k < k1; ++k) part += f(row(k)[j]);
            acc[j] += A(part);
        }
    }
}

// out[lane] = finish(sum over the lane of f(x)) for every lane of `lanes` (a reduction walk).
template <class L, class A, class T, class O, class F, class Finish>
void reduce_sum(const AxisLanes& lanes, const T* in, O* out, const F& f, const Finish& finish) {
    const int64_t n = lanes.n, step = lanes.in_axis_step;
    auto block = [&](const T* x, int64_t xs, O* o, int64_t os, int64_t count) {
        if (step == 1 || n <= 1) {
            for (int64_t j = 0; j < count; ++j) o[j * os] = finish(contiguous_sum<L, A>(x + j * xs, n, f));
        } else if (xs == 1) {
            A acc[kLaneBlock];
            for (int64_t j0 = 0; j0 < count; j0 += kLaneBlock) {
                const int64_t w = std::min(kLaneBlock, count - j0);
                std::fill(acc, acc + w, A(0));
                add_rows<L>([&](int64_t k) { return x + j0 + k * step; }, n, w, acc, f);
                for (int64_t j = 0; j < w; ++j) o[(j0 + j) * os] = finish(acc[j]);
            }
        } else {
            for (int64_t j = 0; j < count; ++j) {
                const T* lane = x + j * xs;
                A s = A(0);
                for (int64_t k = 0; k < n; ++k) s += A(f(lane[k * step]));
                o[j * os] = finish(s);
            }
        }
    };
    lanes.run(in, out, block, n);
}

}  // namespace moira
