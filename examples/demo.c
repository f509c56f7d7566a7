/* The Kalvoren demo: a small, deterministic OpenGL ES 2.0 program that renders headless.
 *
 * A textured, lit grid of cubes drawn from buffer objects, and a ground plane and a ring of
 * markers drawn from the program's own memory (client-side vertex arrays, one of them strided, with
 * client-side indices). A few hundred calls per frame for a fixed number of frames; it prints a
 * checksum of the last frame so that runs can be compared.
 *
 *   kalvoren_demo [--frames N] [--size WxH]
 */
#include "headless_egl.h"
#include <GLES2/gl2.h>

#include <math.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

static const char *kVertexShader = "attribute vec3 aPosition;\n"
                                   "attribute vec3 aNormal;\n"
                                   "attribute vec2 aTexCoord;\n"
                                   "uniform mat4 uMvp;\n"
                                   "uniform mat4 uModel;\n"
                                   "varying vec3 vNormal;\n"
                                   "varying vec2 vTexCoord;\n"
                                   "void main() {\n"
                                   "    vNormal = mat3(uModel) * aNormal;\n"
                                   "    vTexCoord = aTexCoord;\n"
                                   "    gl_Position = uMvp * vec4(aPosition, 1.0);\n"
                                   "    gl_PointSize = 4.0;\n"
                                   "}\n";

static const char *kFragmentShader =
    "precision mediump float;\n"
    "uniform sampler2D uTexture;\n"
    "uniform vec3 uLightDir;\n"
    "uniform vec4 uTint;\n"
    "varying vec3 vNormal;\n"
    "varying vec2 vTexCoord;\n"
    "void main() {\n"
    "    float diffuse = max(dot(normalize(vNormal), normalize(uLightDir)), 0.0);\n"
    "    vec4 texel = texture2D(uTexture, vTexCoord);\n"
    "    gl_FragColor = vec4(texel.rgb * uTint.rgb * (0.25 + 0.75 * diffuse), 1.0);\n"
    "}\n";

typedef struct {
    float m[16];
} Mat4;

static Mat4 identity(void) {
    Mat4 r;
    memset(&r, 0, sizeof(r));
    r.m[0] = r.m[5] = r.m[10] = r.m[15] = 1.0f;
    return r;
}

static Mat4 multiply(Mat4 a, Mat4 b) {
    Mat4 r;
    for (int c = 0; c < 4; ++c)
        for (int row = 0; row < 4; ++row) {
            float s = 0.0f;
            for (int k = 0; k < 4; ++k)
                s += a.m[k * 4 + row] * b.m[c * 4 + k];
            r.m[c * 4 + row] = s;
        }
    return r;
}

static Mat4 translate(float x, float y, float z) {
    Mat4 r = identity();
    r.m[12] = x;
    r.m[13] = y;
    r.m[14] = z;
    return r;
}

static Mat4 rotateY(float a) {
    Mat4 r = identity();
    r.m[0] = cosf(a);
    r.m[2] = -sinf(a);
    r.m[8] = sinf(a);
    r.m[10] = cosf(a);
    return r;
}

static Mat4 rotateX(float a) {
    Mat4 r = identity();
    r.m[5] = cosf(a);
    r.m[6] = sinf(a);
    r.m[9] = -sinf(a);
    r.m[10] = cosf(a);
    return r;
}

static Mat4 perspective(float fovy, float aspect, float zn, float zf) {
    Mat4 r;
    float f = 1.0f / tanf(fovy / 2.0f);
    memset(&r, 0, sizeof(r));
    r.m[0] = f / aspect;
    r.m[5] = f;
    r.m[10] = (zf + zn) / (zn - zf);
    r.m[11] = -1.0f;
    r.m[14] = 2.0f * zf * zn / (zn - zf);
    return r;
}

/* A cube: 24 vertices of position, normal and texture coordinate, 36 indices. */
static void makeCube(float *vertices, GLushort *indices) {
    static const float normals[6][3] = {{1, 0, 0}, {-1, 0, 0}, {0, 1, 0}, {0, -1, 0}, {0, 0, 1}, {0, 0, -1}};
    for (int face = 0; face < 6; ++face) {
        const float *n = normals[face];
        float u[3] = {n[1], n[2], n[0]};
        float v[3] = {n[1] * u[2] - n[2] * u[1], n[2] * u[0] - n[0] * u[2], n[0] * u[1] - n[1] * u[0]};
        for (int corner = 0; corner < 4; ++corner) {
            float su = (corner & 1) ? 0.5f : -0.5f, sv = (corner & 2) ? 0.5f : -0.5f;
            float *out = vertices + (face * 4 + corner) * 8;
            for (int k = 0; k < 3; ++k)
                out[k] = n[k] * 0.5f + u[k] * su + v[k] * sv;
            for (int k = 0; k < 3; ++k)
                out[3 + k] = n[k];
            out[6] = su + 0.5f;
            out[7] = sv + 0.5f;
        }
        GLushort base = (GLushort)(face * 4);
        GLushort quad[6] = {base,
                            (GLushort)(base + 1),
                            (GLushort)(base + 2),
                            (GLushort)(base + 2),
                            (GLushort)(base + 1),
                            (GLushort)(base + 3)};
        memcpy(indices + face * 6, quad, sizeof(quad));
    }
}

static GLuint compile(GLenum type, const char *source) {
    GLuint shader = glCreateShader(type);
    glShaderSource(shader, 1, &source, NULL);
    glCompileShader(shader);
    GLint ok = 0;
    glGetShaderiv(shader, GL_COMPILE_STATUS, &ok);
    if (!ok) {
        char log[1024];
        glGetShaderInfoLog(shader, sizeof(log), NULL, log);
        fprintf(stderr, "kalvoren_demo: shader does not compile: %s\n", log);
        exit(1);
    }
    return shader;
}

int main(int argc, char **argv) {
    int frames = 60, width = 256, height = 256;
    for (int i = 1; i < argc; ++i) {
        if (strcmp(argv[i], "--frames") == 0 && i + 1 < argc) {
            frames = atoi(argv[++i]);
        } else if (strcmp(argv[i], "--size") == 0 && i + 1 < argc) {
            if (sscanf(argv[++i], "%dx%d", &width, &height) != 2) width = height = 256;
        } else {
            fprintf(stderr, "usage: %s [--frames N] [--size WxH]\n", argv[0]);
            return 2;
        }
    }

    /* Headless: the surfaceless platform with a pbuffer, else the default display. */
    HeadlessEgl egl;
    if (!headlessEglOpen(&egl, 2, width, height, 16)) return 1;
    EGLDisplay display = egl.display;
    EGLSurface surface = egl.surface;

    GLuint program = glCreateProgram();
    GLuint vs = compile(GL_VERTEX_SHADER, kVertexShader), fs = compile(GL_FRAGMENT_SHADER, kFragmentShader);
    glAttachShader(program, vs);
    glAttachShader(program, fs);
    glBindAttribLocation(program, 0, "aPosition");
    glBindAttribLocation(program, 1, "aNormal");
    glBindAttribLocation(program, 2, "aTexCoord");
    glLinkProgram(program);
    GLint linked = 0;
    glGetProgramiv(program, GL_LINK_STATUS, &linked);
    if (!linked) {
        fprintf(stderr, "kalvoren_demo: program does not link\n");
        return 1;
    }
    glDeleteShader(vs);
    glDeleteShader(fs);
    glUseProgram(program);
    GLint uMvp = glGetUniformLocation(program, "uMvp"), uModel = glGetUniformLocation(program, "uModel");
    GLint uLight = glGetUniformLocation(program, "uLightDir"), uTint = glGetUniformLocation(program, "uTint");
    glUniform1i(glGetUniformLocation(program, "uTexture"), 0);

    /* A checkerboard texture with mipmaps. */
    enum { kTex = 64 };
    static unsigned char texels[kTex * kTex * 4];
    for (int y = 0; y < kTex; ++y)
        for (int x = 0; x < kTex; ++x) {
            unsigned char *t = texels + (y * kTex + x) * 4;
            int check = ((x / 8) + (y / 8)) & 1;
            t[0] = (unsigned char)(check ? 240 : 40 + 3 * x);
            t[1] = (unsigned char)(check ? 220 : 60 + 2 * y);
            t[2] = (unsigned char)(check ? 200 : 90);
            t[3] = 255;
        }
    GLuint texture;
    glGenTextures(1, &texture);
    glActiveTexture(GL_TEXTURE0);
    glBindTexture(GL_TEXTURE_2D, texture);
    glTexImage2D(GL_TEXTURE_2D, 0, GL_RGBA, kTex, kTex, 0, GL_RGBA, GL_UNSIGNED_BYTE, texels);
    glGenerateMipmap(GL_TEXTURE_2D);
    glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_MIN_FILTER, GL_LINEAR_MIPMAP_LINEAR);
    glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_MAG_FILTER, GL_LINEAR);

    /* The cube lives in buffer objects. */
    static float cube[24 * 8];
    static GLushort cubeIndices[36];
    makeCube(cube, cubeIndices);
    GLuint buffers[2];
    glGenBuffers(2, buffers);
    glBindBuffer(GL_ARRAY_BUFFER, buffers[0]);
    glBufferData(GL_ARRAY_BUFFER, sizeof(cube), cube, GL_STATIC_DRAW);
    glBindBuffer(GL_ELEMENT_ARRAY_BUFFER, buffers[1]);
    glBufferData(GL_ELEMENT_ARRAY_BUFFER, sizeof(cubeIndices), cubeIndices, GL_STATIC_DRAW);

    /* The ground is drawn from client memory: separate tightly packed arrays and client indices. */
    enum { kGrid = 9 };
    static float groundPositions[kGrid * kGrid * 3], groundNormals[kGrid * kGrid * 3],
        groundUv[kGrid * kGrid * 2];
    static GLushort groundIndices[(kGrid - 1) * (kGrid - 1) * 6];
    int gi = 0;
    for (int z = 0; z < kGrid; ++z)
        for (int x = 0; x < kGrid; ++x) {
            int v = z * kGrid + x;
            groundPositions[v * 3 + 0] = (float)x - (kGrid - 1) / 2.0f;
            groundPositions[v * 3 + 1] = -1.0f;
            groundPositions[v * 3 + 2] = (float)z - (kGrid - 1) / 2.0f;
            groundNormals[v * 3 + 0] = 0.0f;
            groundNormals[v * 3 + 1] = 1.0f;
            groundNormals[v * 3 + 2] = 0.0f;
            groundUv[v * 2 + 0] = (float)x / 2.0f;
            groundUv[v * 2 + 1] = (float)z / 2.0f;
            if (x + 1 < kGrid && z + 1 < kGrid) {
                GLushort a = (GLushort)v, b = (GLushort)(v + 1), c = (GLushort)(v + kGrid),
                         d = (GLushort)(v + kGrid + 1);
                GLushort quad[6] = {a, c, b, b, c, d};
                memcpy(groundIndices + gi, quad, sizeof(quad));
                gi += 6;
            }
        }
    /* A ring of markers from one interleaved (strided) client array. */
    enum { kRing = 24 };
    static float ring[kRing * 8];
    for (int i = 0; i < kRing; ++i) {
        float a = 6.2831853f * (float)i / kRing;
        float *v = ring + i * 8;
        v[0] = 3.5f * cosf(a);
        v[1] = -0.5f;
        v[2] = 3.5f * sinf(a);
        v[3] = cosf(a);
        v[4] = 0.5f;
        v[5] = sinf(a);
        v[6] = (float)i / kRing;
        v[7] = 0.5f;
    }

    glEnable(GL_DEPTH_TEST);
    glEnable(GL_CULL_FACE);
    glViewport(0, 0, width, height);
    glEnableVertexAttribArray(0);
    glEnableVertexAttribArray(1);
    glEnableVertexAttribArray(2);

    Mat4 projection = perspective(0.9f, (float)width / (float)height, 0.5f, 50.0f);
    unsigned checksum = 0;
    for (int frame = 0; frame < frames; ++frame) {
        float t = (float)frame / 30.0f;
        Mat4 view = multiply(translate(0.0f, -0.5f, -9.0f), multiply(rotateX(0.35f), rotateY(t * 0.5f)));
        Mat4 viewProjection = multiply(projection, view);
        glClearColor(0.1f, 0.12f, 0.18f, 1.0f);
        glClear(GL_COLOR_BUFFER_BIT | GL_DEPTH_BUFFER_BIT);
        glUniform3f(uLight, 0.4f * cosf(t), 1.0f, 0.4f * sinf(t));

        /* Ground, from client memory. */
        glBindBuffer(GL_ARRAY_BUFFER, 0);
        glBindBuffer(GL_ELEMENT_ARRAY_BUFFER, 0);
        glVertexAttribPointer(0, 3, GL_FLOAT, GL_FALSE, 0, groundPositions);
        glVertexAttribPointer(1, 3, GL_FLOAT, GL_FALSE, 0, groundNormals);
        glVertexAttribPointer(2, 2, GL_FLOAT, GL_FALSE, 0, groundUv);
        Mat4 model = identity();
        glUniformMatrix4fv(uModel, 1, GL_FALSE, model.m);
        glUniformMatrix4fv(uMvp, 1, GL_FALSE, viewProjection.m);
        glUniform4f(uTint, 0.6f, 0.8f, 0.6f, 1.0f);
        glDrawElements(GL_TRIANGLES, (GLsizei)gi, GL_UNSIGNED_SHORT, groundIndices);

        /* Markers, from one strided client array. */
        glVertexAttribPointer(0, 3, GL_FLOAT, GL_FALSE, 8 * sizeof(float), ring);
        glVertexAttribPointer(1, 3, GL_FLOAT, GL_FALSE, 8 * sizeof(float), ring + 3);
        glVertexAttribPointer(2, 2, GL_FLOAT, GL_FALSE, 8 * sizeof(float), ring + 6);
        glUniform4f(uTint, 1.0f, 0.9f, 0.3f, 1.0f);
        glDrawArrays(GL_POINTS, 0, kRing);

        /* Cubes, from buffer objects. */
        glBindBuffer(GL_ARRAY_BUFFER, buffers[0]);
        glBindBuffer(GL_ELEMENT_ARRAY_BUFFER, buffers[1]);
        glVertexAttribPointer(0, 3, GL_FLOAT, GL_FALSE, 8 * sizeof(float), (const void *)0);
        glVertexAttribPointer(1, 3, GL_FLOAT, GL_FALSE, 8 * sizeof(float), (const void *)(3 * sizeof(float)));
        glVertexAttribPointer(2, 2, GL_FLOAT, GL_FALSE, 8 * sizeof(float), (const void *)(6 * sizeof(float)));
        for (int i = 0; i < 7; ++i)
            for (int j = 0; j < 7; ++j) {
                float x = (float)i - 3.0f, z = (float)j - 3.0f;
                model = multiply(translate(x, 0.0f, z), rotateY(t + 0.3f * (float)(i + j)));
                Mat4 mvp = multiply(viewProjection, model);
                glUniformMatrix4fv(uModel, 1, GL_FALSE, model.m);
                glUniformMatrix4fv(uMvp, 1, GL_FALSE, mvp.m);
                glUniform4f(uTint, 0.5f + 0.07f * (float)i, 0.5f, 0.5f + 0.07f * (float)j, 1.0f);
                glDrawElements(GL_TRIANGLES, 36, GL_UNSIGNED_SHORT, (const void *)0);
            }
        if (frame == frames - 1) {
            unsigned char pixels[4 * 16];
            glReadPixels(width / 2 - 8, height / 2, 16, 1, GL_RGBA, GL_UNSIGNED_BYTE, pixels);
            for (int k = 0; k < (int)sizeof(pixels); ++k)
                checksum = checksum * 31u + pixels[k];
        }
        eglSwapBuffers(display, surface);
    }
    GLenum error = glGetError();
    printf("kalvoren_demo: %d frames of %dx%d, checksum %08x, GL error 0x%x\n", frames, width, height,
           checksum, error);

    glDeleteBuffers(2, buffers);
    glDeleteTextures(1, &texture);
    glDeleteProgram(program);
    headlessEglClose(&egl);
    return error == GL_NO_ERROR ? 0 : 1;
}
