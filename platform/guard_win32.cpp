// Windows side of what keeps the recorder harmless when things go wrong: the guarded reads of
// application memory, the trace file's mapped window, and the handlers that leave the trace file
// exact when an unhandled exception or a console close ends the process.
#include "platform/platform.h"

#if defined(_WIN32)

#include <windows.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <share.h>

namespace kv::platform {

// ---- Guarded reads ---------------------------------------------------------------------------

// A leaf routine around `rep movsb` whose fault is turned into an early return by a vectored
// exception handler, which Windows asks before any frame-based handler or unhandled-exception
// filter of the application. rdi and rsi are callee-saved on Windows; they are kept in volatile
// registers so that the routine never touches the stack and needs no unwind data.
extern "C" size_t kv_guarded_copy_impl(void *dst, const void *src, size_t n);
extern "C" char kv_guarded_copy_fault_at[];
extern "C" char kv_guarded_copy_fault_exit[];

__asm__(".text\n"
        ".p2align 4\n"
        ".globl kv_guarded_copy_impl\n"
        "kv_guarded_copy_impl:\n"
        "  mov %rdi, %r10\n"
        "  mov %rsi, %r11\n"
        "  mov %rcx, %rdi\n"
        "  mov %rdx, %rsi\n"
        "  mov %r8, %rcx\n"
        "  mov %r8, %rax\n"
        ".globl kv_guarded_copy_fault_at\n"
        "kv_guarded_copy_fault_at:\n"
        "  rep movsb\n"
        "  mov %r10, %rdi\n"
        "  mov %r11, %rsi\n"
        "  ret\n"
        ".globl kv_guarded_copy_fault_exit\n"
        "kv_guarded_copy_fault_exit:\n"
        "  sub %rcx, %rax\n"
        "  mov %r10, %rdi\n"
        "  mov %r11, %rsi\n"
        "  ret\n");

static LONG CALLBACK faultHandler(EXCEPTION_POINTERS *pointers) {
    DWORD code = pointers->ExceptionRecord->ExceptionCode;
    if ((code == EXCEPTION_ACCESS_VIOLATION || code == EXCEPTION_IN_PAGE_ERROR) &&
        pointers->ContextRecord->Rip == reinterpret_cast<DWORD64>(kv_guarded_copy_fault_at)) {
        pointers->ContextRecord->Rip = reinterpret_cast<DWORD64>(kv_guarded_copy_fault_exit);
        return EXCEPTION_CONTINUE_EXECUTION;
    }
    return EXCEPTION_CONTINUE_SEARCH;
}

static std::atomic<bool> g_guardInstalled{false};

void installFaultGuard() {
    if (g_guardInstalled.exchange(true)) return;
    AddVectoredExceptionHandler(1, faultHandler);
}

size_t guardedCopy(void *dst, const void *src, size_t n) {
    if (n == 0 || !src) return 0;
    if (KV_UNLIKELY(!g_guardInstalled.load(std::memory_order_acquire))) installFaultGuard();
    return kv_guarded_copy_impl(dst, src, n);
}

void forgetReadable() {
    // Every guarded read here is the exception-guarded copy, which needs no system call: nothing
    // is remembered.
}

uint64_t guardedGather(void *dst, const void *src, uint64_t count, size_t size, size_t stride) {
    if (!src || size == 0) return 0;
    auto *out = static_cast<uint8_t *>(dst);
    const auto *in = static_cast<const uint8_t *>(src);
    uint64_t done = 0;
    for (; done < count; ++done)
        if (guardedCopy(out + done * size, in + done * stride, size) != size) break;
    return done;
}

bool guardedReadable(const void *p, uint64_t n) {
    if (n == 0) return true;
    const uint8_t *bytes = static_cast<const uint8_t *>(p);
    uint8_t probe;
    uint64_t step = 4096 - (reinterpret_cast<uintptr_t>(bytes) & 4095);
    for (uint64_t at = 0; at < n; at += step, step = 4096)
        if (guardedCopy(&probe, bytes + at, 1) != 1) return false;
    return guardedCopy(&probe, bytes + n - 1, 1) == 1;
}

// ---- The trace file as the ending handlers see it -------------------------------------------

namespace {

struct ActiveTrace {
    std::atomic<MappedFile *> file{nullptr};
    std::atomic<uint64_t> committed{0};
};
ActiveTrace g_trace;
LPTOP_LEVEL_EXCEPTION_FILTER g_previousFilter = nullptr;

// The view must go before the file can be made shorter than it.
void cutTrace() {
    MappedFile *file = g_trace.file.exchange(nullptr);
    if (file) file->close(g_trace.committed.load());
}

LONG WINAPI unhandledException(EXCEPTION_POINTERS *pointers) {
    cutTrace();
    return g_previousFilter ? g_previousFilter(pointers) : EXCEPTION_CONTINUE_SEARCH;
}

// Ctrl-C and Ctrl-Break end the process through ExitProcess (the library's detach closes the
// trace cleanly) unless a handler of the application keeps it alive; a closed console, a log-off
// and a shut-down end it without that once the handlers return.
BOOL WINAPI consoleControl(DWORD event) {
    if (event == CTRL_CLOSE_EVENT || event == CTRL_LOGOFF_EVENT || event == CTRL_SHUTDOWN_EVENT) cutTrace();
    return FALSE;
}

} // namespace

void installEndingHandlers() {
    static std::atomic<bool> installed{false};
    if (installed.exchange(true)) return;
    g_previousFilter = SetUnhandledExceptionFilter(unhandledException);
    SetConsoleCtrlHandler(consoleControl, TRUE);
}

void refreshEndingHandlers() {
    // The filter is a single slot: an application that sets its own gets ours back as the one it
    // chains to, as the API expects of it; nothing is put back here.
}

// ---- Files -----------------------------------------------------------------------------------

uint64_t fileSizeLimit() {
    return UINT64_MAX;
}

std::FILE *openExclusive(const char *path, bool *inUse) {
    *inUse = false;
    // Others may read the trace while it is written, never write it.
    std::FILE *file = _fsopen(path, "wb+", _SH_DENYWR);
    if (!file && errno == EACCES && GetLastError() == ERROR_SHARING_VIOLATION) *inUse = true;
    return file;
}

MappedFile::~MappedFile() {
    if (isOpen()) close(committed_);
}

MappedFile::Open MappedFile::create(const char *path) {
    // Opened for this process alone in writing: a second recorder is refused before it truncates.
    HANDLE file = CreateFileA(path, GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ, nullptr, OPEN_ALWAYS,
                              FILE_ATTRIBUTE_NORMAL, nullptr);
    if (file == INVALID_HANDLE_VALUE)
        return GetLastError() == ERROR_SHARING_VIOLATION ? Open::InUse : Open::Failed;
    if (GetFileType(file) != FILE_TYPE_DISK) {
        CloseHandle(file);
        return Open::Failed;
    }
    LARGE_INTEGER zero;
    zero.QuadPart = 0;
    if (!SetFilePointerEx(file, zero, nullptr, FILE_BEGIN) || !SetEndOfFile(file)) {
        CloseHandle(file);
        return Open::Failed;
    }
    fd_ = reinterpret_cast<intptr_t>(file);
    capacity_ = committed_ = 0;
    failure_ = Failure::None;
    g_trace.committed.store(0);
    installEndingHandlers();
    if (!grow(1) || !mapWindow(0)) {
        CloseHandle(file);
        fd_ = -1;
        return Open::Failed;
    }
    g_trace.file.store(this);
    return Open::Ok;
}

// A mapped file cannot change its length: the view and the mapping object go, the file grows,
// and the window is mapped again by the caller.
bool MappedFile::grow(uint64_t need) {
    if (need <= capacity_) return true;
    fastEnd_ = 0;
    uint64_t step = std::min<uint64_t>(std::max<uint64_t>(capacity_ / 4, 4ull << 20), 32ull << 20);
    uint64_t target = std::max(need, capacity_ + step);
    if (window_) UnmapViewOfFile(window_);
    if (mapping_) CloseHandle(reinterpret_cast<HANDLE>(mapping_));
    window_ = nullptr;
    mapping_ = 0;
    HANDLE file = reinterpret_cast<HANDLE>(fd_);
    LARGE_INTEGER size;
    size.QuadPart = static_cast<LONGLONG>(target);
    if (!SetFilePointerEx(file, size, nullptr, FILE_BEGIN) || !SetEndOfFile(file)) {
        failure_ = GetLastError() == ERROR_DISK_FULL ? Failure::DiskFull : Failure::Other;
        return false;
    }
    HANDLE mapping = CreateFileMappingA(file, nullptr, PAGE_READWRITE, static_cast<DWORD>(target >> 32),
                                        static_cast<DWORD>(target & 0xFFFFFFFFu), nullptr);
    if (!mapping) {
        failure_ = Failure::Other;
        return false;
    }
    mapping_ = reinterpret_cast<intptr_t>(mapping);
    capacity_ = target;
    return true;
}

bool MappedFile::mapWindow(uint64_t offset) {
    fastEnd_ = 0;
    if (window_) UnmapViewOfFile(window_);
    window_ = nullptr;
    if (!mapping_) return false;
    const uint64_t start = offset & ~(kWindow / 2 - 1);
    const uint64_t size = std::min(kWindow, capacity_ - start);
    void *view = MapViewOfFile(reinterpret_cast<HANDLE>(mapping_), FILE_MAP_ALL_ACCESS,
                               static_cast<DWORD>(start >> 32), static_cast<DWORD>(start & 0xFFFFFFFFu),
                               static_cast<SIZE_T>(size));
    if (!view) {
        failure_ = Failure::Other;
        return false;
    }
    window_ = static_cast<uint8_t *>(view);
    windowStart_ = start;
    windowSize_ = size;
    return true;
}

uint8_t *MappedFile::span(uint64_t offset, size_t *available) {
    if (KV_UNLIKELY(failure_ != Failure::None || fd_ == -1)) return nullptr;
    if (KV_UNLIKELY(offset >= capacity_)) {
        if (!grow(offset + 1) || !mapWindow(offset)) return nullptr;
    } else if (KV_UNLIKELY(!window_ || offset < windowStart_ || offset >= windowStart_ + windowSize_)) {
        if (!mapWindow(offset)) return nullptr;
    }
    fastEnd_ = windowStart_ + windowSize_;
    *available = static_cast<size_t>(windowStart_ + windowSize_ - offset);
    return window_ + (offset - windowStart_);
}

// A view and WriteFile are not promised to see the same bytes of a file here: everything goes
// through the window, and the caller writes the whole block there.
bool MappedFile::writeDirect(uint64_t, const void *, size_t, size_t *taken) {
    *taken = 0;
    return failure_ == Failure::None && fd_ != -1;
}

bool MappedFile::cutShort() {
    // The file is opened without sharing its deletion or writing: no other program can cut it.
    return false;
}

void MappedFile::commit(uint64_t end) {
    committed_ = end;
    g_trace.committed.store(end, std::memory_order_release);
}

MappedFile::Failure MappedFile::failure() const {
    return failure_;
}

void MappedFile::close(uint64_t finalSize) {
    MappedFile *self = this;
    g_trace.file.compare_exchange_strong(self, nullptr);
    fastEnd_ = 0;
    if (window_) UnmapViewOfFile(window_);
    window_ = nullptr;
    if (mapping_) CloseHandle(reinterpret_cast<HANDLE>(mapping_));
    mapping_ = 0;
    if (fd_ != -1) {
        HANDLE file = reinterpret_cast<HANDLE>(fd_);
        LARGE_INTEGER size;
        size.QuadPart = static_cast<LONGLONG>(finalSize);
        if (SetFilePointerEx(file, size, nullptr, FILE_BEGIN)) SetEndOfFile(file);
        CloseHandle(file);
    }
    fd_ = -1;
    capacity_ = 0;
}

} // namespace kv::platform

#endif
