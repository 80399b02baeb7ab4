// Gathering and scattering by index tensors: numpy-style advanced indexing, the per-lane
// positions of sorts and extremes, and index_add, the gradient of every gather.
//
// Note [Gathering and scattering by index tensors]
// The data is seen as consecutive blocks of k elements in row-major order (k = 1 addresses
// single elements). A BlockIndex lists, for each of n index positions, the number of the block
// it addresses; it is built and checked in full before anything is read or written, so a bad
// index raises IndexError (naming the position, its axis and the axis length) with the target
// untouched. Index tensors of several axes are broadcast together (numpy's rule, not an outer
// product of their positions); a negative position counts from the end of its axis.
// gather copies block ix[p] to position p; scatter_ writes position p into block ix[p] in order
// of p, so where a block is addressed twice the last write stays; index_add_ adds instead, so
// repeated blocks accumulate (the gradient of a gather): in order of position, float32 in a
// double accumulator, whatever the thread count (Note [How reductions add]).
#pragma once

#include <vector>

#include "core/tensor.hpp"

namespace moira {

struct BlockIndex {
    Tensor blocks;      // int64 [n], contiguous: the block number of each position
    int64_t k = 1;      // elements per block
    Shape index_shape;  // the shape the positions form
    Shape block_shape;  // the shape of one block
    Shape data_shape;   // the shape of the indexed data

    int64_t count() const { return blocks.numel(); }
    // index_shape followed by block_shape: the shape of a gather's result.
    Shape gathered_shape() const;
};

// Block numbers from per-axis positions: position p addresses block sum_i pos[i][p] *
// block_strides[i], where pos[i] holds positions along an axis of length lengths[i] (each
// checked, a negative one wrapped). All `positions` are integer tensors of one shape.
MOIRA_API BlockIndex block_index(const std::vector<Tensor>& positions, const Shape& lengths, const Shape& block_strides,
                                 const Shape& data_shape, int64_t k, const char* op);

// Index tensors for the leading axes of a tensor of `shape` (numpy's t[i0, i1, ...] with the
// other axes whole): the indices broadcast together; blocks are the trailing axes.
MOIRA_API BlockIndex index_leading(const Shape& shape, const std::vector<Tensor>& indices, const char* op);

// Positions along one axis, one lane of them per lane of a tensor of `shape` (numpy's
// take_along_axis): `positions` has `shape` except along `axis`. Blocks of one element.
MOIRA_API BlockIndex index_along_axis(const Shape& shape, int64_t axis, const Tensor& positions, const char* op);

// A new tensor of ix.gathered_shape(): position p holds block ix[p] of `data`.
MOIRA_API Tensor gather(const Tensor& data, const BlockIndex& ix);
// The same into `out` (any shape of that many elements; converted to its type), every element
// of which is overwritten.
MOIRA_API void gather_into(const Tensor& data, const BlockIndex& ix, Tensor& out);
// Writes position p of `values` (ix.gathered_shape(), or broadcast to it) into block ix[p] of
// `data`, in order of p, converting to data's element type. ValueError when values do not fit.
MOIRA_API void scatter_(Tensor& data, const BlockIndex& ix, const Tensor& values);
// Adds position p of `values` into block ix[p] of `data` (repeated blocks accumulate).
MOIRA_API void index_add_(Tensor& data, const BlockIndex& ix, const Tensor& values);

}  // namespace moira
