// The profiler of a profiling run: counts every call (analysis/counters.h), owns the counter link
// to the performance server, publishes the counters and the override items on it, applies the
// render-state overrides the server switches (analysis/overrides.h) and sends the function
// timeline (analysis/timeline.h).
#pragma once

#include "analysis/counters.h"
#include "analysis/overrides.h"
#include "analysis/timeline.h"
#include "core/profiling.h"
#include "net/counter_link.h"
#include "platform/platform.h"

#include <atomic>
#include <memory>

namespace kv {
struct Settings;
}

namespace kv::analysis {

class Profiler final : public CProfiler {
public:
    explicit Profiler(Settings &settings, net::CCounterLink::PathFactory path = nullptr);
    ~Profiler() override;
    void processEnd() override;
    bool preCall(uint16_t id, const ParamDesc &params) override;
    void postCall(uint16_t id, const ParamDesc &params, uint64_t result, bool failed, bool called) override;

    // Sends the counters and takes the server's edits (from the frame-ending calls).
    bool frameEnd();
    Counters &counters() { return *counters_; }
    Overrides &overrides() { return *overrides_; }
    net::CCounterLink *link() { return link_.get(); }

private:
    bool ensureLink();
    Settings &settings_;
    net::CCounterLink::PathFactory pathFactory_;
    std::unique_ptr<Counters> counters_;
    std::unique_ptr<Overrides> overrides_;
    std::unique_ptr<Timeline> timeline_;
    std::atomic<uint32_t> frame_{0}; // frames ended
    std::unique_ptr<net::CCounterLink> link_;
    platform::Mutex linkLock_;
    bool ended_ = false;
    uint16_t swapIds_[2];
};

} // namespace kv::analysis
