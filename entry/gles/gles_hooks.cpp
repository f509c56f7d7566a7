// What the OpenGL ES 2.0 - 3.2 entry points do beyond the common protocol.
// What the OpenGL ES 2.0 - 3.2 entry points do beyond the common protocol: errors, the answers
// the library changes, and the readers of application memory that the state hooks share. The state
// hooks themselves live in hooks_*.cpp by subject.
#include "entry/gles/hooks_state.h"
#include "entry/hooks.h"
#include "entry/reported_strings.h"

namespace kv {

namespace gles {

bool readText(const char *text, GLint length, std::string &out) {
    out.clear();
    if (!text) return false;
    size_t n = 0;
    if (length >= 0) {
        n = static_cast<size_t>(length);
    } else if (!platform::guardedStrlen(text, kMaxReadBytes, &n)) {
        return false;
    }
    if (n > kMaxReadBytes) return false;
    out.resize(n);
    if (n == 0 || platform::guardedCopy(&out[0], text, n) == n) return true;
    out.clear();
    return false;
}

bool readSources(GLsizei count, const GLchar *const *strings, const GLint *lengths, std::string &out) {
    out.clear();
    std::vector<const GLchar *> pieces;
    std::vector<GLint> given;
    if (count < 0 || !readValues(strings, static_cast<size_t>(count), pieces)) return false;
    if (lengths && !readValues(lengths, static_cast<size_t>(count), given)) return false;
    std::string piece;
    for (size_t i = 0; i < pieces.size(); ++i) {
        if (!readText(pieces[i], lengths ? given[i] : -1, piece)) return false;
        out += piece;
    }
    return true;
}

bool readStrings(GLsizei count, const GLchar *const *strings, std::vector<std::string> &out) {
    out.clear();
    std::vector<const GLchar *> pieces;
    if (count < 0 || !readValues(strings, static_cast<size_t>(count), pieces)) return false;
    out.resize(pieces.size());
    for (size_t i = 0; i < pieces.size(); ++i)
        if (!readText(pieces[i], -1, out[i])) return false;
    return true;
}

} // namespace gles

namespace {

template <class T>
void applyValueOverride(const CallCtx &c, GLenum pname, T *data) {
    if (c.failed || !data) return;
    if (pname == GL_UNIFORM_BUFFER_OFFSET_ALIGNMENT && c.d.uniformBufferOffsetAlignment < 0xFFFFFFFFu)
        data[0] = static_cast<T>(c.d.uniformBufferOffsetAlignment);
    else if (pname == GL_SHADER_STORAGE_BUFFER_OFFSET_ALIGNMENT &&
             c.d.shaderStorageBufferOffsetAlignment < 0xFFFFFFFFu)
        data[0] = static_cast<T>(c.d.shaderStorageBufferOffsetAlignment);
    else if ((pname == GL_SHADER_BINARY_FORMATS || pname == GL_NUM_SHADER_BINARY_FORMATS) &&
             c.d.disableBinaries)
        data[0] = static_cast<T>(0);
}

} // namespace

void GlesApi::noteError(uint32_t error) {
    g_lastErrorEs2 = error;
    if (error == GL_NO_ERROR) return;
    if (CEs2ContextState *state = egl::currentEs2StateQuiet())
        if (state->pendingError == GL_NO_ERROR) state->pendingError = error;
}

GLenum Hooks<fn::glGetError>::host(CallCtx &) {
    // The error check after every call consumed the driver's error; the application gets the first
    // one it has not seen yet.
    if (CEs2ContextState *state = egl::currentEs2StateQuiet()) {
        if (GLenum pending = state->pendingError) {
            state->pendingError = GL_NO_ERROR;
            return pending;
        }
    }
    return GlesApi::host().fn.glGetError();
}

void Hooks<fn::glGetString>::after(CallCtx &c, const GLubyte *&result, GLenum name) {
    if (c.failed || !result) return;
    CEs2ContextState *state = egl::currentEs2StateQuiet();
    uint32_t major = state ? state->majorVersion() : 2;
    result = reinterpret_cast<const GLubyte *>(
        reportedGlString(name, reinterpret_cast<const char *>(result), major));
}

void Hooks<fn::glGetIntegerv>::after(CallCtx &c, Void &, GLenum pname, GLint *data) {
    applyValueOverride(c, pname, data);
}
void Hooks<fn::glGetFloatv>::after(CallCtx &c, Void &, GLenum pname, GLfloat *data) {
    applyValueOverride(c, pname, data);
}
void Hooks<fn::glGetInteger64v>::after(CallCtx &c, Void &, GLenum pname, GLint64 *data) {
    applyValueOverride(c, pname, data);
}
void Hooks<fn::glGetInteger64i_v>::after(CallCtx &c, Void &, GLenum target, GLuint, GLint64 *data) {
    applyValueOverride(c, target, data);
}

} // namespace kv
