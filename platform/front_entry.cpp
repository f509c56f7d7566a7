// The entry routine of a front library: it tells the main library which module it is, so that the
// host library search never mistakes a front library for the driver it stands in for.
#include "platform/platform.h"

#include <cstdint>

extern "C" KV_IMPORT void AddLibHandle(uint64_t handle);
extern "C" KV_IMPORT void ReleaseLibHandle(uint64_t handle);

// Any module exporting this symbol is a front library.
extern "C" KV_EXPORT const int kalvoren_front_marker = 1;

#if defined(_WIN32)
#include <windows.h>

extern "C" BOOL WINAPI DllMain(HINSTANCE instance, DWORD reason, LPVOID) {
    if (reason == DLL_PROCESS_ATTACH) AddLibHandle(reinterpret_cast<uint64_t>(instance));
    if (reason == DLL_PROCESS_DETACH) ReleaseLibHandle(reinterpret_cast<uint64_t>(instance));
    return TRUE;
}

#else

static uint64_t g_ownHandle = 0;

__attribute__((constructor)) static void kvFrontLoaded() {
    g_ownHandle = reinterpret_cast<uint64_t>(kv::platform::ownModule());
    if (g_ownHandle) AddLibHandle(g_ownHandle);
}

__attribute__((destructor)) static void kvFrontUnloaded() {
    if (g_ownHandle) ReleaseLibHandle(g_ownHandle);
}

#endif
