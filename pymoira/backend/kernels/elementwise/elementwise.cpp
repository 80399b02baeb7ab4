// Element-wise kernels: one generic loop per arity, driven by the functor tables below.
#include "kernels/elementwise/elementwise.hpp"

#include <algorithm>
#include <array>
#include <limits>

#include "core/errors.hpp"
#include "kernels/elementwise/functors.hpp"
#include "kernels/elementwise/walker.hpp"

namespace moira {

namespace {

// A single-element tensor of type `t` holding `s`.
Tensor scalar_tensor(Scalar s, DType t, int device) {
    Tensor out(t, Shape{}, device);
    out.fill_(s);
    return out;
}

// ---- binary ---------------------------------------------------------------------------------

// out[i] = f(a[i], b[i]) over the broadcast shape, with fast paths for equal shapes and for a
// single-element operand. `out` may be `a` itself (in-place forms).
template <class F, class T, class O>
void binary_loop(const Tensor& A, const Tensor& B, Tensor& out) {
    const T* pa = A.data<T>();
    const T* pb = B.data<T>();
    O* po = out.data<O>();
    const int64_t n = out.numel();
    F f;
    if (A.numel() == n && B.numel() == n) {
        parallel_for(n, [&](int64_t lo, int64_t hi) {
            for (int64_t i = lo; i < hi; ++i) po[i] = f(pa[i], pb[i]);
        });
    } else if (B.numel() == 1 && A.numel() == n) {
        const T s = pb[0];
        parallel_for(n, [&](int64_t lo, int64_t hi) {
            for (int64_t i = lo; i < hi; ++i) po[i] = f(pa[i], s);
        });
    } else if (A.numel() == 1 && B.numel() == n) {
        const T s = pa[0];
        parallel_for(n, [&](int64_t lo, int64_t hi) {
            for (int64_t i = lo; i < hi; ++i) po[i] = f(s, pb[i]);
        });
    } else {
        BroadcastWalker<2> walk(out.shape(), {&A.shape(), &B.shape()});
        walk.run([&](int64_t o, const std::array<int64_t, 2>& off, int64_t len,
                     const std::array<int64_t, 2>& st) {
            const T* a = pa + off[0];
            const T* b = pb + off[1];
            O* r = po + o;
            if (st[0] == 1 && st[1] == 1) {
                for (int64_t j = 0; j < len; ++j) r[j] = f(a[j], b[j]);
            } else if (st[0] == 1 && st[1] == 0) {
                const T s = b[0];
                for (int64_t j = 0; j < len; ++j) r[j] = f(a[j], s);
            } else if (st[0] == 0 && st[1] == 1) {
                const T s = a[0];
                for (int64_t j = 0; j < len; ++j) r[j] = f(s, b[j]);
            } else {
                for (int64_t j = 0; j < len; ++j) r[j] = f(a[j * st[0]], b[j * st[1]]);
            }
        });
    }
}

template <class F>
DType binary_compute_type(DType promoted) {
    return F::floating ? float_type_of(promoted) : promoted;
}

template <class F>
Tensor binary_as(const Tensor& a, const Tensor& b, DType ct, const char* name) {
    check_same_device(a, b, name);
    Shape out_shape = a.shape() == b.shape() ? a.shape() : broadcast_shapes(a.shape(), b.shape());
    const Tensor A = a.dtype() == ct ? a : a.to(ct);
    const Tensor B = b.dtype() == ct ? b : b.to(ct);
    return dispatch(ct, name, [&](auto tag) {
        using T = typename decltype(tag)::type;
        using O = decltype(F{}(T{}, T{}));
        Tensor out(dtype_of<O>::value, out_shape, a.device());
        binary_loop<F, T, O>(A, B, out);
        return out;
    });
}

template <class F>
Tensor binary_tt(const Tensor& a, const Tensor& b, const char* name) {
    return binary_as<F>(a, b, binary_compute_type<F>(promote(a.dtype(), b.dtype())), name);
}

template <class F>
Tensor binary_ts(const Tensor& a, Scalar b, const char* name) {
    DType ct = binary_compute_type<F>(b.result_type_with(a.dtype()));
    return binary_as<F>(a, scalar_tensor(b, ct, a.device()), ct, name);
}

template <class F>
Tensor binary_st(Scalar a, const Tensor& b, const char* name) {
    DType ct = binary_compute_type<F>(a.result_type_with(b.dtype()));
    return binary_as<F>(scalar_tensor(a, ct, b.device()), b, ct, name);
}

template <class F>
void binary_inplace(Tensor& self, const Tensor& other, const char* name) {
    check_same_device(self, other, name);
    if (other.shape() != self.shape() && broadcast_shapes(self.shape(), other.shape()) != self.shape())
        fail<ValueError>(name, ": operand of shape ", shape_str(other.shape()),
                         " cannot be broadcast to the receiver's shape ", shape_str(self.shape()));
    DType ct = binary_compute_type<F>(promote(self.dtype(), other.dtype()));
    bool direct = dispatch(ct, name, [&](auto tag) {
        using T = typename decltype(tag)::type;
        using O = decltype(F{}(T{}, T{}));
        if constexpr (std::is_same_v<T, O>) {
            if (self.dtype() != ct) return false;
            const Tensor B = other.dtype() == ct ? other : other.to(ct);
            binary_loop<F, T, T>(self, B, self);
            return true;
        } else {
            return false;
        }
    });
    if (!direct) self.copy_from_(binary_as<F>(self, other, ct, name));
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
constexpr BinaryEntry kBinary[] = {
    binary_entry<fn::Add>("add"),
    binary_entry<fn::Sub>("sub"),
    binary_entry<fn::Mult>("mult"),
    binary_entry<fn::Div>("div"),
    binary_entry<fn::Pow>("element_pow"),
    binary_entry<fn::Maximum>("maximum"),
    binary_entry<fn::Minimum>("minimum"),
    binary_entry<fn::Equal>("equal"),
    binary_entry<fn::NotEqual>("not_equal"),
    binary_entry<fn::Less>("less"),
    binary_entry<fn::LessEqual>("less_equal"),
    binary_entry<fn::Greater>("greater"),
    binary_entry<fn::GreaterEqual>("greater_equal"),
    binary_entry<fn::LogicalAnd>("logical_and"),
    binary_entry<fn::LogicalOr>("logical_or"),
    binary_entry<fn::LogicalXor>("logical_xor"),
};
static_assert(std::size(kBinary) == static_cast<size_t>(BinaryOp::Count), "one row per BinaryOp");

const BinaryEntry& row(BinaryOp op) { return kBinary[static_cast<int>(op)]; }

// ---- unary ----------------------------------------------------------------------------------

template <class F>
DType unary_compute_type(DType t) {
    if constexpr (F::kind == fn::UnaryKind::Floating) return float_type_of(t);
    else if constexpr (F::kind == fn::UnaryKind::Keep) return t == DType::Bool ? DType::Int64 : t;
    else return t;
}

// Transcendental functions cost enough per element to start threads earlier.
template <class F>
constexpr int64_t unary_grain() {
    return F::kind == fn::UnaryKind::Floating ? kParallelGrain / 8 : kParallelGrain;
}

template <class F>
Tensor unary_op(const Tensor& t, const char* name) {
    DType ct = unary_compute_type<F>(t.dtype());
    const Tensor A = t.dtype() == ct ? t : t.to(ct);
    return dispatch(ct, name, [&](auto tag) {
        using T = typename decltype(tag)::type;
        using O = decltype(F{}(T{}));
        Tensor out(dtype_of<O>::value, t.shape(), t.device());
        const T* a = A.data<T>();
        O* o = out.data<O>();
        F f;
        parallel_for(out.numel(), [&](int64_t lo, int64_t hi) {
            if constexpr (fn::has_bulk<F, T>::value) {
                F::bulk(a + lo, o + lo, hi - lo);
            } else {
                for (int64_t i = lo; i < hi; ++i) o[i] = f(a[i]);
            }
        }, unary_grain<F>());
        return out;
    });
}

template <class F>
void unary_inplace(Tensor& t, const char* name) {
    // Computes into a fresh buffer and converts back to t's type (sqrt_ of an int64 tensor
    // stays int64).
    t.copy_from_(unary_op<F>(t, name));
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
constexpr UnaryEntry kUnary[] = {
    unary_entry<fn::Neg>("neg"),
    unary_entry<fn::Sqr>("sqr"),
    unary_entry<fn::Abs>("abs"),
    unary_entry<fn::Sign>("sign"),
    unary_entry<fn::Round>("round"),
    unary_entry<fn::Floor>("floor"),
    unary_entry<fn::Ceil>("ceil"),
    unary_entry<fn::Exp>("exp"),
    unary_entry<fn::Log>("log"),
    unary_entry<fn::Sqrt>("sqrt"),
    unary_entry<fn::Sin>("sin"),
    unary_entry<fn::Cos>("cos"),
    unary_entry<fn::Tan>("tan"),
    unary_entry<fn::Asin>("asin"),
    unary_entry<fn::Acos>("acos"),
    unary_entry<fn::Atan>("atan"),
    unary_entry<fn::Sinh>("sinh"),
    unary_entry<fn::Cosh>("cosh"),
    unary_entry<fn::Tanh>("tanh"),
    unary_entry<fn::Reciprocal>("reciprocal"),
    unary_entry<fn::LogicalNot>("logical_not"),
    unary_entry<fn::IsFinite>("isfinite"),
    unary_entry<fn::IsInf>("isinf"),
    unary_entry<fn::IsNan>("isnan"),
    unary_entry<fn::IsNegInf>("isneginf"),
    unary_entry<fn::IsPosInf>("isposinf"),
};
static_assert(std::size(kUnary) == static_cast<size_t>(UnaryOp::Count), "one row per UnaryOp");

}  // namespace

const char* op_name(BinaryOp op) { return row(op).name; }
const char* op_name(UnaryOp op) { return kUnary[static_cast<int>(op)].name; }

Tensor binary(BinaryOp op, const Tensor& a, const Tensor& b) { return row(op).tt(a, b, row(op).name); }
Tensor binary(BinaryOp op, const Tensor& a, Scalar b) { return row(op).ts(a, b, row(op).name); }
Tensor binary(BinaryOp op, Scalar a, const Tensor& b) { return row(op).st(a, b, row(op).name); }

void binary_(BinaryOp op, Tensor& self, const Tensor& other) { row(op).inplace(self, other, row(op).name); }

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

Tensor broadcast_to(const Tensor& t, const Shape& shape) {
    if (t.shape() == shape) return t.clone();
    if (broadcast_shapes(t.shape(), shape) != shape)
        fail<ValueError>("broadcast_to: cannot broadcast a tensor of shape ", shape_str(t.shape()), " to shape ",
                         shape_str(shape));
    Tensor out(t.dtype(), shape, t.device());
    dispatch(t.dtype(), "broadcast_to", [&](auto tag) {
        using T = typename decltype(tag)::type;
        const T* in = t.data<T>();
        T* po = out.data<T>();
        BroadcastWalker<1> walk(shape, {&t.shape()});
        walk.run([&](int64_t o, const std::array<int64_t, 1>& off, int64_t len, const std::array<int64_t, 1>& st) {
            const T* a = in + off[0];
            if (st[0] == 0) {
                for (int64_t j = 0; j < len; ++j) po[o + j] = a[0];
            } else {
                for (int64_t j = 0; j < len; ++j) po[o + j] = a[j * st[0]];
            }
        });
    });
    return out;
}

std::pair<Tensor, Tensor> broadcast(const Tensor& a, const Tensor& b) {
    check_same_device(a, b, "broadcast");
    Shape s = broadcast_shapes(a.shape(), b.shape());
    return {broadcast_to(a, s), broadcast_to(b, s)};
}

Tensor tile_grad(const Tensor& g, const Shape& shape, const Shape& reps) {
    const size_t n = static_cast<size_t>(g.ndim());
    if (shape.size() > n || reps.size() > n)
        fail<ValueError>("TileGrad: shape ", shape_str(shape), " and reps ", shape_str(reps),
                         " have more axes than the gradient of shape ", shape_str(g.shape()));
    Shape in(n, 1), rp(n, 1);
    std::copy(shape.begin(), shape.end(), in.begin() + (n - shape.size()));
    std::copy(reps.begin(), reps.end(), rp.begin() + (n - reps.size()));
    for (size_t i = 0; i < n; ++i)
        if (in[i] < 0 || rp[i] < 0 || in[i] * rp[i] != g.shape()[i])
            fail<ValueError>("TileGrad: a gradient of shape ", shape_str(g.shape()), " is not shape ", shape_str(shape),
                             " tiled ", shape_str(reps), " times");
    Tensor out = Tensor(g.dtype(), in, g.device());
    // g's axis i splits into (copy k, position p): index k * in[i] + p. Walk g over that split
    // shape and add each element into the output position p (stride 0 along the copies).
    Shape split, out_strides;
    Shape cs = contiguous_strides(in);
    for (size_t i = 0; i < n; ++i) {
        split.push_back(rp[i]);
        out_strides.push_back(0);
        split.push_back(in[i]);
        out_strides.push_back(cs[i]);
    }
    dispatch(g.dtype(), "TileGrad", [&](auto tag) {
        using T = typename decltype(tag)::type;
        T* po = out.data<T>();
        const T* pg = g.data<T>();
        std::fill(po, po + out.numel(), T(0));
        BroadcastWalker<1> walk(split, std::array<Shape, 1>{out_strides});
        // Rows may add into the same outputs: each thread adds its block of rows into its own
        // zeroed partial output (allocated before the parallel region), and the partials are
        // summed at the end. Small jobs run on one thread straight into the output.
        auto add_rows = [&](T* target, int64_t lo, int64_t hi) {
            walk.run_rows(lo, hi, [&](int64_t o, const std::array<int64_t, 1>& off, int64_t len,
                                      const std::array<int64_t, 1>& st) {
                T* r = target + off[0];
                const T* a = pg + o;
                if (st[0] == 1) {
                    for (int64_t j = 0; j < len; ++j) r[j] += a[j];
                } else if (st[0] == 0) {
                    T acc = r[0];
                    for (int64_t j = 0; j < len; ++j) acc += a[j];
                    r[0] = acc;
                } else {
                    for (int64_t j = 0; j < len; ++j) r[j * st[0]] += a[j];
                }
            });
        };
        const int64_t rows = walk.rows(), n_out = out.numel();
        const int64_t blocks = std::min<int64_t>(parallel_threads(), rows);
        if (blocks < 2 || g.numel() < 2 * kParallelGrain || n_out * 8 > g.numel()) {
            add_rows(po, 0, rows);
            return;
        }
        Tensor partials(g.dtype(), Shape{(blocks - 1) * n_out}, g.device());
        T* partial = partials.data<T>();
        std::fill(partial, partial + partials.numel(), T(0));
        const int64_t per_block = (rows + blocks - 1) / blocks;
        parallel_for(blocks, [&](int64_t lo, int64_t hi) {
            for (int64_t b = lo; b < hi; ++b)
                add_rows(b == 0 ? po : partial + (b - 1) * n_out, b * per_block,
                         std::min(rows, (b + 1) * per_block));
        }, 1);
        for (int64_t b = 1; b < blocks; ++b) {
            const T* p = partial + (b - 1) * n_out;
            for (int64_t i = 0; i < n_out; ++i) po[i] += p[i];
        }
    });
    out.reshape_(shape);
    return out;
}

Tensor fold_to(const Tensor& g, const Shape& shape) {
    if (g.shape() == shape) return g;
    const size_t n = static_cast<size_t>(g.ndim());
    if (shape.size() > n)
        fail<ValueError>("cannot fold a gradient of shape ", shape_str(g.shape()), " onto shape ", shape_str(shape));
    Shape padded(n - shape.size(), 1);
    padded.insert(padded.end(), shape.begin(), shape.end());
    Shape reps(n);
    for (size_t i = 0; i < n; ++i) reps[i] = padded[i] ? g.shape()[i] / padded[i] : 0;
    Tensor out = tile_grad(g, padded, reps);
    out.reshape_(shape);
    return out;
}

Tensor nonzero(const Tensor& t) {
    const int64_t nd = t.ndim();
    const Tensor flags = t.dtype() == DType::Bool ? t : binary(BinaryOp::NotEqual, t, Scalar::from_int(0));
    const bool* f = flags.data<bool>();
    int64_t count = 0;
    for (int64_t i = 0; i < t.numel(); ++i) count += f[i];
    Tensor out(DType::Int64, Shape{count, nd}, t.device());
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
    return out;
}

Tensor where(const Tensor& cond, const Tensor& a, const Tensor& b) {
    check_same_device(cond, a, "where");
    check_same_device(a, b, "where");
    Shape out_shape = broadcast_shapes(broadcast_shapes(cond.shape(), a.shape()), b.shape());
    DType ct = promote(a.dtype(), b.dtype());
    const Tensor C = cond.dtype() == DType::Bool ? cond : binary(BinaryOp::NotEqual, cond, Scalar::from_int(0));
    const Tensor A = a.dtype() == ct ? a : a.to(ct);
    const Tensor B = b.dtype() == ct ? b : b.to(ct);
    return dispatch(ct, "where", [&](auto tag) {
        using T = typename decltype(tag)::type;
        Tensor out(ct, out_shape, a.device());
        const bool* pc = C.data<bool>();
        const T* pa = A.data<T>();
        const T* pb = B.data<T>();
        T* po = out.data<T>();
        BroadcastWalker<3> walk(out_shape, {&C.shape(), &A.shape(), &B.shape()});
        walk.run([&](int64_t o, const std::array<int64_t, 3>& off, int64_t len,
                     const std::array<int64_t, 3>& st) {
            for (int64_t j = 0; j < len; ++j)
                po[o + j] = pc[off[0] + j * st[0]] ? pa[off[1] + j * st[1]] : pb[off[2] + j * st[2]];
        });
        return out;
    });
}

Tensor clamp(const Tensor& t, Scalar lo, Scalar hi) {
    DType ct = hi.result_type_with(lo.result_type_with(t.dtype()));
    if (ct == DType::Bool) ct = DType::Int64;
    const Tensor A = t.dtype() == ct ? t : t.to(ct);
    return dispatch(ct, "clamp", [&](auto tag) {
        using T = typename decltype(tag)::type;
        const T l = lo.as<T>(), h = hi.as<T>();
        Tensor out(ct, t.shape(), t.device());
        const T* a = A.data<T>();
        T* o = out.data<T>();
        parallel_for(out.numel(), [&](int64_t s, int64_t e) {
            for (int64_t i = s; i < e; ++i) {
                T x = a[i];
                o[i] = fn::is_nan(x) ? x : (x < l ? l : (h < x ? h : x));
            }
        });
        return out;
    });
}

}  // namespace moira
