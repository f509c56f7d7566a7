// Process-lifetime objects of the library are never destroyed: application threads may still call
// in while the process ends, after static destructors have run.
#pragma once

#include <new>
#include <utility>

namespace kv {

template <class T>
class NoDestructor {
public:
    template <class... Args>
    explicit NoDestructor(Args &&...args) {
        new (storage_) T(std::forward<Args>(args)...);
    }
    NoDestructor(const NoDestructor &) = delete;
    NoDestructor &operator=(const NoDestructor &) = delete;
    T &operator*() { return *get(); }
    T *operator->() { return get(); }
    T *get() { return std::launder(reinterpret_cast<T *>(storage_)); }

private:
    alignas(T) unsigned char storage_[sizeof(T)];
};

} // namespace kv
