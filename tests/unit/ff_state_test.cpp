// The fixed-function shadow of OpenGL ES 1 contexts: the update rules of CFFContextState, checked
// against values worked out by hand from the GL ES 1.1 rules. Only what the ES1 programs of
// tests/integration do not reach, or a quirk, is here: es1_oes_test.sh starts their
// traces late (share groups, lights, buffers, client arrays, OES framebuffer objects) and replays
// them to the pixels the programs drew.
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

TEST(FFState, TheMatrixPaletteAndTheOesFixedPointFunctions) {
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
