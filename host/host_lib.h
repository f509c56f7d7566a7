// A host library: the real driver library of one API, loaded once per process, whose functions the
// library's entry points forward to.
#pragma once

#include "platform/platform.h"

#include <cstddef>
#include <cstdint>

namespace kv {

struct HostSymbol {
    const char *name;
    size_t offset; // of the function pointer within the table's function struct
};

struct HostGroup {
    const char *label;
    const HostSymbol *symbols;
    uint32_t count;
};

struct SHostLib {
    // Loads the first candidate of a ';'-separated list that loads (retrying each without its last
    // character); ends the process when the module is this library or one of its front libraries.
    explicit SHostLib(const char *pathList);
    virtual ~SHostLib();
    SHostLib(const SHostLib &) = delete;
    SHostLib &operator=(const SHostLib &) = delete;

    // GetProcAddress on the module; a missing function is reported and marks the table failed
    // unless the table is quiet.
    void *getFunction(const char *name);
    bool failed() const { return (failure & 1) != 0; }
    // Resolves every symbol of a group into `fns` (a struct of function pointers).
    void resolveGroup(const HostGroup &group, void *fns);

    platform::ModuleHandle module = nullptr;
    uint8_t failure = 0;
    uint8_t quiet = 0;
};

} // namespace kv
