// DLPack, both ways: sharing a tensor's memory with other libraries without copying, and
// tensors over other libraries' memory. Compiled into both extension modules, like the conversions.
#pragma once

#include <nanobind/nanobind.h>
#include <nanobind/ndarray.h>

#include "moira.hpp"

namespace pymoira {

namespace nb = nanobind;

// The DLPack type of an element type (from the element-type table).
nb::dlpack::dtype dlpack_dtype(moira::DType t);

// The DLPack capsule of t's memory (the object __dlpack__ returns): a versioned one for consumers
// that take version 1 (Note [Versioned DLPack capsules]). From then on the storage is shared on
// purpose: writes on either side are seen by the other (Note [Who owns a buffer]). `copied`
// tells the consumer that t is a copy made for it.
nb::object dlpack_capsule(moira::Tensor& t, bool versioned, bool copied = false);
// (device type, device id) as DLPack numbers them: (1, 0) for the CPU.
nb::tuple dlpack_device(const moira::Tensor& t);

// A tensor over the memory of `obj` (anything with __dlpack__, or a DLPack capsule), without a
// copy; it keeps the producer alive. TypeError for element types other than bool, int64,
// float32 and float64, or memory not on the CPU. A read-only source is copied on first write.
moira::Tensor tensor_from_dlpack(nb::handle obj);

}  // namespace pymoira
