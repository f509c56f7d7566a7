/* A small scene for the profiling tests: per frame a depth-tested pair of overlapping quads (the
 * near one drawn first), a blended half-transparent quad, a textured quad with a checker texture,
 * a buffer upload, uniforms, a quad of a second program (top left) placed by a vertex-shader
 * uniform whose fragment shader discards its left part, and a glReadPixels of the frame kept in
 * PREFIX.N.rgba. Every quad faces front (counter-clockwise); the program leaves face culling off.
 * With --shared the shaders, programs and texture are made in one context and the frames drawn in
 * a second context created sharing with it.
 *
 *   overrides_program [--frames N] [--dump PREFIX] [--sleep MS] [--shared] */
#define _POSIX_C_SOURCE 200809L /* nanosleep */

#include "examples/headless_egl.h"
#include <GLES2/gl2.h>

#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

enum { kSize = 64 };

static GLuint compile(GLenum type, const char *source) {
    GLuint s = glCreateShader(type);
    glShaderSource(s, 1, &source, NULL);
    glCompileShader(s);
    return s;
}

static void quad(GLint position, float x0, float y0, float x1, float y1, float z) {
    const float v[] = {x0, y0, z, x1, y0, z, x1, y1, z, x0, y0, z, x1, y1, z, x0, y1, z};
    glVertexAttribPointer((GLuint)position, 3, GL_FLOAT, GL_FALSE, 0, v);
    glDrawArrays(GL_TRIANGLES, 0, 6);
}

int main(int argc, char **argv) {
    int frames = 4, sleepMs = 0;
    int shared = 0;
    const char *dump = NULL;
    for (int i = 1; i < argc; ++i) {
        if (strcmp(argv[i], "--shared") == 0) shared = 1;
        if (i + 1 == argc) break;
        if (strcmp(argv[i], "--frames") == 0)
            frames = atoi(argv[++i]);
        else if (strcmp(argv[i], "--dump") == 0)
            dump = argv[++i];
        else if (strcmp(argv[i], "--sleep") == 0)
            sleepMs = atoi(argv[++i]);
    }
    HeadlessEgl egl;
    if (!headlessEglOpen(&egl, 2, kSize, kSize, 24)) return 1;
    GLuint program = glCreateProgram();
    glBindAttribLocation(program, 0, "p");
    glAttachShader(program, compile(GL_VERTEX_SHADER,
                                    "attribute vec3 p; varying vec2 uv;\n"
                                    "void main() { uv = p.xy * 0.5 + 0.5; gl_Position = vec4(p, 1.0); }\n"));
    glAttachShader(
        program, compile(GL_FRAGMENT_SHADER,
                         "precision mediump float; uniform vec4 colour;\n"
                         "uniform float textured; uniform sampler2D t; varying vec2 uv;\n"
                         "void main() { gl_FragColor = mix(colour, texture2D(t, uv * 4.0), textured); }\n"));
    glLinkProgram(program);
    GLuint second = glCreateProgram();
    glBindAttribLocation(second, 0, "p");
    glAttachShader(second, compile(GL_VERTEX_SHADER,
                                   "attribute vec3 p; uniform vec2 offset;\n"
                                   "void main() { gl_Position = vec4(p.xy + offset, p.z, 1.0); }\n"));
    glAttachShader(second,
                   compile(GL_FRAGMENT_SHADER, "precision mediump float;\n"
                                               "void main() {\n"
                                               "    if (gl_FragCoord.x < 12.0) discard; // the left part\n"
                                               "    gl_FragColor = vec4(1.0, 1.0, 0.0, 1.0);\n"
                                               "}\n"));
    glLinkProgram(second);
    GLint offset = glGetUniformLocation(second, "offset");
    glUseProgram(program);
    GLint position = glGetAttribLocation(program, "p");
    GLint colour = glGetUniformLocation(program, "colour");
    GLint textured = glGetUniformLocation(program, "textured");
    glEnableVertexAttribArray((GLuint)position);

    static unsigned char checker[16 * 16 * 4];
    for (int i = 0; i < 16 * 16; ++i) {
        unsigned char v = ((i % 16) / 2 + (i / 16) / 2) % 2 ? 255 : 0;
        checker[4 * i] = v, checker[4 * i + 1] = (unsigned char)(255 - v), checker[4 * i + 2] = 64,
                    checker[4 * i + 3] = 255;
    }
    GLuint texture;
    glGenTextures(1, &texture);
    glBindTexture(GL_TEXTURE_2D, texture);
    glTexImage2D(GL_TEXTURE_2D, 0, GL_RGBA, 16, 16, 0, GL_RGBA, GL_UNSIGNED_BYTE, checker);
    glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_MIN_FILTER, GL_NEAREST);
    glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_MAG_FILTER, GL_NEAREST);
    GLuint buffer;
    glGenBuffers(1, &buffer);
    EGLContext drawing = EGL_NO_CONTEXT;
    if (shared) {
        /* The objects are the share group's; bindings, the current program and the enabled
         * arrays are the new context's own. */
        const EGLint attributes[] = {EGL_CONTEXT_CLIENT_VERSION, 2, EGL_NONE};
        drawing = eglCreateContext(egl.display, egl.config, egl.context, attributes);
        if (drawing == EGL_NO_CONTEXT || !eglMakeCurrent(egl.display, egl.surface, egl.surface, drawing)) {
            fprintf(stderr, "cannot make a sharing context current (0x%x)\n", eglGetError());
            return 1;
        }
        glUseProgram(program);
        glEnableVertexAttribArray((GLuint)position);
        glBindTexture(GL_TEXTURE_2D, texture);
    }

    static unsigned char pixels[kSize * kSize * 4];
    for (int frame = 0; frame < frames; ++frame) {
        glBindBuffer(GL_ARRAY_BUFFER, buffer);
        glBufferData(GL_ARRAY_BUFFER, 256, checker, GL_STREAM_DRAW);
        glBindBuffer(GL_ARRAY_BUFFER, 0);
        glViewport(0, 0, kSize, kSize);
        glClearColor(0.1f, 0.2f, 0.3f, 1.0f);
        glClear(GL_COLOR_BUFFER_BIT | GL_DEPTH_BUFFER_BIT);
        glEnable(GL_DEPTH_TEST);
        glUniform1f(textured, 0.0f);
        glUniform4f(colour, 1.0f, 0.0f, 0.0f, 1.0f); /* near, red, left half */
        quad(position, -0.9f, -0.9f, 0.1f, 0.1f, -0.5f);
        glUniform4f(colour, 0.0f, 1.0f, 0.0f, 1.0f); /* far, green, overlapping it */
        quad(position, -0.5f, -0.5f, 0.5f, 0.5f, 0.5f);
        glDisable(GL_DEPTH_TEST);
        glEnable(GL_BLEND);
        glBlendFunc(GL_SRC_ALPHA, GL_ONE_MINUS_SRC_ALPHA);
        glUniform4f(colour, 0.0f, 0.0f, 1.0f, 0.5f); /* blended, top right */
        quad(position, 0.3f, 0.3f, 0.95f, 0.95f, 0.0f);
        glDisable(GL_BLEND);
        glUniform1f(textured, 1.0f); /* textured, bottom right */
        quad(position, 0.3f, -0.95f, 0.95f, -0.3f, 0.0f);
        glUseProgram(second); /* top left, moved there by its uniform */
        glUniform2f(offset, 0.5f, 0.0f);
        quad(position, -1.45f, 0.3f, -0.8f, 0.95f, 0.0f);
        glUseProgram(program);
        glReadPixels(0, 0, kSize, kSize, GL_RGBA, GL_UNSIGNED_BYTE, pixels);
        if (dump) {
            char name[4096];
            snprintf(name, sizeof(name), "%s.%d.rgba", dump, frame);
            FILE *f = fopen(name, "wb");
            if (!f) return 1;
            fwrite(pixels, 1, sizeof(pixels), f);
            fclose(f);
        }
        eglSwapBuffers(egl.display, egl.surface);
        if (sleepMs > 0) {
            struct timespec ts = {sleepMs / 1000, (long)(sleepMs % 1000) * 1000000L};
            nanosleep(&ts, NULL);
        }
    }
    printf("overrides_program: %d frames\n", frames);
    if (shared) {
        eglMakeCurrent(egl.display, egl.surface, egl.surface, egl.context);
        eglDestroyContext(egl.display, drawing);
    }
    headlessEglClose(&egl);
    return 0;
}
