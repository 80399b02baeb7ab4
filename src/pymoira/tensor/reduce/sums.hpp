// Defined in sums.cpp and shared with var and std: spreading a gradient of a reduced shape back
// over the reduced axis.
#pragma once

#include <utility>

#include "moira.hpp"

namespace pymoira {

// x (the reduced shape, with or without keepdims) repeated along `axis` into `shape`, and the
// length of `shape` along that axis. The axis goes through maybe_wrap_dim (AssertionError when
// out of range).
std::pair<moira::Tensor, int64_t> mean_match_shape(const moira::Tensor& x, const moira::Shape& shape, int64_t axis);

}  // namespace pymoira
