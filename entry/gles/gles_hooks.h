// OpenGL ES 2.0 - 3.2 functions that do more than the common protocol. Included by entry/hooks.h.
#pragma once

#include "core/call.h"
#include "entry/ext/ext_functions_autogen.h"

#include <cstring>

// A function whose one addition to the protocol is the shadow state update after the host call:
// Hooks<fn::F>::after(CallCtx &, Void &, the function's parameter types).
#define KV_GLES_STATE_HOOK(F, ...)                                                                           \
    template <>                                                                                              \
    struct Hooks<fn::F> : HookDefaults {                                                                     \
        static void after(CallCtx &c, Void &, __VA_ARGS__);                                                  \
    }
#define KV_GLES_STATE_HOOK_NO_ARGS(F)                                                                        \
    template <>                                                                                              \
    struct Hooks<fn::F> : HookDefaults {                                                                     \
        static void after(CallCtx &c, Void &);                                                               \
    }

namespace kv {

template <>
struct Hooks<fn::glGetError> : HookDefaults {
    static constexpr bool kReplacesHost = true;
    // Each wrapped call takes the driver's error after it and each unwrapped call's error is taken
    // before the next wrapped one, so the driver holds none once this answer is given.
    static constexpr bool kChecksError = false;
    static GLenum host(CallCtx &c);
};

template <>
struct Hooks<fn::glGetString> : HookDefaults {
    static bool bypass(CallCtx &c, GLenum name) { return name == 0x7500; }
    static void after(CallCtx &c, const GLubyte *&result, GLenum name);
};

// With extensions hidden by the configuration, the indexed extension names are those of the
// filtered GL_EXTENSIONS: index i is the i-th extension the application is shown.
template <>
struct Hooks<fn::glGetStringi> : HookDefaults {
    static constexpr bool kReplacesHost = true;
    static const GLubyte *host(CallCtx &c, GLenum name, GLuint index);
};

template <>
struct Hooks<fn::glGetIntegerv> : HookDefaults {
    static void after(CallCtx &c, Void &, GLenum pname, GLint *data);
};
template <>
struct Hooks<fn::glGetFloatv> : HookDefaults {
    static void after(CallCtx &c, Void &, GLenum pname, GLfloat *data);
};
template <>
struct Hooks<fn::glGetInteger64v> : HookDefaults {
    static void after(CallCtx &c, Void &, GLenum pname, GLint64 *data);
};
template <>
struct Hooks<fn::glGetInteger64i_v> : HookDefaults {
    static void after(CallCtx &c, Void &, GLenum target, GLuint index, GLint64 *data);
};

// ---- Buffers --------------------------------------------------------------------------------

KV_GLES_STATE_HOOK(glGenBuffers, GLsizei, GLuint *);
KV_GLES_STATE_HOOK(glDeleteBuffers, GLsizei, const GLuint *);
KV_GLES_STATE_HOOK(glBindBuffer, GLenum, GLuint);
KV_GLES_STATE_HOOK(glBindBufferBase, GLenum, GLuint, GLuint);
KV_GLES_STATE_HOOK(glBindBufferRange, GLenum, GLuint, GLuint, GLintptr, GLsizeiptr);
KV_GLES_STATE_HOOK(glBufferData, GLenum, GLsizeiptr, const void *, GLenum);
KV_GLES_STATE_HOOK(glBufferSubData, GLenum, GLintptr, GLsizeiptr, const void *);
KV_GLES_STATE_HOOK(glCopyBufferSubData, GLenum, GLenum, GLintptr, GLintptr, GLsizeiptr);
template <>
struct Hooks<fn::glMapBufferRange> : HookDefaults {
    static void after(CallCtx &c, void *&result, GLenum target, GLintptr offset, GLsizeiptr length,
                      GLbitfield access);
};
// glMapBufferOES maps the whole buffer, for writing; glUnmapBufferOES (glUnmapBuffer's hooks) then
// takes what was written into the recorder's copy and the record.
template <>
struct Hooks<fn::glMapBufferOES> : HookDefaults {
    static void after(CallCtx &c, void *&result, GLenum target, GLenum access);
};
// OpenGL ES takes an EGL image: a client buffer's contents may be due first
// (entry/egl/client_buffers.cpp).
template <>
struct Hooks<fn::glEGLImageTargetTexture2DOES> : HookDefaults {
    static void before(CallCtx &c, GLenum target, GLeglImageOES image);
};
template <>
struct Hooks<fn::glEGLImageTargetRenderbufferStorageOES> : HookDefaults {
    static void before(CallCtx &c, GLenum target, GLeglImageOES image);
};
template <>
struct Hooks<fn::glFlushMappedBufferRange> : HookDefaults {
    static void before(CallCtx &c, GLenum target, GLintptr offset, GLsizeiptr length);
};
template <>
struct Hooks<fn::glUnmapBuffer> : HookDefaults {
    static void before(CallCtx &c, GLenum target);
    static void after(CallCtx &c, GLboolean &result, GLenum target);
};

// ---- Pipeline settings -------------------------------------------------------------------------

KV_GLES_STATE_HOOK(glEnable, GLenum);
KV_GLES_STATE_HOOK(glDisable, GLenum);
KV_GLES_STATE_HOOK(glEnablei, GLenum, GLuint);
KV_GLES_STATE_HOOK(glDisablei, GLenum, GLuint);
KV_GLES_STATE_HOOK(glHint, GLenum, GLenum);
KV_GLES_STATE_HOOK(glPixelStorei, GLenum, GLint);
KV_GLES_STATE_HOOK(glBlendColor, GLfloat, GLfloat, GLfloat, GLfloat);
KV_GLES_STATE_HOOK(glBlendEquation, GLenum);
KV_GLES_STATE_HOOK(glBlendEquationSeparate, GLenum, GLenum);
KV_GLES_STATE_HOOK(glBlendFunc, GLenum, GLenum);
KV_GLES_STATE_HOOK(glBlendFuncSeparate, GLenum, GLenum, GLenum, GLenum);
KV_GLES_STATE_HOOK(glClearColor, GLfloat, GLfloat, GLfloat, GLfloat);
KV_GLES_STATE_HOOK(glClearDepthf, GLfloat);
KV_GLES_STATE_HOOK(glClearStencil, GLint);
KV_GLES_STATE_HOOK(glColorMask, GLboolean, GLboolean, GLboolean, GLboolean);
KV_GLES_STATE_HOOK(glCullFace, GLenum);
KV_GLES_STATE_HOOK(glDepthFunc, GLenum);
KV_GLES_STATE_HOOK(glDepthMask, GLboolean);
KV_GLES_STATE_HOOK(glDepthRangef, GLfloat, GLfloat);
KV_GLES_STATE_HOOK(glFrontFace, GLenum);
KV_GLES_STATE_HOOK(glLineWidth, GLfloat);
KV_GLES_STATE_HOOK(glPolygonOffset, GLfloat, GLfloat);
KV_GLES_STATE_HOOK(glSampleCoverage, GLfloat, GLboolean);
KV_GLES_STATE_HOOK(glScissor, GLint, GLint, GLsizei, GLsizei);
KV_GLES_STATE_HOOK(glViewport, GLint, GLint, GLsizei, GLsizei);
KV_GLES_STATE_HOOK(glStencilFunc, GLenum, GLint, GLuint);
KV_GLES_STATE_HOOK(glStencilFuncSeparate, GLenum, GLenum, GLint, GLuint);
KV_GLES_STATE_HOOK(glStencilMask, GLuint);
KV_GLES_STATE_HOOK(glStencilMaskSeparate, GLenum, GLuint);
KV_GLES_STATE_HOOK(glStencilOp, GLenum, GLenum, GLenum);
KV_GLES_STATE_HOOK(glStencilOpSeparate, GLenum, GLenum, GLenum, GLenum);

// ---- Vertex arrays -----------------------------------------------------------------------------

KV_GLES_STATE_HOOK(glGenVertexArrays, GLsizei, GLuint *);
KV_GLES_STATE_HOOK(glDeleteVertexArrays, GLsizei, const GLuint *);
KV_GLES_STATE_HOOK(glBindVertexArray, GLuint);
KV_GLES_STATE_HOOK(glVertexAttribPointer, GLuint, GLint, GLenum, GLboolean, GLsizei, const void *);
KV_GLES_STATE_HOOK(glVertexAttribIPointer, GLuint, GLint, GLenum, GLsizei, const void *);
KV_GLES_STATE_HOOK(glEnableVertexAttribArray, GLuint);
KV_GLES_STATE_HOOK(glDisableVertexAttribArray, GLuint);
KV_GLES_STATE_HOOK(glVertexAttribDivisor, GLuint, GLuint);
KV_GLES_STATE_HOOK(glVertexAttrib1f, GLuint, GLfloat);
KV_GLES_STATE_HOOK(glVertexAttrib2f, GLuint, GLfloat, GLfloat);
KV_GLES_STATE_HOOK(glVertexAttrib3f, GLuint, GLfloat, GLfloat, GLfloat);
KV_GLES_STATE_HOOK(glVertexAttrib4f, GLuint, GLfloat, GLfloat, GLfloat, GLfloat);
KV_GLES_STATE_HOOK(glVertexAttrib1fv, GLuint, const GLfloat *);
KV_GLES_STATE_HOOK(glVertexAttrib2fv, GLuint, const GLfloat *);
KV_GLES_STATE_HOOK(glVertexAttrib3fv, GLuint, const GLfloat *);
KV_GLES_STATE_HOOK(glVertexAttrib4fv, GLuint, const GLfloat *);
KV_GLES_STATE_HOOK(glVertexAttribI4i, GLuint, GLint, GLint, GLint, GLint);
KV_GLES_STATE_HOOK(glVertexAttribI4ui, GLuint, GLuint, GLuint, GLuint, GLuint);
KV_GLES_STATE_HOOK(glVertexAttribI4iv, GLuint, const GLint *);
KV_GLES_STATE_HOOK(glVertexAttribI4uiv, GLuint, const GLuint *);
KV_GLES_STATE_HOOK(glBindVertexBuffer, GLuint, GLuint, GLintptr, GLsizei);
KV_GLES_STATE_HOOK(glVertexAttribFormat, GLuint, GLint, GLenum, GLboolean, GLuint);
KV_GLES_STATE_HOOK(glVertexAttribIFormat, GLuint, GLint, GLenum, GLuint);
KV_GLES_STATE_HOOK(glVertexAttribBinding, GLuint, GLuint);
KV_GLES_STATE_HOOK(glVertexBindingDivisor, GLuint, GLuint);

// ---- Textures and samplers ---------------------------------------------------------------------

KV_GLES_STATE_HOOK(glGenTextures, GLsizei, GLuint *);
KV_GLES_STATE_HOOK(glDeleteTextures, GLsizei, const GLuint *);
KV_GLES_STATE_HOOK(glActiveTexture, GLenum);
KV_GLES_STATE_HOOK(glBindTexture, GLenum, GLuint);
KV_GLES_STATE_HOOK(glTexParameterf, GLenum, GLenum, GLfloat);
KV_GLES_STATE_HOOK(glTexParameterfv, GLenum, GLenum, const GLfloat *);
KV_GLES_STATE_HOOK(glTexParameteri, GLenum, GLenum, GLint);
KV_GLES_STATE_HOOK(glTexParameteriv, GLenum, GLenum, const GLint *);
KV_GLES_STATE_HOOK(glTexParameterIiv, GLenum, GLenum, const GLint *);
KV_GLES_STATE_HOOK(glTexParameterIuiv, GLenum, GLenum, const GLuint *);
KV_GLES_STATE_HOOK(glTexImage2D, GLenum, GLint, GLint, GLsizei, GLsizei, GLint, GLenum, GLenum, const void *);
KV_GLES_STATE_HOOK(glTexImage3D, GLenum, GLint, GLint, GLsizei, GLsizei, GLsizei, GLint, GLenum, GLenum,
                   const void *);
KV_GLES_STATE_HOOK(glCopyTexImage2D, GLenum, GLint, GLenum, GLint, GLint, GLsizei, GLsizei, GLint);
KV_GLES_STATE_HOOK(glCompressedTexImage2D, GLenum, GLint, GLenum, GLsizei, GLsizei, GLint, GLsizei,
                   const void *);
KV_GLES_STATE_HOOK(glCompressedTexImage3D, GLenum, GLint, GLenum, GLsizei, GLsizei, GLsizei, GLint, GLsizei,
                   const void *);
KV_GLES_STATE_HOOK(glCompressedTexSubImage2D, GLenum, GLint, GLint, GLint, GLsizei, GLsizei, GLenum, GLsizei,
                   const void *);
KV_GLES_STATE_HOOK(glCompressedTexSubImage3D, GLenum, GLint, GLint, GLint, GLint, GLsizei, GLsizei, GLsizei,
                   GLenum, GLsizei, const void *);
KV_GLES_STATE_HOOK(glTexStorage2D, GLenum, GLsizei, GLenum, GLsizei, GLsizei);
KV_GLES_STATE_HOOK(glTexStorage3D, GLenum, GLsizei, GLenum, GLsizei, GLsizei, GLsizei);
KV_GLES_STATE_HOOK(glTexStorage2DMultisample, GLenum, GLsizei, GLenum, GLsizei, GLsizei, GLboolean);
KV_GLES_STATE_HOOK(glTexStorage3DMultisample, GLenum, GLsizei, GLenum, GLsizei, GLsizei, GLsizei, GLboolean);
KV_GLES_STATE_HOOK(glTexBuffer, GLenum, GLenum, GLuint);
KV_GLES_STATE_HOOK(glTexBufferRange, GLenum, GLenum, GLuint, GLintptr, GLsizeiptr);
KV_GLES_STATE_HOOK(glBindImageTexture, GLuint, GLuint, GLint, GLboolean, GLint, GLenum, GLenum);
KV_GLES_STATE_HOOK(glGenSamplers, GLsizei, GLuint *);
KV_GLES_STATE_HOOK(glDeleteSamplers, GLsizei, const GLuint *);
KV_GLES_STATE_HOOK(glBindSampler, GLuint, GLuint);
KV_GLES_STATE_HOOK(glSamplerParameterf, GLuint, GLenum, GLfloat);
KV_GLES_STATE_HOOK(glSamplerParameterfv, GLuint, GLenum, const GLfloat *);
KV_GLES_STATE_HOOK(glSamplerParameteri, GLuint, GLenum, GLint);
KV_GLES_STATE_HOOK(glSamplerParameteriv, GLuint, GLenum, const GLint *);
KV_GLES_STATE_HOOK(glSamplerParameterIiv, GLuint, GLenum, const GLint *);
KV_GLES_STATE_HOOK(glSamplerParameterIuiv, GLuint, GLenum, const GLuint *);

// ---- Framebuffers and renderbuffers ------------------------------------------------------------

KV_GLES_STATE_HOOK(glGenFramebuffers, GLsizei, GLuint *);
KV_GLES_STATE_HOOK(glDeleteFramebuffers, GLsizei, const GLuint *);
KV_GLES_STATE_HOOK(glBindFramebuffer, GLenum, GLuint);
KV_GLES_STATE_HOOK(glFramebufferTexture2D, GLenum, GLenum, GLenum, GLuint, GLint);
KV_GLES_STATE_HOOK(glFramebufferRenderbuffer, GLenum, GLenum, GLenum, GLuint);
KV_GLES_STATE_HOOK(glFramebufferTextureLayer, GLenum, GLenum, GLuint, GLint, GLint);
KV_GLES_STATE_HOOK(glFramebufferTexture, GLenum, GLenum, GLuint, GLint);
KV_GLES_STATE_HOOK(glFramebufferParameteri, GLenum, GLenum, GLint);
KV_GLES_STATE_HOOK(glDrawBuffers, GLsizei, const GLenum *);
KV_GLES_STATE_HOOK(glReadBuffer, GLenum);
KV_GLES_STATE_HOOK(glGenRenderbuffers, GLsizei, GLuint *);
KV_GLES_STATE_HOOK(glDeleteRenderbuffers, GLsizei, const GLuint *);
KV_GLES_STATE_HOOK(glBindRenderbuffer, GLenum, GLuint);
KV_GLES_STATE_HOOK(glRenderbufferStorage, GLenum, GLenum, GLsizei, GLsizei);
KV_GLES_STATE_HOOK(glRenderbufferStorageMultisample, GLenum, GLsizei, GLenum, GLsizei, GLsizei);

// ---- Queries, transform feedback, syncs --------------------------------------------------------

KV_GLES_STATE_HOOK(glGenQueries, GLsizei, GLuint *);
KV_GLES_STATE_HOOK(glDeleteQueries, GLsizei, const GLuint *);
KV_GLES_STATE_HOOK(glBeginQuery, GLenum, GLuint);
KV_GLES_STATE_HOOK(glEndQuery, GLenum);
KV_GLES_STATE_HOOK(glGenTransformFeedbacks, GLsizei, GLuint *);
KV_GLES_STATE_HOOK(glDeleteTransformFeedbacks, GLsizei, const GLuint *);
KV_GLES_STATE_HOOK(glBindTransformFeedback, GLenum, GLuint);
KV_GLES_STATE_HOOK(glBeginTransformFeedback, GLenum);
KV_GLES_STATE_HOOK_NO_ARGS(glEndTransformFeedback);
KV_GLES_STATE_HOOK_NO_ARGS(glPauseTransformFeedback);
KV_GLES_STATE_HOOK_NO_ARGS(glResumeTransformFeedback);
template <>
struct Hooks<fn::glFenceSync> : HookDefaults {
    static void after(CallCtx &c, GLsync &result, GLenum condition, GLbitfield flags);
};
KV_GLES_STATE_HOOK(glDeleteSync, GLsync);

// ---- Shaders, programs, program pipelines ------------------------------------------------------

template <>
struct Hooks<fn::glCreateShader> : HookDefaults {
    static void after(CallCtx &c, GLuint &result, GLenum type);
};
KV_GLES_STATE_HOOK(glShaderSource, GLuint, GLsizei, const GLchar *const *, const GLint *);
KV_GLES_STATE_HOOK(glCompileShader, GLuint);
KV_GLES_STATE_HOOK(glDeleteShader, GLuint);
template <>
struct Hooks<fn::glCreateProgram> : HookDefaults {
    static void after(CallCtx &c, GLuint &result);
};
template <>
struct Hooks<fn::glCreateShaderProgramv> : HookDefaults {
    static void after(CallCtx &c, GLuint &result, GLenum type, GLsizei count, const GLchar *const *strings);
};
KV_GLES_STATE_HOOK(glDeleteProgram, GLuint);
KV_GLES_STATE_HOOK(glAttachShader, GLuint, GLuint);
KV_GLES_STATE_HOOK(glDetachShader, GLuint, GLuint);
KV_GLES_STATE_HOOK(glBindAttribLocation, GLuint, GLuint, const GLchar *);
KV_GLES_STATE_HOOK(glTransformFeedbackVaryings, GLuint, GLsizei, const GLchar *const *, GLenum);
KV_GLES_STATE_HOOK(glLinkProgram, GLuint);
KV_GLES_STATE_HOOK(glProgramParameteri, GLuint, GLenum, GLint);
KV_GLES_STATE_HOOK(glProgramBinary, GLuint, GLenum, const void *, GLsizei);
KV_GLES_STATE_HOOK(glUseProgram, GLuint);
KV_GLES_STATE_HOOK(glUniformBlockBinding, GLuint, GLuint, GLuint);
// Not state, but what a uniform location or block index stands for.
template <>
struct Hooks<fn::glGetUniformLocation> : HookDefaults {
    static void after(CallCtx &c, GLint &result, GLuint program, const GLchar *name);
};
template <>
struct Hooks<fn::glGetUniformBlockIndex> : HookDefaults {
    static void after(CallCtx &c, GLuint &result, GLuint program, const GLchar *name);
};
KV_GLES_STATE_HOOK(glGenProgramPipelines, GLsizei, GLuint *);
KV_GLES_STATE_HOOK(glDeleteProgramPipelines, GLsizei, const GLuint *);
KV_GLES_STATE_HOOK(glBindProgramPipeline, GLuint);
KV_GLES_STATE_HOOK(glUseProgramStages, GLuint, GLbitfield, GLuint);
KV_GLES_STATE_HOOK(glActiveShaderProgram, GLuint, GLuint);

// Uniform values: glUniform* for the program in use, glProgramUniform* for a named one.
#define KV_GLES_UNIFORM_HOOKS(N, T)                                                                          \
    KV_GLES_STATE_HOOK(glUniform##N##v, GLint, GLsizei, const T *);                                          \
    KV_GLES_STATE_HOOK(glProgramUniform##N##v, GLuint, GLint, GLsizei, const T *)
KV_GLES_UNIFORM_HOOKS(1f, GLfloat);
KV_GLES_UNIFORM_HOOKS(2f, GLfloat);
KV_GLES_UNIFORM_HOOKS(3f, GLfloat);
KV_GLES_UNIFORM_HOOKS(4f, GLfloat);
KV_GLES_UNIFORM_HOOKS(1i, GLint);
KV_GLES_UNIFORM_HOOKS(2i, GLint);
KV_GLES_UNIFORM_HOOKS(3i, GLint);
KV_GLES_UNIFORM_HOOKS(4i, GLint);
KV_GLES_UNIFORM_HOOKS(1ui, GLuint);
KV_GLES_UNIFORM_HOOKS(2ui, GLuint);
KV_GLES_UNIFORM_HOOKS(3ui, GLuint);
KV_GLES_UNIFORM_HOOKS(4ui, GLuint);
#undef KV_GLES_UNIFORM_HOOKS

// Uniform values given as arguments: one element of 1 to 4 words, kept as they are passed.
void keepUniformValue(CallCtx &c, uint16_t call, GLuint program, GLint location, const uint32_t *words,
                      size_t count);

// The raw word of a 32-bit value (a uniform component, a parameter, a vertex attribute constant).
template <class T>
uint32_t word(T value) {
    static_assert(sizeof(T) == 4, "32-bit value");
    uint32_t bits;
    std::memcpy(&bits, &value, 4);
    return bits;
}

// glUniform{1,2,3,4}{f,i,ui}: for the program in use.
template <class F>
struct UniformValueHooks : HookDefaults {
    template <class... V>
    static void after(CallCtx &c, Void &, GLint location, V... values) {
        const uint32_t words[] = {word(values)...};
        keepUniformValue(c, F::id, 0, location, words, sizeof...(V));
    }
};

// glProgramUniform{1,2,3,4}{f,i,ui}: for a named program.
template <class F>
struct ProgramUniformValueHooks : HookDefaults {
    template <class... V>
    static void after(CallCtx &c, Void &, GLuint program, GLint location, V... values) {
        const uint32_t words[] = {word(values)...};
        keepUniformValue(c, F::id, program, location, words, sizeof...(V));
    }
};

#define KV_GLES_UNIFORM_VALUE_HOOKS(S)                                                                       \
    template <>                                                                                              \
    struct Hooks<fn::glUniform##S> : UniformValueHooks<fn::glUniform##S> {};                                 \
    template <>                                                                                              \
    struct Hooks<fn::glProgramUniform##S> : ProgramUniformValueHooks<fn::glProgramUniform##S> {}
KV_GLES_UNIFORM_VALUE_HOOKS(1f);
KV_GLES_UNIFORM_VALUE_HOOKS(2f);
KV_GLES_UNIFORM_VALUE_HOOKS(3f);
KV_GLES_UNIFORM_VALUE_HOOKS(4f);
KV_GLES_UNIFORM_VALUE_HOOKS(1i);
KV_GLES_UNIFORM_VALUE_HOOKS(2i);
KV_GLES_UNIFORM_VALUE_HOOKS(3i);
KV_GLES_UNIFORM_VALUE_HOOKS(4i);
KV_GLES_UNIFORM_VALUE_HOOKS(1ui);
KV_GLES_UNIFORM_VALUE_HOOKS(2ui);
KV_GLES_UNIFORM_VALUE_HOOKS(3ui);
KV_GLES_UNIFORM_VALUE_HOOKS(4ui);
#undef KV_GLES_UNIFORM_VALUE_HOOKS

#define KV_GLES_UNIFORM_MATRIX_HOOKS(Shape)                                                                  \
    KV_GLES_STATE_HOOK(glUniformMatrix##Shape##fv, GLint, GLsizei, GLboolean, const GLfloat *);              \
    KV_GLES_STATE_HOOK(glProgramUniformMatrix##Shape##fv, GLuint, GLint, GLsizei, GLboolean, const GLfloat *)
KV_GLES_UNIFORM_MATRIX_HOOKS(2);
KV_GLES_UNIFORM_MATRIX_HOOKS(3);
KV_GLES_UNIFORM_MATRIX_HOOKS(4);
KV_GLES_UNIFORM_MATRIX_HOOKS(2x3);
KV_GLES_UNIFORM_MATRIX_HOOKS(3x2);
KV_GLES_UNIFORM_MATRIX_HOOKS(2x4);
KV_GLES_UNIFORM_MATRIX_HOOKS(4x2);
KV_GLES_UNIFORM_MATRIX_HOOKS(3x4);
KV_GLES_UNIFORM_MATRIX_HOOKS(4x3);
#undef KV_GLES_UNIFORM_MATRIX_HOOKS

} // namespace kv

#undef KV_GLES_STATE_HOOK
#undef KV_GLES_STATE_HOOK_NO_ARGS
