/* Draws a fixed number of frames into a pbuffer, each cleared to its own colour with a rectangle of
 * another, and keeps what glReadPixels returns for each frame (before its swap) in PREFIX.N.rgba.
 * Prints the EGL version string twice.
 *
 * With --sleep, waits that many milliseconds after each swap (a program that runs for a while, to be
 * driven from outside).
 *
 *   frames_program [--frames N] [--dump PREFIX] [--sleep MS] */
#define _POSIX_C_SOURCE 200809L /* nanosleep */
#include "examples/headless_egl.h"
#include <GLES2/gl2.h>

#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

enum { kWidth = 48, kHeight = 32 };

int main(int argc, char **argv) {
    int frames = 6;
    const char *dump = NULL;
    int sleepMs = 0;
    for (int i = 1; i + 1 < argc; i += 2) {
        if (strcmp(argv[i], "--frames") == 0) frames = atoi(argv[i + 1]);
        if (strcmp(argv[i], "--dump") == 0) dump = argv[i + 1];
        if (strcmp(argv[i], "--sleep") == 0) sleepMs = atoi(argv[i + 1]);
    }
    HeadlessEgl egl;
    if (!headlessEglOpen(&egl, 2, kWidth, kHeight, 0)) return 1;
    EGLDisplay display = egl.display;
    EGLSurface surface = egl.surface;
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
        if (sleepMs > 0) {
            struct timespec ts = {sleepMs / 1000, (long)(sleepMs % 1000) * 1000000L};
            nanosleep(&ts, NULL);
        }
    }
    printf("frames_program: %d frames\n", frames);
    headlessEglClose(&egl);
    return 0;
}
