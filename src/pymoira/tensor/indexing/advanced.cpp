// Advanced-index analysis: a subscript key holding QTensor indices turned into one integer array
// per indexed leading axis, broadcast together, plus the block geometry the backend's gather and
// scatter take (see Note [Block addressing of advanced indexing] in the backend).
//
// Note [Placing the index block]
// numpy's rule: when the advanced entries of a key are adjacent, the axes their broadcast shape
// makes stay where the entries were; when a slice or None separates them, those axes come first.
// The key is normalised (QTensors to integer arrays, full slices added for the missing axes), its
// entries are permuted so the advanced ones lead when they are not adjacent, every entry up to
// the last one that is not a full slice becomes an integer array (a slice its arange), and all
// are broadcast together, the advanced ones into one block. The trailing full slices are not
// indexed: the block of k elements covers them. Everything is computed here with whole-array
// numpy calls, never a Python loop over positions.
#include <string>
#include <vector>

#include "indexing/advanced.hpp"
#include "init.hpp"

namespace pymoira {

using namespace nb::literals;

namespace {

// numpy, imported once and never released (the interpreter may be gone when statics die).
nb::module_& numpy() {
    static nb::module_* np = new nb::module_(nb::module_::import_("numpy"));
    return *np;
}

bool is_ndarray(nb::handle obj) { return nb::isinstance(obj, numpy().attr("ndarray")); }

std::string type_text(nb::handle obj) { return nb::cast<std::string>(nb::str(nb::handle((PyObject*)Py_TYPE(obj.ptr())))); }

[[noreturn]] void illegal_index(nb::handle idx) {
    throw std::runtime_error("illegal index type " + type_text(idx));
}

bool py_equal(nb::handle a, nb::handle b) {
    int r = PyObject_RichCompareBool(a.ptr(), b.ptr(), Py_EQ);
    if (r < 0) throw nb::python_error();
    return r == 1;
}

bool is_full_slice(nb::handle it) {
    if (!PySlice_Check(it.ptr())) return false;
    PySliceObject* s = reinterpret_cast<PySliceObject*>(it.ptr());
    return s->start == Py_None && s->stop == Py_None && s->step == Py_None;
}

std::vector<nb::object> items_of(nb::handle seq) {
    std::vector<nb::object> out;
    for (nb::handle it : nb::iter(seq)) out.push_back(nb::borrow(it));
    return out;
}

nb::tuple tuple_of(const std::vector<nb::object>& items) {
    nb::list l;
    for (const nb::object& o : items) l.append(o);
    return nb::tuple(l);
}

int64_t length_of(nb::handle obj) {
    Py_ssize_t n = PyObject_Length(obj.ptr());
    if (n < 0) throw nb::python_error();
    return static_cast<int64_t>(n);
}

}  // namespace

bool is_advanced_index(nb::handle idx) {
    PyObject* o = idx.ptr();
    if (is_ndarray(idx) || PyLong_Check(o) || PyList_Check(o) || PyTuple_Check(o)) return true;
    if (PySlice_Check(o) || idx.is_none()) return false;
    if (PyRange_Check(o)) return true;
    illegal_index(idx);
}

nb::object advanced_index_to_array(nb::handle idx, nb::handle ax_len) {
    PyObject* o = idx.ptr();
    nb::module_& np = numpy();
    if (is_ndarray(idx)) return idx.attr("astype")(nb::handle((PyObject*)&PyLong_Type));
    if (PyList_Check(o) || PyTuple_Check(o)) return np.attr("array")(idx);
    if (PyLong_Check(o)) {
        nb::list l;
        l.append(idx);
        return np.attr("array")(l);
    }
    if (PySlice_Check(o)) return np.attr("arange")(*idx.attr("indices")(ax_len));
    if (PyRange_Check(o)) return np.attr("arange")(idx.attr("start"), idx.attr("stop"), idx.attr("step"));
    illegal_index(idx);
}

nb::tuple drop_slice_none_at_end(nb::handle key) {
    std::vector<nb::object> items = items_of(key);
    while (!items.empty() && is_full_slice(items.back())) items.pop_back();
    return tuple_of(items);
}

nb::object get_broadcast_shape(nb::handle shape1, nb::handle shape2) {
    if (py_equal(shape1, shape2)) return nb::borrow(shape1);
    std::vector<nb::object> a = items_of(shape1), b = items_of(shape2);
    std::vector<nb::object> out = b.size() >= a.size() ? b : a;
    size_t i = out.size();
    nb::object one = nb::int_(1);
    for (size_t ka = a.size(), kb = b.size(); ka > 0 && kb > 0; --ka, --kb) {
        const nb::object& x = a[ka - 1];
        const nb::object& y = b[kb - 1];
        if (!py_equal(x, one) && !py_equal(y, one) && !py_equal(x, y))
            throw nb::value_error(("shape1=" + nb::cast<std::string>(nb::str(shape1)) +
                                   " is not broadcastable to shape2=" + nb::cast<std::string>(nb::str(shape2)))
                                      .c_str());
        out[--i] = py_equal(x, one) ? y : x;
    }
    return tuple_of(out);
}

nb::object broadcast_shapes_of(nb::handle seq) {
    nb::object shape = nb::tuple();
    for (nb::handle a : nb::iter(seq)) shape = get_broadcast_shape(shape, a.attr("shape"));
    return shape;
}

nb::tuple broadcast_advanced_indices(nb::handle arrays_obj, nb::handle block_axes_obj) {
    std::vector<nb::object> arrays = items_of(arrays_obj);
    std::vector<int64_t> block_axes;
    for (nb::handle a : nb::iter(block_axes_obj)) block_axes.push_back(nb::cast<int64_t>(a));
    if (block_axes.empty()) throw nb::index_error("list index out of range");
    nb::list block_arrays;
    for (int64_t ax : block_axes) block_arrays.append(arrays.at(static_cast<size_t>(ax)));
    std::vector<nb::object> block_shape = items_of(broadcast_shapes_of(block_arrays));
    const int64_t ndim_blk = static_cast<int64_t>(block_shape.size());
    const int64_t ndim_blk_delta = ndim_blk - static_cast<int64_t>(block_axes.size());
    const int64_t ndim_lead = block_axes.front();
    const int64_t ndim_trail = static_cast<int64_t>(arrays.size()) - (block_axes.back() + 1);
    std::vector<nb::object> bcast_shape;
    for (int64_t ax = 0; ax < ndim_lead; ++ax) bcast_shape.push_back(arrays[ax].attr("shape")[0]);
    for (const nb::object& e : block_shape) bcast_shape.push_back(e);
    for (int64_t ax = block_axes.back() + 1; ax < static_cast<int64_t>(arrays.size()); ++ax)
        bcast_shape.push_back(arrays[ax].attr("shape")[0]);
    const nb::tuple bshape = tuple_of(bcast_shape);
    nb::module_& np = numpy();
    std::vector<nb::object> out(arrays.size());
    const nb::tuple block_tuple = tuple_of(block_shape);
    for (int64_t ax : block_axes) {
        std::vector<nb::object> shape(static_cast<size_t>(ndim_lead), nb::int_(1));
        for (const nb::object& e : block_shape) shape.push_back(e);
        for (int64_t t = 0; t < ndim_trail; ++t) shape.push_back(nb::int_(1));
        nb::object a = np.attr("broadcast_to")(arrays[ax], block_tuple);
        out[ax] = np.attr("broadcast_to")(a.attr("reshape")(tuple_of(shape)), bshape);
    }
    for (int64_t ax = 0; ax < static_cast<int64_t>(arrays.size()); ++ax) {
        bool in_block = false;
        for (int64_t b : block_axes) in_block = in_block || b == ax;
        if (in_block) continue;
        std::vector<nb::object> shape(bcast_shape.size(), nb::int_(1));
        const size_t at = static_cast<size_t>(ax < ndim_lead ? ax : ax + ndim_blk_delta);
        shape.at(at) = arrays[ax].attr("shape")[0];
        out[ax] = np.attr("broadcast_to")(arrays[ax].attr("reshape")(tuple_of(shape)), bshape);
    }
    return tuple_of(out);
}

nb::tuple get_bdshape_for_slice(nb::handle key_obj, nb::handle data_shape_obj) {
    std::vector<nb::object> key = items_of(key_obj);
    std::vector<nb::object> key_nd;
    for (const nb::object& k : key)
        if (!k.is_none()) key_nd.push_back(k);
    const int64_t data_ndim = length_of(data_shape_obj);
    const int64_t n = static_cast<int64_t>(key_nd.size());
    if (n < data_ndim)
        throw std::runtime_error("too few indices after normalization: expected `ndim` (" + std::to_string(data_ndim) +
                                 ") but got " + std::to_string(n) + ". This is a bug, please report it!");
    if (n > data_ndim)
        throw nb::index_error(("too many indices (" + std::to_string(n) + ") for array with " +
                               std::to_string(data_ndim) + " dimensions")
                                  .c_str());
    std::vector<int64_t> adv_axs, adv_axs_nd, nonadv_axs_nd;
    for (size_t i = 0; i < key.size(); ++i)
        if (is_advanced_index(key[i])) adv_axs.push_back(static_cast<int64_t>(i));
    for (int64_t i = 0; i < n; ++i) {
        if (is_advanced_index(key_nd[i])) adv_axs_nd.push_back(i);
        else nonadv_axs_nd.push_back(i);
    }
    bool adjacent = true;
    for (size_t i = 1; i < adv_axs.size(); ++i) adjacent = adjacent && adv_axs[i] - adv_axs[i - 1] == 1;
    std::vector<nb::object> idcs_short = items_of(drop_slice_none_at_end(tuple_of(key_nd)));
    const int64_t kept = static_cast<int64_t>(idcs_short.size());  // axes kept[..n) are dropped
    std::vector<nb::object> idcs_permut_short;
    std::vector<int64_t> block_axs, permut(static_cast<size_t>(n));
    for (int64_t i = 0; i < n; ++i) permut[i] = i;
    if (adjacent) {
        idcs_permut_short = idcs_short;
        block_axs = adv_axs_nd;
    } else {
        for (int64_t ax : adv_axs_nd) idcs_permut_short.push_back(key_nd[ax]);
        for (int64_t ax : nonadv_axs_nd)
            if (ax < kept) idcs_permut_short.push_back(key_nd[ax]);
        for (size_t i = 0; i < adv_axs_nd.size(); ++i) block_axs.push_back(static_cast<int64_t>(i));
        permut.clear();
        permut.insert(permut.end(), adv_axs_nd.begin(), adv_axs_nd.end());
        permut.insert(permut.end(), nonadv_axs_nd.begin(), nonadv_axs_nd.end());
    }
    std::vector<int64_t> inverse(static_cast<size_t>(n));
    for (int64_t i = 0; i < n; ++i) inverse[permut[i]] = i;
    nb::list converted;
    for (size_t i = 0; i < idcs_permut_short.size() && i < static_cast<size_t>(n); ++i)
        converted.append(advanced_index_to_array(idcs_permut_short[i], data_shape_obj[nb::int_(permut[i])]));
    nb::list block_list;
    for (int64_t b : block_axs) block_list.append(b);
    nb::tuple bcast_permut = broadcast_advanced_indices(converted, block_list);
    nb::list advanced_arrays;
    for (int64_t ax : adv_axs_nd) advanced_arrays.append(advanced_index_to_array(key_nd[ax], data_shape_obj[nb::int_(ax)]));
    nb::object bcast_advanced_shape = broadcast_shapes_of(advanced_arrays);
    nb::list bcast_idcs_short;
    for (int64_t ax : inverse)
        if (permut[ax] < kept) bcast_idcs_short.append(bcast_permut[static_cast<size_t>(ax)]);
    return nb::make_tuple(bcast_advanced_shape, bcast_idcs_short);
}

nb::tuple prepare_indice_for_advance_indexing(nb::handle ishape_obj, nb::handle dshape_obj, nb::handle m_obj) {
    std::vector<nb::object> ishape = items_of(ishape_obj), dshape = items_of(dshape_obj);
    const int64_t m = nb::cast<int64_t>(m_obj);
    nb::object k = nb::int_(1);
    for (int64_t i = m; i < static_cast<int64_t>(dshape.size()); ++i) k = k * dshape[i];
    nb::module_& np = numpy();
    nb::object strides = np.attr("zeros")(10), mshape = np.attr("zeros")(10);
    nb::object stride = nb::int_(1);
    for (int64_t i = m - 1; i >= 0; --i) {
        strides[nb::int_(i)] = stride;  // numpy's own IndexError beyond 10 entries
        mshape[nb::int_(i)] = dshape.at(static_cast<size_t>(i));
        stride = stride * dshape[i];
    }
    // oshape: ishape[1:] followed by dshape[ishape[0]:], in a 15-entry array as the format has it.
    nb::object oshape = np.attr("full")(15, -1000);
    const int64_t lead = static_cast<int64_t>(ishape.size()) - 1;
    for (int64_t i = 0; i < lead; ++i) oshape[nb::int_(i)] = ishape[i + 1];
    const int64_t first = nb::cast<int64_t>(ishape.at(0));
    for (int64_t i = 0; i < static_cast<int64_t>(dshape.size()) - first; ++i)
        oshape[nb::int_(lead + i)] = dshape.at(static_cast<size_t>(first + i));
    const int64_t filled = nb::cast<int64_t>(np.attr("count_nonzero")(oshape.attr("__ne__")(-1000)));
    nb::object kept = oshape.attr("tolist")()[nb::slice(nb::int_(0), nb::int_(filled), nb::none())];
    return nb::make_tuple(kept, mshape, strides, k);
}

nb::tuple just_if_advance_index(nb::handle item, nb::handle shape) {
    std::vector<nb::object> index_list;
    int64_t num_none = 0;
    bool use_advance = false;
    for (nb::handle it : nb::iter(item)) {
        if (is_qtensor(it)) {
            if (!py_equal(qtensor_ref(it, "__getitem__").device, nb::int_(0)))
                throw nb::index_error("Use QTensor on CPU device as advance index");
            index_list.push_back(it.attr("to_numpy")().attr("astype")(nb::handle((PyObject*)&PyLong_Type)));
            use_advance = true;
            continue;
        }
        if (it.ptr() == Py_Ellipsis)
            throw nb::index_error("Cannot use ellipsis (`...`) for QTensor indexing,                         use (`:`) instead.");
        if (it.is_none()) ++num_none;
        index_list.push_back(nb::borrow(it));
    }
    const int64_t ell_ndim = length_of(shape) + num_none - static_cast<int64_t>(index_list.size());
    nb::object full = nb::slice(nb::none(), nb::none(), nb::none());
    for (int64_t i = 0; i < ell_ndim; ++i) index_list.push_back(full);
    return nb::make_tuple(tuple_of(index_list), nb::bool_(use_advance));
}

void init_advanced(nb::module_& m) {
    m.def("_just_if_advance_index", &just_if_advance_index, "item"_a, "shape"_a,
          "helper function to just if use advance index");
    m.def("_is_advanced_index", &is_advanced_index, "idx"_a.none(),
          "Whether a key entry takes part in advanced indexing (arrays, ints, lists, tuples, ranges).");
    m.def("_advanced_index_to_array", &advanced_index_to_array, "idx"_a.none(), "ax_len"_a,
          "A key entry as an integer numpy array along an axis of length ax_len.");
    m.def("_drop_slice_none_at_end", &drop_slice_none_at_end, "key"_a, "The key without its trailing full slices.");
    m.def("get_bdshape_for_slice", &get_bdshape_for_slice,
          nb::sig("def get_bdshape_for_slice(key: tuple[Any, ...], data_shape: Sequence[int]) "
                  "-> tuple[tuple[int, ...], list[NDArray[Any]]]"),
          "key"_a, "data_shape"_a,
          "get broadcast shape for slice");
    m.def("_get_broadcast_shape", &get_broadcast_shape, "shape1"_a, "shape2"_a,
          "The shape both shapes broadcast to.");
    m.def("_broadcast_shapes", &broadcast_shapes_of, "seq"_a, "The broadcast shape of the shapes of seq's arrays.");
    m.def("_broadcast_advanced_indices", &broadcast_advanced_indices, "arrays"_a, "block_axes"_a,
          "Broadcast arrays according to position in the sequence.");
    m.def("_prepare_indice_for_advance_indexing", &prepare_indice_for_advance_indexing, "ishape"_a, "dshape"_a,
          "m"_a, "The block geometry of an index array of shape ishape over data of shape dshape: (oshape, mshape, "
          "strides, k).");
}

}  // namespace pymoira
