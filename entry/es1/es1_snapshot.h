// The render-state snapshot of OpenGL ES 1 contexts (entry/snapshot.cpp writes the EGL objects and
// calls these for each context of API version 1): the calls that make the context's objects and
// fixed-function state again, written from the shadow (state/ff_state.h) without reaching the
// driver, except for the texture contents, which are read back from it.
#pragma once

#include "state/egl_state.h"

namespace kv::snapshot {

// Before a snapshot: no share group has written its objects yet.
void beginEs1();
// After the context's eglCreateContext record: when the context has been current, an eglMakeCurrent
// of it without surfaces, then its objects (once per share group) and state.
void saveEs1Context(EGLDisplay display, egl::ThreadState &thread,
                    const std::shared_ptr<egl::ContextRecord> &context);
// After the thread's eglMakeCurrent record: the viewport and scissor box of its ES1 context, which
// a first binding to a surface would otherwise set to the surface's size.
void saveEs1ThreadBoxes(egl::ThreadState &thread);

} // namespace kv::snapshot
