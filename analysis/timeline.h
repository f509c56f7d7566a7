// The function timeline of a profiling run: for the calls its level covers, the time each one spent
// in the driver, sent on the counter link as a processing span (begin and end marks) named
// "<function>, Display <n>, Context <n>", after a "Thread <n>" mark whenever the sending thread
// changes.
//
// Levels ("FunctionTimelineLevel"): 0 none; 1 the calls that end or wait for a frame (swaps,
// glFinish, glFlush, glReadPixels, fence waits, clFinish); 2 those and the calls that hand the
// driver work (draws, uploads, compiles, links, kernel launches); 3 and above every call.
//
// At level 3 a span is made for every call, so making one must cost next to nothing: each thread
// writes its spans, framed as link messages, into a fixed buffer of its own (no allocation, no
// shared lock), and the buffer goes on the link whole: when it is nearly full, when its oldest span
// is older than kStaleMicroseconds, at each frame end (every thread's, before the frame's counters)
// and at the process end. A buffer starts with its thread's "Thread" mark, so the spans of several
// threads never interleave on the one link.
#pragma once

#include "analysis/counters.h"
#include "net/counter_link.h"
#include "platform/platform.h"

#include <cstdint>
#include <memory>
#include <vector>

namespace kv::analysis {

class Timeline {
public:
    static constexpr uint32_t kBufferBytes = 8192;
    static constexpr uint32_t kStaleMicroseconds = 50000;
    // The longest span a buffer holds: begin (16 bytes and the name) and end (8).
    static constexpr uint32_t kNameBytes = 160;
    static constexpr uint32_t kSpanBytes = 16 + kNameBytes + 8;

    Timeline(uint32_t level, const Counters &kinds);
    ~Timeline();
    bool covers(uint16_t id) const { return level_ != 0 && level_ >= levels_[id]; }
    // The level at which a call by this name is on the timeline.
    static uint8_t levelOf(const char *name, CallKind kind);
    // Appends to the calling thread's buffer the span of one call that began at `begin` (link time)
    // and ended now, on the frame. True when the buffer is to go out now (flushThread).
    bool record(uint16_t id, uint32_t begin, uint32_t frame, uint64_t display, uint64_t context);
    // Sends the calling thread's spans, or every thread's, and empties the buffers. The caller
    // holds the link; without one (none made, or broken) the spans are dropped.
    void flushThread(net::CCounterLink *link);
    void flushAll(net::CCounterLink *link);
    // A new link starts with a "Thread" mark and without the spans meant for the one before.
    void linkMade();

private:
    struct Buffer;
    Buffer *threadBuffer();
    void flush(net::CCounterLink *link, Buffer &b);

    uint32_t level_;
    uint64_t lastThread_ = 0; // under the caller's link lock
    uint64_t generation_;     // tells this timeline's thread buffers from an earlier one's
    platform::Mutex buffersLock_;
    std::vector<std::unique_ptr<Buffer>> buffers_; // one per thread that made a span, kept to the end
    uint8_t levels_[65536];
};

} // namespace kv::analysis
