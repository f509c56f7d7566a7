// The four host tables: the real driver's entry points, resolved once per process on first use and
// read-only afterwards.
#pragma once

#include "host/host_tables_autogen.h"

#include <atomic>

namespace kv {

// The one table of a kind in the process, resolved on first use (never freed: entry points of
// other threads may still read it while the process ends). get() is inline, one load, since every
// forwarded call reads it.
template <class T>
struct ResolvedOnce {
    static const T &get() {
        const T *table = instance.load(std::memory_order_acquire);
        return KV_LIKELY(table != nullptr) ? *table : resolve();
    }

private:
    KV_NOINLINE static const T &resolve() {
        static const T *table = new T();
        instance.store(table, std::memory_order_release);
        return *table;
    }
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
};

struct SEs1Host : SHostLib, ResolvedOnce<SEs1Host> {
    SEs1HostFns fn{};
    SEs1Host();
};

struct GLESPPHost : SHostLib, ResolvedOnce<GLESPPHost> {
    GLESPPHostFns fn{};
    GLESPPHost();
};

// The OpenGL ES extension functions, resolved by name through the host's eglGetProcAddress on first
// use; a function the host does not offer stays null.
struct SGlesExtHost : ResolvedOnce<SGlesExtHost> {
    SGlesExtHostFns fn{};
    SGlesExtHost();
};

struct SClHost : SHostLib, ResolvedOnce<SClHost> {
    SClHostFns fn{};
    SClHost();
};

} // namespace kv
