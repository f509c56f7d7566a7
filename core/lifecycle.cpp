#include "core/lifecycle.h"
#include "core/no_destructor.h"

#include "core/manager.h"
#include "core/messages.h"
#include "core/settings.h"
#include "trace/trace_writer.h"

#include <map>
#include <new>

namespace kv {

namespace {

// Module handle -> reference count. Front libraries register from their own entry routines,
// which the loader serialises; the lock only protects against a late dlopen from another thread.
std::map<uint64_t, uint32_t> &handleRegistry() {
    static auto *registry = new std::map<uint64_t, uint32_t>();
    return *registry;
}
NoDestructor<platform::Mutex> g_registryLock;

platform::TlsSlot *g_recordSlot = nullptr;
// The calling thread's record, also kept where it is read fastest.
KV_FAST_THREAD_LOCAL CallRecord *t_record = nullptr;

void freeRecord(void *p) {
    if (t_record == p) t_record = nullptr;
    delete static_cast<CallRecord *>(p);
}

CallRecord *newThreadRecord() {
    auto *r = new (std::nothrow) CallRecord();
    if (r) r->threadId = platform::threadId();
    return r;
}

// Thread end on platforms whose thread-local slots clean up after themselves.
void threadRecordCleanup(void *p) {
    platform::consoleOut("Kalvoren: DllMain\r\n");
    platform::consoleOut("Kalvoren: DLL_THREAD_DETACH\r\n");
    freeRecord(p);
}

void announceEntry() {
    platform::consoleOut("Kalvoren: DllMain\r\n");
    platform::debugOutput("Kalvoren: DllMain\r\n");
}

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

CallRecord &threadRecord() {
    if (KV_LIKELY(t_record != nullptr)) return *t_record;
    if (KV_UNLIKELY(!g_recordSlot)) {
        // Used before the library's entry routine ran (a static library in a test): make the slot.
        static platform::TlsSlot *slot = new platform::TlsSlot(&threadRecordCleanup);
        g_recordSlot = slot;
    }
    auto *r = static_cast<CallRecord *>(g_recordSlot->get());
    if (KV_UNLIKELY(!r)) {
        r = newThreadRecord();
        if (!r) std::abort();
        g_recordSlot->set(r);
    }
    t_record = r;
    return *r;
}

void searchDefaultHostLibraries() {
    std::vector<std::string> excluded = registeredModuleFiles();
    // The front libraries are installed next to the library; a front that is not loaded yet is not
    // registered and carries no marker we could see.
    std::vector<std::string> ownDirectory = {
        platform::directoryName(platform::moduleFileName(platform::ownModule()))};
    for (int api = 0; api < 4; ++api) {
        if (!configuredHostLibraryPath(api).empty()) continue;
        const char *name = platform::driverLibraryName(api);
        std::string found = platform::locateLibrary(name, excluded, ownDirectory);
        defaultHostLibraryPath(api) = CZandString(found.empty() ? std::string(name) : found);
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

namespace kv::platform {

bool EntryRoutine::processAttach() {
    announceEntry();
    g_recordSlot = new (std::nothrow) TlsSlot(&threadRecordCleanup);
    if (!g_recordSlot || !g_recordSlot->valid()) return false;
    installFaultGuard();
    searchDefaultHostLibraries();
    debugOutput("Kalvoren: DLL_PROCESS_ATTACH.\r\n");
    return true;
}

bool EntryRoutine::threadAttach() {
    announceEntry();
    platform::consoleOut("Kalvoren: DLL_THREAD_ATTACH\r\n");
    platform::debugOutput("Kalvoren: DLL_THREAD_ATTACH\r\n");
    CallRecord *r = newThreadRecord();
    if (!r) return false;
    g_recordSlot->set(r);
    return true;
}

void EntryRoutine::threadDetach() {
    announceEntry();
    platform::consoleOut("Kalvoren: DLL_THREAD_DETACH\r\n");
    if (g_recordSlot) {
        if (void *r = g_recordSlot->get()) {
            g_recordSlot->set(nullptr);
            freeRecord(r);
        }
    }
}

void EntryRoutine::processDetach() {
    announceEntry();
    platform::consoleOut("Kalvoren: DLL_PROCESS_DETACH\r\n");
    if (detail::g_settings && detail::g_settingsPid.load() == processId() &&
        detail::g_settings->mode.load() == kModeRecording) {
        Settings &s = *detail::g_settings;
        // The process ends while recording: the recording ends here, cleanly.
        if (s.traceFile && !s.endMarkerWritten.load() && !s.networkEnabled) {
            trace::writeEndMarker(s);
            s.endMarkerWritten = true;
        }
        trace::close(s, false);
        // Calls that still arrive (other threads, later unload routines) go straight to the host: a
        // rebuilt settings record would open the finished trace again and truncate it.
        s.mode = kModeDisabled;
    }
    if (g_recordSlot) {
        if (void *r = g_recordSlot->get()) {
            g_recordSlot->set(nullptr);
            freeRecord(r);
        }
    }
    debugOutput("Kalvoren: Trace finished.\r\n");
}

} // namespace kv::platform
