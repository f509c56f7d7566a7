#include "base/messages.h"

#include "base/zand_string.h"
#include "platform/platform.h"

#include <cstdarg>

namespace kv::msg {

namespace {
bool progressOnConsole = true;
}

void keepProgressOffConsole() {
    progressOnConsole = false;
}

void emit(unsigned channels, const char *consolePrefix, const char *text) {
    if (channels & kDebugger) {
        platform::debugOutput(text);
        platform::debugOutput("\n");
    }
    if (channels & (kOut | kErr)) {
        CZandString line(consolePrefix ? consolePrefix : "");
        line.append(text);
        line.append("\n");
        if (channels & kOut) platform::consoleOut(line.c_str());
        if (channels & kErr) platform::consoleErr(line.c_str());
    }
}

#define KV_FORMAT_AND_EMIT(channels, prefix)                                                                 \
    va_list args;                                                                                            \
    va_start(args, fmt);                                                                                     \
    CZandString text = CZandString::vformat(fmt, args);                                                      \
    va_end(args);                                                                                            \
    emit(channels, prefix, text.c_str())

void info(const char *fmt, ...) {
    KV_FORMAT_AND_EMIT(progressOnConsole ? kDebugger | kOut : kDebugger, "");
}
void warning(const char *fmt, ...) {
    KV_FORMAT_AND_EMIT(kDebugger | kOut, "WARNING: ");
}
void error(const char *fmt, ...) {
    KV_FORMAT_AND_EMIT(kDebugger | kErr, "ERROR: ");
}
void debug(const char *fmt, ...) {
    KV_FORMAT_AND_EMIT(kDebugger, "");
}

#undef KV_FORMAT_AND_EMIT

} // namespace kv::msg
