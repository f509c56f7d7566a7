/* A synthetic, call-heavy OpenGL ES program for measuring what a tracer adds per call: many cheap
 * calls per frame (uniforms, constant attributes, error queries, capability toggles, zero-count
 * draws, a 4 KiB buffer update), a fixed number of frames, and only the call loop timed.
 *
 *   call_heavy [--frames N] [--calls-per-frame M]
 *
 * Prints one line: calls=<n> seconds=<s> ns_per_call=<x>. */
#include "examples/headless_egl.h"
#include <GLES3/gl3.h>

#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

static double now(void) {
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return (double)ts.tv_sec + (double)ts.tv_nsec * 1e-9;
}

int main(int argc, char **argv) {
    int frames = 200, perFrame = 2000;
    for (int i = 1; i + 1 < argc; i += 2) {
        if (strcmp(argv[i], "--frames") == 0) frames = atoi(argv[i + 1]);
        if (strcmp(argv[i], "--calls-per-frame") == 0) perFrame = atoi(argv[i + 1]);
    }
    HeadlessEgl egl;
    if (!headlessEglOpen(&egl, 3, 64, 64, 0)) return 1;
    EGLDisplay display = egl.display;
    EGLSurface surface = egl.surface;

    static const char *vs =
        "#version 300 es\nuniform vec4 u;\nin vec4 a;\nvoid main() { gl_Position = a * u; }\n";
    static const char *fs = "#version 300 es\nprecision mediump float;\nuniform vec4 u;\nout vec4 c;\n"
                            "void main() { c = u; }\n";
    GLuint program = glCreateProgram();
    GLuint shaders[2] = {glCreateShader(GL_VERTEX_SHADER), glCreateShader(GL_FRAGMENT_SHADER)};
    glShaderSource(shaders[0], 1, &vs, NULL);
    glShaderSource(shaders[1], 1, &fs, NULL);
    for (int i = 0; i < 2; ++i) {
        glCompileShader(shaders[i]);
        glAttachShader(program, shaders[i]);
    }
    glLinkProgram(program);
    glUseProgram(program);
    GLint location = glGetUniformLocation(program, "u");
    GLuint buffer;
    glGenBuffers(1, &buffer);
    glBindBuffer(GL_ARRAY_BUFFER, buffer);
    static unsigned char data[4096];
    glBufferData(GL_ARRAY_BUFFER, sizeof(data), data, GL_DYNAMIC_DRAW);

    long calls = 0;
    double start = now();
    for (int f = 0; f < frames; ++f) {
        for (int i = 0; i < perFrame; i += 8) {
            glUniform4f(location, (float)i, 1.0f, 2.0f, 3.0f);
            glVertexAttrib4f(1, 0.5f, (float)f, 0.25f, 1.0f);
            glEnable(GL_BLEND);
            glDisable(GL_BLEND);
            glDrawArrays(GL_TRIANGLES, 0, 0);
            glGetError();
            glUniform4f(location, 1.0f, (float)i, 2.0f, 3.0f);
            if ((i & 255) == 0) {
                data[i & 4095] = (unsigned char)f;
                glBufferSubData(GL_ARRAY_BUFFER, 0, sizeof(data), data);
            } else {
                glVertexAttrib4f(2, 1.0f, 0.0f, 0.0f, 1.0f);
            }
            calls += 8;
        }
        eglSwapBuffers(display, surface);
        calls += 1;
    }
    double seconds = now() - start;
    printf("calls=%ld seconds=%.4f ns_per_call=%.1f\n", calls, seconds, seconds * 1e9 / (double)calls);
    headlessEglClose(&egl);
    return 0;
}
