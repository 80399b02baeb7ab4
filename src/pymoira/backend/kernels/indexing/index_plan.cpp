// The index-string parser; see Note [Index-string entries].
#include "kernels/indexing/index_plan.hpp"

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <limits>
#include <string_view>
#include <unordered_set>

#include "core/errors.hpp"

namespace moira {

namespace {

// Where an entry sits, for messages.
struct EntryContext {
    const char* op;
    const std::string& text;
    size_t axis;
    int64_t extent;
};

[[noreturn]] void bad_entry(const EntryContext& c, const char* why) {
    fail<ValueError>(c.op, ": index entry '", c.text, "' for axis ", c.axis, " (length ", c.extent, ") ", why);
}

[[noreturn]] void out_of_axis(const EntryContext& c, const char* what, int64_t value) {
    fail<IndexError>(c.op, ": index entry '", c.text, "' for axis ", c.axis, ": ", what, " ", value,
                     " is out of range for an axis of length ", c.extent);
}

// A decimal integer with an optional sign; false when `s` is anything else, or overflows unless
// `saturate` (then the int64 limit of its sign, and `*saturated` is set when given).
bool parse_int(std::string_view s, int64_t& out, bool saturate = false, bool* saturated = nullptr) {
    size_t i = 0;
    bool neg = false;
    if (i < s.size() && (s[i] == '-' || s[i] == '+')) neg = s[i++] == '-';
    if (i == s.size()) return false;
    uint64_t v = 0;
    const uint64_t limit = neg ? uint64_t(std::numeric_limits<int64_t>::max()) + 1
                               : uint64_t(std::numeric_limits<int64_t>::max());
    for (; i < s.size(); ++i) {
        if (s[i] < '0' || s[i] > '9') return false;
        uint64_t d = uint64_t(s[i] - '0');
        if (v > (limit - d) / 10) {
            if (!saturate) return false;
            if (saturated) *saturated = true;
            v = limit;
            for (; i < s.size(); ++i)
                if (s[i] < '0' || s[i] > '9') return false;
            break;
        }
        v = v * 10 + d;
    }
    out = neg ? int64_t(0 - v) : int64_t(v);
    return true;
}

// A position: an integer, an integral decimal ("1.0", "-2e0") or a bool's text. An integer
// beyond int64 is well formed but outside every axis: IndexError naming its text.
bool parse_position(std::string_view s, int64_t& out, const EntryContext& c) {
    bool beyond = false;
    if (parse_int(s, out, true, &beyond)) {
        if (beyond)
            fail<IndexError>(c.op, ": index entry '", c.text, "' for axis ", c.axis, ": position ", s,
                             " is out of range for an axis of length ", c.extent);
        return true;
    }
    if (s == "True") { out = 1; return true; }
    if (s == "False") { out = 0; return true; }
    if (s.empty() || s.size() > 64) return false;
    // strtod accepts forms the item grammar does not ("inf", "0x1p3", leading blanks): allow
    // only digits, one sign, a point and an exponent.
    for (char ch : s)
        if (!((ch >= '0' && ch <= '9') || ch == '.' || ch == '-' || ch == '+' || ch == 'e' || ch == 'E')) return false;
    std::string buf(s);
    char* end = nullptr;
    errno = 0;
    double d = std::strtod(buf.c_str(), &end);
    if (end != buf.c_str() + buf.size() || errno == ERANGE || !std::isfinite(d)) return false;
    if (d != std::floor(d) || std::fabs(d) > 9.0e15) return false;
    out = static_cast<int64_t>(d);
    return true;
}

// Wraps a position into [0, n); IndexError outside [-n, n-1].
int64_t wrap_position(int64_t p, const EntryContext& c) {
    if (p < -c.extent || p >= c.extent) out_of_axis(c, "position", p);
    return p < 0 ? p + c.extent : p;
}

AxisIndex parse_list(std::string_view s, const EntryContext& c, bool& repeats) {
    AxisIndex ax;
    ax.is_list = true;
    size_t pos = 0;
    while (pos < s.size()) {
        size_t comma = s.find(',', pos);
        std::string_view item = s.substr(pos, comma == std::string_view::npos ? std::string_view::npos : comma - pos);
        int64_t p = 0;
        if (!parse_position(item, p, c)) bad_entry(c, "is not a list of positions such as '1,0,2,'");
        ax.list.push_back(wrap_position(p, c));
        if (comma == std::string_view::npos) break;
        pos = comma + 1;
    }
    ax.count = static_cast<int64_t>(ax.list.size());
    if (!repeats && ax.count > 1) {
        std::unordered_set<int64_t> seen(ax.list.begin(), ax.list.end());
        repeats = seen.size() != ax.list.size();
    }
    return ax;
}

AxisIndex parse_range(std::string_view s, const EntryContext& c) {
    std::string_view fields[3];
    int nfields = 0;
    size_t pos = 0;
    while (true) {
        size_t colon = s.find(':', pos);
        if (nfields == 3) bad_entry(c, "has more than three fields");
        fields[nfields++] = s.substr(pos, colon == std::string_view::npos ? std::string_view::npos : colon - pos);
        if (colon == std::string_view::npos) break;
        pos = colon + 1;
    }
    const int64_t n = c.extent;
    bool has[3] = {false, false, false};
    int64_t v[3] = {0, 0, 1};
    for (int k = 0; k < nfields; ++k) {
        if (fields[k].empty()) continue;
        // Bounds beyond int64 clamp to the axis like any other, as Python's slices read them.
        if (!parse_int(fields[k], v[k], true)) bad_entry(c, "is not a range such as '1:3' or '0:5:2'");
        has[k] = true;
    }
    const int64_t step = std::max(v[2], -std::numeric_limits<int64_t>::max());  // -step must fit
    if (step == 0) bad_entry(c, "has a step of 0");

    // Python's slice.indices: a negative bound counts from the end, and bounds beyond the axis
    // are clamped to it (so "0:10" on an axis of 5 addresses all 5 positions).
    auto bound = [&](int64_t b, int64_t lo, int64_t hi) {
        if (b < 0) b = b < -n ? -1 : b + n;  // still below 0 when it was below -n
        return b < lo ? lo : (b > hi ? hi : b);
    };
    int64_t start, stop;
    if (step > 0) {
        start = has[0] ? bound(v[0], 0, n) : 0;
        stop = has[1] ? bound(v[1], 0, n) : n;
    } else {
        start = has[0] ? bound(v[0], -1, n - 1) : n - 1;
        stop = has[1] ? bound(v[1], -1, n - 1) : -1;
    }

    AxisIndex ax;
    ax.start = start;
    ax.step = step;
    if (step > 0) ax.count = start < stop ? (stop - start - 1) / step + 1 : 0;
    else ax.count = stop < start ? (start - stop - 1) / (-step) + 1 : 0;
    // A range of at most one position reads no step: a step as large as "::2**62" would only
    // overflow the view's stride (step times the axis stride) for nothing.
    if (ax.count <= 1) ax.step = 1;
    if (ax.count == 0) ax.start = 0;
    return ax;
}

}  // namespace

IndexPlan parse_index(const std::vector<std::string>& entries, const Shape& shape, const char* op) {
    if (entries.size() > shape.size())
        fail<IndexError>(op, ": ", entries.size(), " index entries for a tensor of shape ", shape_str(shape),
                         " with ", shape.size(), " axes; entry '", entries[shape.size()], "' has no axis");
    IndexPlan plan;
    plan.axes.resize(shape.size());
    for (size_t k = 0; k < shape.size(); ++k) {
        AxisIndex& ax = plan.axes[k];
        if (k >= entries.size()) {
            ax.count = shape[k];
            continue;
        }
        const std::string& text = entries[k];
        EntryContext c{op, text, k, shape[k]};
        std::string_view s(text);
        if (s.find(',') != std::string_view::npos || s.empty()) {
            ax = parse_list(s, c, plan.has_repeats);
        } else if (s.find(':') != std::string_view::npos) {
            ax = parse_range(s, c);
        } else {
            int64_t p = 0;
            if (!parse_position(s, p, c)) bad_entry(c, "is not a position, a range or a list of positions");
            ax.start = wrap_position(p, c);
            ax.count = 1;
            ax.kept = false;
        }
    }
    for (const AxisIndex& ax : plan.axes)
        if (ax.kept) plan.region.push_back(ax.count);
    if (plan.region.empty()) plan.region.push_back(1);
    return plan;
}

}  // namespace moira
