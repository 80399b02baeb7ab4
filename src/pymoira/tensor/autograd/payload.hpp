// Payload: the one typed value a gradient routine keeps besides its saved tensors (an axis, the
// route of `where`, the repetitions of a tile), held inside GradFn.
//
// Note [Gradient payloads]
// Each gradient routine declares the small struct it reads next to it; the forward stores one with
// GradFn::with(P{...}) and the routine reads it back with GradFn::payload<P>(). The type is
// checked by an internal assertion: a routine reading another routine's payload is a bug, never
// the user's input. A payload of up to kInline bytes (a Shape and a number) lives inside the
// GradFn, so building, moving and copying a gradient function allocates nothing for it; a larger
// one (the geometry of an advanced index) is kept on the heap. Payloads hold plain values and
// backend tensors, never Python objects: the garbage collector does not see them (a routine that
// needs a Python object keeps it in GradFn::extra, which it visits).
#pragma once

#include <cstddef>
#include <new>
#include <type_traits>
#include <utility>

#include "moira.hpp"

namespace pymoira {

class Payload {
  public:
    static constexpr size_t kInline = sizeof(moira::Shape) + sizeof(int64_t);
    static constexpr size_t kAlign = alignof(int64_t);

    Payload() = default;
    Payload(const Payload& other) { copy_from(other); }
    Payload(Payload&& other) noexcept { move_from(other); }
    Payload& operator=(const Payload& other) {
        if (this != &other) {
            reset();
            copy_from(other);
        }
        return *this;
    }
    Payload& operator=(Payload&& other) noexcept {
        if (this != &other) {
            reset();
            move_from(other);
        }
        return *this;
    }
    ~Payload() { reset(); }

    template <class P>
    void emplace(P value) {
        reset();
        Kind<P>::construct(buf_, std::move(value));
        ops_ = &Kind<P>::ops;
    }
    template <class P>
    const P& get() const {
        MOIRA_INTERNAL_ASSERT(ops_ == &Kind<P>::ops);
        return *Kind<P>::ptr(buf_);
    }
    bool empty() const { return ops_ == nullptr; }
    void reset() {
        if (!ops_) return;
        ops_->destroy(buf_);
        ops_ = nullptr;
    }

  private:
    // What a payload type does to its bytes; the table's address identifies the type.
    struct Ops {
        void (*copy)(void* to, const void* from);
        void (*move)(void* to, void* from);  // move-constructs `to` and destroys `from`
        void (*destroy)(void* at);
    };

    template <class P>
    static constexpr bool kFitsInline =
        sizeof(P) <= kInline && alignof(P) <= kAlign && std::is_nothrow_move_constructible_v<P>;

    template <class P, bool Inline = kFitsInline<P>>
    struct Kind {  // inside the buffer
        static P* ptr(void* b) { return std::launder(reinterpret_cast<P*>(b)); }
        static const P* ptr(const void* b) { return std::launder(reinterpret_cast<const P*>(b)); }
        static void construct(void* b, P&& v) { new (b) P(std::move(v)); }
        static void copy(void* to, const void* from) { new (to) P(*ptr(from)); }
        static void move(void* to, void* from) {
            new (to) P(std::move(*ptr(from)));
            ptr(from)->~P();
        }
        static void destroy(void* at) { ptr(at)->~P(); }
        static constexpr Ops ops{&copy, &move, &destroy};
    };

    template <class P>
    struct Kind<P, false> {  // on the heap, the buffer holding its address
        static P* ptr(void* b) { return *std::launder(reinterpret_cast<P**>(b)); }
        static const P* ptr(const void* b) { return *std::launder(reinterpret_cast<P* const*>(b)); }
        static void construct(void* b, P&& v) { new (b) P*(new P(std::move(v))); }
        static void copy(void* to, const void* from) { new (to) P*(new P(*ptr(from))); }
        static void move(void* to, void* from) { new (to) P*(ptr(from)); }
        static void destroy(void* at) { delete ptr(at); }
        static constexpr Ops ops{&copy, &move, &destroy};
    };

    void copy_from(const Payload& other) {
        if (!other.ops_) return;
        other.ops_->copy(buf_, other.buf_);
        ops_ = other.ops_;
    }
    void move_from(Payload& other) noexcept {
        if (!other.ops_) return;
        other.ops_->move(buf_, other.buf_);
        ops_ = other.ops_;
        other.ops_ = nullptr;
    }

    alignas(kAlign) unsigned char buf_[kInline];
    const Ops* ops_ = nullptr;
};

}  // namespace pymoira
