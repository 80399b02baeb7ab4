// MOIRA_MULTIVERSION: a hot loop compiled for several instruction sets, one chosen at load time.
//
// A function marked with it is built for AVX-512, AVX2 (haswell) and baseline x86-64; the loader
// picks the widest one the CPU has, so the build stays portable and AVX2/AVX-512 machines get
// wide vectors. Other compilers and targets build the function once, unmarked.
#pragma once

#if defined(__x86_64__) && defined(__GNUC__) && !defined(__clang__)
#define MOIRA_MULTIVERSION __attribute__((target_clones("avx512f", "arch=haswell", "default")))
#else
#define MOIRA_MULTIVERSION
#endif
