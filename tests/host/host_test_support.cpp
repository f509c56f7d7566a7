#include "tests/host/host_test_support.h"

#include "platform/process.h"
#include "tests/common/json_text.h"
#include "trace/format.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>

namespace fs = std::filesystem;

namespace kvth::test {

namespace {

std::string currentTestName() {
    const ::testing::TestInfo *info = ::testing::UnitTest::GetInstance()->current_test_info();
    std::string name = info ? std::string(info->test_suite_name()) + "." + info->name() : "no-test";
    for (char &c : name)
        if (c == '/' || c == '\\') c = '_';
    return name;
}

void appendLine(const std::string &path, const std::string &line) {
    std::ofstream out(path, std::ios::binary | std::ios::app);
    out << line << "\n";
}

} // namespace

// ---- Files ------------------------------------------------------------------------------------

const std::string &workDir() {
    static std::string test;
    static std::string dir;
    std::string name = currentTestName();
    if (name != test) {
        test = name;
        fs::path path = fs::current_path() / "kvth-work" / name;
        std::error_code ignored;
        fs::remove_all(path, ignored);
        fs::create_directories(path);
        dir = path.generic_string();
    }
    return dir;
}

std::string workPath(const std::string &name) {
    return workDir() + "/" + name;
}

std::string readText(const std::string &path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

std::vector<uint8_t> readBytes(const std::string &path) {
    std::string text = readText(path);
    return std::vector<uint8_t>(text.begin(), text.end());
}

bool fileExists(const std::string &path) {
    std::error_code ignored;
    return fs::exists(path, ignored);
}

size_t countOf(const std::string &text, const std::string &needle) {
    size_t n = 0;
    for (size_t at = text.find(needle); at != std::string::npos; at = text.find(needle, at + needle.size()))
        ++n;
    return n;
}

// ---- The library's configuration --------------------------------------------------------------

void useConfig(const LibraryConfig &c) {
    std::string json = "{\n  \"*\": {\n";
    json += std::string("    \"Enabled\": ") + (c.enabled ? "true" : "false") + ",\n";
    json += "    \"Host\": {";
    std::string hosts;
    if (!c.eglHost.empty()) hosts += "\"EglLibraryPath\": " + kv::test::jsonQuoted(c.eglHost);
    if (!c.es2Host.empty())
        hosts += (hosts.empty() ? "" : ", ") + ("\"Es2LibraryPath\": " + kv::test::jsonQuoted(c.es2Host));
    json += hosts + "},\n";
    json += "    \"Tracing\": {\"OutputFilename\": " + kv::test::jsonQuoted(c.traceFile) +
            ", \"UseCompression\": " + (c.compression ? "true" : "false") +
            ", \"EndFrame\": " + std::to_string(c.endFrame) + (c.tracing.empty() ? "" : ", " + c.tracing) +
            "}";
    if (!c.internal.empty()) json += ",\n    \"Internal\": {" + c.internal + "}";
    json += "\n  }\n}\n";
    std::string path = workPath("kalvorenconfig.json");
    std::ofstream(path, std::ios::binary) << json;
    kv::platform::setEnv("KALVOREN_CONFIG", path);
    kv::platform::setEnv("KALVOREN_NO_MESSAGE_BOX", "1");
}

std::string testHostPath() {
    return KVTH_HOST_PATH;
}
std::string egl11HostPath() {
    return KVTH_HOST_EGL11_PATH;
}

std::string noExtensionHostPath() {
    return KVTH_HOST_NOEXT_PATH;
}
std::string libraryPath() {
    return KVTH_LIBRARY_PATH;
}
std::string eglFrontPath() {
    return KVTH_EGL_FRONT_PATH;
}
std::string gles2FrontPath() {
    return KVTH_GLES2_FRONT_PATH;
}

// ---- Scenarios in a fresh process --------------------------------------------------------------

void FreshProcessTest::SetUp() {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
}

void captureConsole() {
    std::string path = workPath("console.txt");
    if (!std::freopen(path.c_str(), "a", stdout) || !std::freopen(path.c_str(), "a", stderr)) std::abort();
}

std::string childConsole() {
    return readText(workPath("console.txt"));
}

void childFailure(const char *file, int line, const std::string &text) {
    appendLine(workPath("failures.txt"), std::string(file) + ":" + std::to_string(line) + ": " + text);
}

void expectChildChecksPassed() {
    std::string failures = readText(workPath("failures.txt"));
    size_t start = 0;
    while (start < failures.size()) {
        size_t end = failures.find('\n', start);
        if (end == std::string::npos) end = failures.size();
        ADD_FAILURE() << "in the child: " << failures.substr(start, end - start);
        start = end + 1;
    }
}

void inChild(const std::function<void()> &scenario) {
    captureConsole();
    scenario();
    endChild();
}

void endChild() {
    std::fflush(nullptr);
    std::exit(0);
}

bool exitedWithMinusOne(int status) {
    return ::testing::ExitedWithCode(-1)(status) || ::testing::ExitedWithCode(255)(status);
}

// ---- Trace files ------------------------------------------------------------------------------

uint32_t TraceRecord::u32(size_t at) const {
    uint32_t v = 0;
    if (at + 4 <= payload.size()) std::memcpy(&v, payload.data() + at, 4);
    return v;
}

std::vector<const TraceRecord *> TraceWalk::withId(uint16_t id) const {
    std::vector<const TraceRecord *> out;
    for (const TraceRecord &r : records)
        if (r.id == id) out.push_back(&r);
    return out;
}

TraceWalk walkTrace(const std::string &path) {
    TraceWalk walk;
    std::vector<uint8_t> bytes = readBytes(path);
    size_t at = 0;
    auto take = [&](size_t n) -> const uint8_t * {
        if (bytes.size() - at < n) return nullptr;
        const uint8_t *p = bytes.data() + at;
        at += n;
        return p;
    };
    auto fail = [&](const std::string &text) {
        walk.problem = text + " at offset " + std::to_string(at);
        return walk;
    };

    const uint8_t *magic = take(sizeof(kv::format::kMagic));
    if (!magic || std::memcmp(magic, kv::format::kMagic, sizeof(kv::format::kMagic)) != 0)
        return fail("no trace header");
    if (!take(8)) return fail("header cut short"); // byte order mark, version
    const uint8_t *flags = take(2);                // flags, frame buffers saved
    if (!flags) return fail("header cut short");
    walk.flags = flags[0];
    for (int text = 0; text < 3; ++text) { // recorder version, platform, description
        const uint8_t *length = take(1);
        if (!length || !take(*length ? *length : 1)) return fail("header text cut short");
    }
    if (!take(1 + 4 + 4 + 4)) return fail("header cut short"); // network, frames, constant
    const uint8_t *tableLength = take(1);
    if (!tableLength || !take(*tableLength)) return fail("type table cut short");
    if (!take(1 + kv::format::kReservedBytes + 8)) return fail("reserved block cut short");
    walk.headerSize = at;

    while (at < bytes.size()) {
        size_t left = bytes.size() - at;
        if (left == sizeof(kv::format::kEndMarker) &&
            std::memcmp(bytes.data() + at, kv::format::kEndMarker, left) == 0) {
            walk.endMarker = true;
            at = bytes.size();
            break;
        }
        TraceRecord r;
        r.offset = at;
        const uint8_t *frame = take(kv::format::kFrameHeaderSize);
        if (!frame) return fail("record frame cut short");
        uint32_t length = 0;
        std::memcpy(&length, frame, 4);
        std::memcpy(&r.id, frame + 4, 2);
        const uint8_t *payload = take(length);
        if (!payload)
            return fail("record " + std::to_string(walk.records.size()) + " (id " + std::to_string(r.id) +
                        ") claims " + std::to_string(length) + " bytes, " +
                        std::to_string(bytes.size() - at) + " are left");
        r.payload.assign(payload, payload + length);
        walk.records.push_back(std::move(r));
    }
    walk.whole = true;
    return walk;
}

} // namespace kvth::test
