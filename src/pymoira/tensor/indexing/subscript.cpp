// Subscripts: QTensor.__getitem__ and __setitem__ with their routing, the gathers and scatters by
// QTensor indices and masks, and their gradients.
//
// Note [Routing a subscript]
// An int or a slice goes to select/set_select; a QTensor alone to the mask or index-array
// gather/scatter; anything else (a tuple, a list) is analysed: with QTensor entries it is an
// advanced gather/scatter, without them a basic one. Whatever the analysis or the advanced path
// raises is dropped and the basic route is tried once more; its exception (if any) reaches the
// caller with the dropped one as its context, as Python's own implicit chaining shows it.
// Slices keep their Python meaning for every start, stop and step: a negative step with an
// omitted bound is written with explicit bounds (the index-string form of "::-1" would
// otherwise read as an empty range).
#include <string>

#include "autograd/record.hpp"
#include "bindings/tensor_from_python.hpp"
#include "indexing/advanced.hpp"
#include "indexing/select.hpp"
#include "init.hpp"

namespace pymoira {

using namespace nb::literals;
using moira::Shape;
using moira::Tensor;

namespace {

// numpy, imported once and never released (the interpreter may be gone when statics die).
nb::module_& numpy() {
    static nb::module_* np = new nb::module_(nb::module_::import_("numpy"));
    return *np;
}

Shape shape_of_list(nb::handle obj) {
    Shape s;
    for (nb::handle e : nb::iter(obj)) s.push_back(nb::cast<int64_t>(e));
    return s;
}

// ---- exceptions as Python objects, for the chained fallback ----

nb::object exception_instance(PyObject* type, const char* message) {
    nb::object t = nb::borrow(type);
    return t(nb::str(message));
}

// The exception being handled, as a Python exception object (C++ errors converted as the
// bindings convert them).
nb::object current_exception() {
    try {
        throw;
    } catch (nb::python_error& e) {
        // Back into Python's error state, then fetched as a normalised exception instance.
        e.restore();
        PyObject *type, *value, *traceback;
        PyErr_Fetch(&type, &value, &traceback);
        PyErr_NormalizeException(&type, &value, &traceback);
        if (traceback) PyException_SetTraceback(value, traceback);
        Py_XDECREF(type);
        Py_XDECREF(traceback);
        return nb::steal(value);
    } catch (const nb::builtin_exception& e) {
        PyObject* type = PyExc_RuntimeError;
        switch (e.type()) {
            case nb::exception_type::value_error: type = PyExc_ValueError; break;
            case nb::exception_type::index_error: type = PyExc_IndexError; break;
            case nb::exception_type::type_error: type = PyExc_TypeError; break;
            case nb::exception_type::key_error: type = PyExc_KeyError; break;
            case nb::exception_type::attribute_error: type = PyExc_AttributeError; break;
            case nb::exception_type::buffer_error: type = PyExc_BufferError; break;
            case nb::exception_type::stop_iteration: type = PyExc_StopIteration; break;
            default: break;
        }
        return exception_instance(type, e.what());
    } catch (const moira::TypeError& e) {
        return exception_instance(PyExc_TypeError, e.what());
    } catch (const std::invalid_argument& e) {
        return exception_instance(PyExc_ValueError, e.what());
    } catch (const std::out_of_range& e) {
        return exception_instance(PyExc_IndexError, e.what());
    } catch (const std::overflow_error& e) {
        return exception_instance(PyExc_OverflowError, e.what());
    } catch (const std::bad_alloc&) {
        return exception_instance(PyExc_MemoryError, "out of memory");
    } catch (const std::exception& e) {
        return exception_instance(PyExc_RuntimeError, e.what());
    }
}

// first(), or, when it raises, second(): an exception of second() carries first's as context.
template <class First, class Second>
nb::object with_basic_fallback(First&& first, Second&& second) {
    nb::object dropped;
    try {
        return first();
    } catch (...) {
        dropped = current_exception();
    }
    try {
        return second();
    } catch (...) {
        nb::object raised = current_exception();
        PyException_SetContext(raised.ptr(), dropped.release().ptr());
        PyErr_SetObject((PyObject*)Py_TYPE(raised.ptr()), raised.ptr());
        throw nb::python_error();
    }
}

// ---- the index-array geometry ----

// What an advanced gather or scatter computes from its key: the stacked index array, the block
// geometry and the gathered shape. The gradients of both keep it as their payload.
struct Advanced {
    moira::BlockRows rows;
    Shape oshape;
};

// Note [Geometry of a zero-size advanced index]
// The block geometry of m indexed leading axes of a tensor of `shape`: k = the product of the
// other axes' lengths, mshape = the indexed lengths, strides their row-major strides in blocks.
// A tensor with an axis of length 0 holds no elements, so nothing bounds its other axes'
// lengths: each product is taken exactly, 0 when one of its lengths is 0 and OverflowError
// (not a wrapped stride) when it does not fit in int64. k may be 0 while positions along the
// indexed axes are valid (t[q] on a [3, 0] tensor): the backend then checks positions against
// mshape, and the gather or scatter moves nothing.
int64_t extent_product(const Shape& shape, size_t lo, size_t hi) {
    for (size_t i = lo; i < hi; ++i)
        if (shape[i] == 0) return 0;
    int64_t p = 1;
    for (size_t i = lo; i < hi; ++i) p = moira::checked_mul(p, shape[i], "the indexed tensor's shape");
    return p;
}

void block_geometry(const Shape& shape, int64_t m, moira::BlockRows& rows) {
    const size_t lead = static_cast<size_t>(m);
    rows.k = extent_product(shape, lead, shape.size());
    rows.mshape.assign(shape.begin(), shape.begin() + static_cast<std::ptrdiff_t>(lead));
    rows.strides.assign(lead, 0);
    for (size_t i = 0; i < lead; ++i) rows.strides[i] = extent_product(shape, i + 1, lead);
}

Advanced plan_advanced(nb::handle self, nb::handle tmp_slice_list) {
    nb::object input_shape = self.attr("shape");
    nb::tuple item_for_np = nb::tuple(tmp_slice_list);
    nb::tuple bd = get_bdshape_for_slice(item_for_np, input_shape);
    nb::object indice = numpy().attr("stack")(bd[1]);
    nb::tuple ishape = nb::borrow<nb::tuple>(indice.attr("shape"));
    const int64_t m = nb::cast<int64_t>(ishape[0]);
    const int64_t size = nb::cast<int64_t>(indice.attr("size"));
    // The analysis gives the gathered shape (and refuses more indexed axes than its format
    // holds); its strides are floats, so the int64 geometry is computed here from the shape.
    nb::tuple prepared = prepare_indice_for_advance_indexing(ishape, input_shape, ishape[0]);
    Advanced a;
    a.rows.m = m;
    a.rows.n = m ? size / m : 0;
    block_geometry(shape_of_list(input_shape), m, a.rows);
    a.oshape = shape_of_list(prepared[0]);
    a.rows.indice = tensor_from_python(indice, 0);
    return a;
}

// A lone integer QTensor key indexes axis 0: the analysis gives m = 1, one block per position,
// k the size of the other axes and the key's shape in front of them. Computed here directly, with
// the key's integer values. False for a tensor without axes, which the analysis refuses with its
// own message, and for floating keys, which the analysis truncates as numpy does (NaN included).
bool plan_lone_index(QTensor& q, QTensor& key, Advanced& a) {
    const Shape& shape = q.shape();
    if (shape.empty() || moira::is_floating(key.core->dtype())) return false;
    const int on_cpu = PyObject_RichCompareBool(key.device.ptr(), nb::int_(0).ptr(), Py_EQ);
    if (on_cpu != 1) {  // the analysis refuses it with its message
        PyErr_Clear();
        return false;
    }
    const Tensor idx = key.core->contiguous_as(moira::DType::Int64);  // bool keys are 0 and 1
    a.rows.m = 1;
    a.rows.n = idx.numel();
    block_geometry(shape, 1, a.rows);
    a.rows.indice = idx;
    a.oshape = key.core->shape();
    a.oshape.insert(a.oshape.end(), shape.begin() + 1, shape.end());
    return true;
}

// ---- gradient functions ----

// payload: the Advanced plan. shape: the indexed tensor's.
Tensor getitem_advance_grad(const GradFn& f, const Tensor& g) {
    Tensor out = moira::zeros(f.shape, g.device(), g.dtype());
    moira::advance_gather_bp_(g, f.payload<Advanced>().rows, out);
    return out;
}

// payload: the Advanced plan. shape: the written values'.
Tensor setitem_advance_grad(const GradFn& f, const Tensor& g) {
    const Advanced& a = f.payload<Advanced>();
    return moira::fold_to(moira::advance_scatter_bp(g, a.rows, a.oshape), f.shape);
}

// saved: the indexed tensor, the mask.
Tensor boolarray_slice_grad(const GradFn& f, const Tensor& g) { return moira::mask_select_bp(f.saved[0], f.saved[1], g); }

// saved: the written tensor, the mask. shape: the values'.
Tensor boolarray_set_slice_grad(const GradFn& f, const Tensor& g) {
    return moira::fold_to(moira::mask_set_bp(f.saved[0], f.saved[1], g), f.shape);
}

// ---- gathers ----

nb::object advanced_gather(nb::handle self, const Advanced& a) {
    QTensor& q = qtensor_ref(self, "__getitem__");
    // The result keeps the indexed tensor's element type.
    Tensor result(q.core->dtype(), a.oshape, q.core->device());  // every element is written
    moira::advance_gather_into(*q.core, a.rows, result);
    Record rec(Tracking::CopyFlag, {&q});
    if (rec.wants_edge(q))
        rec.edge(self, GradFn(&getitem_advance_grad, "__getitem__").with(a).with_shape(q.shape()),
                 nb::str("__getitem__ grad "));
    return rec.on_device(q.device).finish(std::move(result));
}

nb::object advanced_gather(nb::handle self, nb::handle tmp_slice_list) {
    return advanced_gather(self, plan_advanced(self, tmp_slice_list));
}

nb::object mask_gather(nb::handle self, QTensor& mask) {
    QTensor& q = qtensor_ref(self, "__getitem__");
    Tensor data = moira::mask_select(*q.core, *mask.core);
    Record rec(Tracking::CopyFlag, {&q});
    if (rec.wants_edge(q))
        rec.edge(self, GradFn(&boolarray_slice_grad, "__getitem__").save(*q.core, *mask.core),
                 nb::str("__getitem__ grad "));
    return rec.on_device(q.device).finish(std::move(data));
}

nb::object getitem_with_qtensor_as_index(nb::handle self, nb::handle item) {
    QTensor& key = qtensor_ref(item, "__getitem__");
    if (key.is_bool) return mask_gather(self, key);
    Advanced lone;
    if (plan_lone_index(qtensor_ref(self, "__getitem__"), key, lone)) return advanced_gather(self, lone);
    nb::list one;
    one.append(item);
    nb::tuple analysed = just_if_advance_index(one, self.attr("shape"));
    return advanced_gather(self, analysed[0]);
}

nb::object getitem_with_qtensor_in_index(nb::handle self, nb::handle item) {
    return with_basic_fallback(
        [&]() -> nb::object {
            nb::tuple analysed = just_if_advance_index(item, self.attr("shape"));
            if (nb::cast<bool>(analysed[1])) return advanced_gather(self, analysed[0]);
            return process_select_with_basic_indexings(item, self);
        },
        [&]() { return process_select_with_basic_indexings(item, self); });
}

// ---- scatters ----

// The values as the written tensor takes them: their own backend tensor, broadcast to `shape`.
Tensor values_for(QTensor& value, const Shape& shape) {
    return value.core->shape() == shape ? *value.core : moira::broadcast_to(*value.core, shape);
}

void advanced_scatter(nb::handle self, const Advanced& a, nb::handle value_obj) {
    QTensor& q = qtensor_ref(self, "__setitem__");
    QTensor& value = qtensor_ref(value_obj, "__setitem__");
    moira::advance_scatter_(*q.core, a.rows, values_for(value, a.oshape));
    // The target takes the values' requires_grad object and device, whatever NO_GRAD says.
    Record rec(Tracking::CopyFlag, {&value});
    if (rec.wants_edge(value))
        rec.edge(value_obj,
                 GradFn(&setitem_advance_grad, "__setitem__").with(a).with_shape(value.shape()),
                 nb::str("__setitem__ grad "));
    rec.on_device(value.device).inplace(q);
}

void advanced_scatter(nb::handle self, nb::handle tmp_slice_list, nb::handle value_obj) {
    advanced_scatter(self, plan_advanced(self, tmp_slice_list), value_obj);
}

void mask_scatter(nb::handle self, QTensor& mask, nb::handle value_obj) {
    QTensor& q = qtensor_ref(self, "__setitem__");
    QTensor& value = qtensor_ref(value_obj, "__setitem__");
    moira::mask_set_(*q.core, *mask.core, *value.core);
    Record rec(Tracking::Combined, {&value});
    if (rec.wants_edge(value))
        rec.edge(value_obj,
                 GradFn(&boolarray_set_slice_grad, "__setitem__").save(*q.core, *mask.core).with_shape(value.shape()),
                 nb::str("__setitem__ grad "));
    rec.inplace(q);
}

void setitem_with_qtensor_as_index(nb::handle self, nb::handle key, nb::handle value) {
    QTensor& k = qtensor_ref(key, "__setitem__");
    if (k.is_bool) return mask_scatter(self, k, value);
    nb::list one;
    one.append(key);
    with_basic_fallback(
        [&]() -> nb::object {
            Advanced lone;
            if (plan_lone_index(qtensor_ref(self, "__setitem__"), k, lone)) {
                advanced_scatter(self, lone, value);
                return nb::none();
            }
            nb::tuple analysed = just_if_advance_index(one, self.attr("shape"));
            advanced_scatter(self, analysed[0], value);
            return nb::none();
        },
        [&]() -> nb::object {
            process_set_select_with_basic_indexings(one, self, value);
            return nb::none();
        });
}

void setitem_with_qtensor_in_index(nb::handle self, nb::handle key, nb::handle value) {
    with_basic_fallback(
        [&]() -> nb::object {
            nb::tuple analysed = just_if_advance_index(key, self.attr("shape"));
            if (nb::cast<bool>(analysed[1])) advanced_scatter(self, analysed[0], value);
            else process_set_select_with_basic_indexings(key, self, value);
            return nb::none();
        },
        [&]() -> nb::object {
            process_set_select_with_basic_indexings(key, self, value);
            return nb::none();
        });
}

// ---- the operators ----

nb::list one_entry(nb::object text) {
    nb::list l;
    l.append(std::move(text));
    return l;
}

// Complex positions are never truncated to integers: a key holding complex index tensors or arrays
// is refused before it is routed (a refusal inside the advanced path would give way to the basic
// retry's error, and numpy's analysis would cast the positions).
bool complex_positions(nb::handle k) {
    if (is_qtensor(k)) return moira::is_complex(qtensor_ref(k, "__getitem__").core->dtype());
    if (PyLong_Check(k.ptr()) || PySlice_Check(k.ptr()) || k.is_none() || !nb::hasattr(k, "dtype")) return false;
    nb::object kind = nb::getattr(k.attr("dtype"), "kind", nb::none());
    return nb::isinstance<nb::str>(kind) && nb::cast<std::string>(kind) == "c";
}

void refuse_complex_key(nb::handle key, const char* op) {
    bool found = complex_positions(key);
    if (!found && (PyTuple_Check(key.ptr()) || PyList_Check(key.ptr())))
        for (nb::handle k : key)
            if ((found = complex_positions(k))) break;
    if (found) moira::fail<moira::TypeError>(op, ": positions must be integers or truth values, not complex numbers");
}

nb::object getitem(nb::handle self, nb::handle item) {
    PyObject* o = item.ptr();
    if (PyLong_Check(o)) return select(self, one_entry(nb::steal(PyObject_Str(o))));
    if (PySlice_Check(o)) return select(self, one_entry(subscript_slice_string(self, nb::int_(0), item)));
    refuse_complex_key(item, "__getitem__");
    if (is_qtensor(item)) {
        int r = PyObject_RichCompareBool(qtensor_ref(item, "__getitem__").device.ptr(), nb::int_(0).ptr(), Py_NE);
        if (r < 0) throw nb::python_error();
        if (r) throw nb::index_error("Use QTensor on CPU device as advance index");
        return getitem_with_qtensor_as_index(self, item);
    }
    return getitem_with_qtensor_in_index(self, item);
}

void setitem(nb::handle self, nb::handle key, nb::handle value_in) {
    nb::object value = nb::borrow(value_in);
    if (!is_qtensor(value)) {
        try {
            nb::list l;
            l.append(value_in);
            Tensor t = tensor_from_python(l, 0);
            // A Python number keeps its exact value in the target's type (Note [Weak scalars]).
            moira::Scalar s;
            if (scalar_from_python(value_in, s) && !PyComplex_Check(value_in.ptr())) t.set_weak_(s);
            value = make_qtensor(std::move(t), false);
        } catch (...) {
            PyErr_Clear();
            throw nb::value_error("set value should be QTensor ");
        }
    }
    // Complex values go into complex tensors only, whatever the key (no imaginary part is dropped).
    const moira::DType from = qtensor_ref(value, "__setitem__").core->dtype();
    const moira::DType into = qtensor_ref(self, "__setitem__").core->dtype();
    if (moira::is_complex(from) && !moira::is_complex(into))
        moira::fail<moira::TypeError>("__setitem__: cannot write ", moira::dtype_name(from), " values into a ",
                                      moira::dtype_name(into), " tensor (that would discard their imaginary parts)");
    PyObject* o = key.ptr();
    if (!PyLong_Check(o) && !PySlice_Check(o)) refuse_complex_key(key, "__setitem__");
    if (PyLong_Check(o)) return set_select(self, one_entry(nb::steal(PyObject_Str(o))), value);
    if (is_qtensor(key)) {
        int r = PyObject_RichCompareBool(qtensor_ref(key, "__setitem__").device.ptr(), nb::int_(0).ptr(), Py_NE);
        if (r < 0) throw nb::python_error();
        if (r) throw nb::index_error("Use QTensor on CPU device as advance index");
        return setitem_with_qtensor_as_index(self, key, value);
    }
    if (PySlice_Check(o)) return set_select(self, one_entry(subscript_slice_string(self, nb::int_(0), key)), value);
    setitem_with_qtensor_in_index(self, key, value);
}

}  // namespace

void init_subscript(nb::module_& m, QTensorClass& cls) {
    cls.def("__getitem__", &getitem, nb::sig("def __getitem__(self, item: _Key) -> QTensor"), "item"_a.none(),
            "Supports pyslice,integer or QTensor as slice index to slice the QTensor. a[3][4][1] is not support, use "
            "a[3,4,1] instead.")
        .def("__setitem__", &setitem, nb::sig("def __setitem__(self, key: _Key, value: _Operand) -> None"),
             "key"_a.none(), "value"_a.none(),
             "Set values with pyslice, integer or QTensor as index.")
        .def("_getitem_with_qtensor_as_index", &getitem_with_qtensor_as_index, "item"_a,
             "Index with one QTensor: a mask, or integer positions along axis 0.")
        .def("_getitem_with_qtensor_in_index", &getitem_with_qtensor_in_index, "item"_a.none(),
             "Index with a key of several entries, some of them QTensors.")
        .def("_setitem_with_qtensor_as_index", &setitem_with_qtensor_as_index, "key"_a, "value"_a,
             "Write through one QTensor index: a mask, or integer positions along axis 0.")
        .def("_setitem_with_qtensor_in_index", &setitem_with_qtensor_in_index, "key"_a.none(), "value"_a,
             "Write through a key of several entries, some of them QTensors.");

    m.def(
        "_boolarray_slice_grad",
        [](const Tensor& input, const Tensor& outgrad, nb::handle bool_array) {
            return moira::mask_select_bp(input, *qtensor_ref(bool_array, "_boolarray_slice_grad").core, outgrad);
        },
        "input_ctensor"_a, "outgrad"_a, "bool_array"_a,
        "The gradient of a mask gather: zeros of the input's shape with outgrad at the masked positions.");
    m.def(
        "_boolarray_set_slice_grad",
        [](const Tensor& input, const Tensor& outgrad, nb::handle bool_array) {
            return moira::mask_set_bp(input, *qtensor_ref(bool_array, "_boolarray_set_slice_grad").core, outgrad);
        },
        "input_ctensor"_a, "outgrad"_a, "bool_array"_a,
        "The gradient of a mask scatter for the written values: outgrad at the masked positions.");
    m.def(
        "_getitem_advance_grad",
        [](const Tensor& grad, const Tensor& c_indice, nb::handle mshape, nb::handle strides, nb::handle inputshape,
           int64_t n, int64_t m_, int64_t k) {
            moira::BlockRows rows;
            rows.n = n;
            rows.m = m_;
            rows.k = k;
            rows.mshape = shape_of_list(mshape);
            rows.strides = shape_of_list(strides);
            rows.indice = c_indice;
            Tensor out = moira::zeros(shape_from_python(inputshape, "_getitem_advance_grad"), grad.device(), grad.dtype());
            moira::advance_gather_bp_(grad, rows, out);
            return out;
        },
        "grad"_a, "c_indice"_a, "mshape"_a, "strides"_a, "inputshape"_a, "n"_a, "m"_a, "k"_a,
        "The gradient of an advanced gather: zeros of the input's shape with grad's blocks added where they came from.");
}

}  // namespace pymoira
