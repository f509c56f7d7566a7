// Inside the test host library: what each exported API function (test_host_autogen.cpp) hands its
// call to.
#pragma once

#include "api/khronos.h"
#include "base/slots.h"
#include "platform/platform.h"
#include "tests/host/test_host.h"

#include <cstdint>
#include <cstring>
#include <initializer_list>
#include <type_traits>

namespace kvth {

enum Family : uint8_t { kEgl, kGles };

// One function the host exports.
struct Function {
    uint16_t id;
    const char *name;
    Family family;
    uint8_t arity;
    void (*address)();
};

// Every exported function, in host table order (generated).
extern const Function kFunctions[];
extern const uint32_t kFunctionCount;

using kv::toSlot;

template <class R>
inline R fromSlot(uint64_t v) {
    if constexpr (std::is_pointer_v<R>) {
        return reinterpret_cast<R>(static_cast<uintptr_t>(v));
    } else if constexpr (std::is_floating_point_v<R>) {
        R value;
        std::memcpy(&value, &v, sizeof(value));
        return value;
    } else {
        return static_cast<R>(v);
    }
}

// Logs a call and answers it: the programmed result, else what the function's behaviour answers,
// else `fallback`.
uint64_t dispatch(uint16_t id, const uint64_t *arguments, uint32_t count, uint64_t fallback);

template <class R>
inline R call(uint16_t id, std::initializer_list<uint64_t> arguments, uint64_t fallback = 0) {
    const uint64_t result =
        dispatch(id, arguments.begin(), static_cast<uint32_t>(arguments.size()), fallback);
    if constexpr (!std::is_void_v<R>) return fromSlot<R>(result);
}

} // namespace kvth
