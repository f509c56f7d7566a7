#include "trace/record.h"

#include "base/messages.h"
#include "platform/platform.h"

#include <cstdlib>
#include <new>

namespace kv {

namespace {
// No text the recorder stores is larger than this; an unterminated string stops here.
constexpr size_t kMaxTextLength = 64u << 20;

uint32_t textLength(const char *text) {
    size_t length = 0;
    if (!platform::guardedStrlen(text, kMaxTextLength, &length))
        msg::error("The string at %p could not be read to its end; %u characters were recorded.",
                   static_cast<const void *>(text), static_cast<unsigned>(length));
    return static_cast<uint32_t>(length);
}

// Copies a client array of n elements into the record's scratch memory; unreadable elements read
// as zero. Returns null for a null array.
template <class T>
const T *copyArray(RecordHandle &h, const T *array, uint32_t n) {
    if (!array || n == 0) return nullptr;
    T *copy = static_cast<T *>(h.scratch(sizeof(T) * n));
    size_t got = platform::guardedCopy(copy, array, sizeof(T) * n);
    if (got < sizeof(T) * n) {
        std::memset(reinterpret_cast<uint8_t *>(copy) + got, 0, sizeof(T) * n - got);
        msg::error("The array at %p could not be read; the unreadable part was recorded as zeros.",
                   static_cast<const void *>(array));
    }
    return copy;
}
} // namespace

RecordScratch::~RecordScratch() {
    for (auto &c : chunks_)
        std::free(c.data);
}

void *RecordScratch::allocate(size_t bytes) {
    bytes = (bytes + 15) & ~size_t(15);
    while (current_ < chunks_.size()) {
        Chunk &c = chunks_[current_];
        if (c.size - c.used >= bytes) {
            void *p = c.data + c.used;
            c.used += bytes;
            return p;
        }
        ++current_;
    }
    size_t size = bytes > (256u << 10) ? bytes : (256u << 10);
    auto *data = static_cast<uint8_t *>(std::malloc(size));
    // The record that needs it is dropped whole (the call wrapper catches this); the application
    // goes on.
    if (!data) throw std::bad_alloc();
    chunks_.push_back(Chunk{data, size, bytes});
    current_ = chunks_.size() - 1;
    return data;
}

void RecordScratch::reset() {
    if (chunks_.empty()) return;
    if (current_ == 0 && chunks_[0].used == 0) return; // nothing was used: the common case
    // Keep the first chunk; let go of the ones a large record needed.
    for (uint32_t i = 1; i < chunks_.size(); ++i)
        std::free(chunks_[i].data);
    Chunk first = chunks_[0];
    first.used = 0;
    chunks_.clear();
    if (first.size <= (4u << 20)) {
        chunks_.push_back(first);
    } else {
        std::free(first.data);
    }
    current_ = 0;
}

void RecordHandle::appendString(const char *text) {
    ptr(text);
    uint32_t length = text ? textLength(text) : 0;
    u32(length);
    addBlock(length, text, false);
}

void RecordHandle::appendStringArrayGL(const char *const *strings, int32_t count, const int32_t *lengths) {
    uint32_t n = strings && count > 0 ? static_cast<uint32_t>(count) : 0;
    const char *const *names = copyArray(*this, strings, n);
    const int32_t *given = copyArray(*this, lengths, n);
    ptr(strings);
    u32(n);
    for (uint32_t i = 0; i < n; ++i) {
        const char *s = names[i];
        uint32_t length = 0;
        if (given && given[i] >= 0)
            length = static_cast<uint32_t>(given[i]);
        else if (s)
            length = textLength(s);
        ptr(s);
        u32(length);
        addBlock(length, s, false);
    }
}

void RecordHandle::appendStringArrayCL(const char *const *strings, uint32_t count, const size_t *lengths) {
    uint32_t n = strings ? count : 0;
    const char *const *names = copyArray(*this, strings, n);
    const size_t *given = copyArray(*this, lengths, n);
    ptr(strings);
    u32(n);
    for (uint32_t i = 0; i < n; ++i) {
        const char *s = names[i];
        uint32_t length;
        if (given && given[i] != 0)
            length = static_cast<uint32_t>(given[i]);
        else
            length = s ? textLength(s) + 1 : 0;
        ptr(s);
        u32(length);
        addBlock(length, s, false);
    }
}

namespace {

platform::TlsSlot *g_recordSlot = nullptr;
// The calling thread's record, also kept where it is read fastest.
KV_FAST_THREAD_LOCAL CallRecord *t_record = nullptr;

void freeRecord(void *p) {
    if (t_record == p) t_record = nullptr;
    delete static_cast<CallRecord *>(p);
}

CallRecord *newThreadRecord() {
    auto *r = new (std::nothrow) CallRecord();
    if (r) r->threadId = platform::threadId();
    return r;
}

// Thread end on platforms whose thread-local slots clean up after themselves.
void threadRecordCleanup(void *p) {
    platform::consoleOut("Kalvoren: DllMain\r\n");
    platform::consoleOut("Kalvoren: DLL_THREAD_DETACH\r\n");
    freeRecord(p);
}

} // namespace

CallRecord &threadRecord() {
    if (KV_LIKELY(t_record != nullptr)) return *t_record;
    if (KV_UNLIKELY(!g_recordSlot)) {
        // Used before the library's entry routine ran (a static library in a test): make the slot.
        static platform::TlsSlot *slot = new platform::TlsSlot(&threadRecordCleanup);
        g_recordSlot = slot;
    }
    auto *r = static_cast<CallRecord *>(g_recordSlot->get());
    if (KV_UNLIKELY(!r)) {
        r = newThreadRecord();
        if (!r) std::abort();
        g_recordSlot->set(r);
    }
    t_record = r;
    return *r;
}

namespace records {

bool createSlot() {
    g_recordSlot = new (std::nothrow) platform::TlsSlot(&threadRecordCleanup);
    return g_recordSlot && g_recordSlot->valid();
}

bool attachThread() {
    CallRecord *r = newThreadRecord();
    if (!r) return false;
    g_recordSlot->set(r);
    return true;
}

void detachThread() {
    if (!g_recordSlot) return;
    if (void *r = g_recordSlot->get()) {
        g_recordSlot->set(nullptr);
        freeRecord(r);
    }
}

} // namespace records

} // namespace kv
