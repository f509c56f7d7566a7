// The call wrapper protocol, through the library's exported entry points with the test host as
// the driver: pass-through, error checking and recording, the recursion guard, and every wrapper
// running once. Each configuration runs in a process of its own (the library reads its settings
// once per process); the trace is read back once the process has ended.
#include "core/functions_autogen.h"
#include "tests/host/all_entries.h"
#include "tests/host/current_context.h"
#include "tests/unit/test_support.h"
#include "trace/format.h"
#include "trace/reader.h"

#include <gtest/gtest.h>

#include <thread>

#include <cstring>
#include <map>
#include <set>
#include <string>
#include <vector>

using namespace kvth::test;
using kv::test::GuardedPages;

namespace {

constexpr const char *kRecursionMessage =
    "FATAL ERROR: Kalvoren - ERROR: attempted to recursively load trace DLL.";

LibraryConfig recording() {
    LibraryConfig config;
    config.eglHost = testHostPath();
    config.es2Host = testHostPath();
    config.traceFile = workPath("trace.kalvoren");
    return config;
}

uint64_t slotOf(float value) {
    uint32_t bits = 0;
    std::memcpy(&bits, &value, sizeof(bits));
    return bits;
}

struct HostCall {
    std::string name;
    std::vector<uint64_t> arguments;
};

// The host's log from entry `first` on.
std::vector<HostCall> hostCalls(uint32_t first = 0) {
    std::vector<HostCall> calls;
    KvthCall call;
    for (uint32_t i = first; kvth_log_entry(i, &call); ++i) {
        const char *name = kvth_function_name(call.id);
        calls.push_back(
            {name ? name : "?", std::vector<uint64_t>(call.arguments, call.arguments + call.argumentCount)});
    }
    return calls;
}

std::string describe(const std::vector<HostCall> &calls) {
    std::string text;
    for (const HostCall &c : calls) {
        text += c.name + "(";
        for (size_t i = 0; i < c.arguments.size(); ++i)
            text += (i ? ", " : "") + std::to_string(c.arguments[i]);
        text += ") ";
    }
    return text.empty() ? "nothing" : text;
}

// In the child: the host saw exactly `expected` since log entry `first`.
void checkHostSaw(uint32_t first, const std::vector<HostCall> &expected, int line) {
    std::vector<HostCall> seen = hostCalls(first);
    bool same = seen.size() == expected.size();
    for (size_t i = 0; same && i < seen.size(); ++i)
        same = seen[i].name == expected[i].name && seen[i].arguments == expected[i].arguments;
    if (!same)
        childFailure(__FILE__, line, "the host saw " + describe(seen) + "; expected " + describe(expected));
}

std::string traceSummary(const TraceWalk &t) {
    std::string text = std::to_string(t.records.size()) + " records:";
    for (const TraceRecord &r : t.records)
        text += " " + std::to_string(r.id);
    return text;
}

} // namespace

// ---- Pass-through -----------------------------------------------------------------------------

class PassThrough : public FreshProcessTest {};

TEST_F(PassThrough, DisabledLibraryForwardsCallsUntouchedAndRecordsNothing) {
    LibraryConfig config = recording();
    config.enabled = false;
    useConfig(config);
    KVTH_EXPECT_CHILD_PASSES([] {
        // The first call of each API builds its host table; start the log after that.
        egl::getCurrentContext();
        gles::flush();
        kvth_reset();
        kvth_set_result("eglGetDisplay", 0xD15);
        kvth_set_result("glCheckFramebufferStatus", GL_FRAMEBUFFER_UNSUPPORTED);
        kvth_raise_error_on("glEnable", GL_INVALID_ENUM);
        kvth_raise_error_on("eglSwapInterval", EGL_BAD_SURFACE);

        KVTH_CHILD_CHECK(egl::getDisplay(EGL_DEFAULT_DISPLAY) == handle<EGLDisplay>(0xD15));
        KVTH_CHILD_CHECK(egl::queryString(handle<EGLDisplay>(0xD15), EGL_VENDOR) ==
                         kvth_egl_string(EGL_VENDOR));
        egl::swapInterval(handle<EGLDisplay>(0xD15), 2);
        KVTH_CHILD_CHECK_EQ(static_cast<GLenum>(GL_FRAMEBUFFER_UNSUPPORTED),
                            gles::checkFramebufferStatus(GL_FRAMEBUFFER));
        KVTH_CHILD_CHECK(gles::getString(GL_VENDOR) ==
                         reinterpret_cast<const GLubyte *>(kvth_gl_string(GL_VENDOR)));
        gles::enable(GL_BLEND);
        gles::uniform4f(3, 0.25f, -1.5f, 2.0f, 1e-3f);
        // The host saw the calls as they were made, and no error query after any.
        checkHostSaw(0,
                     {{"eglGetDisplay", {0}},
                      {"eglQueryString", {0xD15, EGL_VENDOR}},
                      {"eglSwapInterval", {0xD15, 2}},
                      {"glCheckFramebufferStatus", {GL_FRAMEBUFFER}},
                      {"glGetString", {GL_VENDOR}},
                      {"glEnable", {GL_BLEND}},
                      {"glUniform4f", {3, slotOf(0.25f), slotOf(-1.5f), slotOf(2.0f), slotOf(1e-3f)}}},
                     __LINE__);
        // So the errors are still the host's to report.
        KVTH_CHILD_CHECK_EQ(static_cast<GLenum>(GL_INVALID_ENUM), gles::getError());
        KVTH_CHILD_CHECK_EQ(EGL_BAD_SURFACE, egl::getError());
    });
    const std::string trace = workPath("trace.kalvoren");
    EXPECT_TRUE(!fileExists(trace) || readBytes(trace).empty())
        << readBytes(trace).size() << " bytes recorded";
}

// ---- Errors while recording -------------------------------------------------------------------

class RecordedErrors : public FreshProcessTest {};

TEST_F(RecordedErrors, GlErrorIsRecordedWithTheCallAndStillReportedToTheApplication) {
    useConfig(recording());
    KVTH_EXPECT_CHILD_PASSES([] {
        makeContextCurrent();
        gles::clear(GL_COLOR_BUFFER_BIT);
        kvth_raise_error_on("glEnable", GL_INVALID_ENUM);
        const uint32_t first = kvth_log_size();
        gles::enable(GL_BLEND);
        // The wrapper took the error from the host right after the call.
        checkHostSaw(first, {{"glEnable", {GL_BLEND}}, {"glGetError", {}}}, __LINE__);
        // The application still gets it, once.
        KVTH_CHILD_CHECK_EQ(static_cast<GLenum>(GL_INVALID_ENUM), gles::getError());
        KVTH_CHILD_CHECK_EQ(static_cast<GLenum>(GL_NO_ERROR), gles::getError());
    });

    const TraceWalk t = walkTrace(workPath("trace.kalvoren"));
    ASSERT_TRUE(t.whole) << t.problem;
    EXPECT_TRUE(t.endMarker);
    ASSERT_FALSE(t.records.empty());
    EXPECT_EQ(kv::format::kThreadMarkerId, t.records[0].id) << traceSummary(t);
    EXPECT_EQ(8u, t.records[0].payload.size());

    // Making the context current went without an error, the library's own queries included.
    for (uint16_t id :
         {kv::fn::eglGetDisplay::id, kv::fn::eglInitialize::id, kv::fn::eglChooseConfig::id,
          kv::fn::eglCreateContext::id, kv::fn::eglCreatePbufferSurface::id, kv::fn::eglMakeCurrent::id}) {
        const auto records = t.withId(id);
        ASSERT_EQ(1u, records.size()) << "id " << id << ": " << traceSummary(t);
        EXPECT_EQ(static_cast<uint32_t>(EGL_SUCCESS), records[0]->u32(0)) << "id " << id;
    }
    // glClear: no error, the mask.
    const auto clears = t.withId(kv::fn::glClear::id);
    ASSERT_EQ(1u, clears.size()) << traceSummary(t);
    EXPECT_EQ(8u, clears[0]->payload.size());
    EXPECT_EQ(static_cast<uint32_t>(GL_NO_ERROR), clears[0]->u32(0));
    EXPECT_EQ(static_cast<uint32_t>(GL_COLOR_BUFFER_BIT), clears[0]->u32(4));
    // glEnable: the host's error, then the capability.
    const auto enables = t.withId(kv::fn::glEnable::id);
    ASSERT_EQ(1u, enables.size()) << traceSummary(t);
    EXPECT_EQ(8u, enables[0]->payload.size());
    EXPECT_EQ(static_cast<uint32_t>(GL_INVALID_ENUM), enables[0]->u32(0));
    EXPECT_EQ(static_cast<uint32_t>(GL_BLEND), enables[0]->u32(4));
    // The application's queries: no error of their own; the first answered the pending error.
    const auto queries = t.withId(kv::fn::glGetError::id);
    ASSERT_EQ(2u, queries.size()) << traceSummary(t);
    EXPECT_EQ(static_cast<uint32_t>(GL_NO_ERROR), queries[0]->u32(0));
    EXPECT_EQ(static_cast<uint32_t>(GL_INVALID_ENUM), queries[0]->u32(4));
    EXPECT_EQ(static_cast<uint32_t>(GL_NO_ERROR), queries[1]->u32(0));
    EXPECT_EQ(static_cast<uint32_t>(GL_NO_ERROR), queries[1]->u32(4));
}

TEST_F(RecordedErrors, EglErrorIsRecordedWithTheCallAndAnsweredByTheLibrary) {
    useConfig(recording());
    KVTH_EXPECT_CHILD_PASSES([] {
        CurrentContext c = makeContextCurrent();
        kvth_set_result("eglSwapInterval", EGL_FALSE);
        kvth_raise_error_on("eglSwapInterval", EGL_BAD_SURFACE);
        const uint32_t first = kvth_log_size();
        KVTH_CHILD_CHECK(egl::swapInterval(c.display, 1) == EGL_FALSE);
        checkHostSaw(first, {{"eglSwapInterval", {0xD15, 1}}, {"eglGetError", {}}}, __LINE__);
        KVTH_CHILD_CHECK_EQ(EGL_BAD_SURFACE, egl::getError());
        KVTH_CHILD_CHECK_EQ(EGL_SUCCESS, egl::getError());
    });

    const TraceWalk t = walkTrace(workPath("trace.kalvoren"));
    ASSERT_TRUE(t.whole) << t.problem;
    const auto swaps = t.withId(kv::fn::eglSwapInterval::id);
    ASSERT_EQ(1u, swaps.size()) << traceSummary(t);
    EXPECT_EQ(static_cast<uint32_t>(EGL_BAD_SURFACE), swaps[0]->u32(0));
    const auto queries = t.withId(kv::fn::eglGetError::id);
    ASSERT_EQ(3u, queries.size()) << traceSummary(t); // one while making the context current
    EXPECT_EQ(static_cast<uint32_t>(EGL_SUCCESS), queries[1]->u32(0));
    EXPECT_EQ(static_cast<uint32_t>(EGL_BAD_SURFACE), queries[1]->u32(4));
    EXPECT_EQ(static_cast<uint32_t>(EGL_SUCCESS), queries[2]->u32(4));
}

// ---- The recursion guard ----------------------------------------------------------------------

class RecursionGuard : public FreshProcessTest {};

// A host path that names the library itself or one of its front libraries would load the library
// into itself: the first call that loads the host ends the process with the message, once.
TEST_F(RecursionGuard, AHostNamingTheLibraryOrAFrontEndsTheProcess) {
    const struct {
        const char *name;
        std::string eglHost, es2Host;
        void (*call)();
    } cases[] = {
        {"the library as EGL host", libraryPath(), testHostPath(),
         [] { egl::getDisplay(EGL_DEFAULT_DISPLAY); }},
        {"the EGL front, second in the list", workPath("missing-egl.so") + ";" + eglFrontPath(),
         testHostPath(), [] { egl::getDisplay(EGL_DEFAULT_DISPLAY); }},
        {"the GLES front as GLES host", testHostPath(), gles2FrontPath(),
         [] { gles::clear(GL_COLOR_BUFFER_BIT); }},
    };
    for (const auto &c : cases) {
        LibraryConfig config = recording();
        config.eglHost = c.eglHost;
        config.es2Host = c.es2Host;
        useConfig(config);
        EXPECT_EXIT(inChild(c.call), exitedWithMinusOne, "") << c.name;
        EXPECT_EQ(1u, countOf(childConsole(), kRecursionMessage)) << c.name << ": " << childConsole();
    }
}

// ---- Every wrapper ----------------------------------------------------------------------------

class EveryWrapper : public FreshProcessTest {
protected:
    // Runs the calls in a recording process (recording every frame), then reads the trace back.
    void runAndReadBack(void (*calls)()) {
        LibraryConfig config = recording();
        config.endFrame = 1000000;
        useConfig(config);
        KVTH_EXPECT_CHILD_PASSES(calls);

        // The framing holds from the header to the end marker.
        const TraceWalk t = walkTrace(workPath("trace.kalvoren"));
        ASSERT_TRUE(t.whole) << t.problem;
        EXPECT_TRUE(t.endMarker);
        // Every record decodes by its function's layout, with no byte missing or left over.
        std::string error;
        auto reader = kv::reader::Reader::openFile(workPath("trace.kalvoren"), &error);
        ASSERT_TRUE(reader) << error;
        std::set<uint16_t> recorded;
        kv::reader::Entry entry;
        uint64_t calls = 0;
        while (reader->next(entry)) {
            if (entry.kind != kv::reader::Entry::Kind::Call) continue;
            recorded.insert(entry.id);
            ++calls;
        }
        EXPECT_EQ(kv::reader::Ending::EndMarker, reader->ending())
            << kv::reader::endingText(reader->ending());
        EXPECT_EQ(0u, reader->problemCount());
        for (const kv::reader::Problem &p : reader->problems())
            ADD_FAILURE() << kv::reader::describe(p);
        uint64_t framedCalls = 0;
        for (const TraceRecord &r : t.records)
            framedCalls += r.id != kv::format::kThreadMarkerId;
        EXPECT_EQ(framedCalls, calls);
        // And every entry point left its record.
        std::string missing;
        for (uint32_t i = 0; i < kvth::kGlesEntryCount; ++i)
            if (!recorded.count(kvth::kGlesEntries[i].id))
                missing += std::string(" ") + kvth::kGlesEntries[i].name;
        for (uint32_t i = 0; i < kvth::kEglEntryCount; ++i)
            if (!recorded.count(kvth::kEglEntries[i].id))
                missing += std::string(" ") + kvth::kEglEntries[i].name;
        EXPECT_TRUE(missing.empty()) << "not recorded:" << missing;
    }
};

TEST_F(EveryWrapper, RunsWithACurrentContextAndTheTraceReadsBack) {
    runAndReadBack([] {
        makeContextCurrent();
        kvth::callEveryGlesEntry();
        kvth::callEveryEglEntry();
    });
}

TEST_F(EveryWrapper, RunsWithoutAContextAndTheTraceReadsBack) {
    runAndReadBack([] {
        kvth::callEveryGlesEntry();
        kvth::callEveryEglEntry();
    });
}

// ---- Client arrays in memory that cannot be read --------------------------------------------

class ClientArrays : public FreshProcessTest {};

constexpr uint32_t kPacked = 1; // the tightly packed attribute
constexpr uint32_t kLow = 0;    // the strided attribute at a low address

// The attributes (index -> the bytes recorded) of the draws of a trace, in file order.
std::vector<std::map<uint32_t, std::vector<uint8_t>>> drawnAttributes(const std::string &path, uint16_t id,
                                                                      std::vector<uint64_t> *pointers) {
    std::vector<std::map<uint32_t, std::vector<uint8_t>>> draws;
    std::string error;
    auto reader = kv::reader::Reader::openFile(path, &error);
    EXPECT_TRUE(reader) << error;
    if (!reader) return draws;
    kv::reader::Entry e;
    while (reader->next(e)) {
        if (e.kind != kv::reader::Entry::Kind::Call || e.id != id) continue;
        std::map<uint32_t, std::vector<uint8_t>> attributes;
        for (const auto &part : e.parts) {
            if (part.kind != kv::reader::Part::Kind::Attribute) continue;
            std::vector<uint8_t> bytes;
            if (part.block >= 0)
                reader->blockBytes(e.blocks[static_cast<size_t>(part.block)], bytes, 1u << 20);
            attributes[part.index] = bytes;
            if (pointers) pointers->push_back(part.pointer);
        }
        draws.push_back(attributes);
    }
    EXPECT_EQ(0u, reader->problemCount());
    return draws;
}

TEST_F(ClientArrays, UnreadableArraysAreReportedAndTheProcessLives) {
    useConfig(recording());
    KVTH_EXPECT_CHILD_PASSES([] {
        makeContextCurrent();
        GuardedPages pages;
        // Two vec4 vertices just before a page that cannot be read.
        auto *vertices = reinterpret_cast<float *>(pages.unreadable() - 32);
        for (int i = 0; i < 8; ++i)
            vertices[i] = static_cast<float>(i);
        gles::bindBuffer(GL_ARRAY_BUFFER, 0);
        // A strided attribute at 0x100 is an offset given without a buffer.
        gles::vertexAttribPointer(kLow, 2, GL_FLOAT, GL_FALSE, 16, reinterpret_cast<const void *>(0x100));
        gles::enableVertexAttribArray(kLow);
        gles::vertexAttribPointer(kPacked, 4, GL_FLOAT, GL_FALSE, 0, vertices);
        gles::enableVertexAttribArray(kPacked);
        gles::drawArrays(GL_TRIANGLES, 0, 2); // reads what can be read
        gles::drawArrays(GL_TRIANGLES, 0, 6); // runs into the page that cannot
        // Indices that cannot be read stop the capture too.
        gles::drawElements(GL_TRIANGLES, 3, GL_UNSIGNED_SHORT, pages.unreadable());
    });
    const std::string console = childConsole();
    EXPECT_EQ(2u, countOf(console, "VertexAttribPointer data is inaccessible at address 0x100.")) << console;
    EXPECT_EQ(2u, countOf(console, "Failed to save all the VertexAttribPointer data due to a crash"))
        << console;

    std::vector<uint64_t> pointers;
    auto draws = drawnAttributes(workPath("trace.kalvoren"), kv::fn::glDrawArrays::id, &pointers);
    ASSERT_EQ(2u, draws.size());
    // The low attribute is handed over as inaccessible (pointer 0, no bytes) both times.
    EXPECT_TRUE(draws[0].count(kLow) && draws[0][kLow].empty());
    EXPECT_TRUE(draws[1].count(kLow) && draws[1][kLow].empty());
    ASSERT_FALSE(pointers.empty());
    EXPECT_EQ(0u, pointers[0]);
    // The packed attribute: whole in the first draw, not captured in the second.
    std::vector<uint8_t> expected(32);
    for (int i = 0; i < 8; ++i) {
        float v = static_cast<float>(i);
        std::memcpy(expected.data() + 4 * i, &v, 4);
    }
    EXPECT_EQ(expected, draws[0][kPacked]);
    EXPECT_EQ(0u, draws[1].count(kPacked));
    // The indexed draw kept its record, without indices or arrays.
    auto indexed = drawnAttributes(workPath("trace.kalvoren"), kv::fn::glDrawElements::id, nullptr);
    ASSERT_EQ(1u, indexed.size());
    EXPECT_TRUE(indexed[0].empty());
}

// Instancing is decided per attribute: a strided attribute without a divisor at a low address is
// an offset without a buffer in an instanced draw too, reported and skipped.
TEST_F(ClientArrays, ALowAddressIsReportedInAnInstancedDrawToo) {
    useConfig(recording());
    KVTH_EXPECT_CHILD_PASSES([] {
        makeContextCurrent();
        gles::bindBuffer(GL_ARRAY_BUFFER, 0);
        gles::vertexAttribPointer(kLow, 2, GL_FLOAT, GL_FALSE, 16, reinterpret_cast<const void *>(0x100));
        gles::enableVertexAttribArray(kLow);
        gles::drawArraysInstanced(GL_TRIANGLES, 0, 3, 4);
        // An instance count of 0 draws nothing and reads nothing.
        gles::drawArraysInstanced(GL_TRIANGLES, 0, 3, 0);
    });
    const std::string console = childConsole();
    EXPECT_EQ(1u, countOf(console, "VertexAttribPointer data is inaccessible at address 0x100.")) << console;
    EXPECT_EQ(0u, countOf(console, "Failed to save all the VertexAttribPointer data")) << console;
}

// A record that cannot be made (memory runs out while a draw's arrays are gathered) is dropped
// whole: the call returns to the application, the recording lock is free, and other threads record.
TEST_F(ClientArrays, ARecordThatRunsOutOfMemoryIsDroppedAndTheLockFreed) {
    // (An unlimited address space is no change; a system without the limit skips the test.)
    if (!kv::test::limitAddressSpace(~0ull)) GTEST_SKIP() << "no address-space limit on this system";
    useConfig(recording());
    KVTH_EXPECT_CHILD_PASSES([] {
        makeContextCurrent();
        if (!kv::test::limitAddressSpace(3ull << 30)) return;
        static float vertices[64];
        gles::bindBuffer(GL_ARRAY_BUFFER, 0);
        gles::vertexAttribPointer(0, 3, GL_FLOAT, GL_FALSE, 16, vertices);
        gles::enableVertexAttribArray(0);
        // 300 million strided vertices: 3.6 GB to gather, more than the process may have.
        gles::drawArrays(GL_POINTS, 0, 300000000);
        std::thread other([] { gles::clear(GL_COLOR_BUFFER_BIT); });
        other.join();
        gles::clear(GL_DEPTH_BUFFER_BIT);
    });
    const std::string console = childConsole();
    EXPECT_EQ(1u, countOf(console, "glDrawArrays could not be recorded (out of memory")) << console;
    TraceWalk walk = walkTrace(workPath("trace.kalvoren"));
    EXPECT_EQ(walk.problem, "");
    EXPECT_EQ(2u, walk.withId(kv::fn::glClear::id).size());
}

// ---- A process that crashes ------------------------------------------------------------------

class Crash : public FreshProcessTest {};

void crashHere(volatile int *where) {
    *where = 1;
}

// A fault that nothing of the application handles ends the process as it would untraced (SIGSEGV;
// on Windows the unhandled-exception path), and the trace file is cut to exactly its records first.
TEST_F(Crash, AnUnhandledFaultLeavesATraceOfExactlyItsRecords) {
    useConfig(recording());
    EXPECT_EXIT(
        inChild([] {
            makeContextCurrent();
            for (int i = 0; i < 50; ++i)
                gles::clear(GL_COLOR_BUFFER_BIT);
            static volatile int *nowhere = nullptr;
            crashHere(nowhere);
        }),
        [](int status) { return status != 0; }, "");
    TraceWalk walk = walkTrace(workPath("trace.kalvoren"));
    EXPECT_TRUE(walk.whole) << walk.problem;
    EXPECT_FALSE(walk.endMarker);
    EXPECT_EQ(50u, walk.withId(kv::fn::glClear::id).size());
}

// ---- Answers the library changes --------------------------------------------------------------

class Overrides : public FreshProcessTest {};

TEST_F(Overrides, StringsGainTheVersionAndLoseDisabledExtensions) {
    LibraryConfig config = recording();
    config.internal = "\"DisableExtensionList\": \"GL_OES_texture_npot;GL_KHR\"";
    useConfig(config);
    KVTH_EXPECT_CHILD_PASSES([] {
        makeContextCurrent();
        const char *renderer = reinterpret_cast<const char *>(gles::getString(GL_RENDERER));
        KVTH_CHILD_CHECK(renderer &&
                         std::string(renderer) == "Kalvoren test host + Kalvoren v3.13 (19.2@5581729)");
        // The same text, kept once, on every later call.
        KVTH_CHILD_CHECK(reinterpret_cast<const char *>(gles::getString(GL_RENDERER)) == renderer);
        // Without a replacement the host's own pointer comes back.
        KVTH_CHILD_CHECK(reinterpret_cast<const char *>(gles::getString(GL_VENDOR)) ==
                         kvth_gl_string(GL_VENDOR));
        // Whole names only: "GL_KHR" does not take GL_KHR_debug with it.
        const char *extensions = reinterpret_cast<const char *>(gles::getString(GL_EXTENSIONS));
        KVTH_CHILD_CHECK(extensions && std::string(extensions) ==
                                           "GL_OES_element_index_uint GL_EXT_texture_format_BGRA8888 "
                                           "GL_KHR_debug");
        const char *version = egl::queryString(egl::getCurrentDisplay(), EGL_VERSION);
        KVTH_CHILD_CHECK(version && std::string(version) == std::string(kvth_egl_string(EGL_VERSION)) +
                                                                " + Kalvoren v3.13 (19.2@5581729)");
        // 0x7500 goes to the host untouched and unrecorded.
        gles::getString(0x7500);
    });
    const TraceWalk t = walkTrace(workPath("trace.kalvoren"));
    ASSERT_TRUE(t.whole) << t.problem;
    EXPECT_EQ(4u, t.withId(kv::fn::glGetString::id).size()) << traceSummary(t);
}

TEST_F(Overrides, QueriesReportConfiguredAlignmentsAndNoBinaryFormats) {
    LibraryConfig config = recording();
    config.tracing = "\"UniformBufferOffsetAlignment\": 256";
    useConfig(config);
    KVTH_EXPECT_CHILD_PASSES([] {
        makeContextCurrent();
        GLint value = 7;
        gles::getIntegerv(GL_UNIFORM_BUFFER_OFFSET_ALIGNMENT, &value);
        KVTH_CHILD_CHECK_EQ(256, value);
        GLint64 wide = 7;
        gles::getInteger64v(GL_SHADER_STORAGE_BUFFER_OFFSET_ALIGNMENT, &wide);
        KVTH_CHILD_CHECK_EQ(256, wide);
        GLfloat real = 7.0f;
        gles::getFloatv(GL_UNIFORM_BUFFER_OFFSET_ALIGNMENT, &real);
        KVTH_CHILD_CHECK(real == 256.0f);
        value = 7;
        gles::getIntegerv(GL_NUM_SHADER_BINARY_FORMATS, &value);
        KVTH_CHILD_CHECK_EQ(0, value);
        // A query the driver rejects keeps what it left.
        kvth_raise_error_on("glGetIntegerv", GL_INVALID_ENUM);
        value = 7;
        gles::getIntegerv(GL_UNIFORM_BUFFER_OFFSET_ALIGNMENT, &value);
        KVTH_CHILD_CHECK_EQ(7, value);
        KVTH_CHILD_CHECK_EQ(static_cast<GLenum>(GL_INVALID_ENUM), gles::getError());
    });
}
