/* An OpenGL ES 1.1 program drawing with the fixed-function pipeline: lighting with two lights and
 * a material, linear fog, the modelview, projection and texture matrix stacks, two texture units
 * with different environments, client arrays tightly packed and interleaved (strided) per texture
 * unit, and vertex and index buffer objects. Draws FRAMES frames (argument 1, default 3), each
 * read back with glReadPixels and appended to the file named by argument 2, so that a test can
 * compare the pixels of a traced run with an untraced one, and the frames a trace saved. Argument 3
 * names a file that receives what draws A and B read of each client array, tightly packed, in the
 * order vertex, normal, colour, unit 0 and unit 1 texture coordinates.
 *
 * Client arrays, so that a test can find every byte in the trace:
 *   draw A glDrawArrays(GL_TRIANGLE_STRIP, 2, 4): vertices packed (3 floats), normals packed,
 *          unit 0 texture coordinates interleaved with colours (stride 6 floats: s t r g b a),
 *          colours from that interleaved array, unit 1 texture coordinates packed (2 shorts)
 *   draw B glDrawElements with client indices {5, 0, 3, 1} (GL_UNSIGNED_BYTE), the same arrays
 *   draw C glDrawElements from an element buffer with vertices, normals in a vertex buffer */
#include "examples/headless_egl.h"
#include <GLES/gl.h>

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

enum { kSize = 64, kVertices = 8 };

static GLuint makeTexture(int seed) {
    static unsigned char pixels[8 * 8 * 4];
    for (int i = 0; i < 8 * 8; ++i) {
        pixels[i * 4 + 0] = (unsigned char)(i * 4 + seed * 40);
        pixels[i * 4 + 1] = (unsigned char)(255 - i * 3);
        pixels[i * 4 + 2] = (unsigned char)((i % 8) * 30 + seed);
        pixels[i * 4 + 3] = 255;
    }
    GLuint texture = 0;
    glGenTextures(1, &texture);
    glBindTexture(GL_TEXTURE_2D, texture);
    glPixelStorei(GL_UNPACK_ALIGNMENT, 1);
    glTexImage2D(GL_TEXTURE_2D, 0, GL_RGBA, 8, 8, 0, GL_RGBA, GL_UNSIGNED_BYTE, pixels);
    glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_MIN_FILTER, GL_NEAREST);
    glTexParameterx(GL_TEXTURE_2D, GL_TEXTURE_MAG_FILTER, GL_NEAREST);
    return texture;
}

int main(int argc, char **argv) {
    int frames = argc > 1 ? atoi(argv[1]) : 3;
    FILE *out = argc > 2 ? fopen(argv[2], "wb") : NULL;
    HeadlessEgl egl;
    if (!headlessEglOpen(&egl, 1, kSize, kSize, 16)) return 1;
    printf("%s | %s\n", (const char *)glGetString(GL_VERSION), (const char *)glGetString(GL_RENDERER));

    /* The client arrays. */
    static GLfloat positions[kVertices * 3], normals[kVertices * 3], interleaved[kVertices * 6];
    static GLshort texCoords1[kVertices * 2];
    for (int v = 0; v < kVertices; ++v) {
        positions[v * 3 + 0] = (float)(v % 2) * 1.6f - 0.8f;
        positions[v * 3 + 1] = (float)(v / 2) * 0.5f - 0.8f;
        positions[v * 3 + 2] = -0.1f * (float)v;
        normals[v * 3 + 0] = 0.1f * (float)v;
        normals[v * 3 + 1] = 0.2f;
        normals[v * 3 + 2] = 1.0f;
        interleaved[v * 6 + 0] = (float)(v % 2);
        interleaved[v * 6 + 1] = (float)(v / 2) * 0.3f;
        interleaved[v * 6 + 2] = 0.3f + 0.05f * (float)v;
        interleaved[v * 6 + 3] = 0.9f - 0.1f * (float)v;
        interleaved[v * 6 + 4] = 0.5f;
        interleaved[v * 6 + 5] = 1.0f;
        texCoords1[v * 2 + 0] = (GLshort)(v % 2 * 2);
        texCoords1[v * 2 + 1] = (GLshort)(v / 2);
    }
    static const GLubyte clientIndices[] = {5, 0, 3, 1};
    static const GLushort bufferIndices[] = {0, 1, 2, 2, 1, 3};

    if (argc > 3) {
        /* Vertices 0 to 5 are read (draw A: 2 + 4; draw B: largest index 5). */
        FILE *expected = fopen(argv[3], "wb");
        if (!expected) return 1;
        fwrite(positions, sizeof(GLfloat), 6 * 3, expected);
        fwrite(normals, sizeof(GLfloat), 6 * 3, expected);
        for (int v = 0; v < 6; ++v)
            fwrite(interleaved + v * 6 + 2, sizeof(GLfloat), 4, expected);
        for (int v = 0; v < 6; ++v)
            fwrite(interleaved + v * 6, sizeof(GLfloat), 2, expected);
        fwrite(texCoords1, sizeof(GLshort), 6 * 2, expected);
        fclose(expected);
    }

    GLuint textures[2] = {makeTexture(1), makeTexture(2)};
    GLuint buffers[2];
    glGenBuffers(2, buffers);
    glBindBuffer(GL_ARRAY_BUFFER, buffers[0]);
    glBufferData(GL_ARRAY_BUFFER, sizeof(positions) + sizeof(normals), NULL, GL_STATIC_DRAW);
    glBufferSubData(GL_ARRAY_BUFFER, 0, sizeof(positions), positions);
    glBufferSubData(GL_ARRAY_BUFFER, sizeof(positions), sizeof(normals), normals);
    glBindBuffer(GL_ELEMENT_ARRAY_BUFFER, buffers[1]);
    glBufferData(GL_ELEMENT_ARRAY_BUFFER, sizeof(bufferIndices), bufferIndices, GL_STATIC_DRAW);
    glBindBuffer(GL_ARRAY_BUFFER, 0);
    glBindBuffer(GL_ELEMENT_ARRAY_BUFFER, 0);

    /* Lighting, fog and the material. */
    const GLfloat light0Position[] = {0.5f, 1.0f, 2.0f, 0.0f}, light0Diffuse[] = {1.0f, 0.8f, 0.6f, 1.0f};
    const GLfixed light1Ambient[] = {0x4000, 0x2000, 0x8000, 0x10000};
    const GLfloat fogColor[] = {0.2f, 0.3f, 0.4f, 1.0f}, materialSpecular[] = {0.9f, 0.9f, 0.9f, 1.0f};
    const GLfloat envColor[] = {0.1f, 0.6f, 0.2f, 1.0f};
    glEnable(GL_LIGHTING);
    glEnable(GL_LIGHT0);
    glEnable(GL_LIGHT1);
    glLightfv(GL_LIGHT0, GL_POSITION, light0Position);
    glLightfv(GL_LIGHT0, GL_DIFFUSE, light0Diffuse);
    glLightxv(GL_LIGHT1, GL_AMBIENT, light1Ambient);
    glLightf(GL_LIGHT1, GL_SPOT_CUTOFF, 60.0f);
    glLightModelf(GL_LIGHT_MODEL_TWO_SIDE, 1.0f);
    glMaterialfv(GL_FRONT_AND_BACK, GL_SPECULAR, materialSpecular);
    glMaterialf(GL_FRONT_AND_BACK, GL_SHININESS, 20.0f);
    glEnable(GL_COLOR_MATERIAL);
    glEnable(GL_FOG);
    glFogf(GL_FOG_MODE, GL_LINEAR);
    glFogx(GL_FOG_START, 0x8000);
    glFogf(GL_FOG_END, 4.0f);
    glFogfv(GL_FOG_COLOR, fogColor);
    glEnable(GL_DEPTH_TEST);
    glShadeModel(GL_SMOOTH);

    /* Two texture units: modulate, then add with an environment colour. */
    glActiveTexture(GL_TEXTURE0);
    glEnable(GL_TEXTURE_2D);
    glBindTexture(GL_TEXTURE_2D, textures[0]);
    glTexEnvi(GL_TEXTURE_ENV, GL_TEXTURE_ENV_MODE, GL_MODULATE);
    glActiveTexture(GL_TEXTURE1);
    glEnable(GL_TEXTURE_2D);
    glBindTexture(GL_TEXTURE_2D, textures[1]);
    glTexEnvx(GL_TEXTURE_ENV, GL_TEXTURE_ENV_MODE, GL_BLEND);
    glTexEnvfv(GL_TEXTURE_ENV, GL_TEXTURE_ENV_COLOR, envColor);
    glMatrixMode(GL_TEXTURE);
    glLoadIdentity();
    glScalef(0.25f, 0.5f, 1.0f);
    glActiveTexture(GL_TEXTURE0);

    glViewport(0, 0, kSize, kSize);
    glMatrixMode(GL_PROJECTION);
    glLoadIdentity();
    glFrustumf(-0.6f, 0.6f, -0.6f, 0.6f, 1.0f, 10.0f);
    glMatrixMode(GL_MODELVIEW);

    unsigned char *pixels = malloc(kSize * kSize * 4);
    for (int frame = 0; frame < frames; ++frame) {
        glClearColor(0.1f, 0.1f, 0.15f * (float)frame, 1.0f);
        glClear(GL_COLOR_BUFFER_BIT | GL_DEPTH_BUFFER_BIT);
        glLoadIdentity();
        glTranslatef(0.0f, 0.0f, -2.5f);

        /* Draw A: client arrays, packed and strided, per texture unit. */
        glPushMatrix();
        glRotatef(20.0f * (float)frame, 0.0f, 1.0f, 0.0f);
        glEnableClientState(GL_VERTEX_ARRAY);
        glEnableClientState(GL_NORMAL_ARRAY);
        glEnableClientState(GL_COLOR_ARRAY);
        glVertexPointer(3, GL_FLOAT, 0, positions);
        glNormalPointer(GL_FLOAT, 0, normals);
        glColorPointer(4, GL_FLOAT, 6 * sizeof(GLfloat), interleaved + 2);
        glClientActiveTexture(GL_TEXTURE0);
        glEnableClientState(GL_TEXTURE_COORD_ARRAY);
        glTexCoordPointer(2, GL_FLOAT, 6 * sizeof(GLfloat), interleaved);
        glClientActiveTexture(GL_TEXTURE1);
        glEnableClientState(GL_TEXTURE_COORD_ARRAY);
        glTexCoordPointer(2, GL_SHORT, 0, texCoords1);
        glDrawArrays(GL_TRIANGLE_STRIP, 2, 4);
        glPopMatrix();

        /* Draw B: client indices, the same arrays, moved by the matrix stack. */
        glPushMatrix();
        glTranslatef(0.3f, 0.2f, -0.5f);
        glScalef(0.7f, 0.7f, 0.7f);
        glDrawElements(GL_TRIANGLE_STRIP, 4, GL_UNSIGNED_BYTE, clientIndices);
        glPopMatrix();

        /* Draw C: buffer objects for vertices, normals and indices; no colour or texture arrays. */
        glDisableClientState(GL_TEXTURE_COORD_ARRAY); /* unit 1 */
        glClientActiveTexture(GL_TEXTURE0);
        glDisableClientState(GL_TEXTURE_COORD_ARRAY);
        glDisableClientState(GL_COLOR_ARRAY);
        glColor4f(0.8f, 0.4f, 0.2f, 1.0f);
        glBindBuffer(GL_ARRAY_BUFFER, buffers[0]);
        glVertexPointer(3, GL_FLOAT, 0, (const void *)0);
        glNormalPointer(GL_FLOAT, 0, (const void *)sizeof(positions));
        glBindBuffer(GL_ELEMENT_ARRAY_BUFFER, buffers[1]);
        glPushMatrix();
        glRotatex(-30 * 65536, 0, 0, 1 << 16);
        glTranslatex(-0x4000, 0, 0x8000);
        glDrawElements(GL_TRIANGLES, 6, GL_UNSIGNED_SHORT, (const void *)0);
        glPopMatrix();
        glBindBuffer(GL_ARRAY_BUFFER, 0);
        glBindBuffer(GL_ELEMENT_ARRAY_BUFFER, 0);

        GLfloat modelview[16];
        glGetFloatv(GL_MODELVIEW_MATRIX, modelview);
        glReadPixels(0, 0, kSize, kSize, GL_RGBA, GL_UNSIGNED_BYTE, pixels);
        if (out) fwrite(pixels, 1, kSize * kSize * 4, out);
        eglSwapBuffers(egl.display, egl.surface);
    }
    /* An invalid enum: the driver's error, seen by the program exactly once. */
    glEnable(0x1234);
    GLenum first = glGetError(), second = glGetError();
    printf("errors 0x%x 0x%x\n", first, second);
    if (out) fclose(out);
    free(pixels);
    glDeleteBuffers(2, buffers);
    glDeleteTextures(2, textures);
    headlessEglClose(&egl);
    return first == GL_INVALID_ENUM && second == GL_NO_ERROR ? 0 : 2;
}
