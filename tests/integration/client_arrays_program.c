/* Draws from client memory with known contents, so that a test can compare what a trace holds for
 * each draw with what the program passed:
 *   1. glDrawArrays(first 10, count 5): a tightly packed and a strided attribute
 *   2. glDrawElements with client indices {3, 0, 7} (GL_UNSIGNED_SHORT)
 *   3. glDrawElements with indices {1, 9, 4, 2} in an element array buffer
 *   4. glDrawArraysInstanced(count 4, 10 instances) with a third attribute of divisor 3
 * Attribute 0: vec3 per vertex, component c of vertex v = v * 10 + c. Attribute 1: vec2 inside an
 * interleaved array of 8 floats per vertex, at float 3, = (v + 0.5, -v). Attribute 2: 4 bytes per
 * instance, byte b of instance i = i * 4 + b. */
#include "examples/headless_egl.h"
#include <GLES3/gl3.h>

#include <stdio.h>

enum { kVertices = 32, kInstances = 10 };

static const char *kVertex = "#version 300 es\n"
                             "in vec3 a0;\nin vec2 a1;\nin vec4 a2;\n"
                             "void main() { gl_PointSize = 1.0; gl_Position = vec4(a0 * 0.01 + vec3(a1, 0.0) "
                             "* 0.01 + a2.xyz, 1.0); }\n";
static const char *kFragment =
    "#version 300 es\nprecision mediump float;\nout vec4 c;\nvoid main() { c = vec4(1.0); }\n";

int main(void) {
    HeadlessEgl egl;
    if (!headlessEglOpen(&egl, 3, 16, 16, 0)) return 1;
    EGLDisplay display = egl.display;
    EGLSurface surface = egl.surface;

    GLuint program = glCreateProgram();
    GLuint shaders[2] = {glCreateShader(GL_VERTEX_SHADER), glCreateShader(GL_FRAGMENT_SHADER)};
    glShaderSource(shaders[0], 1, &kVertex, NULL);
    glShaderSource(shaders[1], 1, &kFragment, NULL);
    for (int i = 0; i < 2; ++i) {
        glCompileShader(shaders[i]);
        glAttachShader(program, shaders[i]);
    }
    glBindAttribLocation(program, 0, "a0");
    glBindAttribLocation(program, 1, "a1");
    glBindAttribLocation(program, 2, "a2");
    glLinkProgram(program);
    glUseProgram(program);

    static float packed[kVertices * 3];
    static float interleaved[kVertices * 8];
    static unsigned char perInstance[kInstances * 4];
    for (int v = 0; v < kVertices; ++v) {
        for (int c = 0; c < 3; ++c)
            packed[v * 3 + c] = (float)(v * 10 + c);
        for (int k = 0; k < 8; ++k)
            interleaved[v * 8 + k] = 1000.0f + (float)k;
        interleaved[v * 8 + 3] = (float)v + 0.5f;
        interleaved[v * 8 + 4] = -(float)v;
    }
    for (int i = 0; i < kInstances * 4; ++i)
        perInstance[i] = (unsigned char)i;

    glBindBuffer(GL_ARRAY_BUFFER, 0);
    glVertexAttribPointer(0, 3, GL_FLOAT, GL_FALSE, 0, packed);
    glVertexAttribPointer(1, 2, GL_FLOAT, GL_FALSE, 8 * sizeof(float), interleaved + 3);
    glEnableVertexAttribArray(0);
    glEnableVertexAttribArray(1);

    glDrawArrays(GL_POINTS, 10, 5);

    static const GLushort clientIndices[3] = {3, 0, 7};
    glDrawElements(GL_POINTS, 3, GL_UNSIGNED_SHORT, clientIndices);

    static const GLushort bufferIndices[4] = {1, 9, 4, 2};
    GLuint elements;
    glGenBuffers(1, &elements);
    glBindBuffer(GL_ELEMENT_ARRAY_BUFFER, elements);
    glBufferData(GL_ELEMENT_ARRAY_BUFFER, sizeof(bufferIndices), bufferIndices, GL_STATIC_DRAW);
    glDrawElements(GL_POINTS, 4, GL_UNSIGNED_SHORT, (const void *)0);
    glBindBuffer(GL_ELEMENT_ARRAY_BUFFER, 0);

    glVertexAttribPointer(2, 4, GL_UNSIGNED_BYTE, GL_TRUE, 0, perInstance);
    glVertexAttribDivisor(2, 3);
    glEnableVertexAttribArray(2);
    glDrawArraysInstanced(GL_POINTS, 0, 4, kInstances);

    glFinish();
    printf("client_arrays_program: error 0x%x\n", glGetError());
    eglSwapBuffers(display, surface);
    headlessEglClose(&egl);
    return 0;
}
