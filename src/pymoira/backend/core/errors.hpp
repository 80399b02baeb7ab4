// User-facing errors of the backend. Each class maps to one Python exception in the bindings:
// ValueError, IndexError, TypeError, OverflowError, RuntimeError, MemoryError. Internal invariants use
// MOIRA_INTERNAL_ASSERT, which never fires on user input.
#pragma once

#include <sstream>
#include <stdexcept>
#include <string>

#include "core/export.hpp"

namespace moira {

struct MOIRA_API ValueError : std::invalid_argument {
    using std::invalid_argument::invalid_argument;
    ~ValueError() override;
};
struct MOIRA_API IndexError : std::out_of_range {
    using std::out_of_range::out_of_range;
    ~IndexError() override;
};
struct MOIRA_API TypeError : std::runtime_error {
    using std::runtime_error::runtime_error;
    ~TypeError() override;
};
struct MOIRA_API OverflowError : std::overflow_error {
    using std::overflow_error::overflow_error;
    ~OverflowError() override;
};
struct MOIRA_API RuntimeError : std::runtime_error {
    using std::runtime_error::runtime_error;
    ~RuntimeError() override;
};
// A device could not provide the memory asked for.
struct MOIRA_API MemoryError : std::runtime_error {
    using std::runtime_error::runtime_error;
    ~MemoryError() override;
};

// Builds the message from its pieces with operator<< and throws E.
template <class E, class... Parts>
[[noreturn]] void fail(const Parts&... parts) {
    std::ostringstream os;
    (os << ... << parts);
    throw E(os.str());
}

}  // namespace moira

#define MOIRA_INTERNAL_ASSERT(cond)                                                          \
    do {                                                                                      \
        if (!(cond))                                                                          \
            ::moira::fail<::moira::RuntimeError>("internal error: ", #cond, " failed at ",    \
                                                 __FILE__, ":", __LINE__);                    \
    } while (0)
