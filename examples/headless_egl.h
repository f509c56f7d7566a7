/* Headless EGL for the example and test programs: Mesa's surfaceless platform (or the default
 * display) with a pbuffer surface and a current OpenGL ES context. No window, no GPU needed. */
#ifndef KALVOREN_HEADLESS_EGL_H
#define KALVOREN_HEADLESS_EGL_H

#include <EGL/egl.h>
#include <EGL/eglext.h>

#include <stdio.h>

#ifndef EGL_PLATFORM_SURFACELESS_MESA
#define EGL_PLATFORM_SURFACELESS_MESA 0x31DD
#endif

typedef struct {
    EGLDisplay display;
    EGLConfig config;
    EGLSurface surface;
    EGLContext context;
} HeadlessEgl;

/* Makes an OpenGL ES `version` (1, 2 or 3) context current on a width x height pbuffer with 8-bit
 * colour channels and `depthBits` of depth. Returns 0 (and says why) when it cannot. */
static inline int headlessEglOpen(HeadlessEgl *egl, int version, int width, int height, int depthBits) {
    PFNEGLGETPLATFORMDISPLAYEXTPROC getPlatformDisplay =
        (PFNEGLGETPLATFORMDISPLAYEXTPROC)eglGetProcAddress("eglGetPlatformDisplayEXT");
    egl->display = EGL_NO_DISPLAY;
    if (getPlatformDisplay)
        egl->display = getPlatformDisplay(EGL_PLATFORM_SURFACELESS_MESA, EGL_DEFAULT_DISPLAY, NULL);
    if (egl->display == EGL_NO_DISPLAY) egl->display = eglGetDisplay(EGL_DEFAULT_DISPLAY);
    if (!eglInitialize(egl->display, NULL, NULL)) {
        fprintf(stderr, "eglInitialize failed (0x%x)\n", eglGetError());
        return 0;
    }
    const EGLint configAttributes[] = {EGL_SURFACE_TYPE,
                                       EGL_PBUFFER_BIT,
                                       EGL_RENDERABLE_TYPE,
                                       version >= 3   ? EGL_OPENGL_ES3_BIT
                                       : version == 2 ? EGL_OPENGL_ES2_BIT
                                                      : EGL_OPENGL_ES_BIT,
                                       EGL_RED_SIZE,
                                       8,
                                       EGL_GREEN_SIZE,
                                       8,
                                       EGL_BLUE_SIZE,
                                       8,
                                       EGL_ALPHA_SIZE,
                                       8,
                                       EGL_DEPTH_SIZE,
                                       depthBits,
                                       EGL_NONE};
    EGLint configs = 0;
    if (!eglChooseConfig(egl->display, configAttributes, &egl->config, 1, &configs) || configs < 1) {
        fprintf(stderr, "no suitable EGL config\n");
        return 0;
    }
    const EGLint surfaceAttributes[] = {EGL_WIDTH, width, EGL_HEIGHT, height, EGL_NONE};
    egl->surface = eglCreatePbufferSurface(egl->display, egl->config, surfaceAttributes);
    eglBindAPI(EGL_OPENGL_ES_API);
    const EGLint contextAttributes[] = {EGL_CONTEXT_CLIENT_VERSION, version, EGL_NONE};
    egl->context = eglCreateContext(egl->display, egl->config, EGL_NO_CONTEXT, contextAttributes);
    if (egl->surface == EGL_NO_SURFACE || egl->context == EGL_NO_CONTEXT ||
        !eglMakeCurrent(egl->display, egl->surface, egl->surface, egl->context)) {
        fprintf(stderr, "cannot make a context current (0x%x)\n", eglGetError());
        return 0;
    }
    return 1;
}

static inline void headlessEglClose(HeadlessEgl *egl) {
    eglMakeCurrent(egl->display, EGL_NO_SURFACE, EGL_NO_SURFACE, EGL_NO_CONTEXT);
    eglDestroyContext(egl->display, egl->context);
    eglDestroySurface(egl->display, egl->surface);
    eglTerminate(egl->display);
}

#endif
