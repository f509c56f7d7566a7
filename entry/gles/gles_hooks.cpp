// What the OpenGL ES 2.0 - 3.2 entry points do beyond the common protocol: errors, the answers
// the library changes, and the readers of application memory that the state hooks share. The state
// hooks themselves live in hooks_*.cpp by subject.
#include "entry/gles/hooks_state.h"
#include "entry/hooks.h"
#include "entry/reported_strings.h"

#include <algorithm>

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

// The driver's indices of the extensions the application is shown on the current context; null
// when nothing is hidden (then the driver's own answers stand).
const std::vector<uint32_t> *shownExtensions() {
    Settings &s = getSettings();
    if (s.disabledExtensionList.empty()) return nullptr;
    egl::ThreadState *t = egl::threadStateIfAny();
    if (!t || !t->current) return nullptr;
    egl::ContextRecord &context = *t->current;
    if (!context.shownExtensionsKnown) {
        const auto &gl = GlesApi::host().fn;
        GLint count = 0;
        gl.glGetIntegerv(GL_NUM_EXTENSIONS, &count);
        for (GLint i = 0; i < count && gl.glGetStringi; ++i) {
            const auto *name =
                reinterpret_cast<const char *>(gl.glGetStringi(GL_EXTENSIONS, static_cast<GLuint>(i)));
            if (name && !isDisabledExtension(name, s.disabledExtensionList.str()))
                context.shownExtensions.push_back(static_cast<uint32_t>(i));
        }
        context.shownExtensionsKnown = true;
        if (context.shownExtensions.size() == static_cast<size_t>(count < 0 ? 0 : count))
            context.shownExtensions.clear(); // nothing hidden on this context
    }
    return context.shownExtensions.empty() ? nullptr : &context.shownExtensions;
}

template <class T>
void applyValueOverride(const CallCtx &c, GLenum pname, T *data) {
    if (c.failed || !data) return;
    if (pname == GL_NUM_EXTENSIONS) {
        if (const std::vector<uint32_t> *shown = shownExtensions()) data[0] = static_cast<T>(shown->size());
        return;
    }
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

void GlesApi::keepError(uint32_t error) {
    if (CEs2ContextState *state = egl::currentEs2StateQuiet()) {
        if (state->pendingError == GL_NO_ERROR) state->pendingError = error;
    } else if (CFFContextState *es1 = egl::currentEs1StateQuiet()) {
        // An OpenGL ES 2 entry point called on an OpenGL ES 1 context (a program linked with both
        // libraries): the error is the context's all the same.
        if (es1->pendingError == GL_NO_ERROR) es1->pendingError = error;
    }
}

void takeStrayGlError() {
    CEs2ContextState *state = egl::currentEs2StateQuiet();
    if (!state) return; // no context, or one whose errors the application reads itself
    const GLenum error = GlesApi::host().fn.glGetError();
    // With an error already pending the driver would have kept that one and dropped this.
    if (error != GL_NO_ERROR && state->pendingError == GL_NO_ERROR) state->pendingError = error;
}

GLenum Hooks<fn::glGetError>::host(CallCtx &) {
    // The error check after every call consumed the driver's error; the application gets the first
    // one it has not seen yet.
    if (CEs2ContextState *state = egl::currentEs2StateQuiet()) {
        if (GLenum pending = state->pendingError) {
            state->pendingError = GL_NO_ERROR;
            return pending;
        }
    } else if (CFFContextState *es1 = egl::currentEs1StateQuiet()) {
        if (GLenum pending = es1->pendingError) {
            es1->pendingError = GL_NO_ERROR;
            return pending;
        }
    }
    return GlesApi::host().fn.glGetError();
}

const GLubyte *Hooks<fn::glGetStringi>::host(CallCtx &, GLenum name, GLuint index) {
    const auto &gl = GlesApi::host().fn;
    if (!gl.glGetStringi) return nullptr;
    if (name == GL_EXTENSIONS) {
        if (const std::vector<uint32_t> *shown = shownExtensions()) {
            // Past the shown ones: an index past the driver's own, which it rejects as it would.
            GLint count = 0;
            gl.glGetIntegerv(GL_NUM_EXTENSIONS, &count);
            const GLuint past = static_cast<GLuint>(count < 0 ? 0 : count);
            index = index < shown->size() ? (*shown)[index] : std::max(index, past);
        }
    }
    return gl.glGetStringi(name, index);
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
