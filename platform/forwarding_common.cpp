// The forwarding stubs' handlers and table, whatever the calling convention
// (forwarding_sysv.cpp, forwarding_win64.cpp hold the assembly).
#include "platform/forwarding.h"

namespace kv::platform {

namespace forwarding {
std::atomic<void *(*)(uint32_t, const ForwardedCall &)> before{nullptr};
std::atomic<void (*)(uint32_t, const ForwardedCall &)> after{nullptr};
} // namespace forwarding

void setForwardingHandlers(const ForwardingHandlers &handlers) {
    forwarding::before.store(handlers.before, std::memory_order_release);
    forwarding::after.store(handlers.after, std::memory_order_release);
}

} // namespace kv::platform

#if defined(__x86_64__)

extern "C" char kv_forwarding_stubs[];

namespace kv::platform {

uint32_t forwardingStubCount() {
    return forwarding::kStubCount;
}

void *forwardingStub(uint32_t index) {
    return index < forwarding::kStubCount ? static_cast<void *>(kv_forwarding_stubs + 16 * index) : nullptr;
}

} // namespace kv::platform

#else // no stubs on other processors: unknown functions are handed out as they are

namespace kv::platform {

uint32_t forwardingStubCount() {
    return 0;
}

void *forwardingStub(uint32_t) {
    return nullptr;
}

} // namespace kv::platform

#endif
