#include "entry/es1/es1_hooks.h"

#include "entry/ext/ext_call.h"
#include "entry/reported_strings.h"
#include "state/egl_state.h"

#include <cstring>
#include <vector>

namespace kv {

void Es1Api::noteError(uint32_t error) {
    g_lastErrorEs1 = error;
    if (error == GL_NO_ERROR) return;
    if (CFFContextState *state = egl::currentEs1StateQuiet())
        if (state->pendingError == GL_NO_ERROR) state->pendingError = error;
}

void Es1Api::track(CallCtx &c, const uint64_t *args) {
    if (!CFFContextState::changesState(c.id)) return;
    CFFContextState *state = egl::currentEs1State();
    if (!state) return;
    // What the call points at is read before the lock is taken: a read may be slow or fault.
    uint32_t argument = 0;
    const uint64_t bytes = CFFContextState::pointedBytes(c.id, args, &argument);
    std::vector<uint8_t> copy;
    const void *data = nullptr;
    if (bytes > 0) {
        const void *source = reinterpret_cast<const void *>(static_cast<uintptr_t>(args[argument]));
        copy.resize(static_cast<size_t>(bytes));
        if (source && platform::guardedCopy(copy.data(), source, copy.size()) == copy.size())
            data = copy.data();
    }
    platform::LockGuard<StateLock> guard(stateLock());
    state->apply(c.id, args, data, data ? bytes : 0);
}

namespace {

constexpr uint16_t kMapBufferOES = fn::glMapBufferOES::id, kUnmapBufferOES = fn::glUnmapBufferOES::id;

CFFContextState::SEs1Resources::Buffer *boundBuffer(CFFContextState &state, GLenum target) {
    const GLuint name = state.bufferBinding(target);
    return name ? &state.shared().buffers[name] : nullptr;
}

} // namespace

void Es1Api::extensionBefore(CallCtx &c, const uint64_t *args) {
    if (c.id != kUnmapBufferOES) return;
    // What the application wrote through the mapping is taken into the recorder's copy while the
    // mapping is still valid; the record carries it from there (capture::glUnmapBuffer_data).
    CFFContextState *state = egl::currentEs1StateQuiet();
    if (!state) return;
    platform::LockGuard<StateLock> guard(stateLock());
    CFFContextState::SEs1Resources::Buffer *buffer = boundBuffer(*state, static_cast<GLenum>(args[0]));
    if (!buffer || !buffer->mapPointer || buffer->contents.empty()) return;
    const size_t n = buffer->contents.size();
    const size_t got = platform::guardedCopy(buffer->contents.data(), buffer->mapPointer, n);
    if (got < n) std::memset(buffer->contents.data() + got, 0, n - got);
    c.extra = buffer->contents.data();
    c.scratch[5] = n;
}

void Es1Api::extensionAfter(CallCtx &c, const uint64_t *args, uint64_t result) {
    // The same error handling as the ES1 functions': the check takes the driver's error and keeps
    // it for the application's glGetError, so that the next ES1 call is not taken to have failed.
    if (c.d.checkErrors) {
        c.error = queryError();
        c.failed = failed(c.error);
        noteError(c.error);
    }
    if (c.failed) return;
    if (c.id == kMapBufferOES || c.id == kUnmapBufferOES) {
        CFFContextState *state = egl::currentEs1State();
        if (!state) return;
        platform::LockGuard<StateLock> guard(stateLock());
        // glMapBufferOES maps the whole buffer, for writing only.
        if (auto *buffer = boundBuffer(*state, static_cast<GLenum>(args[0])))
            buffer->mapPointer =
                c.id == kMapBufferOES ? reinterpret_cast<void *>(static_cast<uintptr_t>(result)) : nullptr;
        return;
    }
    track(c, args);
}

GLenum Hooks<fn::es1::glGetError>::host(CallCtx &) {
    // The error check after every call consumed the driver's error; the application gets the first
    // one it has not seen yet.
    if (CFFContextState *state = egl::currentEs1StateQuiet()) {
        if (GLenum pending = state->pendingError) {
            state->pendingError = GL_NO_ERROR;
            return pending;
        }
    }
    return Es1Api::queryError();
}

void Hooks<fn::es1::glGetString>::after(CallCtx &c, const GLubyte *&result, GLenum name) {
    if (c.failed || !result) return;
    // The same rules as for the ES2/3 strings, with the ES1 replacements.
    result =
        reinterpret_cast<const GLubyte *>(reportedGlString(name, reinterpret_cast<const char *>(result), 1));
}

} // namespace kv
