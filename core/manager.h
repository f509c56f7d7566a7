// The recording manager: the process-wide singleton that holds per-thread data and the state the
// recorder keeps about the trace file it writes.
#pragma once

#include "base/thread_local_pointer.h"
#include "base/zand_string.h"

#include <cstdint>
#include <map>

namespace kv {

class CTraceRecordManager {
public:
    struct ThreadData {
        uint32_t value = 0;
        uint32_t currentFunction = 0;
    };

    static CTraceRecordManager &get();

    ThreadData &threadData() { return threadData_.getOrCreate(); }
    // The calling thread's data when it has been made (null before its first call).
    KV_ALWAYS_INLINE static ThreadData *currentThreadData() {
        return FastThreadLocalPointer<ThreadData>::current();
    }
    const CZandString &buildString() const { return build_; }

private:
    CTraceRecordManager();
    CZandString empty_;
    CZandString build_;
    FastThreadLocalPointer<ThreadData> threadData_;
    std::map<uint64_t, uint64_t> map_;
};

// Stores the id of the function the calling thread is executing.
// Every call does this: after a thread's first call it is one thread-local load and a store.
KV_ALWAYS_INLINE void setCurrentFunction(uint16_t id) {
    CTraceRecordManager::ThreadData *t = CTraceRecordManager::currentThreadData();
    if (KV_UNLIKELY(!t)) t = &CTraceRecordManager::get().threadData();
    t->currentFunction = id;
}

} // namespace kv
