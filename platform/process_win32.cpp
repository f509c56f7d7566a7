// Windows side of the process services.
#include "platform/process.h"

#if defined(_WIN32)

#include "platform/platform.h"

#include <windows.h>

#include <io.h>

#include <cstdlib>

namespace kv::platform {

namespace {

// One argument quoted so that the program's startup code splits the command line back into the
// same argument (backslashes are literal unless they precede a quote).
void appendQuoted(std::string &line, const std::string &arg) {
    if (!arg.empty() && arg.find_first_of(" \t\n\v\"") == std::string::npos) {
        line += arg;
        return;
    }
    line += '"';
    size_t backslashes = 0;
    for (char c : arg) {
        if (c == '\\') {
            ++backslashes;
            continue;
        }
        if (c == '"') {
            line.append(backslashes * 2 + 1, '\\');
        } else {
            line.append(backslashes, '\\');
        }
        backslashes = 0;
        line += c;
    }
    line.append(backslashes * 2, '\\');
    line += '"';
}

std::string lastErrorText() {
    DWORD code = GetLastError();
    char buffer[512];
    DWORD n = FormatMessageA(FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS, nullptr, code, 0,
                             buffer, sizeof(buffer), nullptr);
    while (n > 0 && (buffer[n - 1] == '\n' || buffer[n - 1] == '\r' || buffer[n - 1] == '.'))
        --n;
    return n ? std::string(buffer, n) : "error " + std::to_string(static_cast<unsigned long>(code));
}

} // namespace

int runProgram(const std::vector<std::string> &argv, std::string *error) {
    if (argv.empty()) {
        if (error) *error = "no program given";
        return -1;
    }
    std::string line;
    for (size_t i = 0; i < argv.size(); ++i) {
        if (i) line += ' ';
        appendQuoted(line, argv[i]);
    }
    std::vector<char> mutableLine(line.begin(), line.end());
    mutableLine.push_back('\0');

    STARTUPINFOA startup;
    ZeroMemory(&startup, sizeof(startup));
    startup.cb = sizeof(startup);
    PROCESS_INFORMATION process;
    ZeroMemory(&process, sizeof(process));
    // Ctrl-C goes to the program; we wait for it to end and report on the trace.
    SetConsoleCtrlHandler(nullptr, TRUE);
    if (!CreateProcessA(nullptr, mutableLine.data(), nullptr, nullptr, TRUE, 0, nullptr, nullptr, &startup,
                        &process)) {
        if (error) *error = "cannot run '" + argv[0] + "': " + lastErrorText();
        SetConsoleCtrlHandler(nullptr, FALSE);
        return -1;
    }
    WaitForSingleObject(process.hProcess, INFINITE);
    DWORD code = 0;
    int result = -1;
    if (GetExitCodeProcess(process.hProcess, &code)) {
        result = static_cast<int>(code);
    } else if (error) {
        *error = "lost track of the program: " + lastErrorText();
    }
    CloseHandle(process.hThread);
    CloseHandle(process.hProcess);
    SetConsoleCtrlHandler(nullptr, FALSE);
    return result;
}

bool truncateFile(const std::string &path, uint64_t size, std::string *error) {
    HANDLE file = CreateFileA(path.c_str(), GENERIC_WRITE, FILE_SHARE_READ, nullptr, OPEN_EXISTING,
                              FILE_ATTRIBUTE_NORMAL, nullptr);
    if (file == INVALID_HANDLE_VALUE) {
        *error = "cannot be opened for writing (error " + std::to_string(GetLastError()) + ")";
        return false;
    }
    LARGE_INTEGER at;
    at.QuadPart = static_cast<LONGLONG>(size);
    bool ok = SetFilePointerEx(file, at, nullptr, FILE_BEGIN) && SetEndOfFile(file);
    if (!ok) *error = "cannot be cut (error " + std::to_string(GetLastError()) + ")";
    CloseHandle(file);
    return ok;
}

bool setEnv(const char *name, const std::string &value) {
    // Both the system's copy (which new processes inherit) and the C runtime's (getenv).
    bool ok = SetEnvironmentVariableA(name, value.c_str()) != 0;
    return _putenv_s(name, value.c_str()) == 0 && ok;
}

bool unsetEnv(const char *name) {
    bool ok = SetEnvironmentVariableA(name, nullptr) != 0;
    return _putenv_s(name, "") == 0 && ok;
}

std::FILE *createTemporaryFile(const char *prefix, const char *suffix, std::string *path) {
    char dir[MAX_PATH + 1];
    DWORD n = GetTempPathA(sizeof(dir), dir);
    if (n == 0 || n > MAX_PATH) return nullptr;
    std::string base(dir, n);
    DWORD stamp = GetCurrentProcessId() * 2654435761u ^ GetTickCount();
    for (unsigned attempt = 0; attempt < 100; ++attempt) {
        std::string name =
            base + prefix + std::to_string(static_cast<unsigned long>(stamp + attempt)) + suffix;
        HANDLE h =
            CreateFileA(name.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_NEW, FILE_ATTRIBUTE_NORMAL, nullptr);
        if (h == INVALID_HANDLE_VALUE) {
            if (GetLastError() == ERROR_FILE_EXISTS) continue;
            return nullptr;
        }
        CloseHandle(h);
        std::FILE *file = std::fopen(name.c_str(), "wb");
        if (!file) {
            DeleteFileA(name.c_str());
            return nullptr;
        }
        if (path) *path = name;
        return file;
    }
    return nullptr;
}

std::string absolutePath(const std::string &path) {
    char buffer[MAX_PATH * 4];
    DWORD n = GetFullPathNameA(path.c_str(), sizeof(buffer), buffer, nullptr);
    if (n == 0 || n >= sizeof(buffer)) return path;
    return std::string(buffer, n);
}

std::string joinPath(const std::string &directory, const std::string &name) {
    if (directory.empty()) return name;
    char last = directory.back();
    return last == '\\' || last == '/' ? directory + name : directory + "\\" + name;
}

bool processAlive(uint64_t pid) {
    HANDLE process = OpenProcess(PROCESS_QUERY_LIMITED_INFORMATION, FALSE, static_cast<DWORD>(pid));
    if (!process) return false;
    DWORD code = 0;
    const bool running = GetExitCodeProcess(process, &code) && code == STILL_ACTIVE;
    CloseHandle(process);
    return running;
}

bool isTerminal(std::FILE *stream) {
    return stream && _isatty(_fileno(stream)) != 0;
}

const char *librarySearchVariable() {
    return "PATH";
}

char pathListSeparator() {
    return ';';
}

bool openWindowSystem(void **connection) {
    // EGL on Windows takes the default display; windows need no connection of their own.
    *connection = nullptr;
    return true;
}

uint64_t createWindow(void *, int32_t width, int32_t height, const char *title) {
    static const char *const kClass = "KalvorenReplayWindow";
    static bool registered = [] {
        WNDCLASSA wc = {};
        wc.lpfnWndProc = DefWindowProcA;
        wc.hInstance = GetModuleHandleA(nullptr);
        wc.lpszClassName = kClass;
        return RegisterClassA(&wc) != 0;
    }();
    if (!registered) return 0;
    RECT rect = {0, 0, width, height};
    AdjustWindowRect(&rect, WS_OVERLAPPEDWINDOW, FALSE);
    HWND window = CreateWindowA(kClass, title, WS_OVERLAPPEDWINDOW | WS_VISIBLE, CW_USEDEFAULT, CW_USEDEFAULT,
                                rect.right - rect.left, rect.bottom - rect.top, nullptr, nullptr,
                                GetModuleHandleA(nullptr), nullptr);
    return reinterpret_cast<uint64_t>(window);
}

} // namespace kv::platform

#endif
