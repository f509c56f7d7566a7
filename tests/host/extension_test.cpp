// Extension functions and the rest of what eglGetProcAddress hands out, with the test host as the
// driver: the wrappers' admission (context, support flags), functions the host lacks, stubs of
// functions the library does not know, missing host functions, the blob cache, client buffers,
// the element buffer of indexed draws and pixel pack buffers.
#include "core/functions_autogen.h"
#include "tests/host/current_context.h"
#include "platform/process.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

using namespace kvth::test;

namespace {

constexpr uint16_t kUnknownGlCall = 4000, kUnknownEglCall = 1000;
constexpr uint16_t kMapBufferOES = 4004, kBindVertexArrayOES = 4007;
constexpr uint16_t kClientBufferCreation = 1500, kClientBufferUpdate = 1501;

LibraryConfig recording(const std::string &host = testHostPath()) {
    return kvth::test::recording(host, 0xFFFFFFFFu);
}

template <class F>
F proc(const char *name) {
    return reinterpret_cast<F>(egl::getProcAddress(name));
}

class Extensions : public FreshProcessTest {
protected:
    void SetUp() override {
        FreshProcessTest::SetUp();
        kv::platform::setEnv("KALVOREN_DEBUG_LOG", workPath("debugger.log"));
    }
};

// ---- Wrappers of extension functions ----------------------------------------------------------

TEST_F(Extensions, WrappersSkipCallsWithoutAContextOrTheExtension) {
    useConfig(recording());
    KVTH_EXPECT_CHILD_PASSES([] {
        // GL_OES_mapbuffer only as the start of a longer name; GL_OES_vertex_array_object whole.
        kvth_set_gl_extensions("GL_OES_mapbuffer_extra GL_KHR_debug GL_OES_vertex_array_object");
        auto mapBuffer = proc<PFNGLMAPBUFFEROESPROC>("glMapBufferOES");
        auto bindVertexArray = proc<PFNGLBINDVERTEXARRAYOESPROC>("glBindVertexArrayOES");
        KVTH_CHILD_CHECK(mapBuffer && bindVertexArray);
        KVTH_CHILD_CHECK(reinterpret_cast<void *>(mapBuffer) != kvth_function_address("glMapBufferOES"));

        // No current context: nothing reaches the host.
        bindVertexArray(3);
        KVTH_CHILD_CHECK_EQ(0u, kvth_call_count("glBindVertexArrayOES"));

        makeContextCurrent();
        static const float vertices[9] = {};
        gles::enableVertexAttribArray(0);
        gles::vertexAttribPointer(0, 3, GL_FLOAT, GL_FALSE, 0, vertices);
        bindVertexArray(4);
        KVTH_CHILD_CHECK_EQ(1u, kvth_call_count("glBindVertexArrayOES"));
        KVTH_CHILD_CHECK(mapBuffer(GL_ARRAY_BUFFER, GL_WRITE_ONLY_OES) == nullptr);
        KVTH_CHILD_CHECK_EQ(0u, kvth_call_count("glMapBufferOES"));
        // The alias of a core function keeps the shadow state as the core function does: with
        // vertex array 4 bound the draw reads no client array, with the default one it does.
        gles::drawArrays(GL_TRIANGLES, 0, 3);
        bindVertexArray(0);
        gles::drawArrays(GL_TRIANGLES, 0, 3);
    });
    const std::string console = childConsole();
    EXPECT_EQ(1u, countOf(console, "Unable to record glBindVertexArrayOES as we failed to get the context"))
        << console;
    // The debugger channel is a file on POSIX; Windows has none to read back.
    const std::string log = readText(workPath("debugger.log"));
    if (!log.empty()) {
        EXPECT_EQ(1u,
                  countOf(log, "Unable to record glMapBufferOES as extension GL_OES_mapbuffer is unsupported "
                               "by the current context"))
            << log;
    }
    const Trace r = readTrace();
    EXPECT_EQ("", r.problems);
    ASSERT_EQ(2u, r.withId(kBindVertexArrayOES).size());
    EXPECT_EQ(4u, arg(*r.withId(kBindVertexArrayOES)[0], "array").value);
    EXPECT_TRUE(r.withId(kMapBufferOES).empty());
    auto draws = r.withId(kv::fn::glDrawArrays::id);
    ASSERT_EQ(2u, draws.size());
    EXPECT_TRUE(draws[0]->parts.empty());
    ASSERT_EQ(1u, draws[1]->parts.size());
    EXPECT_EQ(36u, draws[1]->parts[0].count);
}

TEST_F(Extensions, AFunctionTheHostLacksIsNotOffered) {
    useConfig(recording(noExtensionHostPath()));
    KVTH_EXPECT_CHILD_PASSES([] {
        KVTH_CHILD_CHECK(egl::getProcAddress("glMapBufferOES") == nullptr);
        KVTH_CHILD_CHECK(egl::getProcAddress("glNoSuchFunctionKVTH") == nullptr);
        KVTH_CHILD_CHECK(egl::getProcAddress("glBindBuffer") != nullptr);
    });
}

// ---- Functions the library does not know -------------------------------------------------------

using UnknownGl = GLuint(KV_APIENTRY *)(GLint, GLfloat, GLint, GLint, GLint, GLint, GLint, GLint, GLint,
                                        GLint, GLdouble, GLint);
using UnknownEgl = EGLBoolean(KV_APIENTRY *)(EGLDisplay, EGLint);

TEST_F(Extensions, UnknownFunctionsGetOneStubPerNameAndAreRecordedByName) {
    useConfig(recording());
    KVTH_EXPECT_CHILD_PASSES([] {
        CurrentContext c = makeContextCurrent();
        auto gl = proc<UnknownGl>("glKvthUnknownEXT");
        auto egl = proc<UnknownEgl>("eglKvthUnknownEXT");
        KVTH_CHILD_CHECK(gl && egl);
        KVTH_CHILD_CHECK(reinterpret_cast<void *>(gl) == egl::getProcAddress("glKvthUnknownEXT"));
        KVTH_CHILD_CHECK(reinterpret_cast<void *>(gl) != reinterpret_cast<void *>(egl));
        // More integer and floating-point arguments than there are registers for them.
        KVTH_CHILD_CHECK_EQ(1u + 2 + 3 + 4 + 5 + 6 + 7 + 8 + 9 + 10 + 2 + 40,
                            gl(1, 2.5f, 2, 3, 4, 5, 6, 7, 8, 9, 40.75, 10));
        int64_t integers[10];
        double floats[2];
        kvth_unknown_arguments(integers, floats);
        KVTH_CHILD_CHECK_EQ(10, integers[9]);
        KVTH_CHILD_CHECK(floats[0] == 2.5 && floats[1] == 40.75);
        KVTH_CHILD_CHECK(egl(c.display, 7) == EGL_TRUE);
    });
    EXPECT_EQ(1u, countOf(childConsole(), "Use of extension function 'glKvthUnknownEXT' will be partially "
                                          "recorded as Kalvoren is missing support"));
    const Trace r = readTrace();
    EXPECT_EQ("", r.problems);
    auto gl = r.withId(kUnknownGlCall);
    ASSERT_EQ(1u, gl.size());
    EXPECT_EQ("glKvthUnknownEXT", gl[0]->calledName);
    EXPECT_EQ(static_cast<uint64_t>(1 + 2 + 3 + 4 + 5 + 6 + 7 + 8 + 9 + 10 + 2 + 40),
              arg(*gl[0], "result").value);
    std::vector<uint8_t> words = blockBytes(*gl[0], arg(*gl[0], "integerArguments").block);
    ASSERT_GE(words.size(), 16u);
    EXPECT_EQ(1u, words[0]);
    auto egl = r.withId(kUnknownEglCall);
    ASSERT_EQ(1u, egl.size());
    EXPECT_EQ("eglKvthUnknownEXT", egl[0]->calledName);
    EXPECT_EQ(static_cast<uint32_t>(EGL_SUCCESS), egl[0]->error);
}

// ---- Host functions that are missing -----------------------------------------------------------

TEST_F(Extensions, AMissingHostFunctionIsAnsweredWithAMessageOnce) {
    useConfig(recording(egl11HostPath()));
    KVTH_EXPECT_CHILD_PASSES([] {
        CurrentContext c = makeContextCurrent();
        KVTH_CHILD_CHECK(egl::createSync(c.display, EGL_SYNC_FENCE, nullptr) == EGL_NO_SYNC);
        KVTH_CHILD_CHECK(egl::createSync(c.display, EGL_SYNC_FENCE, nullptr) == EGL_NO_SYNC);
        KVTH_CHILD_CHECK(egl::swapInterval(c.display, 0) == EGL_TRUE);
    });
    EXPECT_EQ(1u, countOf(childConsole(), "The host library has no eglCreateSync")) << childConsole();
}

// ---- The blob cache ----------------------------------------------------------------------------

TEST_F(Extensions, TheBlobCacheIsWithheldFromTheDriverUnlessAllowed) {
    for (bool disable : {true, false}) {
        SCOPED_TRACE(disable ? "DisableBlobCache" : "blob cache allowed");
        LibraryConfig config = recording();
        config.internal = disable ? "" : "\"DisableBlobCache\": false";
        useConfig(config);
        KVTH_EXPECT_CHILD_PASSES([disable] {
            CurrentContext c = makeContextCurrent();
            auto setFuncs = proc<PFNEGLSETBLOBCACHEFUNCSANDROIDPROC>("eglSetBlobCacheFuncsANDROID");
            KVTH_CHILD_CHECK(setFuncs != nullptr);
            setFuncs(c.display, handle<EGLSetBlobFuncANDROID>(0x5E7), handle<EGLGetBlobFuncANDROID>(0x6E7));
            KVTH_CHILD_CHECK_EQ(disable ? 0u : 1u, kvth_call_count("eglSetBlobCacheFuncsANDROID"));
        });
        const Trace r = readTrace();
        EXPECT_EQ(1u, r.withId(kv::fn::eglSetBlobCacheFuncsANDROID::id).size());
    }
}

// ---- Client buffers ----------------------------------------------------------------------------

TEST_F(Extensions, ClientBufferContentsAreRecordedAtCreationAndWhenTheyChange) {
    LibraryConfig config = recording();
    config.tracing = "\"ClientBufferRecordFrequency\": 1";
    useConfig(config);
    KVTH_EXPECT_CHILD_PASSES([] {
        CurrentContext c = makeContextCurrent();
        kvth_set_surface_size(4, 2);
        kvth_set_result("glCheckFramebufferStatus", GL_FRAMEBUFFER_COMPLETE);
        kvth_set_result("eglCreateImageKHR", 0x1A6E);
        kvth_set_pixel_seed(10);
        // An image of a native pixmap (a client buffer), and one of a texture (not one).
        egl::createImageKHR(c.display, EGL_NO_CONTEXT, EGL_NATIVE_PIXMAP_KHR, handle<EGLClientBuffer>(0xB0F),
                            nullptr);
        kvth_set_result("eglCreateImageKHR", 0x1A6F);
        egl::createImageKHR(c.display, c.context, EGL_GL_TEXTURE_2D_KHR, handle<EGLClientBuffer>(5), nullptr);
        egl::swapBuffers(c.display, c.surface); // unchanged: nothing
        kvth_set_pixel_seed(20);
        egl::swapBuffers(c.display, c.surface); // changed: an update
        kvth_set_result("eglDestroyImageKHR", EGL_TRUE);
        egl::destroyImageKHR(c.display, handle<EGLImageKHR>(0x1A6E));
        kvth_set_pixel_seed(30);
        egl::swapBuffers(c.display, c.surface); // gone: nothing
    });
    const Trace r = readTrace();
    EXPECT_EQ("", r.problems);
    auto created = r.withId(kClientBufferCreation);
    ASSERT_EQ(1u, created.size());
    EXPECT_EQ(0x1A6Eu, arg(*created[0], "image").value);
    EXPECT_EQ(static_cast<uint64_t>(EGL_NATIVE_PIXMAP_KHR), arg(*created[0], "target").value);
    EXPECT_EQ(4u, arg(*created[0], "width").value);
    EXPECT_EQ(2u, arg(*created[0], "height").value);
    std::vector<uint8_t> pixels = blockBytes(*created[0], arg(*created[0], "pixels").block);
    ASSERT_EQ(32u, pixels.size());
    EXPECT_EQ(10u, pixels[0]);
    EXPECT_EQ(41u, pixels[31]);
    auto updates = r.withId(kClientBufferUpdate);
    ASSERT_EQ(1u, updates.size());
    EXPECT_EQ(20u, blockBytes(*updates[0], arg(*updates[0], "pixels").block).at(0));
}

// ---- Indexed draws -----------------------------------------------------------------------------

// The element buffer an indexed draw reads is the one the driver has bound, even when the library
// saw it unbound.
TEST_F(Extensions, IndexedDrawsTakeTheElementBufferFromTheDriver) {
    useConfig(recording());
    KVTH_EXPECT_CHILD_PASSES([] {
        makeContextCurrent();
        static const uint16_t indices[3] = {0, 1, 2};
        gles::bindBuffer(GL_ELEMENT_ARRAY_BUFFER, 7);
        gles::bufferData(GL_ELEMENT_ARRAY_BUFFER, sizeof(indices), indices, GL_STATIC_DRAW);
        gles::bindBuffer(GL_ELEMENT_ARRAY_BUFFER, 0);
        kvth_set_integer(GL_ELEMENT_ARRAY_BUFFER_BINDING, 7); // the driver's own word
        static const float vertices[12] = {};
        gles::enableVertexAttribArray(0);
        gles::vertexAttribPointer(0, 3, GL_FLOAT, GL_FALSE, 0, vertices);
        gles::drawElements(GL_TRIANGLES, 3, GL_UNSIGNED_SHORT, nullptr);
    });
    EXPECT_EQ(0u, countOf(childConsole(), "VertexAttribPointer data is inaccessible")) << childConsole();
    const Trace r = readTrace();
    EXPECT_EQ("", r.problems);
    auto draws = r.withId(kv::fn::glDrawElements::id);
    ASSERT_EQ(1u, draws.size());
    ASSERT_EQ(2u, draws[0]->parts.size());
    EXPECT_EQ(kv::reader::Part::Kind::Indices, draws[0]->parts[0].kind);
    EXPECT_EQ(0u, draws[0]->parts[0].count); // in the buffer: no index bytes
    // The largest index, 2, from the recorder's copy of buffer 7: three vertices.
    EXPECT_EQ(kv::reader::Part::Kind::Attribute, draws[0]->parts[1].kind);
    EXPECT_EQ(36u, draws[0]->parts[1].count);
}

// ---- Pixel buffers -----------------------------------------------------------------------------

// A pointer into a bound pixel pack buffer is recorded as the offset alone, until deleting the
// buffer unbinds it. (Unpack buffers: the fidelity program of tests/integration.)
TEST_F(Extensions, PixelPackBufferOffsetsAreRecordedAsValues) {
    useConfig(recording());
    KVTH_EXPECT_CHILD_PASSES([] {
        makeContextCurrent();
        static uint8_t texels[4 * 4 * 4];
        gles::bindBuffer(GL_PIXEL_PACK_BUFFER, 6);
        gles::readPixels(0, 0, 4, 4, GL_RGBA, GL_UNSIGNED_BYTE, handle<void *>(0x80));
        const GLuint gone = 6;
        gles::deleteBuffers(1, &gone);
        gles::readPixels(0, 0, 4, 4, GL_RGBA, GL_UNSIGNED_BYTE, texels);
    });
    const Trace r = readTrace();
    EXPECT_EQ("", r.problems);
    auto reads = r.withId(kv::fn::glReadPixels::id);
    ASSERT_EQ(2u, reads.size());
    EXPECT_EQ(0x80u, arg(*reads[0], "pixels").value);
    EXPECT_FALSE(arg(*reads[0], "pixels").hasCount);
    EXPECT_EQ(64u, arg(*reads[1], "pixels").count);
}

} // namespace
