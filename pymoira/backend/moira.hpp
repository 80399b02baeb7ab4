// Everything the extension modules call in libmoira.
#pragma once

#include "core/device.hpp"
#include "core/dtype.hpp"
#include "core/errors.hpp"
#include "core/scalar.hpp"
#include "core/shape.hpp"
#include "core/tensor.hpp"
#include "kernels/creation.hpp"
#include "kernels/elementwise/elementwise.hpp"
#include "kernels/indexing/index_plan.hpp"
#include "kernels/indexing/select.hpp"
#include "kernels/linalg/matmul.hpp"
#include "kernels/print.hpp"
#include "kernels/reduce/reduce.hpp"
#include "kernels/random.hpp"
