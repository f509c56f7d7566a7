/* Calls an application might make by mistake: invalid enums, negative counts, null pointers with
 * sizes, pointers into memory that is gone. Prints the driver's answer to each, so that a run
 * through the library can be compared with a run without it line by line. Every call here is one
 * the driver rejects or ignores without reading the bad memory, so that the driver itself survives;
 * the library must survive too and report the same errors. */
#include "examples/headless_egl.h"
#include <GLES3/gl3.h>

#include <stdio.h>
#include <string.h>
#include <sys/mman.h>

static int step = 0;

static void report(const char *what) {
    printf("%2d %-56s 0x%04x\n", ++step, what, glGetError());
}

int main(void) {
    HeadlessEgl egl;
    if (!headlessEglOpen(&egl, 3, 32, 32, 0)) return 1;
    EGLDisplay display = egl.display;
    EGLSurface surface = egl.surface;

    /* A page that is mapped and then taken away: a dangling pointer that faults when read. */
    unsigned char *gone = mmap(NULL, 4096, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    munmap(gone, 4096);
    static unsigned char small[16];
    const char *danglingText = (const char *)gone;

    GLuint buffer = 0;
    glGenBuffers(1, &buffer);
    glBindBuffer(GL_ARRAY_BUFFER, buffer);
    report("bind a buffer");
    glBufferData(GL_ARRAY_BUFFER, -1, small, GL_STATIC_DRAW);
    report("glBufferData with a negative size");
    glBufferData(0x1234, 16, gone, GL_STATIC_DRAW);
    report("glBufferData to an invalid target from gone memory");
    glBufferData(GL_ARRAY_BUFFER, 64, gone, 0x1234);
    report("glBufferData with an invalid usage from gone memory");
    glBufferSubData(GL_ARRAY_BUFFER, -4, 16, gone);
    report("glBufferSubData at a negative offset from gone memory");
    glBufferSubData(GL_ARRAY_BUFFER, 0, 1 << 30, gone);
    report("glBufferSubData past the end from gone memory");

    GLuint texture = 0;
    glGenTextures(1, &texture);
    glBindTexture(GL_TEXTURE_2D, texture);
    glTexImage2D(GL_TEXTURE_2D, 0, GL_RGBA, -1, 4, 0, GL_RGBA, GL_UNSIGNED_BYTE, gone);
    report("glTexImage2D with a negative width");
    glTexImage2D(GL_TEXTURE_2D, 0, GL_RGBA, 1 << 20, 1 << 20, 0, GL_RGBA, GL_UNSIGNED_BYTE, gone);
    report("glTexImage2D far too large from gone memory");
    glTexImage2D(GL_TEXTURE_2D, 0, GL_RGBA, 4, 4, 0, 0x1234, GL_UNSIGNED_BYTE, gone);
    report("glTexImage2D with an invalid format from gone memory");
    glTexSubImage2D(GL_TEXTURE_2D, 0, 0, 0, 4, 4, GL_RGBA, GL_UNSIGNED_BYTE, gone);
    report("glTexSubImage2D of a texture without storage");
    glCompressedTexImage2D(GL_TEXTURE_2D, 0, 0x1234, 4, 4, 0, -8, gone);
    report("glCompressedTexImage2D with a negative size");
    glTexImage3D(GL_TEXTURE_3D, 0, GL_RGBA, 4, 4, -2, 0, GL_RGBA, GL_UNSIGNED_BYTE, gone);
    report("glTexImage3D with a negative depth");

    glUniform4fv(-1, 1 << 26, (const GLfloat *)small);
    report("glUniform4fv to location -1 with a huge count");
    glUniform4fv(12345, -1, (const GLfloat *)gone);
    report("glUniform4fv with a negative count");
    glUniformMatrix4fv(0, 4, GL_FALSE, (const GLfloat *)gone);
    report("glUniformMatrix4fv without a program");

    GLuint shader = glCreateShader(GL_VERTEX_SHADER);
    glShaderSource(shader, -1, &danglingText, NULL);
    report("glShaderSource with a negative count");
    glShaderSource(shader + 100, 1, &danglingText, NULL);
    report("glShaderSource to no shader from gone memory");
    glGetShaderInfoLog(shader, -1, NULL, (GLchar *)small);
    report("glGetShaderInfoLog with a negative size");
    glGetShaderInfoLog(shader + 100, 64, NULL, (GLchar *)gone);
    report("glGetShaderInfoLog of no shader into gone memory");

    GLint value = 0;
    glGetIntegerv(0x1234, &value);
    report("glGetIntegerv of an invalid name");
    glGetIntegerv(0x1234, (GLint *)gone);
    report("glGetIntegerv of an invalid name into gone memory");
    glGenBuffers(-5, (GLuint *)gone);
    report("glGenBuffers with a negative count");
    glDeleteBuffers(-1, (const GLuint *)gone);
    report("glDeleteBuffers with a negative count");
    glDrawBuffers(-3, (const GLenum *)gone);
    report("glDrawBuffers with a negative count");
    glInvalidateFramebuffer(0x1234, 4, (const GLenum *)small);
    report("glInvalidateFramebuffer of an invalid target");
    glVertexAttribPointer(1000, 4, GL_FLOAT, GL_FALSE, 0, small);
    report("glVertexAttribPointer to an index out of range");
    glDrawArrays(0x1234, 0, 3);
    report("glDrawArrays with an invalid mode");
    glDrawArrays(GL_TRIANGLES, 0, -3);
    report("glDrawArrays with a negative count");
    glDrawElements(GL_TRIANGLES, 3, 0x1234, gone);
    report("glDrawElements with an invalid index type");
    glDrawElements(GL_TRIANGLES, -1, GL_UNSIGNED_SHORT, gone);
    report("glDrawElements with a negative count");
    glReadPixels(0, 0, -1, 4, GL_RGBA, GL_UNSIGNED_BYTE, gone);
    report("glReadPixels with a negative width into gone memory");
    glEnable(0x1234);
    glDisable(0x4321);
    report("two invalid capabilities (the first error stays)");
    report("after the error was read");
    const GLubyte *nothing = glGetString(0x1234);
    printf("%2d %-56s %s\n", ++step, "glGetString of an invalid name", nothing ? "a string" : "null");
    report("its error");

    EGLint bad = 0;
    EGLBoolean ok = eglQuerySurface(display, surface, 0x1234, &bad);
    printf("%2d %-56s %d 0x%04x\n", ++step, "eglQuerySurface of an invalid attribute", ok, eglGetError());
    ok = eglMakeCurrent(display, surface, surface, (EGLContext)0x1234);
    printf("%2d %-56s %d 0x%04x\n", ++step, "eglMakeCurrent with a bad context", ok, eglGetError());
    printf("%2d %-56s 0x%04x\n", ++step, "eglGetError again", eglGetError());

    headlessEglClose(&egl);
    return 0;
}
