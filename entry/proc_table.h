// The library's own entry points by name, for eglGetProcAddress.
#pragma once

#include <cstdint>

namespace kv {

using ProcAddress = void (*)();

struct ProcEntry {
    const char *name;
    ProcAddress address;
};

extern const ProcEntry kProcTable[];
extern const uint32_t kProcTableSize;

// The library's entry point for an API function name; null when the library exports none.
ProcAddress lookupProc(const char *name);
// True the first time a name the library does not export is asked for.
bool noteUnknownProc(const char *name);

} // namespace kv
