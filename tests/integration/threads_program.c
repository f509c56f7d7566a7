/* Two contexts on two threads sharing objects, for the player's tests: a second thread creates a
 * texture, a vertex buffer and a program in a context that shares with the main one, updates them
 * every frame and hands over a fence; the main thread waits for the fence and draws with them.
 * The threads take turns, so the recorded order is the same on every run.
 *
 *   threads_program [--frames N] */
#include "examples/headless_egl.h"
#include <GLES3/gl3.h>

#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

enum { kWidth = 40, kHeight = 40 };

static HeadlessEgl g_egl;
static int g_frames = 3;
static pthread_mutex_t g_lock = PTHREAD_MUTEX_INITIALIZER;
static pthread_cond_t g_turn = PTHREAD_COND_INITIALIZER;
static int g_worker = 1; /* whose turn: 1 the worker, 0 the main thread */
static GLuint g_texture, g_buffer, g_program;
static GLsync g_fence;

static void waitTurn(int worker) {
    pthread_mutex_lock(&g_lock);
    while (g_worker != worker)
        pthread_cond_wait(&g_turn, &g_lock);
    pthread_mutex_unlock(&g_lock);
}

static void giveTurn(int worker) {
    pthread_mutex_lock(&g_lock);
    g_worker = worker;
    pthread_cond_broadcast(&g_turn);
    pthread_mutex_unlock(&g_lock);
}

static const char *kVs = "attribute vec2 pos;\n"
                         "varying vec2 uv;\n"
                         "void main() { uv = pos * 0.5 + 0.5; gl_Position = vec4(pos, 0.0, 1.0); }\n";
static const char *kFs = "precision mediump float;\n"
                         "uniform sampler2D tex;\n"
                         "varying vec2 uv;\n"
                         "void main() { gl_FragColor = texture2D(tex, uv); }\n";

static void *worker(void *unused) {
    (void)unused;
    const EGLint surfaceAttributes[] = {EGL_WIDTH, 1, EGL_HEIGHT, 1, EGL_NONE};
    EGLSurface surface = eglCreatePbufferSurface(g_egl.display, g_egl.config, surfaceAttributes);
    const EGLint contextAttributes[] = {EGL_CONTEXT_CLIENT_VERSION, 3, EGL_NONE};
    eglBindAPI(EGL_OPENGL_ES_API);
    EGLContext context = eglCreateContext(g_egl.display, g_egl.config, g_egl.context, contextAttributes);
    if (context == EGL_NO_CONTEXT || !eglMakeCurrent(g_egl.display, surface, surface, context)) {
        fprintf(stderr, "worker: no shared context\n");
        exit(1);
    }
    glGenTextures(1, &g_texture);
    glBindTexture(GL_TEXTURE_2D, g_texture);
    glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_MIN_FILTER, GL_NEAREST);
    glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_MAG_FILTER, GL_NEAREST);
    glGenBuffers(1, &g_buffer);
    g_program = glCreateProgram();
    GLuint vs = glCreateShader(GL_VERTEX_SHADER), fs = glCreateShader(GL_FRAGMENT_SHADER);
    glShaderSource(vs, 1, &kVs, NULL);
    glShaderSource(fs, 1, &kFs, NULL);
    glCompileShader(vs);
    glCompileShader(fs);
    glAttachShader(g_program, vs);
    glAttachShader(g_program, fs);
    glBindAttribLocation(g_program, 0, "pos");
    glLinkProgram(g_program);
    for (int frame = 0; frame < g_frames; ++frame) {
        waitTurn(1);
        unsigned char texels[4 * 4 * 4];
        for (int i = 0; i < (int)sizeof(texels); ++i)
            texels[i] = (unsigned char)((i * 37 + frame * 61) & 0xFF);
        glBindTexture(GL_TEXTURE_2D, g_texture);
        glTexImage2D(GL_TEXTURE_2D, 0, GL_RGBA, 4, 4, 0, GL_RGBA, GL_UNSIGNED_BYTE, texels);
        float quad[8] = {-0.9f, -0.9f, 0.9f - 0.2f * (float)frame, -0.9f, -0.9f, 0.9f, 0.9f, 0.9f};
        glBindBuffer(GL_ARRAY_BUFFER, g_buffer);
        glBufferData(GL_ARRAY_BUFFER, sizeof(quad), quad, GL_DYNAMIC_DRAW);
        g_fence = glFenceSync(GL_SYNC_GPU_COMMANDS_COMPLETE, 0);
        glFlush();
        giveTurn(0);
    }
    eglMakeCurrent(g_egl.display, EGL_NO_SURFACE, EGL_NO_SURFACE, EGL_NO_CONTEXT);
    eglDestroyContext(g_egl.display, context);
    eglDestroySurface(g_egl.display, surface);
    return NULL;
}

int main(int argc, char **argv) {
    for (int i = 1; i + 1 < argc; i += 2)
        if (strcmp(argv[i], "--frames") == 0) g_frames = atoi(argv[i + 1]);
    if (!headlessEglOpen(&g_egl, 3, kWidth, kHeight, 0)) return 1;
    pthread_t thread;
    if (pthread_create(&thread, NULL, worker, NULL) != 0) return 1;
    for (int frame = 0; frame < g_frames; ++frame) {
        waitTurn(0);
        glWaitSync(g_fence, 0, GL_TIMEOUT_IGNORED);
        glDeleteSync(g_fence);
        glClearColor(0.2f, 0.1f * (float)frame, 0.3f, 1.0f);
        glClear(GL_COLOR_BUFFER_BIT);
        glUseProgram(g_program);
        glUniform1i(glGetUniformLocation(g_program, "tex"), 0);
        glBindTexture(GL_TEXTURE_2D, g_texture);
        glBindBuffer(GL_ARRAY_BUFFER, g_buffer);
        glEnableVertexAttribArray(0);
        glVertexAttribPointer(0, 2, GL_FLOAT, GL_FALSE, 0, 0);
        glDrawArrays(GL_TRIANGLE_STRIP, 0, 4);
        eglSwapBuffers(g_egl.display, g_egl.surface);
        if (frame + 1 < g_frames) giveTurn(1);
    }
    pthread_join(thread, NULL);
    GLenum error = glGetError();
    headlessEglClose(&g_egl);
    if (error != GL_NO_ERROR) {
        fprintf(stderr, "GL error 0x%x\n", error);
        return 1;
    }
    printf("drew %d frames on two threads\n", g_frames);
    return 0;
}
