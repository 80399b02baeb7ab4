// Matrix products of QTensors: matmul, which dispatches on the rank, and its three public
// helpers for 2-D matrices and 3-D and 4-D batches, with the gradients of both factors.
//
// Note [Matrix product gradients]
// For C = t1 · t2 with result gradient G: dt1 = G · t2ᴴ and dt2 = t1ᴴ · G, per batch entry (the
// adjoint, conjugate transpose, is the transpose of a real factor; Note [Complex gradients]). Both
// are the same backend product reading a factor as its adjoint, so no transpose is ever materialised and
// each gradient has exactly its factor's shape (no broadcast to fold). Each edge saves the other
// factor's backend tensor. Edges follow each factor's own flag even while NO_GRAD is on
// (Tracking::OwnFlags).
#include <stdexcept>

#include "autograd/record.hpp"
#include "init.hpp"
#include "linalg/matmul.hpp"

namespace pymoira {

using namespace nb::literals;

namespace {

using moira::MatrixRead;
using Product = moira::Tensor (*)(const moira::Tensor&, const moira::Tensor&, MatrixRead, MatrixRead);

template <Product P>
moira::Tensor grad_first(const GradFn& f, const moira::Tensor& g) {
    return P(g, f.saved[0], MatrixRead::Plain, MatrixRead::Adjoint);
}

template <Product P>
moira::Tensor grad_second(const GradFn& f, const moira::Tensor& g) {
    return P(f.saved[0], g, MatrixRead::Adjoint, MatrixRead::Plain);
}

struct ProductNames {
    const char* op;
    const char* first_edge;   // edge-name prefixes
    const char* second_edge;
    const char* first_label;  // GradFn labels
    const char* second_label;
};

constexpr ProductNames kMult2D{"helper_function_matmul2d", "mm t1 ", "mm t2 ", "mult2D grad t1", "mult2D grad t2"};
constexpr ProductNames kBmm{"helper_function_bmm", "bmm t1 ", "bmm t2 ", "bmm grad t1", "bmm grad t2"};
constexpr ProductNames kMatmul4D{"helper_function_matmul4d", "mm t1 ", "mm t2 ", "matmul grad t1", "matmul grad t2"};

// The product and its edges.
template <Product P>
nb::object recorded_product(const QArg& a, const QArg& b, Record& rec, const ProductNames& names) {
    moira::Tensor data = P(a.core(), b.core(), MatrixRead::Plain, MatrixRead::Plain);
    if (rec.wants_edge(*a.q))
        rec.edge(a.obj, std::move(GradFn(&grad_first<P>, names.first_label).save(b.core())),
                 EdgeName::one(names.first_edge, a->shape(), " grad"));
    if (rec.wants_edge(*b.q))
        rec.edge(b.obj, std::move(GradFn(&grad_second<P>, names.second_label).save(a.core())),
                 EdgeName::one(names.second_edge, b->shape(), " grad"));
    return rec.finish(std::move(data));
}

}  // namespace

nb::object matmul_2d(nb::handle t1, nb::handle t2) {
    QArg a(t1, kMult2D.op), b(t2, kMult2D.op);
    Record rec(Tracking::OwnFlags, {a.q, b.q});
    return recorded_product<&moira::mult2D>(a, b, rec, kMult2D);
}

nb::object matmul_bmm(nb::handle t1, nb::handle t2) {
    QArg a(t1, kBmm.op), b(t2, kBmm.op);
    Record rec(Tracking::OwnFlags, {a.q, b.q});
    if (a.core().ndim() != 3 || b.core().ndim() != 3) return nb::none();
    return recorded_product<&moira::bmm>(a, b, rec, kBmm);
}

nb::object matmul_4d(nb::handle t1, nb::handle t2) {
    QArg a(t1, kMatmul4D.op), b(t2, kMatmul4D.op);
    Record rec(Tracking::OwnFlags, {a.q, b.q});
    return recorded_product<&moira::matmul>(a, b, rec, kMatmul4D);
}

nb::object matmul_any(nb::handle t1, nb::handle t2) {
    QArg a(t1, "matmul"), b(t2, "matmul");
    const int64_t r1 = a.core().ndim(), r2 = b.core().ndim();
    if (r1 == 3 && r2 == 3) return matmul_bmm(t1, t2);
    if (r1 == 4 && r2 == 4) return matmul_4d(t1, t2);
    if (r1 == 2 && r2 == 2) return matmul_2d(t1, t2);
    throw std::runtime_error("Matmul only supports 2d matrix product or 4d batch matrix product.");
}

void init_matmul(nb::module_& m) {
    m.def("matmul", &matmul_any, nb::sig("def matmul(t1: QTensor, t2: QTensor) -> QTensor"), "t1"_a, "t2"_a,
          "Matrix multiplication of two 2d, 3d or 4d tensors (the same rank for both): [n, k] x [k, m], "
          "[b, n, k] x [b, k, m] or [a, b, n, k] x [a, b, k, m].");
    m.def("helper_function_matmul2d", &matmul_2d,
          nb::sig("def helper_function_matmul2d(t1: QTensor, t2: QTensor) -> QTensor"), "t1"_a, "t2"_a,
          "Matrix multiplication of two 2d tensors: [n, k] x [k, m] -> [n, m].");
    m.def("helper_function_bmm", &matmul_bmm,
          nb::sig("def helper_function_bmm(t1: QTensor, t2: QTensor) -> QTensor | None"), "t1"_a, "t2"_a,
          "Batch matrix multiplication of two 3d tensors: [b, n, k] x [b, k, m] -> [b, n, m]; None when the "
          "inputs are not both 3d.");
    m.def("helper_function_matmul4d", &matmul_4d,
          nb::sig("def helper_function_matmul4d(t1: QTensor, t2: QTensor) -> QTensor"), "t1"_a, "t2"_a,
          "Batch matrix multiplication of two 4d tensors: [a, b, n, k] x [a, b, k, m] -> [a, b, n, m].");
}

}  // namespace pymoira
