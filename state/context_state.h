// The shadow of an OpenGL ES 2.0 - 3.2 context that recording needs: bindings, pipeline settings,
// framebuffer attachments, vertex array objects, and, per share group, what exists of each shared
// object kind with what it takes to re-create it. Updated from the arguments of the calls that pass
// through the wrappers, after the host call returned, under the state lock.
#pragma once

#include "core/api/khronos.h"
#include "core/shared_ptr.h"
#include "platform/platform.h"

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace kv {

// Bytes of one component of a GL type: 1, 2, 4 or 8; 0 for a type that is not a component type.
uint32_t componentTypeSize(GLenum type);

// The process-wide lock for every shadow state update and every reader of the shadow state.
platform::Mutex &stateLock();

struct AttributeRecord {
    bool enabled = false;
    uint32_t index = 0;
    uint32_t normalized = 0;
    int32_t size = 4;
    GLenum type = GL_FLOAT;
    uint32_t relativeOffset = 0;
    uint32_t integer = 0;
    // The value of a constant attribute (glVertexAttrib*).
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
};

struct FramebufferRecord {
    AttachmentSlot depth;
    AttachmentSlot stencil;
    AttachmentSlot depthStencil;
    AttachmentSlot color[16];
    std::vector<GLenum> drawBuffers;
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

class CEs2ContextState {
public:
    // Objects the contexts of one share group have in common.
    struct SEs2Resources {
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
        struct Texture {
            GLenum target = 0;
            std::map<GLenum, std::vector<uint32_t>> parameters; // raw words as given
            bool immutable = false;
            GLsizei levels = 0;
            GLenum internalFormat = 0;
            GLsizei width = 0, height = 0, depth = 0;
            // Compressed images as uploaded, by (target, level).
            std::map<std::pair<GLenum, GLint>, std::vector<uint8_t>> compressed;
        };
        struct Shader {
            GLenum type = 0;
            std::string source;
            bool compiled = false;
            bool deleted = false;
        };
        struct Uniform {
            GLenum call = 0; // the catalogue id of the glUniform* call that set it
            GLsizei count = 0;
            GLboolean transpose = GL_FALSE;
            std::vector<uint32_t> words;
        };
        struct Program {
            std::vector<GLuint> shaders;
            std::map<std::string, GLuint> attributeBindings;
            std::vector<std::string> feedbackVaryings;
            GLenum feedbackMode = 0;
            std::map<GLint, Uniform> uniforms;
            std::map<GLuint, GLuint> uniformBlockBindings;
            bool linked = false;
            bool deleted = false;
        };
        struct Sampler {
            std::map<GLenum, std::vector<uint32_t>> parameters;
        };
        struct Query {
            GLenum activeTarget = 0; // non-zero while a query of this name is active
        };
        struct TransformFeedback {
            bool active = false;
            bool paused = false;
        };
        struct Sync {
            GLenum condition = 0;
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

    // The buffer bound to a target (GL_ELEMENT_ARRAY_BUFFER: the current vertex array object's).
    GLuint &bufferBinding(GLenum target);
    GLuint framebufferBinding(GLenum target) const;
    void bindFramebuffer(GLenum target, GLuint name);
    void bindTexture(GLenum target, GLuint name);
    GLuint boundTexture(GLenum target);
    void setCapability(GLenum cap, bool enabled) { capabilities[cap] = enabled; }
    void setPixelStore(GLenum pname, GLint value);
    GLint pixelStore(GLenum pname) const;
    void setHint(GLenum target, GLenum mode);
    VaoRecord &currentVao();
    void bindVertexArray(GLuint name);
    void setVertexAttribPointer(GLuint index, GLint size, GLenum type, GLboolean normalized, GLsizei stride,
                                const void *pointer, bool integer);
    void setConstantAttribute(GLuint index, uint32_t components, GLenum type, const void *values);
    FramebufferRecord *framebuffer(GLuint name);
    // The attachment slot for an attachment point of the framebuffer bound to `target`, or null.
    AttachmentSlot *attachmentSlot(GLenum target, GLenum attachment);

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
    // ES3: indexed buffer bindings (uniform, transform feedback, atomic counter, storage).
    std::map<std::pair<GLenum, GLuint>, IndexedBinding> indexedBindings;
    std::map<GLuint, GLuint> samplerBindings; // unit -> sampler
    std::map<GLenum, GLuint> activeQueries;   // target -> query
    GLuint transformFeedbackBinding = 0;
    GLuint programPipelineBinding = 0;
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
    SharedPtr<SEs2Resources> resources_;
    uint32_t apiVersion_ = 2;
};

} // namespace kv
