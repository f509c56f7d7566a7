// The shadow state as the OpenGL ES hooks keep it: each hook is run as the wrapper runs it after an
// accepted host call, on a context made current in the EGL state (no driver involved), plus the
// context records themselves (version codes, share groups). Only the rules a real program would
// rarely reach are here: the snapshot programs of tests/integration (replay_test.sh late) start
// traces late and replay them to the pixels they drew, which checks the ordinary state as a whole.
#include "entry/hooks.h"
#include "state/context_state.h"
#include "state/egl_state.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

namespace kv {
namespace {

// An address no process has mapped: reading it faults.
const void *const kUnreadable = reinterpret_cast<const void *>(uintptr_t(16));

using Resources = CEs2ContextState::SEs2Resources;

class StateHooks : public ::testing::Test {
protected:
    void SetUp() override { makeCurrent(3, 0, EGL_OPENGL_ES3_BIT_KHR | EGL_OPENGL_ES2_BIT); }
    void TearDown() override { release(); }

    void makeCurrent(EGLint major, EGLint minor, EGLint renderable) {
        release();
        static uintptr_t next = 0;
        context_ = reinterpret_cast<EGLContext>(0x5ca1e000u + ++next);
        const EGLint attributes[] = {EGL_CONTEXT_CLIENT_VERSION, major, EGL_CONTEXT_MINOR_VERSION_KHR, minor,
                                     EGL_NONE};
        record_ = egl::addContext(display(), nullptr, EGL_NO_CONTEXT, context_, attributes,
                                  {EGL_RENDERABLE_TYPE, renderable, EGL_NONE});
        egl::threadState().current = record_;
    }
    void release() {
        if (!record_) return;
        egl::threadState().current = nullptr;
        egl::removeContext(display(), context_);
        record_.reset();
    }
    static EGLDisplay display() { return reinterpret_cast<EGLDisplay>(uintptr_t(0x5ca1d000)); }

    CEs2ContextState &state() { return *record_->es2; }
    Resources &shared() { return state().shared(); }

    // The hook of F after a call the driver accepted.
    template <class F, class... A>
    static void call(A... args) {
        CallCtx c;
        c.d.callHost = true;
        Void nothing;
        Hooks<F>::after(c, nothing, args...);
    }

    EGLContext context_ = EGL_NO_CONTEXT;
    std::shared_ptr<egl::ContextRecord> record_;
};

TEST_F(StateHooks, OnlyAnAcceptedHostCallChangesState) {
    CallCtx rejected;
    rejected.d.callHost = true;
    rejected.failed = true;
    CallCtx notCalled; // the snapshot's own calls, recorded without reaching the host
    Void nothing;
    Hooks<fn::glBindBuffer>::after(rejected, nothing, GL_ARRAY_BUFFER, 4);
    Hooks<fn::glBindBuffer>::after(notCalled, nothing, GL_ARRAY_BUFFER, 5);
    EXPECT_EQ(0u, state().bufferBinding(GL_ARRAY_BUFFER));
    EXPECT_TRUE(shared().buffers.empty());

    call<fn::glBindBuffer>(GL_ARRAY_BUFFER, 6);
    EXPECT_EQ(6u, state().bufferBinding(GL_ARRAY_BUFFER));

    // No current context: the call goes on without a state to update.
    egl::threadState().current = nullptr;
    call<fn::glBindBuffer>(GL_ARRAY_BUFFER, 7);
    call<fn::glUniform1f>(0, 1.0f);
    egl::threadState().current = record_;
    EXPECT_EQ(6u, state().bufferBinding(GL_ARRAY_BUFFER));
}

TEST_F(StateHooks, PixelStoreRowLengthIsIgnoredOnEs2) {
    makeCurrent(2, 0, EGL_OPENGL_ES2_BIT);
    ASSERT_EQ(2u, state().apiVersion());
    call<fn::glPixelStorei>(GL_UNPACK_ROW_LENGTH, 8);
    call<fn::glPixelStorei>(GL_PACK_ALIGNMENT, 2);
    EXPECT_EQ(0, state().pixelStore(GL_UNPACK_ROW_LENGTH));
    EXPECT_EQ(2, state().pixelStore(GL_PACK_ALIGNMENT));

    makeCurrent(3, 0, EGL_OPENGL_ES3_BIT_KHR);
    call<fn::glPixelStorei>(GL_UNPACK_ROW_LENGTH, 8);
    EXPECT_EQ(8, state().pixelStore(GL_UNPACK_ROW_LENGTH));
}

TEST_F(StateHooks, ElementArrayBindingFollowsTheVertexArrayObject) {
    GLuint arrays[1] = {5};
    call<fn::glBindBuffer>(GL_ELEMENT_ARRAY_BUFFER, 3);
    call<fn::glGenVertexArrays>(1, arrays);
    EXPECT_EQ(1u, state().vaos.count(5));
    call<fn::glBindVertexArray>(5);
    call<fn::glBindBuffer>(GL_ELEMENT_ARRAY_BUFFER, 7);
    EXPECT_EQ(7u, state().vaos.at(5).elementArrayBuffer);
    EXPECT_EQ(3u, state().vaos.at(0).elementArrayBuffer);
    call<fn::glBindVertexArray>(0);
    EXPECT_EQ(3u, state().bufferBinding(GL_ELEMENT_ARRAY_BUFFER));

    // Deleting name 0 with the others keeps VAO 0 and what it holds.
    const GLuint doomed[] = {0, 5};
    call<fn::glDeleteVertexArrays>(2, doomed);
    EXPECT_EQ(0u, state().vaos.count(5));
    ASSERT_EQ(1u, state().vaos.count(0));
    EXPECT_EQ(3u, state().vaos.at(0).elementArrayBuffer);
}

TEST_F(StateHooks, BindingFramebufferZeroUnbindsBothAndMakesNoRecord) {
    call<fn::glBindFramebuffer>(GL_READ_FRAMEBUFFER, 2);
    call<fn::glBindFramebuffer>(GL_DRAW_FRAMEBUFFER, 3);
    call<fn::glBindFramebuffer>(GL_FRAMEBUFFER, 0);
    EXPECT_EQ(0u, state().readFramebuffer);
    EXPECT_EQ(0u, state().drawFramebuffer);
    EXPECT_EQ(0u, state().framebuffers.count(0));
}

TEST_F(StateHooks, VertexAttribPointerKeepsClientPointerOrOffset) {
    static const float vertices[12] = {};
    call<fn::glVertexAttribPointer>(0, 3, GL_FLOAT, GL_FALSE, 0, vertices);
    const BindingRecord &client = state().currentVao().bindings.at(0);
    EXPECT_EQ(12u, client.stride);
    EXPECT_EQ(static_cast<const void *>(vertices), client.clientPointer);
    EXPECT_EQ(0u, client.offset);

    call<fn::glBindBuffer>(GL_ARRAY_BUFFER, 9);
    call<fn::glVertexAttribIPointer>(1, 2, GL_UNSIGNED_SHORT, 0,
                                     reinterpret_cast<const void *>(uintptr_t(24)));
    const BindingRecord &buffered = state().currentVao().bindings.at(1);
    EXPECT_EQ(4u, buffered.stride);
    EXPECT_EQ(9u, buffered.buffer);
    EXPECT_EQ(24u, buffered.offset);
    EXPECT_EQ(nullptr, buffered.clientPointer);
    EXPECT_EQ(1u, state().currentVao().attributes.at(1).integer);

    call<fn::glVertexAttribPointer>(2, 4, 0x9999, GL_FALSE, 0, vertices);
    EXPECT_EQ(0u, state().currentVao().bindings.at(2).stride);

    call<fn::glEnableVertexAttribArray>(0);
    EXPECT_TRUE(state().currentVao().attributes.at(0).enabled);
    call<fn::glVertexAttribDivisor>(0, 3);
    EXPECT_EQ(3u, state().currentVao().bindings.at(0).divisor);
}

TEST_F(StateHooks, PipelineSettings) {
    call<fn::glPolygonOffset>(32824.0f, 2.0f);
    call<fn::glPolygonOffset>(10752.0f, 4.0f);
    call<fn::glPolygonOffset>(1.0f, 1.0f);
    EXPECT_EQ(2.0f, state().polygonOffset[0]);
    EXPECT_EQ(4.0f, state().polygonOffset[1]);

    call<fn::glBlendEquationSeparate>(GL_FUNC_ADD, GL_MAX);
    call<fn::glBlendEquation>(GL_FUNC_SUBTRACT);
    EXPECT_EQ(0u, state().blendEquationSeparate);
    EXPECT_EQ(static_cast<GLenum>(GL_FUNC_SUBTRACT), state().blendEquationRgb);
    EXPECT_EQ(static_cast<GLenum>(GL_MAX), state().blendEquationAlpha);
    call<fn::glBlendFunc>(GL_SRC_ALPHA, GL_ONE);
    EXPECT_EQ(static_cast<GLenum>(GL_SRC_ALPHA), state().blendSrcAlpha);
    EXPECT_EQ(static_cast<GLenum>(GL_ONE), state().blendDstAlpha);

    call<fn::glStencilFuncSeparate>(GL_BACK, GL_NEVER, 4, 0x1);
    call<fn::glStencilOpSeparate>(GL_FRONT, GL_REPLACE, GL_KEEP, GL_INCR_WRAP);
    call<fn::glStencilMaskSeparate>(GL_FRONT_AND_BACK, 0x2);
    EXPECT_EQ(static_cast<GLenum>(GL_ALWAYS), state().stencilFunc[0]);
    EXPECT_EQ(static_cast<GLenum>(GL_NEVER), state().stencilFunc[1]);
    EXPECT_EQ(static_cast<GLenum>(GL_REPLACE), state().stencilFail[0]);
    EXPECT_EQ(static_cast<GLenum>(GL_KEEP), state().stencilFail[1]);
    EXPECT_EQ(0x2u, state().stencilWriteMask[0]);
    EXPECT_EQ(0x2u, state().stencilWriteMask[1]);
    call<fn::glStencilFunc>(GL_LEQUAL, 1, 0xFF);
    EXPECT_EQ(static_cast<GLenum>(GL_LEQUAL), state().stencilFunc[0]);
    EXPECT_EQ(static_cast<GLenum>(GL_LEQUAL), state().stencilFunc[1]);

    call<fn::glEnable>(GL_CULL_FACE);
    call<fn::glDisable>(GL_DITHER);
    call<fn::glHint>(GL_GENERATE_MIPMAP_HINT, GL_NICEST);
    call<fn::glHint>(GL_TEXTURE_2D, GL_NICEST); // not a hint
    EXPECT_TRUE(state().capabilities.at(GL_CULL_FACE));
    EXPECT_FALSE(state().capabilities.at(GL_DITHER));
    EXPECT_EQ(GL_NICEST, state().hints[0].value);
    EXPECT_EQ(GL_DONT_CARE, state().hints[1].value);

    call<fn::glColorMask>(GL_TRUE, GL_FALSE, GL_TRUE, GL_FALSE);
    call<fn::glDepthRangef>(0.25f, 0.75f);
    call<fn::glScissor>(1, 2, 3, 4);
    call<fn::glSampleCoverage>(0.5f, GL_TRUE);
    EXPECT_FALSE(state().colorMask[1]);
    EXPECT_EQ(0.75f, state().depthRange[1]);
    EXPECT_EQ(4, state().scissor[3]);
    EXPECT_TRUE(state().sampleCoverageInvert);
}

TEST_F(StateHooks, FramebufferAttachmentsAndRenderbuffers) {
    GLuint names[2] = {4, 6};
    call<fn::glGenFramebuffers>(1, names);
    call<fn::glGenRenderbuffers>(2, names);
    EXPECT_EQ(1u, state().framebuffers.count(4));
    EXPECT_EQ(2u, state().renderbuffers.size());
    call<fn::glBindRenderbuffer>(GL_RENDERBUFFER, 6);
    call<fn::glRenderbufferStorageMultisample>(GL_RENDERBUFFER, 4, GL_RGBA8, 32, 16);
    EXPECT_EQ(static_cast<GLenum>(GL_RGBA8), state().renderbuffers.at(6).internalFormat);
    EXPECT_EQ(4, state().renderbuffers.at(6).samples);

    call<fn::glBindFramebuffer>(GL_FRAMEBUFFER, 4);
    call<fn::glFramebufferTexture2D>(GL_FRAMEBUFFER, GL_COLOR_ATTACHMENT0, GL_TEXTURE_CUBE_MAP_NEGATIVE_Z, 8,
                                     1);
    call<fn::glFramebufferTexture2D>(GL_FRAMEBUFFER, GL_COLOR_ATTACHMENT0, GL_TEXTURE_2D, 9, 0);
    call<fn::glFramebufferRenderbuffer>(GL_FRAMEBUFFER, GL_STENCIL_ATTACHMENT, GL_RENDERBUFFER, 6);
    const FramebufferRecord &fb = state().framebuffers.at(4);
    EXPECT_EQ(9u, fb.color[0].name);
    EXPECT_EQ(static_cast<GLenum>(GL_TEXTURE_CUBE_MAP_NEGATIVE_Z), fb.color[0].textureTarget);
    EXPECT_EQ(static_cast<GLenum>(GL_RENDERBUFFER), fb.stencil.objectType);

    const GLenum buffers[] = {GL_COLOR_ATTACHMENT0, GL_NONE};
    call<fn::glDrawBuffers>(2, buffers);
    EXPECT_EQ(std::vector<GLenum>(buffers, buffers + 2), fb.drawBuffers);
    call<fn::glDrawBuffers>(1, static_cast<const GLenum *>(kUnreadable));
    EXPECT_EQ(2u, fb.drawBuffers.size());

    // Beyond the sixteen colour slots, or on the default framebuffer: nothing.
    call<fn::glFramebufferTexture2D>(GL_FRAMEBUFFER, GL_COLOR_ATTACHMENT0 + 16, GL_TEXTURE_2D, 13, 0);
    call<fn::glBindFramebuffer>(GL_READ_FRAMEBUFFER, 0);
    call<fn::glFramebufferTexture2D>(GL_READ_FRAMEBUFFER, GL_COLOR_ATTACHMENT1, GL_TEXTURE_2D, 14, 0);
    for (const AttachmentSlot &color : fb.color)
        EXPECT_TRUE(color.name != 13 && color.name != 14);
    // Deleting a texture leaves a renderbuffer of the same name attached.
    call<fn::glDeleteTextures>(1, names + 1);
    EXPECT_EQ(6u, fb.stencil.name);

    const GLuint doomed[] = {0, 6};
    call<fn::glDeleteRenderbuffers>(2, doomed);
    EXPECT_EQ(0u, state().renderbuffers.count(6));
    EXPECT_EQ(0u, state().renderbufferBinding);
    EXPECT_EQ(0u, fb.stencil.name);
    const GLuint framebuffers[] = {0, 4};
    call<fn::glDeleteFramebuffers>(2, framebuffers);
    EXPECT_TRUE(state().framebuffers.empty());
    EXPECT_EQ(0u, state().drawFramebuffer);
}

TEST_F(StateHooks, BufferContentsFollowDataSubDataAndMappings) {
    GLuint names[2] = {0, 0};
    names[0] = 11;
    names[1] = 12;
    call<fn::glGenBuffers>(2, names);
    call<fn::glBindBuffer>(GL_ARRAY_BUFFER, 11);
    const uint8_t data[8] = {1, 2, 3, 4, 5, 6, 7, 8};
    call<fn::glBufferData>(GL_ARRAY_BUFFER, 8, data, GL_STATIC_DRAW);
    const Resources::Buffer &buffer = shared().buffers.at(11);
    EXPECT_EQ(std::vector<uint8_t>(data, data + 8), buffer.contents);
    EXPECT_EQ(static_cast<GLenum>(GL_STATIC_DRAW), buffer.usage);

    const uint8_t patch[2] = {0xAA, 0xBB};
    call<fn::glBufferSubData>(GL_ARRAY_BUFFER, 6, 2, patch);
    call<fn::glBufferSubData>(GL_ARRAY_BUFFER, 7, 2, patch); // beyond the end: ignored
    EXPECT_EQ(std::vector<uint8_t>({1, 2, 3, 4, 5, 6, 0xAA, 0xBB}), buffer.contents);

    // What the application writes through a mapping arrives at unmap.
    uint8_t mapped[4] = {};
    CallCtx c;
    c.d.callHost = true;
    void *result = mapped;
    Hooks<fn::glMapBufferRange>::after(c, result, GL_ARRAY_BUFFER, 2, 4, GL_MAP_WRITE_BIT);
    std::memcpy(mapped, "\x10\x20\x30\x40", 4);
    Hooks<fn::glUnmapBuffer>::before(c, GL_ARRAY_BUFFER);
    GLboolean unmapped = GL_TRUE;
    Hooks<fn::glUnmapBuffer>::after(c, unmapped, GL_ARRAY_BUFFER);
    EXPECT_EQ(std::vector<uint8_t>({1, 2, 0x10, 0x20, 0x30, 0x40, 0xAA, 0xBB}), buffer.contents);
    EXPECT_EQ(nullptr, buffer.mapPointer);

    // With explicit flushes only the flushed range arrives.
    CallCtx f;
    f.d.callHost = true;
    Hooks<fn::glMapBufferRange>::after(f, result, GL_ARRAY_BUFFER, 0, 4,
                                       GL_MAP_WRITE_BIT | GL_MAP_FLUSH_EXPLICIT_BIT);
    std::memcpy(mapped, "\x51\x52\x53\x54", 4);
    Hooks<fn::glFlushMappedBufferRange>::before(f, GL_ARRAY_BUFFER, 1, 1);
    Hooks<fn::glUnmapBuffer>::before(f, GL_ARRAY_BUFFER);
    Hooks<fn::glUnmapBuffer>::after(f, unmapped, GL_ARRAY_BUFFER);
    EXPECT_EQ(std::vector<uint8_t>({1, 0x52, 0x10, 0x20, 0x30, 0x40, 0xAA, 0xBB}), buffer.contents);

    call<fn::glBindBuffer>(GL_COPY_WRITE_BUFFER, 12);
    call<fn::glBufferData>(GL_COPY_WRITE_BUFFER, 4, nullptr, GL_DYNAMIC_COPY);
    EXPECT_EQ(std::vector<uint8_t>(4, 0), shared().buffers.at(12).contents);
    call<fn::glCopyBufferSubData>(GL_ARRAY_BUFFER, GL_COPY_WRITE_BUFFER, 4, 1, 3);
    EXPECT_EQ(std::vector<uint8_t>({0, 0x30, 0x40, 0xAA}), shared().buffers.at(12).contents);

    // Memory the application cannot show us leaves zeros, not a crash.
    call<fn::glBufferData>(GL_COPY_WRITE_BUFFER, 4, kUnreadable, GL_STATIC_DRAW);
    EXPECT_EQ(std::vector<uint8_t>(4, 0), shared().buffers.at(12).contents);

    const GLuint doomed[] = {0, 11};
    call<fn::glDeleteBuffers>(2, doomed);
    EXPECT_EQ(0u, shared().buffers.count(11));
    EXPECT_EQ(1u, shared().buffers.count(12));
    EXPECT_EQ(0u, state().bufferBinding(GL_ARRAY_BUFFER));
}

TEST_F(StateHooks, ShaderSourceFollowsTheLengthRules) {
    CallCtx c;
    c.d.callHost = true;
    GLuint shader = 21;
    Hooks<fn::glCreateShader>::after(c, shader, GL_FRAGMENT_SHADER);
    EXPECT_EQ(static_cast<GLenum>(GL_FRAGMENT_SHADER), shared().shaders.at(21).type);

    const GLchar *pieces[] = {"void ", "main(){}garbage", "\n"};
    const GLint lengths[] = {-1, 8, -1};
    call<fn::glShaderSource>(21, 3, pieces, lengths);
    EXPECT_EQ("void main(){}\n", shared().shaders.at(21).source);
    call<fn::glShaderSource>(21, 2, pieces, nullptr);
    EXPECT_EQ("void main(){}garbage", shared().shaders.at(21).source);

    // A piece that cannot be read leaves the source as it was.
    const GLchar *bad[] = {"x", static_cast<const GLchar *>(kUnreadable)};
    call<fn::glShaderSource>(21, 2, bad, nullptr);
    call<fn::glShaderSource>(21, 1, static_cast<const GLchar *const *>(kUnreadable), nullptr);
    EXPECT_EQ("void main(){}garbage", shared().shaders.at(21).source);

    call<fn::glCompileShader>(21);
    EXPECT_TRUE(shared().shaders.at(21).compiled);
}

TEST_F(StateHooks, ProgramsKeepWhatRelinkingNeeds) {
    CallCtx c;
    c.d.callHost = true;
    GLuint program = 30, shader = 21;
    Hooks<fn::glCreateProgram>::after(c, program);
    Hooks<fn::glCreateShader>::after(c, shader, GL_VERTEX_SHADER);
    call<fn::glAttachShader>(30, 21);
    call<fn::glBindAttribLocation>(30, 2, "position");
    const GLchar *varyings[] = {"outA", "outB"};
    call<fn::glTransformFeedbackVaryings>(30, 2, varyings, GL_SEPARATE_ATTRIBS);
    call<fn::glLinkProgram>(30);
    call<fn::glUniformBlockBinding>(30, 1, 5);
    const Resources::Program &record = shared().programs.at(30);
    EXPECT_TRUE(record.linked);
    EXPECT_EQ(std::vector<GLuint>({21}), record.shaders);
    EXPECT_EQ(2u, record.attributeBindings.at("position"));
    EXPECT_EQ(std::vector<std::string>({"outA", "outB"}), record.feedbackVaryings);
    EXPECT_EQ(static_cast<GLenum>(GL_SEPARATE_ATTRIBS), record.feedbackMode);
    EXPECT_EQ(5u, record.uniformBlockBindings.at(1));

    call<fn::glUseProgram>(30);
    const float vec[8] = {1, 2, 3, 4, 5, 6, 7, 8};
    call<fn::glUniform4fv>(3, 2, vec);
    call<fn::glUniformMatrix2fv>(6, 1, GL_TRUE, vec);
    call<fn::glUniform3i>(9, -1, 0, 1);
    call<fn::glUniform2fv>(12, 1, static_cast<const GLfloat *>(kUnreadable));
    ASSERT_EQ(3u, record.uniforms.size());
    const Resources::Uniform &vector = record.uniforms.at(3);
    EXPECT_EQ(fn::glUniform4fv::id, vector.call);
    EXPECT_EQ(2, vector.count);
    ASSERT_EQ(8u, vector.words.size());
    float back;
    std::memcpy(&back, &vector.words[7], 4);
    EXPECT_EQ(8.0f, back);
    EXPECT_EQ(GL_TRUE, record.uniforms.at(6).transpose);
    EXPECT_EQ(4u, record.uniforms.at(6).words.size());
    EXPECT_EQ(std::vector<uint32_t>({0xFFFFFFFFu, 0, 1}), record.uniforms.at(9).words);

    // A named program, not the one in use.
    call<fn::glProgramUniform1ui>(31, 0, 7u);
    EXPECT_EQ(std::vector<uint32_t>({7}), shared().programs.at(31).uniforms.at(0).words);
    EXPECT_EQ(0u, record.uniforms.count(0));

    // The names locations and block indices were looked up by, until the next link.
    GLint location = 3;
    Hooks<fn::glGetUniformLocation>::after(c, location, 30, "colours[0]");
    location = -1;
    Hooks<fn::glGetUniformLocation>::after(c, location, 30, "unused");
    GLuint block = 1;
    Hooks<fn::glGetUniformBlockIndex>::after(c, block, 30, "Lights");
    block = GL_INVALID_INDEX;
    Hooks<fn::glGetUniformBlockIndex>::after(c, block, 30, "Missing");
    EXPECT_EQ(1u, record.uniformNames.size());
    EXPECT_EQ("colours[0]", record.uniformNames.at(3));
    EXPECT_EQ(1u, record.uniformBlockNames.size());
    EXPECT_EQ("Lights", record.uniformBlockNames.at(1));
    call<fn::glLinkProgram>(30);
    EXPECT_TRUE(record.uniformNames.empty());
    EXPECT_TRUE(record.uniformBlockNames.empty());

    // A deleted shader lives while attached, a deleted program while in use.
    call<fn::glDeleteShader>(21);
    EXPECT_TRUE(shared().shaders.at(21).deleted);
    call<fn::glDetachShader>(30, 21);
    EXPECT_EQ(0u, shared().shaders.count(21));
    call<fn::glDeleteProgram>(30);
    EXPECT_TRUE(shared().programs.at(30).deleted);
    call<fn::glUseProgram>(0);
    EXPECT_EQ(0u, shared().programs.count(30));
}

TEST_F(StateHooks, TexturesKeepStorageParametersAndCompressedImages) {
    GLuint names[2] = {40, 41};
    call<fn::glGenTextures>(2, names);
    call<fn::glActiveTexture>(GL_TEXTURE3);
    call<fn::glBindTexture>(GL_TEXTURE_CUBE_MAP, 40);
    call<fn::glTexImage2D>(GL_TEXTURE_CUBE_MAP_POSITIVE_X, 0, GL_RGBA, 16, 16, 0, GL_RGBA, GL_UNSIGNED_BYTE,
                           nullptr);
    call<fn::glTexImage2D>(GL_TEXTURE_CUBE_MAP_POSITIVE_X, 1, GL_RGBA, 8, 8, 0, GL_RGBA, GL_UNSIGNED_BYTE,
                           nullptr);
    const Resources::Texture &cube = shared().textures.at(40);
    EXPECT_EQ(40u, state().textureUnits.at(3).at(GL_TEXTURE_CUBE_MAP));
    EXPECT_EQ(static_cast<GLenum>(GL_TEXTURE_CUBE_MAP), cube.target);
    EXPECT_EQ(16, cube.width);
    EXPECT_EQ(static_cast<GLenum>(GL_UNSIGNED_BYTE), cube.type);

    call<fn::glTexParameteri>(GL_TEXTURE_CUBE_MAP, GL_TEXTURE_MIN_FILTER, GL_NEAREST);
    const float border[4] = {0.5f, 0, 0, 1};
    call<fn::glTexParameterfv>(GL_TEXTURE_CUBE_MAP, GL_TEXTURE_BORDER_COLOR, border);
    EXPECT_EQ(fn::glTexParameteri::id, cube.parameters.at(GL_TEXTURE_MIN_FILTER).call);
    EXPECT_EQ(std::vector<uint32_t>({GL_NEAREST}), cube.parameters.at(GL_TEXTURE_MIN_FILTER).words);
    EXPECT_EQ(4u, cube.parameters.at(GL_TEXTURE_BORDER_COLOR).words.size());

    call<fn::glBindTexture>(GL_TEXTURE_2D_ARRAY, 41);
    call<fn::glTexStorage3D>(GL_TEXTURE_2D_ARRAY, 3, GL_RGBA8, 64, 32, 6);
    const Resources::Texture &array = shared().textures.at(41);
    EXPECT_TRUE(array.immutable);
    EXPECT_EQ(3, array.levels);
    EXPECT_EQ(6, array.depth);

    const uint8_t blocks[16] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16};
    call<fn::glBindTexture>(GL_TEXTURE_2D, 42);
    call<fn::glCompressedTexImage2D>(GL_TEXTURE_2D, 0, GL_COMPRESSED_RGBA8_ETC2_EAC, 4, 4, 0, 16, blocks);
    const Resources::Texture &compressed = shared().textures.at(42);
    const auto &image = compressed.compressed.at({GL_TEXTURE_2D, 0});
    EXPECT_EQ(std::vector<uint8_t>(blocks, blocks + 16), image.data);
    EXPECT_EQ(static_cast<GLenum>(GL_COMPRESSED_RGBA8_ETC2_EAC), compressed.internalFormat);

    // A part of the image is kept as an update; the whole of it replaces the image.
    call<fn::glCompressedTexSubImage2D>(GL_TEXTURE_2D, 0, 0, 0, 4, 4, GL_COMPRESSED_RGBA8_ETC2_EAC, 16,
                                        blocks + 0);
    EXPECT_TRUE(compressed.compressedUpdates.empty());
    call<fn::glCompressedTexImage2D>(GL_TEXTURE_2D, 0, GL_COMPRESSED_RGBA8_ETC2_EAC, 8, 4, 0, 32, nullptr);
    call<fn::glCompressedTexSubImage2D>(GL_TEXTURE_2D, 0, 4, 0, 4, 4, GL_COMPRESSED_RGBA8_ETC2_EAC, 16,
                                        blocks);
    call<fn::glCompressedTexSubImage2D>(GL_TEXTURE_2D, 0, 4, 0, 4, 4, GL_COMPRESSED_RGBA8_ETC2_EAC, 16,
                                        blocks);
    ASSERT_EQ(1u, compressed.compressedUpdates.size());
    EXPECT_EQ(4, compressed.compressedUpdates[0].x);
    EXPECT_EQ(std::vector<uint8_t>(blocks, blocks + 16), compressed.compressedUpdates[0].data);

    // From a pixel unpack buffer the pointer is an offset: nothing is read, the source is noted.
    call<fn::glBindBuffer>(GL_PIXEL_UNPACK_BUFFER, 50);
    call<fn::glCompressedTexImage2D>(GL_TEXTURE_2D, 1, GL_COMPRESSED_RGBA8_ETC2_EAC, 2, 2, 0, 16,
                                     kUnreadable);
    const auto &fromBuffer = compressed.compressed.at({GL_TEXTURE_2D, 1});
    EXPECT_TRUE(fromBuffer.fromBuffer);
    EXPECT_TRUE(fromBuffer.data.empty());

    const GLuint doomed[] = {0, 40};
    call<fn::glDeleteTextures>(2, doomed);
    EXPECT_EQ(0u, shared().textures.count(40));
    call<fn::glActiveTexture>(GL_TEXTURE3);
    EXPECT_EQ(0u, state().boundTexture(GL_TEXTURE_CUBE_MAP));
}

TEST_F(StateHooks, ConstantAttributeValues) {
    call<fn::glVertexAttrib3f>(2, 1.0f, 2.0f, 3.0f);
    const AttributeRecord &floats = state().currentVao().attributes.at(2);
    EXPECT_EQ(3u, floats.constantComponents);
    EXPECT_EQ(static_cast<GLenum>(GL_FLOAT), floats.constantType);
    float z;
    std::memcpy(&z, &floats.constantValues[2], 4);
    EXPECT_EQ(3.0f, z);
    EXPECT_EQ(0u, floats.sourceBuffer);

    const GLuint values[4] = {1, 2, 3, 4};
    call<fn::glVertexAttribI4uiv>(3, values);
    const AttributeRecord &integers = state().currentVao().attributes.at(3);
    EXPECT_EQ(static_cast<GLenum>(GL_UNSIGNED_INT), integers.constantType);
    EXPECT_EQ(std::vector<uint32_t>({1, 2, 3, 4}), integers.constantValues);
    call<fn::glVertexAttribI4i>(3, -1, 0, 0, 0);
    EXPECT_EQ(static_cast<GLenum>(GL_INT), integers.constantType);

    call<fn::glVertexAttrib2fv>(2, static_cast<const GLfloat *>(kUnreadable));
    EXPECT_EQ(3u, floats.constantComponents);
}

TEST_F(StateHooks, SamplersQueriesTransformFeedbackAndSyncs) {
    GLuint names[1] = {60};
    call<fn::glGenSamplers>(1, names);
    call<fn::glBindSampler>(2, 60);
    call<fn::glSamplerParameterf>(60, GL_TEXTURE_MAX_LOD, 4.0f);
    EXPECT_EQ(60u, state().samplerBindings.at(2));
    EXPECT_EQ(fn::glSamplerParameterf::id, shared().samplers.at(60).parameters.at(GL_TEXTURE_MAX_LOD).call);
    call<fn::glDeleteSamplers>(1, names);
    EXPECT_TRUE(state().samplerBindings.empty());

    names[0] = 61;
    call<fn::glGenQueries>(1, names);
    call<fn::glBeginQuery>(GL_ANY_SAMPLES_PASSED, 61);
    EXPECT_EQ(static_cast<GLenum>(GL_ANY_SAMPLES_PASSED), shared().queries.at(61).activeTarget);
    call<fn::glEndQuery>(GL_ANY_SAMPLES_PASSED);
    EXPECT_EQ(0u, shared().queries.at(61).activeTarget);

    names[0] = 62;
    call<fn::glGenTransformFeedbacks>(1, names);
    call<fn::glBindTransformFeedback>(GL_TRANSFORM_FEEDBACK, 62);
    call<fn::glBeginTransformFeedback>(GL_POINTS);
    call<fn::glPauseTransformFeedback>();
    EXPECT_TRUE(shared().transformFeedbacks.at(62).active);
    EXPECT_TRUE(shared().transformFeedbacks.at(62).paused);
    call<fn::glEndTransformFeedback>();
    EXPECT_FALSE(shared().transformFeedbacks.at(62).active);
    EXPECT_FALSE(state().defaultTransformFeedback.active);

    CallCtx c;
    c.d.callHost = true;
    GLsync sync = reinterpret_cast<GLsync>(uintptr_t(0x5000));
    Hooks<fn::glFenceSync>::after(c, sync, GL_SYNC_GPU_COMMANDS_COMPLETE, 0);
    EXPECT_EQ(1u, shared().syncs.count(0x5000));
    call<fn::glDeleteSync>(sync);
    EXPECT_TRUE(shared().syncs.empty());

    call<fn::glBindImageTexture>(1, 41, 2, GL_TRUE, 0, GL_READ_WRITE, GL_RGBA8);
    EXPECT_EQ(41u, state().imageUnits.at(1).texture);
    EXPECT_EQ(static_cast<GLenum>(GL_RGBA8), state().imageUnits.at(1).format);
}

// Indexed capabilities, layered attachments and separate vertex formats: rules of their own.
TEST_F(StateHooks, IndexedCapabilitiesLayersAndSeparateFormats) {
    call<fn::glEnablei>(GL_BLEND, 1);
    call<fn::glEnablei>(GL_BLEND, 3);
    call<fn::glEnablei>(GL_DEPTH_TEST, 0);
    call<fn::glDisable>(GL_BLEND); // the plain call overrides the indexed entries of its capability
    EXPECT_FALSE(state().capabilities.at(GL_BLEND));
    EXPECT_EQ(0u, state().indexedCapabilities.count({GL_BLEND, 1}));
    EXPECT_EQ(1u, state().indexedCapabilities.count({GL_DEPTH_TEST, 0}));

    shared().textures[4].target = GL_TEXTURE_2D_ARRAY;
    call<fn::glBindFramebuffer>(GL_FRAMEBUFFER, 1);
    call<fn::glFramebufferTextureLayer>(GL_FRAMEBUFFER, GL_COLOR_ATTACHMENT0, 4, 1, 5);
    const AttachmentSlot &slot = state().framebuffers.at(1).color[0];
    EXPECT_EQ(static_cast<GLenum>(GL_TEXTURE_2D_ARRAY), slot.textureTarget); // the texture's target
    EXPECT_EQ(5, slot.layer);
    EXPECT_FALSE(slot.layered);
    call<fn::glFramebufferTexture>(GL_FRAMEBUFFER, GL_COLOR_ATTACHMENT0, 4, 0);
    EXPECT_EQ(-1, slot.layer);
    EXPECT_TRUE(slot.layered);
    call<fn::glFramebufferTexture2D>(GL_FRAMEBUFFER, GL_COLOR_ATTACHMENT0, GL_TEXTURE_2D, 4, 0);
    EXPECT_FALSE(slot.layered);

    call<fn::glVertexAttribFormat>(0, 2, GL_INT, GL_FALSE, 8);
    call<fn::glVertexAttribBinding>(0, 3);
    call<fn::glBindVertexBuffer>(3, 11, 64, 24);
    call<fn::glVertexBindingDivisor>(3, 4);
    const VaoRecord &vao = state().currentVao();
    EXPECT_EQ(3u, vao.attributeBinding.at(0));
    EXPECT_EQ(8u, vao.attributes.at(0).relativeOffset);
    EXPECT_EQ(11u, vao.bindings.at(3).buffer);
    EXPECT_EQ(24u, vao.bindings.at(3).stride);
    // glVertexAttribDivisor goes back to the attribute's own binding.
    call<fn::glVertexAttribDivisor>(0, 1);
    EXPECT_EQ(0u, vao.attributeBinding.at(0));
    EXPECT_EQ(1u, vao.bindings.at(0).divisor);
    EXPECT_EQ(4u, vao.bindings.at(3).divisor);
}

// Uniform values of array elements are kept per location and never overlap; they reach the
// pipeline's active program when no program is in use.
TEST_F(StateHooks, ArrayUniformValuesNeverOverlap) {
    auto words = [](std::initializer_list<uint32_t> w) { return std::vector<uint32_t>(w); };
    CEs2ContextState &s = state();
    s.useProgram(3);
    s.setUniform(0, 2, 1, 4, GL_FALSE, words({10, 11, 12, 13}));
    s.setUniform(0, 3, 2, 1, GL_FALSE, words({21}));
    const auto &uniforms = shared().programs.at(3).uniforms;
    ASSERT_EQ(3u, uniforms.size());
    EXPECT_EQ(words({10}), uniforms.at(2).words);
    EXPECT_EQ(words({21}), uniforms.at(3).words);
    EXPECT_EQ(2u, uniforms.at(3).call);
    EXPECT_EQ(words({12, 13}), uniforms.at(4).words);
    EXPECT_EQ(2, uniforms.at(4).count);
    // Two-word elements, starting before the kept values and ending inside the last of them.
    s.setUniform(0, 1, 5, 4, GL_TRUE, words({1, 1, 2, 2, 3, 3, 4, 4}));
    ASSERT_EQ(2u, uniforms.size());
    EXPECT_EQ(4, uniforms.at(1).count);
    EXPECT_EQ(words({13}), uniforms.at(5).words);
    EXPECT_EQ(1, uniforms.at(5).count);
    s.linkProgram(3);
    EXPECT_TRUE(uniforms.empty());
    s.setUniform(0, -1, 1, 1, GL_FALSE, words({1})); // no location: nothing kept
    EXPECT_TRUE(uniforms.empty());

    s.useProgram(0);
    call<fn::glBindProgramPipeline>(4);
    call<fn::glActiveShaderProgram>(4, 8);
    s.setUniform(0, 0, 1, 1, GL_FALSE, {7});
    EXPECT_EQ(1u, shared().programs.at(8).uniforms.count(0));
    s.useProgram(9); // a program in use comes first
    s.setUniform(0, 0, 1, 1, GL_FALSE, {7});
    EXPECT_EQ(1u, shared().programs.at(9).uniforms.count(0));
}

// The config decides the version, not the version asked for (ES2 on an ES3 config is ES3.0);
// version 1, said or left unsaid, is ES1 whatever the config; without a renderable type, the newest.
TEST(ContextRecords, VersionCodesAndShareGroups) {
    const EGLint v1[] = {EGL_CONTEXT_CLIENT_VERSION, 1, EGL_NONE};
    const EGLint v2[] = {EGL_CONTEXT_CLIENT_VERSION, 2, EGL_NONE};
    const EGLint v3[] = {EGL_CONTEXT_CLIENT_VERSION, 3, EGL_NONE};
    const EGLint v31[] = {EGL_CONTEXT_MINOR_VERSION_KHR, 1, EGL_CONTEXT_CLIENT_VERSION, 3, EGL_NONE};
    const EGLint v32[] = {EGL_CONTEXT_CLIENT_VERSION, 3, EGL_CONTEXT_MINOR_VERSION_KHR, 2, EGL_NONE};
    const EGLint es3 = EGL_OPENGL_ES3_BIT_KHR | EGL_OPENGL_ES2_BIT;
    auto renderable = [](EGLint bits) {
        return std::vector<EGLint>{EGL_RED_SIZE, 8, EGL_RENDERABLE_TYPE, bits, EGL_NONE};
    };
    const struct {
        const EGLint *attributes;
        std::vector<EGLint> config;
        uint32_t code;
    } cases[] = {
        {v2, renderable(es3), 3},
        {v3, renderable(es3), 3},
        {v31, renderable(es3), 4},
        {v32, renderable(es3), 5},
        {v2, renderable(EGL_OPENGL_ES2_BIT), 2},
        {v3, renderable(EGL_OPENGL_ES2_BIT), 2},
        {v2, renderable(EGL_OPENGL_ES_BIT), 1},
        {v3, {}, 5},
        {v2, {EGL_RED_SIZE, 8, EGL_NONE}, 5},
        {v1, renderable(es3), 1},
        {nullptr, renderable(es3), 1},
    };
    for (size_t i = 0; i < sizeof(cases) / sizeof(cases[0]); ++i)
        EXPECT_EQ(cases[i].code, egl::apiVersionCode(cases[i].attributes, cases[i].config)) << "case " << i;

    // A share context of another display is no share context; the group outlives its maker. (That
    // the contexts of a group see one another's objects: threads_program started late, in
    // replay_test.sh.)
    auto display = [](uintptr_t n) { return reinterpret_cast<EGLDisplay>(0x7e570000u + n); };
    auto context = [](uintptr_t n) { return reinterpret_cast<EGLContext>(0x7c0e0000u + n); };
    auto first = egl::addContext(display(1), nullptr, EGL_NO_CONTEXT, context(1), v3, {});
    auto second = egl::addContext(display(1), nullptr, context(1), context(2), v3, {});
    auto elsewhere = egl::addContext(display(2), nullptr, context(1), context(3), v3, {});
    auto es1 = egl::addContext(display(1), nullptr, EGL_NO_CONTEXT, context(4), v1, {});
    auto es1Shared = egl::addContext(display(1), nullptr, context(4), context(5), v1, {});
    ASSERT_TRUE(first->es2 && second->es2 && elsewhere->es2 && es1->es1 && es1Shared->es1);
    EXPECT_EQ(nullptr, es1->es2);
    EXPECT_EQ(&es1->es1->shared(), &es1Shared->es1->shared()); // ES1 contexts share their objects too
    EXPECT_EQ(first->es2->resources().get(), second->es2->resources().get());
    EXPECT_NE(first->es2->resources().get(), elsewhere->es2->resources().get());
    first->es2->shared().buffers[7];
    egl::removeContext(display(1), context(1));
    first.reset();
    EXPECT_EQ(1u, second->es2->shared().buffers.count(7));
    EXPECT_EQ(1, second->es2->resources().useCount());
    egl::removeContext(display(1), context(2));
    egl::removeContext(display(2), context(3));
    egl::removeContext(display(1), context(4));
    egl::removeContext(display(1), context(5));
}

} // namespace
} // namespace kv
