// What exists once per process and once per thread before any call is recorded: the module
// handle registry, the per-thread call records and the default host library search.
#pragma once

#include "platform/platform.h"
#include "trace/record.h"

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

// The calling thread's call record, made on first use by a thread that existed before the library
// was loaded.
CallRecord &threadRecord();

// Fills the host library paths that are still empty with what the default search finds.
void searchDefaultHostLibraries();

} // namespace kv
