// maybe_wrap_dim, the module's one check and normalisation of an axis number (the axis arguments
// themselves are read by axis_arg and optional_axis_arg among the argument readers).
//
// Note [Assertion checks]
// The module's assertion checks behave like Python `assert` statements: a failed check raises
// AssertionError with no message, and no check runs at all when Python was started with -O
// (sys.flags.optimize > 0, read once). Code that would go on with an unchecked value must cope
// with it the way the corresponding Python would.
#pragma once

#include <nanobind/nanobind.h>

#include <cstdint>
#include <optional>

namespace pymoira {

namespace nb = nanobind;

// True unless Python runs with -O.
bool assertions_enabled();
// Raises AssertionError (no message) when assertions are enabled and `ok` is false.
void module_assert(bool ok);

// `dim` in [0, n) for a tensor of n axes; a tensor without axes counts as one axis unless
// wrap_scalar is false. AssertionError for a dim outside [-n, n-1] (see the Note above).
int64_t maybe_wrap_dim(int64_t dim, int64_t dim_post_expr, bool wrap_scalar = true);

}  // namespace pymoira
