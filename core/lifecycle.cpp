#include "core/lifecycle.h"
#include "base/no_destructor.h"

#include "base/messages.h"
#include "core/settings.h"
#include "core/profiling.h"
#include "net/server.h"
#include "trace/record.h"
#include "trace/trace_writer.h"

namespace kv {

namespace {

void announceEntry() {
    platform::consoleOut("Kalvoren: DllMain\r\n");
    platform::debugOutput("Kalvoren: DllMain\r\n");
}

} // namespace

} // namespace kv

namespace kv::platform {

bool EntryRoutine::processAttach() {
    announceEntry();
    if (!records::createSlot()) return false;
    installFaultGuard();
    searchDefaultHostLibraries();
    debugOutput("Kalvoren: DLL_PROCESS_ATTACH.\r\n");
    return true;
}

bool EntryRoutine::threadAttach() {
    announceEntry();
    platform::consoleOut("Kalvoren: DLL_THREAD_ATTACH\r\n");
    platform::debugOutput("Kalvoren: DLL_THREAD_ATTACH\r\n");
    return records::attachThread();
}

void EntryRoutine::threadDetach() {
    announceEntry();
    // Standard output only, unlike the other entry messages: that is how the message is defined.
    platform::consoleOut("Kalvoren: DLL_THREAD_DETACH\r\n");
    records::detachThread();
}

void EntryRoutine::processDetach() {
    announceEntry();
    platform::consoleOut("Kalvoren: DLL_PROCESS_DETACH\r\n");
    // The settings this process built (none in a child forked from a recording process).
    Settings *ready = detail::g_readySettings.load();
    if (ready && ready->mode.load() == kModeRecording) {
        Settings &s = *ready;
        // The process ends while recording: the recording ends here, cleanly. A thread that ends
        // the process from inside a record (exit from a signal handler) leaves that record out:
        // the file is cut after the last whole one, with no end marker behind a half.
        // Under network control the end marker is due only while a started recording is open.
        net::CNetworkServer *server = s.networkEnabled ? net::activeServer() : nullptr;
        const bool due = s.networkEnabled ? server && server->recordedTraceOpen() : true;
        if (s.traceFile && !s.endMarkerWritten.load() && due && !threadRecord().inRecord) {
            trace::writeEndMarker(s);
            s.endMarkerWritten = true;
        }
        trace::close(s);
        // Calls that still arrive (other threads, later unload routines) go straight to the host: a
        // rebuilt settings record would open the finished trace again and truncate it.
        s.mode = kModeDisabled;
    }
    if (ready && ready->mode.load() == kModeProfiling && ready->profiler) ready->profiler->processEnd();
    records::detachThread();
    debugOutput("Kalvoren: Trace finished.\r\n");
}

} // namespace kv::platform
