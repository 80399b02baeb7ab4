// QTensor with other libraries: its numpy dtype, numpy's __array__ protocol, DLPack both ways,
// and pickling.
//
// Note [Pickled QTensors]
// A QTensor pickles as a leaf: its values (through the backend tensor's own pickling), element
// type, shape, `requires_grad`, `device` and mask marker. A graph is not pickled: a result of
// operations comes back as a leaf holding its values, with zero gradients when it tracks them.
#include "autograd/record.hpp"
#include "bindings/dlpack.hpp"
#include "bindings/to_python.hpp"
#include "init.hpp"

#include <string>

namespace pymoira {

using namespace nb::literals;

namespace {

nb::object array_of(QTensor& q, nb::handle dtype, nb::handle copy) {
    const bool must_copy = copy.ptr() == Py_True;
    nb::object arr = to_numpy(*q.core, must_copy);
    if (dtype.is_none()) return arr;
    nb::object want = nb::module_::import_("numpy").attr("dtype")(dtype);
    if (want.equal(arr.attr("dtype"))) return arr;
    if (copy.ptr() == Py_False)
        throw nb::value_error(("__array__: converting to " + nb::cast<std::string>(nb::str(want)) +
                               " needs a copy, and copy=False forbids it").c_str());
    return arr.attr("astype")(want);
}

// Note [QTensors in numpy's ufuncs]
// numpy hands a QTensor operand of one of its ufuncs to __array_ufunc__. An operator with an
// array on the left and a QTensor on the right (array - t, array > t) is what Python would have
// given to the QTensor's reflected operator had numpy stepped aside: that operator runs, and the
// result is a QTensor with its graph. Every other use (np.sum(t), np.exp(t), reductions) computes
// with numpy on the values and returns numpy's result; numpy may not write into a QTensor.
struct Reflected {
    const char* ufunc;
    const char* method;
};
const Reflected kReflected[] = {
    {"add", "__radd__"}, {"subtract", "__rsub__"}, {"multiply", "__rmul__"}, {"divide", "__rtruediv__"},
    {"true_divide", "__rtruediv__"}, {"power", "__rpow__"}, {"greater", "__lt__"}, {"less", "__gt__"},
    {"greater_equal", "__le__"}, {"less_equal", "__ge__"}, {"equal", "__eq__"}, {"not_equal", "__ne__"},
};

nb::object array_ufunc(nb::handle self, nb::handle ufunc, nb::handle method, nb::args inputs, nb::kwargs kwargs) {
    const std::string name = nb::cast<std::string>(nb::str(ufunc.attr("__name__")));
    const std::string how = nb::cast<std::string>(nb::str(method));
    if (how == "__call__" && kwargs.size() == 0 && inputs.size() == 2 && inputs[1].is(self) && !is_qtensor(inputs[0]))
        for (const Reflected& r : kReflected)
            if (name == r.ufunc) return self.attr(r.method)(inputs[0]);
    if (kwargs.contains("out"))
        for (nb::handle o : nb::iter(nb::tuple(kwargs["out"])))
            if (is_qtensor(o)) throw nb::type_error("numpy cannot write into a QTensor (out=); use its in-place methods");
    nb::list args;
    for (nb::handle x : inputs) args.append(is_qtensor(x) ? to_numpy(*qtensor_ref(x, "__array_ufunc__").core, false) : nb::borrow(x));
    return ufunc.attr(how.c_str())(*nb::tuple(args), **kwargs);
}

}  // namespace

void init_interop(nb::module_& m, QTensorClass& cls) {
    cls.def_prop_ro(
           "dtype", [](QTensor& q) { return q.data.attr("dtype"); },
           nb::for_getter(nb::sig("def dtype(self) -> _DType[Any]")),
           "The element type, as a numpy dtype (bool, int64, float32 or float64).")
        .def("__array_ufunc__", &array_ufunc, "ufunc"_a, "method"_a, "inputs"_a, "kwargs"_a,
             nb::sig("def __array_ufunc__(self, ufunc: Any, method: str, *inputs: Any, **kwargs: Any) -> Any"),
             "numpy's ufuncs: an array operator with a QTensor on the right runs the QTensor's reflected "
             "operator; anything else computes with numpy on the values.")
        .def("__array__", &array_of, "dtype"_a.none() = nb::none(), "copy"_a.none() = nb::none(),
             nb::sig("def __array__(self, dtype: DTypeLike | None = None, copy: bool | None = None) -> NDArray[Any]"),
             "The values for numpy: a read-only view of the storage, or a copy when copy=True or a dtype asks "
             "for one.")
        .def(
            "__dlpack__",
            [](QTensor& q, nb::kwargs kwargs) { return q.data.attr("__dlpack__")(**kwargs); }, "kwargs"_a,
            nb::sig("def __dlpack__(self, **kwargs: Any) -> Any"),
            "The DLPack capsule of the values' memory, shared without a copy (see Tensor.__dlpack__).")
        .def(
            "__dlpack_device__", [](QTensor& q) { return dlpack_device(*q.core); },
            nb::sig("def __dlpack_device__(self) -> tuple[int, int]"), "(1, 0): the CPU.")
        .def("__getstate__",
             [](QTensor& q) {
                 return nb::make_tuple(q.data, q.requires_grad.is_valid() ? q.requires_grad : nb::bool_(false),
                                       q.device.is_valid() ? q.device : nb::int_(0), boolflag(q));
             },
             nb::sig("def __getstate__(self) -> tuple[Any, ...]"))
        .def("__setstate__", [](QTensor* self, nb::handle state) {
            if (!PyTuple_Check(state.ptr()) || PyTuple_GET_SIZE(state.ptr()) != 4 || !is_core(nb::borrow<nb::tuple>(state)[0]))
                throw nb::value_error("QTensor: cannot restore a pickled tensor from this state (expected the data, "
                                      "requires_grad, device and mask marker of a pickled QTensor)");
            nb::tuple st = nb::borrow<nb::tuple>(state);
            construct_qtensor(self, st[0], st[1], nb::none(), st[2]);
            set_boolflag(*self, st[3]);
        }, nb::sig("def __setstate__(self, state: tuple[Any, ...], /) -> None"));

    m.def(
        "from_dlpack", [](nb::handle obj) { return Record::leaf().finish(tensor_from_dlpack(obj)); }, "obj"_a,
        nb::sig("def from_dlpack(obj: Any) -> QTensor"),
        "A leaf QTensor over the memory of `obj` (a numpy array, a torch tensor, anything with __dlpack__) without a "
        "copy: writes on either side are seen by the other.");
}

}  // namespace pymoira
