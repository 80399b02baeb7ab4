"""Devices: the MOIRA_VIRTUAL_GPUS variable, and on stand-in GPUs (devices 1000 and 1001, whose
memory the host may not read) transfers, host reads, mixing refusals, random streams, memory
statistics and a training loop in flat memory. The op tables run every row on device 1000 too."""
import gc
import os
import pickle
import subprocess
import sys

import numpy as np
import pytest

import pymoira.tensor.tensor as T
from helpers import GPUS
from pymoira._core import Tensor, moira
from pymoira.tensor.tensor import QTensor

stand_ins = pytest.mark.skipif(GPUS < 2, reason="needs MOIRA_VIRTUAL_GPUS=2 or more")
A = np.arange(6.0).reshape(2, 3)


@pytest.mark.parametrize("value, gpus", [("", 0), ("0", 0), ("3", 3), ("abc", None), ("-1", None), ("65", None),
                                         ("1.5", None)])
def test_virtual_gpus_variable(value, gpus):
    code = ("from pymoira._core import Tensor, moira\nn = moira.gpu_count()\nprint(n)\n"
            "print([Tensor([1.0], 1000 + i).device for i in range(n)])\n"
            "try:\n    Tensor([1.0], 1000 + n)\nexcept RuntimeError as e:\n    print(e)\n")
    env = {**os.environ, "MOIRA_VIRTUAL_GPUS": value}
    run = subprocess.run([sys.executable, "-c", code], capture_output=True, text=True, env=env)
    if gpus is None:
        assert run.returncode != 0
        assert "MOIRA_VIRTUAL_GPUS must be a whole number" in run.stderr and repr(value) in run.stderr
    else:
        lines = run.stdout.splitlines()
        assert run.returncode == 0 and lines[0] == str(gpus)
        assert lines[1] == str([1000 + i for i in range(gpus)])
        assert ("no CUDA device is available" if gpus == 0 else f"no GPU device {1000 + gpus}") in lines[2]


@stand_ins
@pytest.mark.parametrize("read", [
    lambda t: np.array(t), lambda t: t.getdata(), lambda t: np.asarray(memoryview(t)),
    lambda t: pickle.loads(pickle.dumps(t)).getdata(), lambda t: np.from_dlpack(t),
    lambda t: np.array(T.to_tensor(t).to_numpy()), lambda t: np.array(QTensor(t, device=1000).pdata),
    lambda t: np.array(t.contiguous()), lambda t: np.array(t.transpose([1, 0])).T,
    lambda t: np.array([[float(x) for x in line.split(",")] for line in t.tensor_print().splitlines()[1:-1]]),
])
def test_host_reads_copy_device_memory(read):
    t = Tensor(A, 1000)
    np.testing.assert_array_equal(read(t), A)
    assert t.device == 1000


@stand_ins
def test_transfers_and_the_host_access_check():
    t = Tensor(A, 1000)
    assert moira._read_without_host_copy(Tensor(A)) is True
    with pytest.raises(RuntimeError, match="internal error: the host read the memory of device 1000"):
        moira._read_without_host_copy(t)
    assert t.__dlpack_device__() == (1, 0) and "device=1000" in repr(t)
    with pytest.raises(BufferError, match="exported through the CPU"):
        t.__dlpack__(copy=False)
    for hop in (1001, 0, 1000, 1000):
        t.toGPU(hop) if hop else t.toCPU()
        assert t.device == hop
        np.testing.assert_array_equal(t.getdata(), A)
    q = QTensor(t, device=1001)  # the module's rules move the very backend tensor
    assert q.data is t and t.device == 1001 and pickle.loads(pickle.dumps(t)).device == 1001
    assert Tensor(Tensor(A), 1001).device == 1001 and T.zeros([2], 1000).data.device == 1000
    assert QTensor(np.ones(2), device=1000).copy().data.device == 1000
    assert Tensor(np.float64(2.5), 1000).item() == 2.5 and T.to_tensor(Tensor(A, 1001)).device == 1001


MIXES = [
    ("add", lambda a, b: T.add(a, b)), ("where", lambda a, b: T.where(a > 0, a, b)),
    ("matmul", lambda a, b: T.matmul(a, b.transpose())), ("concatenate", lambda a, b: T.concatenate([a, b])),
    ("copyTensor", lambda a, b: Tensor.copyTensor(a.data, b.data)),
]


@stand_ins
@pytest.mark.parametrize("devices", [(0, 1000), (1000, 0), (1000, 1001)])
@pytest.mark.parametrize("name, call", MIXES, ids=[m[0] for m in MIXES])
def test_mixing_devices_is_refused(devices, name, call):
    a, b = (QTensor(A, device=d) for d in devices)
    with pytest.raises(RuntimeError, match=r"operands are on different devices \({} and {}\)|\({} and {}\)".format(
            *devices, *devices[::-1])):
        call(a, b)


@stand_ins
def test_numbers_and_written_values_follow_the_device_tensor():
    a = QTensor(A, requires_grad=True, device=1000)
    y = T.sums(T.exp(a * 2 + 1) / 4 - 1)
    y.backward()
    assert y.data.device == a.grad.data.device == 1000
    np.testing.assert_allclose(a.grad.to_numpy(), np.exp(2 * A + 1) / 2)
    a.data.set_select(["0"], Tensor([7.0]))  # a CPU value written into device memory
    a[1] = 5
    np.testing.assert_array_equal(a.to_numpy(), [[7, 7, 7], [5, 5, 5]])
    assert a.data.device == 1000 and a[QTensor(np.array([1, 0]))].data.device == 1000


@stand_ins
@pytest.mark.parametrize("fill", ["randn", "randu", "fill_rand_normal_", "fill_rand_binary_", "fill_rand_uniform_"])
def test_a_seed_draws_the_same_values_on_every_device(fill):
    def draw(device):
        moira.seed(7)
        if fill in ("randn", "randu"):
            return getattr(Tensor, fill)([5, 3], device).getdata()
        t = Tensor.zeros([5, 3], device)
        getattr(t, fill)(*{"fill_rand_normal_": (1.0, 2.0), "fill_rand_binary_": (0.5,)}.get(fill, (3.0,)))
        return t.getdata()
    np.testing.assert_array_equal(draw(0), draw(1000))


@pytest.mark.parametrize("device", [0] + ([1000] if GPUS else []))
def test_memory_statistics_and_failed_allocations(device):
    gc.collect()
    moira.reset_peak_memory(device)
    before = moira.memory_stats(device)
    t = Tensor.zeros([1 << 18], device)  # 1 MiB
    now = moira.memory_stats(device)
    assert now["in_use"] - before["in_use"] == 1 << 20 and now["peak"] >= now["in_use"]
    del t
    gc.collect()
    after = moira.memory_stats(device)
    assert after["in_use"] == before["in_use"] and after["peak"] == now["peak"] and after["cached"] >= 1 << 20
    with pytest.raises(MemoryError, match=f"cannot allocate {1 << 50} bytes on device {device}"):
        Tensor.empty([1 << 48], device)
    assert Tensor.ones([3], device).getdata().sum() == 3  # the allocator stays usable
    with pytest.raises((ValueError, RuntimeError), match="device"):
        moira.memory_stats(999)


@stand_ins
def test_a_training_loop_on_a_device_runs_in_flat_memory():
    rng = np.random.default_rng(0)
    x, target = QTensor(rng.normal(size=(64, 32)), device=1000), QTensor(rng.normal(size=(64, 1)), device=1000)
    w = QTensor(rng.normal(size=(32, 1)) * 0.1, requires_grad=True, device=1000)
    losses, in_use = [], []
    for step in range(30):
        d = T.matmul(x, w) - target
        loss = T.mean(d * d)
        w.zero_grad()
        loss.backward()
        w.data.sub_(w.grad.data.mult(0.05))
        losses.append(loss.item())
        del loss
        gc.collect()
        in_use.append(moira.memory_stats(1000)["in_use"])
    assert losses[-1] < losses[0] / 2 and len(set(in_use[5:])) == 1
