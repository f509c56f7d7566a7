#include "analysis/shader_shadows.h"

#include "analysis/shader_rewrite.h"
#include "api/khronos.h"
#include "base/messages.h"
#include "core/functions_autogen.h"
#include "host/hosts.h"

#include <cstring>

namespace kv::analysis {

namespace {
#define KV_T7 "\t\t\t\t\t\t\t"
#define KV_T12 "\t\t\t\t\t\t\t\t\t\t\t\t   "
// The flat-colour fragment shaders, one per shading-language generation; the runs of tabs are part
// of the texts.
const char kFlatColour100[] = KV_T7 "uniform lowp vec4 colour;" KV_T7 "void main (void)" KV_T7 "{" KV_T7
                                    "gl_FragColor = colour;" KV_T7 "}";
const char kFlatColour300[] = KV_T12 "#version 300 es\n " KV_T12 "uniform lowp vec4 colour;" KV_T12
                                     "layout(location = 0) out lowp vec4 oFragColour;" KV_T12
                                     "void main (void)" KV_T12 "{" KV_T12 "oFragColour = colour;" KV_T12 "}";
#undef KV_T7
#undef KV_T12

const GLESPPHostFns &gl() {
    return GLESPPHost::get().fn;
}

void report(const char *format, const std::string &log) {
    std::string text(format);
    const size_t at = text.find("%s");
    if (at != std::string::npos) text.replace(at, 2, log);
    msg::emit(msg::kDebugger | msg::kOut, "", (text + "\n").c_str());
}

std::string shaderLog(GLuint shader) {
    GLint length = 0;
    gl().glGetShaderiv(shader, GL_INFO_LOG_LENGTH, &length);
    std::string log(length > 0 ? static_cast<size_t>(length) : 0, '\0');
    if (length > 0) gl().glGetShaderInfoLog(shader, length, nullptr, &log[0]);
    return log.c_str();
}

std::string programLog(GLuint program) {
    GLint length = 0;
    gl().glGetProgramiv(program, GL_INFO_LOG_LENGTH, &length);
    std::string log(length > 0 ? static_cast<size_t>(length) : 0, '\0');
    if (length > 0) gl().glGetProgramInfoLog(program, length, nullptr, &log[0]);
    return log.c_str();
}

GLuint compiled(GLenum type, const std::string &source, const char *failure) {
    const GLESPPHostFns &g = gl();
    const GLuint shader = g.glCreateShader(type);
    if (!shader) return 0;
    const GLchar *text = source.c_str();
    g.glShaderSource(shader, 1, &text, nullptr);
    g.glCompileShader(shader);
    GLint ok = 0;
    g.glGetShaderiv(shader, GL_COMPILE_STATUS, &ok);
    // A shader that fails is reported and still used: the link reports it again.
    if (!ok) report(failure, shaderLog(shader));
    return shader;
}

// How a uniform's value is read from one program and written to another.
enum class Kind : uint8_t { Float, Matrix, Int, Uint };
struct TypeInfo {
    GLenum type;
    Kind kind;
    uint8_t components;
};
const TypeInfo kTypes[] = {
    {GL_FLOAT, Kind::Float, 1},
    {GL_FLOAT_VEC2, Kind::Float, 2},
    {GL_FLOAT_VEC3, Kind::Float, 3},
    {GL_FLOAT_VEC4, Kind::Float, 4},
    {GL_FLOAT_MAT2, Kind::Matrix, 4},
    {GL_FLOAT_MAT3, Kind::Matrix, 9},
    {GL_FLOAT_MAT4, Kind::Matrix, 16},
    {GL_FLOAT_MAT2x3, Kind::Matrix, 6},
    {GL_FLOAT_MAT2x4, Kind::Matrix, 8},
    {GL_FLOAT_MAT3x2, Kind::Matrix, 6},
    {GL_FLOAT_MAT3x4, Kind::Matrix, 12},
    {GL_FLOAT_MAT4x2, Kind::Matrix, 8},
    {GL_FLOAT_MAT4x3, Kind::Matrix, 12},
    {GL_INT_VEC2, Kind::Int, 2},
    {GL_INT_VEC3, Kind::Int, 3},
    {GL_INT_VEC4, Kind::Int, 4},
    {GL_BOOL_VEC2, Kind::Int, 2},
    {GL_BOOL_VEC3, Kind::Int, 3},
    {GL_BOOL_VEC4, Kind::Int, 4},
    {GL_UNSIGNED_INT, Kind::Uint, 1},
    {GL_UNSIGNED_INT_VEC2, Kind::Uint, 2},
    {GL_UNSIGNED_INT_VEC3, Kind::Uint, 3},
    {GL_UNSIGNED_INT_VEC4, Kind::Uint, 4},
};
// Any other type (int, bool, every sampler and image type) is one integer.
TypeInfo typeInfo(GLenum type) {
    for (const TypeInfo &t : kTypes)
        if (t.type == type) return t;
    return TypeInfo{type, Kind::Int, 1};
}
} // namespace

struct ShaderShadows::Shadow {
    GLuint program = 0;
    bool tried = false;
    struct Uniform {
        GLenum type;
        GLint from, to;
    };
    std::vector<Uniform> uniforms;
    std::vector<std::pair<GLuint, GLuint>> blocks; // uniform block index in the application's, in the copy
};

struct ShaderShadows::Group {
    struct ShaderText {
        GLenum type = 0;
        std::string source;
        int version = 0; // shading-language generation; -1 for an unknown version
        bool rewritten = false;
        std::string discardFree;
    };
    struct Program {
        std::vector<GLuint> attached;
        // What the last successful link was made of.
        bool linked = false;
        std::vector<std::pair<GLenum, std::string>> stages; // every stage but the fragment one
        int fragmentVersion = 0;
        bool hasDiscardFree = false;
        std::string discardFree;
        Shadow flat, discardless;
    };
    std::map<GLuint, ShaderText> shaders;
    std::map<GLuint, Program> programs;
    GLuint flatShader[2] = {0, 0};
};

struct ShaderShadows::Context {
    std::shared_ptr<Group> group = std::make_shared<Group>();
    // Whether the context has uniform blocks and transform feedback; -1 until asked. Contexts of
    // different versions can share objects, so this is the context's own.
    int es3 = -1;
};

ShaderShadows::ShaderShadows() = default;
ShaderShadows::~ShaderShadows() = default;

void ShaderShadows::flatColour(uint32_t application, uint32_t shadow, float rgba[4]) {
    const uint32_t v = (application * shadow * 7000u) | 0xFF000000u;
    rgba[0] = static_cast<float>(v & 0xFF) / 255.0f;
    rgba[1] = static_cast<float>((v >> 8) & 0xFF) / 255.0f;
    rgba[2] = static_cast<float>((v >> 16) & 0xFF) / 255.0f;
    rgba[3] = 1.0f;
}

bool ShaderShadows::es3(Context &c) {
    if (c.es3 < 0) {
        const char *version = reinterpret_cast<const char *>(gl().glGetString(GL_VERSION));
        c.es3 = version && std::strncmp(version, "OpenGL ES ", 10) == 0 && version[10] >= '3';
    }
    return c.es3 != 0;
}

ShaderShadows::Context &ShaderShadows::current() {
    void *key = nullptr;
    if (auto getContext = SEglHost::get().fn.eglGetCurrentContext) key = getContext();
    // A context made before profiling began has a group of its own.
    std::unique_ptr<Context> &c = contexts_[key];
    if (!c) c.reset(new Context());
    return *c;
}

void ShaderShadows::contextCreated(void *context, void *shareWith) {
    if (!context) return;
    platform::LockGuard<platform::Mutex> guard(lock_);
    std::unique_ptr<Context> &c = contexts_[context];
    // A handle the driver gives again after a destroy names a new context.
    c.reset(new Context());
    if (!shareWith) return;
    std::unique_ptr<Context> &other = contexts_[shareWith];
    if (!other) other.reset(new Context());
    c->group = other->group;
}

void ShaderShadows::contextDestroyed(void *context) {
    if (!context) return;
    platform::LockGuard<platform::Mutex> guard(lock_);
    // The group's copies go with its last context in the driver, and here with the last entry.
    contexts_.erase(context);
}

void ShaderShadows::postCall(uint16_t id, const uint64_t *slots, uint32_t count) {
    if (count < 1) return;
    const GLESPPHostFns &g = gl();
    const GLuint first = static_cast<GLuint>(slots[0]);
    if (id == fn::glShaderSource::id) {
        if (count < 3 || slots[2] == 0 || !g.glGetShaderiv || !g.glGetShaderSource) return;
        platform::LockGuard<platform::Mutex> guard(lock_);
        Group::ShaderText &s = current().group->shaders[first];
        GLint type = 0, length = 0;
        g.glGetShaderiv(first, GL_SHADER_TYPE, &type);
        g.glGetShaderiv(first, GL_SHADER_SOURCE_LENGTH, &length);
        // The joined text as the driver keeps it: the application's strings are not read again.
        std::string text(length > 0 ? static_cast<size_t>(length) : 0, '\0');
        if (length > 0) g.glGetShaderSource(first, length, nullptr, &text[0]);
        s = Group::ShaderText();
        s.type = static_cast<GLenum>(type);
        s.source = text.c_str();
        s.version = shaderVersionClass(s.source);
        if (s.type == GL_FRAGMENT_SHADER) s.rewritten = processRewriter().rewrite(s.source, &s.discardFree);
    } else if (id == fn::glAttachShader::id || id == fn::glDetachShader::id) {
        if (count < 2) return;
        platform::LockGuard<platform::Mutex> guard(lock_);
        std::vector<GLuint> &attached = current().group->programs[first].attached;
        const GLuint shader = static_cast<GLuint>(slots[1]);
        for (size_t i = 0; i < attached.size(); ++i)
            if (attached[i] == shader) attached.erase(attached.begin() + static_cast<long>(i--));
        if (id == fn::glAttachShader::id) attached.push_back(shader);
    } else if (id == fn::glLinkProgram::id) {
        platform::LockGuard<platform::Mutex> guard(lock_);
        Group &c = *current().group;
        Group::Program &p = c.programs[first];
        // A relinked program gets new copies, made from what it is linked from now.
        for (Shadow *s : {&p.flat, &p.discardless}) {
            if (s->program) g.glDeleteProgram(s->program);
            *s = Shadow();
        }
        GLint ok = 0;
        g.glGetProgramiv(first, GL_LINK_STATUS, &ok);
        p.linked = ok != 0;
        p.stages.clear();
        p.hasDiscardFree = false;
        p.fragmentVersion = 0;
        for (GLuint shader : p.attached) {
            auto it = c.shaders.find(shader);
            // A shader whose text was never seen (a binary one) cannot be copied.
            if (it == c.shaders.end()) {
                p.linked = false;
                break;
            }
            const Group::ShaderText &s = it->second;
            if (s.type == GL_FRAGMENT_SHADER) {
                p.fragmentVersion = s.version;
                p.hasDiscardFree = s.rewritten;
                p.discardFree = s.discardFree;
            } else {
                p.stages.emplace_back(s.type, s.source);
            }
        }
    } else if (id == fn::glDeleteProgram::id) {
        platform::LockGuard<platform::Mutex> guard(lock_);
        Group &c = *current().group;
        auto it = c.programs.find(first);
        if (it == c.programs.end()) return;
        for (Shadow *s : {&it->second.flat, &it->second.discardless})
            if (s->program) g.glDeleteProgram(s->program);
        c.programs.erase(it);
    }
}

bool ShaderShadows::build(Context &context, GLuint program, bool flat, Shadow &s) {
    const GLESPPHostFns &g = gl();
    Group &c = *context.group;
    Group::Program &p = c.programs[program];
    s.tried = true;
    GLuint fragment = 0;
    if (flat) {
        const int generation = p.fragmentVersion >= 1 ? 1 : 0;
        if (!c.flatShader[generation])
            c.flatShader[generation] =
                compiled(GL_FRAGMENT_SHADER, generation ? kFlatColour300 : kFlatColour100,
                         "(*ourProgram).flatColour '%s'");
        fragment = c.flatShader[generation];
    } else {
        fragment = compiled(GL_FRAGMENT_SHADER, p.discardFree, "(*ourProgram).discardless '%s'");
    }
    if (!fragment) return false;
    s.program = g.glCreateProgram();
    g.glAttachShader(s.program, fragment);
    if (!flat) g.glDeleteShader(fragment); // goes with the program
    for (const auto &stage : p.stages) {
        const GLuint shader =
            compiled(stage.first, stage.second,
                     flat ? "(*ourProgram).flatColour '%s'" : "(*ourProgram).discardless '%s'");
        g.glAttachShader(s.program, shader);
        g.glDeleteShader(shader);
    }
    // The application's attribute locations, so that its vertex arrays feed the copy alike.
    GLint attributes = 0, longest = 0;
    g.glGetProgramiv(program, GL_ACTIVE_ATTRIBUTES, &attributes);
    g.glGetProgramiv(program, GL_ACTIVE_ATTRIBUTE_MAX_LENGTH, &longest);
    std::string name(static_cast<size_t>(longest > 0 ? longest : 1) + 1, '\0');
    for (GLint i = 0; i < attributes; ++i) {
        GLint size = 0;
        GLenum type = 0;
        g.glGetActiveAttrib(program, static_cast<GLuint>(i), static_cast<GLsizei>(name.size()), nullptr,
                            &size, &type, &name[0]);
        if (std::strncmp(name.c_str(), "gl_", 3) == 0) continue;
        const GLint location = g.glGetAttribLocation(program, name.c_str());
        if (location >= 0) g.glBindAttribLocation(s.program, static_cast<GLuint>(location), name.c_str());
    }
    g.glLinkProgram(s.program);
    GLint ok = 0;
    g.glGetProgramiv(s.program, GL_LINK_STATUS, &ok);
    if (!ok) {
        report(flat ? "(*ourProgram).flatColour '%s'" : "(*ourProgram).discardless '%s'",
               programLog(s.program));
        g.glDeleteProgram(s.program);
        s.program = 0;
        return false;
    }
    // Every uniform of the copy that the application's program has too takes its value from there
    // at each draw; array elements one by one.
    GLint uniforms = 0;
    g.glGetProgramiv(s.program, GL_ACTIVE_UNIFORMS, &uniforms);
    g.glGetProgramiv(s.program, GL_ACTIVE_UNIFORM_MAX_LENGTH, &longest);
    name.assign(static_cast<size_t>(longest > 0 ? longest : 1) + 1, '\0');
    for (GLint i = 0; i < uniforms; ++i) {
        GLint size = 0;
        GLenum type = 0;
        g.glGetActiveUniform(s.program, static_cast<GLuint>(i), static_cast<GLsizei>(name.size()), nullptr,
                             &size, &type, &name[0]);
        std::string base = name.c_str();
        if (flat && base == "colour") continue;
        const size_t bracket = base.find('[');
        if (bracket != std::string::npos) base.resize(bracket);
        for (GLint e = 0; e < size; ++e) {
            const std::string element =
                size > 1 || bracket != std::string::npos ? base + "[" + std::to_string(e) + "]" : base;
            const GLint from = g.glGetUniformLocation(program, element.c_str());
            const GLint to = g.glGetUniformLocation(s.program, element.c_str());
            if (from >= 0 && to >= 0) s.uniforms.push_back({type, from, to});
        }
    }
    if (es3(context) && g.glGetActiveUniformBlockName && g.glGetUniformBlockIndex) {
        GLint blocks = 0;
        g.glGetProgramiv(s.program, GL_ACTIVE_UNIFORM_BLOCKS, &blocks);
        for (GLint i = 0; i < blocks; ++i) {
            char blockName[256] = {};
            g.glGetActiveUniformBlockName(s.program, static_cast<GLuint>(i), sizeof blockName, nullptr,
                                          blockName);
            const GLuint from = g.glGetUniformBlockIndex(program, blockName);
            if (from != GL_INVALID_INDEX) s.blocks.emplace_back(from, static_cast<GLuint>(i));
        }
    }
    if (flat) {
        // Each program keeps one colour: set once, as uniforms keep their values.
        float rgba[4];
        flatColour(program, s.program, rgba);
        g.glUseProgram(s.program);
        g.glUniform4f(g.glGetUniformLocation(s.program, "colour"), rgba[0], rgba[1], rgba[2], rgba[3]);
        g.glUseProgram(program);
    }
    return true;
}

void ShaderShadows::copyUniforms(GLuint application, const Shadow &s) {
    const GLESPPHostFns &g = gl();
    for (const Shadow::Uniform &u : s.uniforms) {
        const TypeInfo t = typeInfo(u.type);
        union {
            GLfloat f[16];
            GLint i[16];
            GLuint u[16];
        } v = {};
        switch (t.kind) {
        case Kind::Float:
            g.glGetUniformfv(application, u.from, v.f);
            if (t.components == 1) g.glUniform1fv(u.to, 1, v.f);
            if (t.components == 2) g.glUniform2fv(u.to, 1, v.f);
            if (t.components == 3) g.glUniform3fv(u.to, 1, v.f);
            if (t.components == 4) g.glUniform4fv(u.to, 1, v.f);
            break;
        case Kind::Matrix:
            g.glGetUniformfv(application, u.from, v.f);
            switch (u.type) {
            case GL_FLOAT_MAT2:
                g.glUniformMatrix2fv(u.to, 1, GL_FALSE, v.f);
                break;
            case GL_FLOAT_MAT3:
                g.glUniformMatrix3fv(u.to, 1, GL_FALSE, v.f);
                break;
            case GL_FLOAT_MAT4:
                g.glUniformMatrix4fv(u.to, 1, GL_FALSE, v.f);
                break;
            case GL_FLOAT_MAT2x3:
                g.glUniformMatrix2x3fv(u.to, 1, GL_FALSE, v.f);
                break;
            case GL_FLOAT_MAT2x4:
                g.glUniformMatrix2x4fv(u.to, 1, GL_FALSE, v.f);
                break;
            case GL_FLOAT_MAT3x2:
                g.glUniformMatrix3x2fv(u.to, 1, GL_FALSE, v.f);
                break;
            case GL_FLOAT_MAT3x4:
                g.glUniformMatrix3x4fv(u.to, 1, GL_FALSE, v.f);
                break;
            case GL_FLOAT_MAT4x2:
                g.glUniformMatrix4x2fv(u.to, 1, GL_FALSE, v.f);
                break;
            default:
                g.glUniformMatrix4x3fv(u.to, 1, GL_FALSE, v.f);
                break;
            }
            break;
        case Kind::Int:
            g.glGetUniformiv(application, u.from, v.i);
            if (t.components == 1) g.glUniform1iv(u.to, 1, v.i);
            if (t.components == 2) g.glUniform2iv(u.to, 1, v.i);
            if (t.components == 3) g.glUniform3iv(u.to, 1, v.i);
            if (t.components == 4) g.glUniform4iv(u.to, 1, v.i);
            break;
        case Kind::Uint:
            g.glGetUniformuiv(application, u.from, v.u);
            if (t.components == 1) g.glUniform1uiv(u.to, 1, v.u);
            if (t.components == 2) g.glUniform2uiv(u.to, 1, v.u);
            if (t.components == 3) g.glUniform3uiv(u.to, 1, v.u);
            if (t.components == 4) g.glUniform4uiv(u.to, 1, v.u);
            break;
        }
    }
    for (const auto &b : s.blocks) {
        GLint binding = 0;
        g.glGetActiveUniformBlockiv(application, b.first, GL_UNIFORM_BLOCK_BINDING, &binding);
        g.glUniformBlockBinding(s.program, b.second, static_cast<GLuint>(binding));
    }
}

bool ShaderShadows::substitute(bool flat, bool discardless, uint32_t *applicationProgram) {
    const GLESPPHostFns &g = gl();
    if (!g.glGetIntegerv || !g.glUseProgram || !g.glCreateProgram) return false;
    GLint programValue = 0;
    g.glGetIntegerv(GL_CURRENT_PROGRAM, &programValue);
    const GLuint program = static_cast<GLuint>(programValue);
    if (program == 0) return false;
    platform::LockGuard<platform::Mutex> guard(lock_);
    Context &c = current();
    Group &group = *c.group;
    auto it = group.programs.find(program);
    if (it == group.programs.end() || !it->second.linked) return false;
    Group::Program &p = it->second;
    // The flat colour wins: it replaces the whole fragment stage, discards and all.
    Shadow *s = flat ? &p.flat : discardless && p.hasDiscardFree ? &p.discardless : nullptr;
    if (!s) return false;
    // A draw that captures transform feedback keeps the application's program: the copy captures
    // nothing, and changing programs then is an error the application would see.
    if (es3(c) && g.glGetBooleanv) {
        GLboolean capturing = GL_FALSE;
        g.glGetBooleanv(GL_TRANSFORM_FEEDBACK_ACTIVE, &capturing);
        if (capturing) return false;
    }
    if (!s->tried) build(c, program, s == &p.flat, *s);
    if (!s->program) return false;
    g.glUseProgram(s->program);
    copyUniforms(program, *s);
    *applicationProgram = program;
    return true;
}

void ShaderShadows::putBack(uint32_t applicationProgram) {
    gl().glUseProgram(applicationProgram);
}

} // namespace kv::analysis
