// Buffer objects: bindings, and the recorder's copy of each buffer's contents, which the indexed
// draw capture reads and the render state snapshot writes.
#include "entry/gles/hooks_state.h"
#include "entry/hooks.h"

namespace kv {

using namespace gles;

namespace {

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

} // namespace

void Hooks<fn::glBindBuffer>::after(CallCtx &c, Void &, GLenum target, GLuint buffer) {
    updateState(c, [&](CEs2ContextState &s) {
        s.bufferBinding(target) = buffer;
        if (buffer) s.shared().buffers[buffer];
    });
}

void Hooks<fn::glBindBufferBase>::after(CallCtx &c, Void &, GLenum target, GLuint index, GLuint buffer) {
    updateState(c, [&](CEs2ContextState &s) {
        s.indexedBindings[{target, index}] = IndexedBinding{buffer, 0, 0};
        if (target == GL_TRANSFORM_FEEDBACK_BUFFER)
            s.currentTransformFeedback().buffers[index] = IndexedBinding{buffer, 0, 0};
        s.bufferBinding(target) = buffer;
        if (buffer) s.shared().buffers[buffer];
    });
}

void Hooks<fn::glBindBufferRange>::after(CallCtx &c, Void &, GLenum target, GLuint index, GLuint buffer,
                                         GLintptr offset, GLsizeiptr size) {
    updateState(c, [&](CEs2ContextState &s) {
        s.indexedBindings[{target, index}] = IndexedBinding{buffer, offset, size};
        if (target == GL_TRANSFORM_FEEDBACK_BUFFER)
            s.currentTransformFeedback().buffers[index] = IndexedBinding{buffer, offset, size};
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

void Hooks<fn::glMapBufferOES>::after(CallCtx &c, void *&result, GLenum target, GLenum access) {
    updateState(c, [&](CEs2ContextState &s) {
        auto *buffer = boundBufferRecord(s, target);
        if (!buffer || !result) return;
        buffer->mapPointer = result;
        buffer->mapOffset = 0;
        buffer->mapLength = static_cast<int64_t>(buffer->contents.size());
        buffer->mapAccess = access == GL_WRITE_ONLY_OES ? GL_MAP_WRITE_BIT : GL_MAP_READ_BIT;
    });
}

// What the application wrote through a mapping is taken into the recorder's copy while the
// mapping is still valid, and the record carries it from there.
void Hooks<fn::glFlushMappedBufferRange>::before(CallCtx &c, GLenum target, GLintptr offset,
                                                 GLsizeiptr length) {
    CEs2ContextState *state = egl::currentEs2StateQuiet();
    if (!state) return;
    platform::LockGuard<StateLock> guard(stateLock());
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
    platform::LockGuard<StateLock> guard(stateLock());
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
    std::vector<GLuint> names;
    if (!readNames(c, n, buffers, names)) return;
    updateState(c, [&](CEs2ContextState &s) {
        for (GLuint name : names)
            if (name) s.shared().buffers[name];
    });
}

void Hooks<fn::glDeleteBuffers>::after(CallCtx &c, Void &, GLsizei n, const GLuint *buffers) {
    std::vector<GLuint> names;
    if (!readNames(c, n, buffers, names)) return;
    updateState(c, [&](CEs2ContextState &s) {
        for (GLuint name : names)
            s.deleteBuffer(name);
    });
}

} // namespace kv
