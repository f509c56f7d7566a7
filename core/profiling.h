// The profiler as the call wrapper sees it: in profiling mode every wrapped call asks it whether
// the host is to be called at all, and tells it of the call afterwards. What it does (counting,
// render-state overrides, the counter link) lives above the entry families (analysis/), which
// register how to make one.
#pragma once

#include "core/call_types.h"

#include <cstdint>

namespace kv {

struct Settings;

class CProfiler {
public:
    virtual ~CProfiler() = default;
    // Before the host call: false skips the host call (the application's call then has no effect).
    virtual bool preCall(uint16_t id, const ParamDesc &params) = 0;
    // After the host call (also when it was skipped): `failed` is whether the driver rejected it.
    virtual void postCall(uint16_t id, const ParamDesc &params, uint64_t result, bool failed,
                          bool called) = 0;
    // The process ends: the performance server is told. Calls may still arrive from other threads.
    virtual void processEnd() {}
};

// How a profiler is made for the settings of a profiling run; null until registered.
using ProfilerFactory = CProfiler *(*)(Settings &settings);
void setProfilerFactory(ProfilerFactory make);
ProfilerFactory profilerFactory();

} // namespace kv
