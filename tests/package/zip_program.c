/* An ordinary Windows program as the zip's users would record it: linked against libEGL.dll and
 * libGLESv2.dll, it sets up a pbuffer context, clears three frames and reads a pixel back. It checks
 * nothing about the driver beyond what it prints, so it runs on any host that answers the calls. */
#include <EGL/egl.h>
#include <GLES2/gl2.h>
#include <stdio.h>

int main(void) {
    EGLDisplay display = eglGetDisplay(EGL_DEFAULT_DISPLAY);
    EGLint major = 0, minor = 0, count = 0;
    eglInitialize(display, &major, &minor);
    const EGLint configAttributes[] = {EGL_SURFACE_TYPE, EGL_PBUFFER_BIT, EGL_RENDERABLE_TYPE,
                                       EGL_OPENGL_ES2_BIT, EGL_NONE};
    EGLConfig config = 0;
    eglChooseConfig(display, configAttributes, &config, 1, &count);
    const EGLint surfaceAttributes[] = {EGL_WIDTH, 16, EGL_HEIGHT, 16, EGL_NONE};
    EGLSurface surface = eglCreatePbufferSurface(display, config, surfaceAttributes);
    const EGLint contextAttributes[] = {EGL_CONTEXT_CLIENT_VERSION, 2, EGL_NONE};
    EGLContext context = eglCreateContext(display, config, EGL_NO_CONTEXT, contextAttributes);
    eglMakeCurrent(display, surface, surface, context);
    unsigned char pixel[4] = {0, 0, 0, 0};
    for (int frame = 0; frame < 3; ++frame) {
        glClearColor(frame / 2.0f, 0.5f, 0.25f, 1.0f);
        glClear(GL_COLOR_BUFFER_BIT);
        glReadPixels(0, 0, 1, 1, GL_RGBA, GL_UNSIGNED_BYTE, pixel);
        eglSwapBuffers(display, surface);
    }
    eglMakeCurrent(display, EGL_NO_SURFACE, EGL_NO_SURFACE, EGL_NO_CONTEXT);
    eglDestroyContext(display, context);
    eglDestroySurface(display, surface);
    eglTerminate(display);
    printf("zip_program: EGL %d.%d, %d config, 3 frames\n", (int)major, (int)minor, (int)count);
    return 0;
}
