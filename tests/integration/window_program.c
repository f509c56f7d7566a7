/* An X11 window whose size changes between frames: 64x48, then 96x80, then 32x32, two frames each.
 * By default it prints the surface size EGL reports before each swap; with --viewport it asks EGL
 * nothing and, like most programs, follows each resize with a viewport of the new size. Needs an X
 * display (run it under xvfb-run). */
#include <EGL/egl.h>
#include <GLES2/gl2.h>
#include <X11/Xlib.h>

#include <stdio.h>
#include <string.h>

static void resize(Display *x, Window window, unsigned width, unsigned height) {
    XResizeWindow(x, window, width, height);
    XSync(x, False);
    /* Wait until the server has applied it. */
    for (int tries = 0; tries < 100; ++tries) {
        XWindowAttributes attributes;
        XGetWindowAttributes(x, window, &attributes);
        if ((unsigned)attributes.width == width && (unsigned)attributes.height == height) break;
    }
}

int main(int argc, char **argv) {
    int viewport = argc > 1 && strcmp(argv[1], "--viewport") == 0;
    Display *x = XOpenDisplay(NULL);
    if (!x) {
        fprintf(stderr, "window_program: no X display\n");
        return 77;
    }
    Window window = XCreateSimpleWindow(x, DefaultRootWindow(x), 0, 0, 64, 48, 0, 0, 0);
    XMapWindow(x, window);
    XSync(x, False);
    EGLDisplay display = eglGetDisplay((EGLNativeDisplayType)x);
    if (!eglInitialize(display, NULL, NULL)) return 1;
    const EGLint configAttributes[] = {EGL_SURFACE_TYPE, EGL_WINDOW_BIT, EGL_RENDERABLE_TYPE,
                                       EGL_OPENGL_ES2_BIT, EGL_NONE};
    EGLConfig config;
    EGLint configs = 0;
    if (!eglChooseConfig(display, configAttributes, &config, 1, &configs) || configs < 1) return 1;
    EGLSurface surface = eglCreateWindowSurface(display, config, (EGLNativeWindowType)window, NULL);
    const EGLint contextAttributes[] = {EGL_CONTEXT_CLIENT_VERSION, 2, EGL_NONE};
    EGLContext context = eglCreateContext(display, config, EGL_NO_CONTEXT, contextAttributes);
    if (!eglMakeCurrent(display, surface, surface, context)) return 1;

    const unsigned sizes[3][2] = {{64, 48}, {96, 80}, {32, 32}};
    for (int frame = 0; frame < 3; ++frame) {
        if (frame > 0) resize(x, window, sizes[frame][0], sizes[frame][1]);
        /* The new size reaches the surface with the frame drawn after the change. */
        for (int pass = 0; pass < 2; ++pass) {
            if (viewport) glViewport(0, 0, (GLsizei)sizes[frame][0], (GLsizei)sizes[frame][1]);
            glClearColor(0.2f * (float)frame, 0.4f, 0.6f, 1.0f);
            glClear(GL_COLOR_BUFFER_BIT);
            if (!viewport) {
                EGLint width = 0, height = 0;
                eglQuerySurface(display, surface, EGL_WIDTH, &width);
                eglQuerySurface(display, surface, EGL_HEIGHT, &height);
                printf("frame %d.%d surface %dx%d\n", frame, pass, width, height);
            }
            eglSwapBuffers(display, surface);
        }
    }
    eglMakeCurrent(display, EGL_NO_SURFACE, EGL_NO_SURFACE, EGL_NO_CONTEXT);
    eglDestroySurface(display, surface);
    eglTerminate(display);
    XDestroyWindow(x, window);
    XCloseDisplay(x);
    return 0;
}
