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

// The threads a parallel loop uses: OMP_NUM_THREADS (or the cores) when the library loads, until
// set_num_threads(n) (n >= 1, else ValueError) changes it for every thread of the process.
MOIRA_API int64_t get_num_threads();
MOIRA_API void set_num_threads(int64_t n);

// Elements below which a cheap loop (a copy, an add) stays on one thread.
constexpr int64_t kParallelGrain = int64_t(1) << 16;

// The number of threads parallel_for may use.
inline int64_t parallel_threads() {
#ifdef _OPENMP
    return omp_in_parallel() || !threads_available() ? 1 : get_num_threads();
#else
    return 1;
#endif
}

template <class F>
void parallel_for(int64_t n, F&& body, int64_t grain = kParallelGrain) {
#ifdef _OPENMP
    const int64_t team = parallel_threads();
    if (n >= 2 * grain && team > 1) {
#pragma omp parallel num_threads(static_cast<int>(team))
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
