/* An OpenGL ES 3.1 program for the player's tests: every frame uses a compute shader, transform
 * feedback, a uniform buffer, instanced draws (from a buffer and from a client array), multiple
 * render targets, a buffer written through a mapping and a texture upload. Headless, a few frames.
 *
 *   es3_program [--frames N] */
#include "examples/headless_egl.h"
#include <GLES3/gl31.h>
#include "tests/common/gl_program.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

enum { kWidth = 64, kHeight = 48, kInstances = 5 };

/* Positions of a fan of triangles, computed on the GPU. */
static const char *kCompute =
    "#version 310 es\n"
    "layout(local_size_x = 6) in;\n"
    "layout(std430, binding = 0) buffer Out { vec4 v[]; };\n"
    "uniform float phase;\n"
    "void main() {\n"
    "  uint i = gl_GlobalInvocationID.x;\n"
    "  float a = phase + float(i / 3u) * 1.1 + float(i % 3u) * 0.5;\n"
    "  v[i] = (i % 3u == 0u) ? vec4(0.0, 0.0, 0.0, 1.0) : vec4(0.6 * cos(a), 0.6 * sin(a), 0.0, 1.0);\n"
    "}\n";

/* Transform feedback: scales and shifts what it is given. */
static const char *kFeedbackVs =
    "#version 300 es\n"
    "in vec4 pos;\n"
    "out vec4 moved;\n"
    "uniform float shift;\n"
    "void main() { moved = vec4(pos.xy * 0.5 + vec2(shift, 0.3), 0.0, 1.0); gl_Position = moved; }\n";
static const char *kFeedbackFs = "#version 300 es\n"
                                 "precision mediump float;\n"
                                 "out vec4 c;\n"
                                 "void main() { c = vec4(1.0); }\n";

/* Instanced, coloured from a uniform block, writing two render targets. */
static const char *kSceneVs =
    "#version 300 es\n"
    "layout(location = 0) in vec4 pos;\n"
    "layout(location = 1) in vec2 offset;\n"
    "layout(location = 2) in float shade;\n"
    "out float v_shade;\n"
    "void main() { v_shade = shade; gl_Position = vec4(pos.xy * 0.3 + offset, 0.0, 1.0); }\n";
static const char *kSceneFs = "#version 300 es\n"
                              "precision mediump float;\n"
                              "layout(std140) uniform Colours { vec4 first; vec4 second; };\n"
                              "uniform sampler2D tex;\n"
                              "in float v_shade;\n"
                              "layout(location = 0) out vec4 out0;\n"
                              "layout(location = 1) out vec4 out1;\n"
                              "void main() {\n"
                              "  vec4 t = texture(tex, vec2(v_shade, 0.5));\n"
                              "  out0 = first * v_shade + t * 0.25;\n"
                              "  out1 = second * (1.0 - v_shade) + t.bgra * 0.25;\n"
                              "}\n";

int main(int argc, char **argv) {
    int frames = 4;
    for (int i = 1; i + 1 < argc; i += 2)
        if (strcmp(argv[i], "--frames") == 0) frames = atoi(argv[i + 1]);
    HeadlessEgl egl;
    if (!headlessEglOpen(&egl, 3, kWidth, kHeight, 0)) return 1;
    /* An ES 3.1 context: compute shaders. */
    eglMakeCurrent(egl.display, EGL_NO_SURFACE, EGL_NO_SURFACE, EGL_NO_CONTEXT);
    eglDestroyContext(egl.display, egl.context);
    const EGLint attributes[] = {EGL_CONTEXT_MAJOR_VERSION, 3, EGL_CONTEXT_MINOR_VERSION, 1, EGL_NONE};
    egl.context = eglCreateContext(egl.display, egl.config, EGL_NO_CONTEXT, attributes);
    if (!eglMakeCurrent(egl.display, egl.surface, egl.surface, egl.context)) return 1;

    GLuint compute = glCreateProgram();
    glAttachShader(compute, compileShader(GL_COMPUTE_SHADER, kCompute));
    linkProgram(compute);
    GLuint feedback = attachShaders(kFeedbackVs, kFeedbackFs);
    const char *varyings[] = {"moved"};
    glTransformFeedbackVaryings(feedback, 1, varyings, GL_INTERLEAVED_ATTRIBS);
    linkProgram(feedback);
    GLuint scene = linkProgram(attachShaders(kSceneVs, kSceneFs));

    GLuint buffers[5];
    glGenBuffers(5, buffers);
    GLuint fan = buffers[0], moved = buffers[1], offsets = buffers[2], colours = buffers[3],
           mapped = buffers[4];
    glBindBuffer(GL_SHADER_STORAGE_BUFFER, fan);
    glBufferData(GL_SHADER_STORAGE_BUFFER, 18 * 16, NULL, GL_DYNAMIC_DRAW);
    glBindBuffer(GL_ARRAY_BUFFER, moved);
    glBufferData(GL_ARRAY_BUFFER, 18 * 16, NULL, GL_DYNAMIC_COPY);
    const float offsetData[kInstances * 2] = {-0.6f, -0.5f, -0.3f, 0.4f, 0.0f,
                                              -0.2f, 0.3f,  0.5f,  0.6f, -0.4f};
    glBindBuffer(GL_ARRAY_BUFFER, offsets);
    glBufferData(GL_ARRAY_BUFFER, sizeof(offsetData), offsetData, GL_STATIC_DRAW);
    glBindBuffer(GL_UNIFORM_BUFFER, colours);
    glBufferData(GL_UNIFORM_BUFFER, 32, NULL, GL_DYNAMIC_DRAW);
    glBindBuffer(GL_ARRAY_BUFFER, mapped);
    glBufferData(GL_ARRAY_BUFFER, 18 * 16, NULL, GL_DYNAMIC_DRAW);

    GLuint block = glGetUniformBlockIndex(scene, "Colours");
    glUniformBlockBinding(scene, block, 2);
    glBindBufferBase(GL_UNIFORM_BUFFER, 2, colours);

    GLuint texture;
    glGenTextures(1, &texture);
    glBindTexture(GL_TEXTURE_2D, texture);
    glTexStorage2D(GL_TEXTURE_2D, 1, GL_RGBA8, 8, 1);
    glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_MIN_FILTER, GL_NEAREST);
    glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_MAG_FILTER, GL_NEAREST);

    /* Two render targets. */
    GLuint fbo, targets[2];
    glGenFramebuffers(1, &fbo);
    glGenRenderbuffers(2, targets);
    glBindFramebuffer(GL_FRAMEBUFFER, fbo);
    for (int i = 0; i < 2; ++i) {
        glBindRenderbuffer(GL_RENDERBUFFER, targets[i]);
        glRenderbufferStorage(GL_RENDERBUFFER, GL_RGBA8, kWidth, kHeight);
        glFramebufferRenderbuffer(GL_FRAMEBUFFER, GL_COLOR_ATTACHMENT0 + i, GL_RENDERBUFFER, targets[i]);
    }
    const GLenum drawBuffers[2] = {GL_COLOR_ATTACHMENT0, GL_COLOR_ATTACHMENT1};
    glDrawBuffers(2, drawBuffers);
    if (glCheckFramebufferStatus(GL_FRAMEBUFFER) != GL_FRAMEBUFFER_COMPLETE) return 1;

    GLint phase = glGetUniformLocation(compute, "phase");
    GLint shift = glGetUniformLocation(feedback, "shift");
    GLint pos = glGetAttribLocation(feedback, "pos");
    GLint sampler = glGetUniformLocation(scene, "tex");

    for (int frame = 0; frame < frames; ++frame) {
        /* Compute: the fan's corners. */
        glUseProgram(compute);
        glUniform1f(phase, 0.4f * (float)frame);
        glBindBufferBase(GL_SHADER_STORAGE_BUFFER, 0, fan);
        glDispatchCompute(3, 1, 1);
        glMemoryBarrier(GL_VERTEX_ATTRIB_ARRAY_BARRIER_BIT);

        /* Transform feedback: the fan moved into `moved`, nothing drawn. */
        glUseProgram(feedback);
        glUniform1f(shift, -0.2f + 0.1f * (float)frame);
        glBindBuffer(GL_ARRAY_BUFFER, fan);
        glEnableVertexAttribArray((GLuint)pos);
        glVertexAttribPointer((GLuint)pos, 4, GL_FLOAT, GL_FALSE, 0, 0);
        glBindBufferBase(GL_TRANSFORM_FEEDBACK_BUFFER, 0, moved);
        glEnable(GL_RASTERIZER_DISCARD);
        glBeginTransformFeedback(GL_TRIANGLES);
        glDrawArrays(GL_TRIANGLES, 0, 18);
        glEndTransformFeedback();
        glDisable(GL_RASTERIZER_DISCARD);
        glBindBufferBase(GL_TRANSFORM_FEEDBACK_BUFFER, 0, 0);

        /* The uniform block, written through a mapping; the texture uploaded. */
        glBindBuffer(GL_UNIFORM_BUFFER, colours);
        float *c = (float *)glMapBufferRange(GL_UNIFORM_BUFFER, 0, 32,
                                             GL_MAP_WRITE_BIT | GL_MAP_INVALIDATE_BUFFER_BIT);
        const float block[8] = {1.0f, 0.2f * (float)frame, 0.1f, 1.0f, 0.1f, 0.9f, 0.3f * (float)frame, 1.0f};
        memcpy(c, block, sizeof(block));
        glUnmapBuffer(GL_UNIFORM_BUFFER);
        unsigned char texels[8 * 4];
        for (int i = 0; i < 32; ++i)
            texels[i] = (unsigned char)(i * 8 + frame * 40);
        glTexSubImage2D(GL_TEXTURE_2D, 0, 0, 0, 8, 1, GL_RGBA, GL_UNSIGNED_BYTE, texels);

        /* A second copy of the fan, written through an explicitly flushed mapping. */
        glBindBuffer(GL_COPY_READ_BUFFER, moved);
        glBindBuffer(GL_ARRAY_BUFFER, mapped);
        float *m = (float *)glMapBufferRange(GL_ARRAY_BUFFER, 0, 18 * 16,
                                             GL_MAP_WRITE_BIT | GL_MAP_FLUSH_EXPLICIT_BIT);
        for (int i = 0; i < 18; ++i) {
            m[4 * i + 0] = (float)(i % 6) * 0.1f - 0.3f;
            m[4 * i + 1] = (float)(i / 6) * 0.2f - 0.7f + 0.05f * (float)frame;
            m[4 * i + 2] = 0.0f;
            m[4 * i + 3] = 1.0f;
        }
        glFlushMappedBufferRange(GL_ARRAY_BUFFER, 0, 18 * 16);
        glUnmapBuffer(GL_ARRAY_BUFFER);

        /* Instanced draws into both render targets: the moved fan with offsets from a buffer and
         * shades from a client array, then the mapped copy. */
        glBindFramebuffer(GL_FRAMEBUFFER, fbo);
        glViewport(0, 0, kWidth, kHeight);
        glClearColor(0.05f, 0.05f, 0.1f * (float)frame, 1.0f);
        glClear(GL_COLOR_BUFFER_BIT);
        glUseProgram(scene);
        glActiveTexture(GL_TEXTURE0);
        glBindTexture(GL_TEXTURE_2D, texture);
        glUniform1i(sampler, 0);
        glBindBuffer(GL_ARRAY_BUFFER, moved);
        glEnableVertexAttribArray(0);
        glVertexAttribPointer(0, 4, GL_FLOAT, GL_FALSE, 0, 0);
        glBindBuffer(GL_ARRAY_BUFFER, offsets);
        glEnableVertexAttribArray(1);
        glVertexAttribPointer(1, 2, GL_FLOAT, GL_FALSE, 0, 0);
        glVertexAttribDivisor(1, 1);
        glBindBuffer(GL_ARRAY_BUFFER, 0);
        const float shades[kInstances] = {0.1f, 0.3f, 0.5f, 0.7f, 0.9f};
        glEnableVertexAttribArray(2);
        glVertexAttribPointer(2, 1, GL_FLOAT, GL_FALSE, 0, shades);
        glVertexAttribDivisor(2, 1);
        glDrawArraysInstanced(GL_TRIANGLES, 0, 18, kInstances);
        glBindBuffer(GL_ARRAY_BUFFER, mapped);
        glVertexAttribPointer(0, 4, GL_FLOAT, GL_FALSE, 0, 0);
        glDrawArraysInstanced(GL_TRIANGLES, 0, 18, 2);

        /* Both targets side by side in the window. */
        glBindFramebuffer(GL_DRAW_FRAMEBUFFER, 0);
        glClearColor(0.0f, 0.0f, 0.0f, 1.0f);
        glClear(GL_COLOR_BUFFER_BIT);
        glReadBuffer(GL_COLOR_ATTACHMENT0);
        glBlitFramebuffer(0, 0, kWidth, kHeight, 0, 0, kWidth / 2, kHeight, GL_COLOR_BUFFER_BIT, GL_NEAREST);
        glReadBuffer(GL_COLOR_ATTACHMENT1);
        glBlitFramebuffer(0, 0, kWidth, kHeight, kWidth / 2, 0, kWidth, kHeight, GL_COLOR_BUFFER_BIT,
                          GL_NEAREST);
        glBindFramebuffer(GL_FRAMEBUFFER, 0);
        eglSwapBuffers(egl.display, egl.surface);
    }
    GLenum error = glGetError();
    headlessEglClose(&egl);
    if (error != GL_NO_ERROR) {
        fprintf(stderr, "GL error 0x%x\n", error);
        return 1;
    }
    printf("drew %d frames\n", frames);
    return 0;
}
