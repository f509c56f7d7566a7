// The shadow of an OpenGL ES 2.0 - 3.2 context that recording needs: bindings, pipeline settings,
// framebuffer attachments, vertex array objects, and, per share group, what exists of each shared
// object kind with what it takes to re-create it. Updated from the arguments of the calls that pass
// through the wrappers, after the host call returned, under the state lock.
//
// Nothing here reads application memory: the hooks copy what a call points at (through the guarded
// copy) and hand the values over.
#pragma once

#include "api/khronos.h"
#include "base/shared_ptr.h"
#include "platform/platform.h"

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace kv {

// Bytes of one component of a GL type: 1, 2, 4 or 8; 0 for a type that is not a component type.
uint32_t componentTypeSize(GLenum type);

// The texture target an image target belongs to: a cube map face gives GL_TEXTURE_CUBE_MAP, any
// other target itself.
GLenum textureTargetOfImage(GLenum imageTarget);

// The process-wide lock for every shadow state update and every reader of the shadow state.
// Held for short updates on every state-changing call.
using StateLock = platform::SpinLock;
StateLock &stateLock();

// Holds the state lock for a long reader that also writes records (the render-state snapshot):
// the record writers that read the shadow on the same thread (StateReadGuard) then do not take the
// lock a second time.
class StateSnapshotLock {
public:
    StateSnapshotLock();
    ~StateSnapshotLock();
    StateSnapshotLock(const StateSnapshotLock &) = delete;
    StateSnapshotLock &operator=(const StateSnapshotLock &) = delete;
};

// Takes the state lock unless the calling thread holds it through a StateSnapshotLock.
class StateReadGuard {
public:
    StateReadGuard();
    ~StateReadGuard();
    StateReadGuard(const StateReadGuard &) = delete;
    StateReadGuard &operator=(const StateReadGuard &) = delete;

private:
    bool taken_;
};

struct AttributeRecord {
    bool enabled = false;
    uint32_t index = 0;
    uint32_t normalized = 0;
    int32_t size = 4;
    GLenum type = GL_FLOAT;
    uint32_t relativeOffset = 0;
    uint32_t integer = 0;
    // The value of a constant attribute (glVertexAttrib*): GL_FLOAT, GL_INT or GL_UNSIGNED_INT.
    uint32_t constantComponents = 0;
    GLenum constantType = GL_FLOAT;
    std::vector<uint32_t> constantValues; // raw 32-bit words
    GLuint sourceBuffer = 0;
};

struct BindingRecord {
    uint32_t index = 0;
    GLuint buffer = 0;
    uint64_t offset = 0;
    uint32_t stride = 0;
    uint32_t divisor = 0;
    const void *clientPointer = nullptr;
};

struct VaoRecord {
    GLuint elementArrayBuffer = 0;
    std::map<uint32_t, AttributeRecord> attributes;
    std::map<uint32_t, BindingRecord> bindings;
    std::map<uint32_t, uint32_t> attributeBinding;
};

struct AttachmentSlot {
    GLuint name = 0;
    GLint level = 0;
    GLenum textureTarget = 0;
    GLenum objectType = 0; // GL_TEXTURE or GL_RENDERBUFFER
    GLint layer = -1;      // a layer of a layered texture (glFramebufferTextureLayer)
    bool layered = false;  // the whole of a layered texture (glFramebufferTexture)
};

struct FramebufferRecord {
    AttachmentSlot depth;
    AttachmentSlot stencil;
    AttachmentSlot depthStencil;
    AttachmentSlot color[16];
    std::vector<GLenum> drawBuffers;    // empty until glDrawBuffers names them
    GLenum readBuffer = 0;              // 0 until glReadBuffer names one
    std::map<GLenum, GLint> parameters; // glFramebufferParameteri
};

struct RenderbufferRecord {
    GLenum internalFormat = 0;
    GLsizei width = 0;
    GLsizei height = 0;
    GLsizei samples = 0;
};

struct IndexedBinding {
    GLuint buffer = 0;
    int64_t offset = 0;
    int64_t size = 0; // 0: the whole buffer (glBindBufferBase)
};

struct ProgramPipelineRecord {
    std::map<GLbitfield, GLuint> stages; // one shader stage bit to the program that serves it
    GLuint activeProgram = 0;
};

class CEs2ContextState {
public:
    // Objects the contexts of one share group have in common.
    struct SEs2Resources {
        // A parameter of a texture or sampler as the application gave it: the catalogue id of the
        // call that set it (glTexParameteri, glTexParameterfv, glSamplerParameterIuiv, ...) and
        // its values as raw words.
        struct Parameter {
            uint16_t call = 0;
            std::vector<uint32_t> words;
        };
        struct Buffer {
            // The recorder's copy of the buffer's contents (buffer data, sub-data, and what the
            // application wrote through a mapping).
            std::vector<uint8_t> contents;
            GLenum usage = 0;
            bool immutable = false;
            // An open mapping.
            void *mapPointer = nullptr;
            int64_t mapOffset = 0;
            int64_t mapLength = 0;
            GLbitfield mapAccess = 0;
        };
        // A compressed image as uploaded by glCompressedTexImage2D/3D.
        struct CompressedImage {
            GLenum internalFormat = 0;
            GLsizei width = 0, height = 0, depth = 0;
            std::vector<uint8_t> data; // empty when the data came from a pixel unpack buffer
            bool fromBuffer = false;
        };
        // A later glCompressedTexSubImage2D/3D on one of them, in call order.
        struct CompressedUpdate {
            GLenum target = 0;
            GLint level = 0;
            GLint x = 0, y = 0, z = 0;
            GLsizei width = 0, height = 0, depth = 0;
            GLenum format = 0;
            std::vector<uint8_t> data;
            bool fromBuffer = false;
        };
        struct Texture {
            GLenum target = 0;
            std::map<GLenum, Parameter> parameters;
            // Immutable storage (glTexStorage*), or the latest level 0 image (glTexImage*,
            // glCopyTexImage2D, glCompressedTexImage*).
            bool immutable = false;
            GLsizei levels = 0;
            GLenum internalFormat = 0;
            GLsizei width = 0, height = 0, depth = 0;
            GLsizei samples = 0;
            bool fixedSampleLocations = true;
            GLenum format = 0, type = 0; // of an uncompressed level 0 image
            // Compressed images as uploaded, by (image target, level), and the sub-image updates
            // made on them since.
            std::map<std::pair<GLenum, GLint>, CompressedImage> compressed;
            std::vector<CompressedUpdate> compressedUpdates;
            // A buffer texture (glTexBuffer, glTexBufferRange; size 0: the whole buffer).
            GLuint buffer = 0;
            GLenum bufferFormat = 0;
            int64_t bufferOffset = 0, bufferSize = 0;
        };
        struct Shader {
            GLenum type = 0;
            std::string source;
            bool compiled = false;
            bool deleted = false; // deleted while attached to a program
        };
        struct Uniform {
            uint16_t call = 0; // the catalogue id of the glUniform* / glProgramUniform* call
            GLsizei count = 0;
            GLboolean transpose = GL_FALSE;
            std::vector<uint32_t> words; // count elements of equal size
        };
        struct Program {
            std::vector<GLuint> shaders;
            std::map<std::string, GLuint> attributeBindings;
            std::vector<std::string> feedbackVaryings;
            GLenum feedbackMode = 0;
            std::map<GLint, Uniform> uniforms;
            std::map<GLuint, GLuint> uniformBlockBindings;
            // The names the application looked locations and block indices up by
            // (glGetUniformLocation, glGetUniformBlockIndex), for finding them again elsewhere.
            std::map<GLint, std::string> uniformNames;
            std::map<GLuint, std::string> uniformBlockNames;
            std::map<GLenum, GLint> parameters; // glProgramParameteri
            bool linked = false;
            bool deleted = false; // deleted while in use
            // A program made whole by glCreateShaderProgramv (its stage and source), or loaded by
            // glProgramBinary.
            GLenum shaderProgramType = 0;
            std::string shaderProgramSource;
            GLenum binaryFormat = 0;
            std::vector<uint8_t> binary;
        };
        struct Sampler {
            std::map<GLenum, Parameter> parameters;
        };
        struct Query {
            GLenum activeTarget = 0; // non-zero while a query of this name is active
        };
        struct TransformFeedback {
            bool active = false;
            bool paused = false;
            GLenum primitiveMode = 0;
            // Its transform feedback buffer bindings by index: each object keeps its own.
            std::map<GLuint, IndexedBinding> buffers;
        };
        struct Sync {
            GLenum condition = 0;
            GLbitfield flags = 0;
        };

        std::map<GLuint, Program> programs;
        std::map<GLuint, Shader> shaders;
        std::map<GLuint, Buffer> buffers;
        std::map<GLuint, Texture> textures;
        std::map<GLuint, Sampler> samplers;
        std::map<GLuint, Query> queries;
        std::map<GLuint, TransformFeedback> transformFeedbacks;
        std::map<uint64_t, Sync> syncs;
        // Set once the snapshot wrote this share group's objects.
        bool saved = false;
    };

    CEs2ContextState();
    virtual ~CEs2ContextState();

    // Stores the API version code (2 = ES2, 3/4/5 = ES3.0/3.1/3.2) and sizes the live parts of the
    // pixel store and hint tables.
    void initialise(uint32_t apiVersion);

    SharedPtr<SEs2Resources> &resources() { return resources_; }
    SEs2Resources &shared() { return *resources_; }
    uint32_t apiVersion() const { return apiVersion_; }
    uint32_t majorVersion() const { return apiVersion_ >= 3 ? 3 : 2; }

    // ---- Bindings ---------------------------------------------------------------------------------

    // The buffer bound to a target (GL_ELEMENT_ARRAY_BUFFER: the current vertex array object's).
    GLuint &bufferBinding(GLenum target);
    GLuint framebufferBinding(GLenum target) const;
    void bindFramebuffer(GLenum target, GLuint name);
    void bindTexture(GLenum target, GLuint name);
    GLuint boundTexture(GLenum target);
    // The record of the texture bound to the texture target of `imageTarget` on the active unit;
    // null when none is bound.
    SEs2Resources::Texture *boundTextureRecord(GLenum imageTarget);
    // The program that glUniform* calls reach: the current program, else the active program of
    // the bound program pipeline.
    GLuint uniformProgram() const;

    // ---- Pipeline settings ------------------------------------------------------------------------

    void setCapability(GLenum cap, bool enabled);
    void setCapabilityIndexed(GLenum cap, GLuint index, bool enabled);
    void setPixelStore(GLenum pname, GLint value);
    GLint pixelStore(GLenum pname) const;
    void setHint(GLenum target, GLenum mode);
    void setBlendEquation(GLenum mode);
    void setBlendEquationSeparate(GLenum rgb, GLenum alpha);
    void setBlendFunc(GLenum src, GLenum dst);
    void setBlendFuncSeparate(GLenum srcRgb, GLenum dstRgb, GLenum srcAlpha, GLenum dstAlpha);
    // Keyed on `factor`: 32824.0 writes pair A, 10752.0 pair B; anything else changes nothing.
    void setPolygonOffset(float factor, float units);
    // `face` is GL_FRONT, GL_BACK or GL_FRONT_AND_BACK (the plain calls).
    void setStencilFunc(GLenum face, GLenum func, GLint ref, GLuint mask);
    void setStencilMask(GLenum face, GLuint mask);
    void setStencilOp(GLenum face, GLenum fail, GLenum depthFail, GLenum depthPass);

    // ---- Vertex arrays ----------------------------------------------------------------------------

    VaoRecord &currentVao();
    void bindVertexArray(GLuint name);
    void setVertexAttribPointer(GLuint index, GLint size, GLenum type, GLboolean normalized, GLsizei stride,
                                const void *pointer, bool integer);
    // A constant attribute value: `components` words of `type` (GL_FLOAT, GL_INT, GL_UNSIGNED_INT).
    void setConstantAttribute(GLuint index, uint32_t components, GLenum type, const uint32_t *words);
    void bindVertexBuffer(GLuint binding, GLuint buffer, int64_t offset, GLsizei stride);
    void setVertexAttribFormat(GLuint index, GLint size, GLenum type, GLboolean normalized,
                               GLuint relativeOffset, bool integer);
    void setVertexAttribBinding(GLuint index, GLuint binding);
    void setVertexBindingDivisor(GLuint binding, GLuint divisor);
    // glVertexAttribDivisor: the attribute takes the binding of its own index with that divisor.
    void setVertexAttribDivisor(GLuint index, GLuint divisor);

    // ---- Framebuffers and renderbuffers ----------------------------------------------------------

    FramebufferRecord *framebuffer(GLuint name);
    // The attachment slot for an attachment point of the framebuffer bound to `target`, or null.
    AttachmentSlot *attachmentSlot(GLenum target, GLenum attachment);
    void framebufferTexture2D(GLenum target, GLenum attachment, GLenum textureTarget, GLuint texture,
                              GLint level);
    void framebufferRenderbuffer(GLenum target, GLenum attachment, GLenum renderbufferTarget,
                                 GLuint renderbuffer);
    void framebufferTextureLayer(GLenum target, GLenum attachment, GLuint texture, GLint level, GLint layer);
    void framebufferTexture(GLenum target, GLenum attachment, GLuint texture, GLint level);
    // glDrawBuffers / glReadBuffer: the bound draw (read) framebuffer's, or the default one's.
    void setDrawBuffers(std::vector<GLenum> buffers);
    void setReadBuffer(GLenum buffer);
    // glRenderbufferStorage(Multisample) on the bound renderbuffer.
    void renderbufferStorage(GLsizei samples, GLenum internalFormat, GLsizei width, GLsizei height);

    // ---- Object deletion: the object goes, and so do this context's references to it -------------

    void deleteBuffer(GLuint name);
    void deleteTexture(GLuint name);
    void deleteFramebuffer(GLuint name);
    void deleteRenderbuffer(GLuint name);
    void deleteVertexArray(GLuint name);
    void deleteSampler(GLuint name);
    void deleteQuery(GLuint name);
    void deleteTransformFeedback(GLuint name);
    void deleteProgramPipeline(GLuint name);

    // ---- Programs and shaders ---------------------------------------------------------------------

    void useProgram(GLuint program);
    // A shader attached to a program lives on, flagged, until it is detached.
    void deleteShader(GLuint name);
    // A program in use by this context lives on, flagged, until another one is used.
    void deleteProgram(GLuint name);
    void attachShader(GLuint program, GLuint shader);
    void detachShader(GLuint program, GLuint shader);
    void linkProgram(GLuint program);
    // A uniform value of `program` (0: uniformProgram()); location -1 is no location. The
    // elements of an array uniform have consecutive locations: the values kept never overlap, a
    // new value takes its locations out of the values kept before.
    void setUniform(GLuint program, GLint location, uint16_t call, GLsizei count, GLboolean transpose,
                    const uint32_t *words, size_t wordCount);
    void setUniform(GLuint program, GLint location, uint16_t call, GLsizei count, GLboolean transpose,
                    const std::vector<uint32_t> &words) {
        setUniform(program, location, call, count, transpose, words.data(), words.size());
    }

    // ---- Queries and transform feedback -----------------------------------------------------------

    void beginQuery(GLenum target, GLuint query);
    void endQuery(GLenum target);
    // The transform feedback object bound now (0: the context's default one).
    SEs2Resources::TransformFeedback &currentTransformFeedback();

    // The error the error check consumed and the application has not asked for yet.
    uint32_t pendingError = 0;
    // Whether the context was ever current (the snapshot makes it current before restoring it).
    bool everCurrent = false;

    // ---- Shadowed state, in the order a snapshot restores it ------------------------------------
    GLenum activeTexture = GL_TEXTURE0;
    uint32_t blendEquationSeparate = 0;
    GLenum blendEquationRgb = GL_FUNC_ADD;
    GLenum blendEquationAlpha = GL_FUNC_ADD;
    float blendColor[4] = {0, 0, 0, 0};
    GLenum blendSrcRgb = GL_ONE, blendDstRgb = GL_ZERO, blendSrcAlpha = GL_ONE, blendDstAlpha = GL_ZERO;
    float clearColor[4] = {0, 0, 0, 0};
    float clearDepth = 1.0f;
    GLint clearStencil = 0;
    bool colorMask[4] = {true, true, true, true};
    GLenum cullFaceMode = GL_BACK;
    GLenum depthFunc = GL_LESS;
    bool depthMask = true;
    float depthRange[2] = {0.0f, 1.0f};
    GLenum frontFace = GL_CCW;
    std::map<uint32_t, std::map<GLenum, GLuint>> textureUnits;
    float polygonOffset[2] = {0, 0};
    bool programChanged = false;
    GLuint currentProgram = 0;
    float sampleCoverageValue = 1.0f;
    bool sampleCoverageInvert = false;
    GLint scissor[4] = {0, 0, 0, 0};
    std::map<GLuint, FramebufferRecord> framebuffers;
    GLuint drawFramebuffer = 0;
    GLuint readFramebuffer = 0;
    std::map<GLuint, RenderbufferRecord> renderbuffers;
    GLuint renderbufferBinding = 0;
    GLenum stencilFunc[2] = {GL_ALWAYS, GL_ALWAYS};
    GLint stencilRef[2] = {0, 0};
    GLuint stencilValueMask[2] = {0xFFFFFFFFu, 0xFFFFFFFFu};
    GLuint stencilWriteMask[2] = {0xFFFFFFFFu, 0xFFFFFFFFu};
    GLenum stencilFail[2] = {GL_KEEP, GL_KEEP};
    GLenum stencilDepthFail[2] = {GL_KEEP, GL_KEEP};
    GLenum stencilDepthPass[2] = {GL_KEEP, GL_KEEP};
    GLint viewport[4] = {0, 0, 0, 0};
    GLuint currentVaoName = 0;

    struct Pair {
        GLenum name;
        GLint value;
    };
    Pair pixelStores[10];
    uint32_t pixelStoreCount = 2;
    Pair hints[2];
    uint32_t hintCount = 2;
    std::map<GLenum, bool> capabilities;
    std::map<GLuint, VaoRecord> vaos;
    std::map<GLenum, GLuint> bufferBindings;

    // ---- Beyond the pipeline: settings the snapshot may restore -----------------------------------
    float lineWidth = 1.0f;
    // glEnablei / glDisablei; glEnable and glDisable of a capability override its entries.
    std::map<std::pair<GLenum, GLuint>, bool> indexedCapabilities;
    // The default framebuffer's draw and read buffers (glDrawBuffers / glReadBuffer while no
    // framebuffer object is bound); an empty list: never set.
    std::vector<GLenum> defaultDrawBuffers;
    GLenum defaultReadBuffer = 0;

    // ---- ES3 ----------------------------------------------------------------------------------
    // Indexed buffer bindings (uniform, transform feedback, atomic counter, storage).
    std::map<std::pair<GLenum, GLuint>, IndexedBinding> indexedBindings;
    std::map<GLuint, GLuint> samplerBindings; // unit -> sampler (no entry: none)
    std::map<GLenum, GLuint> activeQueries;   // target -> query
    GLuint transformFeedbackBinding = 0;
    SEs2Resources::TransformFeedback defaultTransformFeedback;
    GLuint programPipelineBinding = 0;
    std::map<GLuint, ProgramPipelineRecord> programPipelines;
    struct ImageUnit {
        GLuint texture = 0;
        GLint level = 0;
        GLboolean layered = GL_FALSE;
        GLint layer = 0;
        GLenum access = 0;
        GLenum format = 0;
    };
    std::map<GLuint, ImageUnit> imageUnits;

private:
    void fillSlot(GLenum target, GLenum attachment, GLenum objectType, GLuint name, GLint level,
                  GLenum textureTarget);
    void detachEverywhere(GLenum objectType, GLuint name);
    // Removes a shader flagged as deleted once no program holds it any more.
    void releaseShaderIfUnused(GLuint shader);

    SharedPtr<SEs2Resources> resources_;
    uint32_t apiVersion_ = 2;
};

} // namespace kv
