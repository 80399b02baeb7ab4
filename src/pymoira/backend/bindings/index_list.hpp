// index_list_from_python now lives with the other argument readers (bindings/arguments.hpp);
// this header remains for the tensor module's sources that still include it.
#pragma once

#include "bindings/arguments.hpp"
