// The call wrapper protocol, through the library's exported entry points with the test host as
// the driver: pass-through, errors, the recursion guard, every wrapper running once, client arrays
// and a crash. Each configuration runs in a process of its own; the trace is read back after it.
#include "base/slots.h"
#include "core/functions_autogen.h"
#include "tests/host/all_entries.h"
#include "tests/host/current_context.h"
#include "tests/unit/test_support.h"

#include <gtest/gtest.h>

#include <cstring>
#include <map>
#include <set>
#include <string>
#include <thread>
#include <vector>

using namespace kvth::test;
using kv::test::GuardedPages;

namespace {

struct HostCall {
    std::string name;
    std::vector<uint64_t> arguments;
    bool operator==(const HostCall &o) const { return name == o.name && arguments == o.arguments; }
};

std::string describe(const std::vector<HostCall> &calls) {
    std::string text;
    for (const HostCall &c : calls) {
        text += c.name + "(";
        for (size_t i = 0; i < c.arguments.size(); ++i)
            text += (i ? ", " : "") + std::to_string(c.arguments[i]);
        text += ") ";
    }
    return text;
}

// In the child: the host saw exactly `expected` since its log entry `first`.
void checkHostSaw(uint32_t first, const std::vector<HostCall> &expected, int line) {
    std::vector<HostCall> seen;
    KvthCall call;
    for (uint32_t i = first; kvth_log_entry(i, &call); ++i)
        seen.push_back({kvth_function_name(call.id),
                        std::vector<uint64_t>(call.arguments, call.arguments + call.argumentCount)});
    if (seen != expected)
        childFailure(__FILE__, line, "the host saw " + describe(seen) + "; expected " + describe(expected));
}

} // namespace

// ---- Pass-through -----------------------------------------------------------------------------

class PassThrough : public FreshProcessTest {};

TEST_F(PassThrough, DisabledLibraryForwardsCallsUntouchedAndRecordsNothing) {
    LibraryConfig config = recording(testHostPath());
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
        // The host saw the calls as they were made, and no error query after any...
        checkHostSaw(
            0,
            {{"eglGetDisplay", {0}},
             {"eglQueryString", {0xD15, EGL_VENDOR}},
             {"eglSwapInterval", {0xD15, 2}},
             {"glCheckFramebufferStatus", {GL_FRAMEBUFFER}},
             {"glGetString", {GL_VENDOR}},
             {"glEnable", {GL_BLEND}},
             {"glUniform4f", {3, kv::toSlot(0.25f), kv::toSlot(-1.5f), kv::toSlot(2.0f), kv::toSlot(1e-3f)}}},
            __LINE__);
        // ...so the errors are still the host's to report.
        KVTH_CHILD_CHECK_EQ(static_cast<GLenum>(GL_INVALID_ENUM), gles::getError());
        KVTH_CHILD_CHECK_EQ(EGL_BAD_SURFACE, egl::getError());
    });
    EXPECT_EQ("", readText(workPath("trace.kalvoren")));
}

// ---- Errors while recording -------------------------------------------------------------------

class RecordedErrors : public FreshProcessTest {};

TEST_F(RecordedErrors, AreRecordedWithTheCallAndStillReportedToTheApplication) {
    useConfig(recording(testHostPath()));
    KVTH_EXPECT_CHILD_PASSES([] {
        CurrentContext c = makeContextCurrent();
        kvth_raise_error_on("glEnable", GL_INVALID_ENUM);
        kvth_set_result("eglSwapInterval", EGL_FALSE);
        kvth_raise_error_on("eglSwapInterval", EGL_BAD_SURFACE);
        const uint32_t first = kvth_log_size();
        gles::enable(GL_BLEND);
        KVTH_CHILD_CHECK(egl::swapInterval(c.display, 1) == EGL_FALSE);
        // Each wrapper took the error from the host right after its call...
        checkHostSaw(first,
                     {{"glEnable", {GL_BLEND}},
                      {"glGetError", {}},
                      {"eglSwapInterval", {0xD15, 1}},
                      {"eglGetError", {}}},
                     __LINE__);
        // ...and the application still gets each, once.
        KVTH_CHILD_CHECK_EQ(static_cast<GLenum>(GL_INVALID_ENUM), gles::getError());
        KVTH_CHILD_CHECK_EQ(static_cast<GLenum>(GL_NO_ERROR), gles::getError());
        KVTH_CHILD_CHECK_EQ(EGL_BAD_SURFACE, egl::getError());
        KVTH_CHILD_CHECK_EQ(EGL_SUCCESS, egl::getError());
    });

    const Trace t = readTrace();
    ASSERT_EQ("", t.problems);
    EXPECT_EQ(kv::reader::Ending::EndMarker, t.ending);
    // Making the context current went without an error, the library's own queries included.
    for (uint16_t id :
         {kv::fn::eglGetDisplay::id, kv::fn::eglInitialize::id, kv::fn::eglChooseConfig::id,
          kv::fn::eglCreateContext::id, kv::fn::eglCreatePbufferSurface::id, kv::fn::eglMakeCurrent::id}) {
        ASSERT_EQ(1u, t.withId(id).size()) << "id " << id;
        EXPECT_EQ(static_cast<uint32_t>(EGL_SUCCESS), t.withId(id)[0]->error) << "id " << id;
    }
    const auto enables = t.withId(kv::fn::glEnable::id);
    ASSERT_EQ(1u, enables.size());
    EXPECT_EQ(static_cast<uint32_t>(GL_INVALID_ENUM), enables[0]->error);
    EXPECT_EQ(static_cast<uint64_t>(GL_BLEND), enables[0]->args.at(0).value);
    // The application's queries have no error of their own; the first answered the pending one.
    const auto glQueries = t.withId(kv::fn::glGetError::id);
    ASSERT_EQ(2u, glQueries.size());
    EXPECT_EQ(0u, glQueries[0]->error + glQueries[1]->error);
    EXPECT_EQ(static_cast<uint64_t>(GL_INVALID_ENUM), glQueries[0]->result);
    EXPECT_EQ(static_cast<uint64_t>(GL_NO_ERROR), glQueries[1]->result);
    const auto swaps = t.withId(kv::fn::eglSwapInterval::id);
    ASSERT_EQ(1u, swaps.size());
    EXPECT_EQ(static_cast<uint32_t>(EGL_BAD_SURFACE), swaps[0]->error);
    const auto eglQueries = t.withId(kv::fn::eglGetError::id);
    ASSERT_EQ(3u, eglQueries.size()); // one while making the context current
    EXPECT_EQ(static_cast<uint32_t>(EGL_SUCCESS), eglQueries[1]->error);
    EXPECT_EQ(static_cast<uint64_t>(EGL_BAD_SURFACE), eglQueries[1]->result);
    EXPECT_EQ(static_cast<uint64_t>(EGL_SUCCESS), eglQueries[2]->result);
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
        LibraryConfig config = recording(c.eglHost);
        config.es2Host = c.es2Host;
        useConfig(config);
        EXPECT_EXIT(inChild(c.call), exitedWithMinusOne, "") << c.name;
        EXPECT_EQ(1u, countOf(childConsole(),
                              "FATAL ERROR: Kalvoren - ERROR: attempted to recursively load trace DLL."))
            << c.name << ": " << childConsole();
    }
}

// ---- Every wrapper ----------------------------------------------------------------------------

class EveryWrapper : public FreshProcessTest {
protected:
    // Runs the calls in a process recording every frame; every record then decodes by its
    // function's layout, with no byte missing or left over, and every entry point left one.
    void runAndReadBack(void (*calls)()) {
        useConfig(recording(testHostPath(), 1000000));
        KVTH_EXPECT_CHILD_PASSES(calls);
        const Trace t = readTrace();
        ASSERT_TRUE(t.opened) << t.problems;
        EXPECT_EQ("", t.problems);
        EXPECT_EQ(kv::reader::Ending::EndMarker, t.ending) << kv::reader::endingText(t.ending);
        std::set<uint16_t> recorded;
        for (const kv::reader::Entry &e : t.calls)
            recorded.insert(e.id);
        std::string missing;
        for (auto [entries, count] : {std::make_pair(kvth::kGlesEntries, kvth::kGlesEntryCount),
                                      std::make_pair(kvth::kEglEntries, kvth::kEglEntryCount)})
            for (uint32_t i = 0; i < count; ++i)
                if (!recorded.count(entries[i].id)) missing += std::string(" ") + entries[i].name;
        EXPECT_EQ("", missing) << "not recorded";
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

// ---- Client arrays ------------------------------------------------------------------------------

class ClientArrays : public FreshProcessTest {};

constexpr uint32_t kPacked = 1; // the tightly packed attribute
constexpr uint32_t kLow = 0;    // the strided attribute at a low address

// The attributes (index -> the bytes recorded) of each call `id` of the trace, and their pointers.
std::vector<std::map<uint32_t, std::vector<uint8_t>>> drawnAttributes(const Trace &t, uint16_t id,
                                                                      std::vector<uint64_t> *pointers) {
    std::vector<std::map<uint32_t, std::vector<uint8_t>>> draws;
    for (const kv::reader::Entry *e : t.withId(id)) {
        draws.emplace_back();
        for (const kv::reader::Part &part : e->parts) {
            if (part.kind != kv::reader::Part::Kind::Attribute) continue;
            draws.back()[part.index] = blockBytes(*e, part.block);
            if (pointers) pointers->push_back(part.pointer);
        }
    }
    return draws;
}

TEST_F(ClientArrays, UnreadableArraysAreReportedAndTheProcessLives) {
    useConfig(recording(testHostPath()));
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
        // Instancing is decided per attribute: the low address is reported in an instanced draw
        // too; an instance count of 0 draws nothing and reads nothing.
        gles::disableVertexAttribArray(kPacked);
        gles::drawArraysInstanced(GL_TRIANGLES, 0, 3, 4);
        gles::drawArraysInstanced(GL_TRIANGLES, 0, 3, 0);
    });
    const std::string console = childConsole();
    EXPECT_EQ(3u, countOf(console, "VertexAttribPointer data is inaccessible at address 0x100.")) << console;
    EXPECT_EQ(2u, countOf(console, "Failed to save all the VertexAttribPointer data due to a crash"))
        << console;

    const Trace t = readTrace();
    EXPECT_EQ("", t.problems);
    std::vector<uint64_t> pointers;
    auto draws = drawnAttributes(t, kv::fn::glDrawArrays::id, &pointers);
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
    auto indexed = drawnAttributes(t, kv::fn::glDrawElements::id, nullptr);
    ASSERT_EQ(1u, indexed.size());
    EXPECT_TRUE(indexed[0].empty());
}

// A record that cannot be made (memory runs out while a draw's arrays are gathered) is dropped
// whole: the call returns to the application, the recording lock is free, and other threads record.
TEST_F(ClientArrays, ARecordThatRunsOutOfMemoryIsDroppedAndTheLockFreed) {
    // (An unlimited address space is no change; a system without the limit skips the test.)
    if (!kv::test::limitAddressSpace(~0ull)) GTEST_SKIP() << "no address-space limit on this system";
    useConfig(recording(testHostPath()));
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
    EXPECT_EQ(1u, countOf(childConsole(), "glDrawArrays could not be recorded (out of memory"))
        << childConsole();
    const Trace t = readTrace();
    EXPECT_EQ("", t.problems);
    EXPECT_EQ(2u, t.withId(kv::fn::glClear::id).size());
}

// ---- A process that crashes ------------------------------------------------------------------

class Crash : public FreshProcessTest {};

void crashHere(volatile int *where) {
    *where = 1;
}

// A fault that nothing of the application handles ends the process as it would untraced (SIGSEGV;
// on Windows the unhandled-exception path), and the trace file is cut to exactly its records first.
TEST_F(Crash, AnUnhandledFaultLeavesATraceOfExactlyItsRecords) {
    useConfig(recording(testHostPath()));
    EXPECT_EXIT(
        inChild([] {
            makeContextCurrent();
            for (int i = 0; i < 50; ++i)
                gles::clear(GL_COLOR_BUFFER_BIT);
            static volatile int *nowhere = nullptr;
            crashHere(nowhere);
        }),
        [](int status) { return status != 0; }, "");
    const Trace t = readTrace();
    EXPECT_EQ("", t.problems);
    EXPECT_EQ(kv::reader::Ending::EndOfFile, t.ending) << kv::reader::endingText(t.ending);
    EXPECT_EQ(50u, t.withId(kv::fn::glClear::id).size());
}

// ---- Answers the library changes --------------------------------------------------------------

class Overrides : public FreshProcessTest {};

TEST_F(Overrides, ExtensionListsAndQueriesAnswerWhatTheConfigurationAsks) {
    LibraryConfig config = recording(testHostPath());
    config.internal = "\"DisableExtensionList\": \"GL_OES_texture_npot;GL_KHR\"";
    config.tracing = "\"UniformBufferOffsetAlignment\": 256";
    useConfig(config);
    KVTH_EXPECT_CHILD_PASSES([] {
        makeContextCurrent();
        // Without a replacement the host's own pointer comes back.
        KVTH_CHILD_CHECK(reinterpret_cast<const char *>(gles::getString(GL_VENDOR)) ==
                         kvth_gl_string(GL_VENDOR));
        // Whole names only: "GL_KHR" does not take GL_KHR_debug with it; the indexed names agree.
        const char *extensions = reinterpret_cast<const char *>(gles::getString(GL_EXTENSIONS));
        KVTH_CHILD_CHECK(extensions && std::string(extensions) ==
                                           "GL_OES_element_index_uint GL_EXT_texture_format_BGRA8888 "
                                           "GL_KHR_debug");
        GLint value = 7;
        gles::getIntegerv(GL_NUM_EXTENSIONS, &value);
        KVTH_CHILD_CHECK_EQ(3, value);
        KVTH_CHILD_CHECK(std::string(reinterpret_cast<const char *>(gles::getStringi(GL_EXTENSIONS, 1))) ==
                         "GL_EXT_texture_format_BGRA8888");
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
