// Client buffers: EGL images made from memory that no context owns (a native pixmap, a dma-buf, a
// native window buffer). Their contents are recorded with the pseudo-calls 1500 "(Client buffer
// creation)" and 1501 "(Client buffer update)", read back through the current OpenGL ES 2/3 context.
// Tracing.ClientBufferRecordFrequency says when:
//   0  never
//   1  at creation, then at every frame end for the images whose contents changed
//   2  at creation (the default)
//   3  at creation, then each time OpenGL ES takes the image (glEGLImageTarget*OES)
// Contents that cannot be read when they are due (no current context then) are recorded at the
// next frame end that can.
#include "base/messages.h"
#include "entry/gles/hooks_state.h"
#include "entry/hooks.h"
#include "state/egl_state.h"

#include <vector>

namespace kv {

namespace {

constexpr uint16_t kClientBufferCreation = 1500;
constexpr uint16_t kClientBufferUpdate = 1501;

// Image targets that name an object of a context; every other target is a client buffer.
bool isClientBuffer(EGLenum target) {
    return !((target >= EGL_GL_TEXTURE_2D && target <= EGL_GL_RENDERBUFFER) ||
             target == EGL_VG_PARENT_IMAGE_KHR);
}

uint64_t contentHash(const std::vector<uint8_t> &bytes) {
    uint64_t h = 1469598103934665603ull;
    for (uint8_t b : bytes)
        h = (h ^ b) * 1099511628211ull;
    return h;
}

template <class T>
void sizeFromAttributes(const T *list, int32_t &width, int32_t &height) {
    std::vector<T> copy(rec::attribCount(list));
    if (!copy.empty()) platform::guardedCopy(copy.data(), list, copy.size() * sizeof(T));
    for (size_t i = 0; i + 1 < copy.size() && copy[i] != EGL_NONE; i += 2) {
        if (copy[i] == EGL_WIDTH) width = static_cast<int32_t>(copy[i + 1]);
        if (copy[i] == EGL_HEIGHT) height = static_cast<int32_t>(copy[i + 1]);
    }
}

// Reads an image's contents as RGBA bytes through the calling thread's current OpenGL ES 2/3
// context, leaving the context's bindings, pack state and errors as they were. False when there is
// no such context or the image cannot be read.
bool readImage(EGLImage image, int32_t &width, int32_t &height, std::vector<uint8_t> &pixels) {
    CEs2ContextState *state = egl::currentEs2StateQuiet();
    const auto takeImage = SGlesExtHost::get().fn.glEGLImageTargetTexture2DOES;
    if (!state || !takeImage) return false;
    const auto &gl = GLESPPHost::get().fn;
    gles::OwnGlCalls own;
    GLint texture = 0, drawFramebuffer = 0, readFramebuffer = 0, alignment = 4, packBuffer = 0;
    const bool es3 = state->apiVersion() >= 3;
    gl.glGetIntegerv(GL_TEXTURE_BINDING_2D, &texture);
    gl.glGetIntegerv(GL_FRAMEBUFFER_BINDING, &drawFramebuffer);
    if (es3) gl.glGetIntegerv(GL_READ_FRAMEBUFFER_BINDING, &readFramebuffer);
    gl.glGetIntegerv(GL_PACK_ALIGNMENT, &alignment);
    if (es3) gl.glGetIntegerv(GL_PIXEL_PACK_BUFFER_BINDING, &packBuffer);

    GLuint ownTexture = 0, ownFramebuffer = 0;
    gl.glGenTextures(1, &ownTexture);
    gl.glBindTexture(GL_TEXTURE_2D, ownTexture);
    takeImage(GL_TEXTURE_2D, image);
    if ((width <= 0 || height <= 0) && gl.glGetTexLevelParameteriv) {
        gl.glGetTexLevelParameteriv(GL_TEXTURE_2D, 0, GL_TEXTURE_WIDTH, &width);
        gl.glGetTexLevelParameteriv(GL_TEXTURE_2D, 0, GL_TEXTURE_HEIGHT, &height);
    }
    bool read = false;
    if (width > 0 && height > 0 && width <= 16384 && height <= 16384) {
        gl.glGenFramebuffers(1, &ownFramebuffer);
        gl.glBindFramebuffer(GL_FRAMEBUFFER, ownFramebuffer);
        gl.glFramebufferTexture2D(GL_FRAMEBUFFER, GL_COLOR_ATTACHMENT0, GL_TEXTURE_2D, ownTexture, 0);
        if (gl.glCheckFramebufferStatus(GL_FRAMEBUFFER) == GL_FRAMEBUFFER_COMPLETE) {
            pixels.assign(static_cast<size_t>(width) * static_cast<size_t>(height) * 4, 0);
            if (packBuffer) gl.glBindBuffer(GL_PIXEL_PACK_BUFFER, 0);
            if (alignment != 4) gl.glPixelStorei(GL_PACK_ALIGNMENT, 4);
            gl.glReadPixels(0, 0, width, height, GL_RGBA, GL_UNSIGNED_BYTE, pixels.data());
            if (alignment != 4) gl.glPixelStorei(GL_PACK_ALIGNMENT, alignment);
            if (packBuffer) gl.glBindBuffer(GL_PIXEL_PACK_BUFFER, static_cast<GLuint>(packBuffer));
            read = gl.glGetError() == GL_NO_ERROR;
        }
        if (es3) {
            gl.glBindFramebuffer(GL_DRAW_FRAMEBUFFER, static_cast<GLuint>(drawFramebuffer));
            gl.glBindFramebuffer(GL_READ_FRAMEBUFFER, static_cast<GLuint>(readFramebuffer));
        } else {
            gl.glBindFramebuffer(GL_FRAMEBUFFER, static_cast<GLuint>(drawFramebuffer));
        }
        gl.glDeleteFramebuffers(1, &ownFramebuffer);
    }
    gl.glBindTexture(GL_TEXTURE_2D, static_cast<GLuint>(texture));
    gl.glDeleteTextures(1, &ownTexture);
    if (!read) pixels.clear();
    return read;
}

// Writes a creation (1500) or update (1501) record of a client buffer with the contents read now,
// when they can be read.
void recordContents(EGLDisplay dpy, egl::ClientBufferRecord &buffer, uint16_t id) {
    int32_t width = buffer.width, height = buffer.height;
    std::vector<uint8_t> pixels;
    const bool read = readImage(buffer.image, width, height, pixels);
    if (id == kClientBufferUpdate && !read) return;
    const uint64_t hash = contentHash(pixels);
    if (id == kClientBufferUpdate && buffer.recorded && hash == buffer.contentHash) return;
    CallCtx c;
    c.d.recordData = true;
    RecordHandle h = trace::begin(id);
    if (h) {
        h.ptr(dpy);
        h.ptr(buffer.image);
        if (id == kClientBufferCreation) {
            h.u32(buffer.target);
            h.ptr(buffer.buffer);
        }
        h.i32(read ? width : 0);
        h.i32(read ? height : 0);
        rec::blob(h, c, pixels.data(), pixels.size(), api::kCompressible | api::kAlways);
    }
    trace::finish(h);
    if (read) {
        buffer.recorded = true;
        buffer.contentHash = hash;
    }
}

// An image of a client buffer the driver made: entered in its display's table and, when due,
// recorded after the call's own record.
template <class T>
void noteImage(CallCtx &c, EGLImage image, EGLDisplay dpy, EGLenum target, EGLClientBuffer buffer,
               const T *attributes) {
    if (c.failed || image == EGL_NO_IMAGE || !isClientBuffer(target) || c.d.clientBufferRecordFrequency == 0)
        return;
    egl::ClientBufferRecord record;
    record.image = image;
    record.target = target;
    record.buffer = buffer;
    sizeFromAttributes(attributes, record.width, record.height);
    egl::DisplayRecord *d = egl::display(dpy, true);
    platform::LockGuard<platform::Mutex> guard(d->lock);
    d->clientBuffers[image] = record;
}

void recordCreation(CallCtx &c, EGLImage image, EGLDisplay dpy) {
    if (!c.d.record || c.failed || image == EGL_NO_IMAGE) return;
    egl::DisplayRecord *d = egl::display(dpy, false);
    if (!d) return;
    platform::LockGuard<platform::Mutex> guard(d->lock);
    auto it = d->clientBuffers.find(image);
    if (it != d->clientBuffers.end()) recordContents(dpy, it->second, kClientBufferCreation);
}

void forgetImage(CallCtx &c, EGLBoolean result, EGLDisplay dpy, EGLImage image) {
    if (c.failed || result != EGL_TRUE) return;
    if (egl::DisplayRecord *d = egl::display(dpy, false)) {
        platform::LockGuard<platform::Mutex> guard(d->lock);
        d->clientBuffers.erase(image);
        d->images.erase(image);
    }
}

// Before OpenGL ES takes an image (frequency 3): its contents as they are now.
void beforeImageTaken(CallCtx &c, GLeglImageOES image) {
    if (!c.d.record || c.d.clientBufferRecordFrequency != 3) return;
    egl::ThreadState *t = egl::threadStateIfAny();
    egl::DisplayRecord *d = t ? egl::display(t->display, false) : nullptr;
    if (!d) return;
    platform::LockGuard<platform::Mutex> guard(d->lock);
    auto it = d->clientBuffers.find(static_cast<EGLImage>(image));
    if (it != d->clientBuffers.end()) recordContents(t->display, it->second, kClientBufferUpdate);
}

// An attribute list kept whole, whatever its element type.
template <class T>
std::vector<EGLAttrib> keepAttributes(const T *list) {
    std::vector<T> copy(rec::attribCount(list));
    if (!copy.empty()) platform::guardedCopy(copy.data(), list, copy.size() * sizeof(T));
    std::vector<EGLAttrib> out(copy.begin(), copy.end());
    if (out.empty() || out.back() != EGL_NONE) out.push_back(EGL_NONE);
    return out;
}

template <class T>
void keepImage(CallCtx &c, EGLImage image, EGLDisplay dpy, EGLContext ctx, EGLenum target,
               EGLClientBuffer buffer, const T *attributes, bool core) {
    if (c.failed || image == EGL_NO_IMAGE) return;
    egl::ImageRecord record;
    record.context = ctx;
    record.target = target;
    record.buffer = buffer;
    record.attributes = keepAttributes(attributes);
    record.core = core;
    egl::DisplayRecord *d = egl::display(dpy, true);
    platform::LockGuard<platform::Mutex> guard(d->lock);
    d->images[image] = std::move(record);
}

template <class T>
void keepSync(CallCtx &c, EGLSync sync, EGLDisplay dpy, EGLenum type, const T *attributes, bool core) {
    if (c.failed || sync == EGL_NO_SYNC) return;
    egl::SyncRecord record;
    record.type = type;
    record.attributes = keepAttributes(attributes);
    record.core = core;
    egl::DisplayRecord *d = egl::display(dpy, true);
    platform::LockGuard<platform::Mutex> guard(d->lock);
    d->syncs[sync] = std::move(record);
}

void forgetSync(CallCtx &c, EGLBoolean result, EGLDisplay dpy, EGLSync sync) {
    if (c.failed || result != EGL_TRUE) return;
    if (egl::DisplayRecord *d = egl::display(dpy, false)) {
        platform::LockGuard<platform::Mutex> guard(d->lock);
        d->syncs.erase(sync);
    }
}

} // namespace

void writeClientBufferCreation(EGLDisplay dpy, egl::ClientBufferRecord &buffer) {
    recordContents(dpy, buffer, kClientBufferCreation);
}

void Hooks<fn::eglCreateSync>::after(CallCtx &c, EGLSync &result, EGLDisplay dpy, EGLenum type,
                                     const EGLAttrib *attrib_list) {
    keepSync(c, result, dpy, type, attrib_list, true);
}
void Hooks<fn::eglCreateSyncKHR>::after(CallCtx &c, EGLSyncKHR &result, EGLDisplay dpy, EGLenum type,
                                        const EGLint *attrib_list) {
    keepSync(c, static_cast<EGLSync>(result), dpy, type, attrib_list, false);
}
void Hooks<fn::eglDestroySync>::after(CallCtx &c, EGLBoolean &result, EGLDisplay dpy, EGLSync sync) {
    forgetSync(c, result, dpy, sync);
}
void Hooks<fn::eglDestroySyncKHR>::after(CallCtx &c, EGLBoolean &result, EGLDisplay dpy, EGLSyncKHR sync) {
    forgetSync(c, result, dpy, static_cast<EGLSync>(sync));
}

void clientBufferPass(CallCtx &c, EGLDisplay dpy) {
    if (!c.d.record || c.d.clientBufferRecordFrequency == 0) return;
    egl::DisplayRecord *d = egl::display(dpy, false);
    if (!d) return;
    platform::LockGuard<platform::Mutex> guard(d->lock);
    for (auto &entry : d->clientBuffers)
        if (c.d.clientBufferRecordFrequency == 1 || !entry.second.recorded)
            recordContents(dpy, entry.second, kClientBufferUpdate);
}

void Hooks<fn::eglCreateImageKHR>::after(CallCtx &c, EGLImageKHR &result, EGLDisplay dpy, EGLContext ctx,
                                         EGLenum target, EGLClientBuffer buffer, const EGLint *attrib_list) {
    noteImage(c, result, dpy, target, buffer, attrib_list);
    keepImage(c, static_cast<EGLImage>(result), dpy, ctx, target, buffer, attrib_list, false);
}
void Hooks<fn::eglCreateImageKHR>::done(CallCtx &c, EGLImageKHR &result, EGLDisplay dpy, EGLContext, EGLenum,
                                        EGLClientBuffer, const EGLint *) {
    recordCreation(c, result, dpy);
}
void Hooks<fn::eglCreateImage>::after(CallCtx &c, EGLImage &result, EGLDisplay dpy, EGLContext ctx,
                                      EGLenum target, EGLClientBuffer buffer, const EGLAttrib *attrib_list) {
    noteImage(c, result, dpy, target, buffer, attrib_list);
    keepImage(c, result, dpy, ctx, target, buffer, attrib_list, true);
}
void Hooks<fn::eglCreateImage>::done(CallCtx &c, EGLImage &result, EGLDisplay dpy, EGLContext, EGLenum,
                                     EGLClientBuffer, const EGLAttrib *) {
    recordCreation(c, result, dpy);
}
void Hooks<fn::eglDestroyImageKHR>::after(CallCtx &c, EGLBoolean &result, EGLDisplay dpy, EGLImageKHR image) {
    forgetImage(c, result, dpy, image);
}
void Hooks<fn::eglDestroyImage>::after(CallCtx &c, EGLBoolean &result, EGLDisplay dpy, EGLImage image) {
    forgetImage(c, result, dpy, image);
}
void Hooks<fn::glEGLImageTargetTexture2DOES>::before(CallCtx &c, GLenum, GLeglImageOES image) {
    beforeImageTaken(c, image);
}
void Hooks<fn::glEGLImageTargetRenderbufferStorageOES>::before(CallCtx &c, GLenum, GLeglImageOES image) {
    beforeImageTaken(c, image);
}

} // namespace kv
