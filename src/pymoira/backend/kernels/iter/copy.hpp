// The strided copy: every move of elements from one layout (or element type) to another.
// Tensor::clone, to, contiguous and prepare_write_ are defined with it in copy.cpp.
#pragma once

#include "core/tensor.hpp"

namespace moira {

// dst <- src element by element, converting to dst's element type; both may be any view.
// ValueError when the shapes differ. dst is prepared for being overwritten first (see Note
// [Views and value semantics]), so a source that shares dst's storage is read intact.
MOIRA_API void copy_into(Tensor& dst, const Tensor& src);

// dst <- src as copy_into, but straight into dst's storage without the copy-on-write check: for
// kernels that fill regions (views) of a result they have just made and nobody else holds.
MOIRA_API void copy_elements(const Tensor& dst, const Tensor& src);

// Values written into `target` (set_select, subscript writes): on its device, or on the CPU and
// copied over (the numbers and lists a caller turned into a tensor); RuntimeError naming both
// devices otherwise.
MOIRA_API Tensor written_values(const Tensor& target, const Tensor& values, const char* op);

// Index tensors and masks are read on the host: on the CPU, or on the indexed tensor's device
// (copied to the host); RuntimeError naming both devices otherwise.
MOIRA_API Tensor host_index(const Tensor& indexed, const Tensor& index, const char* op);

// True when t's elements fill a block of memory without gaps or overlaps, its strides positive:
// a contiguous layout with the axes in some order (a transpose of a contiguous tensor).
MOIRA_API bool is_dense(const Tensor& t);
// The same for a layout given as shape and strides.
MOIRA_API bool is_dense_layout(const Shape& shape, const Shape& strides);
// True when two layouts of `shape` step alike along every axis longer than 1.
MOIRA_API bool same_steps(const Shape& shape, const Shape& a, const Shape& b);

// A new tensor of `shape` laid out in memory like `like` when `like` has that shape and is
// dense (an element-wise result keeps its input's memory order, as numpy's does, so a
// transposed operand is streamed, not transposed); otherwise row-major.
MOIRA_API Tensor empty_in_layout_of(DType dtype, const Shape& shape, const Tensor& like);

}  // namespace moira
