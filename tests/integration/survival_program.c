/* A program that ends in every way a traced program may end, and that reads its memory the way a
 * careless one does, for tests/integration/survival.sh.
 *
 *   survival_program MODE [ARG]
 *
 * Modes that draw frames (each uploads ARG KiB, default 64, so that the trace grows) and print
 * "ready" after a few:
 *   loop            until a signal ends it
 *   handler-exit    the same with a SIGINT handler of its own that calls _exit(7)
 *   handler-go-on   the same with a SIGINT handler that sets a flag; ends cleanly (status 0)
 *   abort | segv | exit
 *                   after 20 frames: abort(), a write through a null pointer, exit(3) without
 *                   eglTerminate
 *   frames N        N frames, then ends cleanly; prints the peak resident set in KiB
 * Modes that read memory no driver reads, with a SIGSEGV handler of the program's own installed
 * after the library was loaded (it prints "APPLICATION HANDLER" and ends with status 99):
 *   guard           handler installed
 *   guard-default   SIGSEGV reset to the default action instead */
#define _GNU_SOURCE
#include "examples/headless_egl.h"
#include <GLES3/gl3.h>

#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <unistd.h>

static volatile sig_atomic_t g_interrupted = 0;

static void exitHandler(int sig) {
    (void)sig;
    _exit(7);
}

static void flagHandler(int sig) {
    (void)sig;
    g_interrupted = 1;
}

static void applicationFault(int sig) {
    (void)sig;
    static const char text[] = "APPLICATION HANDLER\n";
    if (write(2, text, sizeof(text) - 1) < 0) _exit(98);
    _exit(99);
}

static long peakKib(void) {
    FILE *f = fopen("/proc/self/status", "r");
    char line[256];
    long kib = -1;
    while (f && fgets(line, sizeof(line), f))
        if (strncmp(line, "VmHWM:", 6) == 0) kib = atol(line + 6);
    if (f) fclose(f);
    return kib;
}

static int drawFrames(HeadlessEgl *egl, const char *mode, long frames, size_t uploadBytes) {
    GLuint buffer;
    glGenBuffers(1, &buffer);
    glBindBuffer(GL_ARRAY_BUFFER, buffer);
    unsigned char *data = malloc(uploadBytes);
    if (!data) return 1;
    for (long f = 0; frames < 0 || f < frames; ++f) {
        memset(data, (int)(f & 0xFF), uploadBytes);
        glBufferData(GL_ARRAY_BUFFER, (GLsizeiptr)uploadBytes, data, GL_DYNAMIC_DRAW);
        glClearColor((float)(f % 7) / 7.0f, 0.5f, 0.25f, 1.0f);
        glClear(GL_COLOR_BUFFER_BIT);
        eglSwapBuffers(egl->display, egl->surface);
        if (f == 5) {
            printf("ready\n");
            fflush(stdout);
        }
        if (f == 20) {
            if (strcmp(mode, "abort") == 0) abort();
            if (strcmp(mode, "segv") == 0) *(volatile int *)(uintptr_t)(f - 20) = 1;
            if (strcmp(mode, "exit") == 0) exit(3);
        }
        if (g_interrupted) {
            /* The program lives on after its own handler: a few more frames, then a clean end. */
            for (int more = 0; more < 3; ++more)
                eglSwapBuffers(egl->display, egl->surface);
            break;
        }
        if (frames < 0) usleep(2000);
    }
    free(data);
    return 0;
}

/* Three pages: unreadable, readable, unreadable. */
static unsigned char *guardedPages(void) {
    unsigned char *p = mmap(NULL, 3 * 4096, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (p == MAP_FAILED) return NULL;
    memset(p, 0, 3 * 4096);
    mprotect(p, 4096, PROT_NONE);
    mprotect(p + 2 * 4096, 4096, PROT_NONE);
    return p;
}

static int readCarelessly(const char *mode) {
    if (strcmp(mode, "guard") == 0) {
        struct sigaction sa;
        memset(&sa, 0, sizeof(sa));
        sa.sa_handler = applicationFault;
        sigaction(SIGSEGV, &sa, NULL);
        sigaction(SIGBUS, &sa, NULL);
    } else {
        signal(SIGSEGV, SIG_DFL);
        signal(SIGBUS, SIG_DFL);
    }
    unsigned char *pages = guardedPages();
    if (!pages) return 1;
    const char *vs = "#version 300 es\nlayout(location = 0) in vec3 p;\n"
                     "void main() { gl_Position = vec4(p, 1.0); gl_PointSize = 1.0; }\n";
    const char *fs =
        "#version 300 es\nprecision mediump float;\nout vec4 c;\nvoid main() { c = vec4(1.0); }\n";
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
    glBindVertexArray(0);
    glEnableVertexAttribArray(0);

    /* Vertices from 342 on lie in the readable page; the driver reads only those. */
    const GLint first = 4096 / 12 + 1;
    glVertexAttribPointer(0, 3, GL_FLOAT, GL_FALSE, 0, pages);
    glDrawArrays(GL_POINTS, first, 3);
    /* The same with a stride: gathered element by element. */
    glVertexAttribPointer(0, 3, GL_FLOAT, GL_FALSE, 16, pages);
    glDrawArrays(GL_POINTS, 4096 / 16 + 1, 3);

    /* Draws that draw nothing read nothing. */
    glVertexAttribPointer(0, 3, GL_FLOAT, GL_FALSE, 0, pages);
    glDrawArrays(GL_POINTS, 100, 0);
    glDrawArraysInstanced(GL_POINTS, 0, 3, 0);
    static const GLushort some[3] = {0, 1, 2};
    glDrawElementsInstanced(GL_POINTS, 3, GL_UNSIGNED_SHORT, some, 0);

    /* Three vertices at the end of the readable page; the restart index names none of them. */
    glVertexAttribPointer(0, 3, GL_FLOAT, GL_FALSE, 0, pages + 2 * 4096 - 36);
    glEnable(GL_PRIMITIVE_RESTART_FIXED_INDEX);
    static const GLushort strip[4] = {0, 1, 2, 0xFFFF};
    glDrawElements(GL_TRIANGLE_STRIP, 4, GL_UNSIGNED_SHORT, strip);
    glDisable(GL_PRIMITIVE_RESTART_FIXED_INDEX);
    glFinish();
    printf("guard ok: error 0x%x\n", glGetError());
    return 0;
}

int main(int argc, char **argv) {
    if (argc < 2) return 2;
    const char *mode = argv[1];
    const int careless = strncmp(mode, "guard", 5) == 0;
    HeadlessEgl egl;
    if (!headlessEglOpen(&egl, careless ? 3 : 2, 32, 32, 0)) return 1;
    if (careless) {
        int rc = readCarelessly(mode);
        headlessEglClose(&egl);
        return rc;
    }
    size_t upload = 64 * 1024;
    long frames = -1;
    if (strcmp(mode, "frames") == 0) {
        frames = argc > 2 ? atol(argv[2]) : 10;
        upload = 1024 * 1024;
    } else if (argc > 2) {
        upload = (size_t)atol(argv[2]) * 1024;
    }
    if (strcmp(mode, "handler-exit") == 0) signal(SIGINT, exitHandler);
    if (strcmp(mode, "handler-go-on") == 0) signal(SIGINT, flagHandler);
    int rc = drawFrames(&egl, mode, frames, upload);
    if (strcmp(mode, "frames") == 0) printf("peak %ld KiB\n", peakKib());
    headlessEglClose(&egl);
    return rc;
}
