// The POSIX side of the test helpers.
#include "tests/unit/test_support.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

namespace kv::test {

namespace detail {

bool redirectConsole(const std::string &path, int *savedOut, int *savedErr) {
    std::fflush(stdout);
    std::fflush(stderr);
    int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0) return false;
    *savedOut = ::dup(1);
    *savedErr = ::dup(2);
    ::dup2(fd, 1);
    ::dup2(fd, 2);
    ::close(fd);
    return true;
}

void restoreConsole(int savedOut, int savedErr) {
    std::fflush(stdout);
    std::fflush(stderr);
    ::dup2(savedOut, 1);
    ::dup2(savedErr, 2);
    ::close(savedOut);
    ::close(savedErr);
}

} // namespace detail

bool debuggerChannelIsFile() {
    return true;
}

GuardedPages::GuardedPages() {
    pageSize_ = static_cast<size_t>(::sysconf(_SC_PAGESIZE));
    void *p = ::mmap(nullptr, 2 * pageSize_, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (p == MAP_FAILED) std::abort();
    base_ = static_cast<uint8_t *>(p);
    ::mprotect(base_ + pageSize_, pageSize_, PROT_NONE);
}

void GuardedPages::revokeReadable() {
    ::mprotect(base_, pageSize_, PROT_NONE);
}

GuardedPages::~GuardedPages() {
    ::munmap(base_, 2 * pageSize_);
}

std::string alwaysFullDevice() {
    struct stat st;
    return ::stat("/dev/full", &st) == 0 && S_ISCHR(st.st_mode) ? "/dev/full" : "";
}

bool limitAddressSpace(uint64_t bytes) {
    struct rlimit limit;
    if (::getrlimit(RLIMIT_AS, &limit) != 0) return false;
    limit.rlim_cur = static_cast<rlim_t>(bytes);
    return ::setrlimit(RLIMIT_AS, &limit) == 0;
}

std::string endlessDevice() {
    struct stat st;
    return ::stat("/dev/zero", &st) == 0 && S_ISCHR(st.st_mode) ? "/dev/zero" : "";
}

bool makeFifo(const std::string &path) {
    ::unlink(path.c_str());
    return ::mkfifo(path.c_str(), 0600) == 0;
}

} // namespace kv::test
