#include "entry/ext/unknown_calls.h"

#include "base/no_destructor.h"
#include "core/call.h"
#include "state/egl_state.h"

#include <cstring>
#include <map>
#include <new>
#include <string>

namespace kv {

namespace {

constexpr uint16_t kUnknownGlCall = 4000;  // the OpenGL ES extension family's own row
constexpr uint16_t kUnknownEglCall = 1000; // the EGL family's own row

struct UnknownFunction {
    const char *name = nullptr;
    void *host = nullptr;
    uint16_t id = kUnknownGlCall;
    bool record = false;
};

// Filled under the lock before the stub's address is handed out; read by the stubs without it.
UnknownFunction g_functions[4096];
NoDestructor<platform::Mutex> g_lock;

std::map<std::string, uint32_t> &stubsByName() {
    static auto *table = new std::map<std::string, uint32_t>();
    return *table;
}

static_assert(sizeof(CallCtx) <= platform::kForwardingScratchBytes,
              "a call's context fits the stub's scratch");

bool isGl(const UnknownFunction &f) {
    return f.id == kUnknownGlCall;
}

// Whether the application's glGetError for the current context comes through the library: only
// then may the error check take the driver's error (it keeps it as the context's pending error).
bool glErrorsTracked() {
    return egl::currentEs2StateQuiet() != nullptr;
}

void *before(uint32_t stub, const platform::ForwardedCall &call) {
    const UnknownFunction &f = g_functions[stub];
    auto *c = new (call.scratch) CallCtx();
    c->id = f.id;
    Settings &settings = fastSettings();
    const int32_t mode = settings.mode.load(std::memory_order_relaxed);
    if (mode != kModeRecording && mode != kModeProfiling) {
        c->d.callHost = true;
        return f.host;
    }
    setCurrentFunction(f.id);
    fillDecision(settings, f.id, c->d, nullptr);
    // A call that is not forwarded still answers (0) and is still recorded.
    if (c->d.callHost && isGl(f)) GlesApi::takeStrayError();
    return c->d.callHost ? f.host : nullptr;
}

void record(const UnknownFunction &f, CallCtx &c, const platform::ForwardedCall &call) {
    RecordHandle h = trace::begin(f.id);
    if (h) {
        h.u32(c.error);
        rec::blob(h, c, f.name, std::strlen(f.name), api::kAlways);
        rec::blob(h, c, call.integerArguments, call.integerCount * 8u, api::kAlways);
        rec::blob(h, c, call.floatArguments, call.floatCount * 8u, api::kAlways);
        rec::blob(h, c, call.stackArguments, call.stackCount * 8u, api::kAlways);
        h.u64(call.integerResult);
        h.u64(call.floatResult);
    }
    trace::finish(h);
}

void after(uint32_t stub, const platform::ForwardedCall &call) {
    const UnknownFunction &f = g_functions[stub];
    CallCtx &c = *static_cast<CallCtx *>(call.scratch);
    if (!c.d.callHost) return;
    const int32_t mode = fastSettings().mode.load(std::memory_order_relaxed);
    if (mode != kModeRecording && mode != kModeProfiling) return;
    if (c.d.checkErrors) {
        if (!isGl(f)) {
            c.error = EglApi::queryError();
            EglApi::noteError(c.error);
        } else if (glErrorsTracked()) {
            c.error = GlesApi::queryError();
            GlesApi::noteError(c.error);
        } else {
            c.error = GL_NO_ERROR;
        }
    } else {
        c.error = isGl(f) ? GL_NO_ERROR : EGL_SUCCESS;
    }
    if (c.d.record && f.record) record(f, c, call);
}

// The stub's record when the call did not reach the host (the snapshot's calls).
void afterSkipped(uint32_t stub, const platform::ForwardedCall &call) {
    const UnknownFunction &f = g_functions[stub];
    CallCtx &c = *static_cast<CallCtx *>(call.scratch);
    c.error = isGl(f) ? GL_NO_ERROR : EGL_SUCCESS;
    if (c.d.record && f.record) record(f, c, call);
}

void *beforeAndSkips(uint32_t stub, const platform::ForwardedCall &call) {
    void *target = before(stub, call);
    if (!target) afterSkipped(stub, call);
    return target;
}

} // namespace

ProcAddress unknownFunctionStub(const char *name, ProcAddress host, bool record) {
    if (!name || !host) return nullptr;
    platform::LockGuard<platform::Mutex> guard(*g_lock);
    auto &byName = stubsByName();
    auto found = byName.find(name);
    if (found != byName.end()) return reinterpret_cast<ProcAddress>(platform::forwardingStub(found->second));
    const uint32_t index = static_cast<uint32_t>(byName.size());
    const uint32_t limit =
        std::min<uint32_t>(platform::forwardingStubCount(), sizeof(g_functions) / sizeof(g_functions[0]));
    if (index >= limit) return nullptr;
    if (index == 0) platform::setForwardingHandlers({&beforeAndSkips, &after});
    UnknownFunction &f = g_functions[index];
    char *copy = new char[std::strlen(name) + 1]; // lives as long as the stub
    std::strcpy(copy, name);
    f.name = copy;
    f.host = reinterpret_cast<void *>(host);
    f.id = std::strncmp(name, "egl", 3) == 0 ? kUnknownEglCall : kUnknownGlCall;
    f.record = record;
    byName.emplace(name, index);
    return reinterpret_cast<ProcAddress>(platform::forwardingStub(index));
}

} // namespace kv
