/* State of a chosen size for bench/snapshot_cost.sh: N RGBA textures and N luminance textures of
 * S x S texels and N vertex buffers of S x S x 4 bytes, made in the first frame and drawn from in
 * every frame. Prints the bytes of state it made, then, per frame, the wall time from one swap to
 * the next (the frame the recording starts at carries the snapshot). Headless.
 *
 *   snapshot_bench [--objects N] [--size S] [--frames F] */
#define _POSIX_C_SOURCE 199309L
#include "examples/headless_egl.h"
#include <GLES3/gl3.h>

#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

static double now(void) {
    struct timespec t;
    clock_gettime(CLOCK_MONOTONIC, &t);
    return (double)t.tv_sec * 1e3 + (double)t.tv_nsec / 1e6;
}

static GLuint shader(GLenum type, const char *source) {
    GLuint s = glCreateShader(type);
    glShaderSource(s, 1, &source, NULL);
    glCompileShader(s);
    return s;
}

int main(int argc, char **argv) {
    int objects = 8, size = 256, frames = 12;
    for (int i = 1; i + 1 < argc; i += 2) {
        if (strcmp(argv[i], "--objects") == 0) objects = atoi(argv[i + 1]);
        if (strcmp(argv[i], "--size") == 0) size = atoi(argv[i + 1]);
        if (strcmp(argv[i], "--frames") == 0) frames = atoi(argv[i + 1]);
    }
    HeadlessEgl egl;
    if (!headlessEglOpen(&egl, 3, 128, 128, 0)) return 1;
    const size_t texels = (size_t)size * (size_t)size;
    unsigned char *bytes = malloc(texels * 4);
    GLuint *textures = calloc((size_t)objects * 2, sizeof(GLuint));
    GLuint *buffers = calloc((size_t)objects, sizeof(GLuint));
    glGenTextures(objects * 2, textures);
    glGenBuffers(objects, buffers);
    unsigned seed = 2463534242u;
    for (int i = 0; i < objects; ++i) {
        /* Noise, which does not compress: the trace bytes are then those of the state itself. */
        for (size_t k = 0; k < texels * 4; ++k) {
            seed ^= seed << 13;
            seed ^= seed >> 17;
            seed ^= seed << 5;
            bytes[k] = (unsigned char)(seed >> 24);
        }
        glBindTexture(GL_TEXTURE_2D, textures[2 * i]);
        glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_MIN_FILTER, GL_NEAREST);
        glTexImage2D(GL_TEXTURE_2D, 0, GL_RGBA, size, size, 0, GL_RGBA, GL_UNSIGNED_BYTE, bytes);
        glBindTexture(GL_TEXTURE_2D, textures[2 * i + 1]);
        glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_MIN_FILTER, GL_NEAREST);
        glTexImage2D(GL_TEXTURE_2D, 0, GL_LUMINANCE, size, size, 0, GL_LUMINANCE, GL_UNSIGNED_BYTE, bytes);
        glBindBuffer(GL_ARRAY_BUFFER, buffers[i]);
        glBufferData(GL_ARRAY_BUFFER, (GLsizeiptr)(texels * 4), bytes, GL_STATIC_DRAW);
    }
    printf("state bytes %llu\n", (unsigned long long)(texels * 9 * (size_t)objects));
    GLuint program = glCreateProgram();
    glAttachShader(program, shader(GL_VERTEX_SHADER,
                                   "#version 300 es\n"
                                   "layout(location = 0) in vec2 p;\nout vec2 uv;\n"
                                   "void main() { uv = p * 0.5 + 0.5; gl_Position = vec4(p, 0.0, 1.0); }\n"));
    glAttachShader(program, shader(GL_FRAGMENT_SHADER,
                                   "#version 300 es\nprecision mediump float;\n"
                                   "uniform sampler2D a;\nuniform sampler2D b;\nin vec2 uv;\n"
                                   "out vec4 c;\nvoid main() { c = texture(a, uv) * texture(b, uv).r; }\n"));
    glLinkProgram(program);
    glUseProgram(program);
    glUniform1i(glGetUniformLocation(program, "a"), 0);
    glUniform1i(glGetUniformLocation(program, "b"), 1);
    glEnableVertexAttribArray(0);
    double last = now();
    for (int frame = 0; frame < frames; ++frame) {
        glClear(GL_COLOR_BUFFER_BIT);
        for (int i = 0; i < objects; ++i) {
            glActiveTexture(GL_TEXTURE0);
            glBindTexture(GL_TEXTURE_2D, textures[2 * i]);
            glActiveTexture(GL_TEXTURE1);
            glBindTexture(GL_TEXTURE_2D, textures[2 * i + 1]);
            glBindBuffer(GL_ARRAY_BUFFER, buffers[i]);
            glVertexAttribPointer(0, 2, GL_UNSIGNED_BYTE, GL_TRUE, 0, 0);
            glDrawArrays(GL_TRIANGLES, 0, 3);
        }
        eglSwapBuffers(egl.display, egl.surface);
        glFinish();
        const double t = now();
        printf("frame %d %.3f ms\n", frame, t - last);
        fflush(stdout);
        last = t;
    }
    headlessEglClose(&egl);
    free(bytes);
    free(textures);
    free(buffers);
    return 0;
}
