// The test host's dispatcher: the call log, the programmed answers and the few functions that
// must behave like a driver for the library to work at all.
#include "tests/host/test_host_dispatch.h"

#include <cstring>
#include <mutex>
#include <optional>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

namespace kvth {

namespace {

// Function ids are below this (the catalogue numbers its families in thousands).
constexpr uint32_t kIdLimit = 8192;

#if KVTH_OMIT_EGL12
constexpr EGLint kEglMinor = 1;
const char kEglVersion[] = "1.1 Kalvoren test host";
#elif KVTH_OMIT_EGL15
constexpr EGLint kEglMinor = 4;
const char kEglVersion[] = "1.4 Kalvoren test host";
#else
constexpr EGLint kEglMinor = 5;
const char kEglVersion[] = "1.5 Kalvoren test host";
#endif

const char kEglExtensions[] =
    "EGL_KHR_image_base EGL_KHR_fence_sync EGL_KHR_wait_sync EGL_KHR_partial_update "
    "EGL_EXT_swap_buffers_with_damage EGL_EXT_platform_base EGL_ANDROID_native_fence_sync "
    "EGL_ANDROID_recordable EGL_ANDROID_framebuffer_target";
const char kGlExtensionList[] =
    "GL_OES_element_index_uint GL_OES_texture_npot GL_EXT_texture_format_BGRA8888 GL_KHR_debug";

struct ConfigAttribute {
    EGLint name;
    EGLint value;
};

// The one config of the host: 8888 colour, 24 bit depth, 8 bit stencil, ES2 and ES3, windows and
// pbuffers.
const ConfigAttribute kConfigAttributes[] = {
    {EGL_BUFFER_SIZE, 32},
    {EGL_RED_SIZE, 8},
    {EGL_GREEN_SIZE, 8},
    {EGL_BLUE_SIZE, 8},
    {EGL_ALPHA_SIZE, 8},
    {EGL_LUMINANCE_SIZE, 0},
    {EGL_ALPHA_MASK_SIZE, 0},
    {EGL_BIND_TO_TEXTURE_RGB, EGL_FALSE},
    {EGL_BIND_TO_TEXTURE_RGBA, EGL_FALSE},
    {EGL_COLOR_BUFFER_TYPE, EGL_RGB_BUFFER},
    {EGL_CONFIG_CAVEAT, EGL_NONE},
    {EGL_CONFIG_ID, 1},
    {EGL_CONFORMANT, EGL_OPENGL_ES2_BIT | EGL_OPENGL_ES3_BIT},
    {EGL_DEPTH_SIZE, 24},
    {EGL_LEVEL, 0},
    {EGL_MAX_PBUFFER_WIDTH, 4096},
    {EGL_MAX_PBUFFER_HEIGHT, 4096},
    {EGL_MAX_PBUFFER_PIXELS, 4096 * 4096},
    {EGL_MAX_SWAP_INTERVAL, 1},
    {EGL_MIN_SWAP_INTERVAL, 0},
    {EGL_NATIVE_RENDERABLE, EGL_FALSE},
    {EGL_NATIVE_VISUAL_ID, 0},
    {EGL_NATIVE_VISUAL_TYPE, EGL_NONE},
    {EGL_RENDERABLE_TYPE, EGL_OPENGL_ES2_BIT | EGL_OPENGL_ES3_BIT},
    {EGL_SAMPLE_BUFFERS, 0},
    {EGL_SAMPLES, 0},
    {EGL_STENCIL_SIZE, 8},
    {EGL_SURFACE_TYPE, EGL_WINDOW_BIT | EGL_PBUFFER_BIT},
    {EGL_TRANSPARENT_TYPE, EGL_NONE},
    {EGL_TRANSPARENT_RED_VALUE, 0},
    {EGL_TRANSPARENT_GREEN_VALUE, 0},
    {EGL_TRANSPARENT_BLUE_VALUE, 0},
    {EGL_RECORDABLE_ANDROID, EGL_TRUE},
    {EGL_FRAMEBUFFER_TARGET_ANDROID, EGL_TRUE},
};

// What kvth_reset forgets.
struct Programmed {
    bool logging = true;
    std::vector<KvthCall> log;
    uint32_t counts[kIdLimit] = {};
    bool programmed[kIdLimit] = {};
    uint64_t results[kIdLimit] = {};
    uint32_t raise[kIdLimit] = {};
    uint32_t glError = GL_NO_ERROR;
    EGLint eglError = EGL_SUCCESS;
    EGLint width = 64;
    EGLint height = 64;
    GLuint nextName = 1;
    std::string glExtensions = kGlExtensionList;
    std::vector<std::string> glExtensionNames;
    std::vector<std::pair<uint32_t, int32_t>> integers;
    uint8_t pixelSeed = 0;
    bool pixelsProgrammed = false; // glReadPixels writes only when asked to (its pointer may be an offset)
    int64_t unknownIntegers[10] = {};
    double unknownFloats[2] = {};
};

struct State;
// What a function does beyond being logged (with the state locked): its answer, if it has one.
using Answer = std::optional<uint64_t>;
using Behaviour = Answer (*)(State &s, const uint64_t *args);

struct State : Programmed {
    std::mutex lock;
    Behaviour behaviours[kIdLimit] = {};
    Family families[kIdLimit] = {};
};

State &state() {
    static State *s = new State();
    return *s;
}

// Runs `f` on the state, locked.
template <class F>
auto locked(F f) {
    State &s = state();
    std::lock_guard<std::mutex> guard(s.lock);
    return f(s);
}

const Function *findFunction(const char *name) {
    if (!name) return nullptr;
    for (uint32_t i = 0; i < kFunctionCount; ++i)
        if (std::strcmp(kFunctions[i].name, name) == 0) return &kFunctions[i];
    return nullptr;
}

const Function *findFunction(uint16_t id) {
    for (uint32_t i = 0; i < kFunctionCount; ++i)
        if (kFunctions[i].id == id) return &kFunctions[i];
    return nullptr;
}

void raiseError(State &s, Family family, uint32_t error) {
    if (family == kEgl)
        s.eglError = static_cast<EGLint>(error);
    else if (s.glError == GL_NO_ERROR)
        s.glError = error; // GL keeps the first error until it is read
}

void splitExtensions(State &s) {
    s.glExtensionNames.clear();
    std::istringstream words(s.glExtensions);
    for (std::string word; words >> word;)
        s.glExtensionNames.push_back(word);
}

} // namespace

} // namespace kvth

// The functions only the host's eglGetProcAddress offers.
extern "C" {

static GLuint KV_APIENTRY glKvthUnknownEXT(GLint a, GLfloat x, GLint b, GLint c, GLint d, GLint e, GLint f,
                                           GLint g, GLint h, GLint i, GLdouble y, GLint j) {
    kvth::locked([&](kvth::State &s) {
        const int64_t integers[10] = {a, b, c, d, e, f, g, h, i, j};
        std::memcpy(s.unknownIntegers, integers, sizeof(integers));
        s.unknownFloats[0] = x;
        s.unknownFloats[1] = y;
    });
    return static_cast<GLuint>(a + b + c + d + e + f + g + h + i + j + static_cast<GLint>(x) +
                               static_cast<GLint>(y));
}

static EGLBoolean KV_APIENTRY eglKvthUnknownEXT(EGLDisplay, EGLint) {
    kvth::locked([](kvth::State &s) { s.eglError = EGL_SUCCESS; });
    return EGL_TRUE;
}

} // extern "C"

namespace kvth {

namespace {

Answer glGetErrorBehaviour(State &s, const uint64_t *) {
    return std::exchange(s.glError, GL_NO_ERROR);
}

Answer eglGetErrorBehaviour(State &s, const uint64_t *) {
    return static_cast<uint32_t>(std::exchange(s.eglError, EGL_SUCCESS));
}

Answer eglGetProcAddressBehaviour(State &, const uint64_t *args) {
    const std::string name = args[0] ? fromSlot<const char *>(args[0]) : "";
    if (name == "glKvthUnknownEXT") return toSlot(&glKvthUnknownEXT);
    if (name == "eglKvthUnknownEXT") return toSlot(&eglKvthUnknownEXT);
    const Function *f = findFunction(name.c_str());
    return f ? toSlot(f->address) : 0;
}

Answer glGetIntegervBehaviour(State &s, const uint64_t *args) {
    GLint *out = fromSlot<GLint *>(args[1]);
    const auto pname = static_cast<uint32_t>(args[0]);
    if (out && pname == GL_NUM_EXTENSIONS) *out = static_cast<GLint>(s.glExtensionNames.size());
    for (const auto &answer : s.integers)
        if (out && answer.first == pname) *out = answer.second;
    return std::nullopt;
}

Answer glReadPixelsBehaviour(State &s, const uint64_t *args) {
    auto *pixels = fromSlot<uint8_t *>(args[6]);
    const auto width = static_cast<GLsizei>(args[2]), height = static_cast<GLsizei>(args[3]);
    if (s.pixelsProgrammed && pixels && width > 0 && height > 0 && static_cast<GLenum>(args[4]) == GL_RGBA)
        for (size_t i = 0; i < size_t(width) * size_t(height) * 4; ++i)
            pixels[i] = static_cast<uint8_t>(s.pixelSeed + i);
    return std::nullopt;
}

Answer glGetTexLevelParameterivBehaviour(State &s, const uint64_t *args) {
    GLint *out = fromSlot<GLint *>(args[3]);
    const auto pname = static_cast<GLenum>(args[2]);
    if (out && pname == GL_TEXTURE_WIDTH) *out = s.width;
    if (out && pname == GL_TEXTURE_HEIGHT) *out = s.height;
    return std::nullopt;
}

Answer eglQueryStringBehaviour(State &s, const uint64_t *args) {
    const char *text = kvth_egl_string(static_cast<EGLint>(args[1]));
    if (!text) raiseError(s, kEgl, EGL_BAD_PARAMETER);
    return toSlot(text);
}

Answer glGetStringBehaviour(State &s, const uint64_t *args) {
    const auto name = static_cast<GLenum>(args[0]);
    const char *text = name == GL_EXTENSIONS ? s.glExtensions.c_str() : kvth_gl_string(name);
    if (!text) raiseError(s, kGles, GL_INVALID_ENUM);
    return toSlot(text);
}

Answer glGetStringiBehaviour(State &s, const uint64_t *args) {
    const auto index = static_cast<GLuint>(args[1]);
    if (static_cast<GLenum>(args[0]) != GL_EXTENSIONS)
        raiseError(s, kGles, GL_INVALID_ENUM);
    else if (index >= s.glExtensionNames.size())
        raiseError(s, kGles, GL_INVALID_VALUE);
    else
        return toSlot(s.glExtensionNames[index].c_str());
    return 0;
}

Answer eglInitializeBehaviour(State &, const uint64_t *args) {
    if (EGLint *major = fromSlot<EGLint *>(args[1])) *major = 1;
    if (EGLint *minor = fromSlot<EGLint *>(args[2])) *minor = kEglMinor;
    return EGL_TRUE;
}

// eglGetConfigs(dpy, configs, size, num) and eglChooseConfig(dpy, attribs, configs, size, num).
Answer answerConfigs(State &s, const uint64_t *args) {
    auto *num = fromSlot<EGLint *>(args[3]);
    if (!num) {
        raiseError(s, kEgl, EGL_BAD_PARAMETER);
        return EGL_FALSE;
    }
    auto *configs = fromSlot<EGLConfig *>(args[1]);
    const EGLint size = static_cast<EGLint>(args[2]);
    *num = configs ? (size > 0 ? 1 : 0) : 1;
    if (configs && size > 0) configs[0] = fromSlot<void *>(kKvthConfig);
    return EGL_TRUE;
}

Answer eglGetConfigAttribBehaviour(State &s, const uint64_t *args) {
    if (args[1] != kKvthConfig) {
        raiseError(s, kEgl, EGL_BAD_CONFIG);
        return EGL_FALSE;
    }
    for (const ConfigAttribute &a : kConfigAttributes) {
        if (a.name != static_cast<EGLint>(args[2])) continue;
        if (EGLint *value = fromSlot<EGLint *>(args[3])) *value = a.value;
        return EGL_TRUE;
    }
    raiseError(s, kEgl, EGL_BAD_ATTRIBUTE);
    return EGL_FALSE;
}

Answer eglQuerySurfaceBehaviour(State &s, const uint64_t *args) {
    const EGLint name = static_cast<EGLint>(args[2]);
    if (EGLint *value = fromSlot<EGLint *>(args[3]))
        *value = name == EGL_WIDTH ? s.width : name == EGL_HEIGHT ? s.height : 0;
    return EGL_TRUE;
}

// glGenBuffers(n, names) and every other glGen* of that shape.
Answer genNamesBehaviour(State &s, const uint64_t *args) {
    const GLsizei n = static_cast<GLsizei>(args[0]);
    if (n < 0) raiseError(s, kGles, GL_INVALID_VALUE);
    if (GLuint *names = fromSlot<GLuint *>(args[1]))
        for (GLsizei i = 0; i < n; ++i)
            names[i] = s.nextName++;
    return std::nullopt;
}

const struct {
    const char *name;
    Behaviour behaviour;
} kBehaviours[] = {
    {"glGetError", &glGetErrorBehaviour},
    {"eglGetError", &eglGetErrorBehaviour},
    {"eglGetProcAddress", &eglGetProcAddressBehaviour},
    {"eglQueryString", &eglQueryStringBehaviour},
    {"glGetString", &glGetStringBehaviour},
    {"glGetStringi", &glGetStringiBehaviour},
    {"eglInitialize", &eglInitializeBehaviour},
    {"eglGetConfigs", &answerConfigs},
    {"eglChooseConfig", [](State &s, const uint64_t *args) { return answerConfigs(s, args + 1); }},
    {"eglGetConfigAttrib", &eglGetConfigAttribBehaviour},
    {"eglQuerySurface", &eglQuerySurfaceBehaviour},
    {"glGetIntegerv", &glGetIntegervBehaviour},
    {"glReadPixels", &glReadPixelsBehaviour},
    {"glGetTexLevelParameteriv", &glGetTexLevelParameterivBehaviour},
};

// Fills the per-id tables from the function list, once.
void prepare() {
    static const bool prepared = [] {
        State &s = state();
        for (uint32_t i = 0; i < kFunctionCount; ++i) {
            const Function &f = kFunctions[i];
            s.families[f.id] = f.family;
            if (std::strncmp(f.name, "glGen", 5) == 0 && f.arity == 2)
                s.behaviours[f.id] = &genNamesBehaviour;
        }
        for (const auto &b : kBehaviours)
            if (const Function *f = findFunction(b.name)) s.behaviours[f->id] = b.behaviour;
        splitExtensions(s);
        return true;
    }();
    (void)prepared;
}

} // namespace

uint64_t dispatch(uint16_t id, const uint64_t *arguments, uint32_t count, uint64_t fallback) {
    prepare();
    State &s = state();
    std::lock_guard<std::mutex> guard(s.lock);
    ++s.counts[id];
    if (s.logging) {
        KvthCall call{};
        call.id = id;
        call.argumentCount = static_cast<uint16_t>(count);
        if (count) std::memcpy(call.arguments, arguments, count * sizeof(uint64_t));
        s.log.push_back(call);
    }
    // EGL reports the error of the thread's latest call; OpenGL ES keeps its first error until
    // it is read.
    if (s.families[id] == kEgl && s.behaviours[id] != &eglGetErrorBehaviour) s.eglError = EGL_SUCCESS;
    Answer answer = s.behaviours[id] ? s.behaviours[id](s, arguments) : std::nullopt;
    if (uint32_t error = std::exchange(s.raise[id], 0)) raiseError(s, s.families[id], error);
    return s.programmed[id] ? s.results[id] : answer.value_or(fallback);
}

} // namespace kvth

using kvth::locked;
using kvth::State;

extern "C" {

KVTH_API void kvth_reset(void) {
    kvth::prepare();
    locked([](State &s) {
        static_cast<kvth::Programmed &>(s) = kvth::Programmed();
        kvth::splitExtensions(s);
    });
}

KVTH_API void kvth_set_gl_extensions(const char *extensions) {
    kvth::prepare();
    locked([&](State &s) {
        s.glExtensions = extensions ? extensions : kvth::kGlExtensionList;
        kvth::splitExtensions(s);
    });
}

KVTH_API void kvth_set_integer(uint32_t pname, int32_t value) {
    locked([&](State &s) { s.integers.emplace_back(pname, value); });
}

KVTH_API void kvth_set_pixel_seed(uint8_t seed) {
    locked([&](State &s) { s.pixelSeed = seed, s.pixelsProgrammed = true; });
}

KVTH_API void kvth_unknown_arguments(int64_t *integers, double *floats) {
    locked([&](State &s) {
        std::memcpy(integers, s.unknownIntegers, sizeof(s.unknownIntegers));
        std::memcpy(floats, s.unknownFloats, sizeof(s.unknownFloats));
    });
}

KVTH_API void kvth_set_logging(int enabled) {
    locked([&](State &s) { s.logging = enabled != 0; });
}

KVTH_API uint16_t kvth_function_id(const char *name) {
    const kvth::Function *f = kvth::findFunction(name);
    return f ? f->id : 0;
}

KVTH_API const char *kvth_function_name(uint16_t id) {
    const kvth::Function *f = kvth::findFunction(id);
    return f ? f->name : nullptr;
}

KVTH_API void *kvth_function_address(const char *name) {
    const kvth::Function *f = kvth::findFunction(name);
    return f ? reinterpret_cast<void *>(f->address) : nullptr;
}

KVTH_API void kvth_set_result(const char *name, uint64_t value) {
    if (uint16_t id = kvth_function_id(name))
        locked([&](State &s) { s.programmed[id] = true, s.results[id] = value; });
}

KVTH_API void kvth_raise_error_on(const char *name, uint32_t error) {
    kvth::prepare();
    if (uint16_t id = kvth_function_id(name)) locked([&](State &s) { s.raise[id] = error; });
}

KVTH_API void kvth_set_surface_size(int32_t width, int32_t height) {
    locked([&](State &s) { s.width = width, s.height = height; });
}

KVTH_API uint32_t kvth_log_size(void) {
    return locked([](State &s) { return static_cast<uint32_t>(s.log.size()); });
}

KVTH_API int kvth_log_entry(uint32_t index, KvthCall *out) {
    return locked([&](State &s) {
        if (index >= s.log.size() || !out) return 0;
        *out = s.log[index];
        return 1;
    });
}

KVTH_API uint32_t kvth_call_count(const char *name) {
    const uint16_t id = kvth_function_id(name);
    return id ? locked([&](State &s) { return s.counts[id]; }) : 0;
}

KVTH_API const char *kvth_egl_string(int32_t name) {
    return name == EGL_VENDOR        ? "Kalvoren test host"
           : name == EGL_VERSION     ? kvth::kEglVersion
           : name == EGL_EXTENSIONS  ? kvth::kEglExtensions
           : name == EGL_CLIENT_APIS ? "OpenGL_ES"
                                     : nullptr;
}

KVTH_API const char *kvth_gl_string(uint32_t name) {
    return name == GL_VENDOR                     ? "Kalvoren"
           : name == GL_RENDERER                 ? "Kalvoren test host"
           : name == GL_VERSION                  ? "OpenGL ES 3.2 Kalvoren test host"
           : name == GL_SHADING_LANGUAGE_VERSION ? "OpenGL ES GLSL ES 3.20"
           : name == GL_EXTENSIONS               ? kvth::kGlExtensionList
                                                 : nullptr;
}

} // extern "C"
