/* Draws a fixed number of frames into a pbuffer, each cleared to its own colour with a rectangle of
 * another, and keeps what glReadPixels returns for each frame (before its swap) in PREFIX.N.rgba.
 * Prints the EGL version string twice.
 *
 *   frames_program [--frames N] [--dump PREFIX] */
#include <EGL/egl.h>
#include <EGL/eglext.h>
#include <GLES2/gl2.h>

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#ifndef EGL_PLATFORM_SURFACELESS_MESA
#define EGL_PLATFORM_SURFACELESS_MESA 0x31DD
#endif

enum { kWidth = 48, kHeight = 32 };

int main(int argc, char **argv) {
    int frames = 6;
    const char *dump = NULL;
    for (int i = 1; i + 1 < argc; i += 2) {
        if (strcmp(argv[i], "--frames") == 0) frames = atoi(argv[i + 1]);
        if (strcmp(argv[i], "--dump") == 0) dump = argv[i + 1];
    }
    PFNEGLGETPLATFORMDISPLAYEXTPROC getPlatformDisplay =
        (PFNEGLGETPLATFORMDISPLAYEXTPROC)eglGetProcAddress("eglGetPlatformDisplayEXT");
    EGLDisplay display = getPlatformDisplay(EGL_PLATFORM_SURFACELESS_MESA, EGL_DEFAULT_DISPLAY, NULL);
    if (!eglInitialize(display, NULL, NULL)) return 1;
    const EGLint configAttributes[] = {EGL_SURFACE_TYPE,
                                       EGL_PBUFFER_BIT,
                                       EGL_RENDERABLE_TYPE,
                                       EGL_OPENGL_ES2_BIT,
                                       EGL_RED_SIZE,
                                       8,
                                       EGL_GREEN_SIZE,
                                       8,
                                       EGL_BLUE_SIZE,
                                       8,
                                       EGL_ALPHA_SIZE,
                                       8,
                                       EGL_NONE};
    EGLConfig config;
    EGLint configs = 0;
    if (!eglChooseConfig(display, configAttributes, &config, 1, &configs) || configs < 1) return 1;
    const EGLint surfaceAttributes[] = {EGL_WIDTH, kWidth, EGL_HEIGHT, kHeight, EGL_NONE};
    EGLSurface surface = eglCreatePbufferSurface(display, config, surfaceAttributes);
    const EGLint contextAttributes[] = {EGL_CONTEXT_CLIENT_VERSION, 2, EGL_NONE};
    EGLContext context = eglCreateContext(display, config, EGL_NO_CONTEXT, contextAttributes);
    if (!eglMakeCurrent(display, surface, surface, context)) return 1;
    printf("EGL_VERSION %s\n", eglQueryString(display, EGL_VERSION));
    printf("EGL_VERSION %s\n", eglQueryString(display, EGL_VERSION));

    static unsigned char pixels[kWidth * kHeight * 4];
    for (int frame = 0; frame < frames; ++frame) {
        glDisable(GL_SCISSOR_TEST);
        glClearColor((float)(frame % 4) / 4.0f, 0.5f, 1.0f - (float)(frame % 3) / 3.0f, 1.0f);
        glClear(GL_COLOR_BUFFER_BIT);
        glEnable(GL_SCISSOR_TEST);
        glScissor(frame * 3 % kWidth, 4, 10, 12);
        glClearColor(1.0f, 1.0f, 0.0f, 1.0f);
        glClear(GL_COLOR_BUFFER_BIT);
        if (dump) {
            glReadPixels(0, 0, kWidth, kHeight, GL_RGBA, GL_UNSIGNED_BYTE, pixels);
            char name[4096];
            snprintf(name, sizeof(name), "%s.%d.rgba", dump, frame);
            FILE *f = fopen(name, "wb");
            if (!f) return 1;
            fwrite(pixels, 1, sizeof(pixels), f);
            fclose(f);
        }
        eglSwapBuffers(display, surface);
    }
    printf("frames_program: %d frames\n", frames);
    eglMakeCurrent(display, EGL_NO_SURFACE, EGL_NO_SURFACE, EGL_NO_CONTEXT);
    eglTerminate(display);
    return 0;
}
