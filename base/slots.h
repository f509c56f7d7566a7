// An argument of a call as a 64-bit slot: pointers by address, floating-point values by their bits,
// integers widened. What the profiler reads of a call, and how the test host logs one.
#pragma once

#include "platform/platform.h"

#include <cstdint>
#include <cstring>
#include <type_traits>

namespace kv {

template <class T>
KV_ALWAYS_INLINE uint64_t toSlot(T v) {
    if constexpr (std::is_pointer_v<T>) {
        return static_cast<uint64_t>(reinterpret_cast<uintptr_t>(v));
    } else if constexpr (std::is_floating_point_v<T>) {
        uint64_t bits = 0;
        std::memcpy(&bits, &v, sizeof(v));
        return bits;
    } else {
        return static_cast<uint64_t>(v);
    }
}

} // namespace kv
