// The `kalvoren` command line: its commands and what they share.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

namespace kv::cli {

// Exit statuses: the trace was read whole; problems were found in it; the command could not run
// (bad usage, unreadable or foreign file); `record` could not start the program (as shells say).
constexpr int kExitOk = 0;
constexpr int kExitProblems = 1;
constexpr int kExitUsage = 2;
constexpr int kExitNoProgram = 127;

// Creates DIR (and its parents) for files a command writes; false, with a message, when it cannot.
bool makeOutputDirectory(const std::string &directory);

int dumpCommand(const std::vector<std::string> &args);
int infoCommand(const std::vector<std::string> &args);
int recordCommand(const std::vector<std::string> &args);
int repairCommand(const std::vector<std::string> &args);
int replayCommand(const std::vector<std::string> &args);
int framesCommand(const std::vector<std::string> &args);
int ctlCommand(const std::vector<std::string> &args);
int perfCommand(const std::vector<std::string> &args);

struct InfoOptions {
    size_t top = 20; // functions listed by call count
};
// Writes the summary of a trace to `out`; returns the exit status as `info` would.
int printInfo(const std::string &path, const InfoOptions &options, std::FILE *out);

// "kalvoren: " and the message on standard error.
void complain(const char *format, ...) __attribute__((format(printf, 1, 2)));

// The value of the option args[i]: the next argument, taken (i moves onto it). Null, with "<option>
// needs <what>" said, when the option is the last argument.
const std::string *optionValue(const std::vector<std::string> &args, size_t &i, const char *what);
// Takes `a` as the one trace path of `command`; says what is wrong and returns false when `a` is an
// unknown option or a second path ("-" is a path).
bool takeTracePath(const char *command, const std::string &a, std::string &path);

// A decimal number that fits 64 bits.
bool parseNumber(const std::string &text, uint64_t &value);
// "A-B", "A-" (to the end) or "A" (just A).
bool parseRange(const std::string &text, uint64_t &first, uint64_t &last);

// How far a long walk through a file has come, on standard error when that is a terminal and
// the file is large enough to take a while.
class Progress {
public:
    Progress(const char *what, uint64_t total);
    ~Progress();
    void update(uint64_t position) {
        if (active_ && ++calls_ % 4096 == 0) show(position);
    }

private:
    void show(uint64_t position);
    const char *what_;
    uint64_t total_;
    uint64_t calls_ = 0;
    uint64_t lastShown_ = 0;
    bool active_ = false;
    bool shown_ = false;
};

} // namespace kv::cli
