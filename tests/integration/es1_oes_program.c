/* An OpenGL ES 1.1 program that relies on the OES extensions an ES1 driver offers, reached through
 * eglGetProcAddress as such programs reach them:
 *   - a framebuffer object (a texture as colour attachment, a depth renderbuffer) that each frame
 *     renders a lit, fogged scene into, then shown on the window surface as a texture;
 *   - a vertex buffer filled through glMapBufferOES (rewritten each frame) and drawn from;
 *   - per-vertex point sizes from a client array (glPointSizePointerOES, exported by the ES1
 *     library), drawn as points by glMultiDrawArraysEXT;
 *   - two triangles drawn by one glMultiDrawElementsEXT from client vertices, colours and indices.
 *
 *   es1_oes_program oes FRAMES PIXELS [EXPECTED]
 *       draws FRAMES frames, each read back with glReadPixels and appended to PIXELS; EXPECTED
 *       receives what the mapped buffer held at each frame's draw (FRAMES x 96 bytes) followed by
 *       the point size array the points draw read (24 bytes), the multi-draw's vertices (48 bytes)
 *       and colours (24 bytes).
 *   es1_oes_program mixed FRAMES PIXELS
 *       the same ES1 drawing on one thread and an OpenGL ES 2 program on another, at the same time
 *       and each with its own context and surface; frames go to PIXELS.es1 and PIXELS.es2.
 *
 * Exit status 0 when everything the program checks for itself held. */
#define _POSIX_C_SOURCE 200809L
#include "examples/headless_egl.h"
#include <GLES/gl.h>
#include <GLES/glext.h>
#include <GLES2/gl2.h>

#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

enum { kSize = 48, kTarget = 32 };

static int frames = 3;
static const char *pixelsName;
static const char *expectedName;
static pthread_barrier_t frameBarrier;
static int mixed;

static EGLDisplay openDisplay(void) {
    PFNEGLGETPLATFORMDISPLAYEXTPROC getPlatformDisplay =
        (PFNEGLGETPLATFORMDISPLAYEXTPROC)eglGetProcAddress("eglGetPlatformDisplayEXT");
    EGLDisplay display = getPlatformDisplay
                             ? getPlatformDisplay(EGL_PLATFORM_SURFACELESS_MESA, EGL_DEFAULT_DISPLAY, NULL)
                             : eglGetDisplay(EGL_DEFAULT_DISPLAY);
    return eglInitialize(display, NULL, NULL) ? display : EGL_NO_DISPLAY;
}

/* A pbuffer surface and a current context of OpenGL ES `version`. */
static int makeCurrent(EGLDisplay display, int version, EGLSurface *surface, EGLContext *context) {
    const EGLint configAttributes[] = {EGL_SURFACE_TYPE,
                                       EGL_PBUFFER_BIT,
                                       EGL_RENDERABLE_TYPE,
                                       version == 1 ? EGL_OPENGL_ES_BIT : EGL_OPENGL_ES2_BIT,
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
    if (!eglChooseConfig(display, configAttributes, &config, 1, &count) || count < 1) return 0;
    const EGLint surfaceAttributes[] = {EGL_WIDTH, kSize, EGL_HEIGHT, kSize, EGL_NONE};
    *surface = eglCreatePbufferSurface(display, config, surfaceAttributes);
    eglBindAPI(EGL_OPENGL_ES_API);
    const EGLint contextAttributes[] = {EGL_CONTEXT_CLIENT_VERSION, version, EGL_NONE};
    *context = eglCreateContext(display, config, EGL_NO_CONTEXT, contextAttributes);
    return eglMakeCurrent(display, *surface, *surface, *context);
}

static FILE *openOutput(const char *suffix) {
    char name[512];
    snprintf(name, sizeof(name), "%s%s", pixelsName, suffix);
    return fopen(name, "wb");
}

#define PROC(type, name) type name = (type)eglGetProcAddress(#name)
#define PROC_AS(type, variable, name) type variable = (type)eglGetProcAddress(#name)

static void *es1Thread(void *arg) {
    int *status = (int *)arg;
    EGLDisplay display = openDisplay();
    EGLSurface surface;
    EGLContext context;
    if (display == EGL_NO_DISPLAY || !makeCurrent(display, 1, &surface, &context)) {
        *status = 10;
        return NULL;
    }
    PROC(PFNGLGENFRAMEBUFFERSOESPROC, glGenFramebuffersOES);
    PROC(PFNGLBINDFRAMEBUFFEROESPROC, glBindFramebufferOES);
    PROC(PFNGLFRAMEBUFFERTEXTURE2DOESPROC, glFramebufferTexture2DOES);
    PROC(PFNGLFRAMEBUFFERRENDERBUFFEROESPROC, glFramebufferRenderbufferOES);
    PROC(PFNGLCHECKFRAMEBUFFERSTATUSOESPROC, glCheckFramebufferStatusOES);
    PROC(PFNGLGENRENDERBUFFERSOESPROC, glGenRenderbuffersOES);
    PROC(PFNGLBINDRENDERBUFFEROESPROC, glBindRenderbufferOES);
    PROC(PFNGLRENDERBUFFERSTORAGEOESPROC, glRenderbufferStorageOES);
    PROC(PFNGLDELETEFRAMEBUFFERSOESPROC, glDeleteFramebuffersOES);
    PROC(PFNGLDELETERENDERBUFFERSOESPROC, glDeleteRenderbuffersOES);
    PROC(PFNGLMAPBUFFEROESPROC, glMapBufferOES);
    PROC(PFNGLUNMAPBUFFEROESPROC, glUnmapBufferOES);
    PROC(PFNGLMULTIDRAWELEMENTSEXTPROC, glMultiDrawElementsEXT);
    PROC(PFNGLMULTIDRAWARRAYSEXTPROC, glMultiDrawArraysEXT);
    if (!glGenFramebuffersOES || !glMapBufferOES || !glMultiDrawElementsEXT || !glMultiDrawArraysEXT) {
        *status = 11;
        return NULL;
    }

    /* The render target: a texture and a depth renderbuffer. */
    GLuint target = 0, depth = 0, framebuffer = 0;
    glGenTextures(1, &target);
    glBindTexture(GL_TEXTURE_2D, target);
    glTexImage2D(GL_TEXTURE_2D, 0, GL_RGBA, kTarget, kTarget, 0, GL_RGBA, GL_UNSIGNED_BYTE, NULL);
    glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_MIN_FILTER, GL_NEAREST);
    glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_MAG_FILTER, GL_NEAREST);
    glGenRenderbuffersOES(1, &depth);
    glBindRenderbufferOES(GL_RENDERBUFFER_OES, depth);
    glRenderbufferStorageOES(GL_RENDERBUFFER_OES, GL_DEPTH_COMPONENT16_OES, kTarget, kTarget);
    glGenFramebuffersOES(1, &framebuffer);
    glBindFramebufferOES(GL_FRAMEBUFFER_OES, framebuffer);
    glFramebufferTexture2DOES(GL_FRAMEBUFFER_OES, GL_COLOR_ATTACHMENT0_OES, GL_TEXTURE_2D, target, 0);
    glFramebufferRenderbufferOES(GL_FRAMEBUFFER_OES, GL_DEPTH_ATTACHMENT_OES, GL_RENDERBUFFER_OES, depth);
    if (glCheckFramebufferStatusOES(GL_FRAMEBUFFER_OES) != GL_FRAMEBUFFER_COMPLETE_OES) {
        *status = 12;
        return NULL;
    }
    glBindFramebufferOES(GL_FRAMEBUFFER_OES, 0);
    /* An invalid target: the driver's error, seen exactly once, and the ES1 call after it is no
     * failed call. */
    glBindFramebufferOES(0x1234, framebuffer);
    glHint(GL_FOG_HINT, GL_NICEST);
    GLenum firstError = glGetError(), secondError = glGetError();
    if (!mixed) printf("errors 0x%x 0x%x\n", firstError, secondError);
    if (firstError != GL_INVALID_ENUM || secondError != GL_NO_ERROR) {
        *status = 16;
        return NULL;
    }

    /* The vertex buffer, written through a mapping each frame: 4 vertices of position (3 floats)
     * and normal (3 floats). */
    GLuint buffer = 0;
    glGenBuffers(1, &buffer);
    glBindBuffer(GL_ARRAY_BUFFER, buffer);
    glBufferData(GL_ARRAY_BUFFER, 4 * 6 * sizeof(GLfloat), NULL, GL_DYNAMIC_DRAW);
    glBindBuffer(GL_ARRAY_BUFFER, 0);

    static const GLfloat quad[] = {-1, -1, 1, -1, -1, 1, 1, 1}, quadTexCoords[] = {0, 0, 1, 0, 0, 1, 1, 1};
    static const GLfloat points[] = {-0.6f, -0.6f, 0.0f, -0.6f, 0.6f, -0.6f,
                                     -0.6f, 0.6f,  0.0f, 0.6f,  0.6f, 0.6f};
    static const GLfloat pointSizes[] = {2, 3, 4, 5, 6, 7};
    static const GLfloat triangles[] = {-0.9f, 0.9f,  -0.5f, 0.9f,  -0.7f, 0.5f,
                                        0.5f,  -0.9f, 0.9f,  -0.9f, 0.7f,  -0.5f};
    static const GLubyte triangleColours[] = {255, 0,   0, 255, 0, 255, 0,   255, 0,   0, 255, 255,
                                              255, 255, 0, 255, 0, 255, 255, 255, 255, 0, 255, 255};
    static const GLubyte firstTriangle[] = {0, 1, 2}, secondTriangle[] = {3, 4, 5};
    static const GLsizei triangleCounts[] = {3, 3};
    static const void *const triangleIndices[] = {firstTriangle, secondTriangle};
    const GLfloat lightPosition[] = {0.0f, 0.5f, 1.0f, 0.0f}, fogColor[] = {0.3f, 0.1f, 0.2f, 1.0f};

    FILE *out = openOutput(mixed ? ".es1" : "");
    FILE *expected = expectedName ? fopen(expectedName, "wb") : NULL;
    unsigned char *pixels = malloc(kSize * kSize * 4);
    for (int frame = 0; frame < frames; ++frame) {
        /* Pass 1: into the framebuffer object, a lit and fogged quad from the mapped buffer. */
        glBindFramebufferOES(GL_FRAMEBUFFER_OES, framebuffer);
        glViewport(0, 0, kTarget, kTarget);
        glClearColor(0.0f, 0.2f, 0.1f * (float)frame, 1.0f);
        glClear(GL_COLOR_BUFFER_BIT | GL_DEPTH_BUFFER_BIT);
        glEnable(GL_DEPTH_TEST);
        glEnable(GL_LIGHTING);
        glEnable(GL_LIGHT0);
        glLightfv(GL_LIGHT0, GL_POSITION, lightPosition);
        glEnable(GL_FOG);
        glFogf(GL_FOG_MODE, GL_LINEAR);
        glFogf(GL_FOG_START, 0.5f);
        glFogf(GL_FOG_END, 3.0f);
        glFogfv(GL_FOG_COLOR, fogColor);
        glMatrixMode(GL_PROJECTION);
        glLoadIdentity();
        glFrustumf(-0.5f, 0.5f, -0.5f, 0.5f, 1.0f, 5.0f);
        glMatrixMode(GL_MODELVIEW);
        glLoadIdentity();
        glTranslatef(0.0f, 0.0f, -2.0f);
        glRotatef(15.0f * (float)frame, 1.0f, 0.0f, 0.0f);

        glBindBuffer(GL_ARRAY_BUFFER, buffer);
        GLfloat *mapped = (GLfloat *)glMapBufferOES(GL_ARRAY_BUFFER, GL_WRITE_ONLY_OES);
        if (!mapped) {
            *status = 13;
            return NULL;
        }
        GLfloat vertices[4 * 6];
        for (int v = 0; v < 4; ++v) {
            vertices[v * 6 + 0] = (float)(v % 2) * 1.4f - 0.7f;
            vertices[v * 6 + 1] = (float)(v / 2) * 1.4f - 0.7f;
            vertices[v * 6 + 2] = -0.2f * (float)(v + frame);
            vertices[v * 6 + 3] = 0.2f * (float)v;
            vertices[v * 6 + 4] = 0.1f * (float)frame;
            vertices[v * 6 + 5] = 1.0f;
        }
        memcpy(mapped, vertices, sizeof(vertices));
        if (expected) fwrite(vertices, 1, sizeof(vertices), expected);
        if (!glUnmapBufferOES(GL_ARRAY_BUFFER)) {
            *status = 14;
            return NULL;
        }
        glEnableClientState(GL_VERTEX_ARRAY);
        glEnableClientState(GL_NORMAL_ARRAY);
        glVertexPointer(3, GL_FLOAT, 6 * sizeof(GLfloat), (const void *)0);
        glNormalPointer(GL_FLOAT, 6 * sizeof(GLfloat), (const void *)(3 * sizeof(GLfloat)));
        glColor4f(0.9f, 0.6f, 0.3f, 1.0f);
        glDrawArrays(GL_TRIANGLE_STRIP, 0, 4);
        glBindBuffer(GL_ARRAY_BUFFER, 0);
        glDisableClientState(GL_NORMAL_ARRAY);
        glDisable(GL_LIGHTING);
        glDisable(GL_FOG);

        /* Pass 2: onto the surface, the rendered texture on a quad, and points of varying size. */
        glBindFramebufferOES(GL_FRAMEBUFFER_OES, 0);
        glViewport(0, 0, kSize, kSize);
        glClearColor(0.1f, 0.1f, 0.1f, 1.0f);
        glClear(GL_COLOR_BUFFER_BIT | GL_DEPTH_BUFFER_BIT);
        glDisable(GL_DEPTH_TEST);
        glMatrixMode(GL_PROJECTION);
        glLoadIdentity();
        glMatrixMode(GL_MODELVIEW);
        glLoadIdentity();
        glScalef(0.8f, 0.8f, 1.0f);
        glEnable(GL_TEXTURE_2D);
        glBindTexture(GL_TEXTURE_2D, target);
        glColor4f(1, 1, 1, 1);
        glEnableClientState(GL_TEXTURE_COORD_ARRAY);
        glVertexPointer(2, GL_FLOAT, 0, quad);
        glTexCoordPointer(2, GL_FLOAT, 0, quadTexCoords);
        glDrawArrays(GL_TRIANGLE_STRIP, 0, 4);
        glDisableClientState(GL_TEXTURE_COORD_ARRAY);
        glDisable(GL_TEXTURE_2D);

        glLoadIdentity();
        glColor4f(1.0f, 1.0f, 0.2f, 1.0f);
        glEnableClientState(GL_POINT_SIZE_ARRAY_OES);
        glPointSizePointerOES(GL_FLOAT, 0, pointSizes);
        glVertexPointer(2, GL_FLOAT, 0, points);
        /* In two draws of three points each. */
        static const GLint pointFirsts[] = {0, 3};
        static const GLsizei pointCounts[] = {3, 3};
        glMultiDrawArraysEXT(GL_POINTS, pointFirsts, pointCounts, 2);
        glDisableClientState(GL_POINT_SIZE_ARRAY_OES);

        glEnableClientState(GL_COLOR_ARRAY);
        glVertexPointer(2, GL_FLOAT, 0, triangles);
        glColorPointer(4, GL_UNSIGNED_BYTE, 0, triangleColours);
        glMultiDrawElementsEXT(GL_TRIANGLES, triangleCounts, GL_UNSIGNED_BYTE, triangleIndices, 2);
        glDisableClientState(GL_COLOR_ARRAY);
        glDisableClientState(GL_VERTEX_ARRAY);

        glReadPixels(0, 0, kSize, kSize, GL_RGBA, GL_UNSIGNED_BYTE, pixels);
        if (out) fwrite(pixels, 1, kSize * kSize * 4, out);
        eglSwapBuffers(display, surface);
        if (mixed) pthread_barrier_wait(&frameBarrier);
    }
    if (expected) {
        fwrite(pointSizes, 1, sizeof(pointSizes), expected);
        fwrite(triangles, 1, sizeof(triangles), expected);
        fwrite(triangleColours, 1, sizeof(triangleColours), expected);
        fclose(expected);
    }
    if (out) fclose(out);
    free(pixels);
    GLenum error = glGetError();
    glDeleteBuffers(1, &buffer);
    glDeleteFramebuffersOES(1, &framebuffer);
    glDeleteRenderbuffersOES(1, &depth);
    glDeleteTextures(1, &target);
    eglMakeCurrent(display, EGL_NO_SURFACE, EGL_NO_SURFACE, EGL_NO_CONTEXT);
    eglDestroyContext(display, context);
    eglDestroySurface(display, surface);
    if (error != GL_NO_ERROR) *status = 15;
    return NULL;
}

/* An OpenGL ES 2 thread: a coloured triangle from client arrays, rotating a little each frame. Its
 * functions come from eglGetProcAddress with its context current, as the program links the ES1
 * library only. */
static void *es2Thread(void *arg) {
    int *status = (int *)arg;
    EGLDisplay display = openDisplay();
    EGLSurface surface;
    EGLContext context;
    if (display == EGL_NO_DISPLAY || !makeCurrent(display, 2, &surface, &context)) {
        *status = 20;
        return NULL;
    }
    PROC(PFNGLCREATESHADERPROC, glCreateShader);
    PROC(PFNGLSHADERSOURCEPROC, glShaderSource);
    PROC(PFNGLCOMPILESHADERPROC, glCompileShader);
    PROC(PFNGLCREATEPROGRAMPROC, glCreateProgram);
    PROC(PFNGLATTACHSHADERPROC, glAttachShader);
    PROC(PFNGLBINDATTRIBLOCATIONPROC, glBindAttribLocation);
    PROC(PFNGLLINKPROGRAMPROC, glLinkProgram);
    PROC(PFNGLUSEPROGRAMPROC, glUseProgram);
    PROC(PFNGLGETUNIFORMLOCATIONPROC, glGetUniformLocation);
    PROC(PFNGLUNIFORM1FPROC, glUniform1f);
    PROC(PFNGLVERTEXATTRIBPOINTERPROC, glVertexAttribPointer);
    PROC(PFNGLENABLEVERTEXATTRIBARRAYPROC, glEnableVertexAttribArray);
    PROC_AS(PFNGLCLEARCOLORPROC, glClearColor2, glClearColor);
    PROC_AS(PFNGLCLEARPROC, glClear2, glClear);
    PROC_AS(PFNGLDRAWARRAYSPROC, glDrawArrays2, glDrawArrays);
    PROC_AS(PFNGLREADPIXELSPROC, glReadPixels2, glReadPixels);
    PROC_AS(PFNGLVIEWPORTPROC, glViewport2, glViewport);
    PROC_AS(PFNGLGETERRORPROC, glGetError2, glGetError);
    static const char *vertexSource = "attribute vec2 position; attribute vec3 colour; uniform float angle;\n"
                                      "varying vec3 v;\n"
                                      "void main() { float c = cos(angle), s = sin(angle);\n"
                                      "  gl_Position = vec4(c * position.x - s * position.y,\n"
                                      "                     s * position.x + c * position.y, 0.0, 1.0);\n"
                                      "  v = colour; }\n";
    static const char *fragmentSource = "precision mediump float; varying vec3 v;\n"
                                        "void main() { gl_FragColor = vec4(v, 1.0); }\n";
    GLuint program = glCreateProgram();
    const char *sources[2] = {vertexSource, fragmentSource};
    const GLenum kinds[2] = {GL_VERTEX_SHADER, GL_FRAGMENT_SHADER};
    for (int i = 0; i < 2; ++i) {
        GLuint shader = glCreateShader(kinds[i]);
        glShaderSource(shader, 1, &sources[i], NULL);
        glCompileShader(shader);
        glAttachShader(program, shader);
    }
    glBindAttribLocation(program, 0, "position");
    glBindAttribLocation(program, 1, "colour");
    glLinkProgram(program);
    glUseProgram(program);
    GLint angle = glGetUniformLocation(program, "angle");
    static const GLfloat positions[] = {-0.7f, -0.6f, 0.7f, -0.6f, 0.0f, 0.7f};
    static const GLfloat colours[] = {1, 0, 0, 0, 1, 0, 0, 0, 1};
    glVertexAttribPointer(0, 2, GL_FLOAT, GL_FALSE, 0, positions);
    glVertexAttribPointer(1, 3, GL_FLOAT, GL_FALSE, 0, colours);
    glEnableVertexAttribArray(0);
    glEnableVertexAttribArray(1);
    glViewport2(0, 0, kSize, kSize);

    FILE *out = openOutput(".es2");
    unsigned char *pixels = malloc(kSize * kSize * 4);
    for (int frame = 0; frame < frames; ++frame) {
        glClearColor2(0.2f, 0.1f * (float)frame, 0.3f, 1.0f);
        glClear2(GL_COLOR_BUFFER_BIT);
        glUniform1f(angle, 0.3f * (float)frame);
        glDrawArrays2(GL_TRIANGLES, 0, 3);
        glReadPixels2(0, 0, kSize, kSize, GL_RGBA, GL_UNSIGNED_BYTE, pixels);
        if (out) fwrite(pixels, 1, kSize * kSize * 4, out);
        eglSwapBuffers(display, surface);
        pthread_barrier_wait(&frameBarrier);
    }
    if (out) fclose(out);
    free(pixels);
    if (glGetError2() != GL_NO_ERROR) *status = 21;
    eglMakeCurrent(display, EGL_NO_SURFACE, EGL_NO_SURFACE, EGL_NO_CONTEXT);
    eglDestroyContext(display, context);
    eglDestroySurface(display, surface);
    return NULL;
}

int main(int argc, char **argv) {
    if (argc < 4) {
        fprintf(stderr, "usage: es1_oes_program oes|mixed FRAMES PIXELS [EXPECTED]\n");
        return 1;
    }
    mixed = strcmp(argv[1], "mixed") == 0;
    frames = atoi(argv[2]);
    pixelsName = argv[3];
    expectedName = argc > 4 ? argv[4] : NULL;
    int es1Status = 0, es2Status = 0;
    if (!mixed) {
        es1Thread(&es1Status);
    } else {
        pthread_barrier_init(&frameBarrier, NULL, 2);
        pthread_t es1, es2;
        pthread_create(&es1, NULL, es1Thread, &es1Status);
        pthread_create(&es2, NULL, es2Thread, &es2Status);
        pthread_join(es1, NULL);
        pthread_join(es2, NULL);
    }
    if (es1Status || es2Status) fprintf(stderr, "failed: ES1 %d, ES2 %d\n", es1Status, es2Status);
    return es1Status ? es1Status : es2Status;
}
