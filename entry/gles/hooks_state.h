// What the OpenGL ES hook files have in common: running a shadow state update, and reading what a
// call points at in application memory.
#pragma once

#include "core/call.h"
#include "state/context_state.h"
#include "state/egl_state.h"

#include <cstring>
#include <string>
#include <vector>

namespace kv::gles {

// Whether the host ran the call and accepted it: only then has it changed state.
inline bool accepted(const CallCtx &c) {
    return c.d.callHost && !c.failed;
}

// Runs `update` on the calling thread's shadow state, under the state lock, after a call that the
// driver accepted.
template <class Update>
void updateState(CallCtx &c, Update update) {
    if (!accepted(c)) return;
    CEs2ContextState *state = egl::currentEs2State();
    if (!state) return;
    platform::LockGuard<StateLock> guard(stateLock());
    update(*state);
}

// The library's own calls on the application's current context (reading the frame buffer back,
// asking how much data a query writes): an error the driver holds is kept as the context's pending
// error before them, and whatever they raise is dropped after them, so that the application's
// glGetError answers as if they had not been made. Without ES2/3 state (no context, or one whose
// errors the application reads without the library) errors are left alone.
class OwnGlCalls {
public:
    OwnGlCalls() : state_(egl::currentEs2StateQuiet()) {
        if (state_) takeStrayGlError();
    }
    ~OwnGlCalls() {
        if (!state_) return;
        const auto &gl = GLESPPHost::get().fn;
        for (int i = 0; i < 8 && gl.glGetError() != GL_NO_ERROR; ++i) {
        }
    }
    OwnGlCalls(const OwnGlCalls &) = delete;
    OwnGlCalls &operator=(const OwnGlCalls &) = delete;

private:
    CEs2ContextState *state_;
};

// The most a single string or data block read from the application may hold.
constexpr size_t kMaxReadBytes = size_t(1) << 28;

// Copies `count` values from application memory into `out`; false (and `out` empty) when the
// pointer is null or they cannot all be read.
template <class T>
bool readValues(const T *values, size_t count, std::vector<T> &out) {
    out.clear();
    if (!values || count > kMaxReadBytes / sizeof(T)) return false;
    out.resize(count);
    if (count == 0) return true;
    if (platform::guardedCopy(out.data(), values, count * sizeof(T)) == count * sizeof(T)) return true;
    out.clear();
    return false;
}

// The names of a glGen* or glDelete* call the driver accepted.
inline bool readNames(const CallCtx &c, GLsizei n, const GLuint *names, std::vector<GLuint> &out) {
    return accepted(c) && n > 0 && readValues(names, static_cast<size_t>(n), out);
}

// The same as raw 32-bit words, for values of a 4-byte type.
template <class T>
bool readWords(const T *values, size_t count, std::vector<uint32_t> &out) {
    static_assert(sizeof(T) == 4, "32-bit values");
    out.clear();
    if (!values || count > kMaxReadBytes / 4) return false;
    out.resize(count);
    if (count == 0) return true;
    if (platform::guardedCopy(out.data(), values, count * 4) == count * 4) return true;
    out.clear();
    return false;
}

// A string of `length` characters, or up to its terminator when `length` is negative.
bool readText(const char *text, GLint length, std::string &out);
// Strings as glShaderSource takes them: `count` pointers and an optional array of lengths (a
// missing array or a negative length: up to the terminator), joined.
bool readSources(GLsizei count, const GLchar *const *strings, const GLint *lengths, std::string &out);
// `count` terminated strings, as glTransformFeedbackVaryings takes them.
bool readStrings(GLsizei count, const GLchar *const *strings, std::vector<std::string> &out);

} // namespace kv::gles
