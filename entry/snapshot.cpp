// The render-state snapshot: when recording starts after the application made its objects, the
// trace gets the calls that make them again, written between two snapshot markers. The records
// are written by the same record writers as the application's calls (fn::X::write), so a player
// reads them like any others; nothing of it reaches the driver except the read-backs of contents
// the recorder does not keep (buffer and texture data) and the queries of state it does not shadow.
#include "entry/snapshot.h"
#include "entry/snapshot_readback.h"
#include "entry/snapshot_record.h"

#include "base/messages.h"
#include "core/call.h"
#include "core/settings.h"
#include "entry/egl/egl_information.h"
#include "entry/es1/es1_snapshot.h"
#include "entry/ext/ext_functions_autogen.h"
#include "entry/hooks.h"
#include "state/egl_config.h"
#include "state/egl_state.h"
#include "trace/frame_control.h"
#include "trace/trace_writer.h"

#include <algorithm>
#include <chrono>
#include <cstring>
#include <memory>
#include <set>
#include <string>
#include <vector>

namespace kv::snapshot {

namespace {

using Resources = CEs2ContextState::SEs2Resources;

const GLESPPHostFns &gl() {
    return GLESPPHost::get().fn;
}

// An EGL call that succeeded.
template <class F, class R, class... A>
void recordEgl(R result, A... args) {
    callR<F>(EGL_SUCCESS, result, args...);
}

// The catalogue name of a call id without the "gl" prefix and the "Program" of the separate
// program forms (glProgramUniform4fv -> Uniform4fv).
std::string baseName(uint16_t id) {
    const char *name = api::functionName(id);
    std::string n = name ? name : "";
    if (n.rfind("glProgramUniform", 0) == 0) return n.substr(9);
    if (n.rfind("gl", 0) == 0) return n.substr(2);
    return n;
}

float asFloat(uint32_t w) {
    float f;
    std::memcpy(&f, &w, 4);
    return f;
}

// ---- Host state that the read-backs change and give back ----------------------------------------

struct HostBindings {
    GLint readFramebuffer = 0, drawFramebuffer = 0;
    GLint arrayBuffer = 0, copyReadBuffer = 0, packBuffer = 0;
    GLint packAlignment = 4, packRowLength = 0, packSkipRows = 0, packSkipPixels = 0;
    bool es3 = false;

    void save(bool isEs3) {
        es3 = isEs3;
        if (es3) {
            gl().glGetIntegerv(GL_READ_FRAMEBUFFER_BINDING, &readFramebuffer);
            gl().glGetIntegerv(GL_DRAW_FRAMEBUFFER_BINDING, &drawFramebuffer);
            gl().glGetIntegerv(GL_COPY_READ_BUFFER_BINDING, &copyReadBuffer);
            gl().glGetIntegerv(GL_PIXEL_PACK_BUFFER_BINDING, &packBuffer);
            gl().glGetIntegerv(GL_PACK_ROW_LENGTH, &packRowLength);
            gl().glGetIntegerv(GL_PACK_SKIP_ROWS, &packSkipRows);
            gl().glGetIntegerv(GL_PACK_SKIP_PIXELS, &packSkipPixels);
            gl().glBindBuffer(GL_PIXEL_PACK_BUFFER, 0);
            gl().glPixelStorei(GL_PACK_ROW_LENGTH, 0);
            gl().glPixelStorei(GL_PACK_SKIP_ROWS, 0);
            gl().glPixelStorei(GL_PACK_SKIP_PIXELS, 0);
        } else {
            gl().glGetIntegerv(GL_FRAMEBUFFER_BINDING, &drawFramebuffer);
        }
        gl().glGetIntegerv(GL_ARRAY_BUFFER_BINDING, &arrayBuffer);
        gl().glGetIntegerv(GL_PACK_ALIGNMENT, &packAlignment);
        gl().glPixelStorei(GL_PACK_ALIGNMENT, 1);
    }
    void restore() {
        if (es3) {
            gl().glBindFramebuffer(GL_READ_FRAMEBUFFER, static_cast<GLuint>(readFramebuffer));
            gl().glBindFramebuffer(GL_DRAW_FRAMEBUFFER, static_cast<GLuint>(drawFramebuffer));
            gl().glBindBuffer(GL_COPY_READ_BUFFER, static_cast<GLuint>(copyReadBuffer));
            gl().glBindBuffer(GL_PIXEL_PACK_BUFFER, static_cast<GLuint>(packBuffer));
            gl().glPixelStorei(GL_PACK_ROW_LENGTH, packRowLength);
            gl().glPixelStorei(GL_PACK_SKIP_ROWS, packSkipRows);
            gl().glPixelStorei(GL_PACK_SKIP_PIXELS, packSkipPixels);
        } else {
            gl().glBindFramebuffer(GL_FRAMEBUFFER, static_cast<GLuint>(drawFramebuffer));
        }
        gl().glBindBuffer(GL_ARRAY_BUFFER, static_cast<GLuint>(arrayBuffer));
        gl().glPixelStorei(GL_PACK_ALIGNMENT, packAlignment);
        // Errors the read-backs raised (a format that cannot be read) are not the application's.
        for (int i = 0; i < 16 && gl().glGetError() != GL_NO_ERROR; ++i) {
        }
    }
};

// ---- Texture contents ---------------------------------------------------------------------------

// How a level's texels are read from a framebuffer and uploaded again: the read format and type,
// and the upload's format and type with the bytes per texel of each.
struct TexelLayout {
    GLenum readFormat = 0, readType = 0;
    uint32_t readBytes = 0;
    GLenum format = 0, type = 0;
    uint32_t bytes = 0;
};

bool texelLayout(GLenum internalFormat, GLenum format, GLenum type, TexelLayout &out) {
    auto set = [&](GLenum rf, GLenum rt, uint32_t rb, GLenum f, GLenum t, uint32_t b) {
        out = {rf, rt, rb, f, t, b};
        return true;
    };
    switch (internalFormat) {
    case GL_RGBA:
        if (type == GL_UNSIGNED_BYTE) return set(GL_RGBA, GL_UNSIGNED_BYTE, 4, GL_RGBA, GL_UNSIGNED_BYTE, 4);
        return false;
    case GL_RGB:
        if (type == GL_UNSIGNED_BYTE) return set(GL_RGBA, GL_UNSIGNED_BYTE, 4, GL_RGB, GL_UNSIGNED_BYTE, 3);
        return false;
    case GL_RGBA8:
    case GL_SRGB8_ALPHA8:
        return set(GL_RGBA, GL_UNSIGNED_BYTE, 4, GL_RGBA, GL_UNSIGNED_BYTE, 4);
    case GL_RGB8:
        return set(GL_RGBA, GL_UNSIGNED_BYTE, 4, GL_RGB, GL_UNSIGNED_BYTE, 3);
    case GL_R8:
        return set(GL_RGBA, GL_UNSIGNED_BYTE, 4, GL_RED, GL_UNSIGNED_BYTE, 1);
    case GL_RG8:
        return set(GL_RGBA, GL_UNSIGNED_BYTE, 4, GL_RG, GL_UNSIGNED_BYTE, 2);
    case GL_RGBA16F:
    case GL_RGBA32F:
        return set(GL_RGBA, GL_FLOAT, 16, GL_RGBA, GL_FLOAT, 16);
    case GL_RGBA8UI:
        return set(GL_RGBA_INTEGER, GL_UNSIGNED_INT, 16, GL_RGBA_INTEGER, GL_UNSIGNED_BYTE, 4);
    case GL_RGBA32UI:
        return set(GL_RGBA_INTEGER, GL_UNSIGNED_INT, 16, GL_RGBA_INTEGER, GL_UNSIGNED_INT, 16);
    case GL_RGBA32I:
        return set(GL_RGBA_INTEGER, GL_INT, 16, GL_RGBA_INTEGER, GL_INT, 16);
    default:
        (void)format;
        return false;
    }
}

// Converts read texels to the upload's layout (fewer channels, narrower integers).
std::vector<uint8_t> convertTexels(const std::vector<uint8_t> &read, const TexelLayout &l, size_t count) {
    if (l.readBytes == l.bytes && l.readType == l.type) return read;
    std::vector<uint8_t> out(count * l.bytes);
    if (l.readType == GL_UNSIGNED_BYTE) {
        for (size_t i = 0; i < count; ++i)
            std::memcpy(&out[i * l.bytes], &read[i * 4], l.bytes);
    } else if (l.readType == GL_UNSIGNED_INT && l.type == GL_UNSIGNED_BYTE) {
        for (size_t i = 0; i < count * 4; ++i) {
            uint32_t v;
            std::memcpy(&v, &read[i * 4], 4);
            out[i] = static_cast<uint8_t>(v);
        }
    }
    return out;
}

// The image targets of a texture, one per face or one for the texture itself.
std::vector<GLenum> imageTargets(GLenum target) {
    if (target != GL_TEXTURE_CUBE_MAP) return {target};
    std::vector<GLenum> faces;
    for (GLenum f = GL_TEXTURE_CUBE_MAP_POSITIVE_X; f <= GL_TEXTURE_CUBE_MAP_NEGATIVE_Z; ++f)
        faces.push_back(f);
    return faces;
}

bool usesMipmaps(const Resources::Texture &t) {
    auto it = t.parameters.find(GL_TEXTURE_MIN_FILTER);
    GLenum filter = GL_NEAREST_MIPMAP_LINEAR; // the default minification filter
    if (it != t.parameters.end() && !it->second.words.empty()) {
        const std::string n = baseName(it->second.call);
        filter = (!n.empty() && n.back() == 'f') || n.find("fv") != std::string::npos
                     ? static_cast<GLenum>(asFloat(it->second.words[0]))
                     : static_cast<GLenum>(it->second.words[0]);
    }
    return filter != GL_NEAREST && filter != GL_LINEAR;
}

// Uploads written with tightly packed rows from no unpack buffer: the records say so, and so
// does the shadow while they are made, since the record writers size the data from it. With
// `writeBack`, the context's own unpack state is written again afterwards (once the pipeline
// state was written).
class TightUnpack {
public:
    TightUnpack(CEs2ContextState &s, bool es3, bool writeBack) : s_(s), es3_(es3), writeBack_(writeBack) {
        std::copy(std::begin(s_.pixelStores), std::end(s_.pixelStores), saved_);
        GLuint &unpack = s_.bufferBinding(GL_PIXEL_UNPACK_BUFFER);
        savedUnpack_ = unpack;
        unpack = 0;
        for (uint32_t i = 0; i < s_.pixelStoreCount; ++i)
            if (s_.pixelStores[i].name != GL_PACK_ALIGNMENT &&
                s_.pixelStores[i].name != GL_UNPACK_ALIGNMENT && s_.pixelStores[i].value != 0) {
                s_.pixelStores[i].value = 0;
                record<fn::glPixelStorei>(s_.pixelStores[i].name, 0);
            }
        s_.setPixelStore(GL_UNPACK_ALIGNMENT, 1);
        record<fn::glPixelStorei>(GL_UNPACK_ALIGNMENT, 1);
        if (es3_ && savedUnpack_) record<fn::glBindBuffer>(GL_PIXEL_UNPACK_BUFFER, 0u);
    }
    ~TightUnpack() {
        std::copy(std::begin(saved_), std::end(saved_), s_.pixelStores);
        s_.bufferBinding(GL_PIXEL_UNPACK_BUFFER) = savedUnpack_;
        if (!writeBack_) return;
        for (uint32_t i = 0; i < s_.pixelStoreCount; ++i)
            record<fn::glPixelStorei>(s_.pixelStores[i].name, s_.pixelStores[i].value);
        if (es3_ && savedUnpack_) record<fn::glBindBuffer>(GL_PIXEL_UNPACK_BUFFER, savedUnpack_);
    }
    TightUnpack(const TightUnpack &) = delete;
    TightUnpack &operator=(const TightUnpack &) = delete;

private:
    CEs2ContextState &s_;
    bool es3_, writeBack_;
    CEs2ContextState::Pair saved_[10];
    GLuint savedUnpack_ = 0;
};

// The snapshot of one share group's and one context's state.
class Writer {
public:
    Writer(egl::ContextRecord &context, bool host) : ctx_(context), s_(*context.es2), host_(host) {}

    void shared();
    void vertexArrays();
    void pipeline();
    void framebuffers();
    void bindings();

private:
    bool es3() const { return s_.apiVersion() >= 3; }
    void shaders();
    void programs();
    void uniforms(GLuint name, const Resources::Program &p);
    void textures();
    void texture(GLuint name, const Resources::Texture &t);
    void textureParameters(GLenum target, const std::map<GLenum, Resources::Parameter> &parameters,
                           GLuint sampler);
    bool readLevel(GLuint name, GLenum imageTarget, GLint level, GLsizei w, GLsizei h, GLsizei layers,
                   const TexelLayout &l, std::vector<uint8_t> &out);
    bool readThroughShader(GLuint name, const Resources::Texture &t, GLenum imageTarget, GLint level,
                           GLsizei w, GLsizei h, GLsizei layers, const ShaderLayout &l,
                           std::vector<uint8_t> &out);
    void buffers();
    void samplers();
    void transformFeedbacks();
    void renderbufferContents();
    bool readRenderbuffer(GLuint name, const RenderbufferRecord &rb, GLbitfield mask, ShaderReader &reader,
                          GLenum &format, GLenum &type, std::vector<uint8_t> &out);
    void programPipelines();

    egl::ContextRecord &ctx_;
    CEs2ContextState &s_;
    bool host_;
    GLuint readFramebuffer_ = 0;
    ShaderReader *reader_ = nullptr; // while textures are read
};

void Writer::shaders() {
    for (auto &[name, sh] : s_.shared().shaders) {
        callR<fn::glCreateShader>(GL_NO_ERROR, name, sh.type);
        const GLchar *text = sh.source.c_str();
        const GLint length = static_cast<GLint>(sh.source.size());
        record<fn::glShaderSource>(name, 1, &text, &length);
        if (sh.compiled) record<fn::glCompileShader>(name);
    }
}

void Writer::programs() {
    for (auto &[name, p] : s_.shared().programs) {
        if (p.shaderProgramType != 0) {
            const GLchar *text = p.shaderProgramSource.c_str();
            callR<fn::glCreateShaderProgramv>(GL_NO_ERROR, name, p.shaderProgramType, 1, &text);
        } else {
            callR<fn::glCreateProgram>(GL_NO_ERROR, name);
            for (GLuint shader : p.shaders)
                record<fn::glAttachShader>(name, shader);
            for (auto &[attribute, location] : p.attributeBindings)
                record<fn::glBindAttribLocation>(name, location, attribute.c_str());
            if (!p.feedbackVaryings.empty() && es3()) {
                std::vector<const GLchar *> names;
                for (auto &v : p.feedbackVaryings)
                    names.push_back(v.c_str());
                record<fn::glTransformFeedbackVaryings>(name, static_cast<GLsizei>(names.size()),
                                                        names.data(), p.feedbackMode);
            }
            for (auto &[pname, value] : p.parameters)
                if (es3()) record<fn::glProgramParameteri>(name, pname, value);
            if (!p.binary.empty())
                record<fn::glProgramBinary>(name, p.binaryFormat, p.binary.data(),
                                            static_cast<GLsizei>(p.binary.size()));
            else if (p.linked)
                record<fn::glLinkProgram>(name);
        }
        if (p.linked || p.shaderProgramType != 0 || !p.binary.empty()) uniforms(name, p);
    }
    // Shaders the application deleted while programs held them go when the programs are made.
    for (auto &[name, sh] : s_.shared().shaders)
        if (sh.deleted) {
            for (auto &[program, p] : s_.shared().programs)
                if (std::find(p.shaders.begin(), p.shaders.end(), name) != p.shaders.end())
                    record<fn::glDetachShader>(program, name);
            record<fn::glDeleteShader>(name);
        }
}

// A vector uniform's values, by the vector's size (1 to 4).
template <class T, class F1, class F2, class F3, class F4>
void recordVectors(int size, GLint location, GLsizei count, const void *data) {
    const T *v = static_cast<const T *>(data);
    if (size == 1) record<F1>(location, count, v);
    if (size == 2) record<F2>(location, count, v);
    if (size == 3) record<F3>(location, count, v);
    if (size == 4) record<F4>(location, count, v);
}

// A kept uniform value, written as the vector form of its call so that one record serves the
// scalar and the vector calls alike.
void writeUniform(GLint location, const Resources::Uniform &u) {
    const std::string n = baseName(u.call);
    const GLsizei words = static_cast<GLsizei>(u.words.size());
    const void *data = u.words.data();
    if (n.rfind("UniformMatrix", 0) == 0) {
        const std::string dims = n.substr(13, n.size() - 13 - 2);
        const int a = dims[0] - '0', b = dims.size() >= 3 ? dims[2] - '0' : a;
        const GLsizei count = words / (a * b);
        const GLfloat *f = static_cast<const GLfloat *>(data);
        if (dims == "2") record<fn::glUniformMatrix2fv>(location, count, u.transpose, f);
        if (dims == "3") record<fn::glUniformMatrix3fv>(location, count, u.transpose, f);
        if (dims == "4") record<fn::glUniformMatrix4fv>(location, count, u.transpose, f);
        if (dims == "2x3") record<fn::glUniformMatrix2x3fv>(location, count, u.transpose, f);
        if (dims == "3x2") record<fn::glUniformMatrix3x2fv>(location, count, u.transpose, f);
        if (dims == "2x4") record<fn::glUniformMatrix2x4fv>(location, count, u.transpose, f);
        if (dims == "4x2") record<fn::glUniformMatrix4x2fv>(location, count, u.transpose, f);
        if (dims == "3x4") record<fn::glUniformMatrix3x4fv>(location, count, u.transpose, f);
        if (dims == "4x3") record<fn::glUniformMatrix4x3fv>(location, count, u.transpose, f);
        return;
    }
    if (n.rfind("Uniform", 0) != 0 || n.size() < 9) return;
    const int size = n[7] - '0';
    if (size < 1 || size > 4) return;
    const GLsizei count = words / size;
    std::string kind = n.substr(8);
    if (!kind.empty() && kind.back() == 'v') kind.pop_back();
    if (kind == "f")
        recordVectors<GLfloat, fn::glUniform1fv, fn::glUniform2fv, fn::glUniform3fv, fn::glUniform4fv>(
            size, location, count, data);
    if (kind == "i")
        recordVectors<GLint, fn::glUniform1iv, fn::glUniform2iv, fn::glUniform3iv, fn::glUniform4iv>(
            size, location, count, data);
    if (kind == "ui")
        recordVectors<GLuint, fn::glUniform1uiv, fn::glUniform2uiv, fn::glUniform3uiv, fn::glUniform4uiv>(
            size, location, count, data);
}

void Writer::uniforms(GLuint name, const Resources::Program &p) {
    if (p.uniforms.empty() && p.uniformBlockBindings.empty()) return;
    record<fn::glUseProgram>(name);
    for (auto &[location, u] : p.uniforms) {
        // A player finds the location again by the name the application looked it up by.
        auto known = p.uniformNames.find(location);
        if (known == p.uniformNames.end()) continue;
        callR<fn::glGetUniformLocation>(GL_NO_ERROR, location, name, known->second.c_str());
        writeUniform(location, u);
    }
    for (auto &[index, binding] : p.uniformBlockBindings) {
        auto known = p.uniformBlockNames.find(index);
        if (known == p.uniformBlockNames.end()) continue;
        callR<fn::glGetUniformBlockIndex>(GL_NO_ERROR, index, name, known->second.c_str());
        record<fn::glUniformBlockBinding>(name, index, binding);
    }
}

void Writer::textureParameters(GLenum target, const std::map<GLenum, Resources::Parameter> &parameters,
                               GLuint sampler) {
    for (auto &[pname, p] : parameters) {
        if (p.words.empty()) continue;
        const std::string n = baseName(p.call);
        const bool isFloat = n.back() == 'f' || n.find("fv") != std::string::npos;
        const bool isI = n.find("Iiv") != std::string::npos, isUi = n.find("Iuiv") != std::string::npos;
        const void *w = p.words.data();
        if (sampler) {
            if (isUi)
                record<fn::glSamplerParameterIuiv>(sampler, pname, static_cast<const GLuint *>(w));
            else if (isI)
                record<fn::glSamplerParameterIiv>(sampler, pname, static_cast<const GLint *>(w));
            else if (isFloat)
                record<fn::glSamplerParameterfv>(sampler, pname, static_cast<const GLfloat *>(w));
            else
                record<fn::glSamplerParameteriv>(sampler, pname, static_cast<const GLint *>(w));
        } else {
            if (isUi)
                record<fn::glTexParameterIuiv>(target, pname, static_cast<const GLuint *>(w));
            else if (isI)
                record<fn::glTexParameterIiv>(target, pname, static_cast<const GLint *>(w));
            else if (isFloat && p.words.size() == 1)
                record<fn::glTexParameterf>(target, pname, asFloat(p.words[0]));
            else if (isFloat)
                record<fn::glTexParameterfv>(target, pname, static_cast<const GLfloat *>(w));
            else if (p.words.size() == 1)
                record<fn::glTexParameteri>(target, pname, static_cast<GLint>(p.words[0]));
            else
                record<fn::glTexParameteriv>(target, pname, static_cast<const GLint *>(w));
        }
    }
}

bool Writer::readLevel(GLuint name, GLenum imageTarget, GLint level, GLsizei w, GLsizei h, GLsizei layers,
                       const TexelLayout &l, std::vector<uint8_t> &out) {
    const size_t layerBytes = static_cast<size_t>(w) * static_cast<size_t>(h) * l.readBytes;
    out.assign(layerBytes * static_cast<size_t>(layers), 0);
    const GLenum fbTarget = es3() ? GL_READ_FRAMEBUFFER : GL_FRAMEBUFFER;
    gl().glBindFramebuffer(fbTarget, readFramebuffer_);
    for (GLsizei layer = 0; layer < layers; ++layer) {
        if (imageTarget == GL_TEXTURE_3D || imageTarget == GL_TEXTURE_2D_ARRAY)
            gl().glFramebufferTextureLayer(fbTarget, GL_COLOR_ATTACHMENT0, name, level, layer);
        else
            gl().glFramebufferTexture2D(fbTarget, GL_COLOR_ATTACHMENT0, imageTarget, name, level);
        if (gl().glCheckFramebufferStatus(fbTarget) != GL_FRAMEBUFFER_COMPLETE) return false;
        gl().glReadPixels(0, 0, w, h, l.readFormat, l.readType, out.data() + layerBytes * layer);
        if (gl().glGetError() != GL_NO_ERROR) return false;
    }
    return true;
}

void Writer::texture(GLuint name, const Resources::Texture &t) {
    record<fn::glBindTexture>(t.target, name);
    textureParameters(t.target, t.parameters, 0);
    if (t.buffer != 0 || t.samples > 0) return; // buffer textures and multisampled storage: no texels
    const bool layered = t.target == GL_TEXTURE_3D || t.target == GL_TEXTURE_2D_ARRAY;
    GLsizei levels = t.levels;
    if (!t.immutable) {
        levels = 1;
        if (usesMipmaps(t))
            while ((t.width >> levels) > 0 || (t.height >> levels) > 0)
                ++levels;
    }
    if (t.immutable) {
        if (layered)
            record<fn::glTexStorage3D>(t.target, t.levels, t.internalFormat, t.width, t.height, t.depth);
        else
            record<fn::glTexStorage2D>(t.target, t.levels, t.internalFormat, t.width, t.height);
    }
    // Compressed images come from the data the application gave.
    if (!t.compressed.empty()) {
        for (auto &[key, img] : t.compressed) {
            if (img.fromBuffer) continue;
            const GLsizei bytes = static_cast<GLsizei>(img.data.size());
            if (t.immutable) {
                if (layered)
                    record<fn::glCompressedTexSubImage3D>(key.first, key.second, 0, 0, 0, img.width,
                                                          img.height, img.depth, img.internalFormat, bytes,
                                                          img.data.data());
                else
                    record<fn::glCompressedTexSubImage2D>(key.first, key.second, 0, 0, img.width, img.height,
                                                          img.internalFormat, bytes, img.data.data());
            } else if (layered) {
                record<fn::glCompressedTexImage3D>(key.first, key.second, img.internalFormat, img.width,
                                                   img.height, img.depth, 0, bytes, img.data.data());
            } else {
                record<fn::glCompressedTexImage2D>(key.first, key.second, img.internalFormat, img.width,
                                                   img.height, 0, bytes, img.data.data());
            }
        }
        for (auto &u : t.compressedUpdates) {
            if (u.fromBuffer) continue;
            const GLsizei bytes = static_cast<GLsizei>(u.data.size());
            if (layered)
                record<fn::glCompressedTexSubImage3D>(u.target, u.level, u.x, u.y, u.z, u.width, u.height,
                                                      u.depth, u.format, bytes, u.data.data());
            else
                record<fn::glCompressedTexSubImage2D>(u.target, u.level, u.x, u.y, u.width, u.height,
                                                      u.format, bytes, u.data.data());
        }
        return;
    }
    if (t.width <= 0 || t.height <= 0) return;
    // Formats a framebuffer can read are read with glReadPixels; the others (luminance, alpha,
    // depth, stencil, packed, float, integer) are fetched by the helper program.
    TexelLayout l;
    ShaderLayout sl;
    const bool direct = texelLayout(t.internalFormat, t.format, t.type, l);
    const bool viaShader = !direct && shaderLayout(t.internalFormat, t.format, t.type, sl);
    const bool readable = direct || viaShader;
    if (!readable)
        msg::warning("Texture %u: the contents of format 0x%x cannot be read back; its images are made empty",
                     name, t.internalFormat);
    else if (!host_)
        msg::warning("Texture %u: no context of its share group is current on this thread; its images are "
                     "made empty",
                     name);
    const GLenum format = direct ? l.format : viaShader ? sl.format : t.format;
    const GLenum type = direct ? l.type : viaShader ? sl.type : t.type;
    bool warned = false;
    for (GLsizei level = 0; level < levels; ++level) {
        const GLsizei w = std::max(1, t.width >> level), h = std::max(1, t.height >> level);
        const GLsizei d = t.target == GL_TEXTURE_3D ? std::max(1, t.depth >> level) : std::max(1, t.depth);
        const GLsizei layers = layered ? d : 1;
        for (GLenum image : imageTargets(t.target)) {
            std::vector<uint8_t> texels;
            bool got = false;
            if (readable && host_) {
                if (direct) {
                    std::vector<uint8_t> read;
                    got = readLevel(name, image, level, w, h, layers, l, read);
                    if (got) texels = convertTexels(read, l, static_cast<size_t>(w) * h * layers);
                } else {
                    got = readThroughShader(name, t, image, level, w, h, layers, sl, texels);
                }
                if (!got && !warned) {
                    warned = true;
                    msg::warning(
                        "Texture %u: the driver did not give the contents of format 0x%x; its images "
                        "are made empty",
                        name, t.internalFormat);
                }
            }
            const void *data = got ? texels.data() : nullptr;
            if (t.immutable) {
                if (!got) continue;
                if (layered)
                    record<fn::glTexSubImage3D>(image, level, 0, 0, 0, w, h, d, format, type, data);
                else
                    record<fn::glTexSubImage2D>(image, level, 0, 0, w, h, format, type, data);
            } else {
                if (layered)
                    record<fn::glTexImage3D>(image, level, t.internalFormat, w, h, d, 0, format, type, data);
                else
                    record<fn::glTexImage2D>(image, level, static_cast<GLint>(t.internalFormat), w, h, 0,
                                             format, type, data);
            }
        }
    }
}

bool Writer::readThroughShader(GLuint name, const Resources::Texture &t, GLenum imageTarget, GLint level,
                               GLsizei w, GLsizei h, GLsizei layers, const ShaderLayout &l,
                               std::vector<uint8_t> &out) {
    if (!reader_) return false;
    std::vector<uint32_t> texels, stencil;
    if (!reader_->read(name, t.target, imageTarget, level, w, h, layers, l.sample, texels)) return false;
    if (l.withStencil) {
        std::vector<uint32_t> words;
        // Without the stencil (older drivers) the depth is still worth having.
        if (reader_->read(name, t.target, imageTarget, level, w, h, layers, ShaderLayout::Sample::Stencil,
                          words)) {
            stencil.resize(words.size() / 4);
            for (size_t i = 0; i < stencil.size(); ++i)
                stencil[i] = words[i * 4];
        } else {
            msg::warning("Texture %u: the driver does not give the stencil of a depth-stencil texture; it is "
                         "made zero",
                         name);
        }
    }
    const bool depth24 =
        l.pack == ShaderLayout::Pack::Depth24 || l.pack == ShaderLayout::Pack::Depth24Stencil8;
    out = packTexels(l, texels, stencil, static_cast<size_t>(w) * h * layers,
                     depth24 ? reader_->depth24() : Depth24::Divided);
    return true;
}

void Writer::textures() {
    auto &all = s_.shared().textures;
    if (all.empty()) return;
    // The uploads below are written with tightly packed rows from no unpack buffer; the
    // context's own unpack state is written with the pipeline state afterwards.
    TightUnpack tight(s_, es3(), false);
    HostBindings hostBindings;
    ShaderReader reader;
    if (host_) {
        hostBindings.save(es3());
        gl().glGenFramebuffers(1, &readFramebuffer_);
        reader_ = &reader;
    }
    std::vector<GLuint> names;
    for (auto &entry : all)
        names.push_back(entry.first);
    record<fn::glGenTextures>(static_cast<GLsizei>(names.size()), names.data());
    for (auto &[name, t] : all) {
        // A texture that no unit binds and no framebuffer uses now may be bound again later in the
        // trace: it is saved all the same, or the late trace would draw without it. Only a name
        // the application never bound has nothing to save.
        if (t.target == 0) {
            msg::info("Texture not used: %d. Ignored", static_cast<int>(name));
            continue;
        }
        texture(name, t);
    }
    if (host_) {
        reader.finish();
        reader_ = nullptr;
        gl().glDeleteFramebuffers(1, &readFramebuffer_);
        hostBindings.restore();
    }
}

void Writer::buffers() {
    auto &all = s_.shared().buffers;
    if (all.empty()) return;
    std::vector<GLuint> names;
    for (auto &entry : all)
        names.push_back(entry.first);
    record<fn::glGenBuffers>(static_cast<GLsizei>(names.size()), names.data());
    HostBindings hostBindings;
    if (host_) hostBindings.save(es3());
    const GLenum readTarget = es3() ? GL_COPY_READ_BUFFER : GL_ARRAY_BUFFER;
    for (auto &[name, b] : all) {
        record<fn::glBindBuffer>(GL_ARRAY_BUFFER, name);
        std::vector<uint8_t> read;
        const std::vector<uint8_t> *contents = &b.contents;
        if (b.mapPointer) {
            msg::warning("Warning: Buffer %i is currently mapped. The data that is saved may be incorrect.",
                         static_cast<int>(name));
        } else if (host_) {
            // The driver's contents hold what the recorder never saw written (transform feedback,
            // copies, compute shaders).
            gl().glBindBuffer(readTarget, name);
            GLint size = 0;
            gl().glGetBufferParameteriv(readTarget, GL_BUFFER_SIZE, &size);
            const void *mapped = nullptr;
            if (size > 0) {
                if (es3())
                    mapped = gl().glMapBufferRange(readTarget, 0, size, GL_MAP_READ_BIT);
                else if (auto mapOes = SGlesExtHost::get().fn.glMapBufferOES)
                    mapped = mapOes(readTarget, GL_WRITE_ONLY_OES);
            }
            if (mapped) {
                read.resize(static_cast<size_t>(size));
                std::memcpy(read.data(), mapped, read.size());
                if (es3())
                    gl().glUnmapBuffer(readTarget);
                else if (auto unmapOes = SGlesExtHost::get().fn.glUnmapBufferOES)
                    unmapOes(readTarget);
                contents = &read;
            }
        }
        if (contents->empty() && b.usage == 0) continue;
        record<fn::glBufferData>(GL_ARRAY_BUFFER, static_cast<GLsizeiptr>(contents->size()),
                                 contents->empty() ? nullptr : contents->data(),
                                 b.usage ? b.usage : GL_STATIC_DRAW);
    }
    if (host_) hostBindings.restore();
}

void Writer::samplers() {
    auto &all = s_.shared().samplers;
    if (all.empty() || !es3()) return;
    std::vector<GLuint> names;
    for (auto &entry : all)
        names.push_back(entry.first);
    record<fn::glGenSamplers>(static_cast<GLsizei>(names.size()), names.data());
    for (auto &[name, sampler] : all)
        textureParameters(0, sampler.parameters, name);
}

// Transform feedback objects with the buffers each one binds; the default object's buffers too.
// The context's own binding is written with the other bindings.
void Writer::transformFeedbacks() {
    if (!es3()) return;
    auto writeBuffers = [](const std::map<GLuint, IndexedBinding> &buffers) {
        for (auto &[index, b] : buffers) {
            if (b.size > 0)
                record<fn::glBindBufferRange>(GL_TRANSFORM_FEEDBACK_BUFFER, index, b.buffer,
                                              static_cast<GLintptr>(b.offset),
                                              static_cast<GLsizeiptr>(b.size));
            else
                record<fn::glBindBufferBase>(GL_TRANSFORM_FEEDBACK_BUFFER, index, b.buffer);
        }
    };
    for (auto &[name, tf] : s_.shared().transformFeedbacks) {
        genOne<fn::glGenTransformFeedbacks>(name);
        record<fn::glBindTransformFeedback>(GL_TRANSFORM_FEEDBACK, name);
        writeBuffers(tf.buffers);
    }
    if (!s_.shared().transformFeedbacks.empty())
        record<fn::glBindTransformFeedback>(GL_TRANSFORM_FEEDBACK, 0u);
    writeBuffers(s_.defaultTransformFeedback.buffers);
}

void Writer::programPipelines() {
    // Pipelines exist only where the driver had them, whatever version the context asked for.
    if (!es3()) return;
    for (auto &[name, p] : s_.programPipelines) {
        genOne<fn::glGenProgramPipelines>(name);
        for (auto &[stage, program] : p.stages)
            record<fn::glUseProgramStages>(name, stage, program);
        if (p.activeProgram) record<fn::glActiveShaderProgram>(name, p.activeProgram);
    }
    if (s_.programPipelineBinding) record<fn::glBindProgramPipeline>(s_.programPipelineBinding);
}

// Reads a renderbuffer's contents on the host: copied by a blit into a texture of its format,
// which is then read like any texture. False when the driver does not allow it.
bool Writer::readRenderbuffer(GLuint name, const RenderbufferRecord &rb, GLbitfield mask,
                              ShaderReader &reader, GLenum &format, GLenum &type, std::vector<uint8_t> &out) {
    const GLenum attachment = mask == GL_COLOR_BUFFER_BIT   ? GL_COLOR_ATTACHMENT0
                              : mask == GL_DEPTH_BUFFER_BIT ? GL_DEPTH_ATTACHMENT
                                                            : GL_DEPTH_STENCIL_ATTACHMENT;
    GLuint texture = 0, framebuffers[2] = {0, 0};
    gl().glGenTextures(1, &texture);
    gl().glGenFramebuffers(2, framebuffers);
    gl().glActiveTexture(GL_TEXTURE0);
    gl().glBindTexture(GL_TEXTURE_2D, texture);
    gl().glTexStorage2D(GL_TEXTURE_2D, 1, rb.internalFormat, rb.width, rb.height);
    gl().glBindFramebuffer(GL_READ_FRAMEBUFFER, framebuffers[0]);
    gl().glFramebufferRenderbuffer(GL_READ_FRAMEBUFFER, attachment, GL_RENDERBUFFER, name);
    gl().glBindFramebuffer(GL_DRAW_FRAMEBUFFER, framebuffers[1]);
    gl().glFramebufferTexture2D(GL_DRAW_FRAMEBUFFER, attachment, GL_TEXTURE_2D, texture, 0);
    bool ok = gl().glCheckFramebufferStatus(GL_READ_FRAMEBUFFER) == GL_FRAMEBUFFER_COMPLETE &&
              gl().glCheckFramebufferStatus(GL_DRAW_FRAMEBUFFER) == GL_FRAMEBUFFER_COMPLETE;
    if (ok) {
        gl().glBlitFramebuffer(0, 0, rb.width, rb.height, 0, 0, rb.width, rb.height, mask, GL_NEAREST);
        ok = gl().glGetError() == GL_NO_ERROR;
    }
    TexelLayout l;
    ShaderLayout sl;
    if (ok && mask == GL_COLOR_BUFFER_BIT && texelLayout(rb.internalFormat, 0, 0, l)) {
        std::vector<uint8_t> read;
        readFramebuffer_ = framebuffers[1];
        ok = readLevel(texture, GL_TEXTURE_2D, 0, rb.width, rb.height, 1, l, read);
        readFramebuffer_ = 0;
        if (ok) out = convertTexels(read, l, static_cast<size_t>(rb.width) * rb.height);
        format = l.format;
        type = l.type;
    } else if (ok && shaderLayout(rb.internalFormat, 0, 0, sl)) {
        Resources::Texture t;
        t.target = GL_TEXTURE_2D;
        ShaderReader *saved = reader_;
        reader_ = &reader;
        ok = readThroughShader(texture, t, GL_TEXTURE_2D, 0, rb.width, rb.height, 1, sl, out);
        reader_ = saved;
        format = sl.format;
        type = sl.type;
    } else {
        ok = false;
    }
    gl().glDeleteFramebuffers(2, framebuffers);
    gl().glDeleteTextures(1, &texture);
    return ok;
}

// Renderbuffer contents: the driver's pixels, put back in the trace by a blit from a texture
// that holds them. The names of the texture and the two framebuffers are ones the application
// does not use, and they are deleted again at once.
void Writer::renderbufferContents() {
    if (s_.renderbuffers.empty()) return;
    if (!host_ || !es3()) {
        for (auto &[name, rb] : s_.renderbuffers)
            if (rb.internalFormat)
                msg::warning(
                    "Renderbuffer %u: its contents cannot be read in this context; they are not saved", name);
        return;
    }
    HostBindings hostBindings;
    hostBindings.save(true);
    ShaderReader reader;
    const bool usable = reader.usable();
    GLuint texture = s_.shared().textures.empty() ? 1 : s_.shared().textures.rbegin()->first + 1;
    GLuint framebuffers[2];
    framebuffers[0] = s_.framebuffers.empty() ? 1 : s_.framebuffers.rbegin()->first + 1;
    framebuffers[1] = framebuffers[0] + 1;
    bool written = false;
    std::unique_ptr<TightUnpack> tight;
    auto enabled = [this](GLenum cap) {
        auto it = s_.capabilities.find(cap);
        return it != s_.capabilities.end() && it->second;
    };
    for (auto &[name, rb] : s_.renderbuffers) {
        if (rb.internalFormat == 0 || rb.width <= 0 || rb.height <= 0) continue;
        const GLenum f = rb.internalFormat;
        const GLbitfield mask =
            f == GL_DEPTH_COMPONENT16 || f == GL_DEPTH_COMPONENT24 || f == GL_DEPTH_COMPONENT32F
                ? GL_DEPTH_BUFFER_BIT
            : f == GL_DEPTH24_STENCIL8 || f == GL_DEPTH32F_STENCIL8
                ? GLbitfield(GL_DEPTH_BUFFER_BIT | GL_STENCIL_BUFFER_BIT)
            : f == GL_STENCIL_INDEX8 ? GL_STENCIL_BUFFER_BIT
                                     : GL_COLOR_BUFFER_BIT;
        std::vector<uint8_t> texels;
        GLenum format = 0, type = 0;
        if (rb.samples > 0 || mask == GL_STENCIL_BUFFER_BIT || !usable ||
            !readRenderbuffer(name, rb, mask, reader, format, type, texels)) {
            msg::warning(
                "Renderbuffer %u: the driver does not give the contents of format 0x%x%s; they are not "
                "saved",
                name, f, rb.samples > 0 ? " with several samples" : "");
            continue;
        }
        if (!written) {
            written = true;
            tight = std::make_unique<TightUnpack>(s_, true, true);
            // The blits below must reach every pixel.
            if (enabled(GL_SCISSOR_TEST)) record<fn::glDisable>(GL_SCISSOR_TEST);
            if (enabled(GL_RASTERIZER_DISCARD)) record<fn::glDisable>(GL_RASTERIZER_DISCARD);
            record<fn::glGenFramebuffers>(2, framebuffers);
        }
        const GLenum attachment = mask == GL_COLOR_BUFFER_BIT   ? GL_COLOR_ATTACHMENT0
                                  : mask == GL_DEPTH_BUFFER_BIT ? GL_DEPTH_ATTACHMENT
                                                                : GL_DEPTH_STENCIL_ATTACHMENT;
        genOne<fn::glGenTextures>(texture);
        record<fn::glBindTexture>(GL_TEXTURE_2D, texture);
        record<fn::glTexImage2D>(GL_TEXTURE_2D, 0, static_cast<GLint>(f), rb.width, rb.height, 0, format,
                                 type, static_cast<const void *>(texels.data()));
        record<fn::glBindFramebuffer>(GL_READ_FRAMEBUFFER, framebuffers[0]);
        record<fn::glFramebufferTexture2D>(GL_READ_FRAMEBUFFER, attachment, GL_TEXTURE_2D, texture, 0);
        record<fn::glBindFramebuffer>(GL_DRAW_FRAMEBUFFER, framebuffers[1]);
        record<fn::glFramebufferRenderbuffer>(GL_DRAW_FRAMEBUFFER, attachment, GL_RENDERBUFFER, name);
        record<fn::glBlitFramebuffer>(0, 0, rb.width, rb.height, 0, 0, rb.width, rb.height, mask,
                                      GLenum(GL_NEAREST));
        // Both framebuffers serve the next renderbuffer: nothing of this one may stay attached.
        record<fn::glFramebufferRenderbuffer>(GL_DRAW_FRAMEBUFFER, attachment, GL_RENDERBUFFER, 0u);
        record<fn::glDeleteTextures>(1, &texture);
    }
    if (written) {
        record<fn::glDeleteFramebuffers>(2, framebuffers);
        if (enabled(GL_SCISSOR_TEST)) record<fn::glEnable>(GL_SCISSOR_TEST);
        if (enabled(GL_RASTERIZER_DISCARD)) record<fn::glEnable>(GL_RASTERIZER_DISCARD);
    }
    tight.reset();
    reader.finish();
    hostBindings.restore();
}

void Writer::shared() {
    shaders();
    programs();
    textures();
    buffers();
    samplers();
    transformFeedbacks();
    if (es3())
        for (auto &[name, q] : s_.shared().queries)
            if (q.activeTarget) {
                genOne<fn::glGenQueries>(name);
                record<fn::glBeginQuery>(q.activeTarget, name);
            }
    s_.shared().saved = true;
}

void Writer::vertexArrays() {
    const bool oes = !es3();
    for (auto &[name, vao] : s_.vaos) {
        if (name != 0) {
            if (oes) {
                genOne<fn::glGenVertexArraysOES>(name);
                record<fn::glBindVertexArrayOES>(name);
            } else {
                genOne<fn::glGenVertexArrays>(name);
                record<fn::glBindVertexArray>(name);
            }
        } else if (s_.vaos.size() > 1) {
            if (oes)
                record<fn::glBindVertexArrayOES>(0u);
            else
                record<fn::glBindVertexArray>(0u);
        }
        for (auto &[index, a] : vao.attributes) {
            if (a.constantComponents > 0 && a.constantValues.size() >= a.constantComponents) {
                const uint32_t *w = a.constantValues.data();
                if (a.constantType == GL_INT) {
                    record<fn::glVertexAttribI4i>(index, GLint(w[0]),
                                                  GLint(a.constantComponents > 1 ? w[1] : 0),
                                                  GLint(a.constantComponents > 2 ? w[2] : 0),
                                                  GLint(a.constantComponents > 3 ? w[3] : 1));
                } else if (a.constantType == GL_UNSIGNED_INT) {
                    record<fn::glVertexAttribI4ui>(index, w[0], a.constantComponents > 1 ? w[1] : 0u,
                                                   a.constantComponents > 2 ? w[2] : 0u,
                                                   a.constantComponents > 3 ? w[3] : 1u);
                } else if (a.constantComponents == 1) {
                    record<fn::glVertexAttrib1f>(index, asFloat(w[0]));
                } else if (a.constantComponents == 2) {
                    record<fn::glVertexAttrib2f>(index, asFloat(w[0]), asFloat(w[1]));
                } else if (a.constantComponents == 3) {
                    record<fn::glVertexAttrib3f>(index, asFloat(w[0]), asFloat(w[1]), asFloat(w[2]));
                } else {
                    record<fn::glVertexAttrib4f>(index, asFloat(w[0]), asFloat(w[1]), asFloat(w[2]),
                                                 asFloat(w[3]));
                }
            }
            auto bindingOf = vao.attributeBinding.find(index);
            const uint32_t bindingIndex = bindingOf != vao.attributeBinding.end() ? bindingOf->second : index;
            auto binding = vao.bindings.find(bindingIndex);
            if (binding != vao.bindings.end()) {
                const BindingRecord &b = binding->second;
                if (bindingIndex == index && a.relativeOffset == 0) {
                    record<fn::glBindBuffer>(GL_ARRAY_BUFFER, b.buffer);
                    const void *pointer =
                        b.buffer ? reinterpret_cast<const void *>(static_cast<uintptr_t>(b.offset))
                                 : b.clientPointer;
                    if (a.integer)
                        record<fn::glVertexAttribIPointer>(index, a.size, a.type,
                                                           static_cast<GLsizei>(b.stride), pointer);
                    else
                        record<fn::glVertexAttribPointer>(index, a.size, a.type,
                                                          static_cast<GLboolean>(a.normalized),
                                                          static_cast<GLsizei>(b.stride), pointer);
                    if (b.divisor && es3()) record<fn::glVertexAttribDivisor>(index, b.divisor);
                } else if (es3()) {
                    if (a.integer)
                        record<fn::glVertexAttribIFormat>(index, a.size, a.type, a.relativeOffset);
                    else
                        record<fn::glVertexAttribFormat>(
                            index, a.size, a.type, static_cast<GLboolean>(a.normalized), a.relativeOffset);
                    record<fn::glVertexAttribBinding>(index, bindingIndex);
                    record<fn::glBindVertexBuffer>(bindingIndex, b.buffer, static_cast<GLintptr>(b.offset),
                                                   static_cast<GLsizei>(b.stride));
                    if (b.divisor) record<fn::glVertexBindingDivisor>(bindingIndex, b.divisor);
                }
            }
            if (a.enabled)
                record<fn::glEnableVertexAttribArray>(index);
            else if (binding != vao.bindings.end())
                record<fn::glDisableVertexAttribArray>(index);
        }
        if (vao.elementArrayBuffer) record<fn::glBindBuffer>(GL_ELEMENT_ARRAY_BUFFER, vao.elementArrayBuffer);
    }
    if (s_.vaos.size() > 1 || s_.currentVaoName != 0) {
        if (oes)
            record<fn::glBindVertexArrayOES>(s_.currentVaoName);
        else
            record<fn::glBindVertexArray>(s_.currentVaoName);
    }
}

void Writer::pipeline() {
    record<fn::glBlendColor>(s_.blendColor[0], s_.blendColor[1], s_.blendColor[2], s_.blendColor[3]);
    if (s_.blendEquationSeparate)
        record<fn::glBlendEquationSeparate>(s_.blendEquationRgb, s_.blendEquationAlpha);
    else
        record<fn::glBlendEquation>(s_.blendEquationRgb);
    record<fn::glBlendFuncSeparate>(s_.blendSrcRgb, s_.blendDstRgb, s_.blendSrcAlpha, s_.blendDstAlpha);
    record<fn::glClearColor>(s_.clearColor[0], s_.clearColor[1], s_.clearColor[2], s_.clearColor[3]);
    record<fn::glClearDepthf>(s_.clearDepth);
    record<fn::glClearStencil>(s_.clearStencil);
    record<fn::glColorMask>(GLboolean(s_.colorMask[0]), GLboolean(s_.colorMask[1]),
                            GLboolean(s_.colorMask[2]), GLboolean(s_.colorMask[3]));
    record<fn::glCullFace>(s_.cullFaceMode);
    record<fn::glDepthFunc>(s_.depthFunc);
    record<fn::glDepthMask>(GLboolean(s_.depthMask));
    record<fn::glDepthRangef>(s_.depthRange[0], s_.depthRange[1]);
    for (auto &[cap, on] : s_.capabilities) {
        if (on)
            record<fn::glEnable>(cap);
        else
            record<fn::glDisable>(cap);
    }
    if (s_.apiVersion() >= 5)
        for (auto &[key, on] : s_.indexedCapabilities) {
            if (on)
                record<fn::glEnablei>(key.first, key.second);
            else
                record<fn::glDisablei>(key.first, key.second);
        }
    record<fn::glFrontFace>(s_.frontFace);
    for (uint32_t i = 0; i < s_.hintCount; ++i)
        record<fn::glHint>(s_.hints[i].name, static_cast<GLenum>(s_.hints[i].value));
    for (uint32_t i = 0; i < s_.pixelStoreCount; ++i)
        record<fn::glPixelStorei>(s_.pixelStores[i].name, s_.pixelStores[i].value);
    record<fn::glLineWidth>(s_.lineWidth);
    // The shadow keys its polygon offset pair on odd values; the driver knows the true one.
    float offset[2] = {s_.polygonOffset[0], s_.polygonOffset[1]};
    if (host_) {
        gl().glGetFloatv(GL_POLYGON_OFFSET_FACTOR, &offset[0]);
        gl().glGetFloatv(GL_POLYGON_OFFSET_UNITS, &offset[1]);
    }
    record<fn::glPolygonOffset>(offset[0], offset[1]);
    record<fn::glSampleCoverage>(s_.sampleCoverageValue, GLboolean(s_.sampleCoverageInvert));

    GLint scissor[4] = {s_.scissor[0], s_.scissor[1], s_.scissor[2], s_.scissor[3]};
    GLint viewport[4] = {s_.viewport[0], s_.viewport[1], s_.viewport[2], s_.viewport[3]};
    if (host_) {
        gl().glGetIntegerv(GL_SCISSOR_BOX, scissor);
        gl().glGetIntegerv(GL_VIEWPORT, viewport);
    }
    record<fn::glScissor>(scissor[0], scissor[1], scissor[2], scissor[3]);
    record<fn::glViewport>(viewport[0], viewport[1], viewport[2], viewport[3]);

    const GLenum faces[2] = {GL_FRONT, GL_BACK};
    for (int f = 0; f < 2; ++f)
        record<fn::glStencilFuncSeparate>(faces[f], s_.stencilFunc[f], s_.stencilRef[f],
                                          s_.stencilValueMask[f]);
    for (int f = 0; f < 2; ++f)
        record<fn::glStencilMaskSeparate>(faces[f], s_.stencilWriteMask[f]);
    for (int f = 0; f < 2; ++f)
        record<fn::glStencilOpSeparate>(faces[f], s_.stencilFail[f], s_.stencilDepthFail[f],
                                        s_.stencilDepthPass[f]);
}

void writeSlot(GLenum attachment, const AttachmentSlot &slot) {
    if (slot.name == 0) return;
    if (slot.objectType == GL_RENDERBUFFER) {
        record<fn::glFramebufferRenderbuffer>(GL_FRAMEBUFFER, attachment, GL_RENDERBUFFER, slot.name);
    } else if (slot.layer >= 0) {
        record<fn::glFramebufferTextureLayer>(GL_FRAMEBUFFER, attachment, slot.name, slot.level, slot.layer);
    } else if (slot.layered) {
        record<fn::glFramebufferTexture>(GL_FRAMEBUFFER, attachment, slot.name, slot.level);
    } else {
        record<fn::glFramebufferTexture2D>(GL_FRAMEBUFFER, attachment,
                                           slot.textureTarget ? slot.textureTarget : GLenum(GL_TEXTURE_2D),
                                           slot.name, slot.level);
    }
}

void Writer::framebuffers() {
    for (auto &[name, rb] : s_.renderbuffers) {
        genOne<fn::glGenRenderbuffers>(name);
        record<fn::glBindRenderbuffer>(GL_RENDERBUFFER, name);
        if (rb.internalFormat == 0) continue;
        if (rb.samples > 0 && es3())
            record<fn::glRenderbufferStorageMultisample>(GL_RENDERBUFFER, rb.samples, rb.internalFormat,
                                                         rb.width, rb.height);
        else
            record<fn::glRenderbufferStorage>(GL_RENDERBUFFER, rb.internalFormat, rb.width, rb.height);
    }
    for (auto &[name, fb] : s_.framebuffers) {
        genOne<fn::glGenFramebuffers>(name);
        record<fn::glBindFramebuffer>(GL_FRAMEBUFFER, name);
        writeSlot(GL_DEPTH_ATTACHMENT, fb.depth);
        writeSlot(GL_STENCIL_ATTACHMENT, fb.stencil);
        writeSlot(GL_DEPTH_STENCIL_ATTACHMENT, fb.depthStencil);
        for (GLenum i = 0; i < 16; ++i)
            writeSlot(GL_COLOR_ATTACHMENT0 + i, fb.color[i]);
        if (!fb.drawBuffers.empty() && es3())
            record<fn::glDrawBuffers>(static_cast<GLsizei>(fb.drawBuffers.size()), fb.drawBuffers.data());
        if (fb.readBuffer && es3()) record<fn::glReadBuffer>(fb.readBuffer);
    }
    renderbufferContents();
    if (es3()) {
        if (!s_.defaultDrawBuffers.empty() || s_.defaultReadBuffer)
            record<fn::glBindFramebuffer>(GL_FRAMEBUFFER, 0u);
        if (!s_.defaultDrawBuffers.empty())
            record<fn::glDrawBuffers>(static_cast<GLsizei>(s_.defaultDrawBuffers.size()),
                                      s_.defaultDrawBuffers.data());
        if (s_.defaultReadBuffer) record<fn::glReadBuffer>(s_.defaultReadBuffer);
    }
}

void Writer::bindings() {
    programPipelines();
    if (es3()) {
        record<fn::glBindFramebuffer>(GL_DRAW_FRAMEBUFFER, s_.drawFramebuffer);
        record<fn::glBindFramebuffer>(GL_READ_FRAMEBUFFER, s_.readFramebuffer);
    } else {
        record<fn::glBindFramebuffer>(GL_FRAMEBUFFER, s_.drawFramebuffer);
    }
    record<fn::glBindRenderbuffer>(GL_RENDERBUFFER, s_.renderbufferBinding);
    for (auto &[target, name] : s_.bufferBindings)
        record<fn::glBindBuffer>(target, name);
    if (es3())
        for (auto &[key, b] : s_.indexedBindings) {
            // Transform feedback buffers belong to the transform feedback objects, made before.
            if (key.first == GL_TRANSFORM_FEEDBACK_BUFFER) continue;
            if (b.size > 0)
                record<fn::glBindBufferRange>(key.first, key.second, b.buffer,
                                              static_cast<GLintptr>(b.offset),
                                              static_cast<GLsizeiptr>(b.size));
            else
                record<fn::glBindBufferBase>(key.first, key.second, b.buffer);
        }
    for (auto &[unit, targets] : s_.textureUnits) {
        record<fn::glActiveTexture>(GL_TEXTURE0 + unit);
        for (auto &[target, name] : targets)
            record<fn::glBindTexture>(target, name);
    }
    record<fn::glActiveTexture>(s_.activeTexture);
    if (es3())
        for (auto &[unit, sampler] : s_.samplerBindings)
            record<fn::glBindSampler>(unit, sampler);
    if (es3())
        for (auto &[unit, u] : s_.imageUnits)
            record<fn::glBindImageTexture>(unit, u.texture, u.level, u.layered, u.layer, u.access, u.format);
    if (es3() && s_.transformFeedbackBinding)
        record<fn::glBindTransformFeedback>(GL_TRANSFORM_FEEDBACK, s_.transformFeedbackBinding);
    record<fn::glUseProgram>(s_.currentProgram);
}

void writeSurface(EGLDisplay display, const egl::SurfaceRecord &s) {
    CallCtx c;
    c.d.record = c.d.recordData = true;
    const bool window = s.kind == egl::SurfaceKind::Window || s.kind == egl::SurfaceKind::Pixmap;
    const uint16_t id = window ? fn::eglCreateWindowSurface::id : fn::eglCreatePbufferSurface::id;
    c.id = id;
    c.result = toSlot(s.surface);
    // The sizes the record carries (capture::createdWidth / createdHeight read them from here).
    c.scratch[1] = static_cast<uint32_t>(s.size->width.load());
    c.scratch[2] = static_cast<uint32_t>(s.size->height.load());
    const EGLint *attributes = s.attributes.empty() ? nullptr : s.attributes.data();
    RecordHandle h = trace::begin(id);
    if (!h) {
        trace::finish(h);
        return;
    }
    c.record = &h;
    h.u32(EGL_SUCCESS);
    h.ptr(s.surface);
    if (window)
        fn::eglCreateWindowSurface::write(
            h, c, display, s.config, reinterpret_cast<EGLNativeWindowType>(static_cast<uintptr_t>(s.native)),
            attributes);
    else
        fn::eglCreatePbufferSurface::write(h, c, display, s.config, attributes);
    c.record = nullptr;
    trace::finish(h);
}

// Contexts in an order where each share context comes before the contexts sharing with it.
std::vector<std::shared_ptr<egl::ContextRecord>> creationOrder(egl::DisplayRecord &d) {
    std::vector<std::shared_ptr<egl::ContextRecord>> out;
    std::set<EGLContext> done;
    bool progress = true;
    while (progress) {
        progress = false;
        for (auto &[handle, context] : d.contexts) {
            if (done.count(handle)) continue;
            const EGLContext share = context->shareContext;
            if (share != EGL_NO_CONTEXT && d.contexts.count(share) && !done.count(share)) continue;
            out.push_back(context);
            done.insert(handle);
            progress = true;
        }
    }
    return out;
}

// The display's other objects, after its contexts and surfaces, which images are made from: its
// images (an image of a client buffer followed by its contents) and its syncs.
void saveImagesAndSyncs(egl::DisplayRecord &d) {
    platform::LockGuard<platform::Mutex> guard(d.lock);
    for (auto &[image, r] : d.images) {
        if (r.core) {
            recordEgl<fn::eglCreateImage>(image, d.display, r.context, r.target, r.buffer,
                                          r.attributes.data());
        } else {
            std::vector<EGLint> narrow(r.attributes.begin(), r.attributes.end());
            recordEgl<fn::eglCreateImageKHR>(static_cast<EGLImageKHR>(image), d.display, r.context, r.target,
                                             r.buffer, static_cast<const EGLint *>(narrow.data()));
        }
        auto buffer = d.clientBuffers.find(image);
        if (buffer != d.clientBuffers.end()) writeClientBufferCreation(d.display, buffer->second);
    }
    for (auto &[sync, r] : d.syncs) {
        if (r.core) {
            recordEgl<fn::eglCreateSync>(sync, d.display, r.type, r.attributes.data());
        } else {
            std::vector<EGLint> narrow(r.attributes.begin(), r.attributes.end());
            recordEgl<fn::eglCreateSyncKHR>(static_cast<EGLSyncKHR>(sync), d.display, r.type,
                                            static_cast<const EGLint *>(narrow.data()));
        }
    }
}

void saveDisplay(egl::DisplayRecord &d, egl::ThreadState &t) {
    recordEgl<fn::eglGetDisplay>(d.display, static_cast<EGLNativeDisplayType>(EGL_DEFAULT_DISPLAY));
    recordEgl<fn::eglInitialize>(EGLBoolean(EGL_TRUE), d.display, static_cast<EGLint *>(nullptr),
                                 static_cast<EGLint *>(nullptr));
    writeDisplayInformation(d.display, d.major, d.minor);
    CallCtx information;
    information.d.record = information.d.recordData = true;
    std::vector<std::shared_ptr<egl::ContextRecord>> contexts;
    std::map<EGLSurface, egl::SurfaceRecord *> surfaces;
    {
        platform::LockGuard<platform::Mutex> guard(d.lock);
        contexts = creationOrder(d);
        for (auto &[handle, s] : d.surfaces)
            surfaces[handle] = &s;
    }
    // The share group whose objects can be read from the driver: that of the thread's context.
    const Resources *hostGroup = t.current && t.current->es2 ? &t.current->es2->shared() : nullptr;
    for (auto &context : contexts) {
        recordEgl<fn::eglCreateContext>(
            context->context, d.display, context->config, context->shareContext,
            context->contextAttributes.empty() ? nullptr : context->contextAttributes.data());
        writeContextInformation(information, *context);
        saveEs1Context(d.display, t, context); // OpenGL ES 1 contexts (entry/es1/es1_snapshot.cpp)
        if (!context->es2 || !context->es2->everCurrent) continue;
        recordEgl<fn::eglMakeCurrent>(EGLBoolean(EGL_TRUE), d.display, EGL_NO_SURFACE, EGL_NO_SURFACE,
                                      context->context);
        CurrentFor current(t, context);
        CEs2ContextState &s = *context->es2;
        const bool hostCurrent = current.saved == context;
        if (hostCurrent && s.apiVersion() >= 4) gl().glMemoryBarrier(0xFFFFFFFFu);
        Writer w(*context, hostCurrent);
        // The shared objects come first: the vertex arrays point into buffers that must exist.
        if (!s.shared().saved) {
            Writer sharedWriter(*context, &s.shared() == hostGroup);
            sharedWriter.shared();
        }
        w.vertexArrays();
        w.pipeline();
        w.framebuffers();
        w.bindings();
    }
    std::set<EGLConfig> described;
    for (auto &context : contexts)
        described.insert(context->config);
    for (auto &[handle, s] : surfaces)
        if (described.insert(s->config).second) writeConfigInformation(information, d.display, s->config);
    for (auto &[handle, s] : surfaces)
        if (s->kind == egl::SurfaceKind::Window) writeSurface(d.display, *s);
    for (auto &[handle, s] : surfaces)
        if (s->kind == egl::SurfaceKind::Pbuffer) writeSurface(d.display, *s);
    saveImagesAndSyncs(d);
}

void saveThread(egl::ThreadState &t) {
    recordEgl<fn::eglBindAPI>(EGLBoolean(EGL_TRUE), t.boundApi);
    if (t.display == EGL_NO_DISPLAY) return;
    recordEgl<fn::eglMakeCurrent>(EGLBoolean(EGL_TRUE), t.display, t.draw, t.read,
                                  t.current ? t.current->context : EGL_NO_CONTEXT);
    if (t.draw == EGL_NO_SURFACE) return;
    EGLint interval = 1;
    if (egl::DisplayRecord *d = egl::display(t.display, false)) {
        platform::LockGuard<platform::Mutex> guard(d->lock);
        auto it = d->surfaces.find(t.draw);
        if (it != d->surfaces.end()) interval = it->second.swapInterval;
    }
    recordEgl<fn::eglSwapInterval>(EGLBoolean(EGL_TRUE), t.display, interval);
    saveEs1ThreadBoxes(t);
    // A context made current with a surface for the first time takes the surface's size as its
    // viewport and scissor box on some drivers; the values the application set are written again.
    if (t.current && t.current->es2) {
        CEs2ContextState &s = *t.current->es2;
        GLint scissor[4], viewport[4];
        gl().glGetIntegerv(GL_SCISSOR_BOX, scissor);
        gl().glGetIntegerv(GL_VIEWPORT, viewport);
        (void)s;
        record<fn::glScissor>(scissor[0], scissor[1], scissor[2], scissor[3]);
        record<fn::glViewport>(viewport[0], viewport[1], viewport[2], viewport[3]);
    }
}

void write(bool full) {
    egl::ThreadState &t = egl::threadState();
    // Records of other threads wait until the snapshot is whole; the record lock comes before the
    // state lock, as in every wrapper.
    platform::LockGuard<platform::RecursiveLock> records(trace::recordLock());
    StateSnapshotLock state;
    GlesApi::takeStrayError();
    Settings &settings = getSettings();
    const auto started = std::chrono::steady_clock::now();
    const uint64_t startedAt = trace::tell(settings);
    if (full) {
        msg::emit(msg::kDebugger | msg::kOut, "", "Saving Render State...");
        for (egl::DisplayRecord *d : egl::displays())
            for (auto &[handle, context] : d->contexts)
                if (context->es2) context->es2->shared().saved = false;
        beginEs1();
        for (egl::DisplayRecord *d : egl::displays())
            if (d->initialised) saveDisplay(*d, t);
    }
    saveThread(t);
    if (full) msg::emit(msg::kDebugger | msg::kOut, "", "Saving Render State... Done");
    // What the snapshot cost, for users weighing a late start against a longer trace.
    const double ms =
        std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - started).count();
    msg::debug("Render state saved in %.2f ms, %llu bytes of trace", ms,
               static_cast<unsigned long long>(trace::tell(settings) - startedAt));
}

struct Install {
    Install() { frames::setSnapshotWriter(&write); }
} g_install;

} // namespace

void install() {
    frames::setSnapshotWriter(&write);
}

} // namespace kv::snapshot
