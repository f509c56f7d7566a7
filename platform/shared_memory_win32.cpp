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

bool NamedLock::open(const std::string &name, bool) {
    close();
    HANDLE m = CreateMutexA(nullptr, FALSE, name.c_str());
    if (!m) return false;
    handle_ = reinterpret_cast<intptr_t>(m);
    return true;
}

void NamedLock::close() {
    release();
    if (handle_ != -1) CloseHandle(h(handle_));
    handle_ = -1;
    held_ = false;
}

void NamedLock::unlink(const std::string &) {}

int NamedLock::take(uint32_t ms) {
    if (handle_ == -1) return -1;
    if (held_) return 1;
    DWORD r = WaitForSingleObject(h(handle_), ms);
    if (r == WAIT_OBJECT_0 || r == WAIT_ABANDONED) {
        held_ = true;
        return 1;
    }
    return r == WAIT_TIMEOUT ? 0 : -1;
}

void NamedLock::release() {
    if (handle_ == -1 || !held_) return;
    ReleaseMutex(h(handle_));
    held_ = false;
}

} // namespace kv::platform

#endif
