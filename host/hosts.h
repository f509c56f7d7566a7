// The four host tables: the real driver's entry points, resolved once per process on first use and
// read-only afterwards.
#pragma once

#include "host/host_tables_autogen.h"

namespace kv {

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

struct SClHost : SHostLib {
    SClHostFns fn{};
    SClHost();
    static const SClHost &get();
};

} // namespace kv
