// Everything that differs between Windows and POSIX lives behind this header. Nothing outside
// platform/ may test _WIN32 or include a system header that only one side has.
#pragma once

#include <cstddef>
#include <atomic>
#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#if defined(_WIN32)
#define KV_EXPORT __declspec(dllexport)
#define KV_IMPORT __declspec(dllimport)
#define KV_APIENTRY __stdcall
#else
#define KV_EXPORT __attribute__((visibility("default")))
#define KV_IMPORT
#define KV_APIENTRY
#endif

#define KV_LIKELY(x) __builtin_expect(!!(x), 1)
#define KV_UNLIKELY(x) __builtin_expect(!!(x), 0)
#define KV_NOINLINE __attribute__((noinline))

// A thread-local variable of a trivial type that is read on every call: one instruction where the
// system allows it (the initial-exec model; the library's few such variables fit the loader's
// reserve even when it is loaded late).
#if defined(_WIN32)
#define KV_FAST_THREAD_LOCAL thread_local
#else
#define KV_FAST_THREAD_LOCAL __thread __attribute__((tls_model("initial-exec")))
#endif
#define KV_ALWAYS_INLINE inline __attribute__((always_inline))

namespace kv::platform {

// ---- Modules ---------------------------------------------------------------------------------

using ModuleHandle = void *;

// Loads a module and resolves its references (LoadLibraryA / dlopen RTLD_NOW).
ModuleHandle loadLibrary(const char *path);
// Loads a module only to learn where it lives (LoadLibraryExA with DONT_RESOLVE_DLL_REFERENCES /
// dlopen RTLD_LAZY|RTLD_LOCAL).
ModuleHandle loadLibraryNoResolve(const char *path);
void freeLibrary(ModuleHandle module);
void *getSymbol(ModuleHandle module, const char *name);
// Full path of a loaded module; empty when it cannot be told.
std::string moduleFileName(ModuleHandle module);
// The module that holds the given code or data address; null when none does.
ModuleHandle moduleContaining(const void *address);
// The handle by which this library's own loader registration can be compared with others.
ModuleHandle ownModule();
// Path of the running executable; empty when it cannot be told.
std::string executablePath();
// The file name of a path: what follows the last '/' or '\\'.
std::string baseName(const std::string &path);
// The directories a bare library name is searched in, in the loader's order (for finding the real
// driver libraries when our front libraries shadow them).
std::vector<std::string> librarySearchDirectories();
// True when both paths name the same file (same device and inode / same file index).
bool sameFile(const std::string &a, const std::string &b);
bool fileExists(const std::string &path);
// True when anything is at `path`: a file, a directory, a device or a pipe.
bool pathExists(const std::string &path);
bool isDirectory(const std::string &path);
std::string currentDirectory();
// The driver library file names of this platform, by API: 0 EGL, 1 OpenGL ES 1, 2 OpenGL ES 2/3,
// 3 OpenCL.
const char *driverLibraryName(int api);
// Every file name a driver for `api` is known to ship under, the usual one first; null-terminated.
const char *const *driverLibraryNames(int api);
// Finds the file that a bare library name stands for, passing over the files in `excludedFiles`
// and every file in `excludedDirectories` (our own front libraries, which shadow the real drivers on
// the search path and sit next to the library). Returns the full path, or an empty string when
// nothing was found.
std::string locateLibrary(const char *name, const std::vector<std::string> &excludedFiles,
                          const std::vector<std::string> &excludedDirectories);
// The directory part of a path (without its last separator); empty when there is none.
std::string directoryName(const std::string &path);
std::string getEnv(const char *name);

// ---- Threads, locks and thread-local slots ---------------------------------------------------

uint64_t processId();
uint64_t threadId();
void sleepMs(uint32_t milliseconds);
uint64_t tickCountMs();
// Milliseconds from a clock that is cheap enough to read on every call (its resolution is a few
// milliseconds).
uint64_t coarseTickMs();
uint64_t perfCounter();
uint64_t perfFrequency();

// A thread-local slot whose non-null value is handed to `cleanup` when its thread ends.
class TlsSlot {
public:
    using Cleanup = void (*)(void *);
    explicit TlsSlot(Cleanup cleanup = nullptr);
    ~TlsSlot();
    TlsSlot(const TlsSlot &) = delete;
    TlsSlot &operator=(const TlsSlot &) = delete;
    bool valid() const { return valid_; }
    void *get() const;
    void set(void *value);

private:
    uintptr_t key_ = 0;
    bool valid_ = false;
};

// Runs the clean-ups of the calling thread's slots now (Windows calls this from the library's
// thread-detach notification; POSIX runs them itself when the thread ends).
void runThreadCleanups();

// A plain mutex, usable from static storage before any constructor has run.
class Mutex {
public:
    Mutex();
    ~Mutex();
    Mutex(const Mutex &) = delete;
    Mutex &operator=(const Mutex &) = delete;
    void lock();
    void unlock();

private:
    alignas(8) unsigned char storage_[64];
};

// Gives up the rest of the calling thread's time slice.
void yieldThread();
// A cheap identity of the calling thread, for lock ownership (not an operating-system thread id).
uint64_t threadKey();

// A lock for short critical sections on the recording path: one atomic exchange to take it and a
// plain store to release it; a waiting thread spins briefly and then yields.
class SpinLock {
public:
    void lock() {
        while (KV_UNLIKELY(taken_.exchange(1, std::memory_order_acquire)))
            wait();
    }
    void unlock() { taken_.store(0, std::memory_order_release); }

private:
    void wait();
    std::atomic<uint32_t> taken_{0};
};

// The recursive lock that serialises trace records: it knows its owner thread and how often that
// thread holds it.
class RecursiveLock {
public:
    RecursiveLock();
    ~RecursiveLock();
    RecursiveLock(const RecursiveLock &) = delete;
    RecursiveLock &operator=(const RecursiveLock &) = delete;
    void lock() {
        const uint64_t self = threadKey();
        if (owner_.load(std::memory_order_relaxed) == self) {
            ++count_; // only the owner changes the count
            return;
        }
        lock_.lock();
        owner_.store(self, std::memory_order_relaxed);
        ownerId_.store(threadId(), std::memory_order_relaxed);
        count_ = 1;
    }
    void unlock() {
        if (--count_ != 0) return;
        owner_.store(0, std::memory_order_relaxed);
        ownerId_.store(0, std::memory_order_relaxed);
        lock_.unlock();
    }
    // The operating-system id of the owning thread (0 when free).
    uint64_t owner() const { return ownerId_.load(std::memory_order_relaxed); }
    uint32_t count() const { return count_; }

private:
    SpinLock lock_;
    std::atomic<uint64_t> owner_{0}; // threadKey() of the owner, for the recursion test
    std::atomic<uint64_t> ownerId_{0};
    uint32_t count_ = 0;
};

template <class L>
class LockGuard {
public:
    explicit LockGuard(L &lock) : lock_(lock) { lock_.lock(); }
    ~LockGuard() { lock_.unlock(); }
    LockGuard(const LockGuard &) = delete;
    LockGuard &operator=(const LockGuard &) = delete;

private:
    L &lock_;
};

// ---- Diagnostics and process -----------------------------------------------------------------

// The debugger channel: OutputDebugStringA on Windows; on POSIX the file named by
// KALVOREN_DEBUG_LOG (appended to), and nothing when the variable is unset.
void debugOutput(const char *text);
// The console channel for the library's progress lines. Windows writes them to standard output;
// POSIX writes them to standard error so that a traced program's own standard output stays its own.
void consoleOut(const char *text);
void consoleErr(const char *text);
// A blocking message box on Windows; elsewhere the text goes to standard error.
void messageBox(const char *text, const char *caption);
[[noreturn]] void exitProcess(int code);
// Installs the handlers that cut the open trace file to its records when a signal (POSIX) or an
// unhandled exception or console close (Windows) ends the process. Each is chained to what was
// installed before: the application's handler, or the default action, runs as it would have.
// Signals the application ignores are left alone. Idempotent.
void installEndingHandlers();
// Puts the ending handlers back in front of handlers the application installed since, chaining to
// those; cheap enough to call once per frame.
void refreshEndingHandlers();
// Operating system identity for the trace header: major and minor version and a free text.
struct OsVersion {
    int major = 0;
    int minor = 0;
    std::string extra;
    const char *family = "";
};
OsVersion osVersion();

// ---- Memory ----------------------------------------------------------------------------------

// Prepares the guarded copy; idempotent. Where the system can copy application memory for us and
// report a bad address as an error (Linux), no signal handler is involved, so whatever the
// application later does with its own handlers cannot take the guard away or see our faults.
// Elsewhere a fault handler that runs before any of the application's is installed.
void installFaultGuard();
// Copies n bytes from application memory that may be unmapped or protected. Returns the number of
// bytes copied: n on success, less when an unreadable page stopped the copy.
size_t guardedCopy(void *dst, const void *src, size_t n);
// Gathers `count` pieces of `size` bytes each, `stride` bytes apart in application memory, into
// consecutive bytes at `dst`. Returns how many whole pieces were copied (fewer when one could not
// be read).
uint64_t guardedGather(void *dst, const void *src, uint64_t count, size_t size, size_t stride);
// Whether every byte of [p, p + n) can be read now (one byte per page is tried).
bool guardedReadable(const void *p, uint64_t n);
// Forgets which application memory was found readable (the guarded reads may remember it, where
// checking costs a system call, until this is called: once per frame).
void forgetReadable();
// Length of a 0-terminated string in application memory, reading at most `limit` bytes; returns
// false (and the length read so far) when the memory faults before a terminator is found.
bool guardedStrlen(const char *s, size_t limit, size_t *length);

// ---- Files -----------------------------------------------------------------------------------

// The trace file written through a bounded window of a file mapping. The file on disk is grown in
// large steps ahead of the writes; what lies beyond the last complete record (`commit`) is cut
// away whenever the process ends in a way that runs any code of ours (close, exit, a caught
// signal or, on Windows, an unhandled exception or a console close), so that the file then holds
// exactly its records. Only one such file is open per process.
class MappedFile {
public:
    enum class Open { Ok, InUse, Failed };
    enum class Failure { None, DiskFull, SizeLimit, CutShort, Other };

    MappedFile() = default;
    ~MappedFile();
    MappedFile(const MappedFile &) = delete;
    MappedFile &operator=(const MappedFile &) = delete;

    // Creates the file, takes it for this process (another recorder holding it gives InUse and
    // leaves it untouched), empties it and maps the first window. Failed: it cannot be created or
    // mapped (a pipe, a device), and the caller writes it another way.
    Open create(const char *path);
    // Where the bytes at `offset` can be written: maps the window that holds them when needed.
    // `*available` receives how many bytes may be written from there (at least one, unless null
    // is returned). Null when the file cannot grow that far or the mapping failed; failure() says
    // why, and every later call fails at once.
    uint8_t *span(uint64_t offset, size_t *available);
    // The same without a call when [offset, offset + n) lies in the part of the window that is
    // ready for writing; null when span() must do the work.
    uint8_t *fastSpan(uint64_t offset, size_t n) const {
        return offset >= windowStart_ && offset + n <= fastEnd_ ? window_ + (offset - windowStart_) : nullptr;
    }
    // Writes a large block of application memory at `offset` with the system's file write rather
    // than through the window, growing the file first. The first write of a fresh page of the
    // mapping costs a fault several times dearer than the copy itself; the file write fills the
    // same pages without one. The system reads `src` itself and answers an unreadable address with
    // an error, never a fault. `*taken` receives how many bytes came from `src`: all n, fewer when
    // an unreadable page stopped the write (or where the system keeps the window and the file
    // write apart, none): the caller writes the rest through span(). False when the file cannot
    // grow or the write failed; failure() says why.
    bool writeDirect(uint64_t offset, const void *src, size_t n, size_t *taken);
    // True when another program cut the file short. A store into the window past the file's end
    // faults and says so, but a file write would quietly grow the file again: writers that are
    // about to use writeDirect ask first. failure() is then CutShort and every later write fails.
    bool cutShort();
    // Everything before `end` is complete: an ending cuts the file there.
    void commit(uint64_t end);
    uint64_t committed() const { return committed_; }
    // How often the ending handlers have cut the file to its committed records. When the process
    // lives on after one (its own signal handler returned), the bytes of a record that was being
    // written are gone, and that record must be written again.
    uint64_t cuts() const { return cutCount_ ? cutCount_->load(std::memory_order_acquire) : 0; }
    Failure failure() const;
    // Cuts the file to `finalSize`, unmaps and closes.
    void close(uint64_t finalSize);
    bool isOpen() const { return fd_ != -1; }

    static constexpr uint64_t kWindow = 32ull << 20;

private:
    bool grow(uint64_t need);
    bool mapWindow(uint64_t offset);

    uint8_t *window_ = nullptr;
    uint64_t windowStart_ = 0;
    uint64_t windowSize_ = 0;
    uint64_t prefaulted_ = 0; // end of the pages of the window mapped in ahead of the writes
    uint64_t fastEnd_ = 0;    // fastSpan() serves offsets below this
    uint64_t capacity_ = 0;   // bytes the file holds on disk
    uint64_t committed_ = 0;
    Failure failure_ = Failure::None;
    intptr_t fd_ = -1;
    intptr_t mapping_ = 0;
    const std::atomic<uint64_t> *cutCount_ = nullptr; // where the ending handlers count their cuts
};

// The largest file this process may write (the file-size resource limit); UINT64_MAX when there
// is none. Writing beyond it would end the process with a signal.
uint64_t fileSizeLimit();

// Opens a file for buffered writing (truncating it) after taking it for this process, as
// MappedFile::create does; `inUse` is set when another recorder holds it.
std::FILE *openExclusive(const char *path, bool *inUse);

// 64-bit tell and seek on a standard file.
int64_t fileTell(std::FILE *file);
bool fileSeek(std::FILE *file, int64_t offset, int origin);
// Cuts an open standard file (flushed first) to `size` bytes.
bool fileTruncate(std::FILE *file, int64_t size);

// ---- Forwarding stubs ------------------------------------------------------------------------

// What a forwarding stub saw of one call, as the calling convention passes it: the integer argument
// registers, the floating-point argument registers (the low 64 bits of each), the first words of
// the stack arguments and, after the call, the result registers.
struct ForwardedCall {
    const uint64_t *integerArguments;
    uint32_t integerCount; // 6 (System V x86-64) or 4 (Windows x64)
    const uint64_t *floatArguments;
    uint32_t floatCount; // 8 or 4
    const uint64_t *stackArguments;
    uint32_t stackCount;
    uint64_t integerResult;
    uint64_t floatResult;
    // kForwardingScratchBytes of memory the handlers of this one call share (16-byte aligned).
    void *scratch;
};
constexpr uint32_t kForwardingScratchBytes = 256;

// Stack argument words a stub passes on (and shows its handlers); a callee that takes more loses
// the rest.
constexpr uint32_t kForwardedStackWords = 16;
// Stubs there are; 0 on a system without them.
uint32_t forwardingStubCount();

struct ForwardingHandlers {
    // Before the call: the address to forward it to; null skips the call, which then answers 0.
    void *(*before)(uint32_t stub, const ForwardedCall &call);
    // After the forwarded call.
    void (*after)(uint32_t stub, const ForwardedCall &call);
};
void setForwardingHandlers(const ForwardingHandlers &handlers);
// The address of stub `index` (below forwardingStubCount()): a function of any signature that passes
// its call, arguments and result untouched, to the address the `before` handler names.
void *forwardingStub(uint32_t index);

// Runs a function when a process forks (in the child), so that cached process identities can be
// refreshed without a system call per API call. A no-op where fork does not exist.
void onForkChild(void (*handler)());

// The library entry routine. platform/ maps the loader's notifications (DllMain on Windows; load and
// unload hooks and thread-exit destructors elsewhere) onto these, which the library defines.
struct EntryRoutine {
    static bool processAttach();
    static bool threadAttach();
    static void threadDetach();
    static void processDetach();
};

} // namespace kv::platform
