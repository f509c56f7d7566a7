#include "state/egl_config.h"

#include "base/messages.h"
#include "base/zand_string.h"
#include "host/hosts.h"

namespace kv::egl {

// Alphabetical by name for the named ones, then the ones only known by number.
const ConfigAttribute kConfigAttributes[36] = {
    {0x3021, "EGL_ALPHA_SIZE"},
    {0x303E, "EGL_ALPHA_MASK_SIZE"},
    {0x3039, "EGL_BIND_TO_TEXTURE_RGB"},
    {0x303A, "EGL_BIND_TO_TEXTURE_RGBA"},
    {0x3022, "EGL_BLUE_SIZE"},
    {0x3020, "EGL_BUFFER_SIZE"},
    {0x303F, "EGL_COLOR_BUFFER_TYPE"},
    {0x3027, "EGL_CONFIG_CAVEAT"},
    {0x3028, "EGL_CONFIG_ID"},
    {0x3042, "EGL_CONFORMANT"},
    {0x3025, "EGL_DEPTH_SIZE"},
    {0x3023, "EGL_GREEN_SIZE"},
    {0x3029, "EGL_LEVEL"},
    {0x303D, "EGL_LUMINANCE_SIZE"},
    {0x302C, "EGL_MAX_PBUFFER_WIDTH"},
    {0x302A, "EGL_MAX_PBUFFER_HEIGHT"},
    {0x302B, "EGL_MAX_PBUFFER_PIXELS"},
    {0x303C, "EGL_MAX_SWAP_INTERVAL"},
    {0x303B, "EGL_MIN_SWAP_INTERVAL"},
    {0x302D, "EGL_NATIVE_RENDERABLE"},
    {0x302E, "EGL_NATIVE_VISUAL_ID"},
    {0x302F, "EGL_NATIVE_VISUAL_TYPE"},
    {0x3024, "EGL_RED_SIZE"},
    {0x3040, "EGL_RENDERABLE_TYPE"},
    {0x3032, "EGL_SAMPLE_BUFFERS"},
    {0x3031, "EGL_SAMPLES"},
    {0x3026, "EGL_STENCIL_SIZE"},
    {0x3033, "EGL_SURFACE_TYPE"},
    {0x3034, "EGL_TRANSPARENT_TYPE"},
    {0x3037, "EGL_TRANSPARENT_RED_VALUE"},
    {0x3036, "EGL_TRANSPARENT_GREEN_VALUE"},
    {0x3035, "EGL_TRANSPARENT_BLUE_VALUE"},
    {0x3142, nullptr},
    {0x3147, nullptr},
    {0x3043, nullptr},
    {0x307F, nullptr},
};

std::vector<EGLint> captureConfigAttributes(EGLDisplay display, EGLConfig config) {
    std::vector<EGLint> list;
    if (display != EGL_NO_DISPLAY) {
        const auto &fn = SEglHost::get().fn;
        for (const ConfigAttribute &a : kConfigAttributes) {
            EGLint value = 0;
            if (fn.eglGetConfigAttrib &&
                fn.eglGetConfigAttrib(display, config, a.attribute, &value) == EGL_TRUE) {
                list.push_back(a.attribute);
                list.push_back(value);
            } else {
                CZandString text =
                    a.name ? CZandString::format("Failed to query for attribute %s", a.name)
                           : CZandString::format("Failed to query for attribute 0x%X", a.attribute);
                msg::emit(msg::kDebugger | msg::kOut, "", text.c_str());
            }
        }
    }
    list.push_back(EGL_NONE);
    return list;
}

} // namespace kv::egl
