// The process-wide settings record: every configuration value and the run state (mode, frame
// counters, trace stream state). Built on first use from defaults and the configuration file.
#pragma once

#include "base/shared_ptr.h"
#include "base/zand_string.h"
#include "platform/platform.h"

#include <atomic>
#include <new>
#include <cstdint>

namespace kv {

class CProfiler;
class OutputStream;

enum RunMode : int32_t { kModeDisabled = 0, kModeProfiling = 1, kModeRecording = 2 };

// The strings an application may be shown instead of the driver's, in key order.
enum ReportedString : int {
    kEGLVendor,
    kEGLVersion,
    kEGLExtensions,
    kES1Vendor,
    kES1Renderer,
    kES1Version,
    kES1Extensions,
    kES2Vendor,
    kES2Renderer,
    kES2Version,
    kES2Extensions,
    kES3Vendor,
    kES3Renderer,
    kES3Version,
    kES3Extensions,
    kReportedStringCount
};

// The profiling overrides, in key order.
enum OverrideSwitch : int {
    kForceViewport,
    kDisableBlending,
    kForce2x2Textures,
    kForceFlatColourFrag,
    kDisableStencilTest,
    kDisableDepthTest,
    kDisableScissorTest,
    kDisableDrawCalls,
    kDisableFlushNFinish,
    kDisableTextureModifications,
    kDisableTextureFiltering,
    kDisableAlphaTest,
    kDisableFBAccess,
    kOverrideSwitchCount
};

constexpr uint32_t kNoAlignmentOverride = 0xFFFFFFFFu;
constexpr const char *kRecorderVersion = "19.2@5581729";
constexpr const char *kProductVersion = "v3.13";

struct Settings {
    // Trace output stream state.
    OutputStream *traceFile = nullptr;
    uint64_t bytesWritten = 0;
    uint64_t lastThread = 0;

    uint64_t cachedProcessId = 0;
    // Network control flags: write the header at the next start; stream state; first start.
    bool netWriteHeader = true;
    bool netFlag2 = false;
    bool netFlag3 = true;
    bool exitOnLastFrame = false;
    CZandString disabledExtensionList;
    std::atomic<int32_t> mode{kModeRecording};
    CZandString outputFilename{"%pname.kalvoren"};
    bool recordData = true;
    bool useCompression = false;
    bool recordUnknownExtensionCalls = true;
    uint32_t clientBufferRecordFrequency = 2;
    uint32_t startFrame = 0;
    std::atomic<uint32_t> currentFrame{0};
    int32_t lastReportedFrame = -1;
    uint32_t endFrame = 0;
    uint32_t uniformBufferOffsetAlignment = kNoAlignmentOverride;
    uint32_t shaderStorageBufferOffsetAlignment = kNoAlignmentOverride;
    int32_t swapInterval = 0;
    std::atomic<bool> snapshotPending{false};
    std::atomic<bool> endMarkerWritten{false};
    std::atomic<bool> snapshotInProgress{false};
    std::atomic<bool> forwardToHost{true};
    bool networkEnabled = false;
    bool networkWait = false;
    bool recordingEnabled = true;
    bool saveFrameBuffer = false;
    int32_t debugLevel = 1;
    bool networkStreaming = false;
    bool profilingEnabled = false;
    SharedPtr<CProfiler> profiler;
    uint32_t functionTimelineLevel = 1;
    bool softwareCounters = true;
    bool renderstateOverride = true;
    bool appendTraceVersion = true;
    bool disableBinaries = true;
    bool disableBlobCache = true;
    bool sectionDisabled = false;
    bool overrides[kOverrideSwitchCount] = {};
    int32_t cullingMode = 0;
    int32_t networkBufferSize = 256;
    // Where the control server listens: the port, and the one local address it is bound to (empty:
    // every address, so that a client on another machine can reach it).
    uint32_t networkPort = 54321;
    CZandString networkAddress;
    CZandString reported[kReportedStringCount];
    void *networkServer = nullptr;
    // Set by the first frame-ending call.
    std::atomic<bool> swapSeen{false};
    // Whether the error check after each call is made (always on; kept as a field so that a
    // snapshot or a test can turn it off).
    bool checkErrors = true;

    bool overrideActive(OverrideSwitch s) const {
        return overrides[s] && profilingEnabled && renderstateOverride;
    }

    Settings() = default;
    Settings(const Settings &) = delete;
    Settings &operator=(const Settings &) = delete;
    // Puts every field back to its default.
    void reset() {
        this->~Settings();
        new (this) Settings();
    }
};

} // namespace kv
