// Element-wise kernels: one generic loop per arity, driven by the functor tables below.
#include "kernels/elementwise/elementwise.hpp"

#include <algorithm>
#include <array>
#include <limits>

#include "core/errors.hpp"
#include "kernels/elementwise/functors.hpp"
#include "kernels/creation.hpp"
#include "kernels/iter/copy.hpp"
#include "kernels/iter/walker.hpp"
#include "kernels/simd.hpp"
#include "kernels/table.hpp"

namespace moira {

namespace {

using fn::binary_compute_type;
using fn::unary_compute_type;

// A single-element tensor of type `t` holding `s` (of shape [] or `shape`).
Tensor scalar_tensor(Scalar s, DType t, int device, const Shape& shape = Shape{}) {
    Tensor out(t, shape, device);
    fill_(out, s);
    return out;
}

// Two operands where at most one may stand for a Python number (Note [Weak scalars]): the type
// they combine in and the operands, a weak one replaced by its exact value in that type.
struct Operands {
    const Tensor* a;
    const Tensor* b;
    DType type;
    Tensor exact;  // holds the exact value of a weak operand
};

// The type a tensor of type `t` and a Python number combine in. A comparison or logical function
// of an integer or bool tensor with a float compares in float64, so the number is not rounded to
// the default float type first (2 > 1e-300 holds, as it does in numpy).
DType scalar_compute_type(Scalar s, DType t, bool to_bool) {
    if (to_bool && s.is_floating() && !is_floating(t)) return DType::Float64;
    return s.result_type_with(t);
}

// `o.a` and `o.b` point at the operands or at `o.exact`, so `o` must stay where it is.
void resolve_weak(const Tensor& a, const Tensor& b, bool to_bool, Operands& o) {
    o.a = &a;
    o.b = &b;
    if (a.is_weak() == b.is_weak()) {
        o.type = promote(a.dtype(), b.dtype());
        return;
    }
    const Tensor& w = a.is_weak() ? a : b;
    const Tensor& other = a.is_weak() ? b : a;
    o.type = scalar_compute_type(w.weak_value(), other.dtype(), to_bool);
    o.exact = scalar_tensor(w.weak_value(), o.type, other.device(), w.shape());  // on the other's device
    (a.is_weak() ? o.a : o.b) = &o.exact;
}

// ---- binary ---------------------------------------------------------------------------------

// One run of the walk: r[j * sr] = f(a[j * sa], b[j * sb]), specialised for the common steps.
// A function of its own (not the walker's lambda), so the compiler keeps the pointers in
// registers and vectorises the contiguous cases, for the widest vectors the CPU has.
template <class F, class T, class O>
MOIRA_MULTIVERSION void binary_run(O* r, const T* a, const T* b, int64_t len, int64_t sr, int64_t sa, int64_t sb) {
    F f;
    if (sr == 1 && sa == 1 && sb == 1) {
        for (int64_t j = 0; j < len; ++j) r[j] = f(a[j], b[j]);
    } else if (sr == 1 && sa == 1 && sb == 0) {
        const T s = b[0];
        for (int64_t j = 0; j < len; ++j) r[j] = f(a[j], s);
    } else if (sr == 1 && sa == 0 && sb == 1) {
        const T s = a[0];
        for (int64_t j = 0; j < len; ++j) r[j] = f(s, b[j]);
    } else {
        for (int64_t j = 0; j < len; ++j) r[j * sr] = f(a[j * sa], b[j * sb]);
    }
}

// out[i] = f(a[i], b[i]) over the plan's shape, with flat fast paths for contiguous operands of
// the output's size and for a single-element operand. The output may be operand a itself (the
// in-place forms).
template <class F, class T, class O>
void binary_walk(const WalkPlan<3>& p) {
    O* po = static_cast<O*>(p.data[0]);
    const T* pa = static_cast<const T*>(p.data[1]);
    const T* pb = static_cast<const T*>(p.data[2]);
    const int64_t n = p.numel;
    if (p.flat[1] && p.flat[2]) {
        parallel_for(n, [&](int64_t lo, int64_t hi) { binary_run<F>(po + lo, pa + lo, pb + lo, hi - lo, 1, 1, 1); });
    } else if (p.flat[1] && p.single[2]) {
        parallel_for(n, [&](int64_t lo, int64_t hi) { binary_run<F>(po + lo, pa + lo, pb, hi - lo, 1, 1, 0); });
    } else if (p.flat[2] && p.single[1]) {
        parallel_for(n, [&](int64_t lo, int64_t hi) { binary_run<F>(po + lo, pa, pb + lo, hi - lo, 1, 0, 1); });
    } else {
        const StridedWalker<3> walk = p.walker();
        walk.run([=](const std::array<int64_t, 3>& off, int64_t len, const std::array<int64_t, 3>& st) {
            binary_run<F>(po + off[0], pa + off[1], pb + off[2], len, st[0], st[1], st[2]);
        });
    }
}

template <class F>
void binary_typed(DType type, const WalkPlan<3>& p) {
    dispatch<fn::types_of<F>()>(type, "binary", [&](auto tag) {
        using T = typename decltype(tag)::type;
        binary_walk<F, T, decltype(F{}(T{}, T{}))>(p);
    });
}

// Comparisons and logical functions: their result is bool whatever they compute in.
template <class F>
constexpr bool gives_bool = std::is_same_v<decltype(F{}(1.0, 1.0)), bool>;

// An operand in the compute type: as it is, or converted (a contiguous copy).
Tensor operand_as(const Tensor& t, DType ct) { return t.dtype() == ct ? t : t.to(ct); }

template <class F>
Tensor binary_as(const Tensor& a, const Tensor& b, DType ct, const char* name) {
    device_of(a, b, name);
    if (std::is_same_v<F, fn::Sub> && ct == DType::Bool)
        fail<TypeError>(name, ": subtracting booleans is not supported; use logical_xor instead");
    const bool same = a.shape() == b.shape();
    Shape out_shape = same ? a.shape() : broadcast_shapes(a.shape(), b.shape());
    Tensor converted_a, converted_b;
    const Tensor& A = a.dtype() == ct ? a : (converted_a = a.to(ct));
    const Tensor& B = b.dtype() == ct ? b : (converted_b = b.to(ct));
    return dispatch<fn::types_of<F>()>(ct, name, [&](auto tag) {
        using T = typename decltype(tag)::type;
        using O = decltype(F{}(T{}, T{}));
        Tensor out = empty_in_layout_of(dtype_of<O>::value, out_shape, same || A.shape() == out_shape ? A : B);
        kernels_of(out).binary(op_of<F>(), ct, plan_walk<3>(out, {&A, &B}));
        return out;
    });
}

template <class F>
Tensor binary_tt(const Tensor& a, const Tensor& b, const char* name) {
    Operands o;
    resolve_weak(a, b, gives_bool<F>, o);
    return binary_as<F>(*o.a, *o.b, binary_compute_type<F>(o.type), name);
}

template <class F>
Tensor binary_ts(const Tensor& a, Scalar b, const char* name) {
    DType ct = binary_compute_type<F>(scalar_compute_type(b, a.dtype(), gives_bool<F>));
    return binary_as<F>(a, scalar_tensor(b, ct, a.device()), ct, name);
}

template <class F>
Tensor binary_st(Scalar a, const Tensor& b, const char* name) {
    DType ct = binary_compute_type<F>(scalar_compute_type(a, b.dtype(), gives_bool<F>));
    return binary_as<F>(scalar_tensor(a, ct, b.device()), b, ct, name);
}

template <class F>
void binary_inplace(Tensor& self, const Tensor& other, const char* name) {
    device_of(self, other, name);
    if (other.shape() != self.shape() && broadcast_shapes(self.shape(), other.shape()) != self.shape())
        fail<ValueError>(name, ": operand of shape ", shape_str(other.shape()),
                         " cannot be broadcast to the receiver's shape ", shape_str(self.shape()));
    DType ct = binary_compute_type<F>(promote(self.dtype(), other.dtype()));
    if (is_complex(ct) && !is_complex(self.dtype()))
        fail<TypeError>(name, ": cannot write complex results into a ", dtype_name(self.dtype()),
                        " tensor in place (that would discard their imaginary parts)");
    if (std::is_same_v<F, fn::Sub> && ct == DType::Bool)
        fail<TypeError>(name, ": subtracting booleans is not supported; use logical_xor instead");
    bool direct = self.writable_in_place() && dispatch<fn::types_of<F>()>(ct, name, [&](auto tag) {
        using T = typename decltype(tag)::type;
        using O = decltype(F{}(T{}, T{}));
        if constexpr (std::is_same_v<T, O>) {
            if (self.dtype() != ct) return false;
            const Tensor B = operand_as(other, ct);
            self.prepare_write_();  // writable already: only forgets a weak scalar
            kernels_of(self).binary(op_of<F>(), ct, plan_walk<3>(self, {&self, &B}));
            return true;
        } else {
            return false;
        }
    });
    if (direct) return;
    // A shared or strided receiver (or one of another type) takes a new result instead: one pass,
    // and whoever shares the old storage keeps its values.
    Tensor r = binary_as<F>(self, other, ct, name);
    if (r.dtype() == self.dtype() && r.is_contiguous() && !self.writable_in_place()) self = std::move(r);
    else copy_into(self, r);
}

struct BinaryEntry {
    const char* name;
    Tensor (*tt)(const Tensor&, const Tensor&, const char*);
    Tensor (*ts)(const Tensor&, Scalar, const char*);
    Tensor (*st)(Scalar, const Tensor&, const char*);
    void (*inplace)(Tensor&, const Tensor&, const char*);
};

template <class F>
constexpr BinaryEntry binary_entry(const char* name) {
    return {name, &binary_tt<F>, &binary_ts<F>, &binary_st<F>, &binary_inplace<F>};
}

// Rows in the order of BinaryOp.
#define MOIRA_ROW(F, name) binary_entry<fn::F>(name),
constexpr BinaryEntry kBinary[] = {MOIRA_BINARY_OPS(MOIRA_ROW)};
#undef MOIRA_ROW
static_assert(std::size(kBinary) == static_cast<size_t>(BinaryOp::Count), "one row per BinaryOp");

const BinaryEntry& row(BinaryOp op) { return kBinary[static_cast<int>(op)]; }

// ---- unary ----------------------------------------------------------------------------------

// Transcendental functions cost enough per element to start threads earlier.
template <class F>
constexpr int64_t unary_grain() {
    return F::kind == fn::UnaryKind::Floating ? kParallelGrain / 8 : kParallelGrain;
}

// One run: o[j * so] = f(a[j * sa]); a function of its own for the reasons of binary_run.
template <class F, class T, class O>
MOIRA_MULTIVERSION void unary_run(O* o, const T* a, int64_t len, int64_t so, int64_t sa) {
    F f;
    if (so == 1 && sa == 1) {
        for (int64_t j = 0; j < len; ++j) o[j] = f(a[j]);
    } else {
        for (int64_t j = 0; j < len; ++j) o[j * so] = f(a[j * sa]);
    }
}

// o[i] = f(a[i]): a dense operand (contiguous, or a transpose of a contiguous tensor) and its
// result, laid out alike, are walked as flat memory.
template <class F, class T, class O>
void unary_walk(const WalkPlan<2>& p) {
    O* o = static_cast<O*>(p.data[0]);
    const T* a = static_cast<const T*>(p.data[1]);
    if (p.one_axis || (same_steps(p.shape, p.strides[0], p.strides[1]) && is_dense_layout(p.shape, p.strides[1]))) {
        parallel_for(p.numel, [&](int64_t lo, int64_t hi) {
            if constexpr (fn::has_bulk<F, T>::value) {
                F::bulk(a + lo, o + lo, hi - lo);
            } else {
                unary_run<F>(o + lo, a + lo, hi - lo, 1, 1);
            }
        }, unary_grain<F>());
        return;
    }
    const StridedWalker<2> walk = p.walker();
    walk.run([&](const std::array<int64_t, 2>& off, int64_t len, const std::array<int64_t, 2>& st) {
        unary_run<F>(o + off[0], a + off[1], len, st[0], st[1]);
    }, unary_grain<F>());
}

template <class F>
void unary_typed(DType type, const WalkPlan<2>& p) {
    dispatch<fn::types_of<F>()>(type, "unary", [&](auto tag) {
        using T = typename decltype(tag)::type;
        unary_walk<F, T, decltype(F{}(T{}))>(p);
    });
}

template <class F>
Tensor unary_op(const Tensor& t, const char* name) {
    DType ct = unary_compute_type<F>(t.dtype());
    const Tensor A = operand_as(t, ct);
    return dispatch<fn::types_of<F>()>(ct, name, [&](auto tag) {
        using T = typename decltype(tag)::type;
        using O = decltype(F{}(T{}));
        Tensor out = empty_in_layout_of(dtype_of<O>::value, t.shape(), A);
        kernels_of(out).unary(op_of<F>(), ct, plan_walk<2>(out, {&A}));
        return out;
    });
}

template <class F>
void unary_inplace(Tensor& t, const char* name) {
    // Computes into a fresh buffer, which t takes over when it has t's type (sqrt_ of an int64
    // tensor converts back to int64).
    Tensor r = unary_op<F>(t, name);
    if (r.dtype() == t.dtype() && r.is_contiguous()) t = std::move(r);
    else copy_into(t, r);
}

struct UnaryEntry {
    const char* name;
    Tensor (*apply)(const Tensor&, const char*);
    void (*inplace)(Tensor&, const char*);
};

template <class F>
constexpr UnaryEntry unary_entry(const char* name) {
    return {name, &unary_op<F>, &unary_inplace<F>};
}

// Rows in the order of UnaryOp.
#define MOIRA_ROW(F, name) unary_entry<fn::F>(name),
constexpr UnaryEntry kUnary[] = {MOIRA_UNARY_OPS(MOIRA_ROW)};
static_assert(std::size(kUnary) == static_cast<size_t>(UnaryOp::Count), "one row per UnaryOp");
#undef MOIRA_ROW

}  // namespace

const char* op_name(BinaryOp op) { return row(op).name; }
const char* op_name(UnaryOp op) { return kUnary[static_cast<int>(op)].name; }

Tensor binary(BinaryOp op, const Tensor& a, const Tensor& b) { return row(op).tt(a, b, row(op).name); }
Tensor binary(BinaryOp op, const Tensor& a, Scalar b) { return row(op).ts(a, b, row(op).name); }
Tensor binary(BinaryOp op, Scalar a, const Tensor& b) { return row(op).st(a, b, row(op).name); }

void binary_(BinaryOp op, Tensor& self, const Tensor& other) {
    if (other.is_weak() && !self.is_weak()) return binary_(op, self, other.weak_value());
    row(op).inplace(self, other, row(op).name);
}

void binary_(BinaryOp op, Tensor& self, Scalar other) {
    DType ct = other.result_type_with(self.dtype());
    row(op).inplace(self, scalar_tensor(other, ct, self.device()), row(op).name);
}

Tensor unary(UnaryOp op, const Tensor& t) {
    const UnaryEntry& e = kUnary[static_cast<int>(op)];
    return e.apply(t, e.name);
}

void unary_(UnaryOp op, Tensor& t) {
    const UnaryEntry& e = kUnary[static_cast<int>(op)];
    e.inplace(t, e.name);
}

Tensor nonzero(const Tensor& t) {
    // Positions are index data: found on the host, then moved to t's device.
    const int64_t nd = t.ndim();
    const Tensor flags =
        (t.dtype() == DType::Bool ? t : binary(BinaryOp::NotEqual, t, Scalar::from_int(0))).to_host().contiguous();
    const bool* f = flags.data<bool>();
    int64_t count = 0;
    for (int64_t i = 0; i < t.numel(); ++i) count += f[i];
    Tensor out(DType::Int64, Shape{count, nd}, kCPU);
    int64_t* p = out.data<int64_t>();
    for (int64_t i = 0; i < t.numel(); ++i) {
        if (!f[i]) continue;
        int64_t rest = i;
        for (int64_t d = nd - 1; d >= 0; --d) {
            p[d] = rest % t.shape()[d];
            rest /= t.shape()[d];
        }
        p += nd;
    }
    return out.to_device(t.device());
}

Tensor where(const Tensor& cond, const Tensor& a, const Tensor& b) {
    const Tensor& anchor = a.is_weak() && !b.is_weak() ? b : a;  // a Python number follows the other
    device_of(cond, anchor, "where");
    combined_device(a, b, "where");
    Shape out_shape = broadcast_shapes(broadcast_shapes(cond.shape(), a.shape()), b.shape());
    Operands o;
    resolve_weak(a, b, false, o);
    const DType ct = o.type;
    const Tensor C = cond.dtype() == DType::Bool ? cond : binary(BinaryOp::NotEqual, cond, Scalar::from_int(0));
    const Tensor A = operand_as(*o.a, ct);
    const Tensor B = operand_as(*o.b, ct);
    Tensor out(ct, out_shape, anchor.device());
    kernels_of(out).where(ct, plan_walk<4>(out, {&C, &A, &B}));
    return out;
}

Tensor clamp(const Tensor& t, Scalar lo, Scalar hi) {
    if (lo.is_complex() || hi.is_complex()) fail<TypeError>("clamp: complex bounds have no order");
    DType ct = hi.result_type_with(lo.result_type_with(t.dtype()));
    if (ct == DType::Bool) ct = DType::Int64;
    const Tensor A = t.contiguous_as(ct);
    Tensor out(ct, t.shape(), t.device());
    kernels_of(out).clamp(ct, lo, hi, plan_walk<2>(out, {&A}));
    return out;
}

// ---- the CPU's entries --------------------------------------------------------------------

namespace {

#define MOIRA_ROW(F, name) &binary_typed<fn::F>,
constexpr void (*kBinaryWalks[])(DType, const WalkPlan<3>&) = {MOIRA_BINARY_OPS(MOIRA_ROW)};
#undef MOIRA_ROW
#define MOIRA_ROW(F, name) &unary_typed<fn::F>,
constexpr void (*kUnaryWalks[])(DType, const WalkPlan<2>&) = {MOIRA_UNARY_OPS(MOIRA_ROW)};
#undef MOIRA_ROW

}  // namespace

void cpu::binary(BinaryOp op, DType type, const WalkPlan<3>& plan) { kBinaryWalks[static_cast<int>(op)](type, plan); }

void cpu::unary(UnaryOp op, DType type, const WalkPlan<2>& plan) { kUnaryWalks[static_cast<int>(op)](type, plan); }

void cpu::where(DType type, const WalkPlan<4>& p) {
    dispatch<TypeSet::WithComplex>(type, "where", [&](auto tag) {
        using T = typename decltype(tag)::type;
        T* po = static_cast<T*>(p.data[0]);
        const bool* pc = static_cast<const bool*>(p.data[1]);
        const T* pa = static_cast<const T*>(p.data[2]);
        const T* pb = static_cast<const T*>(p.data[3]);
        const StridedWalker<4> walk = p.walker();
        walk.run([&](const std::array<int64_t, 4>& off, int64_t len, const std::array<int64_t, 4>& st) {
            for (int64_t j = 0; j < len; ++j)
                po[off[0] + j * st[0]] = pc[off[1] + j * st[1]] ? pa[off[2] + j * st[2]] : pb[off[3] + j * st[3]];
        });
    });
}

void cpu::clamp(DType type, Scalar lo, Scalar hi, const WalkPlan<2>& p) {
    dispatch(type, "clamp", [&](auto tag) {
        using T = typename decltype(tag)::type;
        const T l = lo.as<T>(), h = hi.as<T>();
        T* po = static_cast<T*>(p.data[0]);
        const T* pa = static_cast<const T*>(p.data[1]);
        const StridedWalker<2> walk = p.walker();
        walk.run([&](const std::array<int64_t, 2>& off, int64_t len, const std::array<int64_t, 2>& st) {
            for (int64_t j = 0; j < len; ++j) {
                const T x = pa[off[1] + j * st[1]];
                po[off[0] + j * st[0]] = fn::is_nan(x) ? x : (x < l ? l : (h < x ? h : x));
            }
        });
    });
}

}  // namespace moira
