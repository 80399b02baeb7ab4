// The advanced-index analysis (advanced.cpp), which the gathers and scatters of subscript.cpp
// build on.
#pragma once

#include "object/qtensor.hpp"

namespace pymoira {

bool is_advanced_index(nb::handle idx);
nb::object advanced_index_to_array(nb::handle idx, nb::handle ax_len);
nb::tuple drop_slice_none_at_end(nb::handle key);
nb::object get_broadcast_shape(nb::handle shape1, nb::handle shape2);
nb::object broadcast_shapes_of(nb::handle seq);
nb::tuple broadcast_advanced_indices(nb::handle arrays, nb::handle block_axes);
nb::tuple get_bdshape_for_slice(nb::handle key, nb::handle data_shape);
nb::tuple prepare_indice_for_advance_indexing(nb::handle ishape, nb::handle dshape, nb::handle m);
// (expanded key, whether it holds QTensor indices).
nb::tuple just_if_advance_index(nb::handle item, nb::handle shape);

}  // namespace pymoira
