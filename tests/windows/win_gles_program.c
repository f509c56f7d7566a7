/* A Windows OpenGL ES program as users write them: a Win32 window, an EGL window surface, and
 * draws from client arrays, buffers and textures over several frames. Before each swap it reads
 * the frame back and writes the pixels (RGBA, bottom row first) to DIR/NAME-frame-N.rgba, so that
 * a run through the front DLLs can be compared byte for byte with a run straight on the driver.
 *
 *   win_gles_program es2|es3|threads DIR [FRAMES [SLEEP_MS]]
 *
 * SLEEP_MS, slept after each frame is read back, paces a long run so that a tool attached to it
 * (a counter reader, a network client) sees frames come while it works.
 * es2      OpenGL ES 2.0: client vertex arrays, client indices over a vertex buffer, an index
 *          buffer, a texture updated every frame
 * es3      OpenGL ES 3.x: a vertex array object, instanced draws, a uniform buffer written through
 *          glMapBufferRange, immutable texture storage, rendering to a texture through a
 *          framebuffer object
 * threads  two threads, each with its own window and ES 2.0 context, drawing at the same time
 *
 * Exit status 0 when every frame drew without a GL error, 1 otherwise. */
#define WIN32_LEAN_AND_MEAN
#include <windows.h>

#include <EGL/egl.h>
#include <GLES3/gl3.h>
#include "tests/common/gl_program.h"

#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

enum { kWidth = 64, kHeight = 48 };

static const char *g_dir = ".";
static int g_frames = 4;
static int g_sleepMs = 0;
static EGLDisplay g_display;
static CRITICAL_SECTION g_printLock;

static LRESULT CALLBACK windowProc(HWND window, UINT message, WPARAM w, LPARAM l) {
    return DefWindowProcA(window, message, w, l);
}

/* Once, before any thread opens a window: a thread that found the class "being registered" by
 * another would otherwise create its window before the class exists. */
static void registerWindowClass(void) {
    WNDCLASSA wc;
    memset(&wc, 0, sizeof(wc));
    wc.style = CS_OWNDC;
    wc.lpfnWndProc = windowProc;
    wc.hInstance = GetModuleHandleA(NULL);
    wc.lpszClassName = "kv_gles_window";
    if (!RegisterClassA(&wc)) {
        fprintf(stderr, "RegisterClass failed: %lu\n", (unsigned long)GetLastError());
        exit(1);
    }
}

static HWND openWindow(int x) {
    /* A popup window: its client area is exactly the size asked for. */
    HWND window = CreateWindowExA(0, "kv_gles_window", "kv", WS_POPUP | WS_VISIBLE, x, 0, kWidth, kHeight,
                                  NULL, NULL, GetModuleHandleA(NULL), NULL);
    if (!window) {
        fprintf(stderr, "CreateWindow failed: %lu\n", (unsigned long)GetLastError());
        exit(1);
    }
    return window;
}

static void pumpMessages(void) {
    MSG message;
    while (PeekMessageA(&message, NULL, 0, 0, PM_REMOVE)) {
        TranslateMessage(&message);
        DispatchMessageA(&message);
    }
}

typedef struct Window {
    HWND window;
    EGLSurface surface;
    EGLContext context;
} Window;

static Window makeCurrentWindow(int x, int version) {
    Window w;
    const EGLint configAttributes[] = {EGL_SURFACE_TYPE,
                                       EGL_WINDOW_BIT,
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
                                       EGL_DEPTH_SIZE,
                                       16,
                                       EGL_NONE};
    EGLConfig config;
    EGLint count = 0;
    if (!eglChooseConfig(g_display, configAttributes, &config, 1, &count) || count < 1) {
        fprintf(stderr, "no RGBA8 window config: 0x%x\n", eglGetError());
        exit(1);
    }
    w.window = openWindow(x);
    w.surface = eglCreateWindowSurface(g_display, config, (EGLNativeWindowType)w.window, NULL);
    const EGLint contextAttributes[] = {EGL_CONTEXT_CLIENT_VERSION, version, EGL_NONE};
    eglBindAPI(EGL_OPENGL_ES_API);
    w.context = eglCreateContext(g_display, config, EGL_NO_CONTEXT, contextAttributes);
    if (w.surface == EGL_NO_SURFACE || w.context == EGL_NO_CONTEXT ||
        !eglMakeCurrent(g_display, w.surface, w.surface, w.context)) {
        fprintf(stderr, "no ES %d context on a window surface: 0x%x\n", version, eglGetError());
        exit(1);
    }
    return w;
}

static void closeWindow(Window *w) {
    eglMakeCurrent(g_display, EGL_NO_SURFACE, EGL_NO_SURFACE, EGL_NO_CONTEXT);
    eglDestroyContext(g_display, w->context);
    eglDestroySurface(g_display, w->surface);
    DestroyWindow(w->window);
}

static GLuint link(const char *vs, const char *fs, const char *attribute0, const char *attribute1) {
    GLuint program = attachShaders(vs, fs);
    if (attribute0) glBindAttribLocation(program, 0, attribute0);
    if (attribute1) glBindAttribLocation(program, 1, attribute1);
    return linkProgram(program);
}

/* Reads the frame back, writes it to DIR/NAME-frame-N.rgba and prints its hash; 1 on a GL error
 * during the frame. */
static int finishFrame(const char *name, int frame) {
    /* Each thread its own: the two threads of "threads" finish frames at the same time. */
    unsigned char pixels[kWidth * kHeight * 4];
    glReadPixels(0, 0, kWidth, kHeight, GL_RGBA, GL_UNSIGNED_BYTE, pixels);
    GLenum error = glGetError();
    uint64_t hash = 1469598103934665603ull;
    for (size_t i = 0; i < sizeof(pixels); ++i)
        hash = (hash ^ pixels[i]) * 1099511628211ull;
    char path[MAX_PATH];
    snprintf(path, sizeof(path), "%s\\%s-frame-%d.rgba", g_dir, name, frame);
    FILE *f = fopen(path, "wb");
    if (!f || fwrite(pixels, 1, sizeof(pixels), f) != sizeof(pixels)) {
        fprintf(stderr, "cannot write %s\n", path);
        exit(1);
    }
    fclose(f);
    EnterCriticalSection(&g_printLock);
    fprintf(stderr, "%s frame %d: %016llx, error 0x%x\n", name, frame, (unsigned long long)hash, error);
    LeaveCriticalSection(&g_printLock);
    if (g_sleepMs > 0) Sleep((DWORD)g_sleepMs);
    return error != GL_NO_ERROR;
}

/* ---- OpenGL ES 2.0 -------------------------------------------------------------------------- */

static const char *kVs2 = "attribute vec2 pos;\n"
                          "attribute vec3 color;\n"
                          "uniform vec2 offset;\n"
                          "varying vec3 v_color;\n"
                          "varying vec2 v_uv;\n"
                          "void main() {\n"
                          "  v_color = color; v_uv = pos * 0.5 + 0.5;\n"
                          "  gl_Position = vec4(pos + offset, 0.0, 1.0);\n"
                          "}\n";
static const char *kFs2 = "precision mediump float;\n"
                          "uniform sampler2D tex;\n"
                          "varying vec3 v_color;\n"
                          "varying vec2 v_uv;\n"
                          "void main() { gl_FragColor = vec4(v_color, 1.0) * texture2D(tex, v_uv); }\n";

/* One ES 2.0 scene, frame by frame; `seed` tells the two threads' scenes apart. */
static int drawEs2(const char *name, int seed) {
    int failed = 0;
    GLuint program = link(kVs2, kFs2, "pos", "color");
    glUseProgram(program);
    GLint offset = glGetUniformLocation(program, "offset");
    glUniform1i(glGetUniformLocation(program, "tex"), 0);

    unsigned char texels[8 * 8 * 4];
    for (int i = 0; i < (int)sizeof(texels); ++i)
        texels[i] = (unsigned char)(((i * 29) ^ (seed * 71)) | 0x40);
    GLuint texture;
    glGenTextures(1, &texture);
    glBindTexture(GL_TEXTURE_2D, texture);
    glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_MIN_FILTER, GL_NEAREST);
    glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_MAG_FILTER, GL_NEAREST);
    glPixelStorei(GL_UNPACK_ALIGNMENT, 1);
    glTexImage2D(GL_TEXTURE_2D, 0, GL_RGBA, 8, 8, 0, GL_RGBA, GL_UNSIGNED_BYTE, texels);

    /* Vertices in a buffer (position, color interleaved) and indices in another. */
    static const GLfloat boxVertices[] = {-0.4f, -0.4f, 1.0f, 0.2f, 0.2f, 0.4f, -0.4f, 0.2f, 1.0f, 0.2f,
                                          -0.4f, 0.4f,  0.2f, 0.2f, 1.0f, 0.4f, 0.4f,  1.0f, 1.0f, 0.2f};
    static const GLushort boxIndices[] = {0, 1, 2, 2, 1, 3};
    GLuint buffers[2];
    glGenBuffers(2, buffers);
    glBindBuffer(GL_ARRAY_BUFFER, buffers[0]);
    glBufferData(GL_ARRAY_BUFFER, sizeof(boxVertices), boxVertices, GL_STATIC_DRAW);
    glBindBuffer(GL_ARRAY_BUFFER, 0);
    glBindBuffer(GL_ELEMENT_ARRAY_BUFFER, buffers[1]);
    glBufferData(GL_ELEMENT_ARRAY_BUFFER, sizeof(boxIndices), boxIndices, GL_STATIC_DRAW);
    glBindBuffer(GL_ELEMENT_ARRAY_BUFFER, 0);

    for (int frame = 0; frame < g_frames; ++frame) {
        pumpMessages();
        glViewport(0, 0, kWidth, kHeight);
        glClearColor(0.1f * (float)frame, 0.2f, 0.05f * (float)seed, 1.0f);
        glClear(GL_COLOR_BUFFER_BIT | GL_DEPTH_BUFFER_BIT);

        /* The texture changes a little every frame. */
        unsigned char row[4 * 4];
        for (int i = 0; i < (int)sizeof(row); ++i)
            row[i] = (unsigned char)(frame * 50 + i * 13 + seed);
        glTexSubImage2D(GL_TEXTURE_2D, 0, 2, frame % 8, 4, 1, GL_RGBA, GL_UNSIGNED_BYTE, row);

        /* 1: client arrays, a fan whose shape moves with the frame. */
        GLfloat fan[12], colors[18];
        for (int i = 0; i < 6; ++i) {
            fan[2 * i] = -0.95f + 0.1f * (float)((i * 3 + frame + seed) % 7);
            fan[2 * i + 1] = -0.95f + 0.12f * (float)((i * 5 + frame) % 6);
            colors[3 * i] = (float)(i % 2);
            colors[3 * i + 1] = 0.2f * (float)i;
            colors[3 * i + 2] = 1.0f - 0.15f * (float)i;
        }
        glUniform2f(offset, 0.0f, 0.0f);
        glEnableVertexAttribArray(0);
        glEnableVertexAttribArray(1);
        glVertexAttribPointer(0, 2, GL_FLOAT, GL_FALSE, 0, fan);
        glVertexAttribPointer(1, 3, GL_FLOAT, GL_FALSE, 0, colors);
        glDrawArrays(GL_TRIANGLE_FAN, 0, 6);

        /* 2: the vertex and index buffers, moved by a uniform. */
        glBindBuffer(GL_ARRAY_BUFFER, buffers[0]);
        glBindBuffer(GL_ELEMENT_ARRAY_BUFFER, buffers[1]);
        glVertexAttribPointer(0, 2, GL_FLOAT, GL_FALSE, 5 * sizeof(GLfloat), (const void *)0);
        glVertexAttribPointer(1, 3, GL_FLOAT, GL_FALSE, 5 * sizeof(GLfloat),
                              (const void *)(2 * sizeof(GLfloat)));
        glUniform2f(offset, 0.45f - 0.1f * (float)frame, 0.4f);
        glDrawElements(GL_TRIANGLES, 6, GL_UNSIGNED_SHORT, (const void *)0);

        /* 3: the same vertex buffer with indices from client memory. */
        glBindBuffer(GL_ELEMENT_ARRAY_BUFFER, 0);
        GLubyte clientIndices[3] = {(GLubyte)(frame % 4), 3, 1};
        glUniform2f(offset, -0.3f, -0.45f + 0.05f * (float)frame);
        glDrawElements(GL_TRIANGLES, 3, GL_UNSIGNED_BYTE, clientIndices);
        glBindBuffer(GL_ARRAY_BUFFER, 0);

        failed |= finishFrame(name, frame);
        eglSwapBuffers(g_display, eglGetCurrentSurface(EGL_DRAW));
    }
    glDeleteBuffers(2, buffers);
    glDeleteTextures(1, &texture);
    glDeleteProgram(program);
    return failed;
}

/* ---- OpenGL ES 3.x -------------------------------------------------------------------------- */

static const char *kVs3 =
    "#version 300 es\n"
    "layout(location = 0) in vec2 pos;\n"
    "layout(std140) uniform Frame { vec4 tint; vec4 shift; };\n"
    "out vec2 v_uv;\n"
    "void main() {\n"
    "  float i = float(gl_InstanceID);\n"
    "  v_uv = pos + 0.5;\n"
    "  gl_Position = vec4(pos * 0.5 + vec2(-0.6 + 0.4 * i, shift.y * (i - 1.0)), 0.0, 1.0);\n"
    "}\n";
static const char *kFs3 = "#version 300 es\n"
                          "precision mediump float;\n"
                          "layout(std140) uniform Frame { vec4 tint; vec4 shift; };\n"
                          "uniform sampler2D tex;\n"
                          "in vec2 v_uv;\n"
                          "out vec4 color;\n"
                          "void main() { color = texture(tex, v_uv) * tint; }\n";

static int drawEs3(const char *name) {
    int failed = 0;
    GLuint program = link(kVs3, kFs3, NULL, NULL);
    glUseProgram(program);
    glUniformBlockBinding(program, glGetUniformBlockIndex(program, "Frame"), 1);
    glUniform1i(glGetUniformLocation(program, "tex"), 0);

    static const GLfloat quad[] = {-0.5f, -0.5f, 0.5f, -0.5f, -0.5f, 0.5f, 0.5f, 0.5f};
    GLuint vao, buffers[2], textures[2], framebuffer;
    glGenVertexArrays(1, &vao);
    glBindVertexArray(vao);
    glGenBuffers(2, buffers);
    glBindBuffer(GL_ARRAY_BUFFER, buffers[0]);
    glBufferData(GL_ARRAY_BUFFER, sizeof(quad), quad, GL_STATIC_DRAW);
    glEnableVertexAttribArray(0);
    glVertexAttribPointer(0, 2, GL_FLOAT, GL_FALSE, 0, (const void *)0);
    glBindBuffer(GL_UNIFORM_BUFFER, buffers[1]);
    glBufferData(GL_UNIFORM_BUFFER, 8 * sizeof(GLfloat), NULL, GL_DYNAMIC_DRAW);
    glBindBufferBase(GL_UNIFORM_BUFFER, 1, buffers[1]);

    /* textures[0]: a pattern in immutable storage; textures[1]: the target of a render pass. */
    glGenTextures(2, textures);
    unsigned char texels[16 * 16 * 4];
    for (int i = 0; i < (int)sizeof(texels); ++i)
        texels[i] = (unsigned char)((i * 7) ^ (i >> 4));
    glBindTexture(GL_TEXTURE_2D, textures[0]);
    glTexStorage2D(GL_TEXTURE_2D, 1, GL_RGBA8, 16, 16);
    glTexSubImage2D(GL_TEXTURE_2D, 0, 0, 0, 16, 16, GL_RGBA, GL_UNSIGNED_BYTE, texels);
    glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_MIN_FILTER, GL_NEAREST);
    glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_MAG_FILTER, GL_NEAREST);
    glBindTexture(GL_TEXTURE_2D, textures[1]);
    glTexStorage2D(GL_TEXTURE_2D, 1, GL_RGBA8, 32, 32);
    glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_MIN_FILTER, GL_NEAREST);
    glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_MAG_FILTER, GL_NEAREST);
    glGenFramebuffers(1, &framebuffer);
    glBindFramebuffer(GL_FRAMEBUFFER, framebuffer);
    glFramebufferTexture2D(GL_FRAMEBUFFER, GL_COLOR_ATTACHMENT0, GL_TEXTURE_2D, textures[1], 0);
    if (glCheckFramebufferStatus(GL_FRAMEBUFFER) != GL_FRAMEBUFFER_COMPLETE) {
        fprintf(stderr, "render target incomplete\n");
        return 1;
    }
    glBindFramebuffer(GL_FRAMEBUFFER, 0);

    for (int frame = 0; frame < g_frames; ++frame) {
        pumpMessages();
        GLfloat *block = (GLfloat *)glMapBufferRange(GL_UNIFORM_BUFFER, 0, 8 * sizeof(GLfloat),
                                                     GL_MAP_WRITE_BIT | GL_MAP_INVALIDATE_BUFFER_BIT);
        if (!block) {
            fprintf(stderr, "glMapBufferRange failed: 0x%x\n", glGetError());
            return 1;
        }
        const GLfloat values[8] = {1.0f, 0.5f + 0.1f * (float)frame, 0.8f, 1.0f,
                                   0.0f, 0.1f * (float)frame,        0.0f, 0.0f};
        memcpy(block, values, sizeof(values));
        glUnmapBuffer(GL_UNIFORM_BUFFER);

        /* Pass 1: three instances into the texture. */
        glBindFramebuffer(GL_FRAMEBUFFER, framebuffer);
        glViewport(0, 0, 32, 32);
        glClearColor(0.0f, 0.0f, 0.3f + 0.1f * (float)frame, 1.0f);
        glClear(GL_COLOR_BUFFER_BIT);
        glBindTexture(GL_TEXTURE_2D, textures[0]);
        glDrawArraysInstanced(GL_TRIANGLE_STRIP, 0, 4, 3);

        /* Pass 2: the window, drawn with what pass 1 made. */
        glBindFramebuffer(GL_FRAMEBUFFER, 0);
        glViewport(0, 0, kWidth, kHeight);
        glClearColor(0.2f, 0.1f * (float)frame, 0.0f, 1.0f);
        glClear(GL_COLOR_BUFFER_BIT | GL_DEPTH_BUFFER_BIT);
        glBindTexture(GL_TEXTURE_2D, textures[1]);
        glDrawArraysInstanced(GL_TRIANGLE_STRIP, 0, 4, 2 + frame % 2);

        failed |= finishFrame(name, frame);
        eglSwapBuffers(g_display, eglGetCurrentSurface(EGL_DRAW));
    }
    glBindVertexArray(0);
    glDeleteVertexArrays(1, &vao);
    glDeleteFramebuffers(1, &framebuffer);
    glDeleteTextures(2, textures);
    glDeleteBuffers(2, buffers);
    glDeleteProgram(program);
    return failed;
}

/* ---- Two threads ------------------------------------------------------------------------------ */

static DWORD WINAPI threadMain(void *argument) {
    int seed = (int)(intptr_t)argument;
    char name[16];
    snprintf(name, sizeof(name), "thread%d", seed);
    Window w = makeCurrentWindow(100 * seed, 2);
    int failed = drawEs2(name, seed);
    closeWindow(&w);
    eglReleaseThread();
    return (DWORD)failed;
}

int main(int argc, char **argv) {
    if (argc < 3) {
        fprintf(stderr, "usage: win_gles_program es2|es3|threads DIR [FRAMES [SLEEP_MS]]\n");
        return 2;
    }
    g_dir = argv[2];
    if (argc > 3) g_frames = atoi(argv[3]);
    if (argc > 4) g_sleepMs = atoi(argv[4]);
    InitializeCriticalSection(&g_printLock);
    registerWindowClass();
    g_display = eglGetDisplay(EGL_DEFAULT_DISPLAY);
    EGLint major = 0, minor = 0;
    if (!eglInitialize(g_display, &major, &minor)) {
        fprintf(stderr, "eglInitialize failed: 0x%x\n", eglGetError());
        return 1;
    }
    int failed = 0;
    if (strcmp(argv[1], "threads") == 0) {
        HANDLE threads[2];
        for (int i = 0; i < 2; ++i)
            threads[i] = CreateThread(NULL, 0, threadMain, (void *)(intptr_t)(i + 1), 0, NULL);
        for (int i = 0; i < 2; ++i) {
            DWORD result = 1;
            WaitForSingleObject(threads[i], INFINITE);
            GetExitCodeThread(threads[i], &result);
            failed |= result != 0;
            CloseHandle(threads[i]);
        }
    } else {
        int es3 = strcmp(argv[1], "es3") == 0;
        Window w = makeCurrentWindow(0, es3 ? 3 : 2);
        fprintf(stderr, "EGL %d.%d, %s, %s\n", major, minor, (const char *)glGetString(GL_VERSION),
                (const char *)glGetString(GL_RENDERER));
        failed = es3 ? drawEs3(argv[1]) : drawEs2(argv[1], 0);
        closeWindow(&w);
    }
    eglTerminate(g_display);
    return failed;
}
