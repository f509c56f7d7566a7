// The snapshot of an OpenGL ES 1 context: objects first (textures with their contents, buffers,
// renderbuffers and framebuffers, once per share group), then the fixed-function values, the
// matrices, the client arrays and the bindings. Every record is written by the ES1 record writers
// (or the extension ones for the OES functions) from the shadow; the driver is asked only for the
// texture contents, which the shadow does not keep, and the current context's viewport and scissor.
#include "entry/es1/es1_snapshot.h"
#include "entry/snapshot_record.h"

#include "base/messages.h"
#include "core/call.h"
#include "entry/ext/ext_functions_autogen.h"
#include "state/context_state.h"
#include "state/ff_state.h"
#include "trace/trace_writer.h"

#include <cstring>
#include <vector>

namespace kv::snapshot {

namespace {

using Resources = CFFContextState::SEs1Resources;
namespace es1 = fn::es1;

constexpr GLenum kTexture2D = 0x0DE1, kModelview = 0x1700, kProjection = 0x1701, kTextureMatrix = 0x1702,
                 kMatrixPalette = 0x8840, kFramebuffer = 0x8D40, kRenderbuffer = 0x8D41,
                 kColorAttachment0 = 0x8CE0, kFramebufferComplete = 0x8CD5, kFramebufferBinding = 0x8CA6;
constexpr GLenum kLight0 = 0x4000, kClipPlane0 = 0x3000, kFrontAndBack = 0x0408;
constexpr GLenum kVertexArray = 0x8074, kNormalArray = 0x8075, kColorArray = 0x8076, kTexCoordArray = 0x8078,
                 kPointSizeArray = 0x8B9C, kMatrixIndexArray = 0x8844, kWeightArray = 0x86AD;
constexpr GLenum kLuminance = 0x1909, kLuminanceAlpha = 0x190A, kAlpha = 0x1906;

const SEs1HostFns &gl() {
    return SEs1Host::get().fn;
}

// The bytes per texel of the uncompressed formats OpenGL ES 1 uploads; 0 for any other.
uint32_t texelBytes(GLenum format, GLenum type) {
    if (type == GL_UNSIGNED_SHORT_5_6_5 || type == GL_UNSIGNED_SHORT_4_4_4_4 ||
        type == GL_UNSIGNED_SHORT_5_5_5_1)
        return 2;
    if (type != GL_UNSIGNED_BYTE) return 0;
    switch (format) {
    case GL_RGBA:
        return 4;
    case GL_RGB:
        return 3;
    case kLuminanceAlpha:
        return 2;
    case kLuminance:
    case kAlpha:
        return 1;
    default:
        return 0;
    }
}

// One texel of RGBA8 in the level's format.
void convertTexel(const uint8_t *rgba, GLenum format, GLenum type, uint8_t *out) {
    auto bits = [&](int c, int n) { return static_cast<uint32_t>(rgba[c]) >> (8 - n); };
    uint16_t packed = 0;
    switch (type) {
    case GL_UNSIGNED_SHORT_5_6_5:
        packed = static_cast<uint16_t>(bits(0, 5) << 11 | bits(1, 6) << 5 | bits(2, 5));
        break;
    case GL_UNSIGNED_SHORT_4_4_4_4:
        packed = static_cast<uint16_t>(bits(0, 4) << 12 | bits(1, 4) << 8 | bits(2, 4) << 4 | bits(3, 4));
        break;
    case GL_UNSIGNED_SHORT_5_5_5_1:
        packed = static_cast<uint16_t>(bits(0, 5) << 11 | bits(1, 5) << 6 | bits(2, 5) << 1 | bits(3, 1));
        break;
    default:
        switch (format) {
        case GL_RGBA:
            std::memcpy(out, rgba, 4);
            return;
        case GL_RGB:
            std::memcpy(out, rgba, 3);
            return;
        case kLuminanceAlpha:
            out[0] = rgba[0], out[1] = rgba[3];
            return;
        case kLuminance:
            out[0] = rgba[0];
            return;
        case kAlpha:
            out[0] = rgba[3];
            return;
        default:
            return;
        }
    }
    std::memcpy(out, &packed, 2);
}

class Es1Writer {
public:
    Es1Writer(CFFContextState &state, bool hostCurrent, bool hostGroup)
        : s_(state), host_(hostCurrent), hostGroup_(hostGroup) {}

    void shared();
    void context();

private:
    void textures();
    void buffers();
    void renderbuffers();
    void framebuffers();
    void units();
    void values();
    void eyeValue(const CFFContextState::EyeValue &v);
    void matrices();
    void stack(const std::vector<CFFContextState::Matrix> &stack);
    std::vector<CFFContextState::Matrix> withDriverTop(const std::vector<CFFContextState::Matrix> &matrices,
                                                       GLenum query, GLenum unit);
    void rest();
    void clientArrays();
    void clientArray(GLenum name, const CFFContextState::ClientArray &a, uint16_t pointerCall);
    bool readLevel(GLuint texture, GLint level, const Resources::Level &l, std::vector<uint8_t> &out);

    CFFContextState &s_;
    bool host_, hostGroup_;
    GLuint readFramebuffer_ = 0;
};

// The contents of a level as the driver holds them, through a framebuffer that has the level as its
// colour attachment, converted to the level's format and laid out with the unpack alignment the
// record writer sizes the upload by. False when the driver cannot give them (not this thread's
// share group, a format no framebuffer renders to).
bool Es1Writer::readLevel(GLuint texture, GLint level, const Resources::Level &l, std::vector<uint8_t> &out) {
    const auto &ext = SGlesExtHost::get().fn;
    const uint32_t bytes = texelBytes(l.format, l.type);
    if (!hostGroup_ || l.compressed || bytes == 0 || l.width <= 0 || l.height <= 0 ||
        !ext.glGenFramebuffersOES || !ext.glBindFramebufferOES || !ext.glFramebufferTexture2DOES ||
        !ext.glCheckFramebufferStatusOES || !gl().glReadPixels)
        return false;
    GLint previous = 0, packAlignment = 4;
    gl().glGetIntegerv(kFramebufferBinding, &previous);
    gl().glGetIntegerv(GL_PACK_ALIGNMENT, &packAlignment);
    if (!readFramebuffer_) ext.glGenFramebuffersOES(1, &readFramebuffer_);
    ext.glBindFramebufferOES(kFramebuffer, readFramebuffer_);
    ext.glFramebufferTexture2DOES(kFramebuffer, kColorAttachment0, kTexture2D, texture, level);
    bool ok = ext.glCheckFramebufferStatusOES(kFramebuffer) == kFramebufferComplete;
    std::vector<uint8_t> rgba;
    if (ok) {
        rgba.resize(static_cast<size_t>(l.width) * static_cast<size_t>(l.height) * 4);
        gl().glPixelStorei(GL_PACK_ALIGNMENT, 1);
        gl().glReadPixels(0, 0, l.width, l.height, GL_RGBA, GL_UNSIGNED_BYTE, rgba.data());
        gl().glPixelStorei(GL_PACK_ALIGNMENT, packAlignment);
        ok = gl().glGetError() == GL_NO_ERROR;
    }
    ext.glFramebufferTexture2DOES(kFramebuffer, kColorAttachment0, kTexture2D, 0, 0);
    ext.glBindFramebufferOES(kFramebuffer, static_cast<GLuint>(previous));
    while (gl().glGetError() != GL_NO_ERROR) {
    }
    if (!ok) return false;
    const uint32_t alignment = static_cast<uint32_t>(s_.unpackAlignment > 0 ? s_.unpackAlignment : 1);
    const size_t row = (static_cast<size_t>(l.width) * bytes + alignment - 1) / alignment * alignment;
    out.assign(row * static_cast<size_t>(l.height), 0);
    for (GLsizei y = 0; y < l.height; ++y)
        for (GLsizei x = 0; x < l.width; ++x)
            convertTexel(&rgba[(static_cast<size_t>(y) * l.width + x) * 4], l.format, l.type,
                         &out[y * row + static_cast<size_t>(x) * bytes]);
    return true;
}

void Es1Writer::textures() {
    for (auto &[name, t] : s_.shared().textures) {
        genOne<es1::glGenTextures>(name);
        const GLenum target = t.target ? t.target : kTexture2D;
        record<es1::glBindTexture>(target, name);
        for (auto &[pname, value] : t.parameters)
            record<es1::glTexParameterfv>(target, pname, value.data());
        for (auto &[level, l] : t.levels) {
            std::vector<uint8_t> data;
            if (readLevel(name, level, l, data)) {
                record<es1::glTexImage2D>(target, level, static_cast<GLint>(l.internalFormat), l.width,
                                          l.height, 0, l.format, l.type,
                                          static_cast<const void *>(data.data()));
            } else {
                // The level exists again with its size and format; what it held is not known.
                msg::warning("Texture %u level %d: its contents could not be read back", name, level);
                if (l.compressed) continue;
                record<es1::glTexImage2D>(target, level, static_cast<GLint>(l.internalFormat), l.width,
                                          l.height, 0, l.format, l.type, static_cast<const void *>(nullptr));
            }
        }
    }
    if (readFramebuffer_) {
        SGlesExtHost::get().fn.glDeleteFramebuffersOES(1, &readFramebuffer_);
        readFramebuffer_ = 0;
    }
}

void Es1Writer::buffers() {
    for (auto &[name, b] : s_.shared().buffers) {
        genOne<es1::glGenBuffers>(name);
        record<es1::glBindBuffer>(GL_ARRAY_BUFFER, name);
        if (b.mapPointer)
            msg::warning("Warning: Buffer %i is currently mapped. The data that is saved may be incorrect.",
                         static_cast<int>(name));
        if (!b.contents.empty())
            record<es1::glBufferData>(GL_ARRAY_BUFFER, static_cast<GLsizeiptr>(b.contents.size()),
                                      static_cast<const void *>(b.contents.data()), b.usage);
    }
}

void Es1Writer::renderbuffers() {
    for (auto &[name, r] : s_.shared().renderbuffers) {
        genOne<fn::glGenRenderbuffersOES>(name);
        record<fn::glBindRenderbufferOES>(kRenderbuffer, name);
        if (r.internalFormat)
            record<fn::glRenderbufferStorageOES>(kRenderbuffer, r.internalFormat, r.width, r.height);
    }
}

void Es1Writer::framebuffers() {
    for (auto &[name, f] : s_.shared().framebuffers) {
        genOne<fn::glGenFramebuffersOES>(name);
        record<fn::glBindFramebufferOES>(kFramebuffer, name);
        for (auto &[point, a] : f.attachments) {
            if (a.type == kRenderbuffer)
                record<fn::glFramebufferRenderbufferOES>(kFramebuffer, point, kRenderbuffer, a.name);
            else if (a.type != 0)
                record<fn::glFramebufferTexture2DOES>(
                    kFramebuffer, point, a.textureTarget ? a.textureTarget : kTexture2D, a.name, a.level);
        }
    }
}

void Es1Writer::shared() {
    textures();
    buffers();
    renderbuffers();
    framebuffers();
    s_.shared().saved = true;
}

void Es1Writer::units() {
    for (uint32_t u = 0; u < CFFContextState::kTextureUnits; ++u) {
        const CFFContextState::TextureUnit &unit = s_.units[u];
        record<es1::glActiveTexture>(GL_TEXTURE0 + u);
        record<es1::glBindTexture>(kTexture2D, unit.binding2D);
        if (unit.enabled2D)
            record<es1::glEnable>(kTexture2D);
        else
            record<es1::glDisable>(kTexture2D);
        for (auto &[key, value] : unit.environment)
            record<es1::glTexEnvfv>(key.first, key.second, value.data());
        record<es1::glMultiTexCoord4f>(GL_TEXTURE0 + u, unit.texCoord[0], unit.texCoord[1], unit.texCoord[2],
                                       unit.texCoord[3]);
    }
    record<es1::glActiveTexture>(s_.activeTexture);
}

// A value kept in eye coordinates is given again under the modelview matrix it was given under.
void Es1Writer::eyeValue(const CFFContextState::EyeValue &v) {
    record<es1::glMatrixMode>(kModelview);
    record<es1::glLoadMatrixf>(v.modelview.data());
}

void Es1Writer::values() {
    // The capabilities first and the current colour after the materials: with colour material on,
    // a driver takes the material's tracked parts from the colour when the colour changes (and may
    // ignore material calls for them), which leaves them as the application's calls left them.
    for (auto &[cap, on] : s_.capabilities) {
        if (on)
            record<es1::glEnable>(cap);
        else
            record<es1::glDisable>(cap);
    }
    record<es1::glAlphaFunc>(s_.alphaFunc, s_.alphaRef);
    record<es1::glBlendFunc>(s_.blendSrc, s_.blendDst);
    record<es1::glClearColor>(s_.clearColor[0], s_.clearColor[1], s_.clearColor[2], s_.clearColor[3]);
    record<es1::glClearDepthf>(s_.clearDepth);
    record<es1::glClearStencil>(s_.clearStencil);
    for (uint32_t p = 0; p < CFFContextState::kClipPlanes; ++p) {
        eyeValue(s_.clipPlanes[p]);
        record<es1::glClipPlanef>(kClipPlane0 + p, s_.clipPlanes[p].value.data());
    }
    record<es1::glColorMask>(GLboolean(s_.colorMask[0]), GLboolean(s_.colorMask[1]),
                             GLboolean(s_.colorMask[2]), GLboolean(s_.colorMask[3]));
    record<es1::glCullFace>(s_.cullFace);
    record<es1::glDepthFunc>(s_.depthFunc);
    record<es1::glDepthMask>(GLboolean(s_.depthMask));
    record<es1::glDepthRangef>(s_.depthRange[0], s_.depthRange[1]);
    record<es1::glFogf>(GLenum(0x0B65), static_cast<GLfloat>(s_.fogMode)); // GL_FOG_MODE
    record<es1::glFogf>(GLenum(0x0B62), s_.fogDensity);
    record<es1::glFogf>(GLenum(0x0B63), s_.fogStart);
    record<es1::glFogf>(GLenum(0x0B64), s_.fogEnd);
    record<es1::glFogfv>(GLenum(0x0B66), s_.fogColor.data());
    record<es1::glFrontFace>(s_.frontFace);
    for (auto &[target, mode] : s_.hints)
        record<es1::glHint>(target, mode);
    record<es1::glLightModelf>(GLenum(0x0B52), s_.lightModelTwoSide ? 1.0f : 0.0f);
    record<es1::glLightModelfv>(GLenum(0x0B53), s_.lightModelAmbient.data());
    for (uint32_t i = 0; i < CFFContextState::kLights; ++i) {
        const CFFContextState::Light &l = s_.lights[i];
        const GLenum light = kLight0 + i;
        record<es1::glLightfv>(light, GLenum(0x1200), l.ambient.data());
        record<es1::glLightfv>(light, GLenum(0x1201), l.diffuse.data());
        record<es1::glLightfv>(light, GLenum(0x1202), l.specular.data());
        eyeValue(l.position);
        record<es1::glLightfv>(light, GLenum(0x1203), l.position.value.data());
        eyeValue(l.spotDirection);
        record<es1::glLightfv>(light, GLenum(0x1204), l.spotDirection.value.data());
        record<es1::glLightf>(light, GLenum(0x1205), l.spotExponent);
        record<es1::glLightf>(light, GLenum(0x1206), l.spotCutoff);
        record<es1::glLightf>(light, GLenum(0x1207), l.constantAttenuation);
        record<es1::glLightf>(light, GLenum(0x1208), l.linearAttenuation);
        record<es1::glLightf>(light, GLenum(0x1209), l.quadraticAttenuation);
    }
    record<es1::glLineWidth>(s_.lineWidth);
    record<es1::glLogicOp>(s_.logicOp);
    record<es1::glMaterialfv>(kFrontAndBack, GLenum(0x1200), s_.materialAmbient.data());
    record<es1::glMaterialfv>(kFrontAndBack, GLenum(0x1201), s_.materialDiffuse.data());
    record<es1::glMaterialfv>(kFrontAndBack, GLenum(0x1202), s_.materialSpecular.data());
    record<es1::glMaterialfv>(kFrontAndBack, GLenum(0x1600), s_.materialEmission.data());
    record<es1::glMaterialf>(kFrontAndBack, GLenum(0x1601), s_.materialShininess);
    record<es1::glColor4f>(s_.currentColor[0], s_.currentColor[1], s_.currentColor[2], s_.currentColor[3]);
}

// A matrix stack, bottom first: each matrix loaded, pushed for the next.
void Es1Writer::stack(const std::vector<CFFContextState::Matrix> &matrices) {
    for (size_t i = 0; i < matrices.size(); ++i) {
        if (i > 0) record<es1::glPushMatrix>();
        record<es1::glLoadMatrixf>(matrices[i].data());
    }
}

// A matrix stack whose top the driver holds: the driver's own top (on the context current on this
// thread), since the shadow's product of the matrix calls may differ from the driver's in the last
// bits, which moves rasterised edges.
std::vector<CFFContextState::Matrix>
Es1Writer::withDriverTop(const std::vector<CFFContextState::Matrix> &matrices, GLenum query, GLenum unit) {
    std::vector<CFFContextState::Matrix> out = matrices;
    if (!host_ || out.empty() || !gl().glGetFloatv) return out;
    GLint active = GL_TEXTURE0;
    if (unit) {
        gl().glGetIntegerv(GL_ACTIVE_TEXTURE, &active);
        gl().glActiveTexture(unit);
    }
    CFFContextState::Matrix top{};
    gl().glGetFloatv(query, top.data());
    if (unit) gl().glActiveTexture(static_cast<GLenum>(active));
    if (gl().glGetError() == GL_NO_ERROR) out.back() = top;
    return out;
}

void Es1Writer::matrices() {
    record<es1::glMatrixMode>(kModelview);
    stack(withDriverTop(s_.modelviewStack, 0x0BA6 /* GL_MODELVIEW_MATRIX */, 0));
    record<es1::glMatrixMode>(kProjection);
    stack(withDriverTop(s_.projectionStack, 0x0BA7 /* GL_PROJECTION_MATRIX */, 0));
    if (!s_.palette.empty()) {
        record<es1::glMatrixMode>(kMatrixPalette);
        for (auto &[index, matrices] : s_.palette) {
            record<fn::glCurrentPaletteMatrixOES>(index);
            stack(matrices);
        }
        record<fn::glCurrentPaletteMatrixOES>(s_.currentPaletteMatrix);
    }
    record<es1::glMatrixMode>(kTextureMatrix);
    for (uint32_t u = 0; u < CFFContextState::kTextureUnits; ++u) {
        record<es1::glActiveTexture>(GL_TEXTURE0 + u);
        stack(withDriverTop(s_.units[u].matrixStack, 0x0BA8 /* GL_TEXTURE_MATRIX */, GL_TEXTURE0 + u));
    }
    record<es1::glActiveTexture>(s_.activeTexture);
    record<es1::glMatrixMode>(s_.matrixMode);
}

void Es1Writer::rest() {
    record<es1::glNormal3f>(s_.currentNormal[0], s_.currentNormal[1], s_.currentNormal[2]);
    record<es1::glPixelStorei>(GLenum(GL_PACK_ALIGNMENT), s_.packAlignment);
    record<es1::glPixelStorei>(GLenum(GL_UNPACK_ALIGNMENT), s_.unpackAlignment);
    record<es1::glPointParameterf>(GLenum(0x8126), s_.pointSizeMin);
    float pointSizeMax = s_.pointSizeMax;
    if (host_ && pointSizeMax < 0 && gl().glGetFloatv) gl().glGetFloatv(0x8127, &pointSizeMax);
    if (pointSizeMax >= 0) record<es1::glPointParameterf>(GLenum(0x8127), pointSizeMax);
    record<es1::glPointParameterf>(GLenum(0x8128), s_.pointFadeThreshold);
    record<es1::glPointParameterfv>(GLenum(0x8129), s_.pointDistanceAttenuation.data());
    record<es1::glPointSize>(s_.pointSize);
    record<es1::glPolygonOffset>(s_.polygonOffsetFactor, s_.polygonOffsetUnits);
    record<es1::glSampleCoverage>(s_.sampleCoverageValue, GLboolean(s_.sampleCoverageInvert));
    GLint scissor[4] = {s_.scissor[0], s_.scissor[1], s_.scissor[2], s_.scissor[3]};
    GLint viewport[4] = {s_.viewport[0], s_.viewport[1], s_.viewport[2], s_.viewport[3]};
    if (host_) {
        // A context current with a surface took the surface's size without a call the recorder saw.
        gl().glGetIntegerv(GL_SCISSOR_BOX, scissor);
        gl().glGetIntegerv(GL_VIEWPORT, viewport);
    }
    if (scissor[2] > 0 && scissor[3] > 0)
        record<es1::glScissor>(scissor[0], scissor[1], scissor[2], scissor[3]);
    record<es1::glShadeModel>(s_.shadeModel);
    record<es1::glStencilFunc>(s_.stencilFunc, s_.stencilRef, s_.stencilValueMask);
    record<es1::glStencilMask>(s_.stencilWriteMask);
    record<es1::glStencilOp>(s_.stencilFail, s_.stencilDepthFail, s_.stencilDepthPass);
    if (viewport[2] > 0 && viewport[3] > 0)
        record<es1::glViewport>(viewport[0], viewport[1], viewport[2], viewport[3]);
}

void Es1Writer::clientArray(GLenum name, const CFFContextState::ClientArray &a, uint16_t pointerCall) {
    record<es1::glBindBuffer>(GL_ARRAY_BUFFER, a.buffer);
    switch (pointerCall) {
    case es1::glVertexPointer::id:
        record<es1::glVertexPointer>(a.size, a.type, a.stride, a.pointer);
        break;
    case es1::glNormalPointer::id:
        record<es1::glNormalPointer>(a.type, a.stride, a.pointer);
        break;
    case es1::glColorPointer::id:
        record<es1::glColorPointer>(a.size, a.type, a.stride, a.pointer);
        break;
    case es1::glPointSizePointerOES::id:
        record<es1::glPointSizePointerOES>(a.type, a.stride, a.pointer);
        break;
    case fn::glMatrixIndexPointerOES::id:
        record<fn::glMatrixIndexPointerOES>(a.size, a.type, a.stride, a.pointer);
        break;
    case fn::glWeightPointerOES::id:
        record<fn::glWeightPointerOES>(a.size, a.type, a.stride, a.pointer);
        break;
    default:
        record<es1::glTexCoordPointer>(a.size, a.type, a.stride, a.pointer);
        break;
    }
    if (a.enabled)
        record<es1::glEnableClientState>(name);
    else
        record<es1::glDisableClientState>(name);
}

void Es1Writer::clientArrays() {
    clientArray(kVertexArray, s_.vertexArray, es1::glVertexPointer::id);
    clientArray(kNormalArray, s_.normalArray, es1::glNormalPointer::id);
    clientArray(kColorArray, s_.colorArray, es1::glColorPointer::id);
    clientArray(kPointSizeArray, s_.pointSizeArray, es1::glPointSizePointerOES::id);
    // The matrix palette's arrays only where the program set them: a driver without the extension
    // would take the calls for errors.
    const auto used = [](const CFFContextState::ClientArray &a) {
        return a.enabled || a.pointer || a.buffer;
    };
    if (used(s_.matrixIndexArray))
        clientArray(kMatrixIndexArray, s_.matrixIndexArray, fn::glMatrixIndexPointerOES::id);
    if (used(s_.weightArray)) clientArray(kWeightArray, s_.weightArray, fn::glWeightPointerOES::id);
    for (uint32_t u = 0; u < CFFContextState::kTextureUnits; ++u) {
        record<es1::glClientActiveTexture>(GL_TEXTURE0 + u);
        clientArray(kTexCoordArray, s_.units[u].texCoordArray, es1::glTexCoordPointer::id);
    }
    record<es1::glClientActiveTexture>(s_.clientActiveTexture);
    record<es1::glBindBuffer>(GL_ARRAY_BUFFER, s_.arrayBuffer);
    record<es1::glBindBuffer>(GL_ELEMENT_ARRAY_BUFFER, s_.elementArrayBuffer);
}

void Es1Writer::context() {
    units();
    values();
    matrices();
    rest();
    clientArrays();
    record<fn::glBindRenderbufferOES>(kRenderbuffer, s_.renderbufferBinding);
    record<fn::glBindFramebufferOES>(kFramebuffer, s_.framebufferBinding);
}

} // namespace

void beginEs1() {
    for (egl::DisplayRecord *d : egl::displays()) {
        platform::LockGuard<platform::Mutex> guard(d->lock);
        for (auto &[handle, context] : d->contexts)
            if (context->es1) context->es1->shared().saved = false;
    }
}

void saveEs1Context(EGLDisplay display, egl::ThreadState &thread,
                    const std::shared_ptr<egl::ContextRecord> &context) {
    if (!context->es1 || !context->es1->everCurrent) return;
    callR<fn::eglMakeCurrent>(EGL_SUCCESS, EGLBoolean(EGL_TRUE), display, EGL_NO_SURFACE, EGL_NO_SURFACE,
                              context->context);
    const bool hostCurrent = thread.current == context;
    // Texture contents can be read from the driver for the share group of the thread's context.
    const bool hostGroup =
        thread.current && thread.current->es1 && &thread.current->es1->shared() == &context->es1->shared();
    CurrentFor current(thread, context);
    CFFContextState &s = *context->es1;
    if (hostCurrent || hostGroup) {
        // What the driver holds for the application is kept for its glGetError; the read-backs'
        // own errors are dropped.
        if (GLenum pending = gl().glGetError ? gl().glGetError() : GL_NO_ERROR)
            if (s.pendingError == GL_NO_ERROR) s.pendingError = pending;
    }
    Es1Writer writer(s, hostCurrent, hostGroup);
    if (!s.shared().saved) writer.shared();
    writer.context();
}

void saveEs1ThreadBoxes(egl::ThreadState &thread) {
    if (!thread.current || !thread.current->es1 || thread.draw == EGL_NO_SURFACE) return;
    GLint scissor[4], viewport[4];
    gl().glGetIntegerv(GL_SCISSOR_BOX, scissor);
    gl().glGetIntegerv(GL_VIEWPORT, viewport);
    record<es1::glScissor>(scissor[0], scissor[1], scissor[2], scissor[3]);
    record<es1::glViewport>(viewport[0], viewport[1], viewport[2], viewport[3]);
}

} // namespace kv::snapshot
