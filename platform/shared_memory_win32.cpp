// Windows side of platform/shared_memory.h: file mappings in the paging file and named mutexes. A
// mutex whose owner ended is handed over as abandoned, which counts as taken.
#include "platform/shared_memory.h"

#if defined(_WIN32)

#include <windows.h>

namespace kv::platform {

namespace {
HANDLE h(intptr_t v) {
    return reinterpret_cast<HANDLE>(v);
}
} // namespace

bool SharedMemory::open(const std::string &name, size_t bytes, bool) {
    close();
    HANDLE mapping = CreateFileMappingA(INVALID_HANDLE_VALUE, nullptr, PAGE_READWRITE, 0,
                                        static_cast<DWORD>(bytes), name.c_str());
    if (!mapping) return false;
    void *p = MapViewOfFile(mapping, FILE_MAP_ALL_ACCESS, 0, 0, bytes);
    if (!p) {
        CloseHandle(mapping);
        return false;
    }
    handle_ = reinterpret_cast<intptr_t>(mapping);
    data_ = static_cast<uint8_t *>(p);
    size_ = bytes;
    return true;
}

void SharedMemory::close() {
    if (data_) UnmapViewOfFile(data_);
    if (handle_ != -1) CloseHandle(h(handle_));
    data_ = nullptr;
    size_ = 0;
    handle_ = -1;
}

void SharedMemory::unlink(const std::string &) {}

// A Windows mutex belongs to the thread that took it and only that thread may release it, while
// the two ends of a link hand a buffer over from whichever thread they run on (the performance
// server reads on a thread of its own; an application ends frames on any thread). So each lock
// has one thread of its own that takes and releases the mutex on the callers' behalf. Should the
// process end while it holds the mutex, the system hands it to the peer as abandoned, as before.
namespace {
enum class LockOp : LONG { Take, Release, Quit };
struct LockWorker {
    HANDLE mutex = nullptr, request = nullptr, done = nullptr;
    LockOp op = LockOp::Take;
    DWORD ms = 0;
    int result = 0;
    bool held = false;
};

DWORD WINAPI lockWorker(void *p) {
    LockWorker *w = static_cast<LockWorker *>(p);
    for (;;) {
        WaitForSingleObject(w->request, INFINITE);
        if (w->op == LockOp::Quit) {
            if (w->held) ReleaseMutex(w->mutex);
            CloseHandle(w->mutex);
            CloseHandle(w->request);
            CloseHandle(w->done);
            delete w;
            return 0;
        }
        if (w->op == LockOp::Take) {
            const DWORD r = WaitForSingleObject(w->mutex, w->ms);
            w->held = r == WAIT_OBJECT_0 || r == WAIT_ABANDONED;
            w->result = w->held ? 1 : r == WAIT_TIMEOUT ? 0 : -1;
        } else {
            if (w->held) ReleaseMutex(w->mutex);
            w->held = false;
        }
        SetEvent(w->done);
    }
}

LockWorker *worker(intptr_t v) {
    return reinterpret_cast<LockWorker *>(v);
}

void ask(LockWorker *w, LockOp op) {
    w->op = op;
    SetEvent(w->request);
    WaitForSingleObject(w->done, INFINITE);
}
} // namespace

bool NamedLock::open(const std::string &name, bool) {
    close();
    LockWorker *w = new LockWorker();
    w->mutex = CreateMutexA(nullptr, FALSE, name.c_str());
    w->request = CreateEventA(nullptr, FALSE, FALSE, nullptr);
    w->done = CreateEventA(nullptr, FALSE, FALSE, nullptr);
    HANDLE thread =
        w->mutex && w->request && w->done
            ? CreateThread(nullptr, 64 * 1024, &lockWorker, w, STACK_SIZE_PARAM_IS_A_RESERVATION, nullptr)
            : nullptr;
    if (!thread) {
        for (HANDLE x : {w->mutex, w->request, w->done})
            if (x) CloseHandle(x);
        delete w;
        return false;
    }
    CloseHandle(thread); // the worker ends by itself when the lock is closed
    handle_ = reinterpret_cast<intptr_t>(w);
    return true;
}

void NamedLock::close() {
    if (handle_ != -1) {
        // Not waited for: closing may happen while the process ends, when the worker may no
        // longer run; the worker releases a held mutex and frees itself.
        LockWorker *w = worker(handle_);
        w->op = LockOp::Quit;
        SetEvent(w->request);
    }
    handle_ = -1;
    held_ = false;
}

void NamedLock::unlink(const std::string &) {}

int NamedLock::take(uint32_t ms) {
    if (handle_ == -1) return -1;
    if (held_) return 1;
    LockWorker *w = worker(handle_);
    w->ms = ms;
    ask(w, LockOp::Take);
    held_ = w->result == 1;
    return w->result;
}

void NamedLock::release() {
    if (handle_ == -1 || !held_) return;
    ask(worker(handle_), LockOp::Release);
    held_ = false;
}

} // namespace kv::platform

#endif
