// Every Python <-> backend conversion at once, for the tensor module's sources that still
// include this header; new code includes the header it needs: bindings/arguments.hpp,
// bindings/tensor_from_python.hpp or bindings/to_python.hpp.
#pragma once

#include "bindings/arguments.hpp"
#include "bindings/tensor_from_python.hpp"
#include "bindings/to_python.hpp"
