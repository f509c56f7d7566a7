// The software counters: what the application asks of the driver, counted per call in profiling
// mode and published cumulatively at every frame end. Each thread counts into a block of its own
// (no locked instruction on the call path); a frame end adds the blocks up.
#pragma once

#include <atomic>
#include <cstdint>
#include <string>

namespace kv::analysis {

constexpr uint32_t kCounterCount = 28;
extern const char *const kCounterNames[kCounterCount];

enum Counter : uint32_t {
    kIndexedDraws,
    kNonIndexedDraws,
    kPoints,
    kLinesList,
    kLinesLoop,
    kLinesStrip,
    kLinesTotal,
    kTrianglesList,
    kTrianglesStrip,
    kTrianglesFan,
    kTrianglesTotal,
    kTextureUploads,
    kTextureModifications,
    kScissorCalls,
    kViewportCalls,
    kFrameBufferAccesses,
    kVertexCompiles,
    kFragmentCompiles,
    kComputeCompiles,
    kProgramLinks,
    kFrameBufferBytes,
    kTextureUploadBytes,
    kTextureModificationBytes,
    kBufferUploadBytes,
    kBufferModificationBytes,
    kUniformUploads,
    kContextBinds,
    kTotalCalls,
};

// What a call counts, told by its name (the OpenGL ES 1 and extension forms share the names'
// stems): one entry per function id.
enum class CallKind : uint8_t {
    Other,
    DrawArrays,            // (mode, first, count)
    DrawArraysInstanced,   // (mode, first, count, instances)
    DrawElements,          // (mode, count, ...)
    DrawElementsInstanced, // (mode, count, type, indices, instances, ...)
    DrawRangeElements,     // (mode, start, end, count, ...)
    DrawIndirectArrays,    // counts live in a buffer object
    DrawIndirectElements,
    MultiDrawArrays,   // (mode, first[], count[], drawcount)
    MultiDrawElements, // (mode, count[], type, indices[], drawcount)
    TexImage2D,
    CompressedTexImage2D,
    TexImageOther, // 3D and other uploads: counted, no bytes
    TexSubImage2D,
    CompressedTexSubImage2D,
    CompressedTexSubImage3D,
    TexSubImageOther,
    Scissor,
    Viewport,
    ReadPixels,
    CompileShader,
    LinkProgram,
    BufferData,
    BufferSubData,
    Uniform,
    MakeCurrent,
    PixelStore,
};

CallKind kindOf(const char *name);

class Counters {
public:
    Counters();
    // Counts one call after the host made it.
    void count(uint16_t id, const uint64_t *slots, uint32_t slotCount, bool failed);
    void sum(uint32_t out[kCounterCount]) const;
    void zero();
    CallKind kind(uint16_t id) const { return kinds_[id]; }

    // The shader type of a compiled shader (GL_SHADER_TYPE), asked of the driver; replaceable for
    // tests.
    uint32_t (*shaderType)(uint32_t shader) = nullptr;

private:
    struct Block;
    Block &mine();
    CallKind kinds_[65536];
};

// Primitives of one draw: adds to the primitive counters of `v` (mode above 6 adds nothing).
void countPrimitives(uint32_t *v, uint32_t mode, uint64_t count, uint64_t instances);
// Bytes of a width x height pixel rectangle with rows padded to `alignment`.
uint64_t rectangleBytes(uint32_t width, uint32_t height, uint32_t format, uint32_t type, uint32_t alignment);

} // namespace kv::analysis
