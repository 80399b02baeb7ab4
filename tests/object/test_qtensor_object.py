"""QTensor: construction and device rules, conversions, printing, identity and protocol rules."""
import weakref

import numpy as np
import pytest

from pymoira._core import Tensor as CoreTensor
from pymoira.tensor import tensor as T
from pymoira.tensor.tensor import QTensor
from helpers import ABSENT_GPU, NO_GPU

DEVICE_MSG = ("Failed to move Create Tensor on device {}.\\\n" + " " * 24
              + "Support CPU device is 0, GPU device is 1000,1001,1002,1003,1004,...")
GPU_MSG = "Failed to move Create Tensor on GPU {}. \\\n" + " " * 28 + "Support GPU device is 1000,1001,1002,1003,1004,..."


@pytest.fixture
def numpy_print_options():
    saved = np.get_printoptions()
    yield
    np.set_printoptions(**saved)


def test_new_leaf_attributes():
    t = QTensor([2, 3, 4, 5])
    assert (t.shape, t.ndim, t.size, t.device) == ([4], 1, 4, 0)
    assert t.requires_grad is False and t.nodes == [] and t.grad is None and t.is_bool is False
    assert isinstance(t.data, CoreTensor)
    np.testing.assert_array_equal(t.pdata, [2, 3, 4, 5])


@pytest.mark.parametrize("flag", [True, 1, "yes", False, 0, None, ""])
def test_requires_grad_gives_zero_gradients_at_once(flag):
    t = QTensor(np.arange(6.0).reshape(2, 3), requires_grad=flag)
    assert t.requires_grad is flag
    if not flag:
        assert t.grad is None
        return
    assert t.grad.shape == [2, 3] and t.grad.requires_grad is False and t.grad.nodes == [] and t.grad.device == 0
    np.testing.assert_array_equal(t.grad.pdata, np.zeros((2, 3)))


def test_a_backend_tensor_is_stored_itself():
    ct = CoreTensor([1.0, 2.0])
    q = QTensor(ct)
    assert q.data is ct and QTensor(ct, device=0).data is ct
    ct.fill_(7)
    np.testing.assert_array_equal(q.pdata, [7, 7])
    q.data.add_(1)
    np.testing.assert_array_equal(ct.getdata(), [8, 8])


@pytest.mark.parametrize("device, message", [(5, DEVICE_MSG), (-1, DEVICE_MSG), (999, DEVICE_MSG), (1, DEVICE_MSG),
                                             (ABSENT_GPU, GPU_MSG), (ABSENT_GPU + 3, GPU_MSG)])
def test_bad_device_for_a_backend_tensor(device, message):
    """Invalid devices, and failed GPU transfers, are ValueErrors."""
    for make in (lambda: QTensor(CoreTensor([1.0]), device=device),
                 lambda: QTensor._to_coretensor_ndarray(CoreTensor([1.0]), device)):
        with pytest.raises(ValueError) as info:
            make()
        assert str(info.value) == message.format(device)


def test_data_other_than_backend_tensors_goes_to_the_backend_constructor():
    assert QTensor._to_coretensor_ndarray([1, 2], 0).shape == [2]
    with pytest.raises(ValueError, match="invalid device"):
        QTensor([1.0], device=5)
    with pytest.raises(RuntimeError, match=NO_GPU):
        QTensor(np.ones(2), device=ABSENT_GPU)
    with pytest.raises(TypeError, match="NoneType"):
        QTensor(None)
    with pytest.raises(ValueError, match="ragged"):
        QTensor([[1.0], [2.0, 3.0]])


def test_empty_or_missing_edge_lists_are_fresh():
    a, b = QTensor([1.0], nodes=[]), QTensor([1.0], nodes=None)
    c = QTensor([1.0])
    assert a.nodes == [] and b.nodes == [] and a.nodes is not b.nodes and b.nodes is not c.nodes
    edges = [QTensor.GraphNode(c, lambda g: g)]
    assert QTensor([1.0], nodes=edges).nodes is edges


@pytest.mark.parametrize("to_tensor", [QTensor._to_tensor, T.to_tensor])
def test_to_tensor_rules(to_tensor):
    for value in (3, 2.5, True, np.float64(1.5)):
        t = to_tensor(value)
        assert t.shape == [1] and t.device == 0 and t.requires_grad is False and t.nodes == [] and t.grad is None
        assert t.pdata[0] == np.float32(value)
    q = QTensor([1.0])
    assert to_tensor(q) is q
    ct = CoreTensor([1.0, 2.0])
    w = to_tensor(ct)
    assert w.data is ct and w.device == 0
    arr = to_tensor(np.array([1, 2], dtype=np.int32))
    assert arr.shape == [2] and arr.data.dtype == "int64" and arr.device == 0 and arr.nodes == [] and arr.grad is None
    assert to_tensor([[1.0, 2.0]]).shape == [1, 2]
    with pytest.raises(TypeError):
        to_tensor(None)


def test_hash_is_identity():
    a, b = QTensor([1.0, 2.0]), QTensor([1.0, 2.0])
    assert hash(a) == id(a)
    d = {a: "a", b: "b"}
    assert len(d) == 2 and d[a] == "a" and d[b] == "b"


def test_no_length_and_always_true():
    t = QTensor([0.0])
    with pytest.raises(TypeError):
        len(t)
    assert bool(t) is True and bool(QTensor([])) is True


def test_weak_references():
    t = QTensor([1.0])
    r = weakref.ref(t)
    assert r() is t
    del t
    assert r() is None


def test_repr_uses_the_backend_printer_up_to_1000_elements(numpy_print_options):
    np.set_printoptions(precision=3, suppress=False)
    assert repr(QTensor([[10.0, 11.0], [12.0, 13.0]])) == "[\n10.0000000, 11.0000000\n12.0000000, 13.0000000\n]"
    assert repr(T.zeros([1000])).startswith("[\n0.0000000, ")
    assert np.get_printoptions()["precision"] == 3


def test_repr_of_more_than_1000_elements_uses_numpy(numpy_print_options):
    np.set_printoptions(precision=3, suppress=False)
    x = np.arange(1001, dtype=np.float32) / 3
    text = repr(QTensor(x))
    opts = np.get_printoptions()
    assert opts["precision"] == 7 and opts["suppress"] is True
    assert text == np.array2string(x, separator=" ", prefix="") and "..." in text


def test_repr_falls_back_to_the_backend_printer(monkeypatch):
    def broken(*args, **kwargs):
        raise RuntimeError("broken")

    monkeypatch.setattr(np, "array2string", broken)
    text = repr(T.ones([1001]))
    assert text.startswith("[\n1.0000000, 1.0000000") and text.endswith("\n]")


@pytest.mark.parametrize("src, value", [([3.5], 3.5), (np.array([4]), 4), ([1.0, 2.0], None), ([[1.0]], None),
                                        (np.array(1.0), None), ([], None)])
def test_item_needs_shape_exactly_one(src, value):
    if value is not None:
        assert QTensor(src).item() == value
        return
    with pytest.raises(RuntimeError) as info:
        QTensor(src).item()
    assert str(info.value) == "Cannot call item() on QTensor has more than one element!"


def test_size_of_an_empty_shape_is_one():
    assert QTensor(np.array(2.0)).size == 1 and QTensor([]).size == 0


def test_invert_gives_truth_values_without_negation():
    out = QTensor([0.0, 2.0, -1.0]).invert()
    assert out.dtype == np.bool_ and out.tolist() == [False, True, True]


def test_numpy_conversions_are_copies():
    t = QTensor([1.0, 2.0])
    for get in (lambda: t.getdata(), lambda: t.to_numpy(), lambda: t.pdata, lambda: QTensor._to_numpy(t)):
        arr = get()
        np.testing.assert_array_equal(arr, [1, 2])
        arr[0] = 9
    np.testing.assert_array_equal(t.pdata, [1, 2])


def test_copy_is_detached_and_independent():
    t = QTensor(np.array([[1, 2]]), requires_grad=True)
    c = t.copy()
    assert c.requires_grad is False and c.nodes == [] and c.grad is None and c.device == 0
    assert c.data is not t.data and c.data.dtype == "int64"
    c.data.fill_(0)
    np.testing.assert_array_equal(t.pdata, [[1, 2]])


def test_copy_applies_the_device_rules():
    t = QTensor([1.0])
    t.device = 5
    with pytest.raises(ValueError) as info:
        t.copy()
    assert str(info.value) == DEVICE_MSG.format(5)


def test_copy_c_data_and_bool_flag():
    a = QTensor([1.0, 2.0])
    core = a.data
    assert a._copy_c_data_from(QTensor(np.array([5, 6]))) is None
    assert a.data is core
    np.testing.assert_array_equal(a.pdata, [5, 6])
    with pytest.raises(ValueError):
        a._copy_c_data_from(QTensor([1.0]))
    assert a._set_boolflag(True) is None and a.is_bool is True
    index = QTensor(np.array([1, 0]))
    for flag in (1, np.True_, "yes", None):  # stored as given; only True itself makes a mask
        index._set_boolflag(flag)
        assert index.is_bool is flag
        np.testing.assert_array_equal(a[index].pdata, [6, 5])


def test_attributes_hold_the_assigned_objects():
    t = QTensor([1.0])
    flag = np.True_
    t.requires_grad = flag
    assert t.requires_grad is flag
    t.device = "anything"
    assert t.device == "anything"
    with pytest.raises(TypeError):
        t.grad = [1.0]
    with pytest.raises(TypeError):
        t.data = [1.0]
    with pytest.raises(ValueError):
        QTensor([1.0, 2.0], requires_grad=np.array([True, True]))


def test_uninitialised_instances_raise():
    raw = QTensor.__new__(QTensor)
    with pytest.raises((TypeError, RuntimeError)):
        repr(raw)
    with pytest.raises((TypeError, RuntimeError)):
        raw.backward()


def test_no_grad_switch_holds_the_assigned_object():
    assert QTensor.NO_GRAD is False
    QTensor.NO_GRAD = True
    assert QTensor.NO_GRAD is True and QTensor([1.0]).NO_GRAD is True
    marker = 1
    QTensor.NO_GRAD = marker
    assert QTensor.NO_GRAD is marker
    with pytest.raises(ValueError):
        QTensor.NO_GRAD = np.array([1, 2])
    # Construction never consults the switch.
    assert QTensor([1.0], requires_grad=True).grad is not None
