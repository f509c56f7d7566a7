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

} // namespace kv
