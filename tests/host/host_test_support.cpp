#include "tests/host/host_test_support.h"

#include "platform/process.h"
#include "tests/common/json_text.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>

namespace fs = std::filesystem;

namespace kvth::test {

std::string workPath(const std::string &name) {
    static std::string test, dir;
    const ::testing::TestInfo *info = ::testing::UnitTest::GetInstance()->current_test_info();
    std::string current = info ? std::string(info->test_suite_name()) + "." + info->name() : "no-test";
    for (char &c : current)
        if (c == '/' || c == '\\') c = '_';
    if (current != test) {
        test = current;
        fs::path path = fs::current_path() / "kvth-work" / current;
        std::error_code ignored;
        fs::remove_all(path, ignored);
        fs::create_directories(path);
        dir = path.generic_string();
    }
    return dir + "/" + name;
}

std::string readText(const std::string &path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

size_t countOf(const std::string &text, const std::string &needle) {
    size_t n = 0;
    for (size_t at = text.find(needle); at != std::string::npos; at = text.find(needle, at + needle.size()))
        ++n;
    return n;
}

LibraryConfig recording(const std::string &host, uint32_t endFrame) {
    LibraryConfig config;
    config.eglHost = config.es2Host = host;
    config.endFrame = endFrame;
    return config;
}

void useConfig(const LibraryConfig &c) {
    using kv::test::jsonQuoted;
    std::string json = std::string("{\"*\": {\"Enabled\": ") + (c.enabled ? "true" : "false") +
                       ", \"Host\": {\"EglLibraryPath\": " + jsonQuoted(c.eglHost) +
                       ", \"Es2LibraryPath\": " + jsonQuoted(c.es2Host) +
                       "}, \"Tracing\": {\"OutputFilename\": " + jsonQuoted(workPath("trace.kalvoren")) +
                       ", \"EndFrame\": " + std::to_string(c.endFrame) +
                       (c.tracing.empty() ? "" : ", " + c.tracing) + "}";
    if (!c.internal.empty()) json += ", \"Internal\": {" + c.internal + "}";
    const std::string path = workPath("kalvorenconfig.json");
    std::ofstream(path, std::ios::binary) << json << "}}\n";
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

void FreshProcessTest::SetUp() {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
}

void inChild(const std::function<void()> &scenario) {
    const std::string path = workPath("console.txt");
    if (!std::freopen(path.c_str(), "a", stdout) || !std::freopen(path.c_str(), "a", stderr)) std::abort();
    scenario();
    std::fflush(nullptr);
    std::exit(0);
}

std::string childConsole() {
    return readText(workPath("console.txt"));
}

void childFailure(const char *file, int line, const std::string &text) {
    std::ofstream(workPath("failures.txt"), std::ios::binary | std::ios::app)
        << file << ":" << line << ": " << text << "\n";
}

void expectChildChecksPassed() {
    std::ifstream failures(workPath("failures.txt"), std::ios::binary);
    for (std::string line; std::getline(failures, line);)
        ADD_FAILURE() << "in the child: " << line;
}

bool exitedWithMinusOne(int status) {
    return ::testing::ExitedWithCode(-1)(status) || ::testing::ExitedWithCode(255)(status);
}

std::vector<const kv::reader::Entry *> Trace::withId(uint16_t id) const {
    std::vector<const kv::reader::Entry *> out;
    for (const kv::reader::Entry &e : calls)
        if (e.id == id) out.push_back(&e);
    return out;
}

Trace readTrace() {
    Trace t;
    std::string error;
    auto reader = kv::reader::Reader::openFile(workPath("trace.kalvoren"), &error);
    t.problems = error;
    if (!reader) return t;
    t.opened = true;
    reader->keepBlockBytes(true);
    for (kv::reader::Entry e; reader->next(e);)
        if (e.kind == kv::reader::Entry::Kind::Call) t.calls.push_back(e);
    t.ending = reader->ending();
    for (const kv::reader::Problem &p : reader->problems())
        t.problems += kv::reader::describe(p) + "\n";
    return t;
}

const kv::reader::Arg &arg(const kv::reader::Entry &e, const char *field) {
    for (const kv::reader::Arg &a : e.args)
        if (std::strcmp(a.field->name, field) == 0) return a;
    ADD_FAILURE() << "no argument " << field;
    static const kv::reader::Arg none;
    return none;
}

std::vector<uint8_t> blockBytes(const kv::reader::Entry &e, int32_t block) {
    if (block < 0) return {};
    const kv::reader::Block &b = e.blocks[static_cast<size_t>(block)];
    return std::vector<uint8_t>(e.bytes(b), e.bytes(b) + b.size);
}

} // namespace kvth::test
