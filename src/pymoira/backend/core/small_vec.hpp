// SmallVec: a vector that keeps its first N elements inside the object, so the shapes and
// strides of ordinary tensors (up to N axes) never touch the heap. A small operation copies
// several of them (a result's shape and strides, a gradient function's saved shape), and a heap
// allocation for each was most of the cost of an operation on a few elements.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <initializer_list>
#include <iterator>
#include <new>
#include <type_traits>
#include <vector>

namespace moira {

template <class T, size_t N>
class SmallVec {
    static_assert(std::is_trivially_copyable_v<T>, "SmallVec holds plain values");

  public:
    using value_type = T;
    using size_type = size_t;
    using difference_type = std::ptrdiff_t;
    using reference = T&;
    using const_reference = const T&;
    using iterator = T*;
    using const_iterator = const T*;

    SmallVec() = default;
    explicit SmallVec(size_t n, const T& v = T()) { assign(n, v); }
    SmallVec(std::initializer_list<T> il) { assign(il.begin(), il.end()); }
    template <class It, class = typename std::iterator_traits<It>::iterator_category>
    SmallVec(It first, It last) { assign(first, last); }
    SmallVec(const SmallVec& o) { assign(o.begin(), o.end()); }
    // To and from std::vector, for the code that builds lists of extents as vectors.
    SmallVec(const std::vector<T>& v) { assign(v.begin(), v.end()); }  // NOLINT: implicit on purpose
    operator std::vector<T>() const { return std::vector<T>(begin(), end()); }
    SmallVec(SmallVec&& o) noexcept { take(o); }
    ~SmallVec() { release(); }

    SmallVec& operator=(const SmallVec& o) {
        if (this != &o) assign(o.begin(), o.end());
        return *this;
    }
    SmallVec& operator=(SmallVec&& o) noexcept {
        if (this != &o) {
            release();
            take(o);
        }
        return *this;
    }
    SmallVec& operator=(std::initializer_list<T> il) {
        assign(il.begin(), il.end());
        return *this;
    }

    size_t size() const { return size_; }
    bool empty() const { return size_ == 0; }
    size_t capacity() const { return cap_; }
    T* data() { return data_; }
    const T* data() const { return data_; }
    T* begin() { return data_; }
    T* end() { return data_ + size_; }
    const T* begin() const { return data_; }
    const T* end() const { return data_ + size_; }
    T& operator[](size_t i) { return data_[i]; }
    const T& operator[](size_t i) const { return data_[i]; }
    T& front() { return data_[0]; }
    const T& front() const { return data_[0]; }
    T& back() { return data_[size_ - 1]; }
    const T& back() const { return data_[size_ - 1]; }

    void reserve(size_t n) {
        if (n <= cap_) return;
        size_t cap = std::max<size_t>(n, 2 * size_t(cap_));
        T* p = static_cast<T*>(std::malloc(cap * sizeof(T)));
        if (!p) throw std::bad_alloc();
        if (size_) std::memcpy(p, data_, size_ * sizeof(T));
        if (data_ != inline_) std::free(data_);
        data_ = p;
        cap_ = static_cast<uint32_t>(cap);
    }
    void clear() { size_ = 0; }
    void resize(size_t n, const T& v = T()) {
        reserve(n);
        for (size_t i = size_; i < n; ++i) data_[i] = v;
        size_ = static_cast<uint32_t>(n);
    }
    void assign(size_t n, const T& v) {
        size_ = 0;
        resize(n, v);
    }
    template <class It, class = typename std::iterator_traits<It>::iterator_category>
    void assign(It first, It last) {
        const size_t n = static_cast<size_t>(std::distance(first, last));
        size_ = 0;
        reserve(n);
        std::copy(first, last, data_);
        size_ = static_cast<uint32_t>(n);
    }
    void push_back(const T& v) {
        if (size_ == cap_) {
            T copy = v;  // v may live in this vector
            reserve(size_ + 1);
            data_[size_++] = copy;
            return;
        }
        data_[size_++] = v;
    }
    void emplace_back(const T& v) { push_back(v); }
    void pop_back() { --size_; }

    T* insert(const T* pos, const T& v) {
        const size_t at = static_cast<size_t>(pos - data_);
        T copy = v;
        reserve(size_ + 1);
        std::memmove(data_ + at + 1, data_ + at, (size_ - at) * sizeof(T));
        data_[at] = copy;
        ++size_;
        return data_ + at;
    }
    T* insert(const T* pos, size_t n, const T& v) {
        const size_t at = static_cast<size_t>(pos - data_);
        T copy = v;
        reserve(size_ + n);
        std::memmove(data_ + at + n, data_ + at, (size_ - at) * sizeof(T));
        for (size_t i = 0; i < n; ++i) data_[at + i] = copy;
        size_ += static_cast<uint32_t>(n);
        return data_ + at;
    }
    template <class It, class = typename std::iterator_traits<It>::iterator_category>
    T* insert(const T* pos, It first, It last) {
        const size_t at = static_cast<size_t>(pos - data_);
        SmallVec tmp(first, last);  // the range may live in this vector
        reserve(size_ + tmp.size());
        std::memmove(data_ + at + tmp.size(), data_ + at, (size_ - at) * sizeof(T));
        std::copy(tmp.begin(), tmp.end(), data_ + at);
        size_ += static_cast<uint32_t>(tmp.size());
        return data_ + at;
    }
    T* erase(const T* pos) { return erase(pos, pos + 1); }
    T* erase(const T* first, const T* last) {
        const size_t at = static_cast<size_t>(first - data_), n = static_cast<size_t>(last - first);
        std::memmove(data_ + at, data_ + at + n, (size_ - at - n) * sizeof(T));
        size_ -= static_cast<uint32_t>(n);
        return data_ + at;
    }

    friend bool operator==(const SmallVec& a, const SmallVec& b) {
        return a.size_ == b.size_ && std::equal(a.begin(), a.end(), b.begin());
    }
    friend bool operator!=(const SmallVec& a, const SmallVec& b) { return !(a == b); }

  private:
    void release() {
        if (data_ != inline_) std::free(data_);
        data_ = inline_;
        cap_ = N;
        size_ = 0;
    }
    void take(SmallVec& o) {
        if (o.data_ == o.inline_) {
            std::memcpy(inline_, o.inline_, o.size_ * sizeof(T));
            data_ = inline_;
            cap_ = N;
        } else {
            data_ = o.data_;
            cap_ = o.cap_;
            o.data_ = o.inline_;
            o.cap_ = N;
        }
        size_ = o.size_;
        o.size_ = 0;
    }

    T* data_ = inline_;
    uint32_t size_ = 0;
    uint32_t cap_ = N;
    T inline_[N];
};

}  // namespace moira
