// EGL on this machine: one local display for every recorded one, configs chosen by the attributes
// the trace holds, window surfaces made as pbuffers of the recorded size (or as windows), contexts
// entered with their share groups, and the swaps that end frames.
#include "replay/hooks.h"
#include "replay/session.h"

#include <vector>

namespace kv::replay {

namespace {

// The application's config attributes, asking for the surfaces this replay makes.
std::vector<EGLint> localConfigAttributes(Call &c, const EGLint *attribs) {
    std::vector<EGLint> out;
    bool surfaceType = false;
    for (const EGLint *a = attribs; a && a[0] != EGL_NONE; a += 2) {
        switch (a[0]) {
        case EGL_SURFACE_TYPE:
            surfaceType = true;
            out.insert(out.end(),
                       {a[0], (a[1] & ~(EGL_WINDOW_BIT | EGL_PIXMAP_BIT)) | c.player.surfaceBit()});
            break;
        case EGL_CONFIG_ID:        // another machine's numbering
        case EGL_NATIVE_VISUAL_ID: // another window system's visuals
        case EGL_NATIVE_VISUAL_TYPE:
        case EGL_NATIVE_RENDERABLE:
            break;
        default:
            out.insert(out.end(), {a[0], a[1]});
        }
    }
    if (!surfaceType) out.insert(out.end(), {EGL_SURFACE_TYPE, c.player.surfaceBit()});
    out.push_back(EGL_NONE);
    return out;
}

// Fills `configs` with the local configs standing for the recorded ones, in the recorded order.
EGLBoolean mapConfigs(Call &c, int recordedField, std::vector<EGLConfig> &local, EGLConfig *configs,
                      EGLint size, EGLint *count) {
    uint32_t bytes = 0;
    const uint8_t *recorded = c.block(recordedField, &bytes);
    EGLint n = 0;
    if (configs && recorded) {
        for (uint32_t k = 0; k + 8 <= bytes && n < size; k += 8, ++n) {
            uint64_t r;
            std::memcpy(&r, recorded + k, 8);
            EGLConfig fallback = local.empty() ? nullptr : local[std::min<size_t>(n, local.size() - 1)];
            configs[n] = c.player.configFor(r, fallback);
        }
    } else {
        n = static_cast<EGLint>(local.size());
    }
    if (count) *count = n;
    return EGL_TRUE;
}

std::vector<EGLConfig> chooseLocal(Call &c, EGLDisplay dpy, const EGLint *attribs) {
    std::vector<EGLint> list = localConfigAttributes(c, attribs);
    EGLint n = 0;
    std::vector<EGLConfig> local;
    if (c.egl().eglChooseConfig(dpy, list.data(), nullptr, 0, &n) && n > 0) {
        local.resize(static_cast<size_t>(n));
        c.egl().eglChooseConfig(dpy, list.data(), local.data(), n, &n);
        local.resize(static_cast<size_t>(std::max(n, 0)));
    }
    return local;
}

int32_t recordedSize(Call &c, const char *field) {
    int i = c.field(field);
    int32_t v = i >= 0 ? static_cast<int32_t>(c.value(i)) : 0;
    return v > 0 ? v : 1;
}

EGLSurface surfaceFor(Call &c, EGLDisplay dpy, EGLConfig config, const EGLint *attribs, bool window) {
    int32_t width = recordedSize(c, "width"), height = recordedSize(c, "height");
    if (window && c.player.options.window) {
        uint64_t native = c.player.nativeWindow(width, height);
        return c.egl().eglCreateWindowSurface(dpy, config, Call::asNative<EGLNativeWindowType>(native),
                                              attribs);
    }
    std::vector<EGLint> list = {EGL_WIDTH, width, EGL_HEIGHT, height};
    for (const EGLint *a = attribs; a && a[0] != EGL_NONE; a += 2)
        if (a[0] == EGL_GL_COLORSPACE) list.insert(list.end(), {a[0], a[1]});
    list.push_back(EGL_NONE);
    return c.egl().eglCreatePbufferSurface(dpy, config, list.data());
}

std::vector<EGLint> narrow(const EGLAttrib *attribs) {
    std::vector<EGLint> out;
    for (const EGLAttrib *a = attribs; a && a[0] != EGL_NONE; a += 2)
        out.insert(out.end(), {static_cast<EGLint>(a[0]), static_cast<EGLint>(a[1])});
    out.push_back(EGL_NONE);
    return out;
}

} // namespace

EGLDisplay Hooks<fn::eglGetDisplay>::call(Call &c, EGLNativeDisplayType) {
    return c.player.localDisplay();
}
EGLDisplay Hooks<fn::eglGetPlatformDisplay>::call(Call &c, EGLenum, void *, const EGLAttrib *) {
    return c.player.localDisplay();
}
EGLDisplay Hooks<fn::eglGetPlatformDisplayEXT>::call(Call &c, EGLenum, void *, const EGLint *) {
    return c.player.localDisplay();
}

EGLBoolean Hooks<fn::eglChooseConfig>::call(Call &c, EGLDisplay dpy, const EGLint *attribs,
                                            EGLConfig *configs, EGLint size, EGLint *count) {
    std::vector<EGLConfig> local = chooseLocal(c, dpy, attribs);
    return mapConfigs(c, 2, local, configs, size, count);
}

EGLBoolean Hooks<fn::eglGetConfigs>::call(Call &c, EGLDisplay dpy, EGLConfig *configs, EGLint size,
                                          EGLint *count) {
    std::vector<EGLConfig> local = chooseLocal(c, dpy, nullptr);
    return mapConfigs(c, 1, local, configs, size, count);
}

EGLSurface Hooks<fn::eglCreateWindowSurface>::call(Call &c, EGLDisplay dpy, EGLConfig config,
                                                   EGLNativeWindowType, const EGLint *attribs) {
    return surfaceFor(c, dpy, config, attribs, true);
}
EGLSurface Hooks<fn::eglCreatePlatformWindowSurface>::call(Call &c, EGLDisplay dpy, EGLConfig config, void *,
                                                           const EGLAttrib *attribs) {
    return surfaceFor(c, dpy, config, narrow(attribs).data(), true);
}
EGLSurface Hooks<fn::eglCreatePlatformWindowSurfaceEXT>::call(Call &c, EGLDisplay dpy, EGLConfig config,
                                                              void *, const EGLint *attribs) {
    return surfaceFor(c, dpy, config, attribs, true);
}
EGLSurface Hooks<fn::eglCreatePixmapSurface>::call(Call &c, EGLDisplay dpy, EGLConfig config,
                                                   EGLNativePixmapType, const EGLint *attribs) {
    return surfaceFor(c, dpy, config, attribs, false);
}
EGLSurface Hooks<fn::eglCreatePlatformPixmapSurface>::call(Call &c, EGLDisplay dpy, EGLConfig config, void *,
                                                           const EGLAttrib *attribs) {
    return surfaceFor(c, dpy, config, narrow(attribs).data(), false);
}
EGLSurface Hooks<fn::eglCreatePlatformPixmapSurfaceEXT>::call(Call &c, EGLDisplay dpy, EGLConfig config,
                                                              void *, const EGLint *attribs) {
    return surfaceFor(c, dpy, config, attribs, false);
}

void Hooks<fn::eglCreateContext>::after(Call &c, EGLContext &result, EGLDisplay, EGLConfig, EGLContext,
                                        const EGLint *attribs) {
    if (result == EGL_NO_CONTEXT) {
        c.fail("the local driver could not create the context");
        return;
    }
    auto context = std::make_unique<ContextState>();
    context->recorded = c.e.result;
    context->local = result;
    auto share = c.player.contexts.find(c.value(2));
    if (c.value(2) && share != c.player.contexts.end()) context->shared = share->second->shared;
    for (const EGLint *a = attribs; a && a[0] != EGL_NONE; a += 2)
        if (a[0] == EGL_CONTEXT_CLIENT_VERSION) context->apiVersion = a[1];
    auto &slot = c.player.contexts[c.e.result];
    if (slot) c.player.replacedContexts.push_back(std::move(slot));
    slot = std::move(context);
}

void Hooks<fn::eglMakeCurrent>::after(Call &c, EGLBoolean &result, EGLDisplay, EGLSurface draw, EGLSurface,
                                      EGLContext) {
    if (result != EGL_TRUE) {
        c.fail("the local driver could not make the context current");
        return;
    }
    auto it = c.player.contexts.find(c.value(3));
    c.thread.context = it != c.player.contexts.end() ? it->second.get() : nullptr;
    c.thread.draw = draw;
}

void Hooks<fn::eglReleaseThread>::after(Call &c, EGLBoolean &) {
    c.thread.context = nullptr;
    c.thread.draw = EGL_NO_SURFACE;
}

bool Hooks<fn::eglSwapBuffers>::before(Call &c, EGLDisplay &, EGLSurface &) {
    c.player.frameShown(c);
    return true;
}
void Hooks<fn::eglSwapBuffers>::after(Call &c, EGLBoolean &, EGLDisplay, EGLSurface) {
    c.player.frameEnded(c);
}
bool Hooks<fn::eglSwapBuffersWithDamageEXT>::before(Call &c, EGLDisplay &, EGLSurface &, const EGLint *&,
                                                    EGLint &) {
    c.player.frameShown(c);
    return true;
}
void Hooks<fn::eglSwapBuffersWithDamageEXT>::after(Call &c, EGLBoolean &, EGLDisplay, EGLSurface,
                                                   const EGLint *, EGLint) {
    c.player.frameEnded(c);
}

} // namespace kv::replay
