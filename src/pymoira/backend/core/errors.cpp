// Out-of-line destructors anchor the error classes' type information in libmoira, so the
// extension modules catch them by type.
#include "core/errors.hpp"

namespace moira {
ValueError::~ValueError() = default;
IndexError::~IndexError() = default;
TypeError::~TypeError() = default;
OverflowError::~OverflowError() = default;
RuntimeError::~RuntimeError() = default;
MemoryError::~MemoryError() = default;
}  // namespace moira
