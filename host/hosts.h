// The four host tables: the real driver's entry points, resolved once per process on first use and
// read-only afterwards.
#pragma once

#include "host/host_tables_autogen.h"

namespace kv {

// Resolves the version groups [first, count) of a table, in order. The groups are cumulative: the
// first group with a missing function is reported (its warning, once) and ends the resolution; its
// missing entries and every later group stay null, and the table stays usable for the rest.
void resolveVersions(SHostLib &host, void *fns, const HostGroup *groups, uint32_t first, uint32_t count,
                     const char *const *warnings);

struct SEglHost : SHostLib {
    SEglHostFns fn{};
    SEglHost();
    static const SEglHost &get();
};

struct SEs1Host : SHostLib {
    SEs1HostFns fn{};
    SEs1Host();
    static const SEs1Host &get();
};

struct GLESPPHost : SHostLib {
    GLESPPHostFns fn{};
    GLESPPHost();
    static const GLESPPHost &get();
};

// The OpenGL ES extension functions, resolved by name through the host's eglGetProcAddress on first
// use; a function the host does not offer stays null.
struct SGlesExtHost {
    SGlesExtHostFns fn{};
    SGlesExtHost();
    static const SGlesExtHost &get();
};

struct SClHost : SHostLib {
    SClHostFns fn{};
    SClHost();
    static const SClHost &get();
};

} // namespace kv
