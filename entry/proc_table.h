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
extern const ProcEntry kEs1ProcTable[];
extern const uint32_t kEs1ProcTableSize;

// The library's entry point for an API function name; null when the library exports none.
ProcAddress lookupProc(const char *name);
// The library's OpenGL ES 1 entry point for a function name (Es1Entry); null when there is none.
ProcAddress lookupEs1Proc(const char *name);
// True the first time a name the library does not export is asked for.
bool noteUnknownProc(const char *name);

} // namespace kv
