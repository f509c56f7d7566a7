// The functions the player treats specially: each specialisation of Hooks<F> names what its
// function does beyond the generated decode-call-remap (before: may change the arguments or skip
// the call; call: replaces the driver call, kReplacesCall; after: sees the result). Everything not
// named here takes HookDefaults.
#pragma once

#include "replay/call.h"

namespace kv::replay {

// What the default `call` gives: never used (the driver is called instead), it only lets the
// generated code name a replacement for every function.
struct NotReplaced {
    template <class T>
    operator T() const {
        return T();
    }
};

struct HookDefaults {
    static constexpr bool kReplacesCall = false;
    template <class... A>
    static NotReplaced call(Call &, A &...) {
        return {};
    }
    template <class... A>
    static bool before(Call &, A &...) {
        return true;
    }
    template <class... A>
    static void after(Call &, A &...) {}
};

template <class F>
struct Hooks : HookDefaults {};

// ---- EGL: displays, configs and surfaces of this machine --------------------------------------

template <>
struct Hooks<fn::eglGetDisplay> : HookDefaults {
    static constexpr bool kReplacesCall = true;
    static EGLDisplay call(Call &c, EGLNativeDisplayType);
};
template <>
struct Hooks<fn::eglGetPlatformDisplay> : HookDefaults {
    static constexpr bool kReplacesCall = true;
    static EGLDisplay call(Call &c, EGLenum, void *, const EGLAttrib *);
};
template <>
struct Hooks<fn::eglGetPlatformDisplayEXT> : HookDefaults {
    static constexpr bool kReplacesCall = true;
    static EGLDisplay call(Call &c, EGLenum, void *, const EGLint *);
};

template <>
struct Hooks<fn::eglChooseConfig> : HookDefaults {
    static constexpr bool kReplacesCall = true;
    static EGLBoolean call(Call &c, EGLDisplay dpy, const EGLint *attribs, EGLConfig *configs, EGLint size,
                           EGLint *count);
};
template <>
struct Hooks<fn::eglGetConfigs> : HookDefaults {
    static constexpr bool kReplacesCall = true;
    static EGLBoolean call(Call &c, EGLDisplay dpy, EGLConfig *configs, EGLint size, EGLint *count);
};

// Window and pixmap surfaces become pbuffers of the recorded size, or windows with --window.
template <>
struct Hooks<fn::eglCreateWindowSurface> : HookDefaults {
    static constexpr bool kReplacesCall = true;
    static EGLSurface call(Call &c, EGLDisplay dpy, EGLConfig config, EGLNativeWindowType, const EGLint *);
};
template <>
struct Hooks<fn::eglCreatePlatformWindowSurface> : HookDefaults {
    static constexpr bool kReplacesCall = true;
    static EGLSurface call(Call &c, EGLDisplay dpy, EGLConfig config, void *, const EGLAttrib *);
};
template <>
struct Hooks<fn::eglCreatePlatformWindowSurfaceEXT> : HookDefaults {
    static constexpr bool kReplacesCall = true;
    static EGLSurface call(Call &c, EGLDisplay dpy, EGLConfig config, void *, const EGLint *);
};
template <>
struct Hooks<fn::eglCreatePixmapSurface> : HookDefaults {
    static constexpr bool kReplacesCall = true;
    static EGLSurface call(Call &c, EGLDisplay dpy, EGLConfig config, EGLNativePixmapType, const EGLint *);
};
template <>
struct Hooks<fn::eglCreatePlatformPixmapSurface> : HookDefaults {
    static constexpr bool kReplacesCall = true;
    static EGLSurface call(Call &c, EGLDisplay dpy, EGLConfig config, void *, const EGLAttrib *);
};
template <>
struct Hooks<fn::eglCreatePlatformPixmapSurfaceEXT> : HookDefaults {
    static constexpr bool kReplacesCall = true;
    static EGLSurface call(Call &c, EGLDisplay dpy, EGLConfig config, void *, const EGLint *);
};

template <>
struct Hooks<fn::eglCreateContext> : HookDefaults {
    static void after(Call &c, EGLContext &result, EGLDisplay, EGLConfig, EGLContext, const EGLint *attribs);
};
template <>
struct Hooks<fn::eglMakeCurrent> : HookDefaults {
    static void after(Call &c, EGLBoolean &result, EGLDisplay, EGLSurface draw, EGLSurface, EGLContext);
};
template <>
struct Hooks<fn::eglReleaseThread> : HookDefaults {
    static void after(Call &c, EGLBoolean &result);
};

// Swaps end frames: the frame is read back and compared before it is shown.
template <>
struct Hooks<fn::eglSwapBuffers> : HookDefaults {
    static bool before(Call &c, EGLDisplay &, EGLSurface &);
    static void after(Call &c, EGLBoolean &, EGLDisplay, EGLSurface);
};
template <>
struct Hooks<fn::eglSwapBuffersWithDamageEXT> : HookDefaults {
    static bool before(Call &c, EGLDisplay &, EGLSurface &, const EGLint *&, EGLint &);
    static void after(Call &c, EGLBoolean &, EGLDisplay, EGLSurface, const EGLint *, EGLint);
};

// The recording process's entry points mean nothing here.
template <>
struct Hooks<fn::eglGetProcAddress> : HookDefaults {
    static constexpr bool kReplacesCall = true;
    static __eglMustCastToProperFunctionPointerType call(Call &, const char *) { return nullptr; }
};

// ---- OpenGL ES ------------------------------------------------------------------------------

template <>
struct Hooks<fn::glUseProgram> : HookDefaults {
    static void after(Call &c, GLuint program);
};

// An attribute the local driver placed elsewhere is bound where the recorded driver had it.
template <>
struct Hooks<fn::glGetAttribLocation> : HookDefaults {
    static void after(Call &c, GLint &result, GLuint program, const GLchar *name);
};

// A multi-draw's indices are a pointer per draw: the recorded bytes of each draw's indices, or its
// offset into the element buffer.
template <>
struct Hooks<ext::glMultiDrawElementsEXT> : HookDefaults {
    static bool before(Call &c, GLenum &mode, const GLsizei *&count, GLenum &type,
                       const void *const *&indices, GLsizei &primcount);
};

// Writes made through a mapping reach the local buffer from the record.
template <>
struct Hooks<fn::glMapBufferRange> : HookDefaults {
    static void after(Call &c, void *&result, GLenum target, GLintptr offset, GLsizeiptr length, GLbitfield);
};
template <>
struct Hooks<ext::glMapBufferOES> : HookDefaults {
    static void after(Call &c, void *&result, GLenum target, GLenum access);
};
template <>
struct Hooks<fn::glFlushMappedBufferRange> : HookDefaults {
    static bool before(Call &c, GLenum &target, GLintptr &offset, GLsizeiptr &length);
};
template <>
struct Hooks<fn::glUnmapBuffer> : HookDefaults {
    static bool before(Call &c, GLenum &target);
};

// Reads of results into client memory are made into scratch memory; reads into a pixel pack
// buffer keep their offset (Call::out).

} // namespace kv::replay
