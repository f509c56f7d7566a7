// OpenGL ES 2.0 - 3.2 functions that do more than the common protocol. Included by entry/hooks.h.
#pragma once

#include "core/call.h"

namespace kv {

template <>
struct Hooks<fn::glGetError> : HookDefaults {
    static constexpr bool kReplacesHost = true;
    static GLenum host(CallCtx &c);
};

template <>
struct Hooks<fn::glGetString> : HookDefaults {
    static bool bypass(CallCtx &c, GLenum name) { return name == 0x7500; }
    static void after(CallCtx &c, const GLubyte *&result, GLenum name);
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

template <>
struct Hooks<fn::glBindBuffer> : HookDefaults {
    static void after(CallCtx &c, Void &, GLenum target, GLuint buffer);
};
template <>
struct Hooks<fn::glBindBufferBase> : HookDefaults {
    static void after(CallCtx &c, Void &, GLenum target, GLuint index, GLuint buffer);
};
template <>
struct Hooks<fn::glBindBufferRange> : HookDefaults {
    static void after(CallCtx &c, Void &, GLenum target, GLuint index, GLuint buffer, GLintptr offset,
                      GLsizeiptr size);
};
template <>
struct Hooks<fn::glBufferData> : HookDefaults {
    static void after(CallCtx &c, Void &, GLenum target, GLsizeiptr size, const void *data, GLenum usage);
};
template <>
struct Hooks<fn::glBufferSubData> : HookDefaults {
    static void after(CallCtx &c, Void &, GLenum target, GLintptr offset, GLsizeiptr size, const void *data);
};
template <>
struct Hooks<fn::glCopyBufferSubData> : HookDefaults {
    static void after(CallCtx &c, Void &, GLenum readTarget, GLenum writeTarget, GLintptr readOffset,
                      GLintptr writeOffset, GLsizeiptr size);
};
template <>
struct Hooks<fn::glMapBufferRange> : HookDefaults {
    static void after(CallCtx &c, void *&result, GLenum target, GLintptr offset, GLsizeiptr length,
                      GLbitfield access);
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
template <>
struct Hooks<fn::glGenBuffers> : HookDefaults {
    static void after(CallCtx &c, Void &, GLsizei n, GLuint *buffers);
};
template <>
struct Hooks<fn::glDeleteBuffers> : HookDefaults {
    static void after(CallCtx &c, Void &, GLsizei n, const GLuint *buffers);
};

// ---- Pixel store, textures, framebuffers -----------------------------------------------------

template <>
struct Hooks<fn::glPixelStorei> : HookDefaults {
    static void after(CallCtx &c, Void &, GLenum pname, GLint param);
};
template <>
struct Hooks<fn::glActiveTexture> : HookDefaults {
    static void after(CallCtx &c, Void &, GLenum texture);
};
template <>
struct Hooks<fn::glBindTexture> : HookDefaults {
    static void after(CallCtx &c, Void &, GLenum target, GLuint texture);
};
template <>
struct Hooks<fn::glBindFramebuffer> : HookDefaults {
    static void after(CallCtx &c, Void &, GLenum target, GLuint framebuffer);
};
template <>
struct Hooks<fn::glUseProgram> : HookDefaults {
    static void after(CallCtx &c, Void &, GLuint program);
};

// ---- Vertex arrays -----------------------------------------------------------------------------

template <>
struct Hooks<fn::glBindVertexArray> : HookDefaults {
    static void after(CallCtx &c, Void &, GLuint array);
};
template <>
struct Hooks<fn::glDeleteVertexArrays> : HookDefaults {
    static void after(CallCtx &c, Void &, GLsizei n, const GLuint *arrays);
};
template <>
struct Hooks<fn::glVertexAttribPointer> : HookDefaults {
    static void after(CallCtx &c, Void &, GLuint index, GLint size, GLenum type, GLboolean normalized,
                      GLsizei stride, const void *pointer);
};
template <>
struct Hooks<fn::glVertexAttribIPointer> : HookDefaults {
    static void after(CallCtx &c, Void &, GLuint index, GLint size, GLenum type, GLsizei stride,
                      const void *pointer);
};
template <>
struct Hooks<fn::glEnableVertexAttribArray> : HookDefaults {
    static void after(CallCtx &c, Void &, GLuint index);
};
template <>
struct Hooks<fn::glDisableVertexAttribArray> : HookDefaults {
    static void after(CallCtx &c, Void &, GLuint index);
};
template <>
struct Hooks<fn::glVertexAttribDivisor> : HookDefaults {
    static void after(CallCtx &c, Void &, GLuint index, GLuint divisor);
};

} // namespace kv
