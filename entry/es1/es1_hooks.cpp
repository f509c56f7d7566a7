#include "entry/es1/es1_hooks.h"

#include "entry/reported_strings.h"
#include "state/egl_state.h"

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
