// For the scenarios that call the library's entry points with the test host as the driver: an
// initialised display and an OpenGL ES 3 context current on a 64x64 pbuffer, made through the
// library as an application would (in the child of a FreshProcessTest).
#pragma once

#include "entry/entries_autogen.h"
#include "tests/host/host_test_support.h"
#include "tests/host/test_host.h"

#include <cstdint>

namespace kvth::test {

template <class T>
T handle(uint64_t value) {
    return reinterpret_cast<T>(static_cast<uintptr_t>(value));
}

struct CurrentContext {
    EGLDisplay display = EGL_NO_DISPLAY;
    EGLConfig config = nullptr;
    EGLContext context = EGL_NO_CONTEXT;
    EGLSurface surface = EGL_NO_SURFACE;
};

inline CurrentContext makeContextCurrent() {
    kvth_set_result("eglGetDisplay", 0xD15);
    kvth_set_result("eglCreateContext", 0xC7C);
    kvth_set_result("eglCreatePbufferSurface", 0x5F5);
    CurrentContext c;
    c.display = egl::getDisplay(EGL_DEFAULT_DISPLAY);
    EGLint major = 0, minor = 0;
    KVTH_CHILD_CHECK(egl::initialize(c.display, &major, &minor) == EGL_TRUE);
    const EGLint configAttributes[] = {EGL_RENDERABLE_TYPE, EGL_OPENGL_ES3_BIT, EGL_NONE};
    EGLint configs = 0;
    KVTH_CHILD_CHECK(egl::chooseConfig(c.display, configAttributes, &c.config, 1, &configs) == EGL_TRUE);
    KVTH_CHILD_CHECK_EQ(kKvthConfig, reinterpret_cast<uintptr_t>(c.config));
    const EGLint contextAttributes[] = {EGL_CONTEXT_CLIENT_VERSION, 3, EGL_NONE};
    c.context = egl::createContext(c.display, c.config, EGL_NO_CONTEXT, contextAttributes);
    const EGLint surfaceAttributes[] = {EGL_WIDTH, 64, EGL_HEIGHT, 64, EGL_NONE};
    c.surface = egl::createPbufferSurface(c.display, c.config, surfaceAttributes);
    KVTH_CHILD_CHECK(egl::makeCurrent(c.display, c.surface, c.surface, c.context) == EGL_TRUE);
    KVTH_CHILD_CHECK_EQ(EGL_SUCCESS, egl::getError());
    return c;
}

} // namespace kvth::test
