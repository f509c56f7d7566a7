// POSIX (Linux) side of the platform layer.
#include "platform/platform.h"

#if !defined(_WIN32)

#include <dirent.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <link.h>
#include <pthread.h>
#include <sched.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/utsname.h>
#include <time.h>
#include <ucontext.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <new>

namespace kv::platform {

// ---- Modules ---------------------------------------------------------------------------------

ModuleHandle loadLibrary(const char *path) {
    return dlopen(path, RTLD_NOW | RTLD_LOCAL);
}

ModuleHandle loadLibraryNoResolve(const char *path) {
    return dlopen(path, RTLD_LAZY | RTLD_LOCAL);
}

void freeLibrary(ModuleHandle module) {
    if (module) dlclose(module);
}

void *getSymbol(ModuleHandle module, const char *name) {
    return module ? dlsym(module, name) : nullptr;
}

std::string moduleFileName(ModuleHandle module) {
    if (!module) return {};
    struct link_map *map = nullptr;
    if (dlinfo(module, RTLD_DI_LINKMAP, &map) != 0 || !map || !map->l_name) return {};
    if (map->l_name[0] == '\0') return executablePath();
    char resolved[PATH_MAX];
    if (realpath(map->l_name, resolved)) return resolved;
    return map->l_name;
}

ModuleHandle moduleContaining(const void *address) {
    Dl_info info;
    if (!dladdr(address, &info) || !info.dli_fname) return nullptr;
    // RTLD_NOLOAD gives the handle of the object already loaded; drop the reference it took so
    // that asking does not keep anything alive.
    ModuleHandle handle = dlopen(info.dli_fname, RTLD_LAZY | RTLD_NOLOAD);
    if (handle) dlclose(handle);
    return handle;
}

ModuleHandle ownModule() {
    return moduleContaining(reinterpret_cast<const void *>(&ownModule));
}

std::string executablePath() {
    char buffer[PATH_MAX];
    ssize_t n = readlink("/proc/self/exe", buffer, sizeof(buffer) - 1);
    if (n <= 0) return {};
    buffer[n] = '\0';
    return buffer;
}

static void appendUnique(std::vector<std::string> &dirs, std::string dir) {
    while (dir.size() > 1 && dir.back() == '/')
        dir.pop_back();
    if (dir.empty()) return;
    for (const auto &d : dirs)
        if (d == dir) return;
    dirs.push_back(std::move(dir));
}

static void readLdConf(const std::string &file, std::vector<std::string> &dirs, int depth) {
    if (depth > 4) return;
    std::ifstream in(file);
    std::string line;
    while (std::getline(in, line)) {
        size_t hash = line.find('#');
        if (hash != std::string::npos) line.resize(hash);
        size_t b = line.find_first_not_of(" \t"), e = line.find_last_not_of(" \t\r");
        if (b == std::string::npos) continue;
        line = line.substr(b, e - b + 1);
        if (line.compare(0, 8, "include ") == 0) {
            std::string pattern = line.substr(8);
            size_t star = pattern.find('*');
            std::string dir = pattern.substr(0, pattern.find_last_of('/', star));
            // The usual form is a directory of *.conf files; read them in name order.
            std::vector<std::string> names;
            if (DIR *d = opendir(dir.c_str())) {
                while (dirent *ent = readdir(d)) {
                    std::string n = ent->d_name;
                    if (n.size() > 5 && n.compare(n.size() - 5, 5, ".conf") == 0) names.push_back(n);
                }
                closedir(d);
            }
            std::sort(names.begin(), names.end());
            for (const auto &n : names)
                readLdConf(dir + "/" + n, dirs, depth + 1);
        } else if (line[0] == '/') {
            appendUnique(dirs, line);
        }
    }
}

std::vector<std::string> librarySearchDirectories() {
    std::vector<std::string> dirs;
    // The loader's own list for this process: LD_LIBRARY_PATH, run paths and the system defaults.
    if (void *self = dlopen(nullptr, RTLD_LAZY)) {
        Dl_serinfo size;
        if (dlinfo(self, RTLD_DI_SERINFOSIZE, &size) == 0 && size.dls_size > 0) {
            auto *info = static_cast<Dl_serinfo *>(std::malloc(size.dls_size));
            if (info) {
                dlinfo(self, RTLD_DI_SERINFOSIZE, info);
                if (dlinfo(self, RTLD_DI_SERINFO, info) == 0)
                    for (unsigned i = 0; i < info->dls_cnt; ++i)
                        appendUnique(dirs, info->dls_serpath[i].dls_name);
                std::free(info);
            }
        }
        dlclose(self);
    }
    // Directories that only the loader cache knows about.
    readLdConf("/etc/ld.so.conf", dirs, 0);
    for (const char *d : {"/usr/lib/x86_64-linux-gnu", "/lib/x86_64-linux-gnu", "/usr/lib64", "/lib64",
                          "/usr/local/lib", "/usr/lib", "/lib"})
        appendUnique(dirs, d);
    return dirs;
}

bool sameFile(const std::string &a, const std::string &b) {
    struct stat sa, sb;
    if (stat(a.c_str(), &sa) != 0 || stat(b.c_str(), &sb) != 0) return false;
    return sa.st_dev == sb.st_dev && sa.st_ino == sb.st_ino;
}

static bool sameDirectory(const std::string &a, const std::string &b) {
    struct stat sa, sb;
    if (stat(a.c_str(), &sa) != 0 || stat(b.c_str(), &sb) != 0) return false;
    return S_ISDIR(sa.st_mode) && sa.st_dev == sb.st_dev && sa.st_ino == sb.st_ino;
}

bool fileExists(const std::string &path) {
    struct stat st;
    return stat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode);
}

bool pathExists(const std::string &path) {
    struct stat st;
    return stat(path.c_str(), &st) == 0;
}

bool isDirectory(const std::string &path) {
    struct stat st;
    return stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

std::string currentDirectory() {
    char buffer[PATH_MAX];
    return getcwd(buffer, sizeof(buffer)) ? std::string(buffer) : std::string();
}

const char *const *driverLibraryNames(int api) {
    static const char *const egl[] = {"libEGL.so.1", nullptr};
    static const char *const es1[] = {"libGLESv1_CM.so.1", nullptr};
    static const char *const es2[] = {"libGLESv2.so.2", nullptr};
    static const char *const cl[] = {"libOpenCL.so.1", nullptr};
    static const char *const none[] = {nullptr};
    static const char *const *const names[] = {egl, es1, es2, cl};
    return api >= 0 && api < 4 ? names[api] : none;
}

const char *driverLibraryName(int api) {
    const char *name = driverLibraryNames(api)[0];
    return name ? name : "";
}

std::string locateLibrary(const char *name, const std::vector<std::string> &excluded,
                          const std::vector<std::string> &excludedDirectories) {
    for (const auto &dir : librarySearchDirectories()) {
        bool ownDirectory = false;
        for (const auto &ex : excludedDirectories)
            if (!ex.empty() && sameDirectory(dir, ex)) ownDirectory = true;
        if (ownDirectory) continue;
        std::string candidate = dir + "/" + name;
        if (!fileExists(candidate)) continue;
        // A front library that is already mapped (its entry routine may not have run yet, so it
        // may not be registered) carries a marker symbol.
        bool skip = false;
        if (void *loaded = dlopen(candidate.c_str(), RTLD_LAZY | RTLD_NOLOAD)) {
            skip = dlsym(loaded, "kalvoren_front_marker") != nullptr;
            dlclose(loaded);
        }
        for (const auto &ex : excluded)
            if (!ex.empty() && sameFile(candidate, ex)) skip = true;
        if (skip) continue;
        char resolved[PATH_MAX];
        return realpath(candidate.c_str(), resolved) ? std::string(resolved) : candidate;
    }
    return {};
}

std::string getEnv(const char *name) {
    const char *v = std::getenv(name);
    return v ? std::string(v) : std::string();
}

// ---- Threads, locks and thread-local slots ---------------------------------------------------

static std::atomic<uint64_t> g_pid{0};

static KV_FAST_THREAD_LOCAL uint64_t t_threadId = 0;

// Also the forked child's only thread: its id is not its parent thread's.
static void refreshPid() {
    g_pid.store(static_cast<uint64_t>(getpid()), std::memory_order_relaxed);
    t_threadId = 0;
}

uint64_t processId() {
    uint64_t pid = g_pid.load(std::memory_order_relaxed);
    if (KV_UNLIKELY(pid == 0)) {
        refreshPid();
        static bool hooked = [] {
            pthread_atfork(nullptr, nullptr, refreshPid);
            return true;
        }();
        (void)hooked;
        pid = g_pid.load(std::memory_order_relaxed);
    }
    return pid;
}

uint64_t threadId() {
    uint64_t &tid = t_threadId;
    if (KV_UNLIKELY(tid == 0)) tid = static_cast<uint64_t>(syscall(SYS_gettid));
    return tid;
}

void yieldThread() {
    sched_yield();
}

uint64_t threadKey() {
    return static_cast<uint64_t>(pthread_self());
}

void sleepMs(uint32_t milliseconds) {
    struct timespec ts = {static_cast<time_t>(milliseconds / 1000),
                          static_cast<long>(milliseconds % 1000) * 1000000L};
    while (nanosleep(&ts, &ts) != 0 && errno == EINTR) {
    }
}

uint64_t tickCountMs() {
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<uint64_t>(ts.tv_sec) * 1000u + static_cast<uint64_t>(ts.tv_nsec) / 1000000u;
}

uint64_t coarseTickMs() {
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC_COARSE, &ts);
    return static_cast<uint64_t>(ts.tv_sec) * 1000u + static_cast<uint64_t>(ts.tv_nsec) / 1000000u;
}

uint64_t perfCounter() {
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<uint64_t>(ts.tv_sec) * 1000000000ull + static_cast<uint64_t>(ts.tv_nsec);
}

uint64_t perfFrequency() {
    return 1000000000ull;
}

TlsSlot::TlsSlot(Cleanup cleanup) {
    pthread_key_t key;
    valid_ = pthread_key_create(&key, cleanup) == 0;
    key_ = valid_ ? static_cast<uintptr_t>(key) : 0;
}

TlsSlot::~TlsSlot() {
    if (valid_) pthread_key_delete(static_cast<pthread_key_t>(key_));
}

void *TlsSlot::get() const {
    return valid_ ? pthread_getspecific(static_cast<pthread_key_t>(key_)) : nullptr;
}

void TlsSlot::set(void *value) {
    if (valid_) pthread_setspecific(static_cast<pthread_key_t>(key_), value);
}

void runThreadCleanups() {}

static_assert(sizeof(pthread_mutex_t) <= 64, "mutex storage too small");

Mutex::Mutex() {
    new (storage_) pthread_mutex_t(PTHREAD_MUTEX_INITIALIZER);
}
Mutex::~Mutex() {
    pthread_mutex_destroy(reinterpret_cast<pthread_mutex_t *>(storage_));
}
void Mutex::lock() {
    pthread_mutex_lock(reinterpret_cast<pthread_mutex_t *>(storage_));
}
void Mutex::unlock() {
    pthread_mutex_unlock(reinterpret_cast<pthread_mutex_t *>(storage_));
}

// ---- Diagnostics and process -----------------------------------------------------------------

// Our messages carry Windows line ends; a POSIX terminal wants bare new lines.
static void writeNormalised(int fd, const char *text) {
    if (!text) return;
    const char *p = text;
    while (*p) {
        const char *cr = std::strstr(p, "\r\n");
        size_t n = cr ? static_cast<size_t>(cr - p) : std::strlen(p);
        while (n > 0) {
            ssize_t w = write(fd, p, n);
            if (w <= 0) {
                if (errno == EINTR) continue;
                return;
            }
            p += w;
            n -= static_cast<size_t>(w);
        }
        if (!cr) break;
        p = cr + 1; // keep the '\n'
    }
}

void debugOutput(const char *text) {
    static int fd = [] {
        const char *path = std::getenv("KALVOREN_DEBUG_LOG");
        if (!path || !*path) return -1;
        return open(path, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    }();
    if (fd >= 0) writeNormalised(fd, text);
}

void consoleOut(const char *text) {
    writeNormalised(2, text);
}
void consoleErr(const char *text) {
    writeNormalised(2, text);
}

void messageBox(const char *text, const char *caption) {
    std::string line = std::string(caption) + ": " + text + "\n";
    writeNormalised(2, line.c_str());
}

void exitProcess(int code) {
    std::fflush(nullptr);
    _exit(code);
}

OsVersion osVersion() {
    OsVersion v;
    v.family = "Linux";
    struct utsname u;
    if (uname(&u) == 0) {
        std::sscanf(u.release, "%d.%d", &v.major, &v.minor);
        v.extra = u.release;
    }
    return v;
}

int64_t fileTell(std::FILE *file) {
    return static_cast<int64_t>(ftello(file));
}

bool fileSeek(std::FILE *file, int64_t offset, int origin) {
    return fseeko(file, static_cast<off_t>(offset), origin) == 0;
}

bool fileTruncate(std::FILE *file, int64_t size) {
    return std::fflush(file) == 0 && ftruncate(fileno(file), static_cast<off_t>(size)) == 0;
}

void onForkChild(void (*handler)()) {
    pthread_atfork(nullptr, nullptr, handler);
}

} // namespace kv::platform

#endif
