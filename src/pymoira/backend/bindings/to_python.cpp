// Backend values back to Python; see to_python.hpp.
#include "bindings/to_python.hpp"

#include <nanobind/ndarray.h>

#include <vector>

#include "bindings/dlpack.hpp"

namespace pymoira {

using moira::Tensor;

nb::object wrap_core(Tensor t) { return nb::cast(std::move(t), nb::rv_policy::move); }

nb::object to_numpy(const Tensor& device_tensor, bool copy) {
    // The array keeps a handle to the storage alive. A view is read-only: numpy may not write
    // behind the copy-on-write check (see Note [Views and value semantics]). Values on a device
    // whose memory the host cannot read come over as a copy.
    const Tensor t = device_tensor.to_host();
    const bool fresh = !device_tensor.host_accessible();  // t is a copy of its own already
    Tensor* held = new Tensor(t.raw() == nullptr ? moira::zeros_like(t) : copy && !fresh ? t.clone() : t);
    nb::capsule owner(held, [](void* p) noexcept { delete static_cast<Tensor*>(p); });
    std::vector<size_t> shape(held->shape().begin(), held->shape().end());
    const moira::Shape& strides = held->strides();
    const nb::dlpack::dtype dt = dlpack_dtype(t.dtype());
    if (copy) {
        nb::ndarray<nb::numpy> arr(held->raw(), shape.size(), shape.data(), owner, strides.data(), dt);
        return nb::cast(arr, nb::rv_policy::reference);
    }
    nb::ndarray<nb::numpy, nb::ro> arr(held->raw(), shape.size(), shape.data(), owner, strides.data(), dt);
    return nb::cast(arr, nb::rv_policy::reference);
}

nb::object scalar_to_python(moira::Scalar s) {
    switch (s.kind) {
        case moira::DType::Bool: return nb::bool_(s.i != 0);
        case moira::DType::Int64: return nb::int_(s.i);
        case moira::DType::Complex128: return nb::steal(PyComplex_FromDoubles(s.d, s.im));
        default: return nb::float_(s.d);
    }
}

}  // namespace pymoira
