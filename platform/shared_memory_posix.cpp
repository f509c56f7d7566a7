// POSIX side of platform/shared_memory.h: shm_open objects. A lock is an open description of its
// own small object with flock() on it: flock belongs to the open description (not to a thread, and
// two opens in one process exclude each other as two processes do), and the system drops it when
// the process ends, however it ends.
#include "platform/shared_memory.h"

#if !defined(_WIN32)

#include "platform/platform.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

namespace kv::platform {

namespace {
std::string objectName(const std::string &name) {
    return "/" + name;
}

int openObject(const std::string &name, bool create) {
    int flags = O_RDWR | O_CLOEXEC | (create ? O_CREAT : 0);
    int fd;
    do {
        fd = ::shm_open(objectName(name).c_str(), flags, 0600);
    } while (fd < 0 && errno == EINTR);
    return fd;
}
} // namespace

bool SharedMemory::open(const std::string &name, size_t bytes, bool create) {
    close();
    int fd = openObject(name, create);
    if (fd < 0) return false;
    struct stat st;
    if (::fstat(fd, &st) != 0 ||
        (static_cast<size_t>(st.st_size) < bytes && ::ftruncate(fd, static_cast<off_t>(bytes)) != 0)) {
        ::close(fd);
        return false;
    }
    void *p = ::mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    ::close(fd);
    if (p == MAP_FAILED) return false;
    data_ = static_cast<uint8_t *>(p);
    size_ = bytes;
    return true;
}

void SharedMemory::close() {
    if (data_) ::munmap(data_, size_);
    data_ = nullptr;
    size_ = 0;
}

void SharedMemory::unlink(const std::string &name) {
    ::shm_unlink(objectName(name).c_str());
}

bool NamedLock::open(const std::string &name, bool create) {
    close();
    int fd = openObject(name, create);
    if (fd < 0) return false;
    handle_ = fd;
    return true;
}

void NamedLock::close() {
    if (handle_ != -1) ::close(static_cast<int>(handle_)); // also drops the lock
    handle_ = -1;
    held_ = false;
}

void NamedLock::unlink(const std::string &name) {
    ::shm_unlink(objectName(name).c_str());
}

int NamedLock::take(uint32_t ms) {
    if (handle_ == -1) return -1;
    if (held_) return 1;
    const uint64_t start = tickCountMs();
    uint32_t pause = 20; // microseconds, doubling up to a millisecond
    for (;;) {
        if (::flock(static_cast<int>(handle_), LOCK_EX | LOCK_NB) == 0) {
            held_ = true;
            return 1;
        }
        if (errno != EWOULDBLOCK && errno != EINTR) return -1;
        if (tickCountMs() - start >= ms) return 0;
        ::usleep(pause);
        if (pause < 1000) pause *= 2;
    }
}

void NamedLock::release() {
    if (handle_ == -1 || !held_) return;
    ::flock(static_cast<int>(handle_), LOCK_UN);
    held_ = false;
}

} // namespace kv::platform

#endif
