// Every EGL and OpenGL ES entry point of the library, called once with zero and null arguments
// (all_entries_autogen.cpp, generated from the API description).
#pragma once

#include <cstdint>

namespace kvth {

struct EntryId {
    uint16_t id;
    const char *name;
};

extern const EntryId kEglEntries[];
extern const uint32_t kEglEntryCount;
extern const EntryId kGlesEntries[];
extern const uint32_t kGlesEntryCount;

// In catalogue order; the calls run through the library as an application's would.
void callEveryEglEntry();
void callEveryGlesEntry();

} // namespace kvth
