#include "state/egl_state.h"
#include "base/no_destructor.h"

#include "base/messages.h"
#include "base/thread_local_pointer.h"

namespace kv::egl {

namespace {

FastThreadLocalPointer<ThreadState> &threadSlot() {
    static auto *slot = new FastThreadLocalPointer<ThreadState>();
    return *slot;
}

NoDestructor<platform::Mutex> g_displaysLock;

std::map<EGLDisplay, std::unique_ptr<DisplayRecord>> &displayTable() {
    static auto *table = new std::map<EGLDisplay, std::unique_ptr<DisplayRecord>>();
    return *table;
}

EGLint attributeValue(const std::vector<EGLint> &list, EGLint name, bool *found) {
    for (size_t i = 0; i + 1 < list.size() && list[i] != EGL_NONE; i += 2) {
        if (list[i] == name) {
            *found = true;
            return list[i + 1];
        }
    }
    *found = false;
    return 0;
}

} // namespace

ThreadState &threadState() {
    return threadSlot().getOrCreate();
}
ThreadState *threadStateIfAny() {
    return FastThreadLocalPointer<ThreadState>::current();
}

DisplayRecord *display(EGLDisplay handle, bool create) {
    platform::LockGuard<platform::Mutex> guard(*g_displaysLock);
    auto &table = displayTable();
    auto it = table.find(handle);
    if (it != table.end()) return it->second.get();
    if (!create) return nullptr;
    auto record = std::make_unique<DisplayRecord>();
    record->display = handle;
    DisplayRecord *raw = record.get();
    table.emplace(handle, std::move(record));
    return raw;
}

std::shared_ptr<SurfaceSize> surfaceSize(EGLDisplay handle, EGLSurface surface) {
    DisplayRecord *d = display(handle, false);
    if (!d) return nullptr;
    platform::LockGuard<platform::Mutex> guard(d->lock);
    auto it = d->surfaces.find(surface);
    return it == d->surfaces.end() ? nullptr : it->second.size;
}

std::vector<DisplayRecord *> displays() {
    platform::LockGuard<platform::Mutex> guard(*g_displaysLock);
    std::vector<DisplayRecord *> out;
    for (auto &entry : displayTable())
        out.push_back(entry.second.get());
    return out;
}

uint32_t apiVersionCode(const EGLint *attributes, const std::vector<EGLint> &configAttributes) {
    EGLint major = 1, minor = 0;
    bool seenMajor = false, seenMinor = false;
    for (const EGLint *p = attributes; p && p[0] != EGL_NONE && !(seenMajor && seenMinor); p += 2) {
        if (p[0] == EGL_CONTEXT_CLIENT_VERSION) {
            major = p[1];
            seenMajor = true;
        } else if (p[0] == EGL_CONTEXT_MINOR_VERSION_KHR) {
            minor = p[1];
            seenMinor = true;
        }
    }
    if (major == 1) return 1;
    bool found = false;
    EGLint renderable = attributeValue(configAttributes, EGL_RENDERABLE_TYPE, &found);
    if (!found) return 5;
    if (renderable & EGL_OPENGL_ES3_BIT_KHR) return minor == 0 ? 3 : minor == 1 ? 4 : 5;
    if (renderable & EGL_OPENGL_ES2_BIT) return 2;
    return 1;
}

std::shared_ptr<ContextRecord> addContext(EGLDisplay dpy, EGLConfig config, EGLContext share,
                                          EGLContext context, const EGLint *attributes,
                                          std::vector<EGLint> configAttributes) {
    auto record = std::make_shared<ContextRecord>();
    record->context = context;
    record->display = dpy;
    record->config = config;
    record->shareContext = share;
    for (const EGLint *p = attributes; p; p += 2) {
        record->contextAttributes.push_back(p[0]);
        if (p[0] == EGL_NONE) break;
        record->contextAttributes.push_back(p[1]);
    }
    if (record->contextAttributes.empty()) record->contextAttributes.push_back(EGL_NONE);
    record->apiVersion = apiVersionCode(attributes, configAttributes);
    record->configAttributes = std::move(configAttributes);

    DisplayRecord *d = display(dpy, true);
    std::shared_ptr<ContextRecord> shareRecord = share != EGL_NO_CONTEXT ? findContext(dpy, share) : nullptr;
    if (record->apiVersion >= 2) {
        record->es2 = std::make_unique<CEs2ContextState>();
        record->es2->initialise(record->apiVersion);
        if (shareRecord && shareRecord->es2)
            record->es2->resources() = shareRecord->es2->resources();
        else
            record->es2->resources() =
                SharedPtr<CEs2ContextState::SEs2Resources>(new CEs2ContextState::SEs2Resources());
    }
    if (record->apiVersion == 1) {
        record->es1 = std::make_unique<CFFContextState>();
        if (shareRecord && shareRecord->es1) record->es1->resources() = shareRecord->es1->resources();
    }
    platform::LockGuard<platform::Mutex> guard(d->lock);
    d->contexts[context] = record;
    return record;
}

void removeContext(EGLDisplay dpy, EGLContext context) {
    DisplayRecord *d = display(dpy, false);
    if (!d) return;
    std::shared_ptr<ContextRecord> record;
    {
        platform::LockGuard<platform::Mutex> guard(d->lock);
        auto it = d->contexts.find(context);
        if (it == d->contexts.end()) return;
        record = it->second;
        d->contexts.erase(it);
    }
    // A context that is current somewhere lives on in that thread's state until it is released.
    record->destroyed = true;
}

std::shared_ptr<ContextRecord> findContext(EGLDisplay dpy, EGLContext context) {
    DisplayRecord *d = display(dpy, false);
    if (!d) return nullptr;
    platform::LockGuard<platform::Mutex> guard(d->lock);
    auto it = d->contexts.find(context);
    return it == d->contexts.end() ? nullptr : it->second;
}

CEs2ContextState *currentEs2StateQuiet() {
    ThreadState *t = threadStateIfAny();
    if (!t || !t->current) return nullptr;
    return t->current->es2.get();
}

CEs2ContextState *currentEs2State() {
    ThreadState *t = threadStateIfAny();
    if (!t || !t->current) {
        msg::emit(msg::kDebugger | msg::kOut, "",
                  "Failed to retrieve the OpenGL ES 2 state as there is no current context (we may crash)");
        msg::emit(
            msg::kDebugger | msg::kOut, "",
            "This can occur if an OpenGL ES call is made on a thread without a current context or the EGL "
            "calls aren't going through Kalvoren's libEGL");
        return nullptr;
    }
    if (!t->current->es2) {
        msg::emit(msg::kDebugger | msg::kOut, "", "Failed to retrieve the OpenGL ES 2 state (we may crash)");
        msg::emit(msg::kDebugger | msg::kOut, "",
                  "This can occur if the current context was created without a valid context version");
        return nullptr;
    }
    return t->current->es2.get();
}

CFFContextState *currentEs1StateQuiet() {
    ThreadState *t = threadStateIfAny();
    if (!t || !t->current) return nullptr;
    return t->current->es1.get();
}

CFFContextState *currentEs1State() {
    ThreadState *t = threadStateIfAny();
    if (!t || !t->current) {
        msg::emit(msg::kDebugger | msg::kOut, "",
                  "Failed to retrieve the OpenGL ES 1 state as there is no current context (we may crash)");
        msg::emit(
            msg::kDebugger | msg::kOut, "",
            "This can occur if an OpenGL ES call is made on a thread without a current context or the EGL "
            "calls aren't going through Kalvoren's libEGL");
        return nullptr;
    }
    if (!t->current->es1) {
        msg::emit(msg::kDebugger | msg::kOut, "", "Failed to retrieve the OpenGL ES 1 state (we may crash)");
        msg::emit(msg::kDebugger | msg::kOut, "",
                  "This can occur if the current context was created without a valid context version");
        return nullptr;
    }
    return t->current->es1.get();
}

} // namespace kv::egl
