// The QTensor class: construction and device rules, attributes, properties, conversions,
// printing and identity hashing.
#include "object/qtensor.hpp"

#include <nanobind/stl/string.h>

#include <string>

#include "autograd/record.hpp"
#include "bindings/tensor_from_python.hpp"
#include "bindings/to_python.hpp"

namespace pymoira {

using namespace nb::literals;

namespace {

PyTypeObject* g_qtensor_type = nullptr;

int qtensor_traverse(PyObject* self, visitproc visit, void* arg) {
    Py_VISIT(Py_TYPE(self));
    if (!nb::inst_ready(self)) return 0;
    QTensor* q = nb::inst_ptr<QTensor>(self);
    Py_VISIT(q->data.ptr());
    Py_VISIT(q->requires_grad.ptr());
    Py_VISIT(q->nodes.ptr());
    Py_VISIT(q->grad.ptr());
    Py_VISIT(q->device.ptr());
    Py_VISIT(q->is_bool_obj.ptr());
    return 0;
}

int qtensor_clear(PyObject* self) {
    QTensor* q = nb::inst_ptr<QTensor>(self);
    // `data` stays: `core` points into it and operations may still run on a collected cycle's
    // survivors. It holds no references back into the graph.
    q->requires_grad.reset();
    q->nodes.reset();
    q->grad.reset();
    q->device.reset();
    q->is_bool_obj.reset();
    q->rg = false;
    return 0;
}

PyType_Slot qtensor_slots[] = {
    {Py_tp_traverse, (void*)qtensor_traverse}, {Py_tp_clear, (void*)qtensor_clear}, {0, nullptr}};

std::string gpu_message(const std::string& device) {
    return "Failed to move Create Tensor on GPU " + device + ". \\\n" + std::string(28, ' ') +
           "Support GPU device is 1000,1001,1002,1003,1004,...";
}

std::string device_message(const std::string& device) {
    return "Failed to move Create Tensor on device " + device + ".\\\n" + std::string(24, ' ') +
           "Support CPU device is 0, GPU device is 1000,1001,1002,1003,1004,...";
}

// Attributes read after the garbage collector cleared a cycle read as None.
nb::object or_none(const nb::object& o) { return o.is_valid() ? o : nb::none(); }

bool equals(nb::handle a, nb::handle b) {
    int r = PyObject_RichCompareBool(a.ptr(), b.ptr(), Py_EQ);
    if (r < 0) throw nb::python_error();
    return r == 1;
}

bool compare_ge(nb::handle a, long v) {
    nb::object bv = nb::int_(v);
    int r = PyObject_RichCompareBool(a.ptr(), bv.ptr(), Py_GE);
    if (r < 0) throw nb::python_error();
    return r == 1;
}

// QTensor._to_coretensor_ndarray: the backend tensor the constructor stores.
nb::object to_core_tensor(nb::handle data, nb::handle device) {
    if (is_core(data)) {
        moira::Tensor& t = core_ref(data, "QTensor");
        nb::object own_device = nb::int_(t.device());
        if (equals(own_device, device)) return nb::borrow(data);
        if (equals(device, nb::int_(0))) {
            t.to_cpu_();
            return nb::borrow(data);
        }
        std::string text = nb::cast<std::string>(nb::str(device));
        if (compare_ge(device, 1000)) {
            try {
                const int64_t d = device_arg(device, "QTensor");
                moira::check_device(d);  // before it narrows to int (2**32 would read as the CPU)
                t.to_gpu_(static_cast<int>(d));
            } catch (const std::exception&) {  // nb::python_error included
                throw nb::value_error(gpu_message(text).c_str());
            }
            return nb::borrow(data);
        }
        throw nb::value_error(device_message(text).c_str());
    }
    return wrap_core(tensor_from_python(data, device_arg(device, "QTensor")));
}

void init_fields(QTensor& q, nb::object data, nb::object requires_grad, nb::object nodes, nb::object device) {
    q.core = &core_ref(data, "QTensor");
    q.data = std::move(data);
    q.rg = truth_arg(requires_grad);
    q.requires_grad = std::move(requires_grad);
    q.nodes = nodes.is_valid() && truth_arg(nodes) ? std::move(nodes) : nb::list();
    q.grad = nb::none();
    q.device = std::move(device);
    q.is_bool = false;
}

}  // namespace

void set_boolflag(QTensor& q, nb::handle flag) {
    const bool plain = flag.ptr() == Py_True || flag.ptr() == Py_False;
    q.is_bool = flag.ptr() == Py_True;
    q.is_bool_obj = plain ? nb::object() : nb::borrow(flag);
}

std::string py_text(nb::handle obj) {
    nb::object s = nb::steal(PyObject_Str(obj.ptr()));
    if (!s.is_valid()) throw nb::python_error();
    Py_ssize_t len = 0;
    const char* text = PyUnicode_AsUTF8AndSize(s.ptr(), &len);
    if (!text) throw nb::python_error();
    return std::string(text, static_cast<size_t>(len));
}

nb::object boolflag(const QTensor& q) { return q.is_bool_obj.is_valid() ? q.is_bool_obj : nb::bool_(q.is_bool); }

namespace {

// The Python object of a new QTensor, constructed in place (no move of the C++ state).
nb::object new_instance(QTensor&& q) {
    nb::object obj = nb::inst_alloc(nb::handle((PyObject*)g_qtensor_type));
    new (nb::inst_ptr<QTensor>(obj)) QTensor(std::move(q));
    nb::inst_mark_ready(obj);
    return obj;
}

void zero_grad(QTensor& q) {
    if (q.requires_grad.ptr() == Py_False) throw nb::value_error("requires_grad == False ");
    if (!has_grad(q) || q.grad_private) {
        // A gradient nobody was handed can go back to pending zeros: no one sees the object.
        allocate_grad(q);
    } else if (!q.grad_pending) {
        moira::fill_(grad_tensor(q), moira::Scalar::from_int(0));
    }
}

nb::object repr(nb::handle self) {
    QTensor& q = qtensor_ref(self, "__repr__");
    if (q.core->numel() > 1000) {
        try {
            nb::module_ np = nb::module_::import_("numpy");
            np.attr("set_printoptions")("suppress"_a = true, "precision"_a = 7);
            nb::object npt = to_numpy(*q.core, true);
            return np.attr("array2string")(npt, nb::none(), nb::none(), nb::none(), " ", "");
        } catch (...) {
            PyErr_Clear();
        }
    }
    return nb::str(moira::tensor_print(*q.core, 7).c_str());
}

nb::object copy(nb::handle self) {
    QTensor& q = qtensor_ref(self, "copy");
    // The constructor's device rules, for the copy's storage and the device number of self.
    nb::object device = or_none(q.device);
    return Record::leaf().on_device(device).finish(to_core_tensor(wrap_core(q.core->clone()), device));
}

}  // namespace

void construct_qtensor(QTensor* self, nb::handle data, nb::handle requires_grad, nb::handle nodes, nb::handle device) {
    nb::object core = to_core_tensor(data, device);
    QTensor q;
    init_fields(q, std::move(core), nb::borrow(requires_grad), nb::borrow(nodes), nb::borrow(device));
    if (q.rg) zero_grad(q);
    new (self) QTensor(std::move(q));
}

bool is_qtensor(nb::handle obj) {
    PyTypeObject* t = Py_TYPE(obj.ptr());
    return t == g_qtensor_type || (g_qtensor_type && PyType_IsSubtype(t, g_qtensor_type));
}

QTensor& qtensor_ref(nb::handle obj, const char* op) {
    if (!is_qtensor(obj))
        moira::fail<moira::TypeError>(op, ": expected a QTensor, got ", Py_TYPE(obj.ptr())->tp_name);
    QTensor* q = nb::inst_ptr<QTensor>(obj);
    if (!q->core) moira::fail<moira::RuntimeError>(op, ": the QTensor is not initialised");
    return *q;
}

moira::DType grad_dtype(moira::DType t) { return moira::float_type_of(t); }

void allocate_grad(QTensor& q) {
    q.grad = nb::none();
    q.grad_core = moira::Tensor();
    q.grad_pending = true;
    q.grad_in_core = false;
    q.grad_private = false;
}

void release_grad(QTensor& q) {
    allocate_grad(q);
    q.grad_pending = false;
}

void adopt_grad(QTensor& q, moira::Tensor g) {
    q.grad = nb::object();
    q.grad_core = std::move(g);
    q.grad_pending = false;
    q.grad_in_core = true;
    q.grad_private = true;
}

nb::object grad_object(QTensor& q) {
    if (q.grad_pending) adopt_grad(q, moira::zeros(q.shape(), q.core->device(), grad_dtype(q.core->dtype())));
    if (q.grad_in_core) {
        q.grad = make_qtensor(std::move(q.grad_core), false);
        q.grad_core = moira::Tensor();
        q.grad_in_core = false;
    }
    return or_none(q.grad);
}

moira::Tensor& grad_tensor(QTensor& q) {
    if (q.grad_pending) adopt_grad(q, moira::zeros(q.shape(), q.core->device(), grad_dtype(q.core->dtype())));
    if (q.grad_in_core) return q.grad_core;
    if (!q.grad.is_valid() || q.grad.is_none())
        moira::fail<moira::RuntimeError>(
            "backward: an edge leads to a tensor that does not require grad (it has no gradient storage)");
    return *qtensor_ref(q.grad, "backward").core;
}

nb::object grad_for_user(QTensor& q) {
    nb::object g = grad_object(q);
    q.grad_private = false;
    return g;
}

void accumulate_grad(QTensor& q, moira::Tensor contribution) {
    moira::DType t = grad_dtype(q.core->dtype());
    // A real input whose value became complex keeps dL/dx, the real part (Note [Complex gradients]).
    if (moira::is_complex(contribution.dtype()) && !moira::is_complex(t))
        contribution = moira::unary(moira::UnaryOp::Real, contribution);
    if (q.grad_pending && contribution.shape() == q.shape()) {
        adopt_grad(q, contribution.dtype() == t ? std::move(contribution) : contribution.to(t));
        return;
    }
    moira::binary_(moira::BinaryOp::Add, grad_tensor(q), contribution);
}

nb::object make_qtensor(nb::object data, nb::object requires_grad, nb::object nodes, nb::object device) {
    QTensor q;
    init_fields(q, std::move(data), std::move(requires_grad), std::move(nodes), std::move(device));
    if (q.rg) zero_grad(q);
    return new_instance(std::move(q));
}

nb::object make_qtensor(moira::Tensor data, bool requires_grad, nb::object nodes) {
    QTensor q;
    const int device = data.device();
    q.data = wrap_core(std::move(data));
    q.core = nb::inst_ptr<moira::Tensor>(q.data);
    q.rg = requires_grad;
    q.requires_grad = nb::bool_(requires_grad);
    q.nodes = nodes.is_valid() ? std::move(nodes) : nb::list();
    q.grad = nb::none();
    q.device = nb::int_(device);
    if (requires_grad) allocate_grad(q);
    return new_instance(std::move(q));
}

namespace {

nb::object number_to_qtensor(nb::handle obj, int device) {
    PyObject* o = obj.ptr();
    moira::Tensor t;
    if (PyFloat_CheckExact(o) || PyLong_CheckExact(o) || PyBool_Check(o)) {
        // A Python number: a one-element float32 tensor that stays exact in operations
        // (Note [Weak scalars]).
        nb::list l;
        l.append(obj);
        t = tensor_from_python(l, device);
        t.set_weak_(scalar_arg(obj, "to_tensor"));
    } else {
        // A numpy scalar (np.float64 is a float subclass): typed, as numpy 2 treats it.
        t = moira::reshape(tensor_from_python(obj, device), moira::Shape{1});
    }
    return Record::leaf().finish(std::move(t));
}

}  // namespace

nb::object operand_like(nb::handle obj, nb::handle like) {
    if (!is_qtensor(obj) && (PyLong_Check(obj.ptr()) || PyFloat_Check(obj.ptr())) && is_qtensor(like))
        return number_to_qtensor(obj, qtensor_ref(like, "operand").core->device());
    return to_qtensor(obj);
}

nb::object to_qtensor(nb::handle obj) {
    if (is_qtensor(obj)) return nb::borrow(obj);
    PyObject* o = obj.ptr();
    if (PyLong_Check(o) || PyFloat_Check(o)) return number_to_qtensor(obj, moira::kCPU);
    if (is_core(obj)) return Record::leaf().finish(nb::borrow(obj));
    return Record::leaf().on_device(nb::int_(0)).finish(to_core_tensor(obj, nb::int_(0)));
}

nb::class_<QTensor> init_object(nb::module_& m) {
    nb::class_<QTensor> cls(m, "QTensor", nb::type_slots(qtensor_slots), nb::is_weak_referenceable(),
                            "QTensor is basic data struct for quantum circuits and nerual networks.");
    g_qtensor_type = (PyTypeObject*)cls.ptr();

    cls.def(
           "__init__",
           &construct_qtensor,
           "data"_a.none(), "requires_grad"_a.none() = false, "nodes"_a.none() = nb::none(), "device"_a.none() = 0,
           nb::sig("def __init__(self, data: QTensor | CoreTensor | ArrayLike, requires_grad: bool = False, nodes: "
                   "list[pymoira.tensor.tensor.QTensor.GraphNode] | None = None, device: int = 0) -> None"))
        .def_prop_rw(
            "data", [](QTensor& q) { return or_none(q.data); },
            [](QTensor& q, nb::handle v) {
                q.core = &core_ref(v, "QTensor.data");
                q.data = nb::borrow(v);
            },
            nb::for_getter(nb::sig("def data(self) -> CoreTensor")),
            nb::for_setter(nb::sig("def data(self, value: CoreTensor, /) -> None")),
            "The backend tensor holding the values.")
        .def_prop_rw(
            "requires_grad", [](QTensor& q) { return or_none(q.requires_grad); },
            [](QTensor& q, nb::handle v) {
                q.rg = truth_arg(v);
                q.requires_grad = nb::borrow(v);
            },
            nb::for_getter(nb::sig("def requires_grad(self) -> bool")),
            nb::for_setter(nb::sig("def requires_grad(self, value: bool) -> None")),
            nb::arg("value").none(), "Whether gradients are tracked for this tensor.")
        .def_prop_rw(
            "nodes", [](QTensor& q) { return or_none(q.nodes); }, [](QTensor& q, nb::handle v) { q.nodes = nb::borrow(v); },
            nb::for_getter(nb::sig("def nodes(self) -> list[pymoira.tensor.tensor.QTensor.GraphNode]")),
            nb::for_setter(nb::sig("def nodes(self, value: list[pymoira.tensor.tensor.QTensor.GraphNode]) -> None")),
            nb::arg("value").none(), "The edges (GraphNode) to the tensors this one was computed from.")
        .def_prop_rw(
            "grad", [](QTensor& q) { return grad_for_user(q); },
            [](QTensor& q, nb::handle v) {
                if (!v.is_none()) qtensor_ref(v, "QTensor.grad");
                q.grad = nb::borrow(v);
                q.grad_core = moira::Tensor();
                q.grad_pending = false;
                q.grad_in_core = false;
                q.grad_private = false;
            },
            nb::for_getter(nb::sig("def grad(self) -> QTensor | None")),
            nb::for_setter(nb::sig("def grad(self, value: QTensor | None) -> None")),
            nb::arg("value").none(), "The accumulated gradient: None or a QTensor of this tensor's shape.")
        .def_prop_rw(
            "device", [](QTensor& q) { return or_none(q.device); }, [](QTensor& q, nb::handle v) { q.device = nb::borrow(v); },
            nb::for_getter(nb::sig("def device(self) -> int")),
            nb::for_setter(nb::sig("def device(self, value: int) -> None")),
            nb::arg("value").none(), "The device number given at construction.")
        .def_prop_rw(
            "is_bool", &boolflag, &set_boolflag, nb::arg("value").none(),
            nb::for_getter(nb::sig("def is_bool(self) -> bool")),
            nb::for_setter(nb::sig("def is_bool(self, value: bool) -> None")),
            "True for the mask tensors made by comparisons and logical functions.")
        .def_static(
            "_to_coretensor_ndarray", [](nb::handle data, nb::handle device) { return to_core_tensor(data, device); },
            "data"_a.none(), "device"_a.none(), "Convert passed data to CoreTensor.")
        .def_static("_to_tensor", &to_qtensor, "tensor"_a.none(), "Convert passed tensor to QTensor if it isn't already.")
        .def_static(
            "_to_numpy", [](nb::handle q) { return to_numpy(*qtensor_ref(q, "_to_numpy").core, true); }, "qtensor"_a,
            "Convert input qtensor to numpy.")
        .def_prop_ro("ndim", [](QTensor& q) { return q.core->ndim(); }, "The number of axes.")
        .def_prop_ro(
            "shape",
            [](QTensor& q) {
                nb::list out;
                for (int64_t e : q.shape()) out.append(e);
                return out;
            },
            nb::for_getter(nb::sig("def shape(self) -> list[int]")), "The extents of the axes, as a list of ints.")
        .def_prop_ro("size", [](QTensor& q) { return moira::numel(q.shape()); }, "The number of elements.")
        .def_prop_ro("pdata", [](QTensor& q) { return to_numpy(*q.core, true); },
                     nb::for_getter(nb::sig("def pdata(self) -> NDArray[Any]")), "The values as a numpy array.")
        .def("__hash__", [](nb::handle self) { return nb::steal(PyLong_FromVoidPtr(self.ptr())); },
             nb::sig("def __hash__(self) -> int"))
        .def("__repr__", &repr, nb::sig("def __repr__(self) -> str"))
        .def(
            "item",
            [](QTensor& q) -> nb::object {
                if (q.shape() != moira::Shape{1})
                    throw std::runtime_error("Cannot call item() on QTensor has more than one element!");
                return q.data.attr("item")();
            },
            nb::sig("def item(self) -> float"), "The single value as a Python number.")
        .def("getdata", [](QTensor& q) { return to_numpy(*q.core, true); },
             nb::sig("def getdata(self) -> NDArray[Any]"),
             "The values as a numpy array.")
        .def("to_numpy", [](QTensor& q) { return to_numpy(*q.core, true); },
             nb::sig("def to_numpy(self) -> NDArray[Any]"),
             "Copy self.data to a new np.array.")
        .def(
            "invert", [](QTensor& q) { return to_numpy(moira::binary(moira::BinaryOp::NotEqual, *q.core, moira::Scalar::from_int(0)), true); },
            nb::sig("def invert(self) -> NDArray[Any]"), "The truth values of the elements as a numpy bool array.")
        .def("copy", &copy, nb::sig("def copy(self) -> QTensor"),
             "A new QTensor with equal values, detached from any graph.")
        .def(
            "_copy_c_data_from",
            [](QTensor& self, nb::handle other) { moira::copy_into(*self.core, *qtensor_ref(other, "_copy_c_data_from").core); },
            "qtensor"_a, "Copy the values of another QTensor of the same shape into this one.")
        .def(
            "_set_boolflag", &set_boolflag, "flag"_a.none(),
            "Mark (or unmark) this tensor as a mask.")
        .def("zero_grad", [](QTensor& q) { zero_grad(q); },
             "Sets gradient to zero. Will be used by optimizer in the optimization process.");
    return cls;
}

}  // namespace pymoira
