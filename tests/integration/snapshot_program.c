/* An OpenGL ES 3.1 program whose objects are all made in its first frame and only used after it,
 * for the tests of recording that starts late: every frame draws from textures of formats a
 * framebuffer cannot read (luminance, alpha, luminance-alpha in 2D, cube and array textures, a
 * depth texture and a depth-stencil texture whose contents the GPU drew, half floats, integers), a
 * colour and a depth renderbuffer drawn once, a program pipeline of separable programs and a transform
 * feedback object with its own buffer binding; an EGL image of a texture and an EGL fence sync
 * are made with them, and a pbuffer of a config no context uses. A trace that starts after the first frame
 * replays to the same pixels only when all of them were saved. Headless.
 *
 *   snapshot_program [--frames N] */
#include "examples/headless_egl.h"
#include <GLES3/gl31.h>
#include "tests/common/gl_program.h"

#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

enum { kWidth = 96, kHeight = 64, kSize = 8 };

/* A quad over the rectangle `rect` (x0, y0, x1, y1 in clip space). */
static const char *kQuadVs = "#version 310 es\n"
                             "uniform vec4 rect;\n"
                             "out vec2 uv;\n"
                             "void main() {\n"
                             "  vec2 c = vec2(float(gl_VertexID & 1), float((gl_VertexID >> 1) & 1));\n"
                             "  uv = c;\n"
                             "  gl_Position = vec4(mix(rect.xy, rect.zw, c), 0.0, 1.0);\n"
                             "}\n";

static GLuint quadProgram(const char *body) {
    char fs[2048];
    snprintf(
        fs, sizeof(fs),
        "#version 310 es\nprecision highp float;\nprecision highp int;\nin vec2 uv;\nout vec4 colour;\n%s",
        body);
    return linkProgram(attachShaders(kQuadVs, fs));
}

static void cell(GLuint program, int index, int frame) {
    const float x = -1.0f + 0.25f * (float)(index % 8), y = -1.0f + 0.5f * (float)(index / 8);
    const float shift = 0.01f * (float)(frame % 5);
    glUseProgram(program);
    glUniform4f(glGetUniformLocation(program, "rect"), x + shift, y, x + 0.24f + shift, y + 0.45f);
    glDrawArrays(GL_TRIANGLE_STRIP, 0, 4);
}

static GLuint texture(GLenum target) {
    GLuint t;
    glGenTextures(1, &t);
    glBindTexture(target, t);
    glTexParameteri(target, GL_TEXTURE_MIN_FILTER, GL_NEAREST);
    glTexParameteri(target, GL_TEXTURE_MAG_FILTER, GL_NEAREST);
    return t;
}

/* Bytes that differ from texel to texel. */
static void pattern(unsigned char *out, int count, int seed) {
    for (int i = 0; i < count; ++i)
        out[i] = (unsigned char)((i * 37 + seed * 91 + (i / 5) * 13) & 0xFF);
}

int main(int argc, char **argv) {
    int frames = 4;
    for (int i = 1; i + 1 < argc; i += 2)
        if (strcmp(argv[i], "--frames") == 0) frames = atoi(argv[i + 1]);
    HeadlessEgl egl;
    if (!headlessEglOpen(&egl, 3, kWidth, kHeight, 0)) return 1;
    unsigned char bytes[6 * kSize * kSize * 4];

    /* Luminance (2D), alpha (2D array of two layers), luminance-alpha (cube map). */
    GLuint luminance = texture(GL_TEXTURE_2D);
    pattern(bytes, kSize * kSize, 1);
    glTexImage2D(GL_TEXTURE_2D, 0, GL_LUMINANCE, kSize, kSize, 0, GL_LUMINANCE, GL_UNSIGNED_BYTE, bytes);
    GLuint alpha = texture(GL_TEXTURE_2D_ARRAY);
    pattern(bytes, 2 * kSize * kSize, 2);
    glTexImage3D(GL_TEXTURE_2D_ARRAY, 0, GL_ALPHA, kSize, kSize, 2, 0, GL_ALPHA, GL_UNSIGNED_BYTE, bytes);
    GLuint cube = texture(GL_TEXTURE_CUBE_MAP);
    for (int face = 0; face < 6; ++face) {
        pattern(bytes, 2 * kSize * kSize, 3 + face);
        glTexImage2D(GL_TEXTURE_CUBE_MAP_POSITIVE_X + face, 0, GL_LUMINANCE_ALPHA, kSize, kSize, 0,
                     GL_LUMINANCE_ALPHA, GL_UNSIGNED_BYTE, bytes);
    }
    /* Half floats and unsigned integers. */
    GLuint half = texture(GL_TEXTURE_2D);
    glTexStorage2D(GL_TEXTURE_2D, 1, GL_RGBA16F, kSize, kSize);
    float floats[kSize * kSize * 4];
    for (int i = 0; i < kSize * kSize * 4; ++i)
        floats[i] = (float)((i * 7) % 17) / 16.0f - 0.25f;
    glTexSubImage2D(GL_TEXTURE_2D, 0, 0, 0, kSize, kSize, GL_RGBA, GL_FLOAT, floats);
    GLuint integer = texture(GL_TEXTURE_2D);
    glTexStorage2D(GL_TEXTURE_2D, 1, GL_RG32UI, kSize, kSize);
    unsigned words[kSize * kSize * 2];
    for (int i = 0; i < kSize * kSize * 2; ++i)
        words[i] = (unsigned)(i * 2654435761u);
    glTexSubImage2D(GL_TEXTURE_2D, 0, 0, 0, kSize, kSize, GL_RG_INTEGER, GL_UNSIGNED_INT, words);

    /* A depth texture and a depth-stencil texture whose contents only the GPU wrote: a slanted
     * triangle drawn into them, the stencil counting overlaps. */
    GLuint depth = texture(GL_TEXTURE_2D);
    glTexStorage2D(GL_TEXTURE_2D, 1, GL_DEPTH_COMPONENT24, kSize * 2, kSize * 2);
    GLuint depthStencil = texture(GL_TEXTURE_2D);
    glTexStorage2D(GL_TEXTURE_2D, 1, GL_DEPTH24_STENCIL8, kSize * 2, kSize * 2);
    glTexParameteri(GL_TEXTURE_2D, GL_DEPTH_STENCIL_TEXTURE_MODE, GL_STENCIL_INDEX);
    GLuint slant = glCreateProgram();
    glAttachShader(
        slant, compileShader(GL_VERTEX_SHADER,
                             "#version 310 es\n"
                             "uniform float turn;\n"
                             "void main() {\n"
                             "  vec2 p = vec2(float(gl_VertexID & 1), float(gl_VertexID >> 1)) * 2.4 - 1.2;\n"
                             "  gl_Position = vec4(p.x + turn, p.y, p.x * 0.7 - p.y * 0.2, 1.0);\n"
                             "}\n"));
    glAttachShader(slant, compileShader(GL_FRAGMENT_SHADER, "#version 310 es\nprecision mediump float;\n"
                                                            "out vec4 c;\nvoid main() { c = vec4(1.0); }\n"));
    linkProgram(slant);
    GLuint fbo;
    glGenFramebuffers(1, &fbo);
    glBindFramebuffer(GL_FRAMEBUFFER, fbo);
    glViewport(0, 0, kSize * 2, kSize * 2);
    glUseProgram(slant);
    glEnable(GL_DEPTH_TEST);
    glEnable(GL_STENCIL_TEST);
    glStencilOp(GL_KEEP, GL_INCR, GL_INCR);
    glStencilFunc(GL_ALWAYS, 0, 0xFF);
    GLuint targets[2] = {depth, depthStencil};
    for (int i = 0; i < 2; ++i) {
        glFramebufferTexture2D(GL_FRAMEBUFFER, i ? GL_DEPTH_STENCIL_ATTACHMENT : GL_DEPTH_ATTACHMENT,
                               GL_TEXTURE_2D, targets[i], 0);
        glClearDepthf(0.75f);
        glClearStencil(3);
        glClear(GL_DEPTH_BUFFER_BIT | GL_STENCIL_BUFFER_BIT);
        for (int k = 0; k < 3; ++k) {
            glUniform1f(glGetUniformLocation(slant, "turn"), 0.3f * (float)k - 0.3f);
            glDrawArrays(GL_TRIANGLE_STRIP, 0, 3);
        }
    }
    /* A depth renderbuffer drawn the same way, copied each frame into a depth texture to be shown. */
    GLuint depthRb, depthRbFbo, depthCopy = texture(GL_TEXTURE_2D), copyFbo;
    glTexStorage2D(GL_TEXTURE_2D, 1, GL_DEPTH_COMPONENT16, kSize * 2, kSize * 2);
    glGenRenderbuffers(1, &depthRb);
    glBindRenderbuffer(GL_RENDERBUFFER, depthRb);
    glRenderbufferStorage(GL_RENDERBUFFER, GL_DEPTH_COMPONENT16, kSize * 2, kSize * 2);
    glGenFramebuffers(1, &depthRbFbo);
    glBindFramebuffer(GL_FRAMEBUFFER, depthRbFbo);
    glFramebufferRenderbuffer(GL_FRAMEBUFFER, GL_DEPTH_ATTACHMENT, GL_RENDERBUFFER, depthRb);
    glClearDepthf(0.6f);
    glClear(GL_DEPTH_BUFFER_BIT);
    glUniform1f(glGetUniformLocation(slant, "turn"), 0.1f);
    glDrawArrays(GL_TRIANGLE_STRIP, 0, 3);
    glGenFramebuffers(1, &copyFbo);
    glBindFramebuffer(GL_FRAMEBUFFER, copyFbo);
    glFramebufferTexture2D(GL_FRAMEBUFFER, GL_DEPTH_ATTACHMENT, GL_TEXTURE_2D, depthCopy, 0);
    glDisable(GL_DEPTH_TEST);
    glDisable(GL_STENCIL_TEST);
    glClearDepthf(1.0f);
    glClearStencil(0);

    /* A colour renderbuffer drawn once, shown in every frame. */
    GLuint colour;
    glGenRenderbuffers(1, &colour);
    glBindRenderbuffer(GL_RENDERBUFFER, colour);
    glRenderbufferStorage(GL_RENDERBUFFER, GL_RGBA8, kSize * 3, kSize * 2);
    GLuint drawn;
    glGenFramebuffers(1, &drawn);
    glBindFramebuffer(GL_FRAMEBUFFER, drawn);
    glFramebufferRenderbuffer(GL_FRAMEBUFFER, GL_COLOR_ATTACHMENT0, GL_RENDERBUFFER, colour);
    glViewport(0, 0, kSize * 3, kSize * 2);
    glClearColor(0.2f, 0.4f, 0.6f, 1.0f);
    glClear(GL_COLOR_BUFFER_BIT);
    GLuint flat = quadProgram("uniform vec4 tint;\nvoid main() { colour = tint * vec4(uv, 1.0, 1.0); }\n");
    glUseProgram(flat);
    glUniform4f(glGetUniformLocation(flat, "tint"), 1.0f, 0.5f, 0.25f, 1.0f);
    glUniform4f(glGetUniformLocation(flat, "rect"), -0.5f, -0.8f, 0.9f, 0.6f);
    glDrawArrays(GL_TRIANGLE_STRIP, 0, 4);
    glBindFramebuffer(GL_FRAMEBUFFER, 0);
    glViewport(0, 0, kWidth, kHeight);

    GLuint show = quadProgram("uniform sampler2D tex;\nvoid main() { colour = texture(tex, uv); }\n");
    GLuint showAlpha = quadProgram("uniform highp sampler2DArray tex;\n"
                                   "void main() { colour = vec4(texture(tex, vec3(uv, 1.0)).a, "
                                   "texture(tex, vec3(uv, 0.0)).a, 0.5, 1.0); }\n");
    GLuint showCube = quadProgram("uniform highp samplerCube tex;\n"
                                  "void main() { vec4 t = texture(tex, vec3(uv * 2.0 - 1.0, 0.6));\n"
                                  "  vec4 u = texture(tex, vec3(-0.7, uv.yx * 2.0 - 1.0));\n"
                                  "  colour = vec4(t.r, t.a, u.r, u.a); }\n");
    GLuint showHalf = quadProgram("uniform sampler2D tex;\n"
                                  "void main() { colour = abs(texture(tex, uv)) * 1.5; }\n");
    GLuint showInteger = quadProgram("uniform highp usampler2D tex;\n"
                                     "void main() { uvec4 t = texture(tex, uv);\n"
                                     "  colour = vec4(float(t.r & 255u), float((t.g >> 8) & 255u), "
                                     "float(t.r >> 24), 255.0) / 255.0; }\n");
    GLuint showDepth = quadProgram("uniform highp sampler2D tex;\n"
                                   "void main() { float d = texture(tex, uv).r;\n"
                                   "  colour = vec4(d, fract(d * 256.0), fract(d * 65536.0), 1.0); }\n");
    GLuint showStencil =
        quadProgram("uniform highp usampler2D tex;\n"
                    "void main() { colour = vec4(float(texture(tex, uv).r) / 8.0, 0.2, 0.7, 1.0); }\n");

    /* A program pipeline of two separable programs: the quad and a colour from a uniform. */
    const char *pipelineVs[] = {"#version 310 es\n"
                                "uniform vec4 rect;\n"
                                "void main() {\n"
                                "  vec2 c = vec2(float(gl_VertexID & 1), float((gl_VertexID >> 1) & 1));\n"
                                "  gl_Position = vec4(mix(rect.xy, rect.zw, c), 0.0, 1.0);\n"
                                "}\n"};
    const char *pipelineFs[] = {"#version 310 es\nprecision mediump float;\nuniform vec4 tint;\n"
                                "out vec4 c;\nvoid main() { c = tint; }\n"};
    GLuint separateVs = glCreateShaderProgramv(GL_VERTEX_SHADER, 1, pipelineVs);
    GLuint separateFs = glCreateShaderProgramv(GL_FRAGMENT_SHADER, 1, pipelineFs);
    glProgramUniform4f(separateVs, glGetUniformLocation(separateVs, "rect"), 0.55f, 0.1f, 0.95f, 0.4f);
    glProgramUniform4f(separateFs, glGetUniformLocation(separateFs, "tint"), 0.9f, 0.1f, 0.8f, 1.0f);
    GLuint pipeline;
    glGenProgramPipelines(1, &pipeline);
    glUseProgramStages(pipeline, GL_VERTEX_SHADER_BIT, separateVs);
    glUseProgramStages(pipeline, GL_FRAGMENT_SHADER_BIT, separateFs);

    /* A transform feedback object with its own buffer: each frame captures a moving triangle and
     * draws what it captured. */
    GLuint capture = glCreateProgram();
    glAttachShader(capture, compileShader(GL_VERTEX_SHADER,
                                          "#version 310 es\n"
                                          "uniform float t;\nout vec4 p;\n"
                                          "void main() { p = vec4(0.2 + 0.1 * float(gl_VertexID) + t, "
                                          "-0.9 + 0.3 * float(gl_VertexID & 1), 0.0, 1.0); "
                                          "gl_Position = p; }\n"));
    glAttachShader(capture,
                   compileShader(GL_FRAGMENT_SHADER, "#version 310 es\nprecision mediump float;\n"
                                                     "out vec4 c;\nvoid main() { c = vec4(1.0); }\n"));
    const char *varyings[] = {"p"};
    glTransformFeedbackVaryings(capture, 1, varyings, GL_INTERLEAVED_ATTRIBS);
    linkProgram(capture);
    GLuint captured;
    glGenBuffers(1, &captured);
    glBindBuffer(GL_ARRAY_BUFFER, captured);
    glBufferData(GL_ARRAY_BUFFER, 3 * 16, NULL, GL_DYNAMIC_COPY);
    glBindBuffer(GL_ARRAY_BUFFER, 0);
    GLuint feedback;
    glGenTransformFeedbacks(1, &feedback);
    glBindTransformFeedback(GL_TRANSFORM_FEEDBACK, feedback);
    glBindBufferBase(GL_TRANSFORM_FEEDBACK_BUFFER, 0, captured);
    glBindTransformFeedback(GL_TRANSFORM_FEEDBACK, 0);
    GLuint drawCaptured = glCreateProgram();
    glAttachShader(drawCaptured,
                   compileShader(GL_VERTEX_SHADER, "#version 310 es\nlayout(location = 0) in vec4 p;\n"
                                                   "void main() { gl_Position = p; }\n"));
    glAttachShader(drawCaptured,
                   compileShader(GL_FRAGMENT_SHADER,
                                 "#version 310 es\nprecision mediump float;\n"
                                 "out vec4 c;\nvoid main() { c = vec4(0.1, 0.9, 0.3, 1.0); }\n"));
    linkProgram(drawCaptured);
    GLuint vao;
    glGenVertexArrays(1, &vao);
    glBindVertexArray(vao);
    glBindBuffer(GL_ARRAY_BUFFER, captured);
    glVertexAttribPointer(0, 4, GL_FLOAT, GL_FALSE, 0, 0);
    glEnableVertexAttribArray(0);
    glBindBuffer(GL_ARRAY_BUFFER, 0);
    glBindVertexArray(0);

    /* An EGL image of an RGBA texture and a fence: made again by their creation calls. */
    GLuint source = texture(GL_TEXTURE_2D);
    pattern(bytes, kSize * kSize * 4, 9);
    glTexImage2D(GL_TEXTURE_2D, 0, GL_RGBA, kSize, kSize, 0, GL_RGBA, GL_UNSIGNED_BYTE, bytes);
    EGLImage image =
        eglCreateImage(egl.display, egl.context, EGL_GL_TEXTURE_2D, (EGLClientBuffer)(uintptr_t)source, NULL);
    EGLSync fence = eglCreateSync(egl.display, EGL_SYNC_FENCE, NULL);
    if (image == EGL_NO_IMAGE || fence == EGL_NO_SYNC) {
        fprintf(stderr, "no EGL image or sync: 0x%x\n", eglGetError());
        return 1;
    }

    /* A pbuffer of another config than the context's, which no context uses. */
    const EGLint want[] = {EGL_SURFACE_TYPE,
                           EGL_PBUFFER_BIT,
                           EGL_RENDERABLE_TYPE,
                           EGL_OPENGL_ES2_BIT,
                           EGL_DEPTH_SIZE,
                           24,
                           EGL_STENCIL_SIZE,
                           8,
                           EGL_NONE};
    EGLConfig configs[16];
    EGLint count = 0;
    eglChooseConfig(egl.display, want, configs, 16, &count);
    EGLConfig other = NULL;
    for (int i = 0; i < count && !other; ++i)
        if (configs[i] != egl.config) other = configs[i];
    const EGLint spareSize[] = {EGL_WIDTH, 16, EGL_HEIGHT, 16, EGL_NONE};
    EGLSurface spare = other ? eglCreatePbufferSurface(egl.display, other, spareSize) : EGL_NO_SURFACE;
    if (spare == EGL_NO_SURFACE) {
        fprintf(stderr, "no pbuffer of a second config: 0x%x\n", eglGetError());
        return 1;
    }

    const GLuint programs[8] = {show,        showAlpha, showCube,    showHalf,
                                showInteger, showDepth, showStencil, showDepth};
    const GLenum kinds[8] = {GL_TEXTURE_2D, GL_TEXTURE_2D_ARRAY, GL_TEXTURE_CUBE_MAP, GL_TEXTURE_2D,
                             GL_TEXTURE_2D, GL_TEXTURE_2D,       GL_TEXTURE_2D,       GL_TEXTURE_2D};
    const GLuint textures[8] = {luminance, alpha, cube, half, integer, depth, depthStencil, depthCopy};
    for (int frame = 0; frame < frames; ++frame) {
        glBindFramebuffer(GL_READ_FRAMEBUFFER, depthRbFbo);
        glBindFramebuffer(GL_DRAW_FRAMEBUFFER, copyFbo);
        glBlitFramebuffer(0, 0, kSize * 2, kSize * 2, 0, 0, kSize * 2, kSize * 2, GL_DEPTH_BUFFER_BIT,
                          GL_NEAREST);
        glBindFramebuffer(GL_FRAMEBUFFER, 0);
        glClearColor(0.1f, 0.1f * (float)(frame % 4), 0.2f, 1.0f);
        glClear(GL_COLOR_BUFFER_BIT);
        for (int i = 0; i < 8; ++i) {
            glActiveTexture(GL_TEXTURE0 + (GLenum)i);
            glBindTexture(kinds[i], textures[i]);
            glUseProgram(programs[i]);
            glUniform1i(glGetUniformLocation(programs[i], "tex"), i);
            cell(programs[i], i, frame);
        }
        glActiveTexture(GL_TEXTURE0);

        glUseProgram(0);
        glBindProgramPipeline(pipeline);
        glDrawArrays(GL_TRIANGLE_STRIP, 0, 4);
        glBindProgramPipeline(0);

        glUseProgram(capture);
        glUniform1f(glGetUniformLocation(capture, "t"), 0.05f * (float)(frame % 6));
        glBindTransformFeedback(GL_TRANSFORM_FEEDBACK, feedback);
        glEnable(GL_RASTERIZER_DISCARD);
        glBeginTransformFeedback(GL_TRIANGLES);
        glDrawArrays(GL_TRIANGLES, 0, 3);
        glEndTransformFeedback();
        glDisable(GL_RASTERIZER_DISCARD);
        glBindTransformFeedback(GL_TRANSFORM_FEEDBACK, 0);
        glUseProgram(drawCaptured);
        glBindVertexArray(vao);
        glDrawArrays(GL_TRIANGLES, 0, 3);
        glBindVertexArray(0);

        glBindFramebuffer(GL_READ_FRAMEBUFFER, drawn);
        glBlitFramebuffer(0, 0, kSize * 3, kSize * 2, kWidth - kSize * 3, kHeight - kSize * 2, kWidth,
                          kHeight, GL_COLOR_BUFFER_BIT, GL_NEAREST);
        glBindFramebuffer(GL_READ_FRAMEBUFFER, 0);
        eglSwapBuffers(egl.display, egl.surface);
    }
    /* Names made after the recording started are the ones the driver gives untraced. */
    GLuint later[7];
    glGenTextures(1, &later[0]);
    glGenBuffers(1, &later[1]);
    glGenFramebuffers(1, &later[2]);
    glGenRenderbuffers(1, &later[3]);
    glGenVertexArrays(1, &later[4]);
    later[5] = glCreateShader(GL_VERTEX_SHADER);
    later[6] = glCreateProgram();
    printf("names made last: %u %u %u %u %u %u %u\n", later[0], later[1], later[2], later[3], later[4],
           later[5], later[6]);
    GLenum error = glGetError();
    eglDestroySync(egl.display, fence);
    eglDestroySurface(egl.display, spare);
    eglDestroyImage(egl.display, image);
    headlessEglClose(&egl);
    if (error != GL_NO_ERROR) {
        fprintf(stderr, "GL error 0x%x\n", error);
        return 1;
    }
    printf("drew %d frames\n", frames);
    return 0;
}
