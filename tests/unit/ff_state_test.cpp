// The fixed-function shadow of OpenGL ES 1 contexts: its share groups and the update rules of
// CFFContextState, checked against values worked out by hand from the GL ES 1.1 rules.
#include "state/egl_state.h"
#include "state/ff_state.h"

#include <gtest/gtest.h>

#include <cstring>
#include <vector>

namespace kv {
namespace {

uint64_t f(float v) {
    uint32_t bits;
    std::memcpy(&bits, &v, 4);
    return bits;
}

// Applies call `id` with slot arguments and, optionally, the values it points at.
void call(CFFContextState &s, uint16_t id, std::vector<uint64_t> args, const void *data = nullptr,
          uint64_t bytes = 0) {
    args.resize(10);
    uint32_t argument = 0;
    EXPECT_EQ(bytes, CFFContextState::pointedBytes(id, args.data(), &argument)) << id;
    s.apply(id, args.data(), data, bytes);
}

TEST(FFState, SharesBuffersAndTexturesWithinItsShareGroupOnly) {
    const EGLint v1[] = {EGL_CONTEXT_CLIENT_VERSION, 1, EGL_NONE};
    EGLDisplay dpy = reinterpret_cast<EGLDisplay>(0x7e571000u);
    auto first = egl::addContext(dpy, nullptr, EGL_NO_CONTEXT, reinterpret_cast<EGLContext>(0x7c0f1), v1, {});
    auto second =
        egl::addContext(dpy, nullptr, first->context, reinterpret_cast<EGLContext>(0x7c0f2), v1, {});
    auto alone = egl::addContext(dpy, nullptr, EGL_NO_CONTEXT, reinterpret_cast<EGLContext>(0x7c0f3), v1, {});
    ASSERT_TRUE(first->es1 && second->es1 && alone->es1);
    EXPECT_FALSE(first->es2);
    EXPECT_EQ(&first->es1->shared(), &second->es1->shared());
    EXPECT_NE(&first->es1->shared(), &alone->es1->shared());
}

TEST(FFState, MatrixStacksFollowTheMatrixCalls) {
    CFFContextState s;
    EXPECT_EQ(0x1700u, s.matrixMode);
    call(s, 3113, {});                                    // glPushMatrix
    call(s, 3141, {f(1), f(2), f(3)});                    // glTranslatef
    call(s, 3119, {f(2), f(2), f(2)});                    // glScalef
    call(s, 3116, {uint64_t(90 << 16), 0, 0, 1 << 16});   // glRotatex 90 degrees about z
    const CFFContextState::Matrix &m = s.currentMatrix(); // T * S * R, column-major
    EXPECT_NEAR(0.0f, m[0], 1e-6f);
    EXPECT_NEAR(2.0f, m[1], 1e-6f);
    EXPECT_NEAR(-2.0f, m[4], 1e-6f);
    EXPECT_NEAR(2.0f, m[10], 1e-6f);
    EXPECT_EQ(1.0f, m[12]);
    EXPECT_EQ(3.0f, m[14]);
    call(s, 3112, {}); // glPopMatrix
    EXPECT_EQ(CFFContextState::identity(), s.currentMatrix());
    call(s, 3112, {}); // an underflow leaves the stack alone, as the driver does
    EXPECT_EQ(1u, s.modelviewStack.size());

    call(s, 3093, {0x1701});                               // glMatrixMode(GL_PROJECTION)
    call(s, 3047, {f(-1), f(1), f(-1), f(1), f(1), f(3)}); // glFrustumf
    EXPECT_EQ(-2.0f, s.projectionStack.back()[10]);        // -(f + n) / (f - n)
    EXPECT_EQ(-3.0f, s.projectionStack.back()[14]);        // -2fn / (f - n)
    EXPECT_EQ(CFFContextState::identity(), s.modelviewStack.back());

    // Texture matrices belong to the active texture unit.
    call(s, 3093, {0x1702});
    call(s, 3001, {GL_TEXTURE1});
    const float matrix[16] = {2, 0, 0, 0, 0, 2, 0, 0, 0, 0, 2, 0, 0, 0, 0, 1};
    call(s, 3086, {0}, matrix, 64); // glLoadMatrixf
    EXPECT_EQ(2.0f, s.units[1].matrixStack.back()[0]);
    EXPECT_EQ(1.0f, s.units[0].matrixStack.back()[0]);
}

TEST(FFState, FixedPointFormsScaleNumbersButNotEnums) {
    CFFContextState s;
    call(s, 3131, {0x2300, 0x2200, 0x0BE2}); // glTexEnvx(GL_TEXTURE_ENV, GL_TEXTURE_ENV_MODE, GL_BLEND)
    EXPECT_EQ(float(0x0BE2), (s.units[0].environment[{0x2300u, 0x2200u}][0]));
    const GLfixed color[4] = {0x8000, 0x4000, 0, 0x10000};
    call(s, 3132, {0x2300, 0x2201}, color, 16); // glTexEnvxv(GL_TEXTURE_ENV_COLOR)
    EXPECT_EQ(0.5f, (s.units[0].environment[{0x2300u, 0x2201u}][0]));
    EXPECT_EQ(0.25f, (s.units[0].environment[{0x2300u, 0x2201u}][1]));
    call(s, 3044, {0x0B65, 0x2601}); // glFogx(GL_FOG_MODE, GL_LINEAR)
    EXPECT_EQ(0x2601u, s.fogMode);
    call(s, 3044, {0x0B64, 0x28000}); // glFogx(GL_FOG_END, 2.5)
    EXPECT_EQ(2.5f, s.fogEnd);
    call(s, 3019, {255, 0, 51, 255}); // glColor4ub
    EXPECT_EQ(0.2f, s.currentColor[2]);
}

TEST(FFState, LightsKeepTheModelviewTheirPositionWasGivenWith) {
    CFFContextState s;
    EXPECT_EQ(1.0f, s.lights[0].diffuse[0]);
    EXPECT_EQ(0.0f, s.lights[1].diffuse[0]);
    call(s, 3141, {f(0), f(0), f(-5)});
    const float position[4] = {1, 2, 3, 1};
    call(s, 3080, {0x4001, 0x1203}, position, 16); // glLightfv(GL_LIGHT1, GL_POSITION)
    EXPECT_EQ(3.0f, s.lights[1].position.value[2]);
    EXPECT_EQ(-5.0f, s.lights[1].position.modelview[14]);
    const float direction[3] = {0, 1, 0};
    call(s, 3080, {0x4001, 0x1204}, direction, 12); // GL_SPOT_DIRECTION: three values
    EXPECT_EQ(1.0f, s.lights[1].spotDirection.value[1]);
}

TEST(FFState, BuffersKeepTheirContentsAndClientArraysTheirBuffer) {
    CFFContextState s;
    call(s, 3004, {GL_ELEMENT_ARRAY_BUFFER, 7});
    const uint8_t data[6] = {1, 2, 3, 4, 5, 6};
    call(s, 3007, {GL_ELEMENT_ARRAY_BUFFER, 6, 1, GL_STATIC_DRAW}, data, 6);
    const uint8_t patch[2] = {9, 9};
    call(s, 3008, {GL_ELEMENT_ARRAY_BUFFER, 4, 2, 1}, patch, 2);
    EXPECT_EQ((std::vector<uint8_t>{1, 2, 3, 4, 9, 9}), s.shared().buffers[7].contents);

    call(s, 3004, {GL_ARRAY_BUFFER, 8});
    call(s, 3143, {3, GL_FLOAT, 0, 0x10}); // glVertexPointer into buffer 8
    call(s, 3004, {GL_ARRAY_BUFFER, 0});
    call(s, 3015, {GL_TEXTURE1});             // glClientActiveTexture
    call(s, 3126, {2, GL_SHORT, 12, 0x5000}); // glTexCoordPointer from client memory
    call(s, 3039, {0x8078});                  // glEnableClientState(GL_TEXTURE_COORD_ARRAY)
    EXPECT_EQ(8u, s.array(kFFVertexArray)->buffer);
    const CFFContextState::ClientArray *coords = s.array(kFFTexCoordArray + 1);
    EXPECT_TRUE(coords->enabled && coords->buffer == 0);
    EXPECT_EQ(4u, coords->elementBytes());
    EXPECT_EQ(12u, coords->step());
    EXPECT_FALSE(s.array(kFFTexCoordArray)->enabled);

    const GLuint names[1] = {8};
    call(s, 3028, {1}, names, 4); // glDeleteBuffers
    EXPECT_EQ(0u, s.shared().buffers.count(8));
}

TEST(FFState, ExtensionCallsOfAnEs1ContextKeepTheirObjectsAndMatrices) {
    CFFContextState s;
    // The matrix palette: each palette matrix is its own matrix, changed in its matrix mode.
    call(s, 3093, {0x8840});           // glMatrixMode(GL_MATRIX_PALETTE_OES)
    call(s, 4011, {2});                // glCurrentPaletteMatrixOES(2)
    call(s, 3119, {f(3), f(3), f(3)}); // glScalef
    EXPECT_EQ(3.0f, s.palette[2].back()[0]);
    EXPECT_EQ(CFFContextState::identity(), s.modelviewStack.back());
    call(s, 3093, {0x1700});
    call(s, 3141, {f(5), 0, 0}); // glTranslatef on the modelview
    call(s, 4011, {1});
    call(s, 4012, {}); // glLoadPaletteFromModelViewMatrixOES
    EXPECT_EQ(5.0f, s.palette[1].back()[12]);
    EXPECT_EQ(3.0f, s.palette[2].back()[0]);
    call(s, 4013, {3, GL_UNSIGNED_BYTE, 4, 0x5000}); // glMatrixIndexPointerOES
    call(s, 4014, {3, GL_FLOAT, 12, 0x6000});        // glWeightPointerOES
    EXPECT_EQ(3, s.array(kFFMatrixIndexArray)->size);
    EXPECT_EQ(reinterpret_cast<const void *>(0x6000), s.array(kFFWeightArray)->pointer);
    EXPECT_EQ(12u, s.array(kFFWeightArray)->step());

    // Framebuffer objects: storage, attachments, and what deleting the attached objects leaves.
    call(s, 4016, {0x8D41, 7});                    // glBindRenderbufferOES
    call(s, 4019, {0x8D41, 0x81A5, 32, 16});       // glRenderbufferStorageOES(DEPTH_COMPONENT16)
    call(s, 4022, {0x8D40, 3});                    // glBindFramebufferOES
    call(s, 4026, {0x8D40, 0x8CE0, 0x0DE1, 9, 0}); // glFramebufferTexture2DOES(COLOR_ATTACHMENT0)
    call(s, 4027, {0x8D40, 0x8D00, 0x8D41, 7});    // glFramebufferRenderbufferOES(DEPTH_ATTACHMENT)
    auto &objects = s.shared();
    EXPECT_EQ(32, objects.renderbuffers[7].width);
    EXPECT_EQ(0x81A5u, objects.renderbuffers[7].internalFormat);
    EXPECT_EQ(9u, objects.framebuffers[3].attachments[0x8CE0].name);
    EXPECT_EQ(0x8D41u, objects.framebuffers[3].attachments[0x8D00].type);
    const GLuint seven = 7, three = 3;
    call(s, 4017, {1, 0}, &seven, 4); // glDeleteRenderbuffersOES
    EXPECT_EQ(0u, s.renderbufferBinding);
    EXPECT_EQ(0u, objects.framebuffers[3].attachments[0x8D00].type);
    EXPECT_EQ(9u, objects.framebuffers[3].attachments[0x8CE0].name);
    call(s, 4023, {1, 0}, &three, 4); // glDeleteFramebuffersOES
    EXPECT_EQ(0u, s.framebufferBinding);
    EXPECT_EQ(0u, objects.framebuffers.count(3));

    // The OES fixed-point functions are the ES1 ones.
    EXPECT_EQ(3003u, CFFContextState::coreEquivalent(4042)); // glAlphaFuncxOES
    EXPECT_EQ(3142u, CFFContextState::coreEquivalent(4080)); // glTranslatexOES
    EXPECT_EQ(4026u, CFFContextState::coreEquivalent(4026));
    call(s, 4042, {GL_GREATER, 0x8000}); // glAlphaFuncxOES
    EXPECT_EQ(0.5f, s.alphaRef);
    EXPECT_FALSE(CFFContextState::changesState(4052)); // glGetFixedvOES
}

} // namespace
} // namespace kv
