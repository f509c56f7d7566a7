#include "core/call_types.h"

#include "base/messages.h"
#include "platform/platform.h"

#include <cstring>

namespace kv::rec {

namespace {
// Up to this many bytes, a copy is small enough to go with the record's own bytes when it is
// stored as it is (the file holds the same bytes as for a block, without the block's write), and
// the bytes the driver has just read are copied directly rather than through a guarded read.
constexpr uint32_t kSmallCopy = 256;

// No record may grow past what its 32-bit length field can state.
uint32_t boundedSize(RecordHandle &h, uint64_t bytes) {
    constexpr uint64_t kLimit = 0xFFFFFFFFull - (1u << 20);
    if (bytes > kLimit || h.size() + bytes > kLimit) {
        msg::error("A data block of %llu bytes is too large for a call record and was left out.",
                   static_cast<unsigned long long>(bytes));
        return 0;
    }
    return static_cast<uint32_t>(bytes);
}

// Bytes stored as they are: inline, where a block would hold the same bytes in the file.
bool storedAsIs(const CallCtx &c, uint8_t flags) {
    return !(flags & api::kCompressible) || !c.d.compress;
}

template <class T>
uint32_t countAttribs(const T *list) {
    if (!list) return 0;
    // Read pairs until EGL_NONE; a list without a terminator in its first 4096 pairs, or one
    // that runs into unreadable memory, is recorded as far as it could be read.
    constexpr uint32_t kMaxPairs = 4096;
    T pair[2];
    for (uint32_t i = 0; i < kMaxPairs; ++i) {
        size_t got = platform::guardedCopy(pair, list + 2 * i, sizeof(T));
        if (got < sizeof(T)) {
            msg::error("The attribute list at %p could not be read to its end.",
                       static_cast<const void *>(list));
            return 2 * i;
        }
        if (pair[0] == EGL_NONE) return 2 * i + 1;
    }
    msg::error("The attribute list at %p has no EGL_NONE in its first %u pairs.",
               static_cast<const void *>(list), kMaxPairs);
    return 2 * kMaxPairs;
}

} // namespace

uint64_t deref(CallCtx &, const int32_t *p) {
    int32_t v = 0;
    if (!p || platform::guardedCopy(&v, p, sizeof(v)) != sizeof(v)) return 0;
    return v > 0 ? static_cast<uint64_t>(v) : 0;
}

void blob(RecordHandle &h, CallCtx &c, const void *data, uint64_t bytes, uint8_t flags) {
    h.ptr(data);
    if (bytes == kBufferOffset) return;
    bool always = (flags & api::kAlways) != 0;
    if (!c.d.recordData && !always) return;
    uint32_t n = (c.failed && !always) ? 0 : boundedSize(h, bytes);
    h.u32(n);
    // A few bytes the driver has just read in a call it accepted are readable: copied directly,
    // as the guarded read costs a system call.
    if ((flags & api::kHostRead) && data && n && n <= kSmallCopy && c.d.callHost && !c.failed) {
        if (storedAsIs(c, flags)) {
            h.append(data, n);
            return;
        }
        void *copy = h.scratch(n);
        std::memcpy(copy, data, n);
        h.addOwnBlock(n, copy, true);
        return;
    }
    h.addBlock(n, data, (flags & api::kCompressible) != 0);
}

void blob(RecordHandle &h, CallCtx &c, Blob b, uint8_t flags) {
    if (!b.copy) {
        blob(h, c, b.data, b.bytes, flags);
        return;
    }
    h.ptr(b.data);
    if (!c.d.recordData && !(flags & api::kAlways)) return;
    const uint32_t n = c.failed && !(flags & api::kAlways) ? 0 : boundedSize(h, b.bytes);
    h.u32(n);
    if (n <= kSmallCopy && storedAsIs(c, flags)) {
        h.append(b.copy, n);
        return;
    }
    h.addOwnBlock(n, b.copy, (flags & api::kCompressible) != 0);
}

void string(RecordHandle &h, CallCtx &c, const char *text) {
    if (!c.d.recordData) {
        h.ptr(text);
        return;
    }
    if (c.failed) {
        // The driver rejected the call without reading the text; neither does the recorder.
        h.ptr(text);
        h.u32(0);
        return;
    }
    h.appendString(text);
}

void textIn(RecordHandle &h, CallCtx &c, const char *text, GLsizei length) {
    if (length < 0 || !c.d.recordData) {
        string(h, c, text);
        return;
    }
    h.ptr(text);
    uint32_t n = text && !c.failed ? boundedSize(h, static_cast<uint64_t>(length)) : 0;
    h.u32(n);
    h.addBlock(n, text, false);
}

void textOut(RecordHandle &h, CallCtx &c, const char *buffer, GLsizei bufSize, const GLsizei *length) {
    h.ptr(buffer);
    if (!c.d.recordData) return;
    uint64_t n = 0;
    if (buffer && bufSize > 0 && !c.failed) {
        if (length) {
            uint64_t written = deref(c, length);
            n = written + 1 < static_cast<uint64_t>(bufSize) ? written + 1 : static_cast<uint64_t>(bufSize);
        } else {
            size_t found = 0;
            platform::guardedStrlen(buffer, static_cast<size_t>(bufSize), &found);
            n = found + 1 < static_cast<uint64_t>(bufSize) ? found + 1 : static_cast<uint64_t>(bufSize);
        }
    }
    uint32_t stored = boundedSize(h, n);
    h.u32(stored);
    h.addBlock(stored, buffer, false);
}

void glStrings(RecordHandle &h, CallCtx &c, const GLchar *const *strings, GLsizei count,
               const GLint *lengths) {
    if (!c.d.recordData) {
        h.ptr(strings);
        return;
    }
    h.appendStringArrayGL(strings, c.failed ? 0 : count, lengths);
}

void clStrings(RecordHandle &h, CallCtx &c, const char *const *strings, uint64_t count,
               const size_t *lengths) {
    if (!c.d.recordData) {
        h.ptr(strings);
        return;
    }
    // A program has far fewer sources than this; a larger count is a bad argument the driver
    // rejects, and the recorder reads no further than it.
    constexpr uint64_t kMaxStrings = 1u << 20;
    h.appendStringArrayCL(strings, c.failed || count > kMaxStrings ? 0 : static_cast<uint32_t>(count),
                          lengths);
}

void statusOut(RecordHandle &h, CallCtx &c, const int32_t *status) {
    h.ptr(status);
    if (!c.d.recordData) return;
    const uint32_t n = status ? 4 : 0;
    h.u32(n);
    h.addBlock(n, status, false);
}

uint32_t attribCount(const EGLint *list) {
    return countAttribs(list);
}
uint32_t attribCount(const EGLAttrib *list) {
    return countAttribs(list);
}

void attribs(RecordHandle &h, CallCtx &c, const EGLint *list) {
    blob(h, c, list, c.d.recordData ? uint64_t(attribCount(list)) * sizeof(EGLint) : 0, 0);
}

void attribs64(RecordHandle &h, CallCtx &c, const EGLAttrib *list) {
    blob(h, c, list, c.d.recordData ? uint64_t(attribCount(list)) * sizeof(EGLAttrib) : 0, 0);
}

} // namespace kv::rec
