// GradFn: a native gradient function. A pointer to a C++ routine plus what it saved from the
// forward pass; callable from Python with a backend tensor, and called directly (no Python in
// between) by the backward pass.
//
// Note [What a gradient function saves]
// A GradFn saves backend tensors (handles that share the forward values' storage), the shape of
// its input and one typed payload of its routine's own (Note [Gradient payloads]): never a
// QTensor, so a result and its edges form no reference cycle through a native gradient
// function. The one Python slot, `extra`, is visited by the garbage collector for the rare
// routine that needs a Python object.
#pragma once

#include <nanobind/nanobind.h>

#include <array>

#include "autograd/payload.hpp"
#include "moira.hpp"

namespace pymoira {

namespace nb = nanobind;

struct GradFn {
    using Routine = moira::Tensor (*)(const GradFn& self, const moira::Tensor& g);
    // Adds the contribution straight into the input's gradient `grad` (written in place,
    // copy-on-write) instead of returning it: for contributions that are zero outside one region
    // of the input, such as a split piece's. The backward pass prefers it to `routine`, which
    // must compute the same contribution.
    using Into = void (*)(const GradFn& self, const moira::Tensor& g, moira::Tensor& grad);

    Routine routine = nullptr;
    Into into = nullptr;
    const char* label = "";              // for repr and error messages
    std::array<moira::Tensor, 3> saved;  // forward tensors the formula reads
    moira::Shape shape;                  // the input's shape, where the formula needs it
    Payload held;                        // the routine's own payload: with() and payload()
    nb::object extra;

    GradFn() = default;
    GradFn(Routine r, const char* l) : routine(r), label(l) {}
    GradFn& save(moira::Tensor a) { saved[0] = std::move(a); return *this; }
    GradFn& save(moira::Tensor a, moira::Tensor b) { saved[0] = std::move(a); saved[1] = std::move(b); return *this; }
    GradFn& save(moira::Tensor a, moira::Tensor b, moira::Tensor c) {
        saved[2] = std::move(c);
        return save(std::move(a), std::move(b));
    }
    GradFn& with_shape(moira::Shape s) { shape = std::move(s); return *this; }
    template <class P>
    GradFn& with(P payload) {
        held.emplace(std::move(payload));
        return *this;
    }
    template <class P>
    const P& payload() const {
        return held.get<P>();
    }

    bool valid() const { return routine != nullptr; }
    moira::Tensor operator()(const moira::Tensor& g) const { return routine(*this, g); }
};

// Note [Complex gradients]
// The gradient of a real loss L with respect to a complex z = x + iy is dL/dx + i dL/dy, so
// `z -= lr * z.grad` descends. For w = f(z) with gradient gw, z receives
//     gz = gw * conj(df/dz) + conj(gw) * df/dconj(z)
// (Wirtinger derivatives). A holomorphic f has df/dconj(z) = 0, so gz = gw * conj(f'(z)); every
// such function here has real coefficients, f'(conj z) = conj(f'(z)), so its routine is the real
// formula with the saved values conjugated (`conjugated`): exp gives g * conj(exp z), a product
// g * conj(other). The non-holomorphic ones have routines of their own: abs g z/|z|, angle
// i g z/|z|^2, real g, imag i g, conj conj(g). A real input whose value became complex (promoted
// into a complex product) keeps the real part of its contribution (accumulate_grad), which is
// dL/dx. docs/complex.md derives the rules.
// The factor a gradient multiplies by: the conjugate of a complex tensor, a real tensor itself.
inline moira::Tensor conjugated(const moira::Tensor& t) {
    return moira::is_complex(t.dtype()) ? moira::unary(moira::UnaryOp::Conj, t) : t;
}

// Note [Edge names]
// Edge names are built as prefix + shape + middle + shape + suffix, with either shape absent.
// They are only for people, so the text is made when someone reads GraphNode.name, not when
// the operation records the edge.
struct EdgeName {
    const char* prefix = "";
    const char* middle = "";
    const char* suffix = "";
    moira::Shape first, second;
    bool has_first = false, has_second = false;

    static EdgeName none() { return {}; }
    static EdgeName text(const char* t) { EdgeName n; n.prefix = t; return n; }
    static EdgeName one(const char* prefix, moira::Shape s, const char* suffix = "") {
        EdgeName n;
        n.prefix = prefix;
        n.first = std::move(s);
        n.has_first = true;
        n.middle = suffix;
        return n;
    }
    static EdgeName two(const char* prefix, moira::Shape a, const char* middle, moira::Shape b,
                        const char* suffix = "") {
        EdgeName n{prefix, middle, suffix, std::move(a), std::move(b), true, true};
        return n;
    }
    std::string str() const {
        std::string s = prefix;
        if (has_first) s += moira::shape_str(first);
        s += middle;
        if (has_second) s += moira::shape_str(second);
        return s + suffix;
    }
};

void init_grad_fn(nb::module_& m);

}  // namespace pymoira
