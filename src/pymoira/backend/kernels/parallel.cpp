// The fork handler behind threads_available(); see Note [Threads after fork].
#include "kernels/parallel.hpp"

#include <atomic>

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

}  // namespace

bool threads_available() { return !g_forked_child.load(std::memory_order_relaxed); }

}  // namespace moira
