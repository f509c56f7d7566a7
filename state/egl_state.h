// The EGL objects the recorder knows about: displays with their contexts and surfaces, and per
// thread the bound API, the EGL error of the latest call and the current context.
#pragma once

#include "api/khronos.h"
#include "platform/platform.h"
#include "state/context_state.h"
#include "state/ff_state.h"

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <vector>

namespace kv::egl {

// One EGL context and its shadow state.
struct ContextRecord {
    EGLContext context = EGL_NO_CONTEXT;
    EGLDisplay display = EGL_NO_DISPLAY;
    EGLConfig config = nullptr;
    EGLContext shareContext = EGL_NO_CONTEXT;
    std::vector<EGLint> contextAttributes; // up to and including EGL_NONE
    std::vector<EGLint> configAttributes;  // captured from the host (up to and including EGL_NONE)
    uint32_t apiVersion = 2;               // 1 = ES1, 2 = ES2, 3 = ES3.0, 4 = ES3.1, 5 = ES3.2
    std::unique_ptr<CEs2ContextState> es2;
    std::unique_ptr<CFFContextState> es1; // a context of OpenGL ES 1 (apiVersion 1)
    bool destroyed = false;
    // One byte per GL extension name the extension wrappers know (kGlExtensionNames): whether the
    // driver offers it in this context; filled on the first extension call made on the context.
    std::vector<uint8_t> extensionFlags;
    bool extensionFlagsFilled = false;
    // The driver's indices of the GL extensions the application is shown (glGetStringi,
    // GL_NUM_EXTENSIONS) when the configuration hides some; made on first use.
    std::vector<uint32_t> shownExtensions;
    bool shownExtensionsKnown = false;
};

enum class SurfaceKind : uint8_t { Window, Pbuffer, Pixmap, ClientBuffer };

// A surface's size as the recorder last learnt it. Asking EGL costs a round trip to the window
// system on some platforms (X11: a geometry request per query), so each swap does not ask: the
// size is learnt at creation and from the application's own size queries, and a swap asks again
// only when there is reason to think a window changed (see SurfaceSize::askAtSwap).
struct SurfaceSize {
    std::atomic<int32_t> width{0};
    std::atomic<int32_t> height{0};
    std::atomic<bool> known{false};
    // Pbuffers and pixmaps keep their size for life.
    bool fixed = false;
    // Set when the application gave the default framebuffer a viewport of a size it did not have
    // before: programs follow a resize with a new viewport.
    std::atomic<bool> stale{false};
    std::atomic<int32_t> lastViewportWidth{-1};
    std::atomic<int32_t> lastViewportHeight{-1};
    std::atomic<uint32_t> swapsSinceAsked{0};

    // A window that changes size without a new viewport is still caught after this many swaps.
    static constexpr uint32_t kAskAtLeastEvery = 60;

    void set(int32_t w, int32_t h) {
        width.store(w, std::memory_order_relaxed);
        height.store(h, std::memory_order_relaxed);
        known.store(true, std::memory_order_relaxed);
        stale.store(false, std::memory_order_relaxed);
        swapsSinceAsked.store(0, std::memory_order_relaxed);
    }
    // Whether a swap must ask EGL for the size (and counts the swap).
    bool askAtSwap() {
        if (!known.load(std::memory_order_relaxed)) return true;
        if (fixed) return false;
        if (stale.load(std::memory_order_relaxed)) return true;
        return swapsSinceAsked.fetch_add(1, std::memory_order_relaxed) + 1 >= kAskAtLeastEvery;
    }
    // The application set a viewport while the default framebuffer was bound.
    void noteViewport(int32_t w, int32_t h) {
        if (fixed) return;
        if (w == lastViewportWidth.load(std::memory_order_relaxed) &&
            h == lastViewportHeight.load(std::memory_order_relaxed))
            return;
        lastViewportWidth.store(w, std::memory_order_relaxed);
        lastViewportHeight.store(h, std::memory_order_relaxed);
        if (w != width.load(std::memory_order_relaxed) || h != height.load(std::memory_order_relaxed))
            stale.store(true, std::memory_order_relaxed);
    }
};

struct SurfaceRecord {
    EGLSurface surface = EGL_NO_SURFACE;
    EGLConfig config = nullptr;
    SurfaceKind kind = SurfaceKind::Window;
    uint64_t native = 0;
    std::vector<EGLint> attributes;
    EGLint swapInterval = 1;
    std::shared_ptr<SurfaceSize> size = std::make_shared<SurfaceSize>();
};

// An EGL image made from a client buffer (memory the application or the system owns, not an
// object of a context): what a player needs to make it again is its contents.
struct ClientBufferRecord {
    EGLImage image = EGL_NO_IMAGE;
    EGLenum target = 0;
    EGLClientBuffer buffer = nullptr;
    int32_t width = 0; // from the attribute list, when it says
    int32_t height = 0;
    uint64_t contentHash = 0; // of the contents last recorded
    bool recorded = false;    // whether contents were recorded yet
};

// An EGL image or sync as the call that made it: a trace that starts later makes it again by the
// same call. `core`: made by eglCreateImage / eglCreateSync (EGLAttrib lists), else by the KHR
// forms (EGLint lists).
struct ImageRecord {
    EGLContext context = EGL_NO_CONTEXT;
    EGLenum target = 0;
    EGLClientBuffer buffer = nullptr;
    std::vector<EGLAttrib> attributes; // up to and including EGL_NONE
    bool core = false;
};
struct SyncRecord {
    EGLenum type = 0;
    std::vector<EGLAttrib> attributes; // up to and including EGL_NONE
    bool core = false;
};

struct DisplayRecord {
    EGLDisplay display = EGL_NO_DISPLAY;
    EGLint major = 0;
    EGLint minor = 0;
    bool initialised = false;
    platform::Mutex lock; // guards the two tables
    std::map<EGLContext, std::shared_ptr<ContextRecord>> contexts;
    std::map<EGLSurface, SurfaceRecord> surfaces;
    std::map<EGLImage, ClientBufferRecord> clientBuffers; // guarded by `lock` too
    std::map<EGLImage, ImageRecord> images;               // every image; guarded by `lock`
    std::map<EGLSync, SyncRecord> syncs;                  // guarded by `lock`
};

struct ThreadState {
    EGLint error = EGL_SUCCESS;
    EGLenum boundApi = EGL_OPENGL_ES_API;
    std::shared_ptr<ContextRecord> current;
    EGLDisplay display = EGL_NO_DISPLAY;
    EGLSurface draw = EGL_NO_SURFACE;
    EGLSurface read = EGL_NO_SURFACE;
    // The size of the draw surface (null when it is not one the recorder saw created).
    std::shared_ptr<SurfaceSize> drawSize;
};

// The calling thread's EGL state (made on first use).
ThreadState &threadState();
// The calling thread's EGL state if it has one.
ThreadState *threadStateIfAny();

// The record of a display; made when `create` is set.
DisplayRecord *display(EGLDisplay handle, bool create);
// Every display record, in ascending handle order.
std::vector<DisplayRecord *> displays();

// The size record of a surface the recorder saw created; null for any other.
std::shared_ptr<SurfaceSize> surfaceSize(EGLDisplay display, EGLSurface surface);

// The API version code of a context from its attribute list and its config's attributes.
uint32_t apiVersionCode(const EGLint *contextAttributes, const std::vector<EGLint> &configAttributes);

// Enters a context created by the host; shares resources with `share` when it is a context of the
// same display. Returns the record.
std::shared_ptr<ContextRecord> addContext(EGLDisplay display, EGLConfig config, EGLContext share,
                                          EGLContext context, const EGLint *attributes,
                                          std::vector<EGLint> configAttributes);
void removeContext(EGLDisplay display, EGLContext context);
std::shared_ptr<ContextRecord> findContext(EGLDisplay display, EGLContext context);

// The ES2/3 state of the calling thread's current context, or null after the messages that say
// why (no current context; a context without ES2/3 state).
CEs2ContextState *currentEs2State();
// The same without messages.
CEs2ContextState *currentEs2StateQuiet();
// The OpenGL ES 1 state of the calling thread's current context, or null after the messages that
// say why; the quiet form says nothing.
CFFContextState *currentEs1State();
CFFContextState *currentEs1StateQuiet();

} // namespace kv::egl
