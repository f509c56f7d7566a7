// The shadow state of ES2/3 contexts: context creation (version codes, share groups) and the update
// rules of CEs2ContextState itself.
#include "state/context_state.h"
#include "state/egl_state.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <vector>

namespace kv {
namespace {

EGLDisplay fakeDisplay(uintptr_t n) {
    return reinterpret_cast<EGLDisplay>(0x7e570000u + n);
}
EGLContext fakeContext(uintptr_t n) {
    return reinterpret_cast<EGLContext>(0x7c0e0000u + n);
}

std::vector<EGLint> renderable(EGLint bits) {
    return {EGL_RED_SIZE, 8, EGL_RENDERABLE_TYPE, bits, EGL_NONE};
}

// ---- Version codes and share groups ---------------------------------------------------------------

TEST(ContextStateCreation, ApiVersionCodeFollowsTheConfigsRenderableType) {
    const EGLint v1[] = {EGL_CONTEXT_CLIENT_VERSION, 1, EGL_NONE};
    const EGLint v2[] = {EGL_CONTEXT_CLIENT_VERSION, 2, EGL_NONE};
    const EGLint v3[] = {EGL_CONTEXT_CLIENT_VERSION, 3, EGL_NONE};
    const EGLint v31[] = {EGL_CONTEXT_MINOR_VERSION_KHR, 1, EGL_CONTEXT_CLIENT_VERSION, 3, EGL_NONE};
    const EGLint v32[] = {EGL_CONTEXT_CLIENT_VERSION, 3, EGL_CONTEXT_MINOR_VERSION_KHR, 2, EGL_NONE};
    const EGLint es3 = EGL_OPENGL_ES3_BIT_KHR | EGL_OPENGL_ES2_BIT;

    // The config decides, not the version asked for: ES2 on an ES3 config is ES3.0.
    EXPECT_EQ(3u, egl::apiVersionCode(v2, renderable(es3)));
    EXPECT_EQ(3u, egl::apiVersionCode(v3, renderable(es3)));
    EXPECT_EQ(4u, egl::apiVersionCode(v31, renderable(es3)));
    EXPECT_EQ(5u, egl::apiVersionCode(v32, renderable(es3)));
    EXPECT_EQ(2u, egl::apiVersionCode(v2, renderable(EGL_OPENGL_ES2_BIT)));
    EXPECT_EQ(2u, egl::apiVersionCode(v3, renderable(EGL_OPENGL_ES2_BIT)));
    EXPECT_EQ(1u, egl::apiVersionCode(v2, renderable(EGL_OPENGL_ES_BIT)));
    // No captured renderable type: the newest.
    EXPECT_EQ(5u, egl::apiVersionCode(v3, {}));
    EXPECT_EQ(5u, egl::apiVersionCode(v2, {EGL_RED_SIZE, 8, EGL_NONE}));
    // Version 1, said or left unsaid, is ES1 whatever the config.
    EXPECT_EQ(1u, egl::apiVersionCode(v1, renderable(es3)));
    EXPECT_EQ(1u, egl::apiVersionCode(nullptr, renderable(es3)));
}

TEST(ContextStateCreation, ContextsOfAShareGroupSeeTheSameResources) {
    const EGLint v3[] = {EGL_CONTEXT_CLIENT_VERSION, 3, EGL_NONE};
    EGLDisplay dpy = fakeDisplay(1), other = fakeDisplay(2);
    auto first = egl::addContext(dpy, nullptr, EGL_NO_CONTEXT, fakeContext(1), v3, {});
    auto second = egl::addContext(dpy, nullptr, fakeContext(1), fakeContext(2), v3, {});
    auto alone = egl::addContext(dpy, nullptr, EGL_NO_CONTEXT, fakeContext(3), v3, {});
    // A share context of another display is no share context.
    auto elsewhere = egl::addContext(other, nullptr, fakeContext(1), fakeContext(4), v3, {});
    ASSERT_TRUE(first->es2 && second->es2 && alone->es2 && elsewhere->es2);

    EXPECT_EQ(first->es2->resources().get(), second->es2->resources().get());
    EXPECT_EQ(2, first->es2->resources().useCount());
    EXPECT_NE(first->es2->resources().get(), alone->es2->resources().get());
    EXPECT_NE(first->es2->resources().get(), elsewhere->es2->resources().get());

    first->es2->shared().buffers[7];
    EXPECT_EQ(1u, second->es2->shared().buffers.count(7));
    EXPECT_EQ(0u, alone->es2->shared().buffers.count(7));

    // The group outlives the context that made it.
    egl::removeContext(dpy, fakeContext(1));
    first.reset();
    EXPECT_EQ(1u, second->es2->shared().buffers.count(7));
    EXPECT_EQ(1, second->es2->resources().useCount());
    for (uintptr_t n : {2, 3})
        egl::removeContext(dpy, fakeContext(n));
    egl::removeContext(other, fakeContext(4));
}

TEST(ContextStateCreation, Es1ContextsHaveNoEs2State) {
    const EGLint v1[] = {EGL_CONTEXT_CLIENT_VERSION, 1, EGL_NONE};
    auto record = egl::addContext(fakeDisplay(3), nullptr, EGL_NO_CONTEXT, fakeContext(5), v1, {});
    EXPECT_EQ(1u, record->apiVersion);
    EXPECT_EQ(nullptr, record->es2);
    egl::removeContext(fakeDisplay(3), fakeContext(5));
}

// ---- Pipeline settings --------------------------------------------------------------------------

TEST(ContextStateSettings, PixelStoreKeepsOnlyTheLivePairsOfItsVersion) {
    CEs2ContextState es2, es3;
    es2.initialise(2);
    es3.initialise(3);
    for (CEs2ContextState *s : {&es2, &es3}) {
        s->setPixelStore(GL_UNPACK_ROW_LENGTH, 8);
        s->setPixelStore(GL_UNPACK_ALIGNMENT, 1);
        s->setPixelStore(0x1234, 5);
    }
    EXPECT_EQ(0, es2.pixelStore(GL_UNPACK_ROW_LENGTH));
    EXPECT_EQ(0, es2.pixelStores[4].value);
    EXPECT_EQ(8, es3.pixelStore(GL_UNPACK_ROW_LENGTH));
    EXPECT_EQ(1, es2.pixelStore(GL_UNPACK_ALIGNMENT));
    EXPECT_EQ(1, es3.pixelStore(GL_UNPACK_ALIGNMENT));
    EXPECT_EQ(4, es2.pixelStore(GL_PACK_ALIGNMENT));
    // Any other code leaves the counts as they were.
    es3.initialise(9);
    EXPECT_EQ(10u, es3.pixelStoreCount);
}

TEST(ContextStateSettings, BlendEquationAndFunctionRules) {
    CEs2ContextState s;
    s.setBlendEquationSeparate(GL_FUNC_SUBTRACT, GL_MAX);
    EXPECT_EQ(1u, s.blendEquationSeparate);
    s.setBlendEquation(GL_MIN);
    EXPECT_EQ(0u, s.blendEquationSeparate);
    EXPECT_EQ(static_cast<GLenum>(GL_MIN), s.blendEquationRgb);
    EXPECT_EQ(static_cast<GLenum>(GL_MAX), s.blendEquationAlpha); // RGB only

    s.setBlendFuncSeparate(GL_ZERO, GL_ONE, GL_DST_COLOR, GL_SRC_COLOR);
    s.setBlendFunc(GL_SRC_ALPHA, GL_ONE_MINUS_SRC_ALPHA);
    EXPECT_EQ(static_cast<GLenum>(GL_SRC_ALPHA), s.blendSrcRgb);
    EXPECT_EQ(static_cast<GLenum>(GL_ONE_MINUS_SRC_ALPHA), s.blendDstRgb);
    EXPECT_EQ(static_cast<GLenum>(GL_SRC_ALPHA), s.blendSrcAlpha);
    EXPECT_EQ(static_cast<GLenum>(GL_ONE_MINUS_SRC_ALPHA), s.blendDstAlpha);
}

TEST(ContextStateSettings, PolygonOffsetIsKeyedOnTheFactor) {
    CEs2ContextState s;
    s.setPolygonOffset(32824.0f, 3.0f);
    s.setPolygonOffset(10752.0f, 5.0f);
    EXPECT_EQ(3.0f, s.polygonOffset[0]);
    EXPECT_EQ(5.0f, s.polygonOffset[1]);
    // An ordinary factor changes neither pair.
    s.setPolygonOffset(1.0f, 9.0f);
    s.setPolygonOffset(32824.5f, 9.0f);
    EXPECT_EQ(3.0f, s.polygonOffset[0]);
    EXPECT_EQ(5.0f, s.polygonOffset[1]);
}

TEST(ContextStateSettings, StencilCallsWriteTheirFaces) {
    CEs2ContextState s;
    s.setStencilFunc(GL_FRONT, GL_LESS, 1, 0xF);
    s.setStencilFunc(GL_BACK, GL_GREATER, 2, 0xF0);
    EXPECT_EQ(static_cast<GLenum>(GL_LESS), s.stencilFunc[0]);
    EXPECT_EQ(static_cast<GLenum>(GL_GREATER), s.stencilFunc[1]);
    EXPECT_EQ(1, s.stencilRef[0]);
    EXPECT_EQ(0xF0u, s.stencilValueMask[1]);
    s.setStencilFunc(GL_FRONT_AND_BACK, GL_EQUAL, 3, 0xFF);
    EXPECT_EQ(static_cast<GLenum>(GL_EQUAL), s.stencilFunc[0]);
    EXPECT_EQ(static_cast<GLenum>(GL_EQUAL), s.stencilFunc[1]);
    EXPECT_EQ(3, s.stencilRef[1]);

    s.setStencilMask(GL_BACK, 0x3);
    EXPECT_EQ(0xFFFFFFFFu, s.stencilWriteMask[0]);
    EXPECT_EQ(0x3u, s.stencilWriteMask[1]);
    s.setStencilMask(GL_FRONT_AND_BACK, 0x7);
    EXPECT_EQ(0x7u, s.stencilWriteMask[0]);

    s.setStencilOp(GL_FRONT, GL_ZERO, GL_INCR, GL_DECR);
    EXPECT_EQ(static_cast<GLenum>(GL_ZERO), s.stencilFail[0]);
    EXPECT_EQ(static_cast<GLenum>(GL_DECR), s.stencilDepthPass[0]);
    EXPECT_EQ(static_cast<GLenum>(GL_KEEP), s.stencilFail[1]);
    // Anything else is no face.
    s.setStencilOp(GL_NONE, GL_INVERT, GL_INVERT, GL_INVERT);
    EXPECT_EQ(static_cast<GLenum>(GL_ZERO), s.stencilFail[0]);
    EXPECT_EQ(static_cast<GLenum>(GL_KEEP), s.stencilFail[1]);
}

TEST(ContextStateSettings, PlainCapabilityOverridesItsIndexedEntries) {
    CEs2ContextState s;
    s.setCapabilityIndexed(GL_BLEND, 1, true);
    s.setCapabilityIndexed(GL_BLEND, 3, true);
    s.setCapabilityIndexed(GL_DEPTH_TEST, 0, true);
    s.setCapability(GL_BLEND, false);
    EXPECT_FALSE(s.capabilities.at(GL_BLEND));
    EXPECT_EQ(0u, s.indexedCapabilities.count({GL_BLEND, 1}));
    EXPECT_EQ(1u, s.indexedCapabilities.count({GL_DEPTH_TEST, 0}));
}

// ---- Vertex arrays ------------------------------------------------------------------------------

TEST(ContextStateVertexArrays, ElementArrayBindingBelongsToTheVertexArrayObject) {
    CEs2ContextState s;
    s.bufferBinding(GL_ELEMENT_ARRAY_BUFFER) = 3;
    s.bufferBinding(GL_ARRAY_BUFFER) = 4;
    s.bindVertexArray(5);
    EXPECT_EQ(0u, s.bufferBinding(GL_ELEMENT_ARRAY_BUFFER));
    s.bufferBinding(GL_ELEMENT_ARRAY_BUFFER) = 9;
    EXPECT_EQ(4u, s.bufferBinding(GL_ARRAY_BUFFER)); // context state, not the VAO's
    s.bindVertexArray(0);
    EXPECT_EQ(3u, s.bufferBinding(GL_ELEMENT_ARRAY_BUFFER));
    EXPECT_EQ(9u, s.vaos.at(5).elementArrayBuffer);
}

TEST(ContextStateVertexArrays, PointerStrideAndWhereTheDataLies) {
    CEs2ContextState s;
    const void *pointer = reinterpret_cast<const void *>(uintptr_t(0x20000));
    s.setVertexAttribPointer(1, 3, GL_FLOAT, GL_FALSE, 0, pointer, false);
    s.setVertexAttribPointer(2, 3, 0x1234, GL_TRUE, 0, pointer, false);
    s.setVertexAttribPointer(3, 2, GL_SHORT, GL_FALSE, 20, pointer, true);
    const VaoRecord &vao = s.vaos.at(0);
    EXPECT_EQ(12u, vao.bindings.at(1).stride);
    EXPECT_EQ(0u, vao.bindings.at(2).stride);
    EXPECT_EQ(20u, vao.bindings.at(3).stride);
    EXPECT_EQ(1u, vao.attributes.at(2).normalized);
    EXPECT_EQ(1u, vao.attributes.at(3).integer);
    // No buffer: the pointer is the application's address.
    EXPECT_EQ(pointer, vao.bindings.at(1).clientPointer);
    EXPECT_EQ(0u, vao.bindings.at(1).offset);
    EXPECT_EQ(0u, vao.bindings.at(1).buffer);

    s.bufferBinding(GL_ARRAY_BUFFER) = 6;
    s.setVertexBindingDivisor(1, 2);
    s.setVertexAttribPointer(1, 4, GL_UNSIGNED_BYTE, GL_TRUE, 0,
                             reinterpret_cast<const void *>(uintptr_t(48)), false);
    // A buffer: the pointer is an offset into it.
    EXPECT_EQ(6u, vao.bindings.at(1).buffer);
    EXPECT_EQ(48u, vao.bindings.at(1).offset);
    EXPECT_EQ(nullptr, vao.bindings.at(1).clientPointer);
    EXPECT_EQ(4u, vao.bindings.at(1).stride);
    EXPECT_EQ(2u, vao.bindings.at(1).divisor); // binding state the pointer call keeps
}

TEST(ContextStateVertexArrays, SeparateFormatsAndBindings) {
    CEs2ContextState s;
    s.setVertexAttribPointer(0, 4, GL_FLOAT, GL_FALSE, 0, nullptr, false);
    s.setVertexAttribFormat(0, 2, GL_INT, GL_FALSE, 8, true);
    s.setVertexAttribBinding(0, 3);
    s.bindVertexBuffer(3, 11, 64, 24);
    s.setVertexBindingDivisor(3, 4);
    const VaoRecord &vao = s.vaos.at(0);
    EXPECT_EQ(3u, vao.attributeBinding.at(0));
    EXPECT_EQ(8u, vao.attributes.at(0).relativeOffset);
    EXPECT_EQ(1u, vao.attributes.at(0).integer);
    EXPECT_EQ(11u, vao.bindings.at(3).buffer);
    EXPECT_EQ(64u, vao.bindings.at(3).offset);
    EXPECT_EQ(24u, vao.bindings.at(3).stride);
    EXPECT_EQ(4u, vao.bindings.at(3).divisor);

    // glVertexAttribDivisor goes back to the attribute's own binding.
    s.setVertexAttribDivisor(0, 1);
    EXPECT_EQ(0u, vao.attributeBinding.at(0));
    EXPECT_EQ(1u, vao.bindings.at(0).divisor);
    EXPECT_EQ(4u, vao.bindings.at(3).divisor);
}

// ---- Framebuffers -------------------------------------------------------------------------------

TEST(ContextStateFramebuffers, BindingTargets) {
    CEs2ContextState s;
    s.bindFramebuffer(GL_READ_FRAMEBUFFER, 4);
    s.bindFramebuffer(GL_DRAW_FRAMEBUFFER, 5);
    EXPECT_EQ(4u, s.framebufferBinding(GL_READ_FRAMEBUFFER));
    EXPECT_EQ(5u, s.framebufferBinding(GL_FRAMEBUFFER));
    s.bindFramebuffer(GL_FRAMEBUFFER, 0);
    EXPECT_EQ(0u, s.readFramebuffer);
    EXPECT_EQ(0u, s.drawFramebuffer);
    EXPECT_EQ(0u, s.framebuffers.count(0));
    EXPECT_EQ(2u, s.framebuffers.size());
    s.bindFramebuffer(GL_RENDERBUFFER, 8);
    EXPECT_EQ(0u, s.framebuffers.count(8));
}

TEST(ContextStateFramebuffers, TextureAttachmentKeepsItsTargetAcrossTexture2D) {
    CEs2ContextState s;
    s.bindFramebuffer(GL_FRAMEBUFFER, 3);
    s.framebufferTexture2D(GL_FRAMEBUFFER, GL_COLOR_ATTACHMENT1, GL_TEXTURE_CUBE_MAP_POSITIVE_Y, 9, 2);
    AttachmentSlot &slot = s.framebuffers.at(3).color[1];
    EXPECT_EQ(static_cast<GLenum>(GL_TEXTURE), slot.objectType);
    EXPECT_EQ(9u, slot.name);
    EXPECT_EQ(2, slot.level);
    EXPECT_EQ(static_cast<GLenum>(GL_TEXTURE_CUBE_MAP_POSITIVE_Y), slot.textureTarget);
    s.framebufferTexture2D(GL_DRAW_FRAMEBUFFER, GL_COLOR_ATTACHMENT1, GL_TEXTURE_2D, 10, 0);
    EXPECT_EQ(10u, slot.name);
    EXPECT_EQ(0, slot.level);
    EXPECT_EQ(static_cast<GLenum>(GL_TEXTURE_CUBE_MAP_POSITIVE_Y), slot.textureTarget);
    s.framebufferTexture2D(GL_FRAMEBUFFER, GL_DEPTH_ATTACHMENT, GL_TEXTURE_2D, 12, 0);
    EXPECT_EQ(0u, s.framebuffers.at(3).depth.textureTarget);
    EXPECT_EQ(12u, s.framebuffers.at(3).depth.name);

    s.framebufferRenderbuffer(GL_FRAMEBUFFER, GL_DEPTH_STENCIL_ATTACHMENT, GL_RENDERBUFFER, 7);
    EXPECT_EQ(static_cast<GLenum>(GL_RENDERBUFFER), s.framebuffers.at(3).depthStencil.objectType);
    EXPECT_EQ(7u, s.framebuffers.at(3).depthStencil.name);
    EXPECT_EQ(0u, s.framebuffers.at(3).stencil.name);

    // Beyond the sixteen colour slots, or on the default framebuffer: nothing.
    FramebufferRecord before = s.framebuffers.at(3);
    s.framebufferTexture2D(GL_FRAMEBUFFER, GL_COLOR_ATTACHMENT0 + 16, GL_TEXTURE_2D, 13, 0);
    s.bindFramebuffer(GL_READ_FRAMEBUFFER, 0);
    s.framebufferTexture2D(GL_READ_FRAMEBUFFER, GL_COLOR_ATTACHMENT0, GL_TEXTURE_2D, 14, 0);
    for (const AttachmentSlot &color : s.framebuffers.at(3).color) {
        EXPECT_NE(13u, color.name);
        EXPECT_NE(14u, color.name);
    }
    EXPECT_EQ(before.color[1].name, s.framebuffers.at(3).color[1].name);
}

TEST(ContextStateFramebuffers, LayeredAttachmentsTakeTheTexturesTarget) {
    CEs2ContextState s;
    s.resources() = SharedPtr<CEs2ContextState::SEs2Resources>(new CEs2ContextState::SEs2Resources());
    s.shared().textures[4].target = GL_TEXTURE_2D_ARRAY;
    s.bindFramebuffer(GL_FRAMEBUFFER, 1);
    s.framebufferTextureLayer(GL_FRAMEBUFFER, GL_COLOR_ATTACHMENT0, 4, 1, 5);
    const AttachmentSlot &slot = s.framebuffers.at(1).color[0];
    EXPECT_EQ(static_cast<GLenum>(GL_TEXTURE_2D_ARRAY), slot.textureTarget);
    EXPECT_EQ(5, slot.layer);
    EXPECT_FALSE(slot.layered);
    s.framebufferTexture(GL_FRAMEBUFFER, GL_COLOR_ATTACHMENT0, 4, 0);
    EXPECT_EQ(-1, slot.layer);
    EXPECT_TRUE(slot.layered);
    // glFramebufferTexture2D is not a layer.
    s.framebufferTexture2D(GL_FRAMEBUFFER, GL_COLOR_ATTACHMENT0, GL_TEXTURE_2D, 4, 0);
    EXPECT_FALSE(slot.layered);
}

TEST(ContextStateFramebuffers, DrawAndReadBuffersGoToTheBoundFramebuffer) {
    CEs2ContextState s;
    s.setDrawBuffers({GL_BACK});
    s.setReadBuffer(GL_NONE);
    s.bindFramebuffer(GL_DRAW_FRAMEBUFFER, 2);
    s.bindFramebuffer(GL_READ_FRAMEBUFFER, 3);
    s.setDrawBuffers({GL_COLOR_ATTACHMENT0, GL_NONE, GL_COLOR_ATTACHMENT2});
    s.setReadBuffer(GL_COLOR_ATTACHMENT1);
    EXPECT_EQ(std::vector<GLenum>({GL_BACK}), s.defaultDrawBuffers);
    EXPECT_EQ(static_cast<GLenum>(GL_NONE), s.defaultReadBuffer);
    EXPECT_EQ(3u, s.framebuffers.at(2).drawBuffers.size());
    EXPECT_EQ(static_cast<GLenum>(GL_COLOR_ATTACHMENT1), s.framebuffers.at(3).readBuffer);
    EXPECT_TRUE(s.framebuffers.at(3).drawBuffers.empty());
}

// ---- Deletion -----------------------------------------------------------------------------------

class ContextStateDeletion : public ::testing::Test {
protected:
    void SetUp() override {
        s.resources() = SharedPtr<CEs2ContextState::SEs2Resources>(new CEs2ContextState::SEs2Resources());
    }
    CEs2ContextState s;
};

TEST_F(ContextStateDeletion, NameZeroIsNeverDeleted) {
    s.bufferBinding(GL_ELEMENT_ARRAY_BUFFER) = 3;
    for (auto del : {&CEs2ContextState::deleteVertexArray, &CEs2ContextState::deleteBuffer,
                     &CEs2ContextState::deleteTexture, &CEs2ContextState::deleteFramebuffer,
                     &CEs2ContextState::deleteRenderbuffer})
        (s.*del)(0);
    ASSERT_EQ(1u, s.vaos.count(0));
    EXPECT_EQ(3u, s.vaos.at(0).elementArrayBuffer);
}

TEST_F(ContextStateDeletion, DeletedObjectsLeaveThisContextsBindings) {
    s.shared().buffers[6];
    s.bufferBinding(GL_ARRAY_BUFFER) = 6;
    s.setVertexAttribPointer(0, 4, GL_FLOAT, GL_FALSE, 0, reinterpret_cast<const void *>(uintptr_t(16)),
                             false);
    s.indexedBindings[{GL_UNIFORM_BUFFER, 2}] = IndexedBinding{6, 0, 0};
    s.deleteBuffer(6);
    EXPECT_EQ(0u, s.shared().buffers.count(6));
    EXPECT_EQ(0u, s.bufferBinding(GL_ARRAY_BUFFER));
    EXPECT_EQ(0u, s.vaos.at(0).bindings.at(0).buffer);
    EXPECT_TRUE(s.indexedBindings.empty());

    s.shared().textures[5].target = GL_TEXTURE_2D;
    s.bindTexture(GL_TEXTURE_2D, 5);
    s.bindFramebuffer(GL_FRAMEBUFFER, 2);
    s.framebufferTexture2D(GL_FRAMEBUFFER, GL_COLOR_ATTACHMENT0, GL_TEXTURE_2D, 5, 0);
    s.framebufferRenderbuffer(GL_FRAMEBUFFER, GL_DEPTH_ATTACHMENT, GL_RENDERBUFFER, 5);
    s.deleteTexture(5);
    EXPECT_EQ(0u, s.boundTexture(GL_TEXTURE_2D));
    EXPECT_EQ(0u, s.framebuffers.at(2).color[0].name);
    EXPECT_EQ(5u, s.framebuffers.at(2).depth.name); // a renderbuffer of the same name stays
    s.renderbufferBinding = 5;
    s.deleteRenderbuffer(5);
    EXPECT_EQ(0u, s.framebuffers.at(2).depth.name);
    EXPECT_EQ(0u, s.renderbufferBinding);

    s.bindVertexArray(4);
    s.deleteVertexArray(4);
    EXPECT_EQ(0u, s.currentVaoName);
    EXPECT_EQ(0u, s.vaos.count(4));
    s.deleteFramebuffer(2);
    EXPECT_EQ(0u, s.drawFramebuffer);
    EXPECT_EQ(0u, s.readFramebuffer);
}

TEST_F(ContextStateDeletion, RenderbufferStorageFillsTheBoundRecord) {
    s.renderbufferStorage(0, GL_RGBA8, 4, 4); // none bound
    EXPECT_TRUE(s.renderbuffers.empty());
    s.renderbufferBinding = 3;
    s.renderbufferStorage(4, GL_DEPTH24_STENCIL8, 64, 32);
    const RenderbufferRecord &r = s.renderbuffers.at(3);
    EXPECT_EQ(static_cast<GLenum>(GL_DEPTH24_STENCIL8), r.internalFormat);
    EXPECT_EQ(64, r.width);
    EXPECT_EQ(32, r.height);
    EXPECT_EQ(4, r.samples);
}

// ---- Programs -----------------------------------------------------------------------------------

class ContextStatePrograms : public ContextStateDeletion {};

TEST_F(ContextStatePrograms, DeletedShadersAndProgramsLiveWhileInUse) {
    auto &shared = s.shared();
    shared.shaders[1].type = GL_VERTEX_SHADER;
    shared.shaders[2].type = GL_FRAGMENT_SHADER;
    shared.programs[10];
    s.attachShader(10, 1);
    s.attachShader(10, 2);
    s.attachShader(10, 2);
    EXPECT_EQ(2u, shared.programs.at(10).shaders.size());

    s.deleteShader(1);
    ASSERT_EQ(1u, shared.shaders.count(1));
    EXPECT_TRUE(shared.shaders.at(1).deleted);
    s.detachShader(10, 1);
    EXPECT_EQ(0u, shared.shaders.count(1));

    s.useProgram(10);
    s.deleteShader(2);
    s.deleteProgram(10);
    ASSERT_EQ(1u, shared.programs.count(10));
    EXPECT_TRUE(shared.programs.at(10).deleted);
    EXPECT_EQ(1u, shared.shaders.count(2));
    s.useProgram(0);
    EXPECT_EQ(0u, shared.programs.count(10));
    EXPECT_EQ(0u, shared.shaders.count(2));
}

TEST_F(ContextStatePrograms, ArrayUniformValuesNeverOverlap) {
    auto words = [](std::initializer_list<uint32_t> w) { return std::vector<uint32_t>(w); };
    s.useProgram(3);
    s.setUniform(0, 2, 1, 4, GL_FALSE, words({10, 11, 12, 13}));
    s.setUniform(0, 3, 2, 1, GL_FALSE, words({21}));
    const auto &uniforms = s.shared().programs.at(3).uniforms;
    ASSERT_EQ(3u, uniforms.size());
    EXPECT_EQ(words({10}), uniforms.at(2).words);
    EXPECT_EQ(1, uniforms.at(2).count);
    EXPECT_EQ(words({21}), uniforms.at(3).words);
    EXPECT_EQ(2u, uniforms.at(3).call);
    EXPECT_EQ(words({12, 13}), uniforms.at(4).words);
    EXPECT_EQ(2, uniforms.at(4).count);

    // Two-word elements, starting before the kept values and ending inside the last of them.
    s.setUniform(0, 1, 5, 4, GL_TRUE, words({1, 1, 2, 2, 3, 3, 4, 4}));
    ASSERT_EQ(2u, uniforms.size());
    EXPECT_EQ(4, uniforms.at(1).count);
    EXPECT_EQ(GL_TRUE, uniforms.at(1).transpose);
    EXPECT_EQ(words({13}), uniforms.at(5).words);
    EXPECT_EQ(1, uniforms.at(5).count);

    s.linkProgram(3);
    EXPECT_TRUE(uniforms.empty());
    // No location, or no program: nothing kept.
    s.setUniform(0, -1, 1, 1, GL_FALSE, words({1}));
    s.useProgram(0);
    s.setUniform(0, 0, 1, 1, GL_FALSE, words({1}));
    EXPECT_TRUE(uniforms.empty());
    EXPECT_EQ(1u, s.shared().programs.size());
}

TEST_F(ContextStatePrograms, UniformsReachThePipelinesActiveProgram) {
    s.programPipelineBinding = 4;
    s.programPipelines[4].activeProgram = 8;
    s.setUniform(0, 0, 1, 1, GL_FALSE, {7});
    EXPECT_EQ(1u, s.shared().programs.at(8).uniforms.count(0));
    s.useProgram(9); // a program in use comes first
    s.setUniform(0, 0, 1, 1, GL_FALSE, {7});
    EXPECT_EQ(1u, s.shared().programs.at(9).uniforms.count(0));
}

TEST_F(ContextStatePrograms, QueriesAreActiveBetweenBeginAndEnd) {
    s.beginQuery(GL_ANY_SAMPLES_PASSED, 5);
    s.beginQuery(GL_TRANSFORM_FEEDBACK_PRIMITIVES_WRITTEN, 6);
    EXPECT_EQ(static_cast<GLenum>(GL_ANY_SAMPLES_PASSED), s.shared().queries.at(5).activeTarget);
    s.endQuery(GL_ANY_SAMPLES_PASSED);
    EXPECT_EQ(0u, s.shared().queries.at(5).activeTarget);
    EXPECT_EQ(0u, s.activeQueries.count(GL_ANY_SAMPLES_PASSED));
    s.deleteQuery(6);
    EXPECT_TRUE(s.activeQueries.empty());
    EXPECT_EQ(0u, s.shared().queries.count(6));
}

} // namespace
} // namespace kv
