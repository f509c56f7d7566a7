// The parts of the platform layer that are the same on every system.
#include "platform/platform.h"

namespace kv::platform {

RecursiveLock::RecursiveLock() = default;
RecursiveLock::~RecursiveLock() = default;

void SpinLock::wait() {
    for (int spin = 0; taken_.load(std::memory_order_relaxed); ++spin) {
        if (spin < 64)
            __builtin_ia32_pause();
        else
            yieldThread();
    }
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
