// DLPack export and import through nanobind's ndarray; see dlpack.hpp.
#include "bindings/dlpack.hpp"

#include <nanobind/ndarray.h>

#include <string>
#include <vector>

namespace pymoira {

using moira::DType;
using moira::Tensor;

nb::dlpack::dtype dlpack_dtype(DType t) {
    const moira::DTypeInfo& info = moira::dtype_info(t);
    nb::dlpack::dtype dt;
    dt.code = info.dlpack_code;
    dt.bits = static_cast<uint8_t>(8 * info.itemsize);
    dt.lanes = 1;
    return dt;
}

namespace {

DType dtype_from_dlpack(nb::dlpack::dtype dt) {
    for (size_t i = 0; i < moira::kDTypeCount; ++i)
        if (dt == dlpack_dtype(static_cast<DType>(i))) return static_cast<DType>(i);
    static const char* kCodes[] = {"int", "uint", "float", "opaque handle", "bfloat", "complex", "bool"};
    std::string code = dt.code < 7 ? kCodes[dt.code] : "code " + std::to_string(dt.code);
    moira::fail<moira::TypeError>("from_dlpack: cannot share memory of element type ", code, int(dt.bits),
                                  dt.lanes != 1 ? " with lanes" : "",
                                  ": pymoira holds bool, int64, float32, float64, complex64 and complex128 (convert it "
                                  "first)");
}

// Note [Versioned DLPack capsules]
// nanobind's ndarray makes the original (unversioned) DLPack capsule, which has no way to say
// whether the memory may be written; numpy therefore treats arrays made from it as read-only.
// A consumer that asks for version 1 (numpy 2 does) gets a versioned capsule made here, which
// says the memory is writable, so writes through numpy reach the tensor as they do through any
// other consumer. The capsule follows the protocol: named "dltensor_versioned", renamed by the
// consumer that takes it, and its destructor calls the deleter only when no consumer took it.
struct VersionedManagedTensor {
    struct {
        uint32_t major = 1, minor = 0;
    } version;
    void* manager_ctx = nullptr;
    void (*deleter)(VersionedManagedTensor*) = nullptr;
    uint64_t flags = 0;  // bit 0: read-only, bit 1: copied
    nb::dlpack::dltensor dl_tensor;
};

// What a versioned capsule owns: a handle to the storage and the shape and strides arrays.
struct VersionedExport {
    VersionedManagedTensor managed;
    Tensor held;
    std::vector<int64_t> shape, strides;
};

void delete_versioned(VersionedManagedTensor* m) { delete static_cast<VersionedExport*>(m->manager_ctx); }

void versioned_capsule_destructor(PyObject* capsule) {
    if (!PyCapsule_IsValid(capsule, "dltensor_versioned")) return;  // taken by a consumer
    auto* m = static_cast<VersionedManagedTensor*>(PyCapsule_GetPointer(capsule, "dltensor_versioned"));
    if (m && m->deleter) m->deleter(m);
}

nb::object versioned_capsule(const Tensor& t, bool copied) {
    auto* e = new VersionedExport{};
    e->held = t;
    e->shape.assign(t.shape().begin(), t.shape().end());
    e->strides.assign(t.strides().begin(), t.strides().end());
    VersionedManagedTensor& m = e->managed;
    m.manager_ctx = e;
    m.deleter = &delete_versioned;
    m.flags = copied ? 2 : 0;
    m.dl_tensor.data = t.raw();
    m.dl_tensor.device = {int32_t(nb::device::cpu::value), 0};
    m.dl_tensor.ndim = static_cast<int32_t>(e->shape.size());
    m.dl_tensor.dtype = dlpack_dtype(t.dtype());
    m.dl_tensor.shape = e->shape.data();
    m.dl_tensor.strides = e->strides.data();
    PyObject* capsule = PyCapsule_New(&m, "dltensor_versioned", &versioned_capsule_destructor);
    if (!capsule) {
        delete e;
        throw nb::python_error();
    }
    return nb::steal(capsule);
}

// Kernels read bool elements as 0 or 1 (counts, compactions); a producer may hold other nonzero
// bytes as true (a byte array viewed as bool). Such memory cannot be shared: it is copied as 0/1.
bool bytes_are_bools(const uint8_t* p, size_t n) {
    uint8_t any = 0;
    for (size_t i = 0; i < n; ++i) any |= p[i];
    return any <= 1;
}

// A contiguous copy of the bool tensor t over the `nbytes` bytes at `base`, its true bytes made 1
// before any kernel reads them as bool (a bool byte other than 0 or 1 is undefined to load).
Tensor normalized_bools(const Tensor& t, const uint8_t* base, size_t nbytes) {
    auto storage = moira::Storage::allocate(nbytes, moira::kCPU);
    auto* p = static_cast<uint8_t*>(storage->data());
    for (size_t i = 0; i < nbytes; ++i) p[i] = base[i] != 0;
    return Tensor::wrap(std::move(storage), DType::Bool, t.shape(), t.strides(), t.offset()).contiguous();
}

// Keeps the producer's array alive until the last tensor over its memory goes.
void release_array(void* p) {
    nb::gil_scoped_acquire gil;
    delete static_cast<nb::ndarray<nb::ro>*>(p);
}

}  // namespace

nb::object dlpack_capsule(Tensor& t, bool versioned, bool copied) {
    // The exported memory must be this tensor's alone: other tensors sharing it copy-on-write
    // (views, a gradient passed to two inputs) would otherwise see the other library's writes.
    if (t.raw() == nullptr)
        t = moira::zeros_like(t);  // no storage yet: give it one to share
    else
        t.prepare_write_();
    t.storage()->share_externally();
    if (versioned) return versioned_capsule(t, copied);
    Tensor* held = new Tensor(t);
    nb::capsule owner(held, [](void* p) noexcept { delete static_cast<Tensor*>(p); });
    std::vector<size_t> shape(t.shape().begin(), t.shape().end());
    nb::ndarray<> arr(t.raw(), shape.size(), shape.data(), owner, t.strides().data(), dlpack_dtype(t.dtype()),
                      nb::device::cpu::value, 0);
    return nb::cast(arr, nb::rv_policy::reference);  // without a framework: the DLPack capsule
}

nb::tuple dlpack_device(const Tensor& t) {
    const moira::Device& d = moira::device(t.device());
    if (d.kind == moira::DeviceKind::Cuda) return nb::make_tuple(int(nb::device::cuda::value), d.number - moira::kCudaBase);
    return nb::make_tuple(int(nb::device::cpu::value), 0);
}

Tensor tensor_from_dlpack(nb::handle obj) {
    // Writable memory first; a producer that only lends read-only memory is taken read-only.
    bool read_only = false;
    nb::ndarray<nb::ro> arr;
    {
        nb::ndarray<> writable;
        if (nb::try_cast(obj, writable, false)) {
            arr = nb::ndarray<nb::ro>(writable);
        } else if (nb::try_cast(obj, arr, false)) {
            read_only = true;
        } else {
            moira::fail<moira::TypeError>("from_dlpack: expected an object with __dlpack__ (a numpy array, a torch "
                                          "tensor, ...) or a DLPack capsule, got ", Py_TYPE(obj.ptr())->tp_name);
        }
    }
    if (arr.device_type() != nb::device::cpu::value)
        moira::fail<moira::TypeError>("from_dlpack: only memory on the CPU can be shared for now (DLPack device type ",
                                      arr.device_type(), ")");
    const DType dtype = dtype_from_dlpack(arr.dtype());
    const int64_t item = static_cast<int64_t>(moira::itemsize(dtype));
    moira::Shape shape, strides;
    int64_t lo = 0, hi = 0, count = 1;
    for (size_t d = 0; d < arr.ndim(); ++d) {
        shape.push_back(static_cast<int64_t>(arr.shape(d)));
        strides.push_back(arr.stride(d));
        count *= shape.back();
        const __int128 span = static_cast<__int128>(shape.back() - 1) * strides.back();
        if (shape.back() > 0) (span < 0 ? lo : hi) += static_cast<int64_t>(span);
    }
    const char* first = static_cast<const char*>(arr.data());
    const size_t nbytes = count == 0 ? 0 : static_cast<size_t>(hi - lo + 1) * static_cast<size_t>(item);
    void* base = count == 0 ? nullptr : const_cast<char*>(first + lo * item);
    auto storage = moira::Storage::wrap(base, nbytes, moira::kCPU, &release_array, new nb::ndarray<nb::ro>(arr));
    if (read_only) storage->mark_read_only();
    Tensor t = Tensor::wrap(std::move(storage), dtype, std::move(shape), std::move(strides), count == 0 ? 0 : -lo);
    const auto* bytes = static_cast<const uint8_t*>(base);
    if (dtype == DType::Bool && !bytes_are_bools(bytes, nbytes)) return normalized_bools(t, bytes, nbytes);
    return t;
}

}  // namespace pymoira
