#include "tests/unit/test_support.h"

#include "core/settings.h"
#include "platform/process.h"
#include "trace/trace_writer.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>

namespace fs = std::filesystem;

namespace kv::test {

namespace {

constexpr const char *kScratchVariable = "KALVOREN_TEST_SCRATCH";
constexpr const char *kProgramConfig = "program.json";

std::atomic<int> g_fileCounter{0};

std::string uniqueName(const char *stem, const char *extension) {
    return std::string(stem) + "_" + std::to_string(g_fileCounter.fetch_add(1)) + extension;
}

// Sets up the scratch directory and the variables the library reads, before any test (and before
// the library's first message: this runs while the program's statics are made).
class SpineEnvironment : public ::testing::Environment {
public:
    SpineEnvironment() {
        owner_ = std::getenv(kScratchVariable) == nullptr;
        const std::string &dir = scratchDir();
        if (!std::getenv("KALVOREN_DEBUG_LOG")) setEnv("KALVOREN_DEBUG_LOG", (dir + "/debugger.log").c_str());
        setEnv("KALVOREN_NO_MESSAGE_BOX", "1");
        if (!std::getenv("KALVOREN_CONFIG")) {
            std::string config = dir + "/" + kProgramConfig;
            writeFile(config, "{\"*\": {\"Enabled\": false, \"Tracing\": {\"OutputFilename\": " +
                                  jsonQuoted(dir + "/program_%pid.kalvoren") + "}}}\n");
            setEnv("KALVOREN_CONFIG", config.c_str());
        }
    }
    void TearDown() override {
        if (!owner_) return;
        std::error_code ignored;
        fs::remove_all(scratchDir(), ignored);
    }

private:
    bool owner_ = false;
};

::testing::Environment *const g_environment = ::testing::AddGlobalTestEnvironment(new SpineEnvironment);

template <class T>
T load(const std::vector<uint8_t> &bytes, size_t at) {
    T v;
    std::memcpy(&v, bytes.data() + at, sizeof(T));
    return v;
}

} // namespace

// ---- Files and environment --------------------------------------------------------------------

const std::string &scratchDir() {
    static const std::string dir = [] {
        if (const char *inherited = std::getenv(kScratchVariable)) return std::string(inherited);
        fs::path p =
            fs::temp_directory_path() /
            ("kalvoren-unit-" + std::to_string(static_cast<unsigned long long>(platform::processId())));
        std::error_code ignored;
        fs::remove_all(p, ignored);
        fs::create_directories(p);
        std::string text = p.generic_string();
        setEnv(kScratchVariable, text.c_str());
        return text;
    }();
    return dir;
}

std::string scratchPath(const std::string &name) {
    return scratchDir() + "/" + name;
}

std::vector<uint8_t> readFile(const std::string &path) {
    std::ifstream in(path, std::ios::binary);
    return std::vector<uint8_t>(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

void writeFile(const std::string &path, const std::string &text) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << text;
}

void setEnv(const char *name, const char *value) {
    if (value)
        platform::setEnv(name, value);
    else
        platform::unsetEnv(name);
}

EnvScope::EnvScope(const char *name, const std::string &value) : name_(name) {
    const char *old = std::getenv(name);
    hadOld_ = old != nullptr;
    if (old) old_ = old;
    setEnv(name, value.c_str());
}

EnvScope::~EnvScope() {
    setEnv(name_.c_str(), hadOld_ ? old_.c_str() : nullptr);
}

// ---- Diagnostics ------------------------------------------------------------------------------

ConsoleCapture::ConsoleCapture() : path_(scratchPath(uniqueName("console", ".txt"))) {
    if (!detail::redirectConsole(path_, &savedOut_, &savedErr_)) done_ = true;
}

ConsoleCapture::~ConsoleCapture() {
    finish();
}

std::string ConsoleCapture::finish() {
    if (!done_) {
        done_ = true;
        detail::restoreConsole(savedOut_, savedErr_);
        // Line ends as the library writes them, whatever the console makes of them.
        for (uint8_t b : readFile(path_))
            if (b != '\r') text_ += static_cast<char>(b);
        std::error_code ignored;
        fs::remove(path_, ignored);
    }
    return text_;
}

std::string debuggerText() {
    const char *path = std::getenv("KALVOREN_DEBUG_LOG");
    if (!path) return {};
    std::vector<uint8_t> bytes = readFile(path);
    return std::string(bytes.begin(), bytes.end());
}

// ---- Traces -----------------------------------------------------------------------------------

std::vector<TraceItem> walkTrace(const std::vector<uint8_t> &file, uint64_t from, std::string *problem) {
    std::vector<TraceItem> items;
    problem->clear();
    size_t p = static_cast<size_t>(from);
    while (p < file.size()) {
        size_t left = file.size() - p;
        TraceItem item;
        item.offset = p;
        if (left == 10 && file[p] == 0x13 && file[p + 1] == 0x10) {
            item.kind = TraceItem::EndMarker;
            item.payload.assign(file.begin() + static_cast<long>(p) + 2, file.end());
            items.push_back(item);
            break;
        }
        if (left < 6) {
            *problem = "the file ends inside a record frame at offset " + std::to_string(p);
            break;
        }
        uint32_t length = load<uint32_t>(file, p);
        item.id = load<uint16_t>(file, p + 4);
        if (left - 6 < length) {
            *problem = "the record at offset " + std::to_string(p) + " claims " + std::to_string(length) +
                       " bytes but only " + std::to_string(left - 6) + " follow";
            break;
        }
        auto begin = file.begin() + static_cast<long>(p) + 6;
        item.payload.assign(begin, begin + length);
        if (item.id == 1 && length == 8) {
            item.kind = TraceItem::ThreadMarker;
            item.thread = load<uint64_t>(item.payload, 0);
        }
        items.push_back(std::move(item));
        p += 6 + length;
    }
    return items;
}

struct TraceSession::Saved {
    CZandString outputFilename;
    bool recordingEnabled, useCompression, networkEnabled, networkStreaming, exitOnLastFrame;
    uint32_t startFrame, endFrame, currentFrame;
    int32_t lastReportedFrame, debugLevel;
    bool snapshotPending, endMarkerWritten, snapshotInProgress, forwardToHost;
};

TraceSession::TraceSession(const std::string &path, bool compression) : s_(getSettings()), path_(path) {
    saved_.reset(new Saved{s_.outputFilename, s_.recordingEnabled, s_.useCompression, s_.networkEnabled,
                           s_.networkStreaming, s_.exitOnLastFrame, s_.startFrame, s_.endFrame,
                           s_.currentFrame.load(), s_.lastReportedFrame, s_.debugLevel,
                           s_.snapshotPending.load(), s_.endMarkerWritten.load(),
                           s_.snapshotInProgress.load(), s_.forwardToHost.load()});
    s_.recordingEnabled = true;
    s_.useCompression = compression;
    s_.networkEnabled = false;
    s_.networkStreaming = false;
    s_.exitOnLastFrame = false;
    s_.startFrame = 0;
    s_.endFrame = 0;
    s_.currentFrame = 0;
    s_.lastReportedFrame = -1;
    s_.debugLevel = 1;
    s_.snapshotPending = false;
    s_.endMarkerWritten = false;
    s_.snapshotInProgress = false;
    s_.forwardToHost = true;
    s_.outputFilename = CZandString(path);
    ConsoleCapture quiet;
    opened_ = trace::openForRecording(s_);
    quiet.finish();
    headerEnd_ = opened_ ? trace::tell(s_) : 0;
}

TraceSession::~TraceSession() {
    trace::close(s_);
    const Saved &v = *saved_;
    s_.outputFilename = v.outputFilename;
    s_.recordingEnabled = v.recordingEnabled;
    s_.useCompression = v.useCompression;
    s_.networkEnabled = v.networkEnabled;
    s_.networkStreaming = v.networkStreaming;
    s_.exitOnLastFrame = v.exitOnLastFrame;
    s_.startFrame = v.startFrame;
    s_.endFrame = v.endFrame;
    s_.currentFrame = v.currentFrame;
    s_.lastReportedFrame = v.lastReportedFrame;
    s_.debugLevel = v.debugLevel;
    s_.snapshotPending = v.snapshotPending;
    s_.endMarkerWritten = v.endMarkerWritten;
    s_.snapshotInProgress = v.snapshotInProgress;
    s_.forwardToHost = v.forwardToHost;
}

std::vector<uint8_t> TraceSession::closeAndRead() {
    trace::close(s_);
    return readFile(path_);
}

std::vector<TraceItem> TraceSession::closeAndWalk(std::string *problem) {
    return walkTrace(closeAndRead(), headerEnd_, problem);
}

RebuiltSettings::RebuiltSettings(const char *configText) {
    configPath_ = scratchPath(uniqueName(configText ? "config" : "absent", ".json"));
    if (configText) writeFile(configPath_, configText);
    if (const char *old = std::getenv("KALVOREN_CONFIG")) oldConfig_ = old;
    ConsoleCapture capture;
    // A full close ends the trace of the settings in force and has them read afresh on next use.
    closeFully(getSettings());
    setEnv("KALVOREN_CONFIG", configPath_.c_str());
    (void)getSettings();
    output_ = capture.finish();
}

RebuiltSettings::~RebuiltSettings() {
    ConsoleCapture quiet;
    closeFully(getSettings());
    setEnv("KALVOREN_CONFIG", oldConfig_.empty() ? nullptr : oldConfig_.c_str());
    (void)getSettings();
}

Settings &RebuiltSettings::settings() {
    return getSettings();
}

} // namespace kv::test
