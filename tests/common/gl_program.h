/* Shaders and programs for the test programs: every one of their shaders is meant to build, so a
 * compile or a link that fails prints the driver's log and ends the program. The including file
 * includes its OpenGL ES header first. */
#ifndef KALVOREN_TEST_GL_PROGRAM_H
#define KALVOREN_TEST_GL_PROGRAM_H

#include <stdio.h>
#include <stdlib.h>

static inline GLuint compileShader(GLenum type, const char *source) {
    GLuint s = glCreateShader(type);
    glShaderSource(s, 1, &source, NULL);
    glCompileShader(s);
    GLint ok = 0;
    glGetShaderiv(s, GL_COMPILE_STATUS, &ok);
    if (!ok) {
        char log[1024] = "";
        glGetShaderInfoLog(s, sizeof(log), NULL, log);
        fprintf(stderr, "shader: %s\n%s\n", log, source);
        exit(1);
    }
    return s;
}

static inline GLuint linkProgram(GLuint program) {
    glLinkProgram(program);
    GLint ok = 0;
    glGetProgramiv(program, GL_LINK_STATUS, &ok);
    if (!ok) {
        char log[1024] = "";
        glGetProgramInfoLog(program, sizeof(log), NULL, log);
        fprintf(stderr, "program: %s\n", log);
        exit(1);
    }
    return program;
}

/* A program of a vertex and a fragment shader, not linked yet. */
static inline GLuint attachShaders(const char *vs, const char *fs) {
    GLuint p = glCreateProgram();
    glAttachShader(p, compileShader(GL_VERTEX_SHADER, vs));
    glAttachShader(p, compileShader(GL_FRAGMENT_SHADER, fs));
    return p;
}

#endif
