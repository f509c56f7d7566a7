#include "analysis/timeline.h"

#include "api/api.h"
#include "platform/platform.h"

#include <cstdio>
#include <cstring>

namespace kv::analysis {

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

Timeline::Timeline(uint32_t level, const Counters &kinds) : level_(level) {
    for (uint32_t id = 0; id < 65536; ++id)
        levels_[id] = levelOf(api::functionName(id), kinds.kind(static_cast<uint16_t>(id)));
}

bool Timeline::send(net::CCounterLink &link, uint16_t id, uint32_t begin, uint32_t frame, uint64_t display,
                    uint64_t context) {
    char text[160];
    // The spans that follow a "Thread" mark are that thread's, up to the next such mark.
    const uint64_t thread = platform::threadId();
    if (thread != lastThread_) {
        const int n = std::snprintf(text, sizeof text, "Thread %lu", static_cast<unsigned long>(thread));
        if (!link.sendMark(text, static_cast<uint32_t>(n))) return false;
        lastThread_ = thread;
    }
    const char *name = api::functionName(id);
    int n = std::snprintf(text, sizeof text, "%s, Display %lu, Context %lu", name ? name : "?",
                          static_cast<unsigned long>(display), static_cast<unsigned long>(context));
    if (n < 0) return false;
    if (static_cast<size_t>(n) >= sizeof text) n = sizeof text - 1;
    return link.sendProcessingBegin(text, static_cast<uint32_t>(n), frame, begin) && link.sendProcessingEnd();
}

} // namespace kv::analysis
