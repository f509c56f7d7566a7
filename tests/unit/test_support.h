// Helpers shared by the unit tests of the library's spine: a scratch directory, capture of what the
// library writes to the console, memory that cannot be read, limits of the system, trace files
// opened on the process settings and a walker over the items of a trace.
//
// The test program reads its configuration from a file in the scratch directory (KALVOREN_CONFIG
// is set before any test runs, unless the caller set it): every process matches the section "*",
// which disables recording and points OutputFilename into the scratch directory. Tests that need
// a trace open one themselves (TraceSession) or rebuild the settings from a text of their own
// (RebuiltSettings). On POSIX the debugger channel goes to a file of the scratch directory.
#pragma once

#include "core/settings.h"
#include "tests/common/json_text.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace kv::test {

// ---- Files and environment --------------------------------------------------------------------

// The test program's scratch directory (the children of death tests share their parent's).
const std::string &scratchDir();
std::string scratchPath(const std::string &name);
std::vector<uint8_t> readFile(const std::string &path);
void writeFile(const std::string &path, const std::string &text);

// Sets (or, with a null value, removes) an environment variable of this process.
void setEnv(const char *name, const char *value);

// Sets an environment variable until the object goes away.
class EnvScope {
public:
    EnvScope(const char *name, const std::string &value);
    ~EnvScope();
    EnvScope(const EnvScope &) = delete;
    EnvScope &operator=(const EnvScope &) = delete;

private:
    std::string name_;
    std::string old_;
    bool hadOld_;
};

// ---- Diagnostics ------------------------------------------------------------------------------

// Collects what the process writes to standard output and standard error (the library's console
// channels) from construction until finish(), with plain new lines. Nothing written meanwhile
// reaches the terminal, so no assertion may fail while a capture is running.
class ConsoleCapture {
public:
    ConsoleCapture();
    ~ConsoleCapture();
    ConsoleCapture(const ConsoleCapture &) = delete;
    ConsoleCapture &operator=(const ConsoleCapture &) = delete;
    std::string finish();

private:
    std::string path_;
    int savedOut_ = -1;
    int savedErr_ = -1;
    bool done_ = false;
    std::string text_;
};

namespace detail {
// Points standard output and standard error at `path` (truncated), keeping copies of the old ones.
bool redirectConsole(const std::string &path, int *savedOut, int *savedErr);
void restoreConsole(int savedOut, int savedErr);
} // namespace detail

// Whether the debugger channel is a file that tests can read (POSIX), and what has been written to
// it so far.
bool debuggerChannelIsFile();
std::string debuggerText();

// ---- Memory and limits ------------------------------------------------------------------------

// Two adjacent pages of which the second cannot be read.
class GuardedPages {
public:
    GuardedPages();
    ~GuardedPages();
    GuardedPages(const GuardedPages &) = delete;
    GuardedPages &operator=(const GuardedPages &) = delete;
    size_t pageSize() const { return pageSize_; }
    uint8_t *readable() const { return base_; }
    uint8_t *unreadable() const { return base_ + pageSize_; }
    // Takes the readable page away too (as an application unmapping memory would).
    void revokeReadable();

private:
    uint8_t *base_ = nullptr;
    size_t pageSize_ = 0;
};

// A file name that exists and always fails writes with "no space left", or empty where there is none.
std::string alwaysFullDevice();
// Lowers the address space this process may use to `bytes` (for good); false where the system
// has no such limit.
bool limitAddressSpace(uint64_t bytes);
// A device that reads as endless zeros; empty where the system has none.
std::string endlessDevice();
// Makes a FIFO at `path`; false where the system has none.
bool makeFifo(const std::string &path);

// ---- Traces -----------------------------------------------------------------------------------

struct TraceItem {
    enum Kind { ThreadMarker, Record, EndMarker };
    Kind kind = Record;
    uint16_t id = 0;
    uint64_t offset = 0; // file offset of the item's first byte
    uint64_t thread = 0; // thread markers: the thread named
    std::vector<uint8_t> payload;
};

// Walks the items of a trace from `from` (the end of its header) to its end. Sets `problem` when the
// file ends inside an item.
std::vector<TraceItem> walkTrace(const std::vector<uint8_t> &file, uint64_t from, std::string *problem);

// A trace file opened on the process settings for one test: recording on, no network, frame range
// and counters at their defaults. When the object goes away the file is closed and the settings it
// touched are put back.
class TraceSession {
public:
    explicit TraceSession(const std::string &path, bool compression = false);
    ~TraceSession();
    TraceSession(const TraceSession &) = delete;
    TraceSession &operator=(const TraceSession &) = delete;

    Settings &settings() { return s_; }
    bool opened() const { return opened_; }
    uint64_t headerEnd() const { return headerEnd_; }
    const std::string &path() const { return path_; }
    // Closes the trace and returns its bytes.
    std::vector<uint8_t> closeAndRead();
    // Closes the trace and returns its items after the header.
    std::vector<TraceItem> closeAndWalk(std::string *problem);

private:
    struct Saved;
    Settings &s_;
    std::string path_;
    bool opened_ = false;
    uint64_t headerEnd_ = 0;
    std::unique_ptr<Saved> saved_;
};

// Rebuilds the process settings from a configuration (the text is written to a file of the scratch
// directory; a null text names a file that does not exist) and keeps what the library wrote to the
// console while doing so. When the object goes away the settings are rebuilt from the test
// program's own configuration.
class RebuiltSettings {
public:
    explicit RebuiltSettings(const char *configText);
    ~RebuiltSettings();
    RebuiltSettings(const RebuiltSettings &) = delete;
    RebuiltSettings &operator=(const RebuiltSettings &) = delete;
    Settings &settings();
    const std::string &configPath() const { return configPath_; }
    const std::string &output() const { return output_; }

private:
    std::string configPath_;
    std::string oldConfig_;
    std::string output_;
};

} // namespace kv::test
