// The parts of the platform layer that are the same on every system.
#include "platform/platform.h"

namespace kv::platform {

RecursiveLock::RecursiveLock() = default;
RecursiveLock::~RecursiveLock() = default;

void RecursiveLock::lock() {
    const uint64_t self = threadId();
    if (__atomic_load_n(&owner_, __ATOMIC_ACQUIRE) == self) {
        __atomic_add_fetch(&count_, 1, __ATOMIC_RELAXED);
        return;
    }
    mutex_.lock();
    __atomic_store_n(&owner_, self, __ATOMIC_RELEASE);
    __atomic_store_n(&count_, 1u, __ATOMIC_RELAXED);
}

void RecursiveLock::unlock() {
    if (__atomic_sub_fetch(&count_, 1, __ATOMIC_RELAXED) != 0) return;
    __atomic_store_n(&owner_, 0, __ATOMIC_RELEASE);
    mutex_.unlock();
}

uint64_t RecursiveLock::owner() const {
    return __atomic_load_n(&owner_, __ATOMIC_ACQUIRE);
}
uint32_t RecursiveLock::count() const {
    return __atomic_load_n(&count_, __ATOMIC_RELAXED);
}

std::string baseName(const std::string &path) {
    size_t slash = path.find_last_of("/\\");
    return slash == std::string::npos ? path : path.substr(slash + 1);
}

std::string directoryName(const std::string &path) {
    size_t slash = path.find_last_of("/\\");
    return slash == std::string::npos ? std::string() : path.substr(0, slash);
}

} // namespace kv::platform
