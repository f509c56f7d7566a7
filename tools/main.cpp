// kalvoren: record traces, look into them and play them back.
#include "tools/cli.h"

#include "base/settings_record.h"
#include "platform/platform.h"
#include "platform/process.h"
#include "trace/format.h"

#include <cstdarg>
#include <cstring>
#include <filesystem>
#include <system_error>

#ifndef KV_VERSION_TEXT
#define KV_VERSION_TEXT "unknown"
#endif

namespace kv::cli {

void complain(const char *format, ...) {
    va_list args;
    va_start(args, format);
    std::fputs("kalvoren: ", stderr);
    std::vfprintf(stderr, format, args);
    std::fputc('\n', stderr);
    va_end(args);
}

const std::string *optionValue(const std::vector<std::string> &args, size_t &i, const char *what) {
    if (i + 1 >= args.size()) {
        complain("%s needs %s", args[i].c_str(), what);
        return nullptr;
    }
    return &args[++i];
}

bool makeOutputDirectory(const std::string &directory) {
    std::error_code error;
    std::filesystem::create_directories(std::filesystem::u8path(directory), error);
    if (error) {
        complain("%s: cannot be made (%s)", directory.c_str(), error.message().c_str());
        return false;
    }
    return true;
}

bool takeTracePath(const char *command, const std::string &a, std::string &path) {
    if (!a.empty() && a[0] == '-' && a != "-") {
        complain("%s: unknown option '%s'", command, a.c_str());
        return false;
    }
    if (!path.empty()) {
        complain("%s: one trace at a time", command);
        return false;
    }
    path = a;
    return true;
}

bool parseNumber(const std::string &text, uint64_t &value) {
    if (text.empty() || text.size() > 20) return false;
    uint64_t v = 0;
    for (char c : text) {
        if (c < '0' || c > '9') return false;
        uint64_t digit = static_cast<uint64_t>(c - '0');
        if (v > (UINT64_MAX - digit) / 10) return false;
        v = v * 10 + digit;
    }
    value = v;
    return true;
}

bool parseRange(const std::string &text, uint64_t &first, uint64_t &last) {
    size_t dash = text.find('-');
    if (dash == std::string::npos) {
        if (!parseNumber(text, first)) return false;
        last = first;
        return true;
    }
    if (!parseNumber(text.substr(0, dash), first)) return false;
    std::string rest = text.substr(dash + 1);
    if (rest.empty()) {
        last = UINT64_MAX;
        return true;
    }
    return parseNumber(rest, last) && last >= first;
}

Progress::Progress(const char *what, uint64_t total) : what_(what), total_(total) {
    active_ = total >= (64u << 20) && platform::isTerminal(stderr);
    lastShown_ = platform::tickCountMs();
}

Progress::~Progress() {
    if (shown_) std::fprintf(stderr, "\r%60s\r", "");
}

void Progress::show(uint64_t position) {
    uint64_t now = platform::tickCountMs();
    if (now - lastShown_ < 250) return;
    lastShown_ = now;
    shown_ = true;
    std::fprintf(stderr, "\r%s: %3u%% (%llu of %llu MiB)", what_,
                 static_cast<unsigned>(total_ ? position * 100 / total_ : 100),
                 static_cast<unsigned long long>(position >> 20),
                 static_cast<unsigned long long>(total_ >> 20));
    std::fflush(stderr);
}

} // namespace kv::cli

namespace {

const char kUsage[] =
    "usage: kalvoren COMMAND [OPTIONS]\n"
    "\n"
    "Commands:\n"
    "  info TRACE       what a trace holds: its header, records, calls, frames, threads and data\n"
    "  dump TRACE       every record, one line each (or JSON lines with --json)\n"
    "  repair TRACE     cut a trace whose recording process died to its last complete record\n"
    "  record -- PROGRAM [ARGS...]\n"
    "                   run a program with Kalvoren in place of its EGL and OpenGL ES drivers\n"
    "  replay TRACE     play a trace back on this machine's driver, comparing every frame with the\n"
    "                   one the application drew\n"
    "  frames TRACE -o DIR\n"
    "                   the frame buffers saved in a trace, as PNG files\n"
    "  ctl HOST[:PORT] COMMAND...\n"
    "                   drive a program recorded with network control on: start, pause, resume,\n"
    "                   stop, fetch -o FILE, watch\n"
    "  perf             show the counters of a program profiled with Kalvoren, frame by frame, and\n"
    "                   switch its render-state overrides\n"
    "  help [COMMAND]   how to use a command (also: kalvoren COMMAND --help)\n"
    "  --version        the recorder's version and the trace format it writes and reads\n"
    "\n"
    "Exit status:\n"
    "  0    the command did what it was asked; the trace was read whole\n"
    "  1    problems were found in the trace (or, for replay, frames differ)\n"
    "  2    the command could not run: bad usage, a file that cannot be read or is not a trace of\n"
    "       this version, front libraries not found\n"
    "  127  record: the program could not be started\n"
    "  `record` otherwise passes on the program's own exit status (128+N when signal N ended it).\n";

int help(const std::string &command) {
    using namespace kv::cli;
    if (command == "dump") return dumpCommand({"--help"});
    if (command == "info") return infoCommand({"--help"});
    if (command == "record") return recordCommand({"--help"});
    if (command == "repair") return repairCommand({"--help"});
    if (command == "replay") return replayCommand({"--help"});
    if (command == "frames") return framesCommand({"--help"});
    if (command == "ctl") return ctlCommand({"--help"});
    if (command == "perf") return perfCommand({"--help"});
    if (command.empty()) {
        std::fputs(kUsage, stdout);
        return kExitOk;
    }
    complain("no command '%s'; the commands are info, dump, repair, record, replay, frames, ctl and perf "
             "('kalvoren help' tells more)",
             command.c_str());
    return kExitUsage;
}

int version() {
    std::printf("kalvoren %s (recorder %s)\ntrace format %u\n", KV_VERSION_TEXT, kv::kRecorderVersion,
                static_cast<unsigned>(kv::format::kVersion));
    return kv::cli::kExitOk;
}

} // namespace

int main(int argc, char **argv) {
    using namespace kv::cli;
    if (argc < 2) {
        std::fputs(kUsage, stderr);
        return kExitUsage;
    }
    std::string command = argv[1];
    std::vector<std::string> args(argv + 2, argv + argc);
    if (command == "dump") return dumpCommand(args);
    if (command == "info") return infoCommand(args);
    if (command == "record") return recordCommand(args);
    if (command == "repair") return repairCommand(args);
    if (command == "replay") return replayCommand(args);
    if (command == "frames") return framesCommand(args);
    if (command == "ctl") return ctlCommand(args);
    if (command == "perf") return perfCommand(args);
    if (command == "help" || command == "--help" || command == "-h") return help(args.empty() ? "" : args[0]);
    if (command == "--version" || command == "version") return version();
    complain("unknown command '%s': run 'kalvoren help' for the list of commands", command.c_str());
    return kExitUsage;
}
