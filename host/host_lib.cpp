#include "host/host_lib.h"

#include "host/host_paths.h"
#include "base/messages.h"
#include "base/zand_string.h"

#include <cstring>
#include <string>

namespace kv {

namespace {

// A module is ours when the front libraries registered it, when it is this library, or when it
// exports the marker every front library carries.
bool isOwnModule(platform::ModuleHandle module) {
    if (isLibraryHandle(reinterpret_cast<uint64_t>(module))) return true;
    if (module == platform::ownModule()) return true;
    return platform::getSymbol(module, "kalvoren_front_marker") != nullptr;
}

} // namespace

SHostLib::SHostLib(const char *pathList) {
    msg::info("Loading host library '%s'", pathList);
    std::string list(pathList ? pathList : "");
    size_t start = 0;
    while (!module && start <= list.size()) {
        size_t end = list.find(';', start);
        if (end == std::string::npos) end = list.size();
        std::string candidate = list.substr(start, end - start);
        start = end + 1;
        if (candidate.empty()) continue;
        module = platform::loadLibrary(candidate.c_str());
        if (!module && candidate.size() > 1) {
            candidate.pop_back();
            module = platform::loadLibrary(candidate.c_str());
        }
    }
    if (module && isOwnModule(module)) {
        const char *text = "Kalvoren - ERROR: attempted to recursively load trace DLL.\n";
        msg::emit(msg::kDebugger, "", text);
        msg::emit(msg::kOut, "FATAL ERROR: ", text);
        platform::exitProcess(-1);
    }
    if (!module) {
        msg::emit(msg::kDebugger, "",
                  CZandString::format("Could not load host library '%s'", pathList).c_str());
        msg::emit(msg::kOut,
                  "ERROR: ", CZandString::format("Could not load host library '%s'", pathList).c_str());
        failure |= 1;
        return;
    }
    msg::info("Host library '%s' loaded", pathList);
}

SHostLib::~SHostLib() {
    platform::freeLibrary(module);
}

void *SHostLib::getFunction(const char *name) {
    void *address = platform::getSymbol(module, name);
    if (!address && !quiet) {
        failure |= 1;
        msg::info("Error getting function %s", name);
    }
    return address;
}

void SHostLib::resolveGroup(const HostGroup &group, void *fns) {
    auto *base = static_cast<uint8_t *>(fns);
    for (uint32_t i = 0; i < group.count; ++i) {
        void *address = module ? getFunction(group.symbols[i].name) : nullptr;
        std::memcpy(base + group.symbols[i].offset, &address, sizeof(address));
    }
}

} // namespace kv
