// Windows side of the platform layer.
#include "platform/platform.h"

#if defined(_WIN32)

#include <windows.h>
#include <io.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <new>

namespace kv::platform {

// ---- Modules ---------------------------------------------------------------------------------

ModuleHandle loadLibrary(const char *path) {
    // A driver named by its path (a configured Host path, or one the search found) usually needs
    // DLLs of its own installed beside it; the plain search would look for them next to the
    // program instead, and the driver would fail to load.
    if (path && std::strpbrk(path, "\\/"))
        if (HMODULE h = LoadLibraryExA(path, nullptr, LOAD_WITH_ALTERED_SEARCH_PATH))
            return reinterpret_cast<ModuleHandle>(h);
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

bool pathExists(const std::string &path) {
    return GetFileAttributesA(path.c_str()) != INVALID_FILE_ATTRIBUTES;
}

bool isDirectory(const std::string &path) {
    DWORD attributes = GetFileAttributesA(path.c_str());
    return attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_DIRECTORY);
}

std::string currentDirectory() {
    char buffer[MAX_PATH];
    DWORD n = GetCurrentDirectoryA(sizeof(buffer), buffer);
    return n > 0 && n < sizeof(buffer) ? std::string(buffer, n) : std::string();
}

const char *const *driverLibraryNames(int api) {
    // OpenGL ES 1 drivers ship as libGLES_CM.dll, or as libGLESv1_CM.dll as Mesa's Windows build
    // names its own.
    static const char *const egl[] = {"libEGL.dll", nullptr};
    static const char *const es1[] = {"libGLES_CM.dll", "libGLESv1_CM.dll", nullptr};
    static const char *const es2[] = {"libGLESv2.dll", nullptr};
    static const char *const cl[] = {"OpenCL.dll", nullptr};
    static const char *const none[] = {nullptr};
    static const char *const *const names[] = {egl, es1, es2, cl};
    return api >= 0 && api < 4 ? names[api] : none;
}

const char *driverLibraryName(int api) {
    const char *name = driverLibraryNames(api)[0];
    return name ? name : "";
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

uint64_t coarseTickMs() {
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

int64_t fileTell(std::FILE *file) {
    return _ftelli64(file);
}

bool fileSeek(std::FILE *file, int64_t offset, int origin) {
    return _fseeki64(file, offset, origin) == 0;
}

bool fileTruncate(std::FILE *file, int64_t size) {
    return std::fflush(file) == 0 && _chsize_s(_fileno(file), size) == 0;
}

void onForkChild(void (*)()) {}

} // namespace kv::platform

#endif
