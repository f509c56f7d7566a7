// The function timeline of a profiling run: for the calls its level covers, the time each one spent
// in the driver, sent on the counter link as a processing span (begin and end marks) named
// "<function>, Display <n>, Context <n>", after a "Thread <n>" mark whenever the sending thread
// changes.
//
// Levels ("FunctionTimelineLevel"): 0 none; 1 the calls that end or wait for a frame (swaps,
// glFinish, glFlush, glReadPixels, fence waits, clFinish); 2 those and the calls that hand the
// driver work (draws, uploads, compiles, links, kernel launches); 3 and above every call.
//
// The span goes out whole after the call (its begin carries the time taken before it), so spans
// from several threads never interleave on the one link.
#pragma once

#include "analysis/counters.h"
#include "net/counter_link.h"

#include <cstdint>

namespace kv::analysis {

class Timeline {
public:
    Timeline(uint32_t level, const Counters &kinds);
    bool covers(uint16_t id) const { return level_ != 0 && level_ >= levels_[id]; }
    // The level at which a call by this name is on the timeline.
    static uint8_t levelOf(const char *name, CallKind kind);
    // Sends the span of one call that began at `begin` (link time) and ended now, on the frame.
    // The caller holds the link; a new link starts with a "Thread" mark.
    bool send(net::CCounterLink &link, uint16_t id, uint32_t begin, uint32_t frame, uint64_t display,
              uint64_t context);
    void linkMade() { lastThread_ = 0; }

private:
    uint32_t level_;
    uint64_t lastThread_ = 0;
    uint8_t levels_[65536];
};

} // namespace kv::analysis
