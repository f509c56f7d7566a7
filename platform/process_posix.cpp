// POSIX side of the process services.
#include "platform/process.h"

#include "platform/platform.h"

#if !defined(_WIN32)

#include <dlfcn.h>
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>

extern char **environ;

namespace kv::platform {

int runProgram(const std::vector<std::string> &argv, std::string *error) {
    if (argv.empty()) {
        if (error) *error = "no program given";
        return -1;
    }
    std::vector<char *> args;
    for (const std::string &a : argv)
        args.push_back(const_cast<char *>(a.c_str()));
    args.push_back(nullptr);

    // While the program runs, Ctrl-C and Ctrl-\ are its own to handle; we wait for it to end and
    // report on the trace. The program starts with the default handling of both.
    struct sigaction ignore {};
    struct sigaction oldInt {
    }, oldQuit{};
    ignore.sa_handler = SIG_IGN;
    sigemptyset(&ignore.sa_mask);
    sigaction(SIGINT, &ignore, &oldInt);
    sigaction(SIGQUIT, &ignore, &oldQuit);

    posix_spawnattr_t attr;
    posix_spawnattr_init(&attr);
    sigset_t defaults;
    sigemptyset(&defaults);
    sigaddset(&defaults, SIGINT);
    sigaddset(&defaults, SIGQUIT);
    posix_spawnattr_setsigdefault(&attr, &defaults);
    posix_spawnattr_setflags(&attr, POSIX_SPAWN_SETSIGDEF);

    pid_t pid = 0;
    int rc = posix_spawnp(&pid, args[0], nullptr, &attr, args.data(), environ);
    posix_spawnattr_destroy(&attr);
    int result = -1;
    if (rc != 0) {
        if (error) *error = "cannot run '" + argv[0] + "': " + std::strerror(rc);
    } else {
        int status = 0;
        pid_t waited;
        do {
            waited = waitpid(pid, &status, 0);
        } while (waited < 0 && errno == EINTR);
        if (waited < 0) {
            if (error) *error = std::string("lost track of the program: ") + std::strerror(errno);
        } else if (WIFEXITED(status)) {
            result = WEXITSTATUS(status);
        } else if (WIFSIGNALED(status)) {
            result = 128 + WTERMSIG(status);
        }
    }
    sigaction(SIGINT, &oldInt, nullptr);
    sigaction(SIGQUIT, &oldQuit, nullptr);
    return result;
}

bool truncateFile(const std::string &path, uint64_t size, std::string *error) {
    if (truncate(path.c_str(), static_cast<off_t>(size)) == 0) return true;
    *error = std::strerror(errno);
    return false;
}

bool setEnv(const char *name, const std::string &value) {
    return setenv(name, value.c_str(), 1) == 0;
}

bool unsetEnv(const char *name) {
    return unsetenv(name) == 0;
}

std::FILE *createTemporaryFile(const char *prefix, const char *suffix, std::string *path) {
    const char *dir = std::getenv("TMPDIR");
    std::string pattern = std::string(dir && *dir ? dir : "/tmp") + "/" + prefix + "XXXXXX" + suffix;
    std::vector<char> name(pattern.begin(), pattern.end());
    name.push_back('\0');
    int fd = mkstemps(name.data(), static_cast<int>(std::strlen(suffix)));
    if (fd < 0) return nullptr;
    std::FILE *file = fdopen(fd, "wb");
    if (!file) {
        close(fd);
        unlink(name.data());
        return nullptr;
    }
    if (path) *path = name.data();
    return file;
}

std::string absolutePath(const std::string &path) {
    char resolved[PATH_MAX];
    if (realpath(path.c_str(), resolved)) return resolved;
    // A file that does not exist yet: resolve its directory.
    size_t slash = path.find_last_of('/');
    std::string dir = slash == std::string::npos ? std::string(".") : path.substr(0, slash ? slash : 1);
    std::string name = slash == std::string::npos ? path : path.substr(slash + 1);
    if (!name.empty() && name != "." && name != ".." && realpath(dir.c_str(), resolved))
        return joinPath(resolved, name);
    return !path.empty() && path[0] == '/' ? path : joinPath(currentDirectory(), path);
}

std::string joinPath(const std::string &directory, const std::string &name) {
    if (directory.empty()) return name;
    return directory.back() == '/' ? directory + name : directory + "/" + name;
}

bool processAlive(uint64_t pid) {
    return pid && (::kill(static_cast<pid_t>(pid), 0) == 0 || errno == EPERM);
}

bool isTerminal(std::FILE *stream) {
    return stream && isatty(fileno(stream)) == 1;
}

const char *librarySearchVariable() {
    return "LD_LIBRARY_PATH";
}

char pathListSeparator() {
    return ':';
}

// X11 through libX11 loaded when a window is first asked for: a player without --window, and a
// machine without X, never need it.
namespace {

struct Xlib {
    void *(*openDisplay)(const char *) = nullptr;
    int (*defaultScreen)(void *) = nullptr;
    unsigned long (*rootWindow)(void *, int) = nullptr;
    unsigned long (*createSimpleWindow)(void *, unsigned long, int, int, unsigned, unsigned, unsigned,
                                        unsigned long, unsigned long) = nullptr;
    int (*mapWindow)(void *, unsigned long) = nullptr;
    int (*storeName)(void *, unsigned long, const char *) = nullptr;
    int (*flush)(void *) = nullptr;
    bool loaded = false;
};

Xlib &xlib() {
    static Xlib x = [] {
        Xlib l;
        void *m = dlopen("libX11.so.6", RTLD_NOW | RTLD_LOCAL);
        if (!m) return l;
        l.openDisplay = reinterpret_cast<decltype(l.openDisplay)>(dlsym(m, "XOpenDisplay"));
        l.defaultScreen = reinterpret_cast<decltype(l.defaultScreen)>(dlsym(m, "XDefaultScreen"));
        l.rootWindow = reinterpret_cast<decltype(l.rootWindow)>(dlsym(m, "XRootWindow"));
        l.createSimpleWindow =
            reinterpret_cast<decltype(l.createSimpleWindow)>(dlsym(m, "XCreateSimpleWindow"));
        l.mapWindow = reinterpret_cast<decltype(l.mapWindow)>(dlsym(m, "XMapWindow"));
        l.storeName = reinterpret_cast<decltype(l.storeName)>(dlsym(m, "XStoreName"));
        l.flush = reinterpret_cast<decltype(l.flush)>(dlsym(m, "XFlush"));
        l.loaded = l.openDisplay && l.defaultScreen && l.rootWindow && l.createSimpleWindow && l.mapWindow &&
                   l.storeName && l.flush;
        return l;
    }();
    return x;
}

} // namespace

bool openWindowSystem(void **connection) {
    static void *display = xlib().loaded ? xlib().openDisplay(nullptr) : nullptr;
    *connection = display;
    return display != nullptr;
}

uint64_t createWindow(void *windowSystem, int32_t width, int32_t height, const char *title) {
    Xlib &x = xlib();
    if (!windowSystem || !x.loaded) return 0;
    int screen = x.defaultScreen(windowSystem);
    unsigned long window =
        x.createSimpleWindow(windowSystem, x.rootWindow(windowSystem, screen), 0, 0,
                             static_cast<unsigned>(width), static_cast<unsigned>(height), 0, 0, 0);
    x.storeName(windowSystem, window, title);
    x.mapWindow(windowSystem, window);
    x.flush(windowSystem);
    return window;
}

} // namespace kv::platform

#endif
