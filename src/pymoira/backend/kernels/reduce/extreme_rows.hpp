// The extreme combine: maxima and minima folded over rows of lanes, written so that the lane
// loops vectorise (branch-free selects over a row whose width is a run-time value, so the
// compiler vectorises the loop instead of unrolling it) and compiled for several instruction
// sets like the bulk loops. NaN rules: Note [Extremes and NaN].
#pragma once

#include <algorithm>
#include <cstdint>
#include <limits>
#include <utility>

#include "kernels/simd.hpp"
#include <type_traits>

namespace moira {

// Integers as wide as T: positions kept beside values of T vectorise lane for lane.
template <class T>
using SameInt = std::conditional_t<sizeof(T) == 8, int64_t, int32_t>;

// Whether x replaces the extreme m of a value reduction: strictly better, or a NaN (which then
// stays, since nothing beats it). Branch-free, so the lane loops vectorise.
template <bool Max, class T>
inline bool beats(T x, T m) {
    const bool strict = Max ? x > m : x < m;
    if constexpr (std::is_floating_point_v<T>) return strict | (x != x);
    else return strict;
}

// Whether x, at a later position, replaces the extreme m: strictly better, or the first NaN
// (see Note [Extremes and NaN]).
template <bool Max, class T>
inline bool better(T x, T m) {
    const bool strict = Max ? x > m : x < m;
    if constexpr (std::is_floating_point_v<T>) return strict | ((x != x) & (m == m));
    else return strict;
}

// acc[j] <- the extreme of acc[j] and element j of each of `rows` rows `step` apart. The row
// width w is a run-time value, so the inner loop is vectorised rather than unrolled. The fast
// form (Sticky false) is a plain compare and select and reports whether a NaN passed; the
// caller then folds again with Sticky true, where a NaN takes the place and stays.
template <bool Max, bool Sticky, class T>
MOIRA_MULTIVERSION bool fold_values(const T* base, int64_t step, int64_t rows, int64_t w, T* acc) {
    SameInt<T> nan = 0;
    int64_t k = 0;
    if constexpr (!Sticky) {  // two rows per pass over the accumulators
        for (; k + 1 < rows; k += 2) {
            const T* r0 = base + k * step;
            const T* r1 = r0 + step;
            for (int64_t j = 0; j < w; ++j) {
                const T x = r0[j], y = r1[j], a = acc[j];
                const T b = (Max ? y > x : y < x) ? y : x;
                acc[j] = (Max ? b > a : b < a) ? b : a;
                if constexpr (std::is_floating_point_v<T>) nan |= SameInt<T>((x != x) | (y != y));
            }
        }
    }
    for (; k < rows; ++k) {
        const T* row = base + k * step;
        for (int64_t j = 0; j < w; ++j) {
            const T x = row[j], a = acc[j];
            if constexpr (Sticky) {
                acc[j] = beats<Max>(x, a) ? x : a;
            } else {
                acc[j] = (Max ? x > a : x < a) ? x : a;
                if constexpr (std::is_floating_point_v<T>) nan |= SameInt<T>(x != x);
            }
        }
    }
    return nan != 0;
}

// The same keeping positions: at[j] <- first + k when row k takes the place (the first of
// equal extremes stays; with Sticky, the first NaN).
template <bool Max, bool Sticky, class T, class P>
MOIRA_MULTIVERSION bool fold_positions(const T* base, int64_t step, int64_t rows, int64_t w, T* acc, P* at, P first) {
    SameInt<T> nan = 0;
    for (int64_t k = 0; k < rows; ++k) {
        const T* row = base + k * step;
        const P pos = P(first + k);
        for (int64_t j = 0; j < w; ++j) {
            const T x = row[j], a = acc[j];
            bool take;
            if constexpr (Sticky) {
                take = better<Max>(x, a);
            } else {
                take = Max ? x > a : x < a;
                if constexpr (std::is_floating_point_v<T>) nan |= SameInt<T>(x != x);
            }
            acc[j] = take ? x : a;
            at[j] = take ? pos : at[j];
        }
    }
    return nan != 0;
}

// Folds with the fast form, and again with NaN taking the place when a NaN passed. `reset`
// restores the accumulators' starting values.
template <class Fast, class Slow, class Reset>
void fold_checked(Fast fast, Slow slow, Reset reset) {
    if (!fast()) return;
    reset();
    slow();
}

// The extreme of p[0, n), n >= 1: the run read as rows of 64 accumulators (16 for short runs;
// rows this narrow lie in one stream of memory), halved down to 16, then the remainder.
template <bool Max, class T>
T run_extreme(const T* p, int64_t n) {
    constexpr int64_t kMaxWidth = 64, kMinWidth = 16;
    T m = p[0];
    int64_t i = 0;
    if (n >= 2 * kMinWidth) {
        int64_t w = kMaxWidth;
        while (w > kMinWidth && n < 4 * w) w /= 2;
        T acc[kMaxWidth];
        const int64_t rows = n / w;
        i = rows * w;
        auto reset = [&] { std::copy(p, p + w, acc); };
        reset();
        fold_checked([&] { return fold_values<Max, false>(p, w, rows, w, acc); },
                     [&] { return fold_values<Max, true>(p, w, rows, w, acc); }, reset);
        for (; w > kMinWidth; w /= 2) fold_values<Max, true>(acc + w / 2, 0, 1, w / 2, acc);
        for (int64_t j = 0; j < kMinWidth; ++j) m = beats<Max>(acc[j], m) ? acc[j] : m;
    }
    for (; i < n; ++i) m = beats<Max>(p[i], m) ? p[i] : m;
    return m;
}

// The first position in p[0, n) holding m (or a NaN, when m is NaN); -1 when there is none.
// Groups of elements are tested as one vectorised reduction before one is searched.
template <class T>
MOIRA_MULTIVERSION int64_t find_first(const T* p, int64_t n, T m) {
    constexpr int64_t kGroup = 64;
    const bool nan = m != m;
    for (int64_t i0 = 0; i0 < n; i0 += kGroup) {
        const int64_t len = std::min(kGroup, n - i0);
        SameInt<T> hit = 0;
        for (int64_t j = 0; j < len; ++j) {
            const T x = p[i0 + j];
            hit |= SameInt<T>((x == m) | (nan & (x != x)));
        }
        if (hit)
            for (int64_t j = 0; j < len; ++j)
                if (p[i0 + j] == m || (nan && p[i0 + j] != p[i0 + j])) return i0 + j;
    }
    return -1;
}

// The extreme of p[0, n), n >= 1, and its first position: blocks are reduced, and searched
// only when they beat the extreme so far. Blocks start small (the first is always searched)
// and grow, as later blocks rarely beat the extreme.
template <bool Max, class T>
std::pair<T, int64_t> run_arg(const T* p, int64_t n) {
    T best = p[0];
    int64_t at = 0;
    for (int64_t b0 = 0, len = 1024; b0 < n; b0 += len, len = std::min<int64_t>(2 * len, 16384)) {
        len = std::min(len, n - b0);
        const T m = run_extreme<Max>(p + b0, len);
        if (!better<Max>(m, best)) continue;
        best = m;
        at = b0 + find_first(p + b0, len, m);
        if (best != best) break;  // the first NaN: nothing later takes its place
    }
    return {best, at};
}

}  // namespace moira
