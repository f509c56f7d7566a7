#include "analysis/timeline.h"

#include "api/api.h"
#include "platform/platform.h"

#include <atomic>
#include <cstring>

namespace kv::analysis {

using net::putHeader;
using net::putU32;

namespace {
bool oneOf(const char *name, std::initializer_list<const char *> names) {
    for (const char *n : names)
        if (std::strcmp(name, n) == 0) return true;
    return false;
}
} // namespace

uint8_t Timeline::levelOf(const char *name, CallKind kind) {
    if (!name) return 3;
    if (kind == CallKind::ReadPixels ||
        oneOf(name,
              {"eglSwapBuffers", "eglSwapBuffersWithDamageEXT", "eglSwapBuffersWithDamageKHR", "glFinish",
               "glFlush", "glClientWaitSync", "glClientWaitSyncAPPLE", "glWaitSync", "eglClientWaitSync",
               "eglClientWaitSyncKHR", "eglWaitSync", "eglWaitSyncKHR", "eglWaitClient", "eglWaitGL",
               "eglWaitNative", "clFinish", "clFlush", "clWaitForEvents"}))
        return 1;
    switch (kind) {
    case CallKind::Other:
    case CallKind::Scissor:
    case CallKind::Viewport:
    case CallKind::Uniform:
    case CallKind::MakeCurrent:
    case CallKind::PixelStore:
        break;
    default:
        return 2; // draws, uploads, compiles, links
    }
    if (std::strncmp(name, "clEnqueue", 9) == 0 ||
        oneOf(name, {"clBuildProgram", "clCompileProgram", "clLinkProgram", "glDispatchCompute",
                     "glDispatchComputeIndirect", "glGenerateMipmap", "glBlitFramebuffer"}))
        return 2;
    return 3;
}

// ---- The per-thread span buffers -------------------------------------------------------------

struct Timeline::Buffer {
    // Taken by its thread for each span and by whoever sends it: uncontended but for a frame end.
    platform::Mutex lock;
    uint64_t thread = 0;
    uint32_t markBytes = 0; // the leading "Thread" mark
    uint32_t used = 0;      // 0: empty, the mark not written yet
    uint32_t oldest = 0;    // link time of the first span
    uint8_t bytes[kBufferBytes];
};

namespace {
std::atomic<uint64_t> g_generations{0};
// The calling thread's buffer of the timeline of `t_generation`: plain thread-locals, read on every
// span without a guard.
KV_FAST_THREAD_LOCAL uint64_t t_generation = 0;
KV_FAST_THREAD_LOCAL void *t_buffer = nullptr;

inline char *putText(char *p, const char *end, const char *text) {
    while (*text && p < end)
        *p++ = *text++;
    return p;
}
inline char *putDecimal(char *p, const char *end, uint64_t v) {
    char digits[20];
    int n = 0;
    do {
        digits[n++] = static_cast<char>('0' + v % 10);
        v /= 10;
    } while (v);
    while (n && p < end)
        *p++ = digits[--n];
    return p;
}
} // namespace

Timeline::Timeline(uint32_t level, const Counters &kinds) : level_(level), generation_(++g_generations) {
    for (uint32_t id = 0; id < 65536; ++id)
        levels_[id] = levelOf(api::functionName(id), kinds.kind(static_cast<uint16_t>(id)));
}

Timeline::~Timeline() = default;

Timeline::Buffer *Timeline::threadBuffer() {
    if (t_generation == generation_) return static_cast<Buffer *>(t_buffer);
    // The thread's first span on this timeline: the one allocation it makes.
    std::unique_ptr<Buffer> b(new Buffer());
    b->thread = platform::threadId();
    Buffer *raw = b.get();
    {
        platform::LockGuard<platform::Mutex> guard(buffersLock_);
        buffers_.push_back(std::move(b));
    }
    t_generation = generation_;
    t_buffer = raw;
    return raw;
}

bool Timeline::record(uint16_t id, uint32_t begin, uint32_t frame, uint64_t display, uint64_t context) {
    Buffer &b = *threadBuffer();
    const uint32_t now = net::linkTime();
    platform::LockGuard<platform::Mutex> guard(b.lock);
    if (b.used == 0) {
        // "Thread <n>", its time the first span's.
        char *text = reinterpret_cast<char *>(b.bytes + 8);
        char *end = putDecimal(putText(text, text + 32, "Thread "), text + 32, b.thread);
        const uint32_t length = static_cast<uint32_t>(end - text);
        putU32(putHeader(b.bytes, net::kLinkMark, 4 + length), begin);
        b.markBytes = b.used = 8 + length;
        b.oldest = begin;
    }
    uint8_t *p = b.bytes + b.used;
    char *name = reinterpret_cast<char *>(p + 16);
    const char *nameEnd = name + kNameBytes;
    const char *function = api::functionName(id);
    char *at = putText(name, nameEnd, function ? function : "?");
    at = putDecimal(putText(at, nameEnd, ", Display "), nameEnd, display);
    at = putDecimal(putText(at, nameEnd, ", Context "), nameEnd, context);
    const uint32_t length = static_cast<uint32_t>(at - name);
    p = putU32(putU32(putU32(putHeader(p, net::kLinkBegin, 12 + length), begin), frame), length);
    p += length;
    p = putU32(putHeader(p, net::kLinkEnd, 4), now);
    b.used = static_cast<uint32_t>(p - b.bytes);
    return b.used + kSpanBytes > kBufferBytes || now - b.oldest > kStaleMicroseconds;
}

void Timeline::flush(net::CCounterLink *link, Buffer &b) {
    if (b.used == 0) return;
    // The mark is left out when the link's last spans were this thread's already.
    const uint32_t from = link && lastThread_ == b.thread ? b.markBytes : 0;
    if (link && b.used > from && link->sendMessages(b.bytes + from, b.used - from)) lastThread_ = b.thread;
    b.used = 0;
}

void Timeline::flushThread(net::CCounterLink *link) {
    Buffer &b = *threadBuffer();
    platform::LockGuard<platform::Mutex> guard(b.lock);
    flush(link, b);
}

void Timeline::flushAll(net::CCounterLink *link) {
    platform::LockGuard<platform::Mutex> guard(buffersLock_);
    for (const std::unique_ptr<Buffer> &b : buffers_) {
        platform::LockGuard<platform::Mutex> bufferGuard(b->lock);
        flush(link, *b);
    }
}

void Timeline::linkMade() {
    flushAll(nullptr);
    lastThread_ = 0;
}

} // namespace kv::analysis
