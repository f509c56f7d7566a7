#include "analysis/profiler.h"

#include "base/messages.h"
#include "base/settings_record.h"
#include "core/functions_autogen.h"
#include "host/hosts.h"

namespace kv::analysis {

namespace {
constexpr const char kLinkName[] = "Kalvoren";
KV_FAST_THREAD_LOCAL uint32_t t_callBegin = 0; // link time before the host call on the timeline

uint32_t hostShaderType(uint32_t shader) {
    auto get = GLESPPHost::get().fn.glGetShaderiv;
    GLint type = 0;
    if (get) get(shader, GL_SHADER_TYPE, &type);
    return static_cast<uint32_t>(type);
}

CProfiler *makeProfiler(Settings &settings) {
    return new Profiler(settings);
}

struct Install {
    Install() { setProfilerFactory(&makeProfiler); }
} g_install;
} // namespace

Profiler::Profiler(Settings &settings, net::CCounterLink::PathFactory path)
    : settings_(settings), pathFactory_(std::move(path)),
      counters_(new Counters()), swapIds_{fn::eglSwapBuffers::id, fn::eglSwapBuffersWithDamageEXT::id} {
    counters_->shaderType = &hostShaderType;
    overrides_.reset(new Overrides(settings, *counters_));
    if (settings.functionTimelineLevel)
        timeline_.reset(new Timeline(settings.functionTimelineLevel, *counters_));
    // The link is made at once, so that every call from the first one on is counted against it.
    ensureLink();
}

Profiler::~Profiler() = default;

void Profiler::processEnd() {
    platform::LockGuard<platform::Mutex> guard(linkLock_);
    if (timeline_) timeline_->flushAll(link_.get());
    // The last counts, then the close message (sent when the link goes).
    if (link_ && settings_.softwareCounters) {
        uint32_t values[kCounterCount];
        counters_->sum(values);
        link_->sendCounterValues(values);
    }
    link_.reset();
    ended_ = true;
}

bool Profiler::ensureLink() {
    if (link_) return true;
    if (ended_) return false;
    link_.reset(new net::CCounterLink(kLinkName, sizeof kLinkName - 1, pathFactory_));
    net::CCounterLink *links[] = {link_.get()};
    net::CCounterLink::waitForConnection(links, 1, 200);
    const std::vector<net::LinkItem> items = overrides_->items();
    if (!link_->defineItems(items.data(), static_cast<uint32_t>(items.size()))) {
        msg::emit(msg::kDebugger | msg::kOut, "", "Kalvoren: qorLibraryCreate() failed\n");
        link_.reset();
        return false;
    }
    std::string names[kCounterCount];
    for (uint32_t i = 0; i < kCounterCount; ++i)
        names[i] = kCounterNames[i];
    if (!link_->defineCounters(names, kCounterCount)) {
        msg::emit(msg::kDebugger | msg::kOut, "", "Kalvoren: qorCountersCreate() failed\n");
        link_.reset();
        return false;
    }
    counters_->zero();
    if (timeline_) timeline_->linkMade();
    uint32_t values[kCounterCount] = {};
    link_->sendCounterValues(values);
    link_->flush();
    return true;
}

bool Profiler::preCall(uint16_t id, const ParamDesc &params) {
    if (id == swapIds_[0] || id == swapIds_[1]) {
        // The configured swap interval (0 unless set; -1 leaves the application's own).
        if (settings_.swapInterval != -1 && params.count > 0) {
            if (auto swapInterval = SEglHost::get().fn.eglSwapInterval)
                swapInterval(reinterpret_cast<EGLDisplay>(static_cast<uintptr_t>(params.slots[0])),
                             settings_.swapInterval);
        }
    }
    if (overrides_->active()) {
        if (overrides_->framePoint(id)) {
            // Edits the server made since the last frame point take effect here. Each receive step
            // takes one message: a few, for edits that came together.
            platform::LockGuard<platform::Mutex> guard(linkLock_);
            if (link_) {
                for (int i = 0; i < 16 && link_->poll(); ++i) {
                }
                overrides_->applyEdits(*link_);
            }
        }
        if (!overrides_->preCall(id, params.slots, params.count)) return false;
    }
    if (timeline_ && timeline_->covers(id)) t_callBegin = net::linkTime();
    return true;
}

void Profiler::postCall(uint16_t id, const ParamDesc &params, uint64_t result, bool failed, bool called) {
    if (called && timeline_ && timeline_->covers(id)) {
        const uint32_t begin = t_callBegin;
        const SEglHostFns &egl = SEglHost::get().fn;
        const uint64_t display =
            egl.eglGetCurrentDisplay ? reinterpret_cast<uintptr_t>(egl.eglGetCurrentDisplay()) : 0;
        const uint64_t context =
            egl.eglGetCurrentContext ? reinterpret_cast<uintptr_t>(egl.eglGetCurrentContext()) : 0;
        if (timeline_->record(id, begin, frame_.load(std::memory_order_relaxed), display, context)) {
            platform::LockGuard<platform::Mutex> guard(linkLock_);
            timeline_->flushThread(link_.get());
        }
    }
    if (called) overrides_->postCall(id, params.slots, params.count, result, failed);
    if (settings_.softwareCounters) counters_->count(id, params.slots, params.count, failed || !called);
    if (id == swapIds_[0] || id == swapIds_[1]) frameEnd();
}

bool Profiler::frameEnd() {
    platform::LockGuard<platform::Mutex> guard(linkLock_);
    // The frame's spans, every thread's, go before its counters.
    if (timeline_) timeline_->flushAll(link_.get());
    ++frame_;
    if (!settings_.softwareCounters || !ensureLink()) return false;
    uint32_t values[kCounterCount];
    counters_->sum(values);
    const bool sent = link_->sendCounterValues(values);
    link_->flush();
    return sent;
}

} // namespace kv::analysis
