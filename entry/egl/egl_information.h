// The information records a player needs beside the EGL calls themselves: a display's version and
// config count, a context's config and attributes, a config that only surfaces use. Written when
// the call happens and again by a late start's snapshot, from the same state.
#pragma once

#include "core/call.h"
#include "state/egl_state.h"

namespace kv {

void writeDisplayInformation(EGLDisplay display, EGLint major, EGLint minor);
void writeContextInformation(CallCtx &c, const egl::ContextRecord &context);
// A config described on its own: a context information record with no context, no share context
// and API code 0. A trace from frame 0 has the application's own config queries for this; a
// late one does not.
void writeConfigInformation(CallCtx &c, EGLDisplay display, EGLConfig config);

} // namespace kv
