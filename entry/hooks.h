// The functions that are special: each specialisation of Hooks<F> names what its function does
// beyond the common protocol (state updates, answers the library changes, frame ends). Everything
// not named here is handled by HookDefaults.
#pragma once

#include "core/call.h"
#include "entry/capture.h"

namespace kv {

// ---- EGL ---------------------------------------------------------------------------------------

template <>
struct Hooks<fn::eglGetError> : HookDefaults {
    static constexpr bool kReplacesHost = true;
    static EGLint host(CallCtx &c);
};

template <>
struct Hooks<fn::eglGetProcAddress> : HookDefaults {
    static void after(CallCtx &c, __eglMustCastToProperFunctionPointerType &result, const char *procname);
};

// With Internal.DisableBlobCache (the default) the driver is given no blob cache: shaders are
// compiled from their sources, as a player will. The call is recorded all the same.
template <>
struct Hooks<fn::eglSetBlobCacheFuncsANDROID> : HookDefaults {
    static constexpr bool kReplacesHost = true;
    static Void host(CallCtx &c, EGLDisplay dpy, EGLSetBlobFuncANDROID set, EGLGetBlobFuncANDROID get);
};

template <>
struct Hooks<fn::eglQueryString> : HookDefaults {
    static void after(CallCtx &c, const char *&result, EGLDisplay dpy, EGLint name);
};

template <>
struct Hooks<fn::eglInitialize> : HookDefaults {
    static void after(CallCtx &c, EGLBoolean &result, EGLDisplay dpy, EGLint *major, EGLint *minor);
    static void done(CallCtx &c, EGLBoolean &result, EGLDisplay dpy, EGLint *major, EGLint *minor);
};

template <>
struct Hooks<fn::eglBindAPI> : HookDefaults {
    static void after(CallCtx &c, EGLBoolean &result, EGLenum api);
};

template <>
struct Hooks<fn::eglCreateContext> : HookDefaults {
    static void after(CallCtx &c, EGLContext &result, EGLDisplay dpy, EGLConfig config, EGLContext share,
                      const EGLint *attrib_list);
    static void done(CallCtx &c, EGLContext &result, EGLDisplay dpy, EGLConfig config, EGLContext share,
                     const EGLint *attrib_list);
};

template <>
struct Hooks<fn::eglDestroyContext> : HookDefaults {
    static void after(CallCtx &c, EGLBoolean &result, EGLDisplay dpy, EGLContext ctx);
};

template <>
struct Hooks<fn::eglMakeCurrent> : HookDefaults {
    static void after(CallCtx &c, EGLBoolean &result, EGLDisplay dpy, EGLSurface draw, EGLSurface read,
                      EGLContext ctx);
};

template <>
struct Hooks<fn::eglReleaseThread> : HookDefaults {
    static void after(CallCtx &c, EGLBoolean &result);
};

template <>
struct Hooks<fn::eglDestroySurface> : HookDefaults {
    static void after(CallCtx &c, EGLBoolean &result, EGLDisplay dpy, EGLSurface surface);
};

template <>
struct Hooks<fn::eglQuerySurface> : HookDefaults {
    static void after(CallCtx &c, EGLBoolean &result, EGLDisplay dpy, EGLSurface surface, EGLint attribute,
                      EGLint *value);
};

template <>
struct Hooks<fn::eglSwapInterval> : HookDefaults {
    static void after(CallCtx &c, EGLBoolean &result, EGLDisplay dpy, EGLint interval);
};

// Surface creation: the surface is entered in its display's table, and its creation record's
// position kept so that a later swap can correct the size written there.
struct SurfaceCreationHooks : HookDefaults {
    static void noteCreated(CallCtx &c, EGLSurface surface, EGLDisplay dpy, EGLConfig config, int kind,
                            uint64_t native, const EGLint *attributes);
    static void noteCreated64(CallCtx &c, EGLSurface surface, EGLDisplay dpy, EGLConfig config, int kind,
                              uint64_t native, const EGLAttrib *attributes);
    static void noteRecorded(CallCtx &c, EGLSurface surface);
    // After the record, for every kind of surface.
    template <class... A>
    static void done(CallCtx &c, EGLSurface &r, A...) {
        noteRecorded(c, r);
    }
};

template <>
struct Hooks<fn::eglCreateWindowSurface> : SurfaceCreationHooks {
    static void after(CallCtx &c, EGLSurface &r, EGLDisplay dpy, EGLConfig config, EGLNativeWindowType win,
                      const EGLint *attrib_list);
};

template <>
struct Hooks<fn::eglCreatePbufferSurface> : SurfaceCreationHooks {
    static void after(CallCtx &c, EGLSurface &r, EGLDisplay dpy, EGLConfig config, const EGLint *attrib_list);
};

template <>
struct Hooks<fn::eglCreatePixmapSurface> : SurfaceCreationHooks {
    static void after(CallCtx &c, EGLSurface &r, EGLDisplay dpy, EGLConfig config, EGLNativePixmapType pixmap,
                      const EGLint *attrib_list);
};

template <>
struct Hooks<fn::eglCreatePbufferFromClientBuffer> : SurfaceCreationHooks {
    static void after(CallCtx &c, EGLSurface &r, EGLDisplay dpy, EGLenum buftype, EGLClientBuffer buffer,
                      EGLConfig config, const EGLint *attrib_list);
};

template <>
struct Hooks<fn::eglCreatePlatformWindowSurface> : SurfaceCreationHooks {
    static void after(CallCtx &c, EGLSurface &r, EGLDisplay dpy, EGLConfig config, void *native,
                      const EGLAttrib *attrib_list);
};

template <>
struct Hooks<fn::eglCreatePlatformPixmapSurface> : SurfaceCreationHooks {
    static void after(CallCtx &c, EGLSurface &r, EGLDisplay dpy, EGLConfig config, void *native,
                      const EGLAttrib *attrib_list);
};

template <>
struct Hooks<fn::eglCreatePlatformWindowSurfaceEXT> : SurfaceCreationHooks {
    static void after(CallCtx &c, EGLSurface &r, EGLDisplay dpy, EGLConfig config, void *native,
                      const EGLint *attrib_list);
};

template <>
struct Hooks<fn::eglCreatePlatformPixmapSurfaceEXT> : SurfaceCreationHooks {
    static void after(CallCtx &c, EGLSurface &r, EGLDisplay dpy, EGLConfig config, void *native,
                      const EGLint *attrib_list);
};

// Images of client buffers (entry/egl/client_buffers.cpp): entered at creation, their contents
// recorded as Tracing.ClientBufferRecordFrequency says.
template <>
struct Hooks<fn::eglCreateImageKHR> : HookDefaults {
    static void after(CallCtx &c, EGLImageKHR &result, EGLDisplay dpy, EGLContext ctx, EGLenum target,
                      EGLClientBuffer buffer, const EGLint *attrib_list);
    static void done(CallCtx &c, EGLImageKHR &result, EGLDisplay dpy, EGLContext ctx, EGLenum target,
                     EGLClientBuffer buffer, const EGLint *attrib_list);
};
template <>
struct Hooks<fn::eglCreateImage> : HookDefaults {
    static void after(CallCtx &c, EGLImage &result, EGLDisplay dpy, EGLContext ctx, EGLenum target,
                      EGLClientBuffer buffer, const EGLAttrib *attrib_list);
    static void done(CallCtx &c, EGLImage &result, EGLDisplay dpy, EGLContext ctx, EGLenum target,
                     EGLClientBuffer buffer, const EGLAttrib *attrib_list);
};
template <>
struct Hooks<fn::eglDestroyImageKHR> : HookDefaults {
    static void after(CallCtx &c, EGLBoolean &result, EGLDisplay dpy, EGLImageKHR image);
};
template <>
struct Hooks<fn::eglDestroyImage> : HookDefaults {
    static void after(CallCtx &c, EGLBoolean &result, EGLDisplay dpy, EGLImage image);
};
// At a frame end: the client buffers of the display whose contents are due.
void clientBufferPass(CallCtx &c, EGLDisplay dpy);
// Writes the creation record of a client buffer's image with its contents now (the render-state
// snapshot, after the image's own creation call). The display's lock is held by the caller.
namespace egl {
struct ClientBufferRecord;
}
void writeClientBufferCreation(EGLDisplay dpy, egl::ClientBufferRecord &buffer);

// EGL syncs (entry/egl/client_buffers.cpp, with the images): kept with their creation calls for
// the render-state snapshot.
template <>
struct Hooks<fn::eglCreateSync> : HookDefaults {
    static void after(CallCtx &c, EGLSync &result, EGLDisplay dpy, EGLenum type,
                      const EGLAttrib *attrib_list);
};
template <>
struct Hooks<fn::eglCreateSyncKHR> : HookDefaults {
    static void after(CallCtx &c, EGLSyncKHR &result, EGLDisplay dpy, EGLenum type,
                      const EGLint *attrib_list);
};
template <>
struct Hooks<fn::eglDestroySync> : HookDefaults {
    static void after(CallCtx &c, EGLBoolean &result, EGLDisplay dpy, EGLSync sync);
};
template <>
struct Hooks<fn::eglDestroySyncKHR> : HookDefaults {
    static void after(CallCtx &c, EGLBoolean &result, EGLDisplay dpy, EGLSyncKHR sync);
};

// The swaps end a frame: the frame buffer may be read back first, the client buffers' contents may
// be recorded, the surface's recorded size is corrected after, and the frame counter advances.
struct SwapHooks : HookDefaults {
    static void beforeSwap(CallCtx &c, EGLDisplay dpy, EGLSurface surface);
    static void afterSwap(CallCtx &c, EGLBoolean result, EGLDisplay dpy, EGLSurface surface);
    static void swapped(CallCtx &c, EGLBoolean result, EGLDisplay dpy) {
        if (!c.failed && result == EGL_TRUE) clientBufferPass(c, dpy);
    }
};

template <>
struct Hooks<fn::eglSwapBuffers> : SwapHooks {
    static void before(CallCtx &c, EGLDisplay dpy, EGLSurface surface) { beforeSwap(c, dpy, surface); }
    static void after(CallCtx &c, EGLBoolean &r, EGLDisplay dpy, EGLSurface) { swapped(c, r, dpy); }
    static void done(CallCtx &c, EGLBoolean &r, EGLDisplay dpy, EGLSurface surface) {
        afterSwap(c, r, dpy, surface);
    }
};

template <>
struct Hooks<fn::eglSwapBuffersWithDamageEXT> : SwapHooks {
    static void before(CallCtx &c, EGLDisplay dpy, EGLSurface surface, const EGLint *, EGLint) {
        beforeSwap(c, dpy, surface);
    }
    static void after(CallCtx &c, EGLBoolean &r, EGLDisplay dpy, EGLSurface, const EGLint *, EGLint) {
        swapped(c, r, dpy);
    }
    static void done(CallCtx &c, EGLBoolean &r, EGLDisplay dpy, EGLSurface surface, const EGLint *, EGLint) {
        afterSwap(c, r, dpy, surface);
    }
};

namespace capture {
// Shared values of the swap and surface creation records.
uint32_t swapFrame(CallCtx &c);
int32_t swapWidth(CallCtx &c);
int32_t swapHeight(CallCtx &c);
rec::Blob swapPixels(CallCtx &c);
uint64_t createdSurface(CallCtx &c);
int32_t createdWidth(CallCtx &c);
int32_t createdHeight(CallCtx &c);
} // namespace capture

} // namespace kv

#include "entry/gles/gles_hooks.h"
#include "entry/es1/es1_hooks.h"
