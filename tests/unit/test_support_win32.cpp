// The Windows side of the test helpers.
#include "tests/unit/test_support.h"

#include <windows.h>

#include <fcntl.h>
#include <io.h>
#include <sys/stat.h>

#include <cstdio>
#include <cstdlib>

namespace kv::test {

namespace detail {

bool redirectConsole(const std::string &path, int *savedOut, int *savedErr) {
    std::fflush(stdout);
    std::fflush(stderr);
    int fd = ::_open(path.c_str(), _O_WRONLY | _O_CREAT | _O_TRUNC | _O_BINARY, _S_IREAD | _S_IWRITE);
    if (fd < 0) return false;
    *savedOut = ::_dup(1);
    *savedErr = ::_dup(2);
    ::_dup2(fd, 1);
    ::_dup2(fd, 2);
    ::_close(fd);
    return true;
}

void restoreConsole(int savedOut, int savedErr) {
    std::fflush(stdout);
    std::fflush(stderr);
    ::_dup2(savedOut, 1);
    ::_dup2(savedErr, 2);
    ::_close(savedOut);
    ::_close(savedErr);
}

} // namespace detail

// The debugger channel is OutputDebugStringA, which a test cannot read back.
bool debuggerChannelIsFile() {
    return false;
}

GuardedPages::GuardedPages() {
    SYSTEM_INFO info;
    ::GetSystemInfo(&info);
    pageSize_ = info.dwPageSize;
    void *p = ::VirtualAlloc(nullptr, 2 * pageSize_, MEM_RESERVE | MEM_COMMIT, PAGE_READWRITE);
    if (!p) std::abort();
    base_ = static_cast<uint8_t *>(p);
    DWORD old;
    ::VirtualProtect(base_ + pageSize_, pageSize_, PAGE_NOACCESS, &old);
}

void GuardedPages::revokeReadable() {
    DWORD old;
    ::VirtualProtect(base_, pageSize_, PAGE_NOACCESS, &old);
}

GuardedPages::~GuardedPages() {
    ::VirtualFree(base_, 0, MEM_RELEASE);
}

bool limitAddressSpace(uint64_t) {
    return false;
}

std::string endlessDevice() {
    return "";
}

bool makeFifo(const std::string &) {
    return false;
}

std::string alwaysFullDevice() {
    return "";
}

} // namespace kv::test
