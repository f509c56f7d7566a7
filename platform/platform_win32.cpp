// Windows side of the platform layer.
#include "platform/platform.h"

#if defined(_WIN32)

#include <windows.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <new>

namespace kv::platform {

// ---- Modules ---------------------------------------------------------------------------------

ModuleHandle loadLibrary(const char *path) {
    return reinterpret_cast<ModuleHandle>(LoadLibraryA(path));
}

ModuleHandle loadLibraryNoResolve(const char *path) {
    return reinterpret_cast<ModuleHandle>(LoadLibraryExA(path, nullptr, DONT_RESOLVE_DLL_REFERENCES));
}

void freeLibrary(ModuleHandle module) {
    if (module) FreeLibrary(static_cast<HMODULE>(module));
}

void *getSymbol(ModuleHandle module, const char *name) {
    if (!module) return nullptr;
    return reinterpret_cast<void *>(GetProcAddress(static_cast<HMODULE>(module), name));
}

std::string moduleFileName(ModuleHandle module) {
    char buffer[MAX_PATH];
    DWORD n = GetModuleFileNameA(static_cast<HMODULE>(module), buffer, sizeof(buffer));
    if (n == 0 || n >= sizeof(buffer)) return {};
    return std::string(buffer, n);
}

ModuleHandle moduleContaining(const void *address) {
    HMODULE module = nullptr;
    if (!GetModuleHandleExA(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS |
                                GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT,
                            static_cast<LPCSTR>(address), &module))
        return nullptr;
    return reinterpret_cast<ModuleHandle>(module);
}

ModuleHandle ownModule() {
    return moduleContaining(reinterpret_cast<const void *>(&ownModule));
}

std::string executablePath() {
    return moduleFileName(nullptr);
}

std::vector<std::string> librarySearchDirectories() {
    std::vector<std::string> dirs;
    std::string exe = executablePath();
    size_t slash = exe.find_last_of("/\\");
    if (slash != std::string::npos) dirs.push_back(exe.substr(0, slash));
    char buffer[MAX_PATH];
    UINT n = GetSystemDirectoryA(buffer, sizeof(buffer));
    if (n > 0 && n < sizeof(buffer)) dirs.emplace_back(buffer, n);
    n = GetWindowsDirectoryA(buffer, sizeof(buffer));
    if (n > 0 && n < sizeof(buffer)) dirs.emplace_back(buffer, n);
    dirs.push_back(currentDirectory());
    std::string path = getEnv("PATH");
    size_t start = 0;
    while (start <= path.size()) {
        size_t end = path.find(';', start);
        if (end == std::string::npos) end = path.size();
        if (end > start) dirs.push_back(path.substr(start, end - start));
        start = end + 1;
    }
    return dirs;
}

static bool fileIdentity(const std::string &path, BY_HANDLE_FILE_INFORMATION &info) {
    HANDLE h = CreateFileA(path.c_str(), 0, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                           OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS, nullptr);
    if (h == INVALID_HANDLE_VALUE) return false;
    BOOL ok = GetFileInformationByHandle(h, &info);
    CloseHandle(h);
    return ok != FALSE;
}

bool sameFile(const std::string &a, const std::string &b) {
    BY_HANDLE_FILE_INFORMATION ia, ib;
    if (!fileIdentity(a, ia) || !fileIdentity(b, ib)) return false;
    return ia.dwVolumeSerialNumber == ib.dwVolumeSerialNumber && ia.nFileIndexHigh == ib.nFileIndexHigh &&
           ia.nFileIndexLow == ib.nFileIndexLow;
}

bool fileExists(const std::string &path) {
    DWORD attributes = GetFileAttributesA(path.c_str());
    return attributes != INVALID_FILE_ATTRIBUTES && !(attributes & FILE_ATTRIBUTE_DIRECTORY);
}

std::string currentDirectory() {
    char buffer[MAX_PATH];
    DWORD n = GetCurrentDirectoryA(sizeof(buffer), buffer);
    return n > 0 && n < sizeof(buffer) ? std::string(buffer, n) : std::string();
}

const char *driverLibraryName(int api) {
    static const char *const names[] = {"libEGL.dll", "libGLES_CM.dll", "libGLESv2.dll", "OpenCL.dll"};
    return api >= 0 && api < 4 ? names[api] : "";
}

static bool excludedPath(const std::string &path, const std::vector<std::string> &excluded) {
    // A front library that is already loaded carries a marker symbol.
    if (HMODULE loaded = GetModuleHandleA(path.c_str()))
        if (GetProcAddress(loaded, "kalvoren_front_marker")) return true;
    for (const auto &ex : excluded)
        if (!ex.empty() && sameFile(path, ex)) return true;
    return false;
}

std::string locateLibrary(const char *name, const std::vector<std::string> &excluded,
                          const std::vector<std::string> &excludedDirectories) {
    auto inExcludedDirectory = [&](const std::string &path) {
        for (const auto &dir : excludedDirectories)
            if (!dir.empty() && sameFile(directoryName(path), dir)) return true;
        return false;
    };
    HMODULE h = LoadLibraryExA(name, nullptr, DONT_RESOLVE_DLL_REFERENCES);
    if (h) {
        std::string path = moduleFileName(reinterpret_cast<ModuleHandle>(h));
        FreeLibrary(h);
        if (!path.empty() && !excludedPath(path, excluded) && !inExcludedDirectory(path)) return path;
    }
    // The loader found one of our own front libraries first; the drivers of the system live in
    // the system directory.
    char buffer[MAX_PATH];
    UINT n = GetSystemDirectoryA(buffer, sizeof(buffer));
    if (n > 0 && n < sizeof(buffer)) {
        std::string candidate = std::string(buffer, n) + "\\" + name;
        if (fileExists(candidate) && !excludedPath(candidate, excluded)) return candidate;
    }
    return {};
}

std::string getEnv(const char *name) {
    char buffer[4096];
    DWORD n = GetEnvironmentVariableA(name, buffer, sizeof(buffer));
    if (n == 0 || n >= sizeof(buffer)) return {};
    return std::string(buffer, n);
}

// ---- Threads, locks and thread-local slots ---------------------------------------------------

uint64_t processId() {
    return GetCurrentProcessId();
}
uint64_t threadId() {
    return GetCurrentThreadId();
}
void sleepMs(uint32_t milliseconds) {
    Sleep(milliseconds);
}
void yieldThread() {
    SwitchToThread();
}
uint64_t threadKey() {
    return GetCurrentThreadId();
}
uint64_t tickCountMs() {
    return GetTickCount64();
}

uint64_t perfCounter() {
    LARGE_INTEGER v;
    QueryPerformanceCounter(&v);
    return static_cast<uint64_t>(v.QuadPart);
}

uint64_t perfFrequency() {
    LARGE_INTEGER v;
    QueryPerformanceFrequency(&v);
    return static_cast<uint64_t>(v.QuadPart);
}

// Windows has no destructor for TLS slots: the library's DllMain runs the clean-ups of the slots
// that asked for one when a thread detaches.
namespace {
struct SlotCleanup {
    DWORD index;
    TlsSlot::Cleanup cleanup;
};
SlotCleanup g_cleanups[32];
std::atomic<int> g_cleanupCount{0};
} // namespace

void runThreadCleanups() {
    int n = g_cleanupCount.load(std::memory_order_acquire);
    for (int i = 0; i < n; ++i) {
        const SlotCleanup &c = g_cleanups[i];
        if (!c.cleanup) continue;
        void *value = TlsGetValue(c.index);
        if (value) {
            TlsSetValue(c.index, nullptr);
            c.cleanup(value);
        }
    }
}

TlsSlot::TlsSlot(Cleanup cleanup) {
    DWORD index = TlsAlloc();
    valid_ = index != TLS_OUT_OF_INDEXES;
    key_ = valid_ ? index : 0;
    if (valid_ && cleanup) {
        int slot = g_cleanupCount.load(std::memory_order_relaxed);
        if (slot < 32) {
            g_cleanups[slot] = {index, cleanup};
            g_cleanupCount.store(slot + 1, std::memory_order_release);
        }
    }
}

TlsSlot::~TlsSlot() {
    if (!valid_) return;
    int n = g_cleanupCount.load(std::memory_order_acquire);
    for (int i = 0; i < n; ++i)
        if (g_cleanups[i].index == key_) g_cleanups[i].cleanup = nullptr;
    TlsFree(static_cast<DWORD>(key_));
}

void *TlsSlot::get() const {
    return valid_ ? TlsGetValue(static_cast<DWORD>(key_)) : nullptr;
}

void TlsSlot::set(void *value) {
    if (valid_) TlsSetValue(static_cast<DWORD>(key_), value);
}

static_assert(sizeof(CRITICAL_SECTION) <= 64, "mutex storage too small");

Mutex::Mutex() {
    InitializeCriticalSection(reinterpret_cast<CRITICAL_SECTION *>(storage_));
}
Mutex::~Mutex() {
    DeleteCriticalSection(reinterpret_cast<CRITICAL_SECTION *>(storage_));
}
void Mutex::lock() {
    EnterCriticalSection(reinterpret_cast<CRITICAL_SECTION *>(storage_));
}
void Mutex::unlock() {
    LeaveCriticalSection(reinterpret_cast<CRITICAL_SECTION *>(storage_));
}

// ---- Diagnostics and process -----------------------------------------------------------------

void debugOutput(const char *text) {
    OutputDebugStringA(text);
}

void consoleOut(const char *text) {
    std::fputs(text, stdout);
    std::fflush(stdout);
}

void consoleErr(const char *text) {
    std::fputs(text, stderr);
    std::fflush(stderr);
}

void messageBox(const char *text, const char *caption) {
    // Unattended runs (tests, build machines) ask for the text on standard error instead of a
    // dialog that nobody will close.
    if (!getEnv("KALVOREN_NO_MESSAGE_BOX").empty()) {
        std::fprintf(stderr, "%s: %s\n", caption, text);
        std::fflush(stderr);
        return;
    }
    MessageBoxA(nullptr, text, caption, MB_OK | MB_ICONERROR);
}

void exitProcess(int code) {
    std::fflush(nullptr);
    ExitProcess(static_cast<UINT>(code));
}

OsVersion osVersion() {
    OsVersion v;
    v.family = "Microsoft Windows";
    OSVERSIONINFOA info;
    std::memset(&info, 0, sizeof(info));
    info.dwOSVersionInfoSize = sizeof(info);
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
    if (GetVersionExA(&info)) {
        v.major = static_cast<int>(info.dwMajorVersion);
        v.minor = static_cast<int>(info.dwMinorVersion);
        v.extra = info.szCSDVersion;
    }
#pragma GCC diagnostic pop
    return v;
}

// ---- Memory ----------------------------------------------------------------------------------

// See the POSIX side: a leaf routine around `rep movsb` whose fault is turned into an early
// return by a vectored exception handler. rdi and rsi are callee-saved on Windows; they are kept
// in volatile registers so that the routine never touches the stack and needs no unwind data.
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
    // A vectored handler added first sees every fault before any frame-based handler of the
    // application, so it never needs to be installed again.
    if (g_guardInstalled.exchange(true)) return;
    AddVectoredExceptionHandler(1, faultHandler);
}

size_t guardedCopy(void *dst, const void *src, size_t n) {
    if (n == 0 || !src) return 0;
    if (KV_UNLIKELY(!g_guardInstalled.load(std::memory_order_acquire))) installFaultGuard();
    return kv_guarded_copy_impl(dst, src, n);
}

// ---- Files -----------------------------------------------------------------------------------

MappedFile::~MappedFile() {
    if (data_) close(capacity_);
}

bool MappedFile::create(const char *path, uint64_t initialCapacity) {
    HANDLE file = CreateFileA(path, GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ, nullptr, CREATE_ALWAYS,
                              FILE_ATTRIBUTE_NORMAL, nullptr);
    if (file == INVALID_HANDLE_VALUE) return false;
    if (GetFileType(file) != FILE_TYPE_DISK) {
        CloseHandle(file);
        return false;
    }
    fd_ = reinterpret_cast<intptr_t>(file);
    if (!reserve(initialCapacity)) {
        CloseHandle(file);
        fd_ = -1;
        return false;
    }
    return true;
}

static bool mapWhole(intptr_t fd, uint64_t capacity, uint8_t *&data, intptr_t &mappingOut) {
    HANDLE file = reinterpret_cast<HANDLE>(fd);
    HANDLE mapping = CreateFileMappingA(file, nullptr, PAGE_READWRITE, static_cast<DWORD>(capacity >> 32),
                                        static_cast<DWORD>(capacity & 0xFFFFFFFFu), nullptr);
    if (!mapping) return false;
    void *view = MapViewOfFile(mapping, FILE_MAP_ALL_ACCESS, 0, 0, 0);
    if (!view) {
        CloseHandle(mapping);
        return false;
    }
    data = static_cast<uint8_t *>(view);
    mappingOut = reinterpret_cast<intptr_t>(mapping);
    return true;
}

bool MappedFile::reserve(uint64_t capacity) {
    if (capacity <= capacity_ && data_) return true;
    // A mapped file cannot change its length: drop the view, grow the file, map it again.
    uint64_t old = capacity_;
    if (data_) UnmapViewOfFile(data_);
    if (mapping_) CloseHandle(reinterpret_cast<HANDLE>(mapping_));
    data_ = nullptr;
    mapping_ = 0;
    HANDLE file = reinterpret_cast<HANDLE>(fd_);
    LARGE_INTEGER size;
    size.QuadPart = static_cast<LONGLONG>(capacity);
    if (SetFilePointerEx(file, size, nullptr, FILE_BEGIN) && SetEndOfFile(file) &&
        mapWhole(fd_, capacity, data_, mapping_)) {
        capacity_ = capacity;
        return true;
    }
    capacity_ = 0;
    if (old > 0) {
        size.QuadPart = static_cast<LONGLONG>(old);
        if (SetFilePointerEx(file, size, nullptr, FILE_BEGIN)) SetEndOfFile(file);
        if (mapWhole(fd_, old, data_, mapping_)) capacity_ = old;
    }
    return false;
}

void MappedFile::prefault(uint64_t, uint64_t) {
    // Windows maps the pages of a view as they are touched; there is nothing cheaper to ask for.
}

void MappedFile::close(uint64_t finalSize) {
    if (data_) UnmapViewOfFile(data_);
    data_ = nullptr;
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

int64_t fileTell(std::FILE *file) {
    return _ftelli64(file);
}

bool fileSeek(std::FILE *file, int64_t offset, int origin) {
    return _fseeki64(file, offset, origin) == 0;
}

void onForkChild(void (*)()) {}

} // namespace kv::platform

#endif
