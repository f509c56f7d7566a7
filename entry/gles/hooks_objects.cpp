// Textures, samplers, framebuffers, renderbuffers, queries, transform feedback objects and syncs:
// what exists, how it is bound, and what it takes to make it again.
#include "entry/gles/hooks_state.h"
#include "entry/hooks.h"

#include <algorithm>

namespace kv {

using namespace gles;

namespace {

using Resources = CEs2ContextState::SEs2Resources;

// Values a texture or sampler parameter takes: four for the border colour, else one.
size_t parameterValues(GLenum pname) {
    return pname == GL_TEXTURE_BORDER_COLOR ? 4 : 1;
}

template <class T>
bool readParameter(const CallCtx &c, GLenum pname, const T *values, Resources::Parameter &out,
                   uint16_t call) {
    out.call = call;
    return accepted(c) && readWords(values, parameterValues(pname), out.words);
}

void setTextureParameter(CallCtx &c, GLenum target, GLenum pname, Resources::Parameter parameter) {
    updateState(c, [&](CEs2ContextState &s) {
        if (Resources::Texture *texture = s.boundTextureRecord(target))
            texture->parameters[pname] = std::move(parameter);
    });
}

void setSamplerParameter(CallCtx &c, GLuint sampler, GLenum pname, Resources::Parameter parameter) {
    updateState(c, [&](CEs2ContextState &s) {
        s.shared().samplers[sampler].parameters[pname] = std::move(parameter);
    });
}

// The buffer bound to a target, without making an entry for it.
GLuint boundBuffer(const CEs2ContextState &s, GLenum target) {
    auto it = s.bufferBindings.find(target);
    return it == s.bufferBindings.end() ? 0 : it->second;
}

// The latest level 0 image of a mutable texture.
void noteLevelZero(Resources::Texture &texture, GLint level, GLenum internalFormat, GLsizei width,
                   GLsizei height, GLsizei depth, GLenum format, GLenum type) {
    if (level != 0) return;
    texture.internalFormat = internalFormat;
    texture.width = width;
    texture.height = height;
    texture.depth = depth;
    texture.format = format;
    texture.type = type;
}

// A level specified anew: what was kept of its compressed data no longer holds.
void forgetCompressed(Resources::Texture &texture, GLenum target, GLint level) {
    texture.compressed.erase({target, level});
    auto &updates = texture.compressedUpdates;
    updates.erase(std::remove_if(updates.begin(), updates.end(),
                                 [&](const Resources::CompressedUpdate &u) {
                                     return u.target == target && u.level == level;
                                 }),
                  updates.end());
}

// The data of a compressed upload: kept unless it is read from a pixel unpack buffer.
bool compressedData(const CEs2ContextState &s, const void *data, GLsizei imageSize,
                    std::vector<uint8_t> &out) {
    out.clear();
    if (boundBuffer(s, GL_PIXEL_UNPACK_BUFFER) != 0) return true;
    if (imageSize > 0) readValues(static_cast<const uint8_t *>(data), static_cast<size_t>(imageSize), out);
    return false;
}

void compressedImage(CallCtx &c, GLenum target, GLint level, GLenum internalFormat, GLsizei width,
                     GLsizei height, GLsizei depth, GLsizei imageSize, const void *data) {
    updateState(c, [&](CEs2ContextState &s) {
        Resources::Texture *texture = s.boundTextureRecord(target);
        if (!texture) return;
        noteLevelZero(*texture, level, internalFormat, width, height, depth, 0, 0);
        forgetCompressed(*texture, target, level);
        Resources::CompressedImage &image = texture->compressed[{target, level}];
        image.internalFormat = internalFormat;
        image.width = width;
        image.height = height;
        image.depth = depth;
        image.fromBuffer = compressedData(s, data, imageSize, image.data);
    });
}

void compressedUpdate(CallCtx &c, Resources::CompressedUpdate update, GLsizei imageSize, const void *data) {
    updateState(c, [&](CEs2ContextState &s) {
        Resources::Texture *texture = s.boundTextureRecord(update.target);
        if (!texture) return;
        update.fromBuffer = compressedData(s, data, imageSize, update.data);
        auto image = texture->compressed.find({update.target, update.level});
        if (image != texture->compressed.end() && update.x == 0 && update.y == 0 && update.z == 0 &&
            update.width == image->second.width && update.height == image->second.height &&
            update.depth == image->second.depth) {
            // The whole image anew.
            Resources::CompressedImage whole = image->second;
            whole.data = std::move(update.data);
            whole.fromBuffer = update.fromBuffer;
            forgetCompressed(*texture, update.target, update.level);
            texture->compressed[{update.target, update.level}] = std::move(whole);
            return;
        }
        // An update of the same region replaces the one before.
        auto &updates = texture->compressedUpdates;
        updates.erase(std::remove_if(updates.begin(), updates.end(),
                                     [&](const Resources::CompressedUpdate &u) {
                                         return u.target == update.target && u.level == update.level &&
                                                u.x == update.x && u.y == update.y && u.z == update.z &&
                                                u.width == update.width && u.height == update.height &&
                                                u.depth == update.depth;
                                     }),
                      updates.end());
        updates.push_back(std::move(update));
    });
}

void textureStorage(CallCtx &c, GLenum target, GLsizei levels, GLsizei samples, GLenum internalFormat,
                    GLsizei width, GLsizei height, GLsizei depth, bool fixedSampleLocations) {
    updateState(c, [&](CEs2ContextState &s) {
        Resources::Texture *texture = s.boundTextureRecord(target);
        if (!texture) return;
        texture->immutable = true;
        texture->levels = levels;
        texture->samples = samples;
        texture->internalFormat = internalFormat;
        texture->width = width;
        texture->height = height;
        texture->depth = depth;
        texture->fixedSampleLocations = fixedSampleLocations;
        texture->format = texture->type = 0;
    });
}

void textureBuffer(CallCtx &c, GLenum target, GLenum internalFormat, GLuint buffer, int64_t offset,
                   int64_t size) {
    updateState(c, [&](CEs2ContextState &s) {
        Resources::Texture *texture = s.boundTextureRecord(target);
        if (!texture) return;
        texture->buffer = buffer;
        texture->bufferFormat = internalFormat;
        texture->bufferOffset = offset;
        texture->bufferSize = size;
    });
}

} // namespace

// ---- Textures ----------------------------------------------------------------------------------

void Hooks<fn::glGenTextures>::after(CallCtx &c, Void &, GLsizei n, GLuint *textures) {
    std::vector<GLuint> names;
    if (!readNames(c, n, textures, names)) return;
    updateState(c, [&](CEs2ContextState &s) {
        for (GLuint name : names)
            if (name) s.shared().textures[name];
    });
}

void Hooks<fn::glDeleteTextures>::after(CallCtx &c, Void &, GLsizei n, const GLuint *textures) {
    std::vector<GLuint> names;
    if (!readNames(c, n, textures, names)) return;
    updateState(c, [&](CEs2ContextState &s) {
        for (GLuint name : names)
            s.deleteTexture(name);
    });
}

void Hooks<fn::glActiveTexture>::after(CallCtx &c, Void &, GLenum texture) {
    updateState(c, [&](CEs2ContextState &s) { s.activeTexture = texture; });
}

void Hooks<fn::glBindTexture>::after(CallCtx &c, Void &, GLenum target, GLuint texture) {
    updateState(c, [&](CEs2ContextState &s) {
        s.bindTexture(target, texture);
        if (texture) {
            auto &record = s.shared().textures[texture];
            if (!record.target) record.target = target;
        }
    });
}

void Hooks<fn::glTexParameterf>::after(CallCtx &c, Void &, GLenum target, GLenum pname, GLfloat param) {
    setTextureParameter(c, target, pname, {fn::glTexParameterf::id, {word(param)}});
}
void Hooks<fn::glTexParameteri>::after(CallCtx &c, Void &, GLenum target, GLenum pname, GLint param) {
    setTextureParameter(c, target, pname, {fn::glTexParameteri::id, {word(param)}});
}
void Hooks<fn::glTexParameterfv>::after(CallCtx &c, Void &, GLenum target, GLenum pname,
                                        const GLfloat *params) {
    Resources::Parameter parameter;
    if (readParameter(c, pname, params, parameter, fn::glTexParameterfv::id))
        setTextureParameter(c, target, pname, std::move(parameter));
}
void Hooks<fn::glTexParameteriv>::after(CallCtx &c, Void &, GLenum target, GLenum pname,
                                        const GLint *params) {
    Resources::Parameter parameter;
    if (readParameter(c, pname, params, parameter, fn::glTexParameteriv::id))
        setTextureParameter(c, target, pname, std::move(parameter));
}
void Hooks<fn::glTexParameterIiv>::after(CallCtx &c, Void &, GLenum target, GLenum pname,
                                         const GLint *params) {
    Resources::Parameter parameter;
    if (readParameter(c, pname, params, parameter, fn::glTexParameterIiv::id))
        setTextureParameter(c, target, pname, std::move(parameter));
}
void Hooks<fn::glTexParameterIuiv>::after(CallCtx &c, Void &, GLenum target, GLenum pname,
                                          const GLuint *params) {
    Resources::Parameter parameter;
    if (readParameter(c, pname, params, parameter, fn::glTexParameterIuiv::id))
        setTextureParameter(c, target, pname, std::move(parameter));
}

void Hooks<fn::glTexImage2D>::after(CallCtx &c, Void &, GLenum target, GLint level, GLint internalFormat,
                                    GLsizei width, GLsizei height, GLint, GLenum format, GLenum type,
                                    const void *) {
    updateState(c, [&](CEs2ContextState &s) {
        Resources::Texture *texture = s.boundTextureRecord(target);
        if (!texture) return;
        noteLevelZero(*texture, level, static_cast<GLenum>(internalFormat), width, height, 1, format, type);
        forgetCompressed(*texture, target, level);
    });
}

void Hooks<fn::glTexImage3D>::after(CallCtx &c, Void &, GLenum target, GLint level, GLint internalFormat,
                                    GLsizei width, GLsizei height, GLsizei depth, GLint, GLenum format,
                                    GLenum type, const void *) {
    updateState(c, [&](CEs2ContextState &s) {
        Resources::Texture *texture = s.boundTextureRecord(target);
        if (!texture) return;
        noteLevelZero(*texture, level, static_cast<GLenum>(internalFormat), width, height, depth, format,
                      type);
        forgetCompressed(*texture, target, level);
    });
}

void Hooks<fn::glCopyTexImage2D>::after(CallCtx &c, Void &, GLenum target, GLint level, GLenum internalFormat,
                                        GLint, GLint, GLsizei width, GLsizei height, GLint) {
    updateState(c, [&](CEs2ContextState &s) {
        Resources::Texture *texture = s.boundTextureRecord(target);
        if (!texture) return;
        noteLevelZero(*texture, level, internalFormat, width, height, 1, 0, 0);
        forgetCompressed(*texture, target, level);
    });
}

void Hooks<fn::glCompressedTexImage2D>::after(CallCtx &c, Void &, GLenum target, GLint level,
                                              GLenum internalFormat, GLsizei width, GLsizei height, GLint,
                                              GLsizei imageSize, const void *data) {
    compressedImage(c, target, level, internalFormat, width, height, 1, imageSize, data);
}

void Hooks<fn::glCompressedTexImage3D>::after(CallCtx &c, Void &, GLenum target, GLint level,
                                              GLenum internalFormat, GLsizei width, GLsizei height,
                                              GLsizei depth, GLint, GLsizei imageSize, const void *data) {
    compressedImage(c, target, level, internalFormat, width, height, depth, imageSize, data);
}

void Hooks<fn::glCompressedTexSubImage2D>::after(CallCtx &c, Void &, GLenum target, GLint level, GLint x,
                                                 GLint y, GLsizei width, GLsizei height, GLenum format,
                                                 GLsizei imageSize, const void *data) {
    Resources::CompressedUpdate update;
    update.target = target;
    update.level = level;
    update.x = x;
    update.y = y;
    update.width = width;
    update.height = height;
    update.depth = 1;
    update.format = format;
    compressedUpdate(c, std::move(update), imageSize, data);
}

void Hooks<fn::glCompressedTexSubImage3D>::after(CallCtx &c, Void &, GLenum target, GLint level, GLint x,
                                                 GLint y, GLint z, GLsizei width, GLsizei height,
                                                 GLsizei depth, GLenum format, GLsizei imageSize,
                                                 const void *data) {
    Resources::CompressedUpdate update;
    update.target = target;
    update.level = level;
    update.x = x;
    update.y = y;
    update.z = z;
    update.width = width;
    update.height = height;
    update.depth = depth;
    update.format = format;
    compressedUpdate(c, std::move(update), imageSize, data);
}

void Hooks<fn::glTexStorage2D>::after(CallCtx &c, Void &, GLenum target, GLsizei levels,
                                      GLenum internalFormat, GLsizei width, GLsizei height) {
    textureStorage(c, target, levels, 0, internalFormat, width, height, 1, true);
}
void Hooks<fn::glTexStorage3D>::after(CallCtx &c, Void &, GLenum target, GLsizei levels,
                                      GLenum internalFormat, GLsizei width, GLsizei height, GLsizei depth) {
    textureStorage(c, target, levels, 0, internalFormat, width, height, depth, true);
}
void Hooks<fn::glTexStorage2DMultisample>::after(CallCtx &c, Void &, GLenum target, GLsizei samples,
                                                 GLenum internalFormat, GLsizei width, GLsizei height,
                                                 GLboolean fixedSampleLocations) {
    textureStorage(c, target, 1, samples, internalFormat, width, height, 1, fixedSampleLocations != GL_FALSE);
}
void Hooks<fn::glTexStorage3DMultisample>::after(CallCtx &c, Void &, GLenum target, GLsizei samples,
                                                 GLenum internalFormat, GLsizei width, GLsizei height,
                                                 GLsizei depth, GLboolean fixedSampleLocations) {
    textureStorage(c, target, 1, samples, internalFormat, width, height, depth,
                   fixedSampleLocations != GL_FALSE);
}

void Hooks<fn::glTexBuffer>::after(CallCtx &c, Void &, GLenum target, GLenum internalFormat, GLuint buffer) {
    textureBuffer(c, target, internalFormat, buffer, 0, 0);
}
void Hooks<fn::glTexBufferRange>::after(CallCtx &c, Void &, GLenum target, GLenum internalFormat,
                                        GLuint buffer, GLintptr offset, GLsizeiptr size) {
    textureBuffer(c, target, internalFormat, buffer, offset, size);
}

void Hooks<fn::glBindImageTexture>::after(CallCtx &c, Void &, GLuint unit, GLuint texture, GLint level,
                                          GLboolean layered, GLint layer, GLenum access, GLenum format) {
    updateState(c, [&](CEs2ContextState &s) {
        s.imageUnits[unit] = CEs2ContextState::ImageUnit{texture, level, layered, layer, access, format};
    });
}

// ---- Samplers ----------------------------------------------------------------------------------

void Hooks<fn::glGenSamplers>::after(CallCtx &c, Void &, GLsizei n, GLuint *samplers) {
    std::vector<GLuint> names;
    if (!readNames(c, n, samplers, names)) return;
    updateState(c, [&](CEs2ContextState &s) {
        for (GLuint name : names)
            if (name) s.shared().samplers[name];
    });
}

void Hooks<fn::glDeleteSamplers>::after(CallCtx &c, Void &, GLsizei n, const GLuint *samplers) {
    std::vector<GLuint> names;
    if (!readNames(c, n, samplers, names)) return;
    updateState(c, [&](CEs2ContextState &s) {
        for (GLuint name : names)
            s.deleteSampler(name);
    });
}

void Hooks<fn::glBindSampler>::after(CallCtx &c, Void &, GLuint unit, GLuint sampler) {
    updateState(c, [&](CEs2ContextState &s) {
        if (sampler == 0) {
            s.samplerBindings.erase(unit);
            return;
        }
        s.samplerBindings[unit] = sampler;
        s.shared().samplers[sampler];
    });
}

void Hooks<fn::glSamplerParameterf>::after(CallCtx &c, Void &, GLuint sampler, GLenum pname, GLfloat param) {
    setSamplerParameter(c, sampler, pname, {fn::glSamplerParameterf::id, {word(param)}});
}
void Hooks<fn::glSamplerParameteri>::after(CallCtx &c, Void &, GLuint sampler, GLenum pname, GLint param) {
    setSamplerParameter(c, sampler, pname, {fn::glSamplerParameteri::id, {word(param)}});
}
void Hooks<fn::glSamplerParameterfv>::after(CallCtx &c, Void &, GLuint sampler, GLenum pname,
                                            const GLfloat *params) {
    Resources::Parameter parameter;
    if (readParameter(c, pname, params, parameter, fn::glSamplerParameterfv::id))
        setSamplerParameter(c, sampler, pname, std::move(parameter));
}
void Hooks<fn::glSamplerParameteriv>::after(CallCtx &c, Void &, GLuint sampler, GLenum pname,
                                            const GLint *params) {
    Resources::Parameter parameter;
    if (readParameter(c, pname, params, parameter, fn::glSamplerParameteriv::id))
        setSamplerParameter(c, sampler, pname, std::move(parameter));
}
void Hooks<fn::glSamplerParameterIiv>::after(CallCtx &c, Void &, GLuint sampler, GLenum pname,
                                             const GLint *params) {
    Resources::Parameter parameter;
    if (readParameter(c, pname, params, parameter, fn::glSamplerParameterIiv::id))
        setSamplerParameter(c, sampler, pname, std::move(parameter));
}
void Hooks<fn::glSamplerParameterIuiv>::after(CallCtx &c, Void &, GLuint sampler, GLenum pname,
                                              const GLuint *params) {
    Resources::Parameter parameter;
    if (readParameter(c, pname, params, parameter, fn::glSamplerParameterIuiv::id))
        setSamplerParameter(c, sampler, pname, std::move(parameter));
}

// ---- Framebuffers ------------------------------------------------------------------------------

void Hooks<fn::glGenFramebuffers>::after(CallCtx &c, Void &, GLsizei n, GLuint *framebuffers) {
    std::vector<GLuint> names;
    if (!readNames(c, n, framebuffers, names)) return;
    updateState(c, [&](CEs2ContextState &s) {
        for (GLuint name : names)
            if (name) s.framebuffers[name];
    });
}

void Hooks<fn::glDeleteFramebuffers>::after(CallCtx &c, Void &, GLsizei n, const GLuint *framebuffers) {
    std::vector<GLuint> names;
    if (!readNames(c, n, framebuffers, names)) return;
    updateState(c, [&](CEs2ContextState &s) {
        for (GLuint name : names)
            s.deleteFramebuffer(name);
    });
}

void Hooks<fn::glBindFramebuffer>::after(CallCtx &c, Void &, GLenum target, GLuint framebuffer) {
    updateState(c, [&](CEs2ContextState &s) { s.bindFramebuffer(target, framebuffer); });
}

void Hooks<fn::glFramebufferTexture2D>::after(CallCtx &c, Void &, GLenum target, GLenum attachment,
                                              GLenum textureTarget, GLuint texture, GLint level) {
    updateState(c, [&](CEs2ContextState &s) {
        s.framebufferTexture2D(target, attachment, textureTarget, texture, level);
    });
}

void Hooks<fn::glFramebufferRenderbuffer>::after(CallCtx &c, Void &, GLenum target, GLenum attachment,
                                                 GLenum renderbufferTarget, GLuint renderbuffer) {
    updateState(c, [&](CEs2ContextState &s) {
        s.framebufferRenderbuffer(target, attachment, renderbufferTarget, renderbuffer);
    });
}

void Hooks<fn::glFramebufferTextureLayer>::after(CallCtx &c, Void &, GLenum target, GLenum attachment,
                                                 GLuint texture, GLint level, GLint layer) {
    updateState(c, [&](CEs2ContextState &s) {
        s.framebufferTextureLayer(target, attachment, texture, level, layer);
    });
}

void Hooks<fn::glFramebufferTexture>::after(CallCtx &c, Void &, GLenum target, GLenum attachment,
                                            GLuint texture, GLint level) {
    updateState(c, [&](CEs2ContextState &s) { s.framebufferTexture(target, attachment, texture, level); });
}

void Hooks<fn::glFramebufferParameteri>::after(CallCtx &c, Void &, GLenum target, GLenum pname, GLint param) {
    updateState(c, [&](CEs2ContextState &s) {
        GLuint bound = s.framebufferBinding(target);
        if (bound) s.framebuffers[bound].parameters[pname] = param;
    });
}

void Hooks<fn::glDrawBuffers>::after(CallCtx &c, Void &, GLsizei n, const GLenum *bufs) {
    std::vector<GLenum> buffers;
    if (!accepted(c) || n < 0 || !readValues(bufs, static_cast<size_t>(n), buffers)) return;
    updateState(c, [&](CEs2ContextState &s) { s.setDrawBuffers(std::move(buffers)); });
}

void Hooks<fn::glReadBuffer>::after(CallCtx &c, Void &, GLenum src) {
    updateState(c, [&](CEs2ContextState &s) { s.setReadBuffer(src); });
}

// ---- Renderbuffers -----------------------------------------------------------------------------

void Hooks<fn::glGenRenderbuffers>::after(CallCtx &c, Void &, GLsizei n, GLuint *renderbuffers) {
    std::vector<GLuint> names;
    if (!readNames(c, n, renderbuffers, names)) return;
    updateState(c, [&](CEs2ContextState &s) {
        for (GLuint name : names)
            if (name) s.renderbuffers[name];
    });
}

void Hooks<fn::glDeleteRenderbuffers>::after(CallCtx &c, Void &, GLsizei n, const GLuint *renderbuffers) {
    std::vector<GLuint> names;
    if (!readNames(c, n, renderbuffers, names)) return;
    updateState(c, [&](CEs2ContextState &s) {
        for (GLuint name : names)
            s.deleteRenderbuffer(name);
    });
}

void Hooks<fn::glBindRenderbuffer>::after(CallCtx &c, Void &, GLenum, GLuint renderbuffer) {
    updateState(c, [&](CEs2ContextState &s) {
        s.renderbufferBinding = renderbuffer;
        if (renderbuffer) s.renderbuffers[renderbuffer];
    });
}

void Hooks<fn::glRenderbufferStorage>::after(CallCtx &c, Void &, GLenum, GLenum internalFormat, GLsizei width,
                                             GLsizei height) {
    updateState(c, [&](CEs2ContextState &s) { s.renderbufferStorage(0, internalFormat, width, height); });
}

void Hooks<fn::glRenderbufferStorageMultisample>::after(CallCtx &c, Void &, GLenum, GLsizei samples,
                                                        GLenum internalFormat, GLsizei width,
                                                        GLsizei height) {
    updateState(c,
                [&](CEs2ContextState &s) { s.renderbufferStorage(samples, internalFormat, width, height); });
}

// ---- Queries -----------------------------------------------------------------------------------

void Hooks<fn::glGenQueries>::after(CallCtx &c, Void &, GLsizei n, GLuint *ids) {
    std::vector<GLuint> names;
    if (!readNames(c, n, ids, names)) return;
    updateState(c, [&](CEs2ContextState &s) {
        for (GLuint name : names)
            if (name) s.shared().queries[name];
    });
}

void Hooks<fn::glDeleteQueries>::after(CallCtx &c, Void &, GLsizei n, const GLuint *ids) {
    std::vector<GLuint> names;
    if (!readNames(c, n, ids, names)) return;
    updateState(c, [&](CEs2ContextState &s) {
        for (GLuint name : names)
            s.deleteQuery(name);
    });
}

void Hooks<fn::glBeginQuery>::after(CallCtx &c, Void &, GLenum target, GLuint id) {
    updateState(c, [&](CEs2ContextState &s) { s.beginQuery(target, id); });
}

void Hooks<fn::glEndQuery>::after(CallCtx &c, Void &, GLenum target) {
    updateState(c, [&](CEs2ContextState &s) { s.endQuery(target); });
}

// ---- Transform feedback ------------------------------------------------------------------------

void Hooks<fn::glGenTransformFeedbacks>::after(CallCtx &c, Void &, GLsizei n, GLuint *ids) {
    std::vector<GLuint> names;
    if (!readNames(c, n, ids, names)) return;
    updateState(c, [&](CEs2ContextState &s) {
        for (GLuint name : names)
            if (name) s.shared().transformFeedbacks[name];
    });
}

void Hooks<fn::glDeleteTransformFeedbacks>::after(CallCtx &c, Void &, GLsizei n, const GLuint *ids) {
    std::vector<GLuint> names;
    if (!readNames(c, n, ids, names)) return;
    updateState(c, [&](CEs2ContextState &s) {
        for (GLuint name : names)
            s.deleteTransformFeedback(name);
    });
}

void Hooks<fn::glBindTransformFeedback>::after(CallCtx &c, Void &, GLenum, GLuint id) {
    updateState(c, [&](CEs2ContextState &s) {
        s.transformFeedbackBinding = id;
        if (id) s.shared().transformFeedbacks[id];
    });
}

void Hooks<fn::glBeginTransformFeedback>::after(CallCtx &c, Void &, GLenum primitiveMode) {
    updateState(c, [&](CEs2ContextState &s) {
        auto &feedback = s.currentTransformFeedback();
        feedback.active = true;
        feedback.paused = false;
        feedback.primitiveMode = primitiveMode;
    });
}

void Hooks<fn::glEndTransformFeedback>::after(CallCtx &c, Void &) {
    // The object's buffer bindings outlive the capture.
    updateState(c, [&](CEs2ContextState &s) {
        auto &feedback = s.currentTransformFeedback();
        feedback.active = false;
        feedback.paused = false;
        feedback.primitiveMode = 0;
    });
}

void Hooks<fn::glPauseTransformFeedback>::after(CallCtx &c, Void &) {
    updateState(c, [&](CEs2ContextState &s) { s.currentTransformFeedback().paused = true; });
}

void Hooks<fn::glResumeTransformFeedback>::after(CallCtx &c, Void &) {
    updateState(c, [&](CEs2ContextState &s) { s.currentTransformFeedback().paused = false; });
}

// ---- Syncs -------------------------------------------------------------------------------------

void Hooks<fn::glFenceSync>::after(CallCtx &c, GLsync &result, GLenum condition, GLbitfield flags) {
    if (!result) return;
    updateState(c, [&](CEs2ContextState &s) {
        s.shared().syncs[reinterpret_cast<uintptr_t>(result)] = Resources::Sync{condition, flags};
    });
}

void Hooks<fn::glDeleteSync>::after(CallCtx &c, Void &, GLsync sync) {
    if (!sync) return;
    updateState(c, [&](CEs2ContextState &s) { s.shared().syncs.erase(reinterpret_cast<uintptr_t>(sync)); });
}

} // namespace kv
