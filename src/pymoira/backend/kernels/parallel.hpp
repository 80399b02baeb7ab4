// parallel_for: splits [0, n) into one contiguous chunk per thread when the work is large
// enough to pay for waking the OpenMP team, and runs inline otherwise.
//
// Note [Threads after fork]
// The OpenMP runtime does not survive fork(): a child process (multiprocessing's default start
// method on Linux) that enters a parallel region after its parent used one waits forever for
// threads that were not copied. A fork handler marks the child, and every parallel loop of the
// child runs on its one thread.
#pragma once

#include <algorithm>
#include <cstdint>

#include "core/export.hpp"

#ifdef _OPENMP
#include <omp.h>
#endif

namespace moira {

// False in a child process forked from this one (see Note [Threads after fork]).
MOIRA_API bool threads_available();

// Elements below which a cheap loop (a copy, an add) stays on one thread.
constexpr int64_t kParallelGrain = int64_t(1) << 16;

// The number of threads parallel_for may use.
inline int64_t parallel_threads() {
#ifdef _OPENMP
    return omp_in_parallel() || !threads_available() ? 1 : omp_get_max_threads();
#else
    return 1;
#endif
}

template <class F>
void parallel_for(int64_t n, F&& body, int64_t grain = kParallelGrain) {
#ifdef _OPENMP
    if (n >= 2 * grain && parallel_threads() > 1) {
#pragma omp parallel
        {
            int64_t threads = omp_get_num_threads();
            int64_t id = omp_get_thread_num();
            int64_t chunk = (n + threads - 1) / threads;
            int64_t lo = std::min(n, id * chunk), hi = std::min(n, lo + chunk);
            if (lo < hi) body(lo, hi);
        }
        return;
    }
#else
    (void)grain;
#endif
    if (n > 0) body(int64_t(0), n);
}

}  // namespace moira
