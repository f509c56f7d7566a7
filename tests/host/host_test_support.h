// What the tests against the test host share: a work directory per test, the library's
// configuration file, scenarios run in a fresh process (the library builds its settings and host
// tables once per process), and a walk over the records of a trace file.
//
// A scenario runs in the child of a death test (EXPECT_EXIT), which gtest starts as a new process
// running the same test up to that statement: everything before it must be deterministic, and the
// child reports to the parent through files of the work directory (its console output and the
// checks that failed), which the parent reads once the child has ended.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace kvth::test {

// ---- Files ------------------------------------------------------------------------------------

// The current test's work directory, made empty by the first call in each process.
const std::string &workDir();
std::string workPath(const std::string &name);
std::string readText(const std::string &path);
std::vector<uint8_t> readBytes(const std::string &path);
bool fileExists(const std::string &path);
size_t countOf(const std::string &text, const std::string &needle);

// ---- The library's configuration --------------------------------------------------------------

struct LibraryConfig {
    bool enabled = true;   // false: the library passes every call straight to the host
    std::string eglHost;   // Host.EglLibraryPath
    std::string es2Host;   // Host.Es2LibraryPath
    std::string traceFile; // Tracing.OutputFilename
    bool compression = false;
    uint32_t endFrame = 0; // Tracing.EndFrame: the last frame recorded
    std::string tracing;   // further Tracing keys, as JSON members ("\"Key\": value, ...")
    std::string internal;  // Internal keys, as JSON members
};

// Writes the configuration into the work directory as the one section "*" and points
// KALVOREN_CONFIG at it; configuration errors are printed rather than shown in a dialog.
void useConfig(const LibraryConfig &config);

// The test host libraries and the library's own files (absolute paths).
std::string testHostPath();
std::string egl11HostPath();
std::string noExtensionHostPath(); // a host without the OpenGL ES extension functions
std::string libraryPath();
std::string eglFrontPath();
std::string gles2FrontPath();

// ---- Scenarios in a fresh process --------------------------------------------------------------

// Runs death tests as new processes on every platform, so that each scenario builds the library's
// settings and host tables afresh.
class FreshProcessTest : public ::testing::Test {
protected:
    void SetUp() override;
};

// The body of a death test: captures the console, runs the scenario and ends the child as an
// application would. Used as EXPECT_EXIT(inChild([&] { ... }), ...).
[[noreturn]] void inChild(const std::function<void()> &scenario);

// In the child: sends the console channels (standard output and error) to the work directory.
void captureConsole();
// In the parent: what the child wrote to its console.
std::string childConsole();

// In the child: notes a failed check for the parent.
void childFailure(const char *file, int line, const std::string &text);
// In the parent: reports the child's failed checks as failures of the running test.
void expectChildChecksPassed();
// In the child: ends the process as an application would (running the library's shutdown).
[[noreturn]] void endChild();

// Runs a scenario (a callable) in a fresh child that must end normally, then reports the checks
// that failed in it.
#define KVTH_EXPECT_CHILD_PASSES(...)                                                                        \
    do {                                                                                                     \
        EXPECT_EXIT(::kvth::test::inChild(__VA_ARGS__), ::testing::ExitedWithCode(0), "");                   \
        ::kvth::test::expectChildChecksPassed();                                                             \
    } while (0)

// The status of a process that ended with exit code -1 (255 where exit codes are 8 bits).
bool exitedWithMinusOne(int status);

#define KVTH_CHILD_CHECK(condition)                                                                          \
    do {                                                                                                     \
        if (!(condition)) ::kvth::test::childFailure(__FILE__, __LINE__, "check failed: " #condition);       \
    } while (0)

#define KVTH_CHILD_CHECK_EQ(expected, actual)                                                                \
    do {                                                                                                     \
        const auto kvthExpected = (expected);                                                                \
        const auto kvthActual = (actual);                                                                    \
        if (!(kvthExpected == kvthActual))                                                                   \
            ::kvth::test::childFailure(__FILE__, __LINE__,                                                   \
                                       std::string(#actual " is ") + std::to_string(kvthActual) +            \
                                           ", expected " #expected " (" + std::to_string(kvthExpected) +     \
                                           ")");                                                             \
    } while (0)

// ---- Trace files ------------------------------------------------------------------------------

struct TraceRecord {
    uint64_t offset = 0; // of the length field
    uint16_t id = 0;
    std::vector<uint8_t> payload;

    uint32_t u32(size_t at) const;
};

// The trace walked by its framing: the header, then u32 payload length, u16 id and the payload of
// each record, up to the end marker.
struct TraceWalk {
    bool whole = false; // every byte belongs to the header, a record or the end marker
    bool endMarker = false;
    std::string problem;
    uint64_t headerSize = 0;
    uint8_t flags = 0;
    std::vector<TraceRecord> records;

    std::vector<const TraceRecord *> withId(uint16_t id) const;
};

TraceWalk walkTrace(const std::string &path);

} // namespace kvth::test
