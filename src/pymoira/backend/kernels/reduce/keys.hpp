// Order keys and the stable radix sort behind sort, argsort, top-k and median.
//
// Note [Sort order of values]
// Orderings compare values through keys: an unsigned integer per value whose ascending order
// is the order of the values. Floats order as numbers with -0.0 and 0.0 equal and every NaN
// after +inf, so an ascending sort puts NaN last, as numpy does; int64 and bool order as
// numbers. A descending order complements the keys: NaN, the largest value, comes first.
// Equal keys keep the order of their positions: every sort is stable (the `stable` flag of
// sort/argsort is accepted and always honoured) and top-k takes the earlier of equal values
// first, so index results are deterministic and a sort equals gathering by its argsort.
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <limits>
#include <type_traits>

namespace moira {

template <class T> struct OrderKey;

template <class T, class K>
struct FloatKey {
    using Key = K;
    static constexpr K kSign = K(1) << (8 * sizeof(K) - 1);
    static constexpr K kAll = std::numeric_limits<K>::max();
    // Branch-free: the sign of random data would defeat a branch predictor.
    static K of(T x) {
        K b;
        std::memcpy(&b, &x, sizeof b);
        const K neg = K(0) - (b >> (8 * sizeof(K) - 1));  // all ones for a negative value
        K k = b ^ (neg | kSign);
        k = x == T(0) ? kSign : k;  // -0.0 sorts with 0.0
        return x != x ? kAll : k;   // every NaN, whatever its bits
    }
    // The value a key stands for (0.0 and NaN in their canonical forms: the key of every NaN
    // turns back into the NaN 0x7f..f).
    static T value(K k) {
        const K pos = (k >> (8 * sizeof(K) - 1)) - K(1);  // all ones when the value was negative
        const K b = k ^ (pos | kSign);
        T x;
        std::memcpy(&x, &b, sizeof x);
        return x;
    }
};

template <> struct OrderKey<float> : FloatKey<float, uint32_t> {};
template <> struct OrderKey<double> : FloatKey<double, uint64_t> {};

template <> struct OrderKey<int64_t> {
    using Key = uint64_t;
    static Key of(int64_t x) { return static_cast<Key>(x) ^ (Key(1) << 63); }
    static int64_t value(Key k) { return static_cast<int64_t>(k ^ (Key(1) << 63)); }
};

template <> struct OrderKey<bool> {
    using Key = uint8_t;
    static Key of(bool x) { return x ? 1 : 0; }
    static bool value(Key k) { return k != 0; }
};

// Stable insertion sort of n keys (and the indices that travel with them, when idx is set).
template <class K, class I>
void insertion_sort(K* keys, I* idx, int64_t n) {
    for (int64_t i = 1; i < n; ++i) {
        const K k = keys[i];
        const I v = idx ? idx[i] : I(0);
        int64_t j = i;
        for (; j > 0 && keys[j - 1] > k; --j) {
            keys[j] = keys[j - 1];
            if (idx) idx[j] = idx[j - 1];
        }
        keys[j] = k;
        if (idx) idx[j] = v;
    }
}

// Stable LSD radix sort of n keys, one byte per pass; the indices in idx (when set) move with
// their keys. tk and ti are scratch of n entries. A pass whose byte is the same in every key is
// skipped; the result ends in keys/idx.
template <class K, class I>
void radix_sort(K* keys, I* idx, K* tk, I* ti, int64_t n) {
    if (n <= 48) return insertion_sort(keys, idx, n);
    constexpr int kPasses = sizeof(K);
    using Count = std::conditional_t<std::is_same_v<I, uint32_t>, uint32_t, int64_t>;  // I holds any position
    Count hist[kPasses][256] = {};
    for (int64_t i = 0; i < n; ++i) {
        const K k = keys[i];
        for (int p = 0; p < kPasses; ++p) ++hist[p][(k >> (8 * p)) & 0xff];
    }
    K* src = keys;
    K* dst = tk;
    I* si = idx;
    I* di = ti;
    for (int p = 0; p < kPasses; ++p) {
        Count* h = hist[p];
        const int shift = 8 * p;
        if (int64_t(h[(src[0] >> shift) & 0xff]) == n) continue;
        Count sum = 0;
        for (int b = 0; b < 256; ++b) {
            const Count c = h[b];
            h[b] = sum;
            sum += c;
        }
        if (idx) {
            for (int64_t i = 0; i < n; ++i) {
                const K k = src[i];
                const Count pos = h[(k >> shift) & 0xff]++;
                dst[pos] = k;
                di[pos] = si[i];
            }
            std::swap(si, di);
        } else {
            for (int64_t i = 0; i < n; ++i) {
                const K k = src[i];
                dst[h[(k >> shift) & 0xff]++] = k;
            }
        }
        std::swap(src, dst);
    }
    if (src != keys) {
        std::memcpy(keys, src, static_cast<size_t>(n) * sizeof(K));
        if (idx) std::memcpy(idx, si, static_cast<size_t>(n) * sizeof(I));
    }
}

}  // namespace moira
