// The test host's dispatcher: the call log, the programmed answers and the few functions that
// must behave like a driver for the library to work at all.
#include "tests/host/test_host_dispatch.h"

#include <cstring>
#include <mutex>
#include <string>
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

// What a function does beyond being logged: sets `result` and returns true when it answers.
using Behaviour = bool (*)(const uint64_t *args, uint32_t count, uint64_t &result);

struct State {
    std::mutex lock;
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
    Behaviour behaviours[kIdLimit] = {};
    Family families[kIdLimit] = {};
    std::string glExtensions = kGlExtensionList;
    std::vector<std::string> glExtensionNames;
    std::vector<std::pair<uint32_t, int32_t>> integers;
    uint8_t pixelSeed = 0;
    bool pixelsProgrammed = false; // glReadPixels writes only when asked to (its pointer may be an offset)
    uint32_t unknownGlError = GL_NO_ERROR;
    int32_t unknownEglError = EGL_SUCCESS;
    int64_t unknownIntegers[10] = {};
    double unknownFloats[2] = {};
};

State &state() {
    static State *s = new State();
    return *s;
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

template <class T>
T *pointerArg(uint64_t slotValue) {
    return reinterpret_cast<T *>(static_cast<uintptr_t>(slotValue));
}

// Called with the state locked.
void raiseError(Family family, uint32_t error) {
    State &s = state();
    if (family == kEgl)
        s.eglError = static_cast<EGLint>(error);
    else if (s.glError == GL_NO_ERROR)
        s.glError = error; // GL keeps the first error until it is read
}

// ---- Behaviours (each runs with the state locked) --------------------------------------------

bool glGetErrorBehaviour(const uint64_t *, uint32_t, uint64_t &result) {
    State &s = state();
    result = s.glError;
    s.glError = GL_NO_ERROR;
    return true;
}

bool eglGetErrorBehaviour(const uint64_t *, uint32_t, uint64_t &result) {
    State &s = state();
    result = static_cast<uint32_t>(s.eglError);
    s.eglError = EGL_SUCCESS;
    return true;
}

void splitExtensions() {
    State &s = state();
    s.glExtensionNames.clear();
    size_t start = 0;
    while (start < s.glExtensions.size()) {
        size_t end = s.glExtensions.find(' ', start);
        if (end == std::string::npos) end = s.glExtensions.size();
        if (end > start) s.glExtensionNames.push_back(s.glExtensions.substr(start, end - start));
        start = end + 1;
    }
}

} // namespace

} // namespace kvth

// The functions only the host's eglGetProcAddress offers.
extern "C" {

static GLuint KV_APIENTRY glKvthUnknownEXT(GLint a, GLfloat x, GLint b, GLint c, GLint d, GLint e, GLint f,
                                           GLint g, GLint h, GLint i, GLdouble y, GLint j) {
    kvth::State &s = kvth::state();
    std::lock_guard<std::mutex> guard(s.lock);
    const int64_t integers[10] = {a, b, c, d, e, f, g, h, i, j};
    std::memcpy(s.unknownIntegers, integers, sizeof(integers));
    s.unknownFloats[0] = x;
    s.unknownFloats[1] = y;
    if (s.unknownGlError != GL_NO_ERROR && s.glError == GL_NO_ERROR) s.glError = s.unknownGlError;
    s.unknownGlError = GL_NO_ERROR;
    return static_cast<GLuint>(a + b + c + d + e + f + g + h + i + j + static_cast<GLint>(x) +
                               static_cast<GLint>(y));
}

static EGLBoolean KV_APIENTRY eglKvthUnknownEXT(EGLDisplay, EGLint) {
    kvth::State &s = kvth::state();
    std::lock_guard<std::mutex> guard(s.lock);
    s.eglError = s.unknownEglError;
    s.unknownEglError = EGL_SUCCESS;
    return s.eglError == EGL_SUCCESS ? EGL_TRUE : EGL_FALSE;
}

} // extern "C"

namespace kvth {

namespace {

bool eglGetProcAddressBehaviour(const uint64_t *args, uint32_t, uint64_t &result) {
    const char *name = pointerArg<const char>(args[0]);
    const Function *f = findFunction(name);
    result = f ? toSlot(f->address) : 0;
    if (name && std::strcmp(name, "glKvthUnknownEXT") == 0) result = toSlot(&glKvthUnknownEXT);
    if (name && std::strcmp(name, "eglKvthUnknownEXT") == 0) result = toSlot(&eglKvthUnknownEXT);
    return true;
}

bool glGetIntegervBehaviour(const uint64_t *args, uint32_t, uint64_t &) {
    State &s = state();
    GLint *out = pointerArg<GLint>(args[1]);
    const auto pname = static_cast<uint32_t>(args[0]);
    if (!out) return false;
    if (pname == GL_NUM_EXTENSIONS) *out = static_cast<GLint>(s.glExtensionNames.size());
    for (const auto &answer : s.integers)
        if (answer.first == pname) *out = answer.second;
    return false;
}

bool glReadPixelsBehaviour(const uint64_t *args, uint32_t, uint64_t &) {
    State &s = state();
    auto *pixels = pointerArg<uint8_t>(args[6]);
    const auto width = static_cast<GLsizei>(args[2]), height = static_cast<GLsizei>(args[3]);
    if (s.pixelsProgrammed && pixels && width > 0 && height > 0 && static_cast<GLenum>(args[4]) == GL_RGBA)
        for (size_t i = 0; i < size_t(width) * size_t(height) * 4; ++i)
            pixels[i] = static_cast<uint8_t>(s.pixelSeed + i);
    return false;
}

bool glGetTexLevelParameterivBehaviour(const uint64_t *args, uint32_t, uint64_t &) {
    State &s = state();
    GLint *out = pointerArg<GLint>(args[3]);
    const auto pname = static_cast<GLenum>(args[2]);
    if (out && pname == GL_TEXTURE_WIDTH) *out = s.width;
    if (out && pname == GL_TEXTURE_HEIGHT) *out = s.height;
    return false;
}

bool eglQueryStringBehaviour(const uint64_t *args, uint32_t, uint64_t &result) {
    const char *text = kvth_egl_string(static_cast<EGLint>(args[1]));
    if (!text) raiseError(kEgl, EGL_BAD_PARAMETER);
    result = toSlot(text);
    return true;
}

bool glGetStringBehaviour(const uint64_t *args, uint32_t, uint64_t &result) {
    const char *text = static_cast<GLenum>(args[0]) == GL_EXTENSIONS
                           ? state().glExtensions.c_str()
                           : kvth_gl_string(static_cast<GLenum>(args[0]));
    if (!text) raiseError(kGles, GL_INVALID_ENUM);
    result = toSlot(text);
    return true;
}

bool glGetStringiBehaviour(const uint64_t *args, uint32_t, uint64_t &result) {
    State &s = state();
    if (static_cast<GLenum>(args[0]) != GL_EXTENSIONS) {
        raiseError(kGles, GL_INVALID_ENUM);
        result = 0;
    } else if (static_cast<GLuint>(args[1]) >= s.glExtensionNames.size()) {
        raiseError(kGles, GL_INVALID_VALUE);
        result = 0;
    } else {
        result = toSlot(s.glExtensionNames[static_cast<GLuint>(args[1])].c_str());
    }
    return true;
}

bool eglInitializeBehaviour(const uint64_t *args, uint32_t, uint64_t &result) {
    if (EGLint *major = pointerArg<EGLint>(args[1])) *major = 1;
    if (EGLint *minor = pointerArg<EGLint>(args[2])) *minor = kEglMinor;
    result = EGL_TRUE;
    return true;
}

// eglGetConfigs(dpy, configs, size, num) and eglChooseConfig(dpy, attribs, configs, size, num).
bool answerConfigs(uint64_t configsArg, uint64_t sizeArg, uint64_t numArg, uint64_t &result) {
    auto *num = pointerArg<EGLint>(numArg);
    if (!num) {
        raiseError(kEgl, EGL_BAD_PARAMETER);
        result = EGL_FALSE;
        return true;
    }
    auto *configs = pointerArg<EGLConfig>(configsArg);
    const EGLint size = static_cast<EGLint>(sizeArg);
    *num = configs ? (size > 0 ? 1 : 0) : 1;
    if (configs && size > 0) configs[0] = pointerArg<void>(kKvthConfig);
    result = EGL_TRUE;
    return true;
}

bool eglGetConfigsBehaviour(const uint64_t *args, uint32_t, uint64_t &result) {
    return answerConfigs(args[1], args[2], args[3], result);
}

bool eglChooseConfigBehaviour(const uint64_t *args, uint32_t, uint64_t &result) {
    return answerConfigs(args[2], args[3], args[4], result);
}

bool eglGetConfigAttribBehaviour(const uint64_t *args, uint32_t, uint64_t &result) {
    result = EGL_FALSE;
    if (args[1] != kKvthConfig) {
        raiseError(kEgl, EGL_BAD_CONFIG);
        return true;
    }
    const EGLint name = static_cast<EGLint>(args[2]);
    for (const ConfigAttribute &a : kConfigAttributes) {
        if (a.name != name) continue;
        if (EGLint *value = pointerArg<EGLint>(args[3])) *value = a.value;
        result = EGL_TRUE;
        return true;
    }
    raiseError(kEgl, EGL_BAD_ATTRIBUTE);
    return true;
}

bool eglQuerySurfaceBehaviour(const uint64_t *args, uint32_t, uint64_t &result) {
    State &s = state();
    const EGLint name = static_cast<EGLint>(args[2]);
    EGLint answer = name == EGL_WIDTH ? s.width : name == EGL_HEIGHT ? s.height : 0;
    if (EGLint *value = pointerArg<EGLint>(args[3])) *value = answer;
    result = EGL_TRUE;
    return true;
}

// glGenBuffers(n, names) and every other glGen* of that shape.
bool genNamesBehaviour(const uint64_t *args, uint32_t, uint64_t &) {
    State &s = state();
    const GLsizei n = static_cast<GLsizei>(args[0]);
    if (n < 0) {
        raiseError(kGles, GL_INVALID_VALUE);
        return false;
    }
    if (GLuint *names = pointerArg<GLuint>(args[1]))
        for (GLsizei i = 0; i < n; ++i)
            names[i] = s.nextName++;
    return false;
}

struct NamedBehaviour {
    const char *name;
    Behaviour behaviour;
};

const NamedBehaviour kBehaviours[] = {
    {"glGetError", &glGetErrorBehaviour},
    {"eglGetError", &eglGetErrorBehaviour},
    {"eglGetProcAddress", &eglGetProcAddressBehaviour},
    {"eglQueryString", &eglQueryStringBehaviour},
    {"glGetString", &glGetStringBehaviour},
    {"glGetStringi", &glGetStringiBehaviour},
    {"eglInitialize", &eglInitializeBehaviour},
    {"eglGetConfigs", &eglGetConfigsBehaviour},
    {"eglChooseConfig", &eglChooseConfigBehaviour},
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
        for (const NamedBehaviour &b : kBehaviours)
            if (const Function *f = findFunction(b.name)) s.behaviours[f->id] = b.behaviour;
        splitExtensions();
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
    uint64_t result = fallback;
    if (Behaviour b = s.behaviours[id]) {
        uint64_t answer = 0;
        if (b(arguments, count, answer)) result = answer;
    }
    if (s.programmed[id]) result = s.results[id];
    if (uint32_t error = s.raise[id]) {
        s.raise[id] = 0;
        raiseError(s.families[id], error);
    }
    return result;
}

} // namespace kvth

using kvth::state;

extern "C" {

KVTH_API void kvth_reset(void) {
    kvth::prepare();
    auto &s = state();
    std::lock_guard<std::mutex> guard(s.lock);
    s.log.clear();
    std::memset(s.counts, 0, sizeof(s.counts));
    std::memset(s.programmed, 0, sizeof(s.programmed));
    std::memset(s.results, 0, sizeof(s.results));
    std::memset(s.raise, 0, sizeof(s.raise));
    s.glError = GL_NO_ERROR;
    s.eglError = EGL_SUCCESS;
    s.width = 64;
    s.height = 64;
    s.nextName = 1;
    s.logging = true;
    s.glExtensions = kvth::kGlExtensionList;
    kvth::splitExtensions();
    s.integers.clear();
    s.pixelSeed = 0;
    s.pixelsProgrammed = false;
    s.unknownGlError = GL_NO_ERROR;
    s.unknownEglError = EGL_SUCCESS;
}

KVTH_API void kvth_set_gl_extensions(const char *extensions) {
    kvth::prepare();
    auto &s = state();
    std::lock_guard<std::mutex> guard(s.lock);
    s.glExtensions = extensions ? extensions : kvth::kGlExtensionList;
    kvth::splitExtensions();
}

KVTH_API void kvth_set_integer(uint32_t pname, int32_t value) {
    auto &s = state();
    std::lock_guard<std::mutex> guard(s.lock);
    s.integers.emplace_back(pname, value);
}

KVTH_API void kvth_set_pixel_seed(uint8_t seed) {
    auto &s = state();
    std::lock_guard<std::mutex> guard(s.lock);
    s.pixelSeed = seed;
    s.pixelsProgrammed = true;
}

KVTH_API void kvth_raise_unknown_error(uint32_t glError, int32_t eglError) {
    auto &s = state();
    std::lock_guard<std::mutex> guard(s.lock);
    s.unknownGlError = glError;
    s.unknownEglError = eglError;
}

KVTH_API void kvth_unknown_arguments(int64_t *integers, double *floats) {
    auto &s = state();
    std::lock_guard<std::mutex> guard(s.lock);
    std::memcpy(integers, s.unknownIntegers, sizeof(s.unknownIntegers));
    std::memcpy(floats, s.unknownFloats, sizeof(s.unknownFloats));
}

KVTH_API void kvth_set_logging(int enabled) {
    auto &s = state();
    std::lock_guard<std::mutex> guard(s.lock);
    s.logging = enabled != 0;
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
    uint16_t id = kvth_function_id(name);
    if (!id) return;
    auto &s = state();
    std::lock_guard<std::mutex> guard(s.lock);
    s.programmed[id] = true;
    s.results[id] = value;
}

KVTH_API void kvth_raise_error_on(const char *name, uint32_t error) {
    uint16_t id = kvth_function_id(name);
    if (!id) return;
    kvth::prepare();
    auto &s = state();
    std::lock_guard<std::mutex> guard(s.lock);
    s.raise[id] = error;
}

KVTH_API void kvth_set_surface_size(int32_t width, int32_t height) {
    auto &s = state();
    std::lock_guard<std::mutex> guard(s.lock);
    s.width = width;
    s.height = height;
}

KVTH_API uint32_t kvth_log_size(void) {
    auto &s = state();
    std::lock_guard<std::mutex> guard(s.lock);
    return static_cast<uint32_t>(s.log.size());
}

KVTH_API int kvth_log_entry(uint32_t index, KvthCall *out) {
    auto &s = state();
    std::lock_guard<std::mutex> guard(s.lock);
    if (index >= s.log.size() || !out) return 0;
    *out = s.log[index];
    return 1;
}

KVTH_API uint32_t kvth_call_count(const char *name) {
    uint16_t id = kvth_function_id(name);
    if (!id) return 0;
    auto &s = state();
    std::lock_guard<std::mutex> guard(s.lock);
    return s.counts[id];
}

KVTH_API const char *kvth_egl_string(int32_t name) {
    switch (name) {
    case EGL_VENDOR:
        return "Kalvoren test host";
    case EGL_VERSION:
        return kvth::kEglVersion;
    case EGL_EXTENSIONS:
        return kvth::kEglExtensions;
    case EGL_CLIENT_APIS:
        return "OpenGL_ES";
    default:
        return nullptr;
    }
}

KVTH_API const char *kvth_gl_string(uint32_t name) {
    switch (name) {
    case GL_VENDOR:
        return "Kalvoren";
    case GL_RENDERER:
        return "Kalvoren test host";
    case GL_VERSION:
        return "OpenGL ES 3.2 Kalvoren test host";
    case GL_SHADING_LANGUAGE_VERSION:
        return "OpenGL ES GLSL ES 3.20";
    case GL_EXTENSIONS:
        return kvth::kGlExtensionList;
    default:
        return nullptr;
    }
}

} // extern "C"
