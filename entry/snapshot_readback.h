// Reading back the texels of textures that a framebuffer cannot read with glReadPixels (luminance,
// alpha, depth, stencil, packed, float and integer formats) for the render-state snapshot: a helper
// program fetches each texel and writes its bits unchanged into a 32-bit unsigned integer colour
// target, so nothing is lost on the way, and the bits are then packed in the upload's own format.
#pragma once

#include "api/khronos.h"

#include <cstdint>
#include <vector>

namespace kv::snapshot {

// How the texels of one internal format are fetched and uploaded again.
struct ShaderLayout {
    enum class Sample : uint8_t { Float, Int, Uint, Stencil };
    enum class Pack : uint8_t {
        Unorm8,  // channels as bytes (0..1 scaled to 0..255)
        Float32, // channels as floats
        Int8,    // channels as 8-, 16- or 32-bit integers
        Int16,
        Int32,
        Depth16,  // GL_UNSIGNED_SHORT
        Depth24,  // GL_UNSIGNED_INT, 24 bits of depth in the top bits
        Depth32F, // GL_FLOAT
        Depth24Stencil8,
        Depth32FStencil8,
        Stencil8,
        Short565, // GL_UNSIGNED_SHORT_5_6_5 and the other packed types of unsized formats
        Short4444,
        Short5551,
    };
    Sample sample = Sample::Float;
    Pack pack = Pack::Unorm8;
    GLenum format = 0, type = 0; // of the upload
    // The fetched channels the upload takes, in order (0 = r ... 3 = a).
    uint8_t channels[4] = {0, 1, 2, 3};
    uint8_t channelCount = 4;
    bool withStencil = false; // a combined depth and stencil format: the stencil is read separately
};

// The layout for a texture of `internalFormat` whose level 0 was given as `format`/`type` (unsized
// formats); false when the texels cannot be read this way.
bool shaderLayout(GLenum internalFormat, GLenum format, GLenum type, ShaderLayout &out);

// How the driver turns a stored 24-bit depth k into the float a shader sees: k / (2^24 - 1)
// rounded once; k times the float nearest 1 / (2^24 - 1) in float arithmetic; or k times 2^-24.
// Near 1.0 they give one float for different k, so the way back depends on which the driver does.
enum class Depth24 : uint8_t { Divided, Multiplied, PowerOfTwo };
float depth24Float(uint32_t k, Depth24 conversion);

// Packs fetched texels (four words per texel; `stencil` one word per texel or empty) into the
// bytes of the upload.
std::vector<uint8_t> packTexels(const ShaderLayout &l, const std::vector<uint32_t> &texels,
                                const std::vector<uint32_t> &stencil, size_t count,
                                Depth24 depth24 = Depth24::Divided);

// The helper program and the host state it changes. Made on the thread whose context is current
// when the snapshot reads; everything it changes is given back by finish().
class ShaderReader {
public:
    ShaderReader() = default;
    ~ShaderReader() { finish(); }
    ShaderReader(const ShaderReader &) = delete;
    ShaderReader &operator=(const ShaderReader &) = delete;

    // Whether the current host context can run the helper (OpenGL ES 3.0 or later, no transform
    // feedback in progress, a current program that survives being replaced). Saves the host state
    // on the first call.
    bool usable();
    // Fetches `layers` layers (3D and array textures), or the face `imageTarget` (cube maps), of
    // one level: four words per texel, rows from the bottom. `stencil` reads the stencil of a
    // combined depth-stencil texture instead of its depth (OpenGL ES 3.1 drivers).
    bool read(GLuint texture, GLenum target, GLenum imageTarget, GLint level, GLsizei width, GLsizei height,
              GLsizei layers, ShaderLayout::Sample sample, std::vector<uint32_t> &out);
    // Which way the driver gives 24-bit depths (learnt once from a texture of known depths).
    Depth24 depth24();
    // Gives back every host setting it changed and deletes its objects.
    void finish();

private:
    GLuint program(GLenum target, ShaderLayout::Sample sample);
    bool prepareTarget(GLsizei width, GLsizei height);

    bool checked_ = false, usable_ = false;
    bool depthKnown_ = false;
    Depth24 depth24_ = Depth24::Divided;
    int minor_ = 0;
    struct Program {
        GLenum target;
        ShaderLayout::Sample sample;
        GLuint name;
    };
    std::vector<Program> programs_;
    GLuint vao_ = 0, sampler_ = 0, framebuffer_ = 0, renderbuffer_ = 0;
    GLsizei targetWidth_ = 0, targetHeight_ = 0;
    // Saved host state.
    GLint program_ = 0, activeTexture_ = 0, vaoBinding_ = 0, sampler0_ = 0, drawFramebuffer_ = 0,
          readFramebuffer_ = 0, renderbufferBinding_ = 0;
    GLint viewport_[4] = {0, 0, 0, 0};
    GLboolean colorMask_[4] = {GL_TRUE, GL_TRUE, GL_TRUE, GL_TRUE};
    GLint textures_[4] = {0, 0, 0, 0}; // unit 0: 2D, cube, 3D, 2D array
    std::vector<std::pair<GLenum, GLboolean>> capabilities_;
};

} // namespace kv::snapshot
