// Names of OpenGL ES and EGL enumerants, from the Khronos registry and headers.
#pragma once

#include <cstdint>

namespace kv::names {

struct EnumName {
    uint32_t value;
    const char *name;
};

struct EnumGroup {
    const char *name;
    const EnumName *entries; // sorted by value
    uint32_t count;
};

// The name of a GL enumerant, preferring the names of the registry group when one is given (0:
// none); null when the value has no name.
const char *glEnumName(uint32_t value, uint16_t group = 0);
const char *eglEnumName(uint32_t value);

} // namespace kv::names
