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

// ---- OpenCL (cl_hooks.cpp) --------------------------------------------------------------------

// Handles inside a context's property list (its platform, shared EGL objects) are the local ones.
template <>
struct Hooks<cl::clCreateContext> : HookDefaults {
    static bool before(Call &c, const cl_context_properties *&properties, cl_uint &, const cl_device_id *&,
                       std::nullptr_t &, void *&, cl_int *&);
};
template <>
struct Hooks<cl::clCreateContextFromType> : HookDefaults {
    static bool before(Call &c, const cl_context_properties *&properties, cl_device_type &, std::nullptr_t &,
                       void *&, cl_int *&);
};

// Memory that used the recording process's own host memory starts from a copy of its recorded
// contents here: nothing of this process stands behind it.
template <>
struct Hooks<cl::clCreateBuffer> : HookDefaults {
    static bool before(Call &c, cl_context &, cl_mem_flags &flags, size_t &, void *&host, cl_int *&);
};
template <>
struct Hooks<cl::clCreateImage> : HookDefaults {
    static bool before(Call &c, cl_context &, cl_mem_flags &flags, const cl_image_format *&,
                       const cl_image_desc *&, void *&host, cl_int *&);
};
template <>
struct Hooks<cl::clCreateImage2D> : HookDefaults {
    static bool before(Call &c, cl_context &, cl_mem_flags &flags, const cl_image_format *&, size_t &,
                       size_t &, size_t &, void *&host, cl_int *&);
};
template <>
struct Hooks<cl::clCreateImage3D> : HookDefaults {
    static bool before(Call &c, cl_context &, cl_mem_flags &flags, const cl_image_format *&, size_t &,
                       size_t &, size_t &, size_t &, size_t &, void *&host, cl_int *&);
};

// Sources are passed as the terminated copies the player made of them.
template <>
struct Hooks<cl::clCreateProgramWithSource> : HookDefaults {
    static bool before(Call &c, cl_context &, cl_uint &, const char **&, const size_t *&lengths, cl_int *&);
};

// An argument that holds a recorded memory object or sampler holds the local one.
template <>
struct Hooks<cl::clSetKernelArg> : HookDefaults {
    static bool before(Call &c, cl_kernel &, cl_uint &, size_t &size, const void *&value);
};

// A native kernel is a function of the recorded program, which the player does not have: the call
// is said to be unreplayable, and a marker with the same wait list stands in its place so that
// what waits on its event still runs.
template <>
struct Hooks<cl::clEnqueueNativeKernel> : HookDefaults {
    static constexpr bool kReplacesCall = true;
    static cl_int call(Call &c, cl_command_queue queue, std::nullptr_t, void *, size_t, cl_uint,
                       const cl_mem *, const void **, cl_uint waitCount, const cl_event *waitList,
                       cl_event *event);
};

// Writes block here: the bytes they give the device live in the record being played, which the
// next record replaces.
struct BlockingWrite : HookDefaults {
    template <class Queue, class Mem, class... Rest>
    static bool before(Call &, Queue &, Mem &, cl_bool &blocking, Rest &...) {
        blocking = CL_TRUE;
        return true;
    }
};
template <>
struct Hooks<cl::clEnqueueWriteBuffer> : BlockingWrite {};
template <>
struct Hooks<cl::clEnqueueWriteBufferRect> : BlockingWrite {};
template <>
struct Hooks<cl::clEnqueueWriteImage> : BlockingWrite {};

// Reads block here and what they bring back is compared with what the recording brought back.
template <>
struct Hooks<cl::clEnqueueReadBuffer> : HookDefaults {
    static bool before(Call &c, cl_command_queue &, cl_mem &, cl_bool &blocking, size_t &, size_t &size,
                       void *&ptr, cl_uint &, const cl_event *&, cl_event *&);
    static void after(Call &c, cl_int &result, cl_command_queue, cl_mem, cl_bool, size_t, size_t, void *ptr,
                      cl_uint, const cl_event *, cl_event *);
};
template <>
struct Hooks<cl::clEnqueueReadBufferRect> : HookDefaults {
    static bool before(Call &c, cl_command_queue &, cl_mem &, cl_bool &blocking, const size_t *&,
                       const size_t *&, const size_t *&, size_t &, size_t &, size_t &, size_t &, void *&ptr,
                       cl_uint &, const cl_event *&, cl_event *&);
    static void after(Call &c, cl_int &result, cl_command_queue, cl_mem, cl_bool, const size_t *,
                      const size_t *, const size_t *, size_t, size_t, size_t, size_t, void *ptr, cl_uint,
                      const cl_event *, cl_event *);
};
template <>
struct Hooks<cl::clEnqueueReadImage> : HookDefaults {
    static bool before(Call &c, cl_command_queue &, cl_mem &, cl_bool &blocking, const size_t *&,
                       const size_t *&, size_t &, size_t &, void *&ptr, cl_uint &, const cl_event *&,
                       cl_event *&);
    static void after(Call &c, cl_int &result, cl_command_queue, cl_mem, cl_bool, const size_t *,
                      const size_t *, size_t, size_t, void *ptr, cl_uint, const cl_event *, cl_event *);
};

// Mappings block here; what the recorded host wrote into one reaches the local mapping as it is
// given back.
template <>
struct Hooks<cl::clEnqueueMapBuffer> : HookDefaults {
    static bool before(Call &c, cl_command_queue &, cl_mem &, cl_bool &blocking, cl_map_flags &, size_t &,
                       size_t &, cl_uint &, const cl_event *&, cl_event *&, cl_int *&);
    static void after(Call &c, void *&result, cl_command_queue, cl_mem, cl_bool, cl_map_flags, size_t, size_t,
                      cl_uint, const cl_event *, cl_event *, cl_int *);
};
template <>
struct Hooks<cl::clEnqueueMapImage> : HookDefaults {
    static bool before(Call &c, cl_command_queue &, cl_mem &, cl_bool &blocking, cl_map_flags &,
                       const size_t *&, const size_t *&, size_t *&, size_t *&, cl_uint &, const cl_event *&,
                       cl_event *&, cl_int *&);
    static void after(Call &c, void *&result, cl_command_queue, cl_mem, cl_bool, cl_map_flags, const size_t *,
                      const size_t *, size_t *, size_t *, cl_uint, const cl_event *, cl_event *, cl_int *);
};
template <>
struct Hooks<cl::clEnqueueUnmapMemObject> : HookDefaults {
    static bool before(Call &c, cl_command_queue &, cl_mem &, void *&mapped, cl_uint &, const cl_event *&,
                       cl_event *&);
    static void after(Call &c, cl_int &result, cl_command_queue, cl_mem, void *mapped, cl_uint,
                      const cl_event *, cl_event *);
};

// Queries that answer with handles teach the player the local ones; a program's binaries are
// written through pointers of the recorded process, so that query is not made.
template <>
struct Hooks<cl::clGetContextInfo> : HookDefaults {
    static void after(Call &c, cl_int &result, cl_context, cl_context_info name, size_t, void *value,
                      size_t *);
};
template <>
struct Hooks<cl::clGetProgramInfo> : HookDefaults {
    static bool before(Call &c, cl_program &, cl_program_info &name, size_t &, void *&, size_t *&);
    static void after(Call &c, cl_int &result, cl_program, cl_program_info name, size_t, void *value,
                      size_t *);
};

// The recording process's entry points mean nothing here.
template <>
struct Hooks<cl::clGetExtensionFunctionAddress> : HookDefaults {
    static constexpr bool kReplacesCall = true;
    static void *call(Call &, const char *) { return nullptr; }
};
template <>
struct Hooks<cl::clGetExtensionFunctionAddressForPlatform> : HookDefaults {
    static constexpr bool kReplacesCall = true;
    static void *call(Call &, cl_platform_id, const char *) { return nullptr; }
};

} // namespace kv::replay
