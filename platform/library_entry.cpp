// Maps the loader's notifications for the main library onto the library's entry routine.
#include "platform/platform.h"

#if defined(_WIN32)
#include <windows.h>

extern "C" BOOL WINAPI DllMain(HINSTANCE, DWORD reason, LPVOID) {
    using kv::platform::EntryRoutine;
    switch (reason) {
    case DLL_PROCESS_ATTACH:
        return EntryRoutine::processAttach() ? TRUE : FALSE;
    case DLL_THREAD_ATTACH:
        return EntryRoutine::threadAttach() ? TRUE : FALSE;
    case DLL_THREAD_DETACH:
        EntryRoutine::threadDetach();
        kv::platform::runThreadCleanups();
        return TRUE;
    case DLL_PROCESS_DETACH:
        EntryRoutine::processDetach();
        return TRUE;
    default:
        return TRUE;
    }
}

#else

// There is no thread-attach notification here: a thread gets its records on first use, and the
// thread-local slots' destructors stand in for thread detach.
__attribute__((constructor)) static void kvLibraryLoaded() {
    kv::platform::EntryRoutine::processAttach();
}
__attribute__((destructor)) static void kvLibraryUnloaded() {
    kv::platform::EntryRoutine::processDetach();
}

#endif
