// The library's diagnostics. Every line goes to the debugger channel (followed by a separate new
// line) and, by the rules of each message, to the console: progress lines without a prefix,
// warnings with "WARNING: ", errors to the error stream with "ERROR: ".
#pragma once

namespace kv::msg {

enum Channel : unsigned {
    kDebugger = 1, // the debugger channel, then a separate "\n"
    kOut = 2,      // the console, followed by "\n"
    kErr = 4,      // the error stream, followed by "\n"
};

// Writes one message to the given channels; `consolePrefix` is put before the text on the
// console channels only.
void emit(unsigned channels, const char *consolePrefix, const char *text);

// Debugger and console.
void info(const char *fmt, ...) __attribute__((format(printf, 1, 2)));
// Debugger, and the console after "WARNING: ".
void warning(const char *fmt, ...) __attribute__((format(printf, 1, 2)));
// Debugger, and the error stream after "ERROR: ".
void error(const char *fmt, ...) __attribute__((format(printf, 1, 2)));
// The debugger only.
void debug(const char *fmt, ...) __attribute__((format(printf, 1, 2)));

// Progress lines (info) stay off the console from now on; a tool that loads the host libraries
// itself (the player) keeps its own output readable. Warnings and errors are unaffected.
void keepProgressOffConsole();

} // namespace kv::msg
