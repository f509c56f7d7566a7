#include "core/settings.h"
#include "base/no_destructor.h"

#include "config/config.h"
#include "core/lifecycle.h"
#include "core/profiling.h"
#include "base/messages.h"
#include "trace/trace_writer.h"

#include <string>

namespace kv {

namespace detail {
Settings *g_settings = nullptr;
std::atomic<Settings *> g_readySettings{nullptr};

namespace {
NoDestructor<platform::Mutex> g_buildLock;
// The thread that is building the settings gets the record being built when it asks again.
thread_local bool t_building = false;
} // namespace

Settings &buildSettings() {
    if (t_building) return *g_settings;
    platform::LockGuard<platform::Mutex> guard(*g_buildLock);
    // Built by the thread that held the lock before this one.
    if (Settings *ready = g_readySettings.load(std::memory_order_acquire)) return *ready;
    // A forked child builds its own settings: the ready ones are the parent's.
    static const bool forkHandled = [] {
        platform::onForkChild([] { g_readySettings.store(nullptr, std::memory_order_release); });
        return true;
    }();
    (void)forkHandled;
    t_building = true;
    const uint64_t pid = platform::processId();
    // The trace that the process this one was forked from is writing.
    std::string parentTrace;
    if (!g_settings) {
        // Never freed: entry points of other threads may still read it while the process ends.
        g_settings = new Settings();
    } else {
        // A child process after fork, or a trace that was closed for good: start afresh. A trace
        // file inherited from the parent is the parent's to finish.
        if (g_settings->cachedProcessId != pid && g_settings->traceFile)
            parentTrace = g_settings->outputFilename.str();
        g_settings->reset();
    }
    Settings &s = *g_settings;
    s.cachedProcessId = pid;
    config::applyConfigFile(s);
    searchDefaultHostLibraries();
    if (s.recordingEnabled && !parentTrace.empty() &&
        platform::sameFile(s.outputFilename.str(), parentTrace)) {
        // Opening it would truncate the parent's trace under its feet (a mapped one to a crash).
        msg::warning("This process was forked from one that records into '%s'; it is not recorded. Put "
                     "%%pid into Tracing.OutputFilename to record it as well.",
                     parentTrace.c_str());
        s.recordingEnabled = false;
        s.mode = kModeDisabled;
    }
    if (s.mode == kModeProfiling) {
        ProfilerFactory make = profilerFactory();
        CProfiler *profiler = make ? make(s) : nullptr;
        if (profiler) {
            s.profiler = SharedPtr<CProfiler>(profiler);
        } else {
            msg::emit(msg::kDebugger, "", "Failed to allocate the profiler");
            msg::emit(msg::kErr, "ERROR: ", "Failed to allocate the profiler");
        }
    }
    if (s.recordingEnabled && !trace::openForRecording(s))
        msg::emit(msg::kDebugger | msg::kOut, "", "ERROR: Failed to open record trace file.");
    // Keep the OpenGL ES libraries loaded for the rest of the process.
    platform::loadLibrary(platform::driverLibraryName(kHostEs2));
    platform::loadLibrary(platform::driverLibraryName(kHostEs1));
    g_readySettings.store(&s, std::memory_order_release);
    t_building = false;
    return s;
}
} // namespace detail

Settings &getSettings() {
    return fastSettings();
}

void invalidateSettings() {
    detail::g_readySettings.store(nullptr, std::memory_order_release);
}

void closeFully(Settings &s) {
    trace::close(s);
    invalidateSettings();
}

} // namespace kv
