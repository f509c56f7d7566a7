// What the tests against the test host share. A scenario runs in the child of a death test
// (EXPECT_EXIT), a new process running the same test up to that statement, because the library
// builds its settings and host tables once per process: everything before it must be
// deterministic, and the child reports through files of the test's work directory (its console
// and its failed checks), which the parent reads once the child has ended.
#pragma once

#include "trace/reader.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace kvth::test {

// The current test's work directory, made empty by the first call in each process.
std::string workPath(const std::string &name);
std::string readText(const std::string &path);
size_t countOf(const std::string &text, const std::string &needle);

struct LibraryConfig {
    bool enabled = true;   // false: the library passes every call straight to the host
    std::string eglHost;   // Host.EglLibraryPath
    std::string es2Host;   // Host.Es2LibraryPath
    uint32_t endFrame = 0; // Tracing.EndFrame: the last frame recorded
    std::string tracing;   // further Tracing keys, as JSON members ("\"Key\": value, ...")
    std::string internal;  // Internal keys, as JSON members
};

// A configuration that records into workPath("trace.kalvoren") with `host` as both hosts.
LibraryConfig recording(const std::string &host, uint32_t endFrame = 0);
// Writes the configuration as the section "*" and points KALVOREN_CONFIG at it; configuration
// errors are printed rather than shown in a dialog.
void useConfig(const LibraryConfig &config);

// The test host libraries and the library's own files (absolute paths).
std::string testHostPath();
std::string egl11HostPath();
std::string noExtensionHostPath(); // a host without the OpenGL ES extension functions
std::string libraryPath();
std::string eglFrontPath();
std::string gles2FrontPath();

// Runs death tests as new processes on every platform.
class FreshProcessTest : public ::testing::Test {
protected:
    void SetUp() override;
};

// The body of a death test: sends the console to the work directory, runs the scenario and ends
// the child as an application would (running the library's shutdown).
[[noreturn]] void inChild(const std::function<void()> &scenario);
// In the parent: what the child wrote to its console.
std::string childConsole();
// In the child: notes a failed check for the parent.
void childFailure(const char *file, int line, const std::string &text);
// In the parent: reports the child's failed checks as failures of the running test.
void expectChildChecksPassed();
// The status of a process that ended with exit code -1 (255 where exit codes are 8 bits).
bool exitedWithMinusOne(int status);

// Runs a scenario in a fresh child that must end normally, then reports its failed checks.
#define KVTH_EXPECT_CHILD_PASSES(...)                                                                        \
    do {                                                                                                     \
        EXPECT_EXIT(::kvth::test::inChild(__VA_ARGS__), ::testing::ExitedWithCode(0), "");                   \
        ::kvth::test::expectChildChecksPassed();                                                             \
    } while (0)

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

// The work directory's trace, read back with the trace reader.
struct Trace {
    bool opened = false;
    std::vector<kv::reader::Entry> calls; // in file order, block bytes kept
    kv::reader::Ending ending = kv::reader::Ending::NotYet;
    std::string problems; // what the reader could not read; empty when nothing

    std::vector<const kv::reader::Entry *> withId(uint16_t id) const;
};
Trace readTrace();

const kv::reader::Arg &arg(const kv::reader::Entry &e, const char *field);
std::vector<uint8_t> blockBytes(const kv::reader::Entry &e, int32_t block);

} // namespace kvth::test
