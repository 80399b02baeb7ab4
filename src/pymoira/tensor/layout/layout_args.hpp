// Argument checks and edge-name pieces shared by the layout functions of the tensor module.
#pragma once

#include <string>
#include <vector>

#include "autograd/record.hpp"

namespace pymoira {

// An assertion with a message: AssertionError(message) unless Python runs with -O (see Note
// [Assertion checks]).
void assert_that(bool ok, const char* message);
void assert_that(bool ok, const std::string& message);

// The check of a parameter declared with a builtin type: `obj` must be exactly of type `type`
// (None passes when `none_ok`), else TypeError with the interpreter's argument-type message.
void check_arg_type(nb::handle obj, PyTypeObject* type, const char* name, bool none_ok = true);

// The integers of an iterable (TypeError naming `op` and `what` for an entry that is not one).
std::vector<int64_t> int_items(nb::handle obj, const char* op, const char* what);

// A list of exact ints as a Shape (true), or false for anything else: such a list prints as
// shape_str prints the Shape, so its edge name can be built lazily.
bool plain_int_list(nb::handle obj, moira::Shape& out);

// An edge named prefix + str(shape) + middle + str(obj), or prefix + str(obj) without a shape:
// built lazily when obj is a plain int list, otherwise now.
void edge_with_text(Record& rec, nb::handle input, GradFn fn, const char* prefix, const moira::Shape& shape,
                    const char* middle, nb::handle obj);
void edge_with_text(Record& rec, nb::handle input, GradFn fn, const char* prefix, nb::handle obj);

// Gradient functions that read their input's shape when they run keep the input's `data`
// object (a backend tensor: no reference cycle, no extra storage owner) in GradFn::extra.
inline const moira::Shape& input_shape(const GradFn& f) { return core_ref(f.extra, f.label).shape(); }

}  // namespace pymoira
