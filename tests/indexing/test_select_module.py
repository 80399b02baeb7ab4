"""Module index strings beyond the op table: NaN positions, set_select's records and flags, failed
writes, the slice-string helpers and maybe_wrap_dim."""
import subprocess
import sys

import numpy as np
import pytest

import pymoira.tensor.tensor as M
from helpers import leaf
from pymoira.tensor.tensor import QTensor, maybe_wrap_dim, select, set_select, zeros


def qt(a, requires_grad=False):
    return leaf(a, requires_grad)


# ---- select --------------------------------------------------------------------------------------

@pytest.mark.parametrize("positions, exc, words", [([np.nan], ValueError, "NaN"), ([1 + 0j], TypeError, "complex")])
def test_select_rejects_positions_that_are_no_integers(positions, exc, words):
    for target in (qt(np.zeros(3)), QTensor(np.zeros(3, dtype=np.complex64))):
        with pytest.raises(exc, match=words):
            select(target, [QTensor(np.array(positions))])
        with pytest.raises(exc):
            set_select(target, [QTensor(np.array(positions))], QTensor(np.ones(1)))
        np.testing.assert_array_equal(target.pdata, np.zeros(3))


# ---- set_select ----------------------------------------------------------------------------------

def test_set_select_writes_and_records_on_the_target():
    t = qt(np.zeros((3, 4)), requires_grad=True)
    before = QTensor.GraphNode(qt(np.zeros(1), requires_grad=True), lambda g: g)
    nodes = [before]
    t.nodes = nodes
    v = qt(np.arange(8).reshape(2, 4), requires_grad=True)
    assert set_select(t, ["1:3"], v) is None
    np.testing.assert_array_equal(t.pdata[1:3], np.arange(8).reshape(2, 4))
    assert t.nodes is nodes and len(nodes) == 2 and nodes[0] is before and nodes[1].tensor is v
    assert nodes[1].name == "set select grad input: [3, 4]set select index ['1:3']"
    assert t.requires_grad is True


def test_set_select_float_positions_and_names():
    t = qt(np.zeros(5))
    v = qt([7.0, 8.0], requires_grad=True)
    set_select(t, [QTensor(np.array([4.0, 1.0]))], v)
    np.testing.assert_array_equal(t.pdata, [0, 8, 0, 0, 7])
    assert t.nodes[0].name == "set select grad input: [5]set select index ['4.0,1.0,']"
    t2 = qt(np.zeros(5))
    set_select(t2, [QTensor(np.array([3, 0], dtype=np.int64))], v)
    assert t2.nodes[0].name.endswith("['3,0,']")


@pytest.mark.parametrize("flag, expected", [(False, False), (0, 0), (None, None)])
def test_set_select_flag_comes_from_the_values(flag, expected):
    t = qt(np.zeros((2, 2)), requires_grad=True)
    nodes = t.nodes
    v = qt(np.ones(2))
    v.requires_grad = flag
    set_select(t, ["0"], v)
    assert t.requires_grad is expected and t.nodes is nodes and nodes == []


def test_failed_set_select_leaves_everything_unchanged():
    t = qt(np.arange(6).reshape(2, 3), requires_grad=True)
    nodes = t.nodes
    v = qt(np.ones((4, 4)), requires_grad=False)
    for index in (["0"], ["5"], ["0:1", "9"], ["0", "0", "0"]):
        with pytest.raises((ValueError, IndexError)):
            set_select(t, index, v)
    np.testing.assert_array_equal(t.pdata, np.arange(6).reshape(2, 3))
    assert t.requires_grad is True and t.nodes is nodes and nodes == []


# ---- slice strings and basic keys ----------------------------------------------------------------

@pytest.mark.parametrize("sl, n, text", [
    (slice(1, None, None), 4, "1:4:1"), (slice(None, -1, 2), 4, "0:-1:2"), (slice(-3, None, None), 4, "-3:4:1"),
    (slice(None, None, -1), 5, "0:5:-1"), (slice(None), 3, "0:3:1"),
])
def test_parse_slice_string(sl, n, text):
    assert M._parse_slice_string(qt(np.zeros((2, n))), 1, sl) == text


def test_parse_slice_string_refuses_non_slices():
    with pytest.raises(TypeError):
        M._parse_slice_string(qt(np.zeros(3)), 0, 1)


def test_just_item():
    assert M._just_item(3, 3) is None
    with pytest.raises(ValueError) as info:
        M._just_item(2, 3)
    assert str(info.value) == "numbers of keys should not more than input shape length"


AAA = np.arange(1, 61, dtype=np.float64).reshape(4, 5, 3)


@pytest.mark.parametrize("key, expected", [
    ((slice(0, 2), 3, slice(None, 2)), [[10, 11], [25, 26]]),
    ((slice(0, 2), slice(None, None, 3), slice(2, None)), [[[3], [12]], [[18], [27]]]),
    ((3, 4, 1), [59]),
    ([0, 1], AAA[0, 1]),
    ((slice(-3, None), -1), AAA[-3:, -1]),
])
def test_basic_keys(key, expected):
    r = M._process_select_with_basic_indexings(key, qt(AAA))
    np.testing.assert_array_equal(r.pdata, expected)


@pytest.mark.parametrize("key, message", [
    ((0, None), "only support slice and integar index"),
    ((0, 1.5), "only support slice and integar index"),
    ((0, None, 1, 2), "numbers of keys should not more than input shape length"),
])
def test_basic_key_messages(key, message):
    for call in (lambda: M._process_select_with_basic_indexings(key, qt(AAA)),
                 lambda: M._process_set_select_with_basic_indexings(key, qt(AAA), qt([1.0]))):
        with pytest.raises(ValueError) as info:
            call()
        assert str(info.value) == message


def test_basic_key_without_length():
    with pytest.raises(TypeError):
        M._process_select_with_basic_indexings(None, qt(AAA))


def test_basic_set_select():
    t = zeros([4, 5])
    assert M._process_set_select_with_basic_indexings((slice(1, 3), 2), t, qt([1.0, 2.0])) is None
    ref = np.zeros((4, 5))
    ref[1:3, 2] = [1, 2]
    np.testing.assert_array_equal(t.pdata, ref)


# ---- maybe_wrap_dim ------------------------------------------------------------------------------

@pytest.mark.parametrize("args, expected", [
    ((-1, 3), 2), ((0, 0), 0), ((-1, 0), 0), ((2, 3), 2), ((-3, 3), 0), ((0, 1), 0), ((1, 0, True), None),
    ((3, 3), None), ((-4, 3), None), ((0, 0, False), None), ((0, -2, False), None),
])
def test_maybe_wrap_dim(args, expected):
    if expected is None:
        with pytest.raises(AssertionError) as info:
            maybe_wrap_dim(*args)
        assert str(info.value) == ""
    else:
        assert maybe_wrap_dim(*args) == expected


def test_maybe_wrap_dim_keywords_and_counts():
    assert maybe_wrap_dim(dim=-2, dim_post_expr=4, wrap_scalar=False) == 2
    with pytest.raises(TypeError):
        maybe_wrap_dim(1)
    with pytest.raises(TypeError):
        maybe_wrap_dim(1, 2, True, 4)


def test_assertions_skipped_under_optimize(tmp_path):
    code = ("from pymoira.tensor.tensor import maybe_wrap_dim as w\n"
            "print(w(3, 3), w(-5, 3), w(0, 0, False), w(-2, 0))")
    # Run outside the source tree, whose pymoira folder has no compiled modules.
    out = subprocess.run([sys.executable, "-O", "-c", code], capture_output=True, text=True, check=True,
                         cwd=tmp_path)
    assert out.stdout.split() == ["3", "-2", "0", "-1"]
