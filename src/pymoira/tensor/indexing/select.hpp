// The module's index-string functions: select and set_select with their gradients, and the
// helpers that turn basic subscript keys (slices and integers) into index-string lists.
#pragma once

#include "object/qtensor.hpp"

namespace pymoira {

// select(t, index): the part of t addressed by `index` (any iterable of str, int and QTensor
// entries; other entries are skipped), with an edge to t.
nb::object select(nb::handle t, nb::handle index);
// set_select(t, index, set_tensor): writes set_tensor into t in place; the edge to set_tensor
// is appended to t's own edge list.
void set_select(nb::handle t, nb::handle index, nb::handle set_tensor);

// The range entry "B:E:S" for slice `it` on axis i of x.
nb::object parse_slice_string(nb::handle x, nb::handle i, nb::handle it);
// The range entry of a subscript's slice: parse_slice_string's, except that a negative step with
// an omitted bound gets explicit bounds, so the entry reads as Python reads the slice.
nb::object subscript_slice_string(nb::handle x, nb::handle i, nb::handle it);
// ValueError when a subscript key has more entries than x has axes.
void just_item(nb::handle x_ndim, nb::handle len_item);
// select / set_select with a key of slices and integers.
nb::object process_select_with_basic_indexings(nb::handle item, nb::handle x);
void process_set_select_with_basic_indexings(nb::handle key, nb::handle x, nb::handle value);


}  // namespace pymoira
