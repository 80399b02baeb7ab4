"""Backend index strings: select, set_select, select_bp and set_select_bp against numpy."""
import numpy as np
import pytest

from pymoira._core import Tensor

AAA = np.arange(1, 61, dtype=np.float32).reshape(4, 5, 3)


def core(a):
    return Tensor(np.ascontiguousarray(a))


# ---- a numpy reference for index-string lists --------------------------------------------------

def random_entry(rng, n):
    """One index-string entry for an axis of length n, and its per-axis meaning for numpy."""
    kind = rng.integers(0, 5 if n > 0 else 3)
    if kind == 0:
        return ":", slice(None)
    if kind == 1:
        b, e = rng.integers(-n, n + 1, size=2)
        return f"{b}:{e}", slice(int(b), int(e))
    if kind == 2:
        b, e = rng.integers(-n, n + 1, size=2)
        s = int(rng.choice([-3, -2, -1, 1, 2, 3]))
        fields = [str(b) if rng.random() < 0.8 else "", str(e) if rng.random() < 0.8 else "", str(s)]
        sl = slice(int(fields[0]) if fields[0] else None, int(fields[1]) if fields[1] else None, s)
        return ":".join(fields), sl
    if kind == 3:
        i = int(rng.integers(-n, n))
        return str(i), i
    items = [int(v) for v in rng.integers(-n, n, size=rng.integers(1, 5))]
    return "".join(f"{v}," for v in items), items


def positions(n, meaning):
    if isinstance(meaning, slice):
        return np.arange(n)[meaning]
    if isinstance(meaning, list):
        return np.array(meaning, dtype=np.int64) % n
    return np.array([meaning % n])


def reference_select(a, meanings):
    """Each axis indexed on its own; integer entries drop their axis; no axes left gives [1]."""
    mesh = np.ix_(*[positions(a.shape[k], m) for k, m in enumerate(meanings)]) if meanings else ()
    out = a[mesh] if meanings else a.copy()
    keep = [k for k, m in enumerate(meanings) if not isinstance(m, int)] + list(range(len(meanings), a.ndim))
    out = out.reshape([out.shape[k] for k in keep])
    return out.reshape(1) if out.ndim == 0 else out


def random_case(rng):
    shape = [int(v) for v in rng.integers(0, 6, size=rng.integers(1, 5))]
    count = int(rng.integers(0, len(shape) + 1))
    pairs = [random_entry(rng, shape[k]) for k in range(count)]
    meanings = [m for _, m in pairs] + [slice(None)] * (len(shape) - count)
    return shape, [e for e, _ in pairs], meanings


# ---- documented examples -----------------------------------------------------------------------

@pytest.mark.parametrize("index, expected_shape, expected", [
    (["0:2:1", "3", "0:2:1"], [2, 2], [[10, 11], [25, 26]]),
    (["3", "4", "1"], [1], [59]),
    (["0:4:1", "2", "0:3:1"], [4, 3], None),
    (["2"], [5, 3], None),
    (["0:2:1", "0:5:3", "2:3:1"], [2, 2, 1], [[[3], [12]], [[18], [27]]]),
])
def test_documented_examples(index, expected_shape, expected):
    r = core(AAA).select(index)
    assert r.shape == expected_shape
    if expected is not None:
        np.testing.assert_array_equal(np.array(r), expected)


def test_documented_region_with_positions():
    a = np.arange(2 * 3 * 16, dtype=np.float64).reshape(2, 3, 16)
    r = core(a).select([":", "1,2,0,0,2,", "-12:14:2"])
    assert r.shape == [2, 5, 5]
    np.testing.assert_array_equal(np.array(r), a[:, [1, 2, 0, 0, 2]][:, :, [4, 6, 8, 10, 12]])


# ---- random index strings against numpy --------------------------------------------------------

@pytest.mark.parametrize("seed", range(40))
def test_select_random_forms(seed):
    rng = np.random.default_rng(seed)
    for _ in range(10):
        shape, index, meanings = random_case(rng)
        a = rng.standard_normal(shape)
        r = core(a).select(index)
        ref = reference_select(a, meanings)
        assert r.shape == list(ref.shape), (shape, index)
        np.testing.assert_array_equal(np.array(r), ref)


@pytest.mark.parametrize("seed", range(20))
def test_writes_and_gradients_random_forms(seed):
    rng = np.random.default_rng(100 + seed)
    for _ in range(10):
        shape, index, meanings = random_case(rng)
        a = rng.standard_normal(shape)
        mesh = np.ix_(*[positions(shape[k], m) for k, m in enumerate(meanings)])
        counts = [len(p) for p in (positions(shape[k], m) for k, m in enumerate(meanings))]
        region = reference_select(a, meanings).shape
        g = rng.standard_normal(region)
        # select_bp: zeros with g added at the addressed positions, repeats accumulating
        expected = np.zeros(shape)
        np.add.at(expected, mesh, g.reshape(counts))
        np.testing.assert_allclose(np.array(Tensor.select_bp(core(a), index, core(g))), expected, atol=1e-12)
        # set_select_bp: g of the target's shape read at the region
        gt = rng.standard_normal(shape)
        np.testing.assert_array_equal(np.array(Tensor.set_select_bp(core(a), index, core(gt))),
                                      reference_select(gt, meanings))
        # set_select: without repeated positions the written values land exactly
        if not any(isinstance(m, list) and len(set(np.array(m) % shape[k])) != len(m)
                   for k, m in enumerate(meanings)):
            t = core(a)
            t.set_select(index, core(g))
            ref = a.copy()
            ref[mesh] = g.reshape(counts)
            np.testing.assert_array_equal(np.array(t), ref)


@pytest.mark.parametrize("n, text", [(5, "::-1"), (5, "-1::-2"), (5, "4:0:-1"), (5, "0:5:-1"), (6, "-6:6:4"),
                                     (6, "5:-6:-1"), (4, ":"), (4, "::"), (4, "1:"), (4, ":-1"), (0, ":"), (3, "3:"),
                                     # bounds beyond the axis are clamped, as Python's slices clamp them
                                     (5, "0:10"), (5, "-10:3"), (5, "10:0:-1"), (5, "2:-10:-1"), (5, "-10::-1"),
                                     (5, "7:9"), (5, "-9:-7")])
def test_ranges_read_like_python_slices(n, text):
    a = np.arange(n, dtype=np.float64)
    fields = [int(f) if f else None for f in text.split(":")]
    np.testing.assert_array_equal(np.array(core(a).select([text])), a[slice(*fields)])


@pytest.mark.parametrize("text, expected", [("1.0,2.0,", [1, 2]), ("-1,", [3]), ("True,False,", [1, 0]),
                                            ("2,2,0", [2, 2, 0]), ("", []), ("3e0,", [3])])
def test_position_list_items(text, expected):
    a = np.arange(4, dtype=np.int64)
    np.testing.assert_array_equal(np.array(core(a).select([text])), a[expected])


def test_integer_entries_accept_bool_and_float_text():
    a = np.arange(12, dtype=np.float32).reshape(3, 4)
    np.testing.assert_array_equal(np.array(core(a).select(["True"])), a[1])
    np.testing.assert_array_equal(np.array(core(a).select(["-1", "2.0"])), [a[-1, 2]])


@pytest.mark.parametrize("dtype", [np.bool_, np.int64, np.float32, np.float64, np.complex64, np.complex128])
def test_select_keeps_element_type_and_writes_convert(dtype):
    a = (np.arange(24).reshape(2, 3, 4) % 3).astype(dtype)
    if a.dtype.kind == "c":
        a.imag = np.arange(24).reshape(2, 3, 4)
    r = core(a).select(["1", "0:3:2"])
    assert np.array(r).dtype == a.dtype
    np.testing.assert_array_equal(np.array(r), a[1, 0:3:2])
    t = core(a)
    t.set_select([":", "1"], core(np.full((2, 4), 1.75)))
    ref = a.copy()
    ref[:, 1] = np.full((2, 4), 1.75).astype(dtype)
    np.testing.assert_array_equal(np.array(t), ref)


@pytest.mark.parametrize("values_shape", [[1], [], [4], [3, 1], [1, 3, 4], [1, 1, 4]])
def test_set_select_broadcasts_values(values_shape):
    a = np.zeros((5, 3, 4))
    v = np.arange(int(np.prod(values_shape)), dtype=np.float64).reshape(values_shape) + 1
    t = core(a)
    t.set_select(["1:4:2", ":"], core(v))
    ref = a.copy()
    ref[1:4:2] = v
    np.testing.assert_array_equal(np.array(t), ref)


def test_set_select_repeated_positions_keep_the_last_value():
    t = core(np.zeros(4))
    t.set_select(["1,1,3,1,"], core(np.array([1.0, 2.0, 3.0, 4.0])))
    np.testing.assert_array_equal(np.array(t), [0, 4, 0, 3])


def test_set_select_source_sharing_the_target():
    t = core(np.arange(6, dtype=np.float64))
    t.set_select(["::-1"], t)
    np.testing.assert_array_equal(np.array(t), np.arange(6)[::-1])


S = slice(None)


@pytest.mark.parametrize("index, meanings", [
    (["0:512:1", "3"], [slice(0, 512, 1), 3]), ([":", "3"], [S, 3]), (["3:900"], [slice(3, 900), S]),
    (["1:1000:7", "10:20"], [slice(1, 1000, 7), slice(10, 20)]), (["5,1000,5,2,", ":"], [[5, 1000, 5, 2], S]),
    ([":", "1023,0,0,"], [S, [1023, 0, 0]]),
], ids=str)
def test_large_regions(index, meanings):
    rng = np.random.default_rng(5)
    a = rng.standard_normal((1024, 1024)).astype(np.float32)
    ref = reference_select(a, meanings)
    np.testing.assert_array_equal(np.array(core(a).select(index)), ref)
    g = rng.standard_normal(ref.shape).astype(np.float32)
    expected = np.zeros_like(a)
    counts = [len(positions(1024, m)) for m in meanings]
    np.add.at(expected, np.ix_(*[positions(1024, m) for m in meanings]), g.reshape(counts))
    np.testing.assert_array_equal(np.array(Tensor.select_bp(core(a), index, core(g))), expected)


# ---- bad input ---------------------------------------------------------------------------------

BAD = [
    (["4"], IndexError, ["'4'", "length 4"]), (["-5"], IndexError, ["'-5'", "length 4"]),
    (["4,"], IndexError, ["'4,'", "length 4"]), ([":", "5"], IndexError, ["'5'", "length 5"]),
    (["1,4,"], IndexError, ["'1,4,'", "length 4"]), (["1", "2", "0", "0"], IndexError, ["'0'", "3 axes"]),
    (["x"], ValueError, ["'x'", "length 4"]), (["1:2:0"], ValueError, ["'1:2:0'"]),
    (["1:2:3:4"], ValueError, ["'1:2:3:4'"]), (["1.5"], ValueError, ["'1.5'"]), (["1,,2,"], ValueError, ["'1,,2,'"]),
    ([","], ValueError, ["','"]), (["1:a"], ValueError, ["'1:a'"]), ([" 1"], ValueError, ["' 1'"]),
    (["inf,"], ValueError, ["'inf,'"]), (["1.0:2"], ValueError, ["'1.0:2'"]),
    # integers beyond int64 are positions like any other, out of range of every axis
    (["99999999999999999999"], IndexError, ["'99999999999999999999'", "length 4"]),
    (["9223372036854775808"], IndexError, ["position 9223372036854775808 ", "length 4"]),
    (["-9223372036854775809"], IndexError, ["position -9223372036854775809 ", "length 4"]),
    ([":", "1,-18446744073709551616,"], IndexError, ["position -18446744073709551616 ", "length 5"]),
]


@pytest.mark.parametrize("index, exc, words", BAD)
def test_bad_index_strings_raise_and_leave_the_target_unchanged(index, exc, words):
    a = np.arange(4 * 5 * 3, dtype=np.float32).reshape(4, 5, 3)
    t = core(a)
    with pytest.raises(exc) as info:
        t.select(index)
    for w in words:
        assert w in str(info.value)
    with pytest.raises(exc):
        t.set_select(index, core(np.zeros(1, dtype=np.float32)))
    with pytest.raises(exc):
        Tensor.select_bp(t, index, core(np.zeros(1, dtype=np.float32)))
    np.testing.assert_array_equal(np.array(t), a)


@pytest.mark.parametrize("values_shape", [[2], [3, 2], [2, 2, 3], [2, 1, 1, 3]])
def test_set_select_rejects_values_of_another_shape(values_shape):
    a = np.arange(12, dtype=np.float64).reshape(4, 3)
    t = core(a)
    with pytest.raises(ValueError, match=r"region of shape \[3, 3\]"):
        t.set_select(["1:4"], core(np.ones(values_shape)))
    np.testing.assert_array_equal(np.array(t), a)


@pytest.mark.parametrize("call", [
    lambda t: t.select("0"),
    lambda t: t.select([0]),
    lambda t: t.select([None]),
    lambda t: t.set_select([":"], np.zeros(3)),
    lambda t: Tensor.set_select_bp(t, [":"], core(np.zeros(4))),
    lambda t: Tensor.select_bp(t, ["1"], core(np.zeros(4))),
])
def test_wrong_argument_types_and_shapes_raise(call):
    t = core(np.zeros((3, 3)))
    with pytest.raises((TypeError, ValueError)):
        call(t)
