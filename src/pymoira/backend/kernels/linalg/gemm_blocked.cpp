// gemm_blocked: picks the variant of the blocked kernel that the running CPU supports; tests can
// select a lesser one.
#include "kernels/linalg/gemm.hpp"

#include <atomic>

#include "core/errors.hpp"
#include "kernels/linalg/matmul.hpp"

namespace moira {

namespace {

enum class Isa { Generic, Avx2, Avx512 };

Isa detect() {
#if defined(__x86_64__) && defined(__GNUC__)
    __builtin_cpu_init();
    if (__builtin_cpu_supports("avx512f") && __builtin_cpu_supports("avx512vl") &&
        __builtin_cpu_supports("avx512dq") && __builtin_cpu_supports("avx512bw"))
        return Isa::Avx512;
    if (__builtin_cpu_supports("avx2") && __builtin_cpu_supports("fma")) return Isa::Avx2;
#endif
    return Isa::Generic;
}

const Isa kBest = detect();
std::atomic<Isa> g_isa{kBest};

template <class T>
void run(const GemmCall<T>& call) {
    switch (g_isa.load(std::memory_order_relaxed)) {
        case Isa::Avx512: return gemm_avx512::run(call);
        case Isa::Avx2: return gemm_avx2::run(call);
        case Isa::Generic: return gemm_generic::run(call);
    }
}

}  // namespace

void gemm_blocked(const GemmCall<float>& call) { run(call); }
void gemm_blocked(const GemmCall<double>& call) { run(call); }

std::vector<std::string> blocked_kernels() {
    std::vector<std::string> out{"generic"};
    if (kBest >= Isa::Avx2) out.push_back("avx2");
    if (kBest >= Isa::Avx512) out.push_back("avx512");
    return out;
}

void set_blocked_kernel(const std::string& name) {
    Isa want;
    if (name == "auto") want = kBest;
    else if (name == "generic") want = Isa::Generic;
    else if (name == "avx2") want = Isa::Avx2;
    else if (name == "avx512") want = Isa::Avx512;
    else fail<ValueError>("set_blocked_kernel: unknown kernel '", name, "' (use 'auto', 'generic', 'avx2' or 'avx512')");
    if (want > kBest) fail<ValueError>("set_blocked_kernel: this CPU cannot run the '", name, "' kernel");
    g_isa = want;
}

}  // namespace moira
