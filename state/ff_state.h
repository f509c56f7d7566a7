// The shadow of an OpenGL ES 1.x context: the fixed-function state its calls set, with the GL ES
// 1.1 initial values, and per share group the buffers and textures its contexts share. Updated
// from the arguments of the ES1 calls after the host call succeeded, under the state lock
// (state/context_state.h); the values a call points at are copied guarded by the caller.
#pragma once

#include "api/khronos.h"
#include "base/shared_ptr.h"

#include <array>
#include <cstdint>
#include <map>
#include <vector>

namespace kv {

// The keys under which a fixed-function draw records its client arrays (in place of the attribute
// index of an ES2 draw): texture coordinates of client texture unit u are kFFTexCoordArray + u.
enum FFArrayKey : uint32_t {
    kFFVertexArray = 0,
    kFFNormalArray = 1,
    kFFColorArray = 2,
    kFFPointSizeArray = 3,
    kFFMatrixIndexArray = 4,
    kFFWeightArray = 5,
    kFFTexCoordArray = 8,
};

class CFFContextState {
public:
    static constexpr uint32_t kTextureUnits = 8;
    static constexpr uint32_t kLights = 8;
    static constexpr uint32_t kClipPlanes = 6;

    using Matrix = std::array<float, 16>;
    static Matrix identity();

    struct SEs1Resources {
        struct Buffer {
            std::vector<uint8_t> contents; // what glBufferData and glBufferSubData put there
            GLenum usage = GL_STATIC_DRAW;
            // While the application holds the buffer mapped (glMapBufferOES): where. What it
            // wrote there is taken into `contents` when it unmaps.
            void *mapPointer = nullptr;
        };
        struct Level {
            GLenum internalFormat = 0, format = 0, type = 0;
            GLsizei width = 0, height = 0;
            bool compressed = false;
        };
        struct Texture {
            GLenum target = 0;
            std::map<GLenum, std::array<float, 4>> parameters;
            std::map<GLint, Level> levels;
        };
        // Objects of the OpenGL ES 1 framebuffer object extension; they come into being when first
        // bound, as the driver's do.
        struct Renderbuffer {
            GLenum internalFormat = 0;
            GLsizei width = 0, height = 0;
        };
        struct Attachment {
            GLenum type = 0; // GL_TEXTURE or GL_RENDERBUFFER; 0 for none
            GLuint name = 0;
            GLenum textureTarget = 0;
            GLint level = 0;
        };
        struct Framebuffer {
            std::map<GLenum, Attachment> attachments; // by attachment point
        };
        std::map<GLuint, Buffer> buffers;
        std::map<GLuint, Texture> textures;
        std::map<GLuint, Renderbuffer> renderbuffers;
        std::map<GLuint, Framebuffer> framebuffers;
        // Set while a snapshot is written once the first context of the group wrote these objects.
        bool saved = false;
    };

    struct ClientArray {
        bool enabled = false;
        GLint size = 4;
        GLenum type = GL_FLOAT;
        GLsizei stride = 0;
        const void *pointer = nullptr;
        GLuint buffer = 0; // bound to GL_ARRAY_BUFFER when the pointer was set
        // Bytes between consecutive elements as the driver reads them.
        uint32_t step() const;
        uint32_t elementBytes() const;
    };

    // A value set with the modelview matrix current then (lights' positions and directions and
    // clip planes are kept in eye coordinates by the driver): restoring the matrix first and then
    // the value gives the driver's state back.
    struct EyeValue {
        std::array<float, 4> value{};
        Matrix modelview = identity();
    };

    struct Light {
        std::array<float, 4> ambient{0, 0, 0, 1}, diffuse{0, 0, 0, 1}, specular{0, 0, 0, 1};
        EyeValue position, spotDirection;
        float spotExponent = 0, spotCutoff = 180, constantAttenuation = 1, linearAttenuation = 0,
              quadraticAttenuation = 0;
    };

    struct TextureUnit {
        GLuint binding2D = 0;
        bool enabled2D = false;
        std::map<std::pair<GLenum, GLenum>, std::array<float, 4>> environment; // (target, pname)
        std::vector<Matrix> matrixStack{identity()};
        std::array<float, 4> texCoord{0, 0, 0, 1};
        ClientArray texCoordArray;
    };

    CFFContextState();

    SharedPtr<SEs1Resources> &resources() { return resources_; }
    SEs1Resources &shared() { return *resources_; }

    // The OpenGL ES 1 call an extension function `id` stands for: the fixed-point functions of the
    // OES extension (glAlphaFuncxOES is glAlphaFuncx); `id` itself for any other.
    static uint16_t coreEquivalent(uint16_t id);

    // Updates the state for a successful ES1 call `id` (catalogue ids 3001-3145, and the extension
    // functions an ES1 context offers: framebuffer objects, matrix palette, mapped buffers) with its
    // arguments as 64-bit slots (base/slots.h) and the bytes it points at, already read (null
    // when they could not be read).
    void apply(uint16_t id, const uint64_t *args, const void *data, uint64_t bytes);
    // Whether call `id` changes anything apply() keeps (queries, draws and the like do not).
    static bool changesState(uint16_t id);
    // Which argument of call `id` points at what apply() needs, and how many bytes of it (0:
    // nothing).
    static uint64_t pointedBytes(uint16_t id, const uint64_t *args, uint32_t *argument);
    // The current matrix of the current matrix mode.
    Matrix &currentMatrix();
    TextureUnit &activeUnit() {
        return units[activeTexture - GL_TEXTURE0 < kTextureUnits ? activeTexture - GL_TEXTURE0 : 0];
    }
    TextureUnit &clientUnit() {
        return units[clientActiveTexture - GL_TEXTURE0 < kTextureUnits ? clientActiveTexture - GL_TEXTURE0
                                                                       : 0];
    }
    // The client array of a key (FFArrayKey); null for no such array.
    ClientArray *array(uint32_t key);
    GLuint bufferBinding(GLenum target) const;
    GLint pixelStore(GLenum pname) const {
        return pname == GL_PACK_ALIGNMENT ? packAlignment : unpackAlignment;
    }

    // The error the error check consumed and the application has not asked for yet.
    uint32_t pendingError = 0;
    // Whether the context has ever been current (a snapshot makes it current only then).
    bool everCurrent = false;

    // ---- Shadowed state, in the order a snapshot restores it -------------------------------------
    TextureUnit units[kTextureUnits];
    GLenum activeTexture = GL_TEXTURE0;
    GLenum clientActiveTexture = GL_TEXTURE0;
    std::map<GLenum, bool> capabilities; // glEnable / glDisable, except the units' GL_TEXTURE_2D
    GLenum alphaFunc = GL_ALWAYS;
    float alphaRef = 0;
    GLuint arrayBuffer = 0, elementArrayBuffer = 0;
    GLenum blendSrc = GL_ONE, blendDst = GL_ZERO;
    std::array<float, 4> clearColor{0, 0, 0, 0};
    float clearDepth = 1;
    GLint clearStencil = 0;
    EyeValue clipPlanes[kClipPlanes];
    std::array<float, 4> currentColor{1, 1, 1, 1};
    std::array<float, 3> currentNormal{0, 0, 1};
    std::array<bool, 4> colorMask{true, true, true, true};
    GLenum cullFace = GL_BACK;
    GLenum depthFunc = GL_LESS;
    bool depthMask = true;
    float depthRange[2] = {0, 1};
    GLenum fogMode = 0x0800; // GL_EXP
    float fogDensity = 1, fogStart = 0, fogEnd = 1;
    std::array<float, 4> fogColor{0, 0, 0, 0};
    GLenum frontFace = GL_CCW;
    std::map<GLenum, GLenum> hints;
    std::array<float, 4> lightModelAmbient{0.2f, 0.2f, 0.2f, 1};
    bool lightModelTwoSide = false;
    Light lights[kLights];
    float lineWidth = 1;
    GLenum logicOp = 0x1503; // GL_COPY
    std::array<float, 4> materialAmbient{0.2f, 0.2f, 0.2f, 1}, materialDiffuse{0.8f, 0.8f, 0.8f, 1},
        materialSpecular{0, 0, 0, 1}, materialEmission{0, 0, 0, 1};
    float materialShininess = 0;
    GLenum matrixMode = 0x1700; // GL_MODELVIEW
    std::vector<Matrix> modelviewStack{identity()};
    std::vector<Matrix> projectionStack{identity()};
    GLint packAlignment = 4, unpackAlignment = 4;
    // The largest point size starts as the driver's largest (unknown here: -1 until set).
    float pointSizeMin = 0, pointSizeMax = -1, pointFadeThreshold = 1;
    std::array<float, 3> pointDistanceAttenuation{1, 0, 0};
    float pointSize = 1;
    float polygonOffsetFactor = 0, polygonOffsetUnits = 0;
    float sampleCoverageValue = 1;
    bool sampleCoverageInvert = false;
    GLint scissor[4] = {0, 0, 0, 0};
    GLenum shadeModel = 0x1D01; // GL_SMOOTH
    GLenum stencilFunc = GL_ALWAYS;
    GLint stencilRef = 0;
    GLuint stencilValueMask = 0xFFFFFFFFu, stencilWriteMask = 0xFFFFFFFFu;
    GLenum stencilFail = GL_KEEP, stencilDepthFail = GL_KEEP, stencilDepthPass = GL_KEEP;
    GLint viewport[4] = {0, 0, 0, 0};
    // The matrix palette: a stack per palette matrix (made when first used), and the one that
    // glCurrentPaletteMatrixOES selects, which the matrix calls change in GL_MATRIX_PALETTE_OES mode.
    GLuint currentPaletteMatrix = 0;
    std::map<GLuint, std::vector<Matrix>> palette;
    GLuint framebufferBinding = 0, renderbufferBinding = 0;
    ClientArray vertexArray, normalArray, colorArray, pointSizeArray, matrixIndexArray, weightArray;

private:
    void texEnv(GLenum target, GLenum pname, const float *v, uint32_t n);
    void light(GLenum light, GLenum pname, const float *v, uint32_t n);
    void material(GLenum pname, const float *v, uint32_t n);
    void fog(GLenum pname, const float *v, uint32_t n);
    void pointParameter(GLenum pname, const float *v, uint32_t n);
    void lightModel(GLenum pname, const float *v, uint32_t n);
    void multiply(const Matrix &m);
    std::vector<Matrix> &currentStack();
    void deleteNames(uint16_t id, const uint32_t *names, uint32_t count);

    SharedPtr<SEs1Resources> resources_;
};

} // namespace kv
