// What the EGL entry points do beyond the common protocol: EGL's own error state, contexts and
// surfaces entered in the state tracker, the strings the library changes, the entry points it hands
// out by name, and the swaps that end frames.
#include "base/messages.h"
#include "base/no_destructor.h"
#include "entry/gles/hooks_state.h"
#include "entry/hooks.h"
#include "entry/egl/egl_information.h"
#include "entry/ext/ext_call.h"
#include "entry/ext/unknown_calls.h"
#include "entry/proc_table.h"
#include "entry/reported_strings.h"
#include "state/egl_config.h"
#include "state/egl_state.h"
#include "trace/frame_control.h"

#include <cstring>
#include <map>
#include <memory>
#include <vector>

namespace kv {

namespace {

// Where each surface's creation record stands in the trace, and what it says of the size.
struct SurfacePosition {
    uint64_t position = 0; // of the surface handle; width at +8, height at +12
    uint64_t surface = 0;
    int32_t width = 0;
    int32_t height = 0;
};

NoDestructor<platform::Mutex> g_positionsLock;
std::map<EGLDisplay, std::map<EGLSurface, SurfacePosition>> &surfacePositions() {
    static auto *table = new std::map<EGLDisplay, std::map<EGLSurface, SurfacePosition>>();
    return *table;
}
const OutputStream *g_positionsFile = nullptr; // the trace file the table points into

enum SwapScratch { kSwapWidth = 0, kSwapHeight = 1, kSwapBytes = 2 };
// What eglGetProcAddress handed out, for its record (0 when nothing).
enum ProcScratch { kHandedOut = 0 };
enum HandedOut : uint8_t {
    kHandedOutNothing = 0,
    kHandedOutWrapper = 1,    // the library's own wrapper
    kHandedOutPartial = 2,    // a stub that records the calls with their raw arguments
    kHandedOutUnrecorded = 3, // a stub that forwards the calls without recording them
    kHandedOutHost = 4,       // the host's own address: the calls pass the library by
};
enum CreateScratch { kCreatedOffset = 0, kCreatedWidth = 1, kCreatedHeight = 2, kCreatedDisplay = 3 };

int32_t querySurface(EGLDisplay dpy, EGLSurface surface, EGLint attribute) {
    if (dpy == EGL_NO_DISPLAY || surface == EGL_NO_SURFACE) return 0;
    EGLint value = 0;
    if (SEglHost::get().fn.eglQuerySurface(dpy, surface, attribute, &value) != EGL_TRUE) return 0;
    return value;
}

std::vector<EGLint> copyAttributes(const EGLint *list) {
    std::vector<EGLint> out;
    out.resize(rec::attribCount(list));
    if (!out.empty()) platform::guardedCopy(out.data(), list, out.size() * sizeof(EGLint));
    if (out.empty() || out.back() != EGL_NONE) out.push_back(EGL_NONE);
    return out;
}

std::vector<EGLint> copyAttributes64(const EGLAttrib *list) {
    std::vector<EGLAttrib> wide(rec::attribCount(list));
    if (!wide.empty()) platform::guardedCopy(wide.data(), list, wide.size() * sizeof(EGLAttrib));
    std::vector<EGLint> out(wide.begin(), wide.end());
    if (out.empty() || out.back() != EGL_NONE) out.push_back(EGL_NONE);
    return out;
}

} // namespace

void EglApi::noteError(uint32_t error) {
    egl::threadState().error = static_cast<EGLint>(error);
}

EGLint Hooks<fn::eglGetError>::host(CallCtx &) {
    egl::ThreadState &t = egl::threadState();
    EGLint error = t.error;
    t.error = EGL_SUCCESS;
    return error;
}

void Hooks<fn::eglGetProcAddress>::after(CallCtx &c, __eglMustCastToProperFunctionPointerType &result,
                                         const char *procname) {
    c.scratch[kHandedOut] = kHandedOutNothing;
    // A function the host lacks is never offered.
    if (!result || !procname) return;
    const auto host = reinterpret_cast<ProcAddress>(result);
    // On an OpenGL ES 1 context the names ES1 shares with ES2 (glBindBuffer) are its own entry
    // points, which reach the ES1 library and the fixed-function state.
    egl::ThreadState *t = egl::threadStateIfAny();
    ProcAddress own = t && t->current && t->current->apiVersion == 1 ? lookupEs1Proc(procname) : nullptr;
    if (!own) own = lookupProc(procname);
    if (!own) own = lookupExtensionWrapper(procname);
    if (own) {
        result = reinterpret_cast<__eglMustCastToProperFunctionPointerType>(own);
        c.scratch[kHandedOut] = kHandedOutWrapper;
        return;
    }
    const bool record = getSettings().recordUnknownExtensionCalls;
    const bool egl = std::strncmp(procname, "egl", 3) == 0;
    // An EGL function is handed out as a stub even when it is not to be recorded: eglGetError
    // answers for the thread's latest EGL call, which the library can only know when it sees every
    // one. (The literal rule hands out the host's address; the application would then read stale
    // errors.)
    if (record || egl) {
        if (ProcAddress stub = unknownFunctionStub(procname, host, record)) {
            if (noteUnknownProc(procname))
                msg::info(record
                              ? "Use of extension function '%s' will be partially recorded as Kalvoren is "
                                "missing support"
                              : "Use of extension function '%s' will not be recorded as Kalvoren is missing "
                                "support",
                          procname);
            result = reinterpret_cast<__eglMustCastToProperFunctionPointerType>(stub);
            c.scratch[kHandedOut] = record ? kHandedOutPartial : kHandedOutUnrecorded;
            return;
        }
    }
    if (noteUnknownProc(procname))
        msg::info("Use of extension function '%s' will not be recorded as Kalvoren is missing support",
                  procname);
    if (!egl) g_unwrappedGlCalls.store(true, std::memory_order_relaxed);
    c.scratch[kHandedOut] = kHandedOutHost;
}

uint8_t capture::eglGetProcAddress_handedOut(CallCtx &c, const char *) {
    return static_cast<uint8_t>(c.scratch[kHandedOut]);
}

Void Hooks<fn::eglSetBlobCacheFuncsANDROID>::host(CallCtx &c, EGLDisplay dpy, EGLSetBlobFuncANDROID set,
                                                  EGLGetBlobFuncANDROID get) {
    const auto fn = EglApi::host().fn.eglSetBlobCacheFuncsANDROID;
    if (!c.d.disableBlobCache && fn) fn(dpy, set, get);
    return Void{};
}

void Hooks<fn::eglQueryString>::after(CallCtx &c, const char *&result, EGLDisplay, EGLint name) {
    if (c.failed || !result) return;
    result = reportedEglString(name, result);
}

void Hooks<fn::eglInitialize>::after(CallCtx &c, EGLBoolean &result, EGLDisplay dpy, EGLint *major,
                                     EGLint *minor) {
    if (c.failed || result != EGL_TRUE) return;
    egl::DisplayRecord *d = egl::display(dpy, true);
    d->initialised = true;
    if (major) platform::guardedCopy(&d->major, major, sizeof(EGLint));
    if (minor) platform::guardedCopy(&d->minor, minor, sizeof(EGLint));
}

void Hooks<fn::eglInitialize>::done(CallCtx &c, EGLBoolean &result, EGLDisplay dpy, EGLint *, EGLint *) {
    // The display information a player needs to choose configs of its own.
    if (!c.d.record || c.failed || result != EGL_TRUE) return;
    const egl::DisplayRecord *d = egl::display(dpy, true);
    writeDisplayInformation(dpy, d->major, d->minor);
}

void Hooks<fn::eglBindAPI>::after(CallCtx &c, EGLBoolean &result, EGLenum api) {
    if (!c.failed && result == EGL_TRUE) egl::threadState().boundApi = api;
}

void Hooks<fn::eglCreateContext>::after(CallCtx &c, EGLContext &result, EGLDisplay dpy, EGLConfig config,
                                        EGLContext share, const EGLint *attrib_list) {
    if (c.failed || result == EGL_NO_CONTEXT) return;
    std::vector<EGLint> attributes = copyAttributes(attrib_list);
    egl::addContext(dpy, config, share, result, attrib_list ? attributes.data() : nullptr,
                    egl::captureConfigAttributes(dpy, config));
}

void Hooks<fn::eglCreateContext>::done(CallCtx &c, EGLContext &result, EGLDisplay dpy, EGLConfig, EGLContext,
                                       const EGLint *) {
    if (!c.d.record || c.failed || result == EGL_NO_CONTEXT) return;
    if (auto context = egl::findContext(dpy, result)) writeContextInformation(c, *context);
}

void Hooks<fn::eglDestroyContext>::after(CallCtx &c, EGLBoolean &result, EGLDisplay dpy, EGLContext ctx) {
    if (!c.failed && result == EGL_TRUE) egl::removeContext(dpy, ctx);
}

void Hooks<fn::eglMakeCurrent>::after(CallCtx &c, EGLBoolean &result, EGLDisplay dpy, EGLSurface draw,
                                      EGLSurface read, EGLContext ctx) {
    if (c.failed || result != EGL_TRUE) return;
    egl::ThreadState &t = egl::threadState();
    t.display = dpy;
    t.draw = draw;
    t.read = read;
    t.current = ctx == EGL_NO_CONTEXT ? nullptr : egl::findContext(dpy, ctx);
    t.drawSize = draw == EGL_NO_SURFACE ? nullptr : egl::surfaceSize(dpy, draw);
    if (t.current && t.current->es2) t.current->es2->everCurrent = true;
    if (t.current && t.current->es1) t.current->es1->everCurrent = true;
}

void Hooks<fn::eglReleaseThread>::after(CallCtx &c, EGLBoolean &result) {
    if (c.failed || result != EGL_TRUE) return;
    egl::ThreadState &t = egl::threadState();
    t.current = nullptr;
    t.display = EGL_NO_DISPLAY;
    t.draw = t.read = EGL_NO_SURFACE;
    t.drawSize = nullptr;
    t.boundApi = EGL_OPENGL_ES_API;
}

void Hooks<fn::eglDestroySurface>::after(CallCtx &c, EGLBoolean &result, EGLDisplay dpy, EGLSurface surface) {
    if (c.failed || result != EGL_TRUE) return;
    if (egl::DisplayRecord *d = egl::display(dpy, false)) {
        platform::LockGuard<platform::Mutex> guard(d->lock);
        d->surfaces.erase(surface);
    }
    platform::LockGuard<platform::Mutex> guard(*g_positionsLock);
    auto it = surfacePositions().find(dpy);
    if (it != surfacePositions().end()) it->second.erase(surface);
}

void Hooks<fn::eglQuerySurface>::after(CallCtx &c, EGLBoolean &result, EGLDisplay dpy, EGLSurface surface,
                                       EGLint attribute, EGLint *value) {
    if (c.failed || result != EGL_TRUE || !value || (attribute != EGL_WIDTH && attribute != EGL_HEIGHT))
        return;
    EGLint answer = 0;
    if (platform::guardedCopy(&answer, value, sizeof(answer)) != sizeof(answer)) return;
    egl::ThreadState *t = egl::threadStateIfAny();
    std::shared_ptr<egl::SurfaceSize> size =
        t && t->draw == surface && t->drawSize ? t->drawSize : egl::surfaceSize(dpy, surface);
    if (!size || !size->known.load(std::memory_order_relaxed)) return;
    (attribute == EGL_WIDTH ? size->width : size->height).store(answer, std::memory_order_relaxed);
}

void Hooks<fn::eglSwapInterval>::after(CallCtx &c, EGLBoolean &result, EGLDisplay dpy, EGLint interval) {
    if (c.failed || result != EGL_TRUE) return;
    egl::ThreadState &t = egl::threadState();
    if (egl::DisplayRecord *d = egl::display(dpy, false)) {
        platform::LockGuard<platform::Mutex> guard(d->lock);
        auto it = d->surfaces.find(t.draw);
        if (it != d->surfaces.end()) it->second.swapInterval = interval;
    }
}

// ---- Surfaces ---------------------------------------------------------------------------------

void SurfaceCreationHooks::noteCreated(CallCtx &c, EGLSurface surface, EGLDisplay dpy, EGLConfig config,
                                       int kind, uint64_t native, const EGLint *attributes) {
    c.scratch[kCreatedDisplay] = reinterpret_cast<uintptr_t>(dpy);
    if (c.failed || surface == EGL_NO_SURFACE) return;
    c.scratch[kCreatedWidth] = static_cast<uint32_t>(querySurface(dpy, surface, EGL_WIDTH));
    c.scratch[kCreatedHeight] = static_cast<uint32_t>(querySurface(dpy, surface, EGL_HEIGHT));
    egl::DisplayRecord *d = egl::display(dpy, true);
    egl::SurfaceRecord record;
    record.surface = surface;
    record.config = config;
    record.kind = static_cast<egl::SurfaceKind>(kind);
    record.native = native;
    record.attributes = copyAttributes(attributes);
    record.size->fixed = record.kind != egl::SurfaceKind::Window;
    record.size->set(static_cast<int32_t>(c.scratch[kCreatedWidth]),
                     static_cast<int32_t>(c.scratch[kCreatedHeight]));
    platform::LockGuard<platform::Mutex> guard(d->lock);
    d->surfaces[surface] = std::move(record);
}

void SurfaceCreationHooks::noteCreated64(CallCtx &c, EGLSurface surface, EGLDisplay dpy, EGLConfig config,
                                         int kind, uint64_t native, const EGLAttrib *attributes) {
    std::vector<EGLint> narrow = copyAttributes64(attributes);
    noteCreated(c, surface, dpy, config, kind, native, attributes ? narrow.data() : nullptr);
}

void SurfaceCreationHooks::noteRecorded(CallCtx &c, EGLSurface surface) {
    if (!c.d.record || c.failed || surface == EGL_NO_SURFACE || c.recordPosition == 0) return;
    Settings &s = getSettings();
    SurfacePosition p;
    p.position = c.recordPosition + 4 + c.scratch[kCreatedOffset];
    p.surface = reinterpret_cast<uintptr_t>(surface);
    p.width = static_cast<int32_t>(c.scratch[kCreatedWidth]);
    p.height = static_cast<int32_t>(c.scratch[kCreatedHeight]);
    platform::LockGuard<platform::Mutex> guard(*g_positionsLock);
    if (g_positionsFile != s.traceFile) {
        // A new trace: the old positions point into a file that is gone.
        surfacePositions().clear();
        g_positionsFile = s.traceFile;
    }
    surfacePositions()[reinterpret_cast<EGLDisplay>(c.scratch[kCreatedDisplay])][surface] = p;
}

uint64_t capture::createdSurface(CallCtx &c) {
    c.scratch[kCreatedOffset] = c.record ? c.record->size() : 0;
    return c.result;
}
int32_t capture::createdWidth(CallCtx &c) {
    return static_cast<int32_t>(c.scratch[kCreatedWidth]);
}
int32_t capture::createdHeight(CallCtx &c) {
    return static_cast<int32_t>(c.scratch[kCreatedHeight]);
}

void Hooks<fn::eglCreateWindowSurface>::after(CallCtx &c, EGLSurface &r, EGLDisplay dpy, EGLConfig config,
                                              EGLNativeWindowType win, const EGLint *attrib_list) {
    noteCreated(c, r, dpy, config, int(egl::SurfaceKind::Window), toSlot(win), attrib_list);
}

void Hooks<fn::eglCreatePbufferSurface>::after(CallCtx &c, EGLSurface &r, EGLDisplay dpy, EGLConfig config,
                                               const EGLint *attrib_list) {
    noteCreated(c, r, dpy, config, int(egl::SurfaceKind::Pbuffer), 0, attrib_list);
}

void Hooks<fn::eglCreatePixmapSurface>::after(CallCtx &c, EGLSurface &r, EGLDisplay dpy, EGLConfig config,
                                              EGLNativePixmapType pixmap, const EGLint *attrib_list) {
    noteCreated(c, r, dpy, config, int(egl::SurfaceKind::Pixmap), toSlot(pixmap), attrib_list);
}

void Hooks<fn::eglCreatePbufferFromClientBuffer>::after(CallCtx &c, EGLSurface &r, EGLDisplay dpy, EGLenum,
                                                        EGLClientBuffer buffer, EGLConfig config,
                                                        const EGLint *attrib_list) {
    noteCreated(c, r, dpy, config, int(egl::SurfaceKind::ClientBuffer), reinterpret_cast<uintptr_t>(buffer),
                attrib_list);
}

void Hooks<fn::eglCreatePlatformWindowSurface>::after(CallCtx &c, EGLSurface &r, EGLDisplay dpy,
                                                      EGLConfig config, void *native,
                                                      const EGLAttrib *attrib_list) {
    noteCreated64(c, r, dpy, config, int(egl::SurfaceKind::Window), reinterpret_cast<uintptr_t>(native),
                  attrib_list);
}

void Hooks<fn::eglCreatePlatformPixmapSurface>::after(CallCtx &c, EGLSurface &r, EGLDisplay dpy,
                                                      EGLConfig config, void *native,
                                                      const EGLAttrib *attrib_list) {
    noteCreated64(c, r, dpy, config, int(egl::SurfaceKind::Pixmap), reinterpret_cast<uintptr_t>(native),
                  attrib_list);
}

void Hooks<fn::eglCreatePlatformWindowSurfaceEXT>::after(CallCtx &c, EGLSurface &r, EGLDisplay dpy,
                                                         EGLConfig config, void *native,
                                                         const EGLint *attrib_list) {
    noteCreated(c, r, dpy, config, int(egl::SurfaceKind::Window), reinterpret_cast<uintptr_t>(native),
                attrib_list);
}

void Hooks<fn::eglCreatePlatformPixmapSurfaceEXT>::after(CallCtx &c, EGLSurface &r, EGLDisplay dpy,
                                                         EGLConfig config, void *native,
                                                         const EGLint *attrib_list) {
    noteCreated(c, r, dpy, config, int(egl::SurfaceKind::Pixmap), reinterpret_cast<uintptr_t>(native),
                attrib_list);
}

// ---- Swaps ------------------------------------------------------------------------------------

namespace {

// Reads the default framebuffer of the current OpenGL ES 1 context through the ES1 library.
bool readEs1FrameBuffer(egl::ContextRecord &context, int32_t width, int32_t height, uint8_t *pixels) {
    const auto &gl = SEs1Host::get().fn;
    if (!gl.glReadPixels || !gl.glGetError || !gl.glGetIntegerv || !gl.glPixelStorei) return false;
    // An error an extension call left in the driver stays the application's; what the read raises
    // does not show.
    const GLenum before = gl.glGetError();
    GLint packAlignment = 4, framebuffer = 0;
    gl.glGetIntegerv(GL_PACK_ALIGNMENT, &packAlignment);
    const auto bindFramebuffer = SGlesExtHost::get().fn.glBindFramebufferOES;
    if (bindFramebuffer) {
        gl.glGetIntegerv(GL_FRAMEBUFFER_BINDING, &framebuffer);
        gl.glGetError(); // a driver without framebuffer objects rejects the query
    }
    if (packAlignment != 4) gl.glPixelStorei(GL_PACK_ALIGNMENT, 4);
    if (framebuffer) bindFramebuffer(GL_FRAMEBUFFER, 0);
    gl.glReadPixels(0, 0, width, height, GL_RGBA, GL_UNSIGNED_BYTE, pixels);
    if (framebuffer) bindFramebuffer(GL_FRAMEBUFFER, static_cast<GLuint>(framebuffer));
    if (packAlignment != 4) gl.glPixelStorei(GL_PACK_ALIGNMENT, packAlignment);
    gl.glGetError();
    if (before != GL_NO_ERROR && context.es1 && context.es1->pendingError == GL_NO_ERROR)
        context.es1->pendingError = before;
    return true;
}

// Reads the default framebuffer of the current context into `pixels`, leaving the application's
// bindings and pack state as they were.
bool readFrameBuffer(int32_t width, int32_t height, uint8_t *pixels) {
    egl::ThreadState *t = egl::threadStateIfAny();
    if (t && t->current && t->current->apiVersion == 1)
        return readEs1FrameBuffer(*t->current, width, height, pixels);
    if (!t || !t->current || !t->current->es2) return false;
    CEs2ContextState &state = *t->current->es2;
    const auto &gl = GLESPPHost::get().fn;
    // The application's own pending error survives the read; what the read raises does not show.
    gles::OwnGlCalls own;
    GLenum target = state.apiVersion() == 2 ? GL_FRAMEBUFFER : GL_READ_FRAMEBUFFER;
    GLint previous = 0;
    gl.glGetIntegerv(target == GL_FRAMEBUFFER ? GL_FRAMEBUFFER_BINDING : GL_READ_FRAMEBUFFER_BINDING,
                     &previous);
    GLint packBuffer = 0, packAlignment = 4, rowLength = 0, skipRows = 0, skipPixels = 0;
    bool es3 = state.apiVersion() >= 3;
    gl.glGetIntegerv(GL_PACK_ALIGNMENT, &packAlignment);
    if (es3) {
        gl.glGetIntegerv(GL_PIXEL_PACK_BUFFER_BINDING, &packBuffer);
        gl.glGetIntegerv(GL_PACK_ROW_LENGTH, &rowLength);
        gl.glGetIntegerv(GL_PACK_SKIP_ROWS, &skipRows);
        gl.glGetIntegerv(GL_PACK_SKIP_PIXELS, &skipPixels);
        if (packBuffer) gl.glBindBuffer(GL_PIXEL_PACK_BUFFER, 0);
        if (rowLength) gl.glPixelStorei(GL_PACK_ROW_LENGTH, 0);
        if (skipRows) gl.glPixelStorei(GL_PACK_SKIP_ROWS, 0);
        if (skipPixels) gl.glPixelStorei(GL_PACK_SKIP_PIXELS, 0);
    }
    if (packAlignment != 4) gl.glPixelStorei(GL_PACK_ALIGNMENT, 4);
    gl.glBindFramebuffer(target, 0);
    gl.glReadPixels(0, 0, width, height, GL_RGBA, GL_UNSIGNED_BYTE, pixels);
    gl.glBindFramebuffer(target, static_cast<GLuint>(previous));
    if (packAlignment != 4) gl.glPixelStorei(GL_PACK_ALIGNMENT, packAlignment);
    if (es3) {
        if (packBuffer) gl.glBindBuffer(GL_PIXEL_PACK_BUFFER, static_cast<GLuint>(packBuffer));
        if (rowLength) gl.glPixelStorei(GL_PACK_ROW_LENGTH, rowLength);
        if (skipRows) gl.glPixelStorei(GL_PACK_SKIP_ROWS, skipRows);
        if (skipPixels) gl.glPixelStorei(GL_PACK_SKIP_PIXELS, skipPixels);
    }
    return true;
}

// The size a swap records. EGL is asked when the frame buffer is read back anyway (the read needs
// the exact size, and one query is little beside the read), and otherwise only when the surface's
// size record says a window may have changed; see SurfaceSize.
void sizeAtSwap(EGLDisplay dpy, EGLSurface surface, bool mustAsk, int32_t &width, int32_t &height) {
    if (dpy == EGL_NO_DISPLAY || surface == EGL_NO_SURFACE) return;
    egl::ThreadState *t = egl::threadStateIfAny();
    std::shared_ptr<egl::SurfaceSize> found;
    egl::SurfaceSize *size = t && t->draw == surface ? t->drawSize.get() : nullptr;
    if (!size) {
        found = egl::surfaceSize(dpy, surface);
        size = found.get();
    }
    if (size && !mustAsk && !size->askAtSwap()) {
        width = size->width.load(std::memory_order_relaxed);
        height = size->height.load(std::memory_order_relaxed);
        return;
    }
    width = querySurface(dpy, surface, EGL_WIDTH);
    height = querySurface(dpy, surface, EGL_HEIGHT);
    if (size) size->set(width, height);
}

// Rewrites the width and height in a surface's creation record when the surface grew.
void correctSurfaceSize(EGLDisplay dpy, EGLSurface surface, int32_t width, int32_t height) {
    Settings &s = getSettings();
    platform::LockGuard<platform::RecursiveLock> recordGuard(trace::recordLock());
    platform::LockGuard<platform::Mutex> guard(*g_positionsLock);
    if (g_positionsFile != s.traceFile) return;
    auto d = surfacePositions().find(dpy);
    if (d == surfacePositions().end()) return;
    auto it = d->second.find(surface);
    if (it == d->second.end()) return;
    SurfacePosition &p = it->second;
    if (width <= p.width && height <= p.height) return;
    uint64_t written = 0;
    if (!trace::readBack(s, p.position, &written, 8) || written != p.surface) {
        msg::info("Failed to retroactively update the dimensions for EGLSurface (0x%.8llx) at an "
                  "eglMakeCurrent call. "
                  "The recorded dimensions may be incorrect.",
                  static_cast<unsigned long long>(p.surface));
        return;
    }
    uint64_t here = trace::tell(s);
    if (width > p.width && trace::seek(s, p.position + 8)) {
        trace::write(s, &width, 4, 1);
        p.width = width;
    }
    if (height > p.height && trace::seek(s, p.position + 12)) {
        trace::write(s, &height, 4, 1);
        p.height = height;
    }
    trace::seek(s, here);
}

} // namespace

void SwapHooks::beforeSwap(CallCtx &c, EGLDisplay dpy, EGLSurface surface) {
    Settings &s = getSettings();
    if (s.mode.load() == kModeProfiling && s.swapInterval != -1)
        SEglHost::get().fn.eglSwapInterval(dpy, s.swapInterval);
    int32_t width = 0, height = 0;
    sizeAtSwap(dpy, surface, c.d.saveFrameBuffer, width, height);
    c.scratch[kSwapWidth] = static_cast<uint32_t>(width);
    c.scratch[kSwapHeight] = static_cast<uint32_t>(height);
    if (!c.d.saveFrameBuffer || width <= 0 || height <= 0) return;
    uint64_t bytes = static_cast<uint64_t>(width) * static_cast<uint64_t>(height) * 4u;
    auto *pixels = new (std::nothrow) uint8_t[bytes];
    if (!pixels) return;
    if (!readFrameBuffer(width, height, pixels)) {
        delete[] pixels;
        return;
    }
    c.extra = pixels;
    c.scratch[kSwapBytes] = bytes;
}

void SwapHooks::afterSwap(CallCtx &c, EGLBoolean result, EGLDisplay dpy, EGLSurface surface) {
    std::unique_ptr<uint8_t[]> pixels(static_cast<uint8_t *>(c.extra));
    c.extra = nullptr;
    bool ok = !c.failed && result == EGL_TRUE;
    if (c.d.record && ok)
        correctSurfaceSize(dpy, surface, static_cast<int32_t>(c.scratch[kSwapWidth]),
                           static_cast<int32_t>(c.scratch[kSwapHeight]));
    frames::frameEnded(getSettings());
}

uint32_t capture::swapFrame(CallCtx &) {
    return getSettings().currentFrame.load();
}
int32_t capture::swapWidth(CallCtx &c) {
    return static_cast<int32_t>(c.scratch[kSwapWidth]);
}
int32_t capture::swapHeight(CallCtx &c) {
    return static_cast<int32_t>(c.scratch[kSwapHeight]);
}
rec::Blob capture::swapPixels(CallCtx &c) {
    return rec::Blob{c.extra, c.extra ? c.scratch[kSwapBytes] : 0};
}

} // namespace kv
