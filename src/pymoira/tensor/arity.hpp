// Argument-count errors in the interpreter's own words for the module functions that promise them.
//
// nanobind reports a call that matches no overload as "incompatible function arguments". A
// function whose callers expect the interpreter's message ("sums() takes at least 1 positional
// argument (0 given)", "... takes at most 3 positional arguments (4 given)") is wrapped in a
// plain CPython function that checks the argument count and the keyword names and hands the
// call on, unchanged, through vectorcall: no Python frame, no tuple or dict built.
#pragma once

#include <string>
#include <vector>

#include <nanobind/nanobind.h>

namespace pymoira {

namespace nb = nanobind;

// The parameters of a Python-style function: their names, the first `required` without defaults.
struct Arity {
    std::vector<std::string> names;
    size_t required;
};

// Replaces the module function `name` by the wrapper described above; `signature` is its
// parameter list as Python would print it ("(t, axis=None, keepdims=False)"), `doc` its docstring.
// While the type stubs are generated (MOIRA_STUBGEN set in the environment) the typed nanobind
// function stays in place instead, so the stub shows the types its nb::sig spells: the wrapper
// accepts exactly the same calls.
void guard_arity(nb::module_& m, const char* name, Arity arity, const char* signature, const char* doc);

}  // namespace pymoira
