// Per-thread pointer with a clean-up policy: DeleteCleanUp deletes the object when its thread ends,
// CustomCleanUp calls a given function.
#pragma once

#include "platform/platform.h"

namespace kv {

template <class T>
struct DeleteCleanUp {
    static void cleanUp(void *p) { delete static_cast<T *>(p); }
};

template <class T, void (*Fn)(T *)>
struct CustomCleanUp {
    static void cleanUp(void *p) { Fn(static_cast<T *>(p)); }
};

template <class T, class Policy = DeleteCleanUp<T>>
class ThreadLocalPointer {
public:
    ThreadLocalPointer() : slot_(&Policy::cleanUp) {}
    T *get() const { return static_cast<T *>(slot_.get()); }
    void set(T *value) { slot_.set(value); }
    // Returns the thread's object, making it with `new T()` on first use.
    T &getOrCreate() {
        T *p = get();
        if (KV_UNLIKELY(!p)) {
            p = new T();
            set(p);
        }
        return *p;
    }
    // Deletes the calling thread's object now (through the policy) and clears the slot.
    void destroyCurrent() {
        if (T *p = get()) {
            set(nullptr);
            Policy::cleanUp(p);
        }
    }

private:
    platform::TlsSlot slot_;
};

// A ThreadLocalPointer whose value the calling thread also keeps in a fast thread-local variable,
// for objects looked up on every call. One object of this class per type T.
template <class T, class Policy = DeleteCleanUp<T>>
class FastThreadLocalPointer {
public:
    FastThreadLocalPointer() : slot_(&cleanUp) {}
    KV_ALWAYS_INLINE T *get() const { return cache_; }
    // The calling thread's object when it has one, without reaching the object of this class (the
    // per-call paths, which would otherwise first find the owner of the slot).
    KV_ALWAYS_INLINE static T *current() { return cache_; }
    KV_ALWAYS_INLINE T &getOrCreate() {
        T *p = cache_;
        return KV_LIKELY(p != nullptr) ? *p : create();
    }

private:
    KV_NOINLINE T &create() {
        T *p = static_cast<T *>(slot_.get());
        if (!p) {
            p = new T();
            slot_.set(p);
        }
        cache_ = p;
        return *p;
    }
    // Runs on the ending thread: its cached value goes with the object.
    static void cleanUp(void *p) {
        cache_ = nullptr;
        Policy::cleanUp(p);
    }

    platform::TlsSlot slot_;
    static KV_FAST_THREAD_LOCAL T *cache_;
};

template <class T, class Policy>
KV_FAST_THREAD_LOCAL T *FastThreadLocalPointer<T, Policy>::cache_ = nullptr;

} // namespace kv
