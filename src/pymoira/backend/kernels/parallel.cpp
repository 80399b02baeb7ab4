// The fork handler behind threads_available() (see Note [Threads after fork]) and the thread
// count of parallel loops.
#include "kernels/parallel.hpp"

#include <atomic>

#include "core/errors.hpp"

#if defined(__unix__) || defined(__APPLE__)
#include <pthread.h>
#endif

namespace moira {

namespace {

std::atomic<bool> g_forked_child{false};

struct ForkHandler {
    ForkHandler() {
#if defined(__unix__) || defined(__APPLE__)
        pthread_atfork(nullptr, nullptr, [] { g_forked_child.store(true, std::memory_order_relaxed); });
#endif
    }
};

const ForkHandler g_fork_handler;

int64_t default_threads() {
#ifdef _OPENMP
    return omp_get_max_threads();
#else
    return 1;
#endif
}

std::atomic<int64_t> g_num_threads{default_threads()};

}  // namespace

bool threads_available() { return !g_forked_child.load(std::memory_order_relaxed); }

int64_t get_num_threads() { return g_num_threads.load(std::memory_order_relaxed); }

void set_num_threads(int64_t n) {
    if (n < 1) fail<ValueError>("set_num_threads: the number of threads must be at least 1, got ", n);
    g_num_threads.store(n, std::memory_order_relaxed);
}

}  // namespace moira
