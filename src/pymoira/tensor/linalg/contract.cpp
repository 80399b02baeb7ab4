// einsum and tensordot: contractions of tensors named by index labels, with numpy's semantics and
// gradients (each step below is an operation with its own edge, so the gradient of a contraction
// is the contraction of its gradients).
//
// Note [Contracting by labels]
// Every axis carries a label: a letter, or one of the broadcast axes that `...` stands for. An
// operand first takes the diagonal of a label it repeats (a strided view) and sums out the labels
// nobody else needs. Then operands are contracted two at a time, the pair whose result is
// smallest first (greedy, as numpy's optimize="greedy"): labels both hold that are still needed
// become batch axes, the others are summed, and the pair is one batched matrix product of the
// operands permuted to [batch, free, summed] and [batch, summed, free]. A pair in which one side
// is a small matrix acting on axes of the other ("zb,abc->azc", or with a shared batch label
// "kzb,kabc->kazc") is instead one pass of the gate kernel (Note [Applying a gate]), which reads
// and writes each element of the large side once. The last operand is permuted (a view) into
// the output's order. A contraction over every label has shape [1], as the framework's
// whole-tensor reductions do (numpy's is 0-d).
#include <nanobind/stl/string.h>

#include <algorithm>
#include <limits>
#include <numeric>
#include <string>
#include <vector>

#include "autograd/record.hpp"
#include "init.hpp"
#include "linalg/matmul.hpp"

namespace pymoira {

using moira::Shape;
using moira::Tensor;
using namespace nb::literals;

namespace {

using Labels = std::vector<int>;

// Letters are labels 0-51 (upper case first, numpy's order for an implicit output); the
// broadcast axes of `...` are 52, 53, ... counted from the left of the broadcast shape.
constexpr int kEllipsisLabel = 52;

int letter_label(char c) {
    if (c >= 'A' && c <= 'Z') return c - 'A';
    if (c >= 'a' && c <= 'z') return 26 + (c - 'a');
    return -1;
}

std::string label_text(int l) {
    if (l < 26) return std::string(1, char('A' + l));
    if (l < kEllipsisLabel) return std::string(1, char('a' + l - 26));
    return "...";
}

struct Operand {
    nb::object t;
    Labels labels;
    const Shape& shape() const { return qtensor_ref(t, "einsum").core->shape(); }
};

// ---- steps with edges ----

// One step of a contraction: data computed from x, with an edge to x when x tracks.
nb::object step(nb::handle x, Tensor data, GradFn fn) {
    QArg a(x, "einsum");
    Record rec(Tracking::Combined, {a.q});
    if (rec.wants_edge(*a.q)) rec.edge(a.obj, std::move(fn), EdgeName::text("einsum grad"));
    return rec.finish(std::move(data));
}

struct Permutation {
    std::vector<int64_t> inverse;
};
Tensor permute_grad(const GradFn& f, const Tensor& g) { return moira::permute(g, f.payload<Permutation>().inverse); }

nb::object permuted(nb::handle x, const std::vector<int64_t>& perm) {
    bool identity = true;
    for (size_t i = 0; i < perm.size(); ++i) identity = identity && perm[i] == int64_t(i);
    if (identity) return nb::borrow(x);
    std::vector<int64_t> inverse(perm.size());
    for (size_t i = 0; i < perm.size(); ++i) inverse[static_cast<size_t>(perm[i])] = int64_t(i);
    const Tensor& t = *qtensor_ref(x, "einsum").core;
    return step(x, moira::permute(t, perm), GradFn(&permute_grad, "einsum").with(Permutation{inverse}));
}

Tensor reshape_grad(const GradFn& f, const Tensor& g) { return moira::reshape(g, f.shape); }

nb::object reshaped(nb::handle x, const Shape& shape) {
    const Tensor& t = *qtensor_ref(x, "einsum").core;
    if (t.shape() == shape) return nb::borrow(x);
    return step(x, moira::reshape(t, shape), GradFn(&reshape_grad, "einsum").with_shape(t.shape()));
}

Tensor broadcast_grad(const GradFn& f, const Tensor& g) { return moira::fold_to(g, f.shape); }

nb::object broadcast(nb::handle x, const Shape& shape) {
    const Tensor& t = *qtensor_ref(x, "einsum").core;
    if (t.shape() == shape) return nb::borrow(x);
    return step(x, moira::broadcast_to(t, shape), GradFn(&broadcast_grad, "einsum").with_shape(t.shape()));
}

struct SummedAxis {
    int64_t axis;
};
Tensor sum_grad(const GradFn& f, const Tensor& g) {
    Shape kept = f.shape;
    kept[static_cast<size_t>(f.payload<SummedAxis>().axis)] = 1;
    return moira::broadcast_to(moira::reshape(g, kept), f.shape);
}

nb::object summed(nb::handle x, int64_t axis) {
    const Tensor& t = *qtensor_ref(x, "einsum").core;
    Tensor r = moira::sum(t, axis, false);
    if (t.ndim() == 1) r = moira::reshape(r, Shape{});
    return step(x, std::move(r), GradFn(&sum_grad, "einsum").with_shape(t.shape()).with(SummedAxis{axis}));
}

// The diagonal of repeated labels: a strided view; its gradient is g written into that view of
// zeros.
struct DiagonalView {
    Shape shape, strides;  // strides of the view over a contiguous tensor of the input's shape
};
Tensor diagonal_grad(const GradFn& f, const Tensor& g) {
    const DiagonalView& d = f.payload<DiagonalView>();
    Tensor out = moira::zeros(f.shape, g.device(), g.dtype());
    moira::copy_elements(out.view(d.shape, d.strides, 0), g);
    return out;
}

// ---- the gate step ----

struct GateAxes {
    std::vector<int64_t> axes;  // of the large operand, replaced in place by the matrix's rows
    int64_t batch_axis;         // -1: one matrix for all
};

// The gradient of the large operand: the same kernel with each matrix's adjoint. saved: M.
Tensor gate_state_grad(const GradFn& f, const Tensor& g) {
    const GateAxes& a = f.payload<GateAxes>();
    return moira::apply_matrix(f.saved[0], g, a.axes, a.batch_axis, true);
}

// The gradient of M: g's fibres along the gate axes times the conjugates of x's, summed over the
// other positions (one pass of the gate entry). saved: x.
Tensor gate_matrix_grad(const GradFn& f, const Tensor& g) {
    const GateAxes& a = f.payload<GateAxes>();
    return moira::gate_outer(g, f.saved[0], a.axes, a.batch_axis);
}

// M ([K,] Z, C) applied along `axes` of x.
nb::object gate_step(nb::handle m, nb::handle x, const GateAxes& a) {
    QArg qm(m, "einsum"), qx(x, "einsum");
    Tensor r = moira::apply_matrix(qm.core(), qx.core(), a.axes, a.batch_axis, false);
    Record rec(Tracking::Combined, {qm.q, qx.q});
    if (rec.wants_edge(*qm.q))
        rec.edge(qm.obj, GradFn(&gate_matrix_grad, "einsum").save(qx.core()).with(a), EdgeName::text("einsum grad"));
    if (rec.wants_edge(*qx.q))
        rec.edge(qx.obj, GradFn(&gate_state_grad, "einsum").save(qm.core()).with(a), EdgeName::text("einsum grad"));
    return rec.finish(std::move(r));
}

// ---- the plan ----

int64_t position(const Labels& ls, int l) {
    return std::find(ls.begin(), ls.end(), l) - ls.begin();
}
bool holds(const Labels& ls, int l) { return std::find(ls.begin(), ls.end(), l) != ls.end(); }

class Contraction {
  public:
    Contraction(std::vector<Operand> ops, Labels output, std::vector<int64_t> sizes)
        : ops_(std::move(ops)), output_(std::move(output)), sizes_(std::move(sizes)) {}

    nb::object run() {
        for (size_t i = 0; i < ops_.size(); ++i) prepare(i);
        while (ops_.size() > 1) {
            auto [i, j] = cheapest_pair();
            Operand r = contract(i, j);
            ops_.erase(ops_.begin() + static_cast<std::ptrdiff_t>(j));
            ops_[i] = std::move(r);
            prepare(i);
        }
        Operand& last = ops_[0];
        std::vector<int64_t> perm;
        for (int l : output_) perm.push_back(position(last.labels, l));
        nb::object out = permuted(last.t, perm);
        Shape shape;
        for (int l : output_) shape.push_back(sizes_[static_cast<size_t>(l)]);
        if (shape.empty()) shape.push_back(1);  // a full contraction is [1], as whole-tensor sums are
        if (qtensor_ref(out, "einsum").core->ndim() != int64_t(shape.size())) return reshaped(out, shape);
        return broadcast(out, shape);  // broadcast axes of length 1 in every operand stay 1
    }

  private:
    // Whether a label is needed outside operand `skip` (by the output or another operand).
    bool needed(int l, size_t skip) const {
        if (holds(output_, l)) return true;
        for (size_t k = 0; k < ops_.size(); ++k)
            if (k != skip && holds(ops_[k].labels, l)) return true;
        return false;
    }

    // Diagonals of repeated labels, then sums over the labels nobody else needs.
    void prepare(size_t i) {
        Operand& o = ops_[i];
        Labels unique;
        for (int l : o.labels)
            if (!holds(unique, l)) unique.push_back(l);
        if (unique.size() != o.labels.size()) {
            const Tensor& t = *qtensor_ref(o.t, "einsum").core;
            const Shape dense = moira::contiguous_strides(t.shape());
            Shape shape, strides, dstrides;
            for (int l : unique) {
                int64_t s = 0, ds = 0, len = 0;
                for (size_t a = 0; a < o.labels.size(); ++a)
                    if (o.labels[a] == l) {
                        s += t.strides()[a];
                        ds += dense[a];
                        len = t.shape()[a];
                    }
                shape.push_back(len);
                strides.push_back(s);
                dstrides.push_back(ds);
            }
            o.t = step(o.t, t.view(shape, strides, t.offset()),
                       GradFn(&diagonal_grad, "einsum").with_shape(t.shape()).with(DiagonalView{shape, dstrides}));
            o.labels = unique;
        }
        for (size_t a = o.labels.size(); a-- > 0;)
            if (!needed(o.labels[a], i)) {
                o.t = summed(o.t, int64_t(a));
                o.labels.erase(o.labels.begin() + static_cast<std::ptrdiff_t>(a));
            }
    }

    double size_of(const Labels& ls) const {
        double n = 1;
        for (int l : ls) n *= double(sizes_[static_cast<size_t>(l)]);
        return n;
    }

    // The labels the contraction of operands i and j keeps.
    Labels kept(size_t i, size_t j) const {
        Labels out;
        for (size_t s : {i, j})
            for (int l : ops_[s].labels) {
                if (holds(out, l)) continue;
                bool other = holds(output_, l);
                for (size_t k = 0; k < ops_.size() && !other; ++k)
                    if (k != i && k != j && holds(ops_[k].labels, l)) other = true;
                if (other || !holds(ops_[s == i ? j : i].labels, l)) out.push_back(l);
            }
        return out;
    }

    std::pair<size_t, size_t> cheapest_pair() const {
        std::pair<size_t, size_t> best{0, 1};
        double best_size = std::numeric_limits<double>::infinity();
        for (size_t i = 0; i < ops_.size(); ++i)
            for (size_t j = i + 1; j < ops_.size(); ++j) {
                const double s = size_of(kept(i, j));
                if (s < best_size) {
                    best_size = s;
                    best = {i, j};
                }
            }
        return best;
    }

    // Operands i and j as one.
    Operand contract(size_t i, size_t j) {
        const Operand& a = ops_[i];
        const Operand& b = ops_[j];
        Labels batch, summed_labels, free_a, free_b;
        const Labels keep = kept(i, j);
        for (int l : a.labels) {
            if (!holds(b.labels, l)) free_a.push_back(l);
            else if (holds(keep, l)) batch.push_back(l);
            else summed_labels.push_back(l);
        }
        for (int l : b.labels)
            if (!holds(a.labels, l)) free_b.push_back(l);
        Operand r;
        if (gate(a, b, batch, summed_labels, free_a, r) || gate(b, a, batch, summed_labels, free_b, r)) return r;
        return product(a, b, batch, summed_labels, free_a, free_b);
    }

    // m acting on x as a gate: m's labels are at most one batch label, the summed labels (of x's
    // axes, at most kMaxGateSide elements together) and as many free labels, each replacing one
    // summed axis of x (one summed axis: any single free label of at most kMaxGateSide).
    bool gate(const Operand& m, const Operand& x, const Labels& batch, const Labels& summed_labels,
              const Labels& free_m, Operand& r) {
        if (batch.size() > 1 || summed_labels.empty() || free_m.size() != summed_labels.size()) return false;
        if (batch.size() == 1 && sizes_[static_cast<size_t>(batch[0])] != x.shape()[position(x.labels, batch[0])])
            return false;
        // The summed axes in x's order, each with the free label that replaces it.
        Labels in_x;
        for (int l : x.labels)
            if (holds(summed_labels, l)) in_x.push_back(l);
        double z = 1, c = 1;
        for (size_t k = 0; k < in_x.size(); ++k) {
            z *= double(sizes_[static_cast<size_t>(free_m[k])]);
            c *= double(sizes_[static_cast<size_t>(in_x[k])]);
            if (in_x.size() > 1 && sizes_[static_cast<size_t>(free_m[k])] != sizes_[static_cast<size_t>(in_x[k])])
                return false;
        }
        if (z > double(moira::kMaxGateSide) || c > double(moira::kMaxGateSide)) return false;
        for (const Operand* o : {&m, &x})  // broadcast axes (length 1 against another's) go the general way
            for (int l : o->labels)
                if (o->shape()[position(o->labels, l)] != sizes_[static_cast<size_t>(l)]) return false;
        // m as [K,] Z, C: batch label, free labels, summed labels in x's order.
        std::vector<int64_t> perm;
        for (int l : batch) perm.push_back(position(m.labels, l));
        for (int l : free_m) perm.push_back(position(m.labels, l));
        for (int l : in_x) perm.push_back(position(m.labels, l));
        Shape mshape;
        if (!batch.empty()) mshape.push_back(sizes_[static_cast<size_t>(batch[0])]);
        mshape.push_back(int64_t(z));
        mshape.push_back(int64_t(c));
        nb::object matrix = reshaped(permuted(m.t, perm), mshape);
        GateAxes axes{{}, batch.empty() ? -1 : position(x.labels, batch[0])};
        r.labels = x.labels;
        for (size_t k = 0; k < in_x.size(); ++k) {
            const int64_t p = position(x.labels, in_x[k]);
            axes.axes.push_back(p);
            r.labels[static_cast<size_t>(p)] = free_m[k];
        }
        r.t = gate_step(matrix, x.t, axes);
        return true;
    }

    // [batch, free_a, summed] x [batch, summed, free_b] as one batched product.
    Operand product(const Operand& a, const Operand& b, const Labels& batch, const Labels& summed_labels,
                    const Labels& free_a, const Labels& free_b) {
        auto arrange = [&](const Operand& o, const Labels& first, const Labels& second, const Labels& third) {
            std::vector<int64_t> perm;
            Shape full;
            for (const Labels* group : {&first, &second, &third})
                for (int l : *group) {
                    perm.push_back(position(o.labels, l));
                    full.push_back(sizes_[static_cast<size_t>(l)]);
                }
            return broadcast(permuted(o.t, perm), full);  // broadcast axes of length 1 stretch
        };
        auto count = [&](const Labels& ls) {
            int64_t n = 1;
            for (int l : ls) n *= sizes_[static_cast<size_t>(l)];
            return n;
        };
        const int64_t nb_ = count(batch), na = count(free_a), nc = count(summed_labels), nbf = count(free_b);
        nb::object left = reshaped(arrange(a, batch, free_a, summed_labels), Shape{nb_, na, nc});
        nb::object right = reshaped(arrange(b, batch, summed_labels, free_b), Shape{nb_, nc, nbf});
        nb::object prod = matmul_bmm(left, right);
        Operand r;
        Shape shape;
        for (const Labels* group : {&batch, &free_a, &free_b})
            for (int l : *group) {
                r.labels.push_back(l);
                shape.push_back(sizes_[static_cast<size_t>(l)]);
            }
        r.t = reshaped(prod, shape);
        return r;
    }

    std::vector<Operand> ops_;
    Labels output_;
    std::vector<int64_t> sizes_;  // per label
};

// ---- subscripts ----

[[noreturn]] void bad(const std::string& subscripts, const std::string& what) {
    moira::fail<moira::ValueError>("einsum: ", what, " in subscripts '", subscripts, "'");
}

// One term's labels; `ellipsis` set where `...` stands (once at most).
Labels parse_term(const std::string& s, const std::string& term, int64_t& ellipsis_at) {
    Labels out;
    ellipsis_at = -1;
    for (size_t i = 0; i < term.size(); ++i) {
        const char c = term[i];
        if (c == '.') {
            if (term.compare(i, 3, "...") != 0) bad(s, "a '.' that is not part of '...'");
            if (ellipsis_at >= 0) bad(s, "'...' twice in one term");
            ellipsis_at = int64_t(out.size());
            i += 2;
            continue;
        }
        const int l = letter_label(c);
        if (l < 0) bad(s, std::string("the character '") + c + "' (labels are letters)");
        out.push_back(l);
    }
    return out;
}

nb::object einsum_of(const std::string& subscripts, const std::vector<nb::object>& tensors) {
    std::string s;
    for (char c : subscripts)
        if (c != ' ') s += c;
    const size_t arrow = s.find("->");
    if (arrow != std::string::npos && s.find("->", arrow + 2) != std::string::npos) bad(subscripts, "two '->'");
    const std::string lhs = s.substr(0, arrow);
    std::vector<std::string> terms(1);
    for (char c : lhs) {
        if (c == ',') terms.emplace_back();
        else terms.back() += c;
    }
    if (terms.size() != tensors.size())
        moira::fail<moira::ValueError>("einsum: subscripts '", subscripts, "' name ", terms.size(), " operand",
                                       terms.size() == 1 ? "" : "s", " but ", tensors.size(), " were given");
    // Labels per operand, `...` expanded into broadcast labels aligned on the right.
    std::vector<Labels> parsed(terms.size());
    std::vector<int64_t> ell_at(terms.size()), ell_len(terms.size(), 0);
    int64_t broadcast_rank = 0;
    for (size_t k = 0; k < terms.size(); ++k) {
        parsed[k] = parse_term(subscripts, terms[k], ell_at[k]);
        const int64_t nd = qtensor_ref(tensors[k], "einsum").core->ndim();
        const int64_t named = int64_t(parsed[k].size());
        if ((ell_at[k] < 0 && named != nd) || named > nd)
            moira::fail<moira::ValueError>("einsum: operand ", k, " has ", nd, " axes but its subscripts '", terms[k],
                                           "' name ", named);
        if (ell_at[k] >= 0) ell_len[k] = nd - named;
        broadcast_rank = std::max(broadcast_rank, ell_len[k]);
    }
    std::vector<int64_t> sizes(static_cast<size_t>(kEllipsisLabel + broadcast_rank), -1);
    std::vector<int64_t> size_from(sizes.size(), -1);
    std::vector<Operand> ops;
    std::vector<int> count(sizes.size(), 0);
    for (size_t k = 0; k < terms.size(); ++k) {
        Labels ls;
        for (int64_t i = 0; i < int64_t(parsed[k].size()); ++i) {
            if (i == ell_at[k])
                for (int64_t e = 0; e < ell_len[k]; ++e) ls.push_back(int(kEllipsisLabel + broadcast_rank - ell_len[k] + e));
            ls.push_back(parsed[k][static_cast<size_t>(i)]);
        }
        if (ell_at[k] == int64_t(parsed[k].size()))
            for (int64_t e = 0; e < ell_len[k]; ++e) ls.push_back(int(kEllipsisLabel + broadcast_rank - ell_len[k] + e));
        const Shape& shape = qtensor_ref(tensors[k], "einsum").core->shape();
        Labels seen;
        for (size_t a = 0; a < ls.size(); ++a) {
            const size_t l = static_cast<size_t>(ls[a]);
            if (!holds(seen, ls[a])) ++count[l];
            seen.push_back(ls[a]);
            const int64_t len = shape[a];
            if (sizes[l] < 0 || (ls[a] >= kEllipsisLabel && sizes[l] == 1)) {
                if (sizes[l] < 0 || len != 1) {
                    sizes[l] = len;
                    size_from[l] = int64_t(k);
                }
            } else if (len != sizes[l] && !(ls[a] >= kEllipsisLabel && len == 1)) {
                moira::fail<moira::ValueError>("einsum: subscript '", label_text(ls[a]), "' has length ", sizes[l],
                                               " in operand ", size_from[l], " and ", len, " in operand ", k);
            }
        }
        ops.push_back({tensors[k], std::move(ls)});
    }
    Labels output;
    if (arrow != std::string::npos) {
        int64_t out_ell = -1;
        const Labels named = parse_term(subscripts, s.substr(arrow + 2), out_ell);
        for (size_t i = 0; i <= named.size(); ++i) {
            if (int64_t(i) == out_ell)
                for (int64_t e = 0; e < broadcast_rank; ++e) output.push_back(int(kEllipsisLabel + e));
            if (i == named.size()) break;
            const int l = named[i];
            if (holds(output, l)) bad(subscripts, "the output label '" + label_text(l) + "' twice");
            if (count[static_cast<size_t>(l)] == 0)
                bad(subscripts, "the output label '" + label_text(l) + "', which no operand has");
            output.push_back(l);
        }
    } else {
        for (int64_t e = 0; e < broadcast_rank; ++e) output.push_back(int(kEllipsisLabel + e));
        for (int l = 0; l < kEllipsisLabel; ++l)
            if (count[static_cast<size_t>(l)] == 1) {
                // once over all operands, and not repeated inside its operand
                int times = 0;
                for (const Operand& o : ops) times += int(std::count(o.labels.begin(), o.labels.end(), l));
                if (times == 1) output.push_back(l);
            }
    }
    for (int64_t& n : sizes) n = std::max<int64_t>(n, 0);
    return Contraction(std::move(ops), std::move(output), std::move(sizes)).run();
}

// tensordot's axes: an int n (the last n of a with the first n of b) or a pair of sequences.
std::pair<std::vector<int64_t>, std::vector<int64_t>> tensordot_axes(nb::handle axes, int64_t na, int64_t nb_) {
    std::vector<int64_t> ax, bx;
    // An axis number; integers beyond int64 are out of range like any other.
    auto number = [](nb::handle h) {
        try {
            return int_arg(h, "tensordot", "axes must be integers");
        } catch (const moira::OverflowError&) {
            moira::fail<moira::ValueError>("tensordot: axis ", py_text(h), " is out of range");
        }
    };
    auto wrap = [](int64_t v, int64_t nd, const char* which) {
        if (v < -nd || v >= nd)
            moira::fail<moira::ValueError>("tensordot: axis ", v, " is out of range for ", which, " of ", nd, " axes");
        return v < 0 ? v + nd : v;
    };
    if (PyLong_Check(axes.ptr())) {
        const int64_t n = number(axes);
        if (n < 0 || n > na || n > nb_)
            moira::fail<moira::ValueError>("tensordot: axes=", n, " is out of range for operands of ", na, " and ",
                                           nb_, " axes");
        for (int64_t i = 0; i < n; ++i) {
            ax.push_back(na - n + i);
            bx.push_back(i);
        }
        return {ax, bx};
    }
    nb::object seq = nb::steal(PySequence_Fast(axes.ptr(), "tensordot: axes must be an int or a pair of sequences"));
    if (!seq.is_valid()) throw nb::python_error();
    if (PySequence_Fast_GET_SIZE(seq.ptr()) != 2)
        moira::fail<moira::ValueError>("tensordot: axes must be an int or a pair of sequences");
    auto read = [&](nb::handle h, int64_t nd, const char* which) {
        std::vector<int64_t> out;
        if (PyLong_Check(h.ptr())) {
            out.push_back(wrap(number(h), nd, which));
            return out;
        }
        nb::object items = nb::steal(PySequence_Fast(h.ptr(), "tensordot: axes must be an int or a pair of sequences"));
        if (!items.is_valid()) throw nb::python_error();
        for (Py_ssize_t i = 0; i < PySequence_Fast_GET_SIZE(items.ptr()); ++i)
            out.push_back(wrap(number(PySequence_Fast_GET_ITEM(items.ptr(), i)), nd, which));
        return out;
    };
    ax = read(PySequence_Fast_GET_ITEM(seq.ptr(), 0), na, "the first operand");
    bx = read(PySequence_Fast_GET_ITEM(seq.ptr(), 1), nb_, "the second operand");
    if (ax.size() != bx.size())
        moira::fail<moira::ValueError>("tensordot: ", ax.size(), " axes of the first operand against ", bx.size(),
                                       " of the second");
    return {ax, bx};
}

nb::object tensordot(nb::handle a, nb::handle b, nb::handle axes) {
    const Tensor& ta = *qtensor_ref(a, "tensordot").core;
    const Tensor& tb = *qtensor_ref(b, "tensordot").core;
    auto [ax, bx] = tensordot_axes(axes, ta.ndim(), tb.ndim());
    // Labels: a's axes 0..na-1, b's summed axes take a's labels, b's others new ones.
    Labels la(static_cast<size_t>(ta.ndim())), lb(static_cast<size_t>(tb.ndim()), -1), output;
    std::iota(la.begin(), la.end(), 0);
    for (size_t i = 0; i < ax.size(); ++i) {
        if (std::count(ax.begin(), ax.end(), ax[i]) > 1 || std::count(bx.begin(), bx.end(), bx[i]) > 1)
            moira::fail<moira::ValueError>("tensordot: an axis is summed twice");
        if (ta.shape()[ax[i]] != tb.shape()[bx[i]])
            moira::fail<moira::ValueError>("tensordot: axis ", ax[i], " of the first operand has length ",
                                           ta.shape()[ax[i]], " and axis ", bx[i], " of the second ", tb.shape()[bx[i]]);
        lb[static_cast<size_t>(bx[i])] = int(ax[i]);
    }
    int next = int(ta.ndim());
    for (int& l : lb)
        if (l < 0) l = next++;
    std::vector<int64_t> sizes(static_cast<size_t>(next));
    for (int64_t d = 0; d < ta.ndim(); ++d) {
        sizes[static_cast<size_t>(d)] = ta.shape()[d];
        if (std::find(ax.begin(), ax.end(), d) == ax.end()) output.push_back(int(d));
    }
    for (int64_t d = 0; d < tb.ndim(); ++d) {
        sizes[static_cast<size_t>(lb[static_cast<size_t>(d)])] = tb.shape()[d];
        if (std::find(bx.begin(), bx.end(), d) == bx.end()) output.push_back(lb[static_cast<size_t>(d)]);
    }
    return Contraction({{nb::borrow(a), la}, {nb::borrow(b), lb}}, output, sizes).run();
}

}  // namespace

void init_contract(nb::module_& m) {
    m.def(
        "einsum",
        [](const std::string& subscripts, nb::args operands) {
            std::vector<nb::object> ts;
            for (nb::handle o : operands) {
                qtensor_ref(o, "einsum");
                ts.push_back(nb::borrow(o));
            }
            return einsum_of(subscripts, ts);
        },
        nb::sig("def einsum(subscripts: str, *operands: QTensor) -> QTensor"), "subscripts"_a, "operands"_a,
        "Contraction by index labels, as numpy's einsum: 'ij,jk->ik', implicit output (labels that occur once, "
        "sorted), '...' for broadcast axes, repeated labels for diagonals and traces. Three or more operands are "
        "contracted in pairs, the smallest intermediate first; a small matrix acting on axes of a large tensor "
        "('zb,abc->azc') is one pass over it. Differentiable in every operand.");
    m.def("tensordot", &tensordot, nb::sig("def tensordot(a: QTensor, b: QTensor, axes: int | Sequence[int] | "
                                           "Sequence[Sequence[int]] = 2) -> QTensor"),
          "a"_a, "b"_a, "axes"_a = 2,
          "Sum of products over axes, as numpy's tensordot: axes=n pairs the last n axes of a with the first n of "
          "b; axes=(a_axes, b_axes) pairs them explicitly. The result has a's other axes, then b's.");
}

}  // namespace pymoira
