// What exists once per process: the module handle registry, the host library paths and the
// settings record with its trace file. (Per-thread records and thread markers: roundtrip_test.cpp
// and threads_program.)
#include "core/lifecycle.h"
#include "core/settings.h"
#include "tests/unit/test_support.h"
#include "trace/trace_writer.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace kv {
namespace {

TEST(LibraryHandles, EachAddNeedsItsRelease) {
    const uint64_t a = 0x7ffe00010000ull, b = 0x7ffe00020000ull, unknown = 0x7ffe00030000ull;
    AddLibHandle(a);
    AddLibHandle(a);
    AddLibHandle(b);
    EXPECT_TRUE(isLibraryHandle(a));
    EXPECT_TRUE(isLibraryHandle(b));
    EXPECT_FALSE(isLibraryHandle(unknown));

    ReleaseLibHandle(unknown);
    ReleaseLibHandle(a);
    EXPECT_TRUE(isLibraryHandle(a)) << "one of two registrations released";
    ReleaseLibHandle(a);
    EXPECT_FALSE(isLibraryHandle(a));
    ReleaseLibHandle(a);
    EXPECT_FALSE(isLibraryHandle(a));
    EXPECT_TRUE(isLibraryHandle(b));
    ReleaseLibHandle(b);
    EXPECT_FALSE(isLibraryHandle(b));
}

// A Host path from the configuration is what the host tables use; the default search fills only
// the libraries that have none.
TEST(HostLibraryPaths, TheDefaultSearchKeepsAConfiguredPath) {
    const std::string configured = test::scratchPath("drivers/libEGL-custom");
    CZandString savedEgl = configuredHostLibraryPath(kHostEgl);
    CZandString savedCl = configuredHostLibraryPath(kHostCl);
    configuredHostLibraryPath(kHostEgl) = CZandString(configured);
    configuredHostLibraryPath(kHostCl) = CZandString();

    searchDefaultHostLibraries();
    EXPECT_EQ(hostLibraryPath(kHostEgl).str(), configured);
    EXPECT_EQ(configuredHostLibraryPath(kHostEgl).str(), configured);
    EXPECT_FALSE(hostLibraryPath(kHostCl).empty()) << "a found path or the bare library name";
    EXPECT_EQ(&hostLibraryPath(kHostCl), &defaultHostLibraryPath(kHostCl));

    configuredHostLibraryPath(kHostEgl) = savedEgl;
    configuredHostLibraryPath(kHostCl) = savedCl;
}

// The settings are built once per process from the configuration, and afresh after a full close.
// Recording opens the trace and writes its header at once.
TEST(Settings, AreBuiltFromTheConfigurationAndAfreshAfterAFullClose) {
    Settings &first = getSettings();
    EXPECT_EQ(&getSettings(), &first);
    EXPECT_EQ(first.cachedProcessId, platform::processId());

    const std::string pattern = test::scratchPath("built_%pid.kalvoren");
    const std::string expanded =
        test::scratchPath("built_" + std::to_string(platform::processId()) + ".kalvoren");
    const std::string config =
        "{\"*\": {\"Tracing\": {\"OutputFilename\": " + test::jsonQuoted(pattern) + ", \"StartFrame\": 4}}}";
    test::RebuiltSettings rebuilt(config.c_str());
    Settings &s = rebuilt.settings();
    EXPECT_EQ(s.mode.load(), kModeRecording);
    EXPECT_TRUE(s.recordingEnabled);
    EXPECT_EQ(s.startFrame, 4u);
    EXPECT_EQ(s.outputFilename.str(), expanded);
    EXPECT_NE(s.traceFile, nullptr);
    EXPECT_NE(rebuilt.output().find("Opening trace file '" + expanded + "' for recording."),
              std::string::npos)
        << rebuilt.output();
    std::vector<uint8_t> file = test::readFile(expanded);
    ASSERT_GE(file.size(), 8u);
    EXPECT_EQ(std::string(file.begin(), file.begin() + 8), "Kalvoren");
}

// A trace file that cannot be opened is reported; the process goes on and records go nowhere.
TEST(Settings, ATraceFileThatCannotBeOpenedIsReported) {
    const std::string config = "{\"*\": {\"Tracing\": {\"OutputFilename\": " +
                               test::jsonQuoted(test::scratchPath("missing/directory/t.kalvoren")) + "}}}";
    test::RebuiltSettings rebuilt(config.c_str());
    EXPECT_NE(rebuilt.output().find("ERROR: Failed to open record trace file."), std::string::npos)
        << rebuilt.output();
    Settings &s = rebuilt.settings();
    EXPECT_EQ(s.traceFile, nullptr);
    RecordHandle h = trace::begin(300);
    ASSERT_TRUE(h);
    h.u32(7);
    trace::finish(h);
    EXPECT_EQ(trace::recordLock().count(), 0u);
}

// When the process ends while recording, the trace gets its end marker and is closed, even if no
// frame ever ended.
TEST(Settings, ProcessDetachEndsTheTraceWhileRecording) {
    const std::string path = test::scratchPath("detach.kalvoren");
    const std::string config = "{\"*\": {\"Tracing\": {\"OutputFilename\": " + test::jsonQuoted(path) + "}}}";
    test::RebuiltSettings rebuilt(config.c_str());
    uint64_t headerEnd = trace::tell(rebuilt.settings());
    ASSERT_GT(headerEnd, 0u);
    RecordHandle h = trace::begin(300);
    h.u32(1);
    trace::finish(h);

    {
        test::ConsoleCapture quiet;
        platform::EntryRoutine::processDetach();
    }
    std::string problem;
    std::vector<test::TraceItem> items = test::walkTrace(test::readFile(path), headerEnd, &problem);
    EXPECT_EQ(problem, "");
    ASSERT_EQ(items.size(), 3u);
    EXPECT_EQ(items[0].kind, test::TraceItem::ThreadMarker);
    EXPECT_EQ(items[1].id, 300);
    EXPECT_EQ(items[2].kind, test::TraceItem::EndMarker);
    if (test::debuggerChannelIsFile()) {
        EXPECT_NE(test::debuggerText().find("Kalvoren: Trace finished."), std::string::npos);
    }
}

// The life of a process that uses the library: its configuration, a recorded call, and the end of
// the process as the loader reports it.
[[noreturn]] void liveAsAProcess(const std::string &config) {
    test::setEnv("KALVOREN_CONFIG", config.c_str());
    {
        test::ConsoleCapture quiet;
        RecordHandle c = trace::begin(301);
        c.u32(2);
        trace::finish(c);
        platform::EntryRoutine::processDetach();
    }
    std::exit(0);
}

// A forked child builds settings of its own; whatever its configuration names, and however it
// ends, the parent's trace stays the parent's and the parent goes on recording.
TEST(Settings, AChildProcessLeavesTheParentsTraceAlone) {
    // Named by process: where a death test runs in a new process, the child runs this part too.
    const std::string path =
        test::scratchPath("parent_" + std::to_string(platform::processId()) + ".kalvoren");
    test::TraceSession parent(path);
    ASSERT_TRUE(parent.opened());
    RecordHandle h = trace::begin(300);
    h.u32(1);
    trace::finish(h);

    const std::string sameName = test::scratchPath("child_same.json");
    const std::string ownName = test::scratchPath("child_own.json");
    test::writeFile(sameName, "{\"*\": {\"Tracing\": {\"OutputFilename\": " + test::jsonQuoted(path) + "}}}");
    test::writeFile(ownName, "{\"*\": {\"Tracing\": {\"OutputFilename\": " +
                                 test::jsonQuoted(test::scratchPath("child_%pid.kalvoren")) + "}}}");
    for (const std::string &config : {sameName, ownName})
        EXPECT_EXIT(liveAsAProcess(config), ::testing::ExitedWithCode(0), "") << config;

    std::vector<uint8_t> block(64 * 1024, 0x5C);
    h = trace::begin(302);
    h.addBlock(static_cast<uint32_t>(block.size()), block.data(), false);
    trace::finish(h);
    std::string problem;
    std::vector<test::TraceItem> items = parent.closeAndWalk(&problem);
    EXPECT_EQ(problem, "");
    ASSERT_EQ(items.size(), 3u);
    EXPECT_EQ(items[0].thread, platform::threadId());
    EXPECT_EQ(items[1].id, 300);
    EXPECT_EQ(items[2].id, 302);
    EXPECT_EQ(items[2].payload, block);
}

} // namespace
} // namespace kv
