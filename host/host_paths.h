// Which files the host libraries are: the configured paths, the default search, and the modules
// that belong to this library (the front libraries announce themselves through AddLibHandle /
// ReleaseLibHandle), which the search must pass over.
#pragma once

#include "base/zand_string.h"
#include "platform/platform.h"

#include <cstdint>
#include <string>
#include <vector>

extern "C" {
KV_EXPORT void AddLibHandle(uint64_t handle);
KV_EXPORT void ReleaseLibHandle(uint64_t handle);
}

namespace kv {

// True when the handle belongs to this library or one of its front libraries.
bool isLibraryHandle(uint64_t handle);
// The files of all registered modules and of this library (what the host search must pass over).
std::vector<std::string> registeredModuleFiles();

// Host library paths: EGL, ES1, ES2/3, OpenCL. The configured path (the Host keys) wins over what
// the default search found.
enum HostApi : int { kHostEgl = 0, kHostEs1 = 1, kHostEs2 = 2, kHostCl = 3 };
CZandString &configuredHostLibraryPath(int api);
CZandString &defaultHostLibraryPath(int api);
const CZandString &hostLibraryPath(int api);

// Fills the host library paths that are still empty with what the default search finds.
void searchDefaultHostLibraries();

} // namespace kv
