// The control interface of the test host library, a stand-in for the EGL and OpenGL ES driver: a
// test programs what the host answers and reads back which calls reached it.
//
// Every exported API function logs its call (its function id and its arguments as 64-bit slots)
// and returns, in this order of preference: the result programmed with kvth_set_result, the
// answer of the function's own behaviour, or 0 (EGL_TRUE for EGLBoolean results). Behaviours:
//   glGetError                the first error raised (kvth_raise_error_on, a behaviour's) since
//                             it was last read; else GL_NO_ERROR
//   eglGetError               the error of the latest EGL call, once; else EGL_SUCCESS (every EGL
//                             call sets it, to EGL_SUCCESS unless the call raises an error)
//   eglGetProcAddress         the host's own exported function of that name, or null
//   eglQueryString, glGetString, glGetStringi   fixed strings (kvth_* constants below)
//   eglInitialize             writes the host's EGL version
//   eglGetConfigs, eglChooseConfig   one config, kKvthConfig
//   eglGetConfigAttrib        the attributes of that config; EGL_BAD_ATTRIBUTE for others
//   eglQuerySurface           the size set by kvth_set_surface_size for EGL_WIDTH / EGL_HEIGHT
//   glGen*                    fresh names
#pragma once

#include "platform/platform.h"

#include <cstdint>

#if defined(KVTH_BUILDING_HOST)
#define KVTH_API KV_EXPORT
#else
#define KVTH_API KV_IMPORT
#endif

extern "C" {

constexpr uint32_t kKvthMaxArguments = 16;

// One call that reached the host.
struct KvthCall {
    uint16_t id; // the function's catalogue id
    uint16_t argumentCount;
    uint64_t arguments[kKvthMaxArguments];
};

// The config handle the host reports, and its version.
constexpr uint64_t kKvthConfig = 0xC0F1;

// Forgets the log, the call counts and everything programmed.
KVTH_API void kvth_reset(void);
// Turns the call log on or off (on after loading); the call counts are kept either way.
KVTH_API void kvth_set_logging(int enabled);

// The id of a function the host exports, or 0.
KVTH_API uint16_t kvth_function_id(const char *name);
KVTH_API const char *kvth_function_name(uint16_t id);
// The host's own function, as its eglGetProcAddress hands it out; null when it has none.
KVTH_API void *kvth_function_address(const char *name);

// Every later call of `name` returns `value` (a 64-bit slot: integers, pointers, float bits).
KVTH_API void kvth_set_result(const char *name, uint64_t value);
// The next call of `name` raises `error` in its API, for the next error query to return.
KVTH_API void kvth_raise_error_on(const char *name, uint32_t error);
// What eglQuerySurface answers for EGL_WIDTH and EGL_HEIGHT (64 by 64 after loading).
KVTH_API void kvth_set_surface_size(int32_t width, int32_t height);

// The log, in call order.
KVTH_API uint32_t kvth_log_size(void);
// Copies entry `index` of the log; returns 0 when there is no such entry.
KVTH_API int kvth_log_entry(uint32_t index, KvthCall *out);
// How often `name` was called since the last reset (also while the log is off).
KVTH_API uint32_t kvth_call_count(const char *name);

// The GL_EXTENSIONS string glGetString answers (and glGetStringi and GL_NUM_EXTENSIONS follow);
// null restores the host's own list.
KVTH_API void kvth_set_gl_extensions(const char *extensions);
// What glGetIntegerv answers for `pname` (otherwise it writes nothing).
KVTH_API void kvth_set_integer(uint32_t pname, int32_t value);
// From now on glReadPixels fills its RGBA bytes with (seed + byte index) (before, it writes
// nothing); glGetTexLevelParameteriv answers the surface size for GL_TEXTURE_WIDTH and
// GL_TEXTURE_HEIGHT.
KVTH_API void kvth_set_pixel_seed(uint8_t seed);

// Two functions no catalogue knows, offered by the host's eglGetProcAddress like extensions:
// glKvthUnknownEXT returns the sum of its integer arguments plus its floats truncated, and records
// its arguments for kvth_unknown_arguments; eglKvthUnknownEXT returns EGL_TRUE.
// The last arguments glKvthUnknownEXT received: a..j then x, y.
KVTH_API void kvth_unknown_arguments(int64_t *integers, double *floats);

// The strings the host answers with.
KVTH_API const char *kvth_egl_string(int32_t name);
KVTH_API const char *kvth_gl_string(uint32_t name);

} // extern "C"
