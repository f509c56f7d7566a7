// What the command line needs from the system beyond platform.h: starting the program to trace,
// its environment, temporary files, paths and terminals.
#pragma once

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

namespace kv::platform {

// Runs a program with this process's environment and waits for it to end. A name without a
// directory is searched on PATH. Returns the program's exit status (128 + the signal number when
// a signal ended it), or -1 with `error` set when it could not be started. Interrupts from the
// terminal are left to the program while it runs.
int runProgram(const std::vector<std::string> &argv, std::string *error);

// Sets a variable of this process's environment (inherited by programs started afterwards).
bool setEnv(const char *name, const std::string &value);
// Removes a variable from this process's environment.
bool unsetEnv(const char *name);

// Creates a new file in the system's temporary directory, named `prefix`, something unique and
// `suffix`, opened for writing in binary mode. Null when no file could be created.
std::FILE *createTemporaryFile(const char *prefix, const char *suffix, std::string *path);

// The path made absolute against the working directory.
std::string absolutePath(const std::string &path);
// Joins a directory and a name with the system's separator.
std::string joinPath(const std::string &directory, const std::string &name);

// Cuts a file to `size` bytes (which must not be more than it has). False with `error` set when
// it cannot be done.
bool truncateFile(const std::string &path, uint64_t size, std::string *error);

// Whether a process with this id is still running.
bool processAlive(uint64_t pid);

// Whether the stream is connected to a terminal.
bool isTerminal(std::FILE *stream);

// Windows for a player that shows what it replays: whether there is a window system, with its
// connection in *connection (an X11 display on POSIX, opened once; null on Windows, where EGL
// takes the default display and windows need no connection), and a visible window of the given
// size on it, as the native window handle EGL takes (0 when none could be made).
bool openWindowSystem(void **connection);
uint64_t createWindow(void *windowSystem, int32_t width, int32_t height, const char *title);

// The environment variable that lists the directories in which the loader looks for a
// program's libraries before the system's, and the separator of its entries.
const char *librarySearchVariable();
char pathListSeparator();

} // namespace kv::platform
