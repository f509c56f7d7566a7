#include "host/hosts.h"

#include "base/messages.h"
#include "base/settings_record.h"
#include "host/host_paths.h"

#include <cstring>

namespace kv {

void resolveVersions(SHostLib &host, void *fns, const HostGroup *groups, uint32_t first, uint32_t count,
                     const char *const *warnings) {
    for (uint32_t g = first; g < count; ++g) {
        host.resolveGroup(groups[g], fns);
        if (host.failed()) {
            // The functions of the group that the host has stay usable; the wrappers answer a call
            // of a missing one (a null entry) with a message instead of jumping through it.
            host.failure &= static_cast<uint8_t>(~1u);
            msg::info("%s", warnings[g - first]);
            return;
        }
    }
}

SEglHost::SEglHost() : SHostLib(hostLibraryPath(kHostEgl).c_str()) {
    const HostGroup *groups = kSEglHostGroups;
    resolveGroup(groups[0], &fn);
    if (!failed() && fn.eglGetProcAddress) {
        // Extensions come from the host's own eglGetProcAddress; what it does not know stays null.
        auto *base = reinterpret_cast<uint8_t *>(&fn);
        for (uint32_t i = 0; i < groups[1].count; ++i) {
            void *address = reinterpret_cast<void *>(fn.eglGetProcAddress(groups[1].symbols[i].name));
            std::memcpy(base + groups[1].symbols[i].offset, &address, sizeof(address));
        }
    }
    if (failed()) return;
    static const char *const warnings[] = {"Warning failed to find EGL 1.1 functions",
                                           "Warning failed to find EGL 1.2 functions",
                                           "Warning failed to find EGL 1.5 functions"};
    resolveVersions(*this, &fn, groups, 2, kSEglHostGroupCount, warnings);
}

SEs1Host::SEs1Host() : SHostLib(hostLibraryPath(kHostEs1).c_str()) {
    if (!module) {
        msg::emit(msg::kDebugger | msg::kOut, "", "Could not load OGLES host library.\n");
        return;
    }
    for (uint32_t g = 0; g < kSEs1HostGroupCount; ++g)
        resolveGroup(kSEs1HostGroups[g], &fn);
    if (failed())
        msg::emit(msg::kDebugger | msg::kOut, "",
                  "Kalvoren ES1 - ERROR: failed to load entry points from host library\n");
}

GLESPPHost::GLESPPHost() : SHostLib(hostLibraryPath(kHostEs2).c_str()) {
    resolveGroup(kGLESPPHostGroups[0], &fn);
    if (failed()) return;
    static const char *const warnings[] = {"Warning failed to find OGLES 3 functions",
                                           "Warning failed to find OGLES 3.1 functions",
                                           "Warning failed to find OGLES 3.2 functions"};
    resolveVersions(*this, &fn, kGLESPPHostGroups, 1, kGLESPPHostGroupCount, warnings);
}

SGlesExtHost::SGlesExtHost() {
    const SEglHost &egl = SEglHost::get();
    if (!egl.fn.eglGetProcAddress) return;
    auto *base = reinterpret_cast<uint8_t *>(&fn);
    for (uint32_t g = 0; g < kSGlesExtHostGroupCount; ++g) {
        for (uint32_t i = 0; i < kSGlesExtHostGroups[g].count; ++i) {
            const HostSymbol &symbol = kSGlesExtHostGroups[g].symbols[i];
            void *address = reinterpret_cast<void *>(egl.fn.eglGetProcAddress(symbol.name));
            std::memcpy(base + symbol.offset, &address, sizeof(address));
        }
    }
}

SClHost::SClHost() : SHostLib(hostLibraryPath(kHostCl).c_str()) {
    resolveGroup(kSClHostGroups[0], &fn);
    // The GL sharing functions are optional. The extension entries are filled when an application
    // asks for them by name; a loader that exports them (a program may call them by name) fills
    // them from the start.
    quiet = 1;
    resolveGroup(kSClHostGroups[1], &fn);
    resolveGroup(kSClHostGroups[2], &fn);
    quiet = 0;
}

} // namespace kv
