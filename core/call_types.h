// What one call carries through the wrapper protocol, and the helpers that write its values into
// the call record (used by the generated record writers and by hand-written capture hooks).
#pragma once

#include "api/api.h"
#include "api/khronos.h"
#include "platform/platform.h"
#include "trace/record.h"

#include <cstdint>
#include <cstring>
#include <type_traits>

namespace kv {

class CProfiler;

// The per-call decision, filled before each call.
struct CallDecision {
    CProfiler *profiler = nullptr;
    uint32_t uniformBufferOffsetAlignment = 0xFFFFFFFFu;
    uint32_t shaderStorageBufferOffsetAlignment = 0xFFFFFFFFu;
    bool callHost = false;
    bool checkErrors = false;
    bool beforeStartFrame = false;
    bool record = false;
    bool recordData = false;
    // Compressible blocks are compressed (else they are stored as they are, like inline bytes).
    bool compress = false;
    bool saveFrameBuffer = false;
    uint32_t clientBufferRecordFrequency = 0;
    bool disableBinaries = false;
    bool disableBlobCache = false;
};

// The arguments of a call as 64-bit slots in declaration order, for the decision and the
// profiling hooks.
struct ParamDesc {
    uint64_t *slots;
    uint32_t count;
};

// One call in flight.
struct CallCtx {
    // Every wrapped call makes one: its fields are cleared one by one, which is several times cheaper
    // than the block clear (`rep stos`) a compiler makes of an object this size.
    CallCtx() {
        for (uint64_t &s : scratch)
            s = 0;
    }

    CallDecision d;
    uint16_t id = 0;
    uint32_t error = 0;  // the API's error code after the call
    bool failed = false; // the driver rejected the call: it read and wrote nothing
    // An extension function called on an OpenGL ES 1 context: there is no ES2/3 shadow state to
    // update; its error check and state update are those of the ES1 functions (entry/es1).
    bool es1 = false;
    // Values a function's hooks hand to each other (for example the frame buffer read before a
    // swap, for the record written after it).
    uint64_t scratch[6];
    void *extra = nullptr;
    // The result as a 64-bit slot, the record being written and, once it is written, the file
    // position of its length field.
    uint64_t result = 0;
    RecordHandle *record = nullptr;
    uint64_t recordPosition = 0;
};

namespace rec {

// A block of memory for a record: where it is and how many bytes it holds.
struct Blob {
    const void *data = nullptr;
    uint64_t bytes = 0;
    // A copy of the bytes in the record's scratch memory, when the capture made one: the record
    // shows `data` and stores the copy, which needs no guarded read.
    const void *copy = nullptr;
};

// An element count from an API argument: negative counts are no counts.
template <class T>
constexpr uint64_t count(T v) {
    if constexpr (std::is_signed_v<T>)
        return v > 0 ? static_cast<uint64_t>(v) : 0;
    else
        return static_cast<uint64_t>(v);
}

// A pointer in a count expression stands for whether it is given (`p ? n : 0`).
template <class T>
constexpr uint64_t count(T *p) {
    return p ? 1 : 0;
}

// *p read safely; 0 for a null or unreadable pointer or a negative value.
uint64_t deref(CallCtx &c, const int32_t *p);
static_assert(std::is_same_v<EGLint, int32_t> && std::is_same_v<GLsizei, int32_t>, "EGLint and GLsizei");

// Stores one value of the given type at its width.
template <api::Type T, class V>
KV_ALWAYS_INLINE void put(RecordHandle &h, V v) {
    constexpr uint32_t width = api::typeWidth(T);
    if constexpr (width == 1) {
        h.u8(static_cast<uint8_t>(v));
    } else if constexpr (width == 2) {
        h.u16(static_cast<uint16_t>(v));
    } else if constexpr (width == 4) {
        if constexpr (std::is_floating_point_v<V>) {
            float f = static_cast<float>(v);
            h.f32(f);
        } else {
            h.u32(static_cast<uint32_t>(v));
        }
    } else {
        static_assert(width == 8, "value width");
        if constexpr (std::is_pointer_v<V>) {
            h.u64(static_cast<uint64_t>(reinterpret_cast<uintptr_t>(v)));
        } else if constexpr (std::is_floating_point_v<V>) {
            double d = static_cast<double>(v);
            uint64_t bits;
            std::memcpy(&bits, &d, 8);
            h.u64(bits);
        } else {
            h.u64(static_cast<uint64_t>(v));
        }
    }
}

// The size of a pointer's data when the pointer is an offset into a buffer object bound to a pixel
// pack or unpack target: the record then holds the 8-byte value alone.
constexpr uint64_t kBufferOffset = ~uint64_t(0);

// A pointer with its data: the pointer (8) and, when the trace holds client data (or the field is
// always written), the byte count (4) and the block. A call the driver rejected records a count of
// 0: it read nothing and wrote nothing. A size of kBufferOffset writes the pointer alone.
void blob(RecordHandle &h, CallCtx &c, const void *data, uint64_t bytes, uint8_t flags);
void blob(RecordHandle &h, CallCtx &c, Blob b, uint8_t flags);
// A 0-terminated string: pointer (8) [length (4), text].
void string(RecordHandle &h, CallCtx &c, const char *text);
// A string whose length is given; a negative length means up to its terminator.
void textIn(RecordHandle &h, CallCtx &c, const char *text, GLsizei length);
// Text the driver wrote into a buffer of `bufSize` characters and whose length it stored through
// `length` (without the terminator); recorded with its terminator.
void textOut(RecordHandle &h, CallCtx &c, const char *buffer, GLsizei bufSize, const GLsizei *length);
// An array of strings (OpenGL rules for the lengths).
void glStrings(RecordHandle &h, CallCtx &c, const GLchar *const *strings, GLsizei count,
               const GLint *lengths);
// An array of strings (OpenCL rules for the lengths: a zero or absent length records the text
// with its terminator).
void clStrings(RecordHandle &h, CallCtx &c, const char *const *strings, uint64_t count,
               const size_t *lengths);
// Program binaries: byte strings with their lengths.
inline void clStrings(RecordHandle &h, CallCtx &c, const unsigned char **binaries, uint64_t count,
                      const size_t *lengths) {
    clStrings(h, c, reinterpret_cast<const char *const *>(binaries), count, lengths);
}
// An OpenCL errcode_ret: the application's pointer and, when it is not null, the 4-byte status the
// call stored there (also when the call failed: the status is what it tells).
void statusOut(RecordHandle &h, CallCtx &c, const int32_t *status);
// EGL attribute lists, recorded up to and including EGL_NONE.
void attribs(RecordHandle &h, CallCtx &c, const EGLint *list);
void attribs64(RecordHandle &h, CallCtx &c, const EGLAttrib *list);

// Number of values (not bytes) in an attribute list up to and including its EGL_NONE; 0 for null.
uint32_t attribCount(const EGLint *list);
uint32_t attribCount(const EGLAttrib *list);

} // namespace rec

} // namespace kv
