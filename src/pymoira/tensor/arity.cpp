// Argument-count errors of module functions in the interpreter's wording (see arity.hpp).
#include "arity.hpp"

#include <array>
#include <cstdlib>
#include <stdexcept>
#include <utility>

namespace pymoira {

namespace {

struct Guarded {
    std::string name, doc;
    nb::object target;  // the nanobind function that does the work
    Arity arity;
    PyMethodDef def{};
};

// Sets the TypeError a plain Python function of `g`'s arity gives for this call and returns
// true, or returns false when the call fits.
bool arity_error(const Guarded& g, Py_ssize_t nargs, PyObject* kwnames) {
    const size_t given = static_cast<size_t>(nargs), most = g.arity.names.size();
    const char* fn = g.name.c_str();
    if (given > most) {
        PyErr_Format(PyExc_TypeError, "%.200s() takes at most %zd positional argument%s (%zd given)", fn, most,
                     most == 1 ? "" : "s", given);
        return true;
    }
    size_t filled = given;
    const Py_ssize_t nkw = kwnames ? PyTuple_GET_SIZE(kwnames) : 0;
    for (Py_ssize_t k = 0; k < nkw; ++k) {
        const char* key = PyUnicode_AsUTF8(PyTuple_GET_ITEM(kwnames, k));
        if (!key) return true;
        size_t at = most;
        for (size_t i = 0; i < most; ++i)
            if (g.arity.names[i] == key) at = i;
        if (at == most) {
            PyErr_Format(PyExc_TypeError, "%.200s() got an unexpected keyword argument '%s'", fn, key);
            return true;
        }
        if (at < given) {
            PyErr_Format(PyExc_TypeError, "%.200s() got multiple values for argument '%s'", fn, key);
            return true;
        }
        if (at < g.arity.required) ++filled;
    }
    if (filled < g.arity.required) {
        PyErr_Format(PyExc_TypeError, "%.200s() takes at least %zd positional argument%s (%zd given)", fn,
                     g.arity.required, g.arity.required == 1 ? "" : "s", given);
        return true;
    }
    return false;
}

// One C entry point per guarded function (the slot is its index), so that the function's `self`
// can be the module, as for any built-in function.
constexpr size_t kSlots = 8;
Guarded* g_guarded[kSlots] = {};

template <size_t Slot>
PyObject* guarded_call(PyObject*, PyObject* const* args, Py_ssize_t nargs, PyObject* kwnames) {
    const Guarded& g = *g_guarded[Slot];
    if (arity_error(g, nargs, kwnames)) return nullptr;
    return PyObject_Vectorcall(g.target.ptr(), args, static_cast<size_t>(nargs), kwnames);
}

template <size_t... Slot>
constexpr std::array<PyObject* (*)(PyObject*, PyObject* const*, Py_ssize_t, PyObject*), kSlots> entry_points(
    std::index_sequence<Slot...>) {
    return {&guarded_call<Slot>...};
}

}  // namespace

void guard_arity(nb::module_& m, const char* name, Arity arity, const char* signature, const char* doc) {
    if (std::getenv("MOIRA_STUBGEN")) return;
    // The wrapper lives as long as the module: its method definition must never move or die.
    static size_t used = 0;
    static constexpr auto entries = entry_points(std::make_index_sequence<kSlots>());
    if (used == kSlots) throw std::logic_error("guard_arity: raise kSlots");
    auto* g = new Guarded{name, std::string(name) + signature + "\n--\n\n" + doc, m.attr(name), std::move(arity)};
    g_guarded[used] = g;
    g->def.ml_name = g->name.c_str();
    g->def.ml_meth = reinterpret_cast<PyCFunction>(reinterpret_cast<void (*)()>(entries[used++]));
    g->def.ml_flags = METH_FASTCALL | METH_KEYWORDS;
    g->def.ml_doc = g->doc.c_str();
    nb::object fn = nb::steal(PyCFunction_NewEx(&g->def, m.ptr(), m.attr("__name__").ptr()));
    if (!fn.is_valid()) throw nb::python_error();
    m.attr(name) = fn;
}

}  // namespace pymoira
