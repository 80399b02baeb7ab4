// Philox 4x32-10 and the conversions from its words to uniform and normal values, written
// for both the host compiler and nvcc (plain functions on 32/64-bit integers, no library types).
//
// Note [Random streams]
// The stream is a key and an offset. seed(n) sets key = n and offset = 0. The offset counts
// 128-bit blocks: block c is Philox 4x32-10 (10 rounds, multipliers 0xD2511F53 and
// 0xCD9E8D57, key increments 0x9E3779B9 and 0xBB67AE85) of the counter words
// (low32(c), high32(c), 0, 0) under the key words (low32(key), high32(key)), giving words
// w0..w3. A fill of n elements takes the blocks from the current offset on and advances the
// offset by the number of blocks it touched (the words of a last, partial block go unused), so
// element i is a pure function of (key, offset, i) and a fill may run in any order, on any
// number of threads or on a GPU, with the same result.
//
// Conversions (all exact):
//   u24(w)   = (w >> 8) * 2^-24                       float in [0, 1 - 2^-24]
//   u53(a,b) = ((a << 32 | b) >> 11) * 2^-53          double in [0, 1 - 2^-53], a the high word
// Which words feed element i of a fill starting at block `offset`:
//   float32 uniform fills (randu, fill_rand_uniform*): u24(w[i % 4]) of block offset + i / 4.
//   float64 uniform fills, and fill_rand_binary_ in every element type:
//                                  u53(w[2j], w[2j+1]) of block offset + i / 2, j = i % 2.
//   normal fills (randn, fill_rand_normal_), either element type: elements 2k and 2k+1 are
//   z0 and z1 of block offset + k, by Box-Muller in double:
//     u1 = 1 - u53(w0, w1) in (0, 1], u2 = u53(w2, w3), r = sqrt(-2 log u1),
//     t = 6.283185307179586 * u2, z0 = r cos t, z1 = r sin t (tails end at 8.6 sd).
//   fast_math normals use the same words in float precision: u1 = 1 - u24(w0),
//     u2 = u24(w2), r = sqrtf(-2 logf u1), t = 6.2831855f * u2, z0 = r cosf t, z1 = r sinf t;
//     they follow the double values to float accuracy except in the tails, which end at 5.8 sd.
// The value stored is low + span * u (uniforms) or mean + stddev * z (normals), a rounded
// double multiply then a rounded double add (never fused: random.cpp builds with
// -ffp-contract=off, a CUDA kernel uses __dmul_rn and __dadd_rn), rounded to the element type
// at the end. Uniform values are then bit-identical on every device; normals also depend on
// the device's log, sin and cos (glibc's are correctly rounded in practice; others may differ
// by an ulp).
#pragma once

#include <math.h>
#include <stdint.h>

#include "core/host_device.hpp"

namespace moira::philox {

struct Block {
    uint32_t w[4];
};

// Block `counter` of the stream with key `key`. The 32-bit words are held zero-extended in
// 64-bit variables: each product is then one 64-bit multiply (high word p >> 32, low word
// p & 0xFFFFFFFF), which compilers vectorise across blocks a third faster than 32-bit lanes.
MOIRA_HD inline Block block(uint64_t counter, uint64_t key) {
    const uint64_t mask = 0xFFFFFFFFu;
    uint64_t c0 = counter & mask, c1 = counter >> 32, c2 = 0, c3 = 0;
    uint64_t k0 = key & mask, k1 = key >> 32;
    for (int round = 0; round < 10; ++round) {
        if (round > 0) {
            k0 = (k0 + 0x9E3779B9u) & mask;
            k1 = (k1 + 0xBB67AE85u) & mask;
        }
        const uint64_t p0 = 0xD2511F53u * c0, p1 = 0xCD9E8D57u * c2;
        c0 = (p1 >> 32) ^ c1 ^ k0;
        c1 = p1 & mask;
        c2 = (p0 >> 32) ^ c3 ^ k1;
        c3 = p0 & mask;
    }
    return Block{{static_cast<uint32_t>(c0), static_cast<uint32_t>(c1), static_cast<uint32_t>(c2),
                  static_cast<uint32_t>(c3)}};
}

// Elements of a fill drawn from one block, per kind of fill.
constexpr int kUniform32PerBlock = 4;
constexpr int kUniform64PerBlock = 2;
constexpr int kNormalsPerBlock = 2;

MOIRA_HD inline float u24(uint32_t w) { return static_cast<float>(w >> 8) * 0x1.0p-24f; }

MOIRA_HD inline double u53(uint32_t hi, uint32_t lo) {
    return static_cast<double>(((static_cast<uint64_t>(hi) << 32) | lo) >> 11) * 0x1.0p-53;
}

MOIRA_HD inline void normal_pair(const Block& b, double& z0, double& z1) {
    const double u1 = 1.0 - u53(b.w[0], b.w[1]);
    const double u2 = u53(b.w[2], b.w[3]);
    const double r = sqrt(-2.0 * log(u1));
    const double t = 6.283185307179586 * u2;
    z0 = r * cos(t);
    z1 = r * sin(t);
}

MOIRA_HD inline void normal_pair_fast(const Block& b, float& z0, float& z1) {
    const float u1 = 1.0f - u24(b.w[0]);
    const float u2 = u24(b.w[2]);
    const float r = sqrtf(-2.0f * logf(u1));
    const float t = 6.2831855f * u2;
    z0 = r * cosf(t);
    z1 = r * sinf(t);
}

}  // namespace moira::philox
