// Index strings: the parser that turns a list of per-axis texts into an IndexPlan, the one
// description of an addressed region that every basic-indexing kernel walks.
//
// Note [Index-string entries]
// Entry k of the list applies to axis k; axes after the last entry are taken whole. Forms:
//   ":"           the whole axis.
//   "B:E", "B:E:S" positions from B towards E (exclusive) in steps of S, read the way Python
//                 reads a slice: a negative B or E counts from the end of the axis, bounds
//                 beyond the axis are clamped to it, an omitted field takes Python's default
//                 for the step's sign ("::-1" reverses). S must not be 0. So "0:5:-1" on an
//                 axis of length 5 is empty, as slice(0, 5, -1) is, and "0:10" takes all 5.
//   "I"           one position (a negative one counts from the end); the axis is removed.
//   "I1,I2,...,"  the listed positions in order, repeats allowed; the axis stays with one
//                 entry per item. The final comma is optional; "" is the empty list.
// Positions (I and list items) are decimal integers, or integral decimals such as "1.0" (the
// text of a float index), or "True"/"False" (the text of a bool, 1 and 0). A position outside
// [-n, n-1] raises IndexError (so does an integer beyond int64); text that is no form above
// raises ValueError; both name the entry, its axis and the axis length. Several position lists
// in one list address every combination of their positions (each axis is indexed on its own).
// When every axis is removed the region has the shape [1]: no basic-indexing result has zero axes.
#pragma once

#include <string>
#include <vector>

#include "core/shape.hpp"

namespace moira {

// What one axis addresses: `count` positions, either start, start + step, ... or `list`.
struct AxisIndex {
    int64_t start = 0;
    int64_t step = 1;
    int64_t count = 0;
    std::vector<int64_t> list;  // non-empty only for a position list
    bool is_list = false;
    bool kept = true;           // false for an integer entry: the axis is removed

    int64_t at(int64_t k) const { return is_list ? list[k] : start + k * step; }
    bool whole(int64_t extent) const { return !is_list && kept && start == 0 && step == 1 && count == extent; }
};

struct IndexPlan {
    std::vector<AxisIndex> axes;  // one per axis of the tensor
    // The shape of the addressed region: the kept axes' counts, or [1] when none is kept.
    Shape region;
    // True when some position list repeats a position (writes must then run in order).
    bool has_repeats = false;
};

// Parses `entries` against a tensor of shape `shape`. `op` names the operation in messages.
MOIRA_API IndexPlan parse_index(const std::vector<std::string>& entries, const Shape& shape, const char* op);

}  // namespace moira
