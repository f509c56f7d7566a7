// Shaders, programs, their uniform values, and program pipelines: what it takes to build each
// program again.
#include "entry/gles/hooks_state.h"
#include "entry/hooks.h"

namespace kv {

using namespace gles;

namespace {

using Resources = CEs2ContextState::SEs2Resources;

// A uniform value given as `count` elements of `perElement` words in application memory.
template <class T>
void uniformArray(CallCtx &c, uint16_t call, GLuint program, GLint location, GLsizei count,
                  uint32_t perElement, GLboolean transpose, const T *values) {
    // Reused by every call of the thread: no allocation once it is large enough.
    static thread_local std::vector<uint32_t> words;
    if (!accepted(c) || location < 0 || count <= 0) return;
    if (!readWords(values, uint64_t(count) * perElement, words)) return;
    updateState(c, [&](CEs2ContextState &s) {
        s.setUniform(program, location, call, count, transpose, words.data(), words.size());
    });
}

// The shader stages of a glUseProgramStages mask, one bit each.
constexpr GLbitfield kStageBits[] = {GL_VERTEX_SHADER_BIT,       GL_FRAGMENT_SHADER_BIT,
                                     GL_COMPUTE_SHADER_BIT,      GL_GEOMETRY_SHADER_BIT,
                                     GL_TESS_CONTROL_SHADER_BIT, GL_TESS_EVALUATION_SHADER_BIT};

} // namespace

void keepUniformValue(CallCtx &c, uint16_t call, GLuint program, GLint location, const uint32_t *words,
                      size_t count) {
    if (location < 0) return;
    updateState(
        c, [&](CEs2ContextState &s) { s.setUniform(program, location, call, 1, GL_FALSE, words, count); });
}

// ---- Shaders -----------------------------------------------------------------------------------

void Hooks<fn::glCreateShader>::after(CallCtx &c, GLuint &result, GLenum type) {
    if (result == 0) return;
    updateState(c, [&](CEs2ContextState &s) {
        Resources::Shader &shader = s.shared().shaders[result];
        shader = Resources::Shader{};
        shader.type = type;
    });
}

void Hooks<fn::glShaderSource>::after(CallCtx &c, Void &, GLuint shader, GLsizei count,
                                      const GLchar *const *strings, const GLint *lengths) {
    std::string source;
    if (!accepted(c) || !readSources(count, strings, lengths, source)) return;
    updateState(c, [&](CEs2ContextState &s) { s.shared().shaders[shader].source = std::move(source); });
}

void Hooks<fn::glCompileShader>::after(CallCtx &c, Void &, GLuint shader) {
    updateState(c, [&](CEs2ContextState &s) {
        auto it = s.shared().shaders.find(shader);
        if (it != s.shared().shaders.end()) it->second.compiled = true;
    });
}

void Hooks<fn::glDeleteShader>::after(CallCtx &c, Void &, GLuint shader) {
    updateState(c, [&](CEs2ContextState &s) { s.deleteShader(shader); });
}

// ---- Programs ----------------------------------------------------------------------------------

void Hooks<fn::glCreateProgram>::after(CallCtx &c, GLuint &result) {
    if (result == 0) return;
    updateState(c, [&](CEs2ContextState &s) { s.shared().programs[result] = Resources::Program{}; });
}

void Hooks<fn::glCreateShaderProgramv>::after(CallCtx &c, GLuint &result, GLenum type, GLsizei count,
                                              const GLchar *const *strings) {
    std::string source;
    if (result == 0 || !accepted(c)) return;
    readSources(count, strings, nullptr, source);
    updateState(c, [&](CEs2ContextState &s) {
        Resources::Program &program = s.shared().programs[result];
        program = Resources::Program{};
        program.shaderProgramType = type;
        program.shaderProgramSource = std::move(source);
        program.parameters[GL_PROGRAM_SEPARABLE] = GL_TRUE;
        program.linked = true;
    });
}

void Hooks<fn::glDeleteProgram>::after(CallCtx &c, Void &, GLuint program) {
    updateState(c, [&](CEs2ContextState &s) { s.deleteProgram(program); });
}

void Hooks<fn::glAttachShader>::after(CallCtx &c, Void &, GLuint program, GLuint shader) {
    updateState(c, [&](CEs2ContextState &s) { s.attachShader(program, shader); });
}

void Hooks<fn::glDetachShader>::after(CallCtx &c, Void &, GLuint program, GLuint shader) {
    updateState(c, [&](CEs2ContextState &s) { s.detachShader(program, shader); });
}

void Hooks<fn::glBindAttribLocation>::after(CallCtx &c, Void &, GLuint program, GLuint index,
                                            const GLchar *name) {
    std::string text;
    if (!accepted(c) || !readText(name, -1, text)) return;
    updateState(c,
                [&](CEs2ContextState &s) { s.shared().programs[program].attributeBindings[text] = index; });
}

void Hooks<fn::glTransformFeedbackVaryings>::after(CallCtx &c, Void &, GLuint program, GLsizei count,
                                                   const GLchar *const *varyings, GLenum bufferMode) {
    std::vector<std::string> names;
    if (!accepted(c) || !readStrings(count, varyings, names)) return;
    updateState(c, [&](CEs2ContextState &s) {
        Resources::Program &record = s.shared().programs[program];
        record.feedbackVaryings = std::move(names);
        record.feedbackMode = bufferMode;
    });
}

void Hooks<fn::glLinkProgram>::after(CallCtx &c, Void &, GLuint program) {
    updateState(c, [&](CEs2ContextState &s) { s.linkProgram(program); });
}

void Hooks<fn::glProgramParameteri>::after(CallCtx &c, Void &, GLuint program, GLenum pname, GLint value) {
    updateState(c, [&](CEs2ContextState &s) { s.shared().programs[program].parameters[pname] = value; });
}

void Hooks<fn::glProgramBinary>::after(CallCtx &c, Void &, GLuint program, GLenum binaryFormat,
                                       const void *binary, GLsizei length) {
    std::vector<uint8_t> bytes;
    if (!accepted(c) || length < 0 ||
        !readValues(static_cast<const uint8_t *>(binary), static_cast<size_t>(length), bytes))
        return;
    updateState(c, [&](CEs2ContextState &s) {
        s.linkProgram(program);
        Resources::Program &record = s.shared().programs[program];
        record.binaryFormat = binaryFormat;
        record.binary = std::move(bytes);
    });
}

void Hooks<fn::glUseProgram>::after(CallCtx &c, Void &, GLuint program) {
    updateState(c, [&](CEs2ContextState &s) { s.useProgram(program); });
}

void Hooks<fn::glUniformBlockBinding>::after(CallCtx &c, Void &, GLuint program, GLuint blockIndex,
                                             GLuint binding) {
    updateState(c, [&](CEs2ContextState &s) {
        s.shared().programs[program].uniformBlockBindings[blockIndex] = binding;
    });
}

void Hooks<fn::glGetUniformLocation>::after(CallCtx &c, GLint &result, GLuint program, const GLchar *name) {
    std::string text;
    if (result < 0 || !accepted(c) || !readText(name, -1, text)) return;
    updateState(
        c, [&](CEs2ContextState &s) { s.shared().programs[program].uniformNames[result] = std::move(text); });
}

void Hooks<fn::glGetUniformBlockIndex>::after(CallCtx &c, GLuint &result, GLuint program,
                                              const GLchar *name) {
    std::string text;
    if (result == GL_INVALID_INDEX || !accepted(c) || !readText(name, -1, text)) return;
    updateState(c, [&](CEs2ContextState &s) {
        s.shared().programs[program].uniformBlockNames[result] = std::move(text);
    });
}

// ---- Program pipelines -------------------------------------------------------------------------

void Hooks<fn::glGenProgramPipelines>::after(CallCtx &c, Void &, GLsizei n, GLuint *pipelines) {
    std::vector<GLuint> names;
    if (!readNames(c, n, pipelines, names)) return;
    updateState(c, [&](CEs2ContextState &s) {
        for (GLuint name : names)
            if (name) s.programPipelines[name];
    });
}

void Hooks<fn::glDeleteProgramPipelines>::after(CallCtx &c, Void &, GLsizei n, const GLuint *pipelines) {
    std::vector<GLuint> names;
    if (!readNames(c, n, pipelines, names)) return;
    updateState(c, [&](CEs2ContextState &s) {
        for (GLuint name : names)
            s.deleteProgramPipeline(name);
    });
}

void Hooks<fn::glBindProgramPipeline>::after(CallCtx &c, Void &, GLuint pipeline) {
    updateState(c, [&](CEs2ContextState &s) {
        s.programPipelineBinding = pipeline;
        if (pipeline) s.programPipelines[pipeline];
    });
}

void Hooks<fn::glUseProgramStages>::after(CallCtx &c, Void &, GLuint pipeline, GLbitfield stages,
                                          GLuint program) {
    updateState(c, [&](CEs2ContextState &s) {
        ProgramPipelineRecord &record = s.programPipelines[pipeline];
        for (GLbitfield bit : kStageBits) {
            if (!(stages & bit)) continue;
            if (program)
                record.stages[bit] = program;
            else
                record.stages.erase(bit);
        }
    });
}

void Hooks<fn::glActiveShaderProgram>::after(CallCtx &c, Void &, GLuint pipeline, GLuint program) {
    updateState(c, [&](CEs2ContextState &s) { s.programPipelines[pipeline].activeProgram = program; });
}

// ---- Uniform values ----------------------------------------------------------------------------

// glUniform{N}{f,i,ui}v and glProgramUniform{N}{f,i,ui}v: count elements of N values.
#define KV_UNIFORM_VECTOR_HOOKS(N, Kind, T)                                                                  \
    void Hooks<fn::glUniform##N##Kind##v>::after(CallCtx &c, Void &, GLint location, GLsizei count,          \
                                                 const T *value) {                                           \
        uniformArray(c, fn::glUniform##N##Kind##v::id, 0, location, count, N, GL_FALSE, value);              \
    }                                                                                                        \
    void Hooks<fn::glProgramUniform##N##Kind##v>::after(CallCtx &c, Void &, GLuint program, GLint location,  \
                                                        GLsizei count, const T *value) {                     \
        uniformArray(c, fn::glProgramUniform##N##Kind##v::id, program, location, count, N, GL_FALSE, value); \
    }
KV_UNIFORM_VECTOR_HOOKS(1, f, GLfloat)
KV_UNIFORM_VECTOR_HOOKS(2, f, GLfloat)
KV_UNIFORM_VECTOR_HOOKS(3, f, GLfloat)
KV_UNIFORM_VECTOR_HOOKS(4, f, GLfloat)
KV_UNIFORM_VECTOR_HOOKS(1, i, GLint)
KV_UNIFORM_VECTOR_HOOKS(2, i, GLint)
KV_UNIFORM_VECTOR_HOOKS(3, i, GLint)
KV_UNIFORM_VECTOR_HOOKS(4, i, GLint)
KV_UNIFORM_VECTOR_HOOKS(1, ui, GLuint)
KV_UNIFORM_VECTOR_HOOKS(2, ui, GLuint)
KV_UNIFORM_VECTOR_HOOKS(3, ui, GLuint)
KV_UNIFORM_VECTOR_HOOKS(4, ui, GLuint)
#undef KV_UNIFORM_VECTOR_HOOKS

// glUniformMatrix{Shape}fv and glProgramUniformMatrix{Shape}fv: count matrices of Words values.
#define KV_UNIFORM_MATRIX_HOOKS(Shape, Words)                                                                \
    void Hooks<fn::glUniformMatrix##Shape##fv>::after(CallCtx &c, Void &, GLint location, GLsizei count,     \
                                                      GLboolean transpose, const GLfloat *value) {           \
        uniformArray(c, fn::glUniformMatrix##Shape##fv::id, 0, location, count, Words, transpose, value);    \
    }                                                                                                        \
    void Hooks<fn::glProgramUniformMatrix##Shape##fv>::after(CallCtx &c, Void &, GLuint program,             \
                                                             GLint location, GLsizei count,                  \
                                                             GLboolean transpose, const GLfloat *value) {    \
        uniformArray(c, fn::glProgramUniformMatrix##Shape##fv::id, program, location, count, Words,          \
                     transpose, value);                                                                      \
    }
KV_UNIFORM_MATRIX_HOOKS(2, 4)
KV_UNIFORM_MATRIX_HOOKS(3, 9)
KV_UNIFORM_MATRIX_HOOKS(4, 16)
KV_UNIFORM_MATRIX_HOOKS(2x3, 6)
KV_UNIFORM_MATRIX_HOOKS(3x2, 6)
KV_UNIFORM_MATRIX_HOOKS(2x4, 8)
KV_UNIFORM_MATRIX_HOOKS(4x2, 8)
KV_UNIFORM_MATRIX_HOOKS(3x4, 12)
KV_UNIFORM_MATRIX_HOOKS(4x3, 12)
#undef KV_UNIFORM_MATRIX_HOOKS

} // namespace kv
