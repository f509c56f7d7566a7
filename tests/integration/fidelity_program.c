/* What a program sees of the driver, printed line by line so that a run through the library can be
 * compared with a run without it: the client and display extension strings, errors of extension
 * functions the library wraps and of ones it does not know (EGL and OpenGL ES), errors left pending
 * across a frame end, indexed extension names, and calls whose data must reach the trace whatever
 * error an earlier call left (a mapped buffer's writes, an upload from a pixel unpack buffer, an
 * upload after a failed call). */
#include "examples/headless_egl.h"
#include <GLES3/gl3.h>
#include <GLES2/gl2ext.h>

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

static int step = 0;

static void say(const char *what, unsigned value) {
    printf("%2d %-64s 0x%04x\n", ++step, what, value);
}

static void glError(const char *what) {
    say(what, glGetError());
}

static void eglError(const char *what) {
    say(what, (unsigned)eglGetError());
}

static int hasWord(const char *list, const char *word) {
    size_t n = strlen(word);
    for (const char *p = list ? strstr(list, word) : NULL; p; p = strstr(p + 1, word))
        if ((p == list || p[-1] == ' ') && (p[n] == ' ' || p[n] == '\0')) return 1;
    return 0;
}

int main(void) {
    /* The client's extensions are asked for first, as waffle does. */
    const char *client = eglQueryString(EGL_NO_DISPLAY, EGL_EXTENSIONS);
    HeadlessEgl egl;
    if (!headlessEglOpen(&egl, 3, 16, 16, 0)) return 1;
    const char *shown = eglQueryString(egl.display, EGL_EXTENSIONS);
    say("the display's extensions differ from the client's", client && shown && strcmp(client, shown) != 0);
    say("the display offers EGL_KHR_create_context", hasWord(shown, "EGL_KHR_create_context"));
    say("the client offers EGL_EXT_platform_base", hasWord(client, "EGL_EXT_platform_base"));

    /* EGL functions the library has no wrapper for: their errors are the application's. */
    PFNEGLQUERYDEVICESEXTPROC queryDevices =
        (PFNEGLQUERYDEVICESEXTPROC)eglGetProcAddress("eglQueryDevicesEXT");
    PFNEGLQUERYDISPLAYATTRIBEXTPROC queryDisplay =
        (PFNEGLQUERYDISPLAYATTRIBEXTPROC)eglGetProcAddress("eglQueryDisplayAttribEXT");
    EGLint devices = 0;
    EGLAttrib attribute = 0;
    if (queryDevices && queryDisplay) {
        say("eglQueryDevicesEXT with a negative size", queryDevices(-1, NULL, &devices));
        eglError("its error");
        say("eglQueryDisplayAttribEXT of an invalid attribute",
            queryDisplay(egl.display, 0x1234, &attribute));
        eglError("its error");
        EGLint bad = 0;
        say("eglQuerySurface of an invalid attribute",
            eglQuerySurface(egl.display, egl.surface, 0x1234, &bad));
        say("then eglQueryDevicesEXT that succeeds", queryDevices(0, NULL, &devices));
        eglError("the error of the latest call");
    }

    /* An extension function the library wraps, failing, then a valid upload. */
    PFNGLBINDVERTEXARRAYOESPROC bindVertexArray =
        (PFNGLBINDVERTEXARRAYOESPROC)eglGetProcAddress("glBindVertexArrayOES");
    static const unsigned char uploaded[16] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16};
    GLuint buffers[3] = {0, 0, 0};
    glGenBuffers(3, buffers);
    glBindBuffer(GL_ARRAY_BUFFER, buffers[0]);
    bindVertexArray(12345);
    glBufferData(GL_ARRAY_BUFFER, sizeof(uploaded), uploaded, GL_STATIC_DRAW);
    glError("glBindVertexArrayOES(12345), then a valid glBufferData");
    glError("after the error was read");

    /* An OpenGL ES function the library has no wrapper for, failing, then a valid upload. */
    PFNGLOBJECTLABELKHRPROC objectLabel = (PFNGLOBJECTLABELKHRPROC)eglGetProcAddress("glObjectLabelKHR");
    if (objectLabel) {
        objectLabel(0x1234, 1, -1, "x");
        glBufferSubData(GL_ARRAY_BUFFER, 0, sizeof(uploaded), uploaded);
        glError("glObjectLabelKHR of an invalid kind, then a valid glBufferSubData");
        bindVertexArray(12345);
        objectLabel(0x1234, 1, -1, "x");
        glError("a pending error, then another from glObjectLabelKHR");
        glError("after the error was read");
    }

    /* What a program writes through glMapBufferOES. */
    PFNGLMAPBUFFEROESPROC mapBuffer = (PFNGLMAPBUFFEROESPROC)eglGetProcAddress("glMapBufferOES");
    PFNGLUNMAPBUFFEROESPROC unmapBuffer = (PFNGLUNMAPBUFFEROESPROC)eglGetProcAddress("glUnmapBufferOES");
    glBindBuffer(GL_ARRAY_BUFFER, buffers[1]);
    glBufferData(GL_ARRAY_BUFFER, 64, NULL, GL_DYNAMIC_DRAW);
    unsigned char *mapped = mapBuffer(GL_ARRAY_BUFFER, GL_WRITE_ONLY_OES);
    if (mapped)
        for (int i = 0; i < 64; ++i)
            mapped[i] = (unsigned char)(0xA0 + i);
    say("glUnmapBufferOES", unmapBuffer(GL_ARRAY_BUFFER));
    glError("its error");

    /* An upload from a pixel unpack buffer: the pointer is an offset. */
    static unsigned char texels[4 * 4 * 4];
    for (int i = 0; i < (int)sizeof(texels); ++i)
        texels[i] = (unsigned char)i;
    glBindBuffer(GL_PIXEL_UNPACK_BUFFER, buffers[2]);
    glBufferData(GL_PIXEL_UNPACK_BUFFER, sizeof(texels), texels, GL_STATIC_DRAW);
    GLuint texture = 0;
    glGenTextures(1, &texture);
    glBindTexture(GL_TEXTURE_2D, texture);
    glTexImage2D(GL_TEXTURE_2D, 0, GL_RGBA, 4, 4, 0, GL_RGBA, GL_UNSIGNED_BYTE, (const void *)0);
    glError("glTexImage2D from the unpack buffer");
    glBindBuffer(GL_PIXEL_UNPACK_BUFFER, 0);
    glTexSubImage2D(GL_TEXTURE_2D, 0, 0, 0, 4, 4, GL_RGBA, GL_UNSIGNED_BYTE, texels);
    glError("glTexSubImage2D from client memory");

    /* The indexed extension names agree with the extension string. */
    GLint count = 0;
    glGetIntegerv(GL_NUM_EXTENSIONS, &count);
    const char *all = (const char *)glGetString(GL_EXTENSIONS);
    int agree = all != NULL, words = 0;
    for (const char *p = all; p && *p; ++p)
        words += *p != ' ' && (p == all || p[-1] == ' ');
    for (GLint i = 0; i < count; ++i) {
        const char *name = (const char *)glGetStringi(GL_EXTENSIONS, (GLuint)i);
        agree = agree && name && hasWord(all, name);
    }
    say("glGetStringi names the GL_EXTENSIONS words, no more, no less", agree && words == count);
    say("glGetStringi past the last one", glGetStringi(GL_EXTENSIONS, (GLuint)count) == NULL);
    glError("its error");

    /* An error pending across a frame end. */
    glEnable(0x1234);
    say("eglSwapBuffers with an error pending", eglSwapBuffers(egl.display, egl.surface));
    glError("the pending error after the swap");
    glError("after the error was read");

    headlessEglClose(&egl);
    return 0;
}
