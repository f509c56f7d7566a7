// What the OpenGL ES 2.0 - 3.2 entry points do beyond the common protocol.
#include "entry/hooks.h"
#include "entry/reported_strings.h"
#include "state/egl_state.h"

#include <algorithm>
#include <cstring>

namespace kv {

namespace {

// Runs `update` on the calling thread's shadow state, under the state lock, after a call that the
// driver accepted.
template <class Update>
void updateState(CallCtx &c, Update update) {
    if (c.failed || !c.d.callHost) return;
    CEs2ContextState *state = egl::currentEs2State();
    if (!state) return;
    platform::LockGuard<platform::Mutex> guard(stateLock());
    update(*state);
}

CEs2ContextState::SEs2Resources::Buffer *boundBufferRecord(CEs2ContextState &state, GLenum target) {
    GLuint name = state.bufferBinding(target);
    if (name == 0) return nullptr;
    return &state.shared().buffers[name];
}

// Copies client memory into the recorder's copy of a buffer; what cannot be read stays zero.
void copyInto(std::vector<uint8_t> &contents, uint64_t offset, const void *data, uint64_t size) {
    if (offset > contents.size() || size > contents.size() - offset || !data || size == 0) return;
    size_t got = platform::guardedCopy(contents.data() + offset, data, size);
    if (got < size) std::memset(contents.data() + offset + got, 0, size - got);
}

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

// ---- Buffers --------------------------------------------------------------------------------

void Hooks<fn::glBindBuffer>::after(CallCtx &c, Void &, GLenum target, GLuint buffer) {
    updateState(c, [&](CEs2ContextState &s) {
        s.bufferBinding(target) = buffer;
        if (buffer) s.shared().buffers[buffer];
    });
}

void Hooks<fn::glBindBufferBase>::after(CallCtx &c, Void &, GLenum target, GLuint index, GLuint buffer) {
    updateState(c, [&](CEs2ContextState &s) {
        s.indexedBindings[{target, index}] = IndexedBinding{buffer, 0, 0};
        s.bufferBinding(target) = buffer;
        if (buffer) s.shared().buffers[buffer];
    });
}

void Hooks<fn::glBindBufferRange>::after(CallCtx &c, Void &, GLenum target, GLuint index, GLuint buffer,
                                         GLintptr offset, GLsizeiptr size) {
    updateState(c, [&](CEs2ContextState &s) {
        s.indexedBindings[{target, index}] = IndexedBinding{buffer, offset, size};
        s.bufferBinding(target) = buffer;
        if (buffer) s.shared().buffers[buffer];
    });
}

void Hooks<fn::glBufferData>::after(CallCtx &c, Void &, GLenum target, GLsizeiptr size, const void *data,
                                    GLenum usage) {
    updateState(c, [&](CEs2ContextState &s) {
        auto *buffer = boundBufferRecord(s, target);
        if (!buffer || size < 0) return;
        buffer->usage = usage;
        buffer->contents.assign(static_cast<size_t>(size), 0);
        copyInto(buffer->contents, 0, data, static_cast<uint64_t>(size));
    });
}

void Hooks<fn::glBufferSubData>::after(CallCtx &c, Void &, GLenum target, GLintptr offset, GLsizeiptr size,
                                       const void *data) {
    updateState(c, [&](CEs2ContextState &s) {
        auto *buffer = boundBufferRecord(s, target);
        if (!buffer || offset < 0 || size < 0) return;
        copyInto(buffer->contents, static_cast<uint64_t>(offset), data, static_cast<uint64_t>(size));
    });
}

void Hooks<fn::glCopyBufferSubData>::after(CallCtx &c, Void &, GLenum readTarget, GLenum writeTarget,
                                           GLintptr readOffset, GLintptr writeOffset, GLsizeiptr size) {
    updateState(c, [&](CEs2ContextState &s) {
        auto *from = boundBufferRecord(s, readTarget);
        auto *to = boundBufferRecord(s, writeTarget);
        if (!from || !to || readOffset < 0 || writeOffset < 0 || size <= 0) return;
        uint64_t n = static_cast<uint64_t>(size);
        if (static_cast<uint64_t>(readOffset) + n > from->contents.size() ||
            static_cast<uint64_t>(writeOffset) + n > to->contents.size())
            return;
        std::memmove(to->contents.data() + writeOffset, from->contents.data() + readOffset, n);
    });
}

void Hooks<fn::glMapBufferRange>::after(CallCtx &c, void *&result, GLenum target, GLintptr offset,
                                        GLsizeiptr length, GLbitfield access) {
    updateState(c, [&](CEs2ContextState &s) {
        auto *buffer = boundBufferRecord(s, target);
        if (!buffer || !result) return;
        buffer->mapPointer = result;
        buffer->mapOffset = offset;
        buffer->mapLength = length;
        buffer->mapAccess = access;
    });
}

// What the application wrote through a mapping is taken into the recorder's copy while the
// mapping is still valid, and the record carries it from there.
void Hooks<fn::glFlushMappedBufferRange>::before(CallCtx &c, GLenum target, GLintptr offset,
                                                 GLsizeiptr length) {
    CEs2ContextState *state = egl::currentEs2StateQuiet();
    if (!state) return;
    platform::LockGuard<platform::Mutex> guard(stateLock());
    auto *buffer = boundBufferRecord(*state, target);
    if (!buffer || !buffer->mapPointer || offset < 0 || length <= 0 || offset + length > buffer->mapLength)
        return;
    uint64_t at = static_cast<uint64_t>(buffer->mapOffset + offset);
    copyInto(buffer->contents, at, static_cast<const uint8_t *>(buffer->mapPointer) + offset,
             static_cast<uint64_t>(length));
    if (at + static_cast<uint64_t>(length) <= buffer->contents.size()) {
        c.extra = buffer->contents.data() + at;
        c.scratch[5] = static_cast<uint64_t>(length);
    }
}

void Hooks<fn::glUnmapBuffer>::before(CallCtx &c, GLenum target) {
    CEs2ContextState *state = egl::currentEs2StateQuiet();
    if (!state) return;
    platform::LockGuard<platform::Mutex> guard(stateLock());
    auto *buffer = boundBufferRecord(*state, target);
    if (!buffer || !buffer->mapPointer) return;
    bool written = (buffer->mapAccess & GL_MAP_WRITE_BIT) && !(buffer->mapAccess & GL_MAP_FLUSH_EXPLICIT_BIT);
    uint64_t at = static_cast<uint64_t>(buffer->mapOffset), n = static_cast<uint64_t>(buffer->mapLength);
    if (!written || at + n > buffer->contents.size()) return;
    copyInto(buffer->contents, at, buffer->mapPointer, n);
    c.extra = buffer->contents.data() + at;
    c.scratch[5] = n;
}

void Hooks<fn::glUnmapBuffer>::after(CallCtx &c, GLboolean &, GLenum target) {
    updateState(c, [&](CEs2ContextState &s) {
        if (auto *buffer = boundBufferRecord(s, target)) {
            buffer->mapPointer = nullptr;
            buffer->mapOffset = buffer->mapLength = 0;
            buffer->mapAccess = 0;
        }
    });
}

rec::Blob capture::glFlushMappedBufferRange_data(CallCtx &c, GLenum, GLintptr, GLsizeiptr) {
    return rec::Blob{c.extra, c.scratch[5]};
}

rec::Blob capture::glUnmapBuffer_data(CallCtx &c, GLenum) {
    return rec::Blob{c.extra, c.scratch[5]};
}

void Hooks<fn::glGenBuffers>::after(CallCtx &c, Void &, GLsizei n, GLuint *buffers) {
    updateState(c, [&](CEs2ContextState &s) {
        for (GLsizei i = 0; buffers && i < n; ++i)
            s.shared().buffers[buffers[i]];
    });
}

void Hooks<fn::glDeleteBuffers>::after(CallCtx &c, Void &, GLsizei n, const GLuint *buffers) {
    updateState(c, [&](CEs2ContextState &s) {
        for (GLsizei i = 0; buffers && i < n; ++i) {
            GLuint name = buffers[i];
            if (name == 0) continue;
            s.shared().buffers.erase(name);
            // A deleted buffer is unbound from the targets of this context.
            for (auto &binding : s.bufferBindings)
                if (binding.second == name) binding.second = 0;
            if (s.currentVao().elementArrayBuffer == name) s.currentVao().elementArrayBuffer = 0;
        }
    });
}

// ---- Pixel store, textures, framebuffers -----------------------------------------------------

void Hooks<fn::glPixelStorei>::after(CallCtx &c, Void &, GLenum pname, GLint param) {
    updateState(c, [&](CEs2ContextState &s) { s.setPixelStore(pname, param); });
}

void Hooks<fn::glActiveTexture>::after(CallCtx &c, Void &, GLenum texture) {
    updateState(c, [&](CEs2ContextState &s) { s.activeTexture = texture; });
}

void Hooks<fn::glBindTexture>::after(CallCtx &c, Void &, GLenum target, GLuint texture) {
    updateState(c, [&](CEs2ContextState &s) {
        s.bindTexture(target, texture);
        if (texture) {
            auto &record = s.shared().textures[texture];
            if (!record.target) record.target = target;
        }
    });
}

void Hooks<fn::glBindFramebuffer>::after(CallCtx &c, Void &, GLenum target, GLuint framebuffer) {
    updateState(c, [&](CEs2ContextState &s) { s.bindFramebuffer(target, framebuffer); });
}

void Hooks<fn::glUseProgram>::after(CallCtx &c, Void &, GLuint program) {
    updateState(c, [&](CEs2ContextState &s) {
        s.currentProgram = program;
        s.programChanged = false;
    });
}

// ---- Vertex arrays -----------------------------------------------------------------------------

void Hooks<fn::glBindVertexArray>::after(CallCtx &c, Void &, GLuint array) {
    updateState(c, [&](CEs2ContextState &s) { s.bindVertexArray(array); });
}

void Hooks<fn::glDeleteVertexArrays>::after(CallCtx &c, Void &, GLsizei n, const GLuint *arrays) {
    updateState(c, [&](CEs2ContextState &s) {
        for (GLsizei i = 0; arrays && i < n; ++i) {
            if (arrays[i] == 0) continue;
            s.vaos.erase(arrays[i]);
            if (s.currentVaoName == arrays[i]) s.bindVertexArray(0);
        }
    });
}

void Hooks<fn::glVertexAttribPointer>::after(CallCtx &c, Void &, GLuint index, GLint size, GLenum type,
                                             GLboolean normalized, GLsizei stride, const void *pointer) {
    updateState(c, [&](CEs2ContextState &s) {
        s.setVertexAttribPointer(index, size, type, normalized, stride, pointer, false);
    });
}

void Hooks<fn::glVertexAttribIPointer>::after(CallCtx &c, Void &, GLuint index, GLint size, GLenum type,
                                              GLsizei stride, const void *pointer) {
    updateState(c, [&](CEs2ContextState &s) {
        s.setVertexAttribPointer(index, size, type, GL_FALSE, stride, pointer, true);
    });
}

void Hooks<fn::glEnableVertexAttribArray>::after(CallCtx &c, Void &, GLuint index) {
    updateState(c, [&](CEs2ContextState &s) {
        AttributeRecord &attribute = s.currentVao().attributes[index];
        attribute.index = index;
        attribute.enabled = true;
    });
}

void Hooks<fn::glDisableVertexAttribArray>::after(CallCtx &c, Void &, GLuint index) {
    updateState(c, [&](CEs2ContextState &s) {
        AttributeRecord &attribute = s.currentVao().attributes[index];
        attribute.index = index;
        attribute.enabled = false;
    });
}

void Hooks<fn::glVertexAttribDivisor>::after(CallCtx &c, Void &, GLuint index, GLuint divisor) {
    updateState(c, [&](CEs2ContextState &s) {
        VaoRecord &vao = s.currentVao();
        auto binding = vao.attributeBinding.find(index);
        uint32_t b = binding == vao.attributeBinding.end() ? index : binding->second;
        vao.bindings[b].index = b;
        vao.bindings[b].divisor = divisor;
    });
}

} // namespace kv
