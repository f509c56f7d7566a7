// One call record as it is assembled on its thread: the inline bytes (id and values) and the data
// blocks of client memory, referenced and not copied until the record is finished.
#pragma once

#include "base/dyn_array.h"
#include "platform/platform.h"

#include <cstdint>
#include <cstring>

namespace kv {

struct SDataBlock {
    uint32_t position; // logical size of the record when the block was added
    uint32_t size;     // 0 when the pointer is null
    const void *data;
    bool compressible;
    bool owned; // the library's own memory (a gathered copy): read without a guard
};

// Scratch memory that lives until the record is finished (gathered vertex data, copies of values
// the library derives). Chunks are kept for the next record.
class RecordScratch {
public:
    ~RecordScratch();
    void *allocate(size_t bytes);
    void reset();

private:
    struct Chunk {
        uint8_t *data;
        size_t size;
        size_t used;
    };
    DynArray<Chunk> chunks_;
    uint32_t current_ = 0;
};

// The per-thread call record.
struct CallRecord {
    uint64_t threadId = 0;
    uint32_t logicalSize = 0; // bytes as if every block were stored inline
    bool inRecord = false;
    DynArray<SDataBlock> blocks;
    DynArray<uint8_t> inlineBytes;
    RecordScratch scratch;
};

class RecordHandle {
public:
    RecordHandle() = default;
    explicit RecordHandle(CallRecord *record) : r_(record) {}
    explicit operator bool() const { return r_ != nullptr; }
    CallRecord *record() const { return r_; }

    KV_ALWAYS_INLINE void append(const void *bytes, uint32_t n) {
        r_->inlineBytes.append(static_cast<const uint8_t *>(bytes), n);
        r_->logicalSize += n;
    }
    template <class T>
    KV_ALWAYS_INLINE void value(T v) {
        std::memcpy(r_->inlineBytes.grow(sizeof(T)), &v, sizeof(T));
        r_->logicalSize += sizeof(T);
    }
    KV_ALWAYS_INLINE void u8(uint8_t v) { value(v); }
    KV_ALWAYS_INLINE void u16(uint16_t v) { value(v); }
    KV_ALWAYS_INLINE void u32(uint32_t v) { value(v); }
    KV_ALWAYS_INLINE void i32(int32_t v) { value(v); }
    KV_ALWAYS_INLINE void u64(uint64_t v) { value(v); }
    KV_ALWAYS_INLINE void f32(float v) { value(v); }
    KV_ALWAYS_INLINE void ptr(const void *p) { value(static_cast<uint64_t>(reinterpret_cast<uintptr_t>(p))); }

    // Registers client memory to be stored at the current position. Size 0 or a null pointer
    // registers nothing (the size written before the block keeps the caller's count).
    void addBlock(uint32_t size, const void *data, bool compressible) {
        add(size, data, compressible, false);
    }
    // A block of the library's own memory (scratch copies), which needs no guard when it is written.
    void addOwnBlock(uint32_t size, const void *data, bool compressible) {
        add(size, data, compressible, true);
    }

    // The text's pointer (8), its length (4) and a block of the text without its terminator.
    void appendString(const char *text);
    // Array pointer (8) and count (4), then per string its pointer (8), length (4) and block;
    // OpenGL ES rules: a length entry of 0 or more is used as it is, else the text's own length.
    void appendStringArrayGL(const char *const *strings, int32_t count, const int32_t *lengths);
    // OpenCL rules: a non-zero length entry is used as it is, else the text's length plus its
    // terminator.
    void appendStringArrayCL(const char *const *strings, uint32_t count, const size_t *lengths);

    uint32_t size() const { return r_ ? r_->logicalSize : 0; }
    void *scratch(size_t bytes) { return r_->scratch.allocate(bytes); }

private:
    void add(uint32_t size, const void *data, bool compressible, bool owned) {
        // A null pointer's block holds nothing, compressed or not: nothing is registered.
        if (size == 0 || !data) return;
        r_->blocks.push_back(SDataBlock{r_->logicalSize, size, data, compressible, owned});
        r_->logicalSize += size;
    }

    CallRecord *r_ = nullptr;
};

// The calling thread's call record, made on first use by a thread that existed before the library
// was loaded.
CallRecord &threadRecord();

namespace records {
// The thread-local slot of the per-thread records (the library's entry routine makes it at process
// attach; false when it cannot be made).
bool createSlot();
// A record for a thread that starts now; false when it cannot be allocated.
bool attachThread();
// Frees the calling thread's record (thread or process detach).
void detachThread();
} // namespace records

} // namespace kv
