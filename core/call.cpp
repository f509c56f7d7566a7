#include "core/call.h"

#include "base/messages.h"
#include "net/server.h"
#include "trace/frame_control.h"

#include <atomic>

namespace kv {

uint32_t g_lastErrorEs1 = 0;
uint32_t g_lastErrorEs2 = 0;
std::atomic<bool> g_unwrappedGlCalls{false};

void reportMissingHostFunction(const char *name, std::atomic<bool> &reported) {
    if (reported.exchange(true)) return;
    msg::error("The host library has no %s: the call was not forwarded and has no effect.", name);
}

namespace {
bool g_clInitialised = false;
std::atomic<void (*)()> g_clInitialisation{nullptr};

bool isClId(uint16_t id) {
    return (id >= 6000 && id <= 6089) || (id >= 6500 && id <= 6515);
}

} // namespace

void fillDecision(Settings &s, uint16_t id, CallDecision &d, ParamDesc *params) {
    if (s.mode.load(std::memory_order_relaxed) == kModeDisabled) {
        d = CallDecision();
        d.callHost = true;
        return;
    }
    d.checkErrors = s.checkErrors;
    d.callHost = s.forwardToHost.load(std::memory_order_relaxed);
    if (s.profilingEnabled) {
        d.profiler = s.profiler.get();
        (void)params;
    } else {
        const uint32_t frame = s.currentFrame.load(std::memory_order_relaxed);
        d.beforeStartFrame = s.networkEnabled ? d.callHost : frame < s.startFrame;
        if (!s.recordingEnabled)
            d.record = false;
        else if (!d.callHost)
            d.record = true;
        else if (s.networkEnabled) {
            d.record = net::recordingDecision(s);
            if (d.record) frames::saveOwnState(s);
        } else
            d.record = frames::shouldRecord(s);
        d.saveFrameBuffer = d.record && s.saveFrameBuffer;
        d.recordData = (d.record || d.beforeStartFrame) ? s.recordData : false;
        d.compress = s.useCompression;
        d.disableBinaries = s.disableBinaries;
        d.disableBlobCache = s.disableBlobCache;
        d.uniformBufferOffsetAlignment = s.uniformBufferOffsetAlignment;
        d.shaderStorageBufferOffsetAlignment = s.shaderStorageBufferOffsetAlignment;
        d.clientBufferRecordFrequency = d.recordData ? s.clientBufferRecordFrequency : 0;
    }
    if (d.record && d.recordData && isClId(id) && !g_clInitialised) {
        // Before the first recorded OpenCL call with its data, once: the platform description.
        g_clInitialised = true;
        if (auto initialise = g_clInitialisation.load()) initialise();
    }
    if (KV_UNLIKELY(s.debugLevel >= 2)) {
        if (const char *name = api::functionName(id))
            msg::emit(msg::kDebugger | msg::kOut, "",
                      CZandString::format("Calling function %s", name).c_str());
        else
            msg::emit(
                msg::kDebugger | msg::kOut, "",
                CZandString::format("Calling function with unknown ID %i", static_cast<int>(id)).c_str());
    }
}
void reportUnrecorded(uint16_t id) {
    const char *name = api::functionName(id);
    msg::error("%s could not be recorded (out of memory while its record was made); the call was made and "
               "recording goes on.",
               name ? name : "A call");
}

namespace {
std::atomic<ProfilerFactory> g_profilerFactory{nullptr};
}
void setProfilerFactory(ProfilerFactory make) {
    g_profilerFactory.store(make);
}
ProfilerFactory profilerFactory() {
    return g_profilerFactory.load();
}

void setOpenClInitialisation(void (*initialise)()) {
    g_clInitialisation.store(initialise);
}

CTraceRecordManager &CTraceRecordManager::get() {
    // Never destroyed: threads may still call in while the process ends.
    static CTraceRecordManager *manager = new CTraceRecordManager();
    return *manager;
}

CTraceRecordManager::CTraceRecordManager() : build_(kRecorderVersion) {
    platform::installFaultGuard();
}

} // namespace kv
