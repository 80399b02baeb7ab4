// The built-in matrix product kernel: a batch of C = op(A) · op(B) on row-major matrices, where
// op transposes the operand when its flag is set. Used when no BLAS is linked or BLAS is
// switched off, and for sizes a BLAS cannot take (extents beyond its 32-bit integers).
#pragma once

#include <cstdint>

#include "core/dtype.hpp"

namespace moira {

// One call: `batch` products. Entry e's operand A lies at a + (e / inner) * outer_a +
// (e % inner) * stride_a (likewise b and c): two batch axes of any strides, 0 where an operand is
// broadcast, so a batch operand is never copied for its layout (at(e) gives the offsets).
// A is m x k as seen by the product (stored k x m when ta), B is k x n (stored n x k when tb),
// C is m x n. lda/ldb/ldc are the row lengths of the stored matrices. C is overwritten. ca/cb:
// a complex operand is read conjugated; only together with its transpose flag (an adjoint).
template <class T>
struct GemmCall {
    int64_t m = 0, n = 0, k = 0;
    const T* a = nullptr;
    int64_t lda = 0;
    bool ta = false, ca = false;
    const T* b = nullptr;
    int64_t ldb = 0;
    bool tb = false, cb = false;
    T* c = nullptr;
    int64_t ldc = 0;
    int64_t batch = 1;
    int64_t inner = 1;
    int64_t stride_a = 0, stride_b = 0, stride_c = 0;
    int64_t outer_a = 0, outer_b = 0, outer_c = 0;
};

// The element offsets of the operands of batch entries, walked forward from `first` without a
// division per step.
struct EntryOffsets {
    int64_t a = 0, b = 0, c = 0;
};
template <class T>
class Entries {
  public:
    Entries(const GemmCall<T>& call, int64_t first) : c_(call), outer_(first / call.inner), in_(first % call.inner) {}
    EntryOffsets operator*() const {
        return {outer_ * c_.outer_a + in_ * c_.stride_a, outer_ * c_.outer_b + in_ * c_.stride_b,
                outer_ * c_.outer_c + in_ * c_.stride_c};
    }
    void next() {
        if (++in_ == c_.inner) {
            in_ = 0;
            ++outer_;
        }
    }

  private:
    const GemmCall<T>& c_;
    int64_t outer_, in_;
};

// Entry e's offsets.
template <class T>
EntryOffsets at(const GemmCall<T>& c, int64_t e) {
    return *Entries<T>(c, e);
}

// Note [Instruction-set variants of the blocked kernel]
// gemm_kernel.hpp holds the whole blocked kernel (packing, register-blocked micro-kernel,
// threading). It is compiled three times, each translation unit under its own
// `#pragma GCC target` and register-tile sizes, into the namespaces below; gemm_blocked picks
// the best one the running CPU supports. The code lives in an anonymous namespace in each unit,
// so the three copies of the same templates never meet at link time.
namespace gemm_avx512 {
void run(const GemmCall<float>& call);
void run(const GemmCall<double>& call);
}  // namespace gemm_avx512
namespace gemm_avx2 {
void run(const GemmCall<float>& call);
void run(const GemmCall<double>& call);
}  // namespace gemm_avx2
namespace gemm_generic {
void run(const GemmCall<float>& call);
void run(const GemmCall<double>& call);
}  // namespace gemm_generic

// The blocked kernel for the running CPU. Every extent may be 0.
void gemm_blocked(const GemmCall<float>& call);
void gemm_blocked(const GemmCall<double>& call);

// Products by plain loops (loop_product.cpp): complex ones without BLAS, and batches of tiny
// products. Every extent may be 0.
void loop_product(const GemmCall<float>& call);
void loop_product(const GemmCall<double>& call);
void loop_product(const GemmCall<complex64>& call);
void loop_product(const GemmCall<complex128>& call);

}  // namespace moira
