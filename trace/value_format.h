// Showing what the reader decoded: values by their type (enum names, hex pointers, floats that read
// back exactly), error codes by the API's names, data blocks in a few words, and whole records as
// the one-line form of `kalvoren dump`.
#pragma once

#include "api/api.h"
#include "trace/reader.h"

#include <cstddef>
#include <cstdint>
#include <string>

namespace kv::reader {

struct FormatOptions {
    bool fullBlocks = false;      // every block in full after the line (text as text, else hex)
    size_t textLimit = 120;       // characters of a text block shown in the line
    size_t previewBytes = 16;     // first bytes shown of a block that is neither text nor values
    size_t arrayLimit = 16;       // values shown of a small typed array
    size_t fullLimit = 64u << 20; // bytes of one block shown in full at most
};

// One value of the given type from its bits (as the reader stores them, zero-extended).
std::string formatValue(api::Type type, uint64_t bits, uint16_t enumGroup = 0);
// The name of an enum-like value (GL/EGL enums, booleans); null when it has none.
const char *valueName(api::Type type, uint64_t bits, uint16_t enumGroup = 0);
// A function's result: like formatValue, but the error queries show error names.
std::string formatResult(const api::FuncDesc &function, uint64_t bits);
// The name of a function's result, when it has one.
const char *resultName(const api::FuncDesc &function, uint64_t bits);
// The shortest decimal text that reads back as the same float; integral values keep a ".0".
std::string formatFloat(float value);
// An error code by its API's name (hex when it has none); empty for ErrorKind::None.
std::string formatError(api::ErrorKind kind, uint32_t code);
const char *glErrorName(uint32_t code);
const char *clStatusName(int32_t status);

// Text in double quotes with escapes, cut after `limit` characters ("..." marks the cut).
std::string quoteText(const uint8_t *text, size_t n, size_t limit);
// Lines of 16 bytes: offset, hex and printable characters, each line starting with `indent`.
std::string hexDump(const uint8_t *data, size_t n, const std::string &indent);

// What a block holds in a few words: text, attribute pairs, a few values or its first bytes.
std::string summarizeBlock(Reader &reader, const Entry &entry, const Block &block,
                           const FormatOptions &options);
// The dump line of an entry (no trailing newline); with fullBlocks the blocks follow on lines of
// their own.
std::string formatEntry(Reader &reader, const Entry &entry, const FormatOptions &options);

} // namespace kv::reader
