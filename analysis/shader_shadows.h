// The shadow programs of the shader overrides ("Force flat colour frag shader" and the
// discard-free programs of "Disable discard / alpha test"), per share group (the contexts created
// sharing with one another see the same shader and program names): the application's shader texts
// as the driver holds them, which shaders each program was linked from, and, made on the
// first draw that needs them, a flat-colour and a discard-free copy of each linked program. Around
// that draw the copy is made current with the application's uniform values copied into it, and the
// application's program is made current again after it.
//
// The copies are built from the recorded texts only when an override asks for them: a run that
// never switches them on creates no object the application did not ask for, so its own shader and
// program names stay the ones it gets untraced.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "platform/platform.h"

namespace kv::analysis {

class ShaderShadows {
public:
    ShaderShadows();
    ~ShaderShadows();
    // After a successful host call of glShaderSource, glAttachShader, glDetachShader, glLinkProgram
    // or glDeleteProgram of the OpenGL ES 2/3 family.
    void postCall(uint16_t id, const uint64_t *slots, uint32_t count);
    // After eglCreateContext (its context, or none when it failed, and the one it shares with) and
    // eglDestroyContext.
    void contextCreated(void *context, void *shareWith);
    void contextDestroyed(void *context);
    // Before a draw: makes the current program's flat-colour (or else discard-free) copy current,
    // when there is one, and gives the application's program to put back.
    bool substitute(bool flat, bool discardless, uint32_t *applicationProgram);
    void putBack(uint32_t applicationProgram);

    // The colour a flat copy paints, from the application's and the copy's program names.
    static void flatColour(uint32_t application, uint32_t shadow, float rgba[4]);

private:
    struct Group;
    struct Context;
    struct Shadow;
    // The current context, with its share group; under the lock.
    Context &current();
    static bool es3(Context &c);
    bool build(Context &c, uint32_t program, bool flat, Shadow &s);
    void copyUniforms(uint32_t application, const Shadow &s);

    platform::Mutex lock_;
    std::map<void *, std::unique_ptr<Context>> contexts_; // by EGL context
};

} // namespace kv::analysis
