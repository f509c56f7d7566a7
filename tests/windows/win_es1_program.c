/* A Windows OpenGL ES 1.1 program linked against libGLESv1_CM.dll, the name Mesa's Windows build
 * gives its ES1 driver: a Win32 window, an EGL window surface, client arrays (vertices, colors,
 * texture coordinates), a texture and the matrix stack over several frames. Before each swap it
 * writes the frame (RGBA, bottom row first) to DIR/es1-frame-N.rgba.
 *
 *   win_es1_program es1 DIR [FRAMES]
 *
 * Exit status 0 when every frame drew without a GL error, 1 otherwise. */
#define WIN32_LEAN_AND_MEAN
#include <windows.h>

#include <EGL/egl.h>
#include <GLES/gl.h>

#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>

enum { kWidth = 64, kHeight = 48 };

static LRESULT CALLBACK windowProc(HWND window, UINT message, WPARAM w, LPARAM l) {
    return DefWindowProcA(window, message, w, l);
}

int main(int argc, char **argv) {
    if (argc < 3) {
        fprintf(stderr, "usage: win_es1_program es1 DIR [FRAMES]\n");
        return 2;
    }
    const char *dir = argv[2];
    int frames = argc > 3 ? atoi(argv[3]) : 4;

    WNDCLASSA wc = {0};
    wc.style = CS_OWNDC;
    wc.lpfnWndProc = windowProc;
    wc.hInstance = GetModuleHandleA(NULL);
    wc.lpszClassName = "kv_es1_window";
    RegisterClassA(&wc);
    HWND window = CreateWindowExA(0, "kv_es1_window", "kv", WS_POPUP | WS_VISIBLE, 0, 0, kWidth, kHeight,
                                  NULL, NULL, wc.hInstance, NULL);

    EGLDisplay display = eglGetDisplay(EGL_DEFAULT_DISPLAY);
    if (!window || !eglInitialize(display, NULL, NULL)) {
        fprintf(stderr, "no window or no EGL display: 0x%x\n", eglGetError());
        return 1;
    }
    const EGLint configAttributes[] = {EGL_SURFACE_TYPE,
                                       EGL_WINDOW_BIT,
                                       EGL_RENDERABLE_TYPE,
                                       EGL_OPENGL_ES_BIT,
                                       EGL_RED_SIZE,
                                       8,
                                       EGL_GREEN_SIZE,
                                       8,
                                       EGL_BLUE_SIZE,
                                       8,
                                       EGL_ALPHA_SIZE,
                                       8,
                                       EGL_NONE};
    EGLConfig config;
    EGLint count = 0;
    eglChooseConfig(display, configAttributes, &config, 1, &count);
    EGLSurface surface =
        count ? eglCreateWindowSurface(display, config, (EGLNativeWindowType)window, NULL) : EGL_NO_SURFACE;
    const EGLint contextAttributes[] = {EGL_CONTEXT_CLIENT_VERSION, 1, EGL_NONE};
    eglBindAPI(EGL_OPENGL_ES_API);
    EGLContext context =
        count ? eglCreateContext(display, config, EGL_NO_CONTEXT, contextAttributes) : EGL_NO_CONTEXT;
    if (context == EGL_NO_CONTEXT || !eglMakeCurrent(display, surface, surface, context)) {
        fprintf(stderr, "no ES 1 context on a window surface: 0x%x\n", eglGetError());
        return 1;
    }
    fprintf(stderr, "%s, %s\n", (const char *)glGetString(GL_VERSION),
            (const char *)glGetString(GL_RENDERER));

    unsigned char texels[4 * 4 * 4];
    for (int i = 0; i < (int)sizeof(texels); ++i)
        texels[i] = (unsigned char)((i * 53) | 0x30);
    GLuint texture;
    glGenTextures(1, &texture);
    glBindTexture(GL_TEXTURE_2D, texture);
    glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_MIN_FILTER, GL_NEAREST);
    glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_MAG_FILTER, GL_NEAREST);
    glTexImage2D(GL_TEXTURE_2D, 0, GL_RGBA, 4, 4, 0, GL_RGBA, GL_UNSIGNED_BYTE, texels);

    int failed = 0;
    static unsigned char pixels[kWidth * kHeight * 4];
    for (int frame = 0; frame < frames; ++frame) {
        MSG message;
        while (PeekMessageA(&message, NULL, 0, 0, PM_REMOVE))
            DispatchMessageA(&message);
        glViewport(0, 0, kWidth, kHeight);
        glClearColor(0.1f, 0.1f * (float)frame, 0.3f, 1.0f);
        glClear(GL_COLOR_BUFFER_BIT);
        glMatrixMode(GL_MODELVIEW);
        glLoadIdentity();
        glRotatef(15.0f * (float)frame, 0.0f, 0.0f, 1.0f);
        glScalef(0.8f, 0.8f, 1.0f);

        GLfloat vertices[8] = {-0.8f, -0.8f, 0.8f, -0.7f, -0.7f, 0.8f, 0.6f + 0.05f * (float)frame, 0.7f};
        GLubyte colors[16];
        for (int i = 0; i < 16; ++i)
            colors[i] = (GLubyte)(255 - i * 12 - frame * 20);
        GLfloat uvs[8] = {0, 0, 1, 0, 0, 1, 1, 1};
        glEnableClientState(GL_VERTEX_ARRAY);
        glEnableClientState(GL_COLOR_ARRAY);
        glEnableClientState(GL_TEXTURE_COORD_ARRAY);
        glVertexPointer(2, GL_FLOAT, 0, vertices);
        glColorPointer(4, GL_UNSIGNED_BYTE, 0, colors);
        glTexCoordPointer(2, GL_FLOAT, 0, uvs);
        glEnable(GL_TEXTURE_2D);
        glDrawArrays(GL_TRIANGLE_STRIP, 0, 4);
        glDisable(GL_TEXTURE_2D);
        glDisableClientState(GL_TEXTURE_COORD_ARRAY);
        GLubyte indices[3] = {0, 3, (GLubyte)(1 + frame % 2)};
        glLoadIdentity();
        glTranslatef(0.2f, -0.1f, 0.0f);
        glDrawElements(GL_TRIANGLES, 3, GL_UNSIGNED_BYTE, indices);

        glReadPixels(0, 0, kWidth, kHeight, GL_RGBA, GL_UNSIGNED_BYTE, pixels);
        GLenum error = glGetError();
        failed |= error != GL_NO_ERROR;
        char path[MAX_PATH];
        snprintf(path, sizeof(path), "%s\\es1-frame-%d.rgba", dir, frame);
        FILE *f = fopen(path, "wb");
        if (!f || fwrite(pixels, 1, sizeof(pixels), f) != sizeof(pixels)) {
            fprintf(stderr, "cannot write %s\n", path);
            return 1;
        }
        fclose(f);
        fprintf(stderr, "es1 frame %d: error 0x%x\n", frame, error);
        eglSwapBuffers(display, surface);
    }
    eglMakeCurrent(display, EGL_NO_SURFACE, EGL_NO_SURFACE, EGL_NO_CONTEXT);
    eglDestroyContext(display, context);
    eglDestroySurface(display, surface);
    eglTerminate(display);
    DestroyWindow(window);
    return failed;
}
