#include "host/host_paths.h"

#include "base/no_destructor.h"

#include <map>

namespace kv {

namespace {

// Module handle -> reference count. Front libraries register from their own entry routines,
// which the loader serialises; the lock only protects against a late dlopen from another thread.
std::map<uint64_t, uint32_t> &handleRegistry() {
    static auto *registry = new std::map<uint64_t, uint32_t>();
    return *registry;
}
NoDestructor<platform::Mutex> g_registryLock;

} // namespace

bool isLibraryHandle(uint64_t handle) {
    platform::LockGuard<platform::Mutex> guard(*g_registryLock);
    return handleRegistry().count(handle) != 0;
}

std::vector<std::string> registeredModuleFiles() {
    std::vector<std::string> files;
    {
        platform::LockGuard<platform::Mutex> guard(*g_registryLock);
        for (const auto &entry : handleRegistry())
            files.push_back(platform::moduleFileName(reinterpret_cast<platform::ModuleHandle>(entry.first)));
    }
    files.push_back(platform::moduleFileName(platform::ownModule()));
    return files;
}

CZandString &configuredHostLibraryPath(int api) {
    static CZandString *paths = new CZandString[4];
    return paths[api & 3];
}

CZandString &defaultHostLibraryPath(int api) {
    static CZandString *paths = new CZandString[4];
    return paths[api & 3];
}

const CZandString &hostLibraryPath(int api) {
    const CZandString &configured = configuredHostLibraryPath(api);
    return configured.empty() ? defaultHostLibraryPath(api) : configured;
}

void searchDefaultHostLibraries() {
    std::vector<std::string> excluded = registeredModuleFiles();
    // The front libraries are installed next to the library; a front that is not loaded yet is not
    // registered and carries no marker we could see.
    std::vector<std::string> ownDirectory = {
        platform::directoryName(platform::moduleFileName(platform::ownModule()))};
    for (int api = 0; api < 4; ++api) {
        if (!configuredHostLibraryPath(api).empty()) continue;
        // The first name that finds a driver; when none does, the usual name, for the messages.
        std::string found;
        for (const char *const *name = platform::driverLibraryNames(api); *name && found.empty(); ++name)
            found = platform::locateLibrary(*name, excluded, ownDirectory);
        defaultHostLibraryPath(api) =
            CZandString(found.empty() ? std::string(platform::driverLibraryName(api)) : found);
    }
}

} // namespace kv

extern "C" {

KV_EXPORT void AddLibHandle(uint64_t handle) {
    kv::platform::LockGuard<kv::platform::Mutex> guard(*kv::g_registryLock);
    ++kv::handleRegistry()[handle];
}

KV_EXPORT void ReleaseLibHandle(uint64_t handle) {
    kv::platform::LockGuard<kv::platform::Mutex> guard(*kv::g_registryLock);
    auto &registry = kv::handleRegistry();
    auto it = registry.find(handle);
    if (it == registry.end()) return;
    if (--it->second == 0) registry.erase(it);
}

} // extern "C"
