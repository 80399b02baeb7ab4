// Creation functions and conversion: every result is a leaf wrapped around one backend call;
// the functions taking `requires_grad` set it on the leaf and give it zero gradients.
#include "autograd/record.hpp"
#include "object/qtensor.hpp"

namespace pymoira {

using namespace nb::literals;

namespace {

// Checked before it narrows to int: 2**32 must not pass as the CPU, nor 2**32 + 1000 as a GPU.
int dev(nb::handle device, const char* op) {
    const int64_t d = device_arg(device, op);
    moira::check_device(d);
    return static_cast<int>(d);
}

nb::object leaf(moira::Tensor t) { return Record::leaf().finish(std::move(t)); }

// arange and its family: the leaf takes the requires_grad object itself.
nb::object leaf_with_flag(moira::Tensor t, nb::handle requires_grad) {
    return Record::leaf().with_flag(nb::borrow(requires_grad)).finish(std::move(t));
}

// ones_like and its family: tracked only when t.requires_grad is the value True itself.
nb::object like(nb::handle t, moira::Tensor r) {
    const bool tracked = qtensor_ref(t, "like").requires_grad.ptr() == Py_True;
    return Record::leaf().with_flag(nb::bool_(tracked)).finish(std::move(r));
}

}  // namespace

void init_creation(nb::module_& m) {
    m.def("to_tensor", &to_qtensor, nb::sig("def to_tensor(x: QTensor | CoreTensor | ArrayLike) -> QTensor"),
          "x"_a.none(), "Convert input parameter to Qtensor if it isn't already.");
    m.def(
        "zeros",
        [](nb::handle shape, nb::handle device) {
            return leaf(moira::zeros(shape_from_python(shape, "zeros"), dev(device, "zeros")));
        },
        nb::sig("def zeros(shape: _Shape, device: int = 0) -> QTensor"), "shape"_a, "device"_a = 0,
        "Return zero-tensor of the passed shape.");
    m.def(
        "empty",
        [](nb::handle shape, nb::handle device) {
            return leaf(moira::empty(shape_from_python(shape, "empty"), dev(device, "empty")));
        },
        nb::sig("def empty(shape: _Shape, device: int = 0) -> QTensor"), "shape"_a, "device"_a = 0,
        "Return a tensor of the passed shape. Data in the QTensor is intialized with random data.");
    m.def(
        "ones",
        [](nb::handle shape, nb::handle device) {
            return leaf(moira::ones(shape_from_python(shape, "ones"), dev(device, "ones")));
        },
        nb::sig("def ones(shape: _Shape, device: int = 0) -> QTensor"), "shape"_a, "device"_a = 0,
        "Return one-tensor of the passed shape.");
    m.def(
        "full",
        [](nb::handle shape, nb::handle value, nb::handle device) {
            return leaf(moira::full(shape_from_python(shape, "full"), scalar_arg(value, "full"), dev(device, "full")));
        },
        nb::sig("def full(shape: _Shape, value: _Number, device: int = 0) -> QTensor"), "shape"_a, "value"_a,
        "device"_a = 0, "Return a tensor of the passed shape filled with value.");
    m.def(
        "ones_like", [](nb::handle t) { return like(t, moira::ones_like(*qtensor_ref(t, "ones_like").core)); },
        nb::sig("def ones_like(t: QTensor) -> QTensor"), "t"_a,
        "Return one-tensor with the same shape as the input tensor.");
    m.def(
        "zeros_like", [](nb::handle t) { return like(t, moira::zeros_like(*qtensor_ref(t, "zeros_like").core)); },
        nb::sig("def zeros_like(t: QTensor) -> QTensor"), "t"_a,
        "Return zero-tensor with the same shape as the input tensor.");
    m.def(
        "full_like",
        [](nb::handle t, nb::handle value) {
            return like(t, moira::full_like(*qtensor_ref(t, "full_like").core, scalar_arg(value, "full_like")));
        },
        nb::sig("def full_like(t: QTensor, value: _Number) -> QTensor"), "t"_a, "value"_a,
        "Return a tensor with the same shape as the input tensor, filled with value.");
    m.def(
        "arange",
        [](double start, double end, double step, nb::handle device, nb::handle requires_grad) {
            return leaf_with_flag(moira::arange(start, end, step, dev(device, "arange")), requires_grad);
        },
        nb::sig("def arange(start: float, end: float, step: float = 1, device: int = 0, "
                "requires_grad: bool = False) -> QTensor"),
        "start"_a, "end"_a, "step"_a = 1, "device"_a = 0, "requires_grad"_a.none() = false,
        "A 1-D tensor of start, start + step, ... stopping before end.");
    m.def(
        "linspace",
        [](double start, double end, nb::handle nums, nb::handle device, nb::handle requires_grad) {
            const int64_t n = int_arg(nums, "linspace", "nums must be an integer");
            return leaf_with_flag(moira::linspace(start, end, n, dev(device, "linspace")), requires_grad);
        },
        nb::sig("def linspace(start: float, end: float, nums: int, device: int = 0, "
                "requires_grad: bool = False) -> QTensor"),
        "start"_a, "end"_a, "nums"_a, "device"_a = 0, "requires_grad"_a.none() = false,
        "A 1-D tensor of nums evenly spaced values from start to end.");
    m.def(
        "logspace",
        [](double start, double end, nb::handle nums, double base, nb::handle device, nb::handle requires_grad) {
            const int64_t n = int_arg(nums, "logspace", "nums must be an integer");
            return leaf_with_flag(moira::logspace(start, end, n, base, dev(device, "logspace")), requires_grad);
        },
        nb::sig("def logspace(start: float, end: float, nums: int, base: float, device: int = 0, "
                "requires_grad: bool = False) -> QTensor"),
        "start"_a, "end"_a, "nums"_a, "base"_a, "device"_a = 0, "requires_grad"_a.none() = false,
        "A 1-D tensor of nums values evenly spaced on a log scale from base ** start to base ** end.");
    m.def(
        "eye",
        [](nb::handle size, nb::handle offset, nb::handle device, nb::handle requires_grad) {
            const int64_t n = int_arg(size, "eye", "size must be an integer");
            const int64_t k = int_arg(offset, "eye", "offset must be an integer");
            return leaf_with_flag(moira::eye(n, k, dev(device, "eye")), requires_grad);
        },
        nb::sig("def eye(size: int, offset: int = 0, device: int = 0, requires_grad: bool = False) -> QTensor"),
        "size"_a, "offset"_a = 0, "device"_a = 0, "requires_grad"_a.none() = false,
        "A size x size matrix with ones on the diagonal `offset` and zeros elsewhere.");
    m.def(
        "diag",
        [](nb::handle t, nb::handle k, nb::handle requires_grad) {
            const moira::Tensor& x = *qtensor_ref(t, "diag").core;
            return leaf_with_flag(moira::diag(x, int_arg(k, "diag", "k must be an integer")), requires_grad);
        },
        nb::sig("def diag(t: QTensor, k: int = 0, requires_grad: bool = False) -> QTensor"), "t"_a, "k"_a = 0,
        "requires_grad"_a.none() = false,
        "2-D t: t with every element off the k-th diagonal set to 0. 1-D t: a 2-D tensor with t on the k-th diagonal.");
    m.def(
        "randu",
        [](nb::handle shape, nb::handle device, nb::handle requires_grad) {
            return leaf_with_flag(moira::randu(shape_from_python(shape, "randu"), dev(device, "randu")), requires_grad);
        },
        nb::sig("def randu(shape: _Shape, device: int = 0, requires_grad: bool = False) -> QTensor"), "shape"_a,
        "device"_a = 0, "requires_grad"_a.none() = false, "Uniformly distributed random values in [0, 1).");
    m.def(
        "randn",
        [](nb::handle shape, nb::handle device, nb::handle requires_grad) {
            return leaf_with_flag(moira::randn(shape_from_python(shape, "randn"), dev(device, "randn")), requires_grad);
        },
        nb::sig("def randn(shape: _Shape, device: int = 0, requires_grad: bool = False) -> QTensor"), "shape"_a,
        "device"_a = 0, "requires_grad"_a.none() = false, "Normally distributed random values (mean 0, std 1).");
}

}  // namespace pymoira
