// The parts of the platform layer that are the same on every system.
#include "platform/platform.h"

#include <algorithm>
#include <cstring>

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

bool guardedStrlen(const char *s, size_t limit, size_t *length) {
    *length = 0;
    if (!s) return false;
    char chunk[4096];
    size_t total = 0;
    while (total < limit) {
        // Never read across a page boundary in one step: a string may end just before an
        // unmapped page.
        uintptr_t addr = reinterpret_cast<uintptr_t>(s + total);
        size_t toPage = 4096 - (addr & 4095);
        size_t want = std::min({sizeof(chunk), toPage, limit - total});
        size_t got = guardedCopy(chunk, s + total, want);
        const void *nul = std::memchr(chunk, 0, got);
        if (nul) {
            *length = total + static_cast<size_t>(static_cast<const char *>(nul) - chunk);
            return true;
        }
        total += got;
        if (got < want) {
            *length = total;
            return false;
        }
    }
    *length = total;
    return true;
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
