// The four host tables: the real driver's entry points, resolved once per process on first use and
// read-only afterwards.
#pragma once

#include "host/host_tables_autogen.h"

#include <atomic>

namespace kv {

// The one table of a kind in the process, resolved on first use. get() is inline, one load, since
// every forwarded call reads it.
template <class T>
struct ResolvedOnce {
    static const T &get() {
        const T *table = instance.load(std::memory_order_acquire);
        return KV_LIKELY(table != nullptr) ? *table : T::resolve();
    }

protected:
    static inline std::atomic<const T *> instance{nullptr};
};

// Resolves the version groups [first, count) of a table, in order. The groups are cumulative: the
// first group with a missing function is reported (its warning, once) and ends the resolution; its
// missing entries and every later group stay null, and the table stays usable for the rest.
void resolveVersions(SHostLib &host, void *fns, const HostGroup *groups, uint32_t first, uint32_t count,
                     const char *const *warnings);

struct SEglHost : SHostLib, ResolvedOnce<SEglHost> {
    SEglHostFns fn{};
    SEglHost();
    static const SEglHost &resolve();
};

struct SEs1Host : SHostLib, ResolvedOnce<SEs1Host> {
    SEs1HostFns fn{};
    SEs1Host();
    static const SEs1Host &resolve();
};

struct GLESPPHost : SHostLib, ResolvedOnce<GLESPPHost> {
    GLESPPHostFns fn{};
    GLESPPHost();
    static const GLESPPHost &resolve();
};

// The OpenGL ES extension functions, resolved by name through the host's eglGetProcAddress on first
// use; a function the host does not offer stays null.
struct SGlesExtHost : ResolvedOnce<SGlesExtHost> {
    SGlesExtHostFns fn{};
    SGlesExtHost();
    static const SGlesExtHost &resolve();
};

struct SClHost : SHostLib, ResolvedOnce<SClHost> {
    SClHostFns fn{};
    SClHost();
    static const SClHost &resolve();
};

} // namespace kv
