// Named shared memory and the named locks that guard it, the same on every system: file mappings
// and mutexes on Windows, POSIX shared memory objects elsewhere. A lock held by a process that dies
// is released by the system, so a peer that dies while it owns a buffer never hangs the other side.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace kv::platform {

// A named block of shared memory mapped into this process.
class SharedMemory {
public:
    SharedMemory() = default;
    ~SharedMemory() { close(); }
    SharedMemory(const SharedMemory &) = delete;
    SharedMemory &operator=(const SharedMemory &) = delete;

    // Opens the block `name` of `bytes` bytes. With `create` it is made when missing (zero-filled);
    // without, a missing block is a failure. On Windows a block lives as long as a handle to it
    // does, so opening there always creates; POSIX blocks outlive their processes, so the side that
    // only joins never creates one (it would be left behind with nobody to remove it).
    bool open(const std::string &name, size_t bytes, bool create);
    void close();
    // Removes the name (POSIX; nothing on Windows, where the last handle removes it). The mapping
    // stays usable until closed.
    static void unlink(const std::string &name);
    uint8_t *data() const { return data_; }
    size_t size() const { return size_; }

private:
    uint8_t *data_ = nullptr;
    size_t size_ = 0;
    intptr_t handle_ = -1;
};

// A named lock shared between processes. Any thread of the owning process may release it (each end
// of a link is used by one thread at a time, not always the same one).
class NamedLock {
public:
    NamedLock() = default;
    ~NamedLock() { close(); }
    NamedLock(const NamedLock &) = delete;
    NamedLock &operator=(const NamedLock &) = delete;

    // Opens (with `create`, makes when missing) the lock `name`.
    bool open(const std::string &name, bool create);
    void close();
    static void unlink(const std::string &name);
    // Waits up to `ms` milliseconds (0: only tries): 1 taken, 0 timed out, -1 failed.
    int take(uint32_t ms);
    void release();
    bool held() const { return held_; }
    bool isOpen() const { return handle_ != -1; }

private:
    intptr_t handle_ = -1;
    bool held_ = false;
};

} // namespace kv::platform
