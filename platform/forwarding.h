// What the two calling conventions' forwarding stubs share: the handlers the library installs, and
// the stub table that each convention's assembly defines.
#pragma once

#include "platform/platform.h"

#include <atomic>

namespace kv::platform::forwarding {

extern std::atomic<void *(*)(uint32_t, const ForwardedCall &)> before;
extern std::atomic<void (*)(uint32_t, const ForwardedCall &)> after;

// The number of stubs each convention's assembly lays out, 16 bytes apart.
constexpr uint32_t kStubCount = 4096;

} // namespace kv::platform::forwarding
