#include "analysis/counters.h"

#include "api/api.h"
#include "api/khronos.h"
#include "entry/capture.h"
#include "platform/platform.h"

#include <cctype>
#include <cstring>
#include <mutex>
#include <vector>

namespace kv::analysis {

const char *const kCounterNames[kCounterCount] = {
    "Indexed draw calls",
    "Non-indexed draw calls",
    "Points no.",
    "Line no. (list)",
    "Line no. (loop)",
    "Line no. (strip)",
    "Total line no.",
    "Triangle no. (list)",
    "Triangle no. (strip)",
    "Triangle no. (fan)",
    "Total triangle no.",
    "Texture uploads",
    "Texture modifications",
    "Scissor calls",
    "Viewport calls",
    "Frame buffer accesses",
    "Vertex shader compiles",
    "Fragment shader compiles",
    "Compute shader compiles",
    "Program links",
    "Framebuffer access (bytes)",
    "Texture uploads (bytes)",
    "Texture modifications (bytes)",
    "Buffer object uploads (bytes)",
    "Buffer object modifications (bytes)",
    "Uniform uploads",
    "Context binds",
    "Total API calls",
};

namespace {
bool startsWith(const char *s, const char *prefix) {
    return std::strncmp(s, prefix, std::strlen(prefix)) == 0;
}
// The name without its extension suffix, if it has one.
std::string stem(const char *name) {
    std::string s(name);
    for (const char *suffix : {"OES", "EXT", "ANGLE", "KHR", "NV", "APPLE", "IMG", "ARB", "QCOM", "INTEL"}) {
        const size_t n = std::strlen(suffix);
        if (s.size() > n && s.compare(s.size() - n, n, suffix) == 0) return s.substr(0, s.size() - n);
    }
    return s;
}

struct BlockList {
    std::mutex lock;
    std::vector<void *> blocks;
};
BlockList &blockList() {
    static BlockList *list = new BlockList(); // never destroyed: threads count until the very end
    return *list;
}
} // namespace

CallKind kindOf(const char *name) {
    if (!name) return CallKind::Other;
    const std::string s = stem(name);
    static const struct {
        const char *name;
        CallKind kind;
    } table[] = {
        {"glDrawArrays", CallKind::DrawArrays},
        {"glDrawArraysInstanced", CallKind::DrawArraysInstanced},
        {"glDrawArraysInstancedBaseInstance", CallKind::DrawArraysInstanced},
        {"glDrawElements", CallKind::DrawElements},
        {"glDrawElementsBaseVertex", CallKind::DrawElements},
        {"glDrawElementsInstanced", CallKind::DrawElementsInstanced},
        {"glDrawElementsInstancedBaseVertex", CallKind::DrawElementsInstanced},
        {"glDrawElementsInstancedBaseInstance", CallKind::DrawElementsInstanced},
        {"glDrawElementsInstancedBaseVertexBaseInstance", CallKind::DrawElementsInstanced},
        {"glDrawRangeElements", CallKind::DrawRangeElements},
        {"glDrawRangeElementsBaseVertex", CallKind::DrawRangeElements},
        {"glDrawArraysIndirect", CallKind::DrawIndirectArrays},
        {"glDrawElementsIndirect", CallKind::DrawIndirectElements},
        {"glMultiDrawArrays", CallKind::MultiDrawArrays},
        {"glMultiDrawElements", CallKind::MultiDrawElements},
        {"glTexImage2D", CallKind::TexImage2D},
        {"glCompressedTexImage2D", CallKind::CompressedTexImage2D},
        {"glTexImage3D", CallKind::TexImageOther},
        {"glCompressedTexImage3D", CallKind::TexImageOther},
        {"glTexSubImage2D", CallKind::TexSubImage2D},
        {"glCompressedTexSubImage2D", CallKind::CompressedTexSubImage2D},
        {"glCompressedTexSubImage3D", CallKind::CompressedTexSubImage3D},
        {"glTexSubImage3D", CallKind::TexSubImageOther},
        {"glScissor", CallKind::Scissor},
        {"glViewport", CallKind::Viewport},
        {"glReadPixels", CallKind::ReadPixels},
        {"glCompileShader", CallKind::CompileShader},
        {"glLinkProgram", CallKind::LinkProgram},
        {"glBufferData", CallKind::BufferData},
        {"glBufferSubData", CallKind::BufferSubData},
        {"eglMakeCurrent", CallKind::MakeCurrent},
        {"glPixelStorei", CallKind::PixelStore},
    };
    for (const auto &row : table)
        if (s == row.name) return row.kind;
    // glUniform1f through glUniformMatrix4x3fv; not glUniformBlockBinding.
    if (startsWith(name, "glUniform") &&
        (std::isdigit(static_cast<unsigned char>(name[9])) || startsWith(name + 9, "Matrix")))
        return CallKind::Uniform;
    return CallKind::Other;
}

struct Counters::Block {
    std::atomic<uint32_t> v[kCounterCount];
    uint32_t unpackAlignment = 4;
    uint32_t packAlignment = 4;
    Block() {
        for (auto &x : v)
            x.store(0, std::memory_order_relaxed);
    }
};

Counters::Counters() {
    for (uint32_t id = 0; id < 65536; ++id)
        kinds_[id] = kindOf(api::functionName(id));
}

namespace {
// One block per thread for the life of the process: a thread's counts stay in the sums after it
// ends.
KV_FAST_THREAD_LOCAL void *t_block = nullptr;
} // namespace

Counters::Block &Counters::mine() {
    if (KV_UNLIKELY(!t_block)) {
        Block *block = new Block();
        std::lock_guard<std::mutex> guard(blockList().lock);
        blockList().blocks.push_back(block);
        t_block = block;
    }
    return *static_cast<Block *>(t_block);
}

namespace {
// Only the owning thread writes its block; the frame end reads every block.
KV_ALWAYS_INLINE void add(std::atomic<uint32_t> &c, uint64_t n) {
    c.store(c.load(std::memory_order_relaxed) + static_cast<uint32_t>(n), std::memory_order_relaxed);
}
uint64_t slotCount(uint64_t v) {
    const int64_t s = static_cast<int32_t>(static_cast<uint32_t>(v));
    return s > 0 ? static_cast<uint64_t>(s) : 0;
}
} // namespace

void countPrimitives(uint32_t *v, uint32_t mode, uint64_t count, uint64_t instances) {
    if (count == 0 || instances == 0 || mode > 6) return;
    uint64_t n = 0;
    switch (mode) {
    case GL_POINTS:
        v[kPoints] += static_cast<uint32_t>(count * instances);
        return;
    case GL_LINES:
        n = count / 2;
        v[kLinesList] += static_cast<uint32_t>(n * instances);
        break;
    case GL_LINE_LOOP:
        n = count >= 2 ? count : 0;
        v[kLinesLoop] += static_cast<uint32_t>(n * instances);
        break;
    case GL_LINE_STRIP:
        n = count >= 2 ? count - 1 : 0;
        v[kLinesStrip] += static_cast<uint32_t>(n * instances);
        break;
    case GL_TRIANGLES:
        n = count / 3;
        v[kTrianglesList] += static_cast<uint32_t>(n * instances);
        break;
    case GL_TRIANGLE_STRIP:
        n = count >= 3 ? count - 2 : 0;
        v[kTrianglesStrip] += static_cast<uint32_t>(n * instances);
        break;
    case GL_TRIANGLE_FAN:
        n = count >= 3 ? count - 2 : 0;
        v[kTrianglesFan] += static_cast<uint32_t>(n * instances);
        break;
    }
    if (mode <= GL_LINE_STRIP)
        v[kLinesTotal] += static_cast<uint32_t>(n * instances);
    else
        v[kTrianglesTotal] += static_cast<uint32_t>(n * instances);
}

uint64_t rectangleBytes(uint32_t width, uint32_t height, uint32_t format, uint32_t type, uint32_t alignment) {
    if (width == 0 || height == 0) return 0;
    const uint64_t pixel = capture::pixelBytes(format, type);
    const uint64_t row = pixel * width;
    const uint64_t a = alignment ? alignment : 1;
    const uint64_t stride = (row + a - 1) / a * a;
    return stride * (height - 1) + row;
}

void Counters::count(uint16_t id, const uint64_t *s, uint32_t n, bool failed) {
    Block &b = mine();
    add(b.v[kTotalCalls], 1);
    const CallKind k = kinds_[id];
    if (k == CallKind::Other || failed) return;
    auto arg = [&](uint32_t i) -> uint64_t { return i < n ? s[i] : 0; };
    uint32_t prims[kCounterCount] = {};
    bool drew = false;
    switch (k) {
    case CallKind::DrawArrays:
        add(b.v[kNonIndexedDraws], 1);
        countPrimitives(prims, static_cast<uint32_t>(arg(0)), slotCount(arg(2)), 1);
        drew = true;
        break;
    case CallKind::DrawArraysInstanced:
        add(b.v[kNonIndexedDraws], 1);
        countPrimitives(prims, static_cast<uint32_t>(arg(0)), slotCount(arg(2)), slotCount(arg(3)));
        drew = true;
        break;
    case CallKind::DrawElements:
        add(b.v[kIndexedDraws], 1);
        countPrimitives(prims, static_cast<uint32_t>(arg(0)), slotCount(arg(1)), 1);
        drew = true;
        break;
    case CallKind::DrawElementsInstanced:
        add(b.v[kIndexedDraws], 1);
        countPrimitives(prims, static_cast<uint32_t>(arg(0)), slotCount(arg(1)), slotCount(arg(4)));
        drew = true;
        break;
    case CallKind::DrawRangeElements:
        add(b.v[kIndexedDraws], 1);
        countPrimitives(prims, static_cast<uint32_t>(arg(0)), slotCount(arg(3)), 1);
        drew = true;
        break;
    case CallKind::DrawIndirectArrays:
        add(b.v[kNonIndexedDraws], 1);
        break;
    case CallKind::DrawIndirectElements:
        add(b.v[kIndexedDraws], 1);
        break;
    case CallKind::MultiDrawArrays:
    case CallKind::MultiDrawElements: {
        // One draw per element of the count array, read safely from the application's memory.
        const bool indexed = k == CallKind::MultiDrawElements;
        const uint64_t draws = slotCount(arg(indexed ? 4 : 3));
        const auto *counts = reinterpret_cast<const int32_t *>(static_cast<uintptr_t>(arg(indexed ? 1 : 2)));
        for (uint64_t i = 0; i < draws && counts; ++i) {
            int32_t c = 0;
            if (platform::guardedCopy(&c, counts + i, sizeof c) != sizeof c) break;
            countPrimitives(prims, static_cast<uint32_t>(arg(0)), c > 0 ? static_cast<uint64_t>(c) : 0, 1);
        }
        add(b.v[indexed ? kIndexedDraws : kNonIndexedDraws], draws);
        drew = true;
        break;
    }
    case CallKind::TexImage2D:
        add(b.v[kTextureUploads], 1);
        add(b.v[kTextureUploadBytes],
            rectangleBytes(static_cast<uint32_t>(slotCount(arg(3))), static_cast<uint32_t>(slotCount(arg(4))),
                           static_cast<uint32_t>(arg(6)), static_cast<uint32_t>(arg(7)), b.unpackAlignment));
        break;
    case CallKind::CompressedTexImage2D:
        add(b.v[kTextureUploads], 1);
        add(b.v[kTextureUploadBytes], slotCount(arg(6)));
        break;
    case CallKind::TexImageOther:
        add(b.v[kTextureUploads], 1);
        break;
    case CallKind::TexSubImage2D:
        // The bytes of a sub-image land with the uploads' bytes, as the performance tools expect.
        add(b.v[kTextureModifications], 1);
        add(b.v[kTextureUploadBytes],
            rectangleBytes(static_cast<uint32_t>(slotCount(arg(4))), static_cast<uint32_t>(slotCount(arg(5))),
                           static_cast<uint32_t>(arg(6)), static_cast<uint32_t>(arg(7)), b.unpackAlignment));
        break;
    case CallKind::CompressedTexSubImage2D:
        add(b.v[kTextureModifications], 1);
        add(b.v[kTextureModificationBytes], slotCount(arg(7)));
        break;
    case CallKind::CompressedTexSubImage3D:
        add(b.v[kTextureModifications], 1);
        add(b.v[kTextureModificationBytes], slotCount(arg(9)));
        break;
    case CallKind::TexSubImageOther:
        add(b.v[kTextureModifications], 1);
        break;
    case CallKind::Scissor:
        add(b.v[kScissorCalls], 1);
        break;
    case CallKind::Viewport:
        add(b.v[kViewportCalls], 1);
        break;
    case CallKind::ReadPixels:
        // The call and its bytes both go to the accesses; the byte counter stays 0 (the published
        // meaning of these two counters, which the performance tools rely on).
        add(b.v[kFrameBufferAccesses],
            1 + rectangleBytes(static_cast<uint32_t>(slotCount(arg(2))),
                               static_cast<uint32_t>(slotCount(arg(3))), static_cast<uint32_t>(arg(4)),
                               static_cast<uint32_t>(arg(5)), b.packAlignment));
        break;
    case CallKind::CompileShader: {
        const uint32_t type = shaderType ? shaderType(static_cast<uint32_t>(arg(0))) : 0;
        if (type == GL_VERTEX_SHADER)
            add(b.v[kVertexCompiles], 1);
        else if (type == GL_FRAGMENT_SHADER)
            add(b.v[kFragmentCompiles], 1);
        else if (type == GL_COMPUTE_SHADER)
            add(b.v[kComputeCompiles], 1);
        break;
    }
    case CallKind::LinkProgram:
        add(b.v[kProgramLinks], 1);
        break;
    case CallKind::BufferData:
        if (arg(2)) add(b.v[kBufferUploadBytes], arg(1));
        break;
    case CallKind::BufferSubData:
        if (arg(3)) add(b.v[kBufferModificationBytes], arg(2));
        break;
    case CallKind::Uniform:
        add(b.v[kUniformUploads], 1);
        break;
    case CallKind::MakeCurrent:
        add(b.v[kContextBinds], 1);
        break;
    case CallKind::PixelStore:
        if (arg(0) == GL_UNPACK_ALIGNMENT) b.unpackAlignment = static_cast<uint32_t>(arg(1));
        if (arg(0) == GL_PACK_ALIGNMENT) b.packAlignment = static_cast<uint32_t>(arg(1));
        break;
    default:
        break;
    }
    if (drew)
        for (uint32_t i = kPoints; i <= kTrianglesTotal; ++i)
            if (prims[i]) add(b.v[i], prims[i]);
}

void Counters::sum(uint32_t out[kCounterCount]) const {
    std::memset(out, 0, sizeof(uint32_t) * kCounterCount);
    std::lock_guard<std::mutex> guard(blockList().lock);
    for (void *p : blockList().blocks) {
        const Block *b = static_cast<const Block *>(p);
        for (uint32_t i = 0; i < kCounterCount; ++i)
            out[i] += b->v[i].load(std::memory_order_relaxed);
    }
}

void Counters::zero() {
    std::lock_guard<std::mutex> guard(blockList().lock);
    for (void *p : blockList().blocks)
        for (auto &x : static_cast<Block *>(p)->v)
            x.store(0, std::memory_order_relaxed);
}

} // namespace kv::analysis
