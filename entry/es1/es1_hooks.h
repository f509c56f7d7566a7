// What the OpenGL ES 1.x entry points do beyond the common protocol: the errors the check consumed,
// the strings the application is shown. Every successful ES1 call also updates the context's
// fixed-function state (Es1Api::track, core/call.h); the draws capture their client arrays in their
// record tails (state/client_arrays.cpp).
#pragma once

#include "core/call.h"

namespace kv {

template <>
struct Hooks<fn::es1::glGetError> : HookDefaults {
    static constexpr bool kReplacesHost = true;
    static GLenum host(CallCtx &c);
};

template <>
struct Hooks<fn::es1::glGetString> : HookDefaults {
    static void after(CallCtx &c, const GLubyte *&result, GLenum name);
};

} // namespace kv
