#include "trace/value_format.h"

#include "api/enum_names.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace kv::reader {

namespace {

constexpr uint32_t kEglNone = 0x3038;
constexpr uint32_t kGlUnsignedByte = 0x1401;
constexpr uint32_t kGlUnsignedShort = 0x1403;
constexpr uint32_t kGlUnsignedInt = 0x1405;

std::string hex(uint64_t v) {
    char buffer[24];
    std::snprintf(buffer, sizeof(buffer), "0x%llx", static_cast<unsigned long long>(v));
    return buffer;
}

std::string number(uint64_t v) {
    return std::to_string(static_cast<unsigned long long>(v));
}

std::string signedNumber(int64_t v) {
    return std::to_string(static_cast<long long>(v));
}

float asFloat(uint64_t bits) {
    uint32_t b = static_cast<uint32_t>(bits);
    float f;
    std::memcpy(&f, &b, 4);
    return f;
}

uint64_t readLe(const uint8_t *p, uint32_t width) {
    uint64_t v = 0;
    for (uint32_t i = 0; i < width; ++i)
        v |= uint64_t(p[i]) << (8 * i);
    return v;
}

std::string sizeText(const Block &b) {
    std::string s = number(b.size) + (b.size == 1 ? " byte" : " bytes");
    if (b.compressed) s += ", zlib " + number(b.stored);
    return s;
}

const Arg *argOf(const Entry &e, const Block &b) {
    return b.arg >= 0 && static_cast<size_t>(b.arg) < e.args.size() ? &e.args[static_cast<size_t>(b.arg)]
                                                                    : nullptr;
}

const Part *partOf(const Entry &e, const Block &b) {
    return b.part >= 0 && static_cast<size_t>(b.part) < e.parts.size() ? &e.parts[static_cast<size_t>(b.part)]
                                                                       : nullptr;
}

// The width of the indices of an indexed draw, from the record's `type` argument.
uint32_t indexWidth(const Entry &e) {
    for (const Arg &a : e.args) {
        if (a.field->kind != api::Field::Value || a.field->type != api::Type::GlEnum) continue;
        if (std::strcmp(a.field->name, "type") != 0) continue;
        switch (static_cast<uint32_t>(a.value)) {
        case kGlUnsignedByte:
            return 1;
        case kGlUnsignedShort:
            return 2;
        case kGlUnsignedInt:
            return 4;
        default:
            return 0;
        }
    }
    return 0;
}

// An EGL attribute value: by name when it is an EGL enumerant, else as a number.
std::string attribValue(int64_t v) {
    if (v >= 0x3000 && v < 0x3500)
        if (const char *name = names::eglEnumName(static_cast<uint32_t>(v))) return name;
    return signedNumber(v);
}

std::string attribPairs(const std::vector<uint8_t> &bytes, uint32_t width, size_t total) {
    std::string s = "[";
    size_t n = bytes.size() / width;
    for (size_t i = 0; i < n; i += 2) {
        if (i) s += ", ";
        int64_t key = width == 4 ? static_cast<int32_t>(readLe(&bytes[i * width], 4))
                                 : static_cast<int64_t>(readLe(&bytes[i * width], 8));
        const char *keyName = names::eglEnumName(static_cast<uint32_t>(key));
        s += keyName ? keyName : hex(static_cast<uint64_t>(key));
        if (static_cast<uint64_t>(key) == kEglNone) break;
        if (i + 1 >= n) break;
        int64_t value = width == 4 ? static_cast<int32_t>(readLe(&bytes[(i + 1) * width], 4))
                                   : static_cast<int64_t>(readLe(&bytes[(i + 1) * width], 8));
        s += "=" + attribValue(value);
    }
    if (bytes.size() < total) s += ", ...";
    return s + "]";
}

// An OpenCL property list: name/value pairs ending in a name of 0. Values are mostly handles
// (a platform, a GL context), shown in hex; small ones as numbers.
std::string propertyPairs(const std::vector<uint8_t> &bytes, size_t total, uint16_t group) {
    std::string s = "[";
    size_t n = bytes.size() / 8;
    for (size_t i = 0; i < n; i += 2) {
        if (i) s += ", ";
        uint64_t key = readLe(&bytes[i * 8], 8);
        const char *keyName =
            key <= UINT32_MAX ? names::glEnumName(static_cast<uint32_t>(key), group) : nullptr;
        s += keyName ? keyName : key == 0 ? std::string("0") : hex(key);
        if (key == 0 || i + 1 >= n) break;
        int64_t value = static_cast<int64_t>(readLe(&bytes[(i + 1) * 8], 8));
        s +=
            "=" + (value > -65536 && value < 65536 ? signedNumber(value) : hex(static_cast<uint64_t>(value)));
    }
    if (bytes.size() < total) s += ", ...";
    return s + "]";
}

std::string values(const std::vector<uint8_t> &bytes, api::Type type, uint32_t width, size_t total,
                   size_t limit, uint16_t group) {
    std::string s = "{";
    size_t n = std::min(bytes.size() / width, limit);
    for (size_t i = 0; i < n; ++i) {
        if (i) s += ", ";
        s += formatValue(type, readLe(&bytes[i * width], width), group);
    }
    size_t all = total / width;
    if (all > n) s += (n ? ", ..." : "...") + std::string(" (") + number(all) + " values)";
    return s + "}";
}

std::string firstBytes(const std::vector<uint8_t> &bytes, size_t limit, size_t total) {
    std::string s;
    char buffer[4];
    size_t n = std::min(bytes.size(), limit);
    for (size_t i = 0; i < n; ++i) {
        std::snprintf(buffer, sizeof(buffer), "%02x", bytes[i]);
        if (i) s += ' ';
        s += buffer;
    }
    if (total > n) s += " ...";
    return s;
}

// Text as lines of its own, each after `prefix`; control characters other than tabs are escaped.
std::string textLines(const uint8_t *text, size_t n, const std::string &prefix) {
    std::string s = prefix;
    for (size_t i = 0; i < n; ++i) {
        uint8_t c = text[i];
        if (c == '\n') {
            s += '\n';
            if (i + 1 < n) s += prefix;
        } else if (c == '\t' || (c >= 0x20 && c < 0x7F)) {
            s += static_cast<char>(c);
        } else {
            char buffer[8];
            std::snprintf(buffer, sizeof(buffer), "\\x%02x", c);
            s += buffer;
        }
    }
    if (s.back() != '\n') s += '\n';
    return s;
}

std::string pointerText(uint64_t p) {
    return p ? hex(p) : std::string("NULL");
}

} // namespace

const char *glErrorName(uint32_t code) {
    switch (code) {
    case 0:
        return "GL_NO_ERROR";
    case 0x500:
        return "GL_INVALID_ENUM";
    case 0x501:
        return "GL_INVALID_VALUE";
    case 0x502:
        return "GL_INVALID_OPERATION";
    case 0x503:
        return "GL_STACK_OVERFLOW";
    case 0x504:
        return "GL_STACK_UNDERFLOW";
    case 0x505:
        return "GL_OUT_OF_MEMORY";
    case 0x506:
        return "GL_INVALID_FRAMEBUFFER_OPERATION";
    case 0x507:
        return "GL_CONTEXT_LOST";
    default:
        return nullptr;
    }
}

const char *clStatusName(int32_t status) {
    static const char *const kSuccessAndFailures[] = {
        "CL_SUCCESS",
        "CL_DEVICE_NOT_FOUND",
        "CL_DEVICE_NOT_AVAILABLE",
        "CL_COMPILER_NOT_AVAILABLE",
        "CL_MEM_OBJECT_ALLOCATION_FAILURE",
        "CL_OUT_OF_RESOURCES",
        "CL_OUT_OF_HOST_MEMORY",
        "CL_PROFILING_INFO_NOT_AVAILABLE",
        "CL_MEM_COPY_OVERLAP",
        "CL_IMAGE_FORMAT_MISMATCH",
        "CL_IMAGE_FORMAT_NOT_SUPPORTED",
        "CL_BUILD_PROGRAM_FAILURE",
        "CL_MAP_FAILURE",
        "CL_MISALIGNED_SUB_BUFFER_OFFSET",
        "CL_EXEC_STATUS_ERROR_FOR_EVENTS_IN_WAIT_LIST",
        "CL_COMPILE_PROGRAM_FAILURE",
        "CL_LINKER_NOT_AVAILABLE",
        "CL_LINK_PROGRAM_FAILURE",
        "CL_DEVICE_PARTITION_FAILED",
        "CL_KERNEL_ARG_INFO_NOT_AVAILABLE",
    };
    static const char *const kInvalid[] = {
        "CL_INVALID_VALUE",
        "CL_INVALID_DEVICE_TYPE",
        "CL_INVALID_PLATFORM",
        "CL_INVALID_DEVICE",
        "CL_INVALID_CONTEXT",
        "CL_INVALID_QUEUE_PROPERTIES",
        "CL_INVALID_COMMAND_QUEUE",
        "CL_INVALID_HOST_PTR",
        "CL_INVALID_MEM_OBJECT",
        "CL_INVALID_IMAGE_FORMAT_DESCRIPTOR",
        "CL_INVALID_IMAGE_SIZE",
        "CL_INVALID_SAMPLER",
        "CL_INVALID_BINARY",
        "CL_INVALID_BUILD_OPTIONS",
        "CL_INVALID_PROGRAM",
        "CL_INVALID_PROGRAM_EXECUTABLE",
        "CL_INVALID_KERNEL_NAME",
        "CL_INVALID_KERNEL_DEFINITION",
        "CL_INVALID_KERNEL",
        "CL_INVALID_ARG_INDEX",
        "CL_INVALID_ARG_VALUE",
        "CL_INVALID_ARG_SIZE",
        "CL_INVALID_KERNEL_ARGS",
        "CL_INVALID_WORK_DIMENSION",
        "CL_INVALID_WORK_GROUP_SIZE",
        "CL_INVALID_WORK_ITEM_SIZE",
        "CL_INVALID_GLOBAL_OFFSET",
        "CL_INVALID_EVENT_WAIT_LIST",
        "CL_INVALID_EVENT",
        "CL_INVALID_OPERATION",
        "CL_INVALID_GL_OBJECT",
        "CL_INVALID_BUFFER_SIZE",
        "CL_INVALID_MIP_LEVEL",
        "CL_INVALID_GLOBAL_WORK_SIZE",
        "CL_INVALID_PROPERTY",
        "CL_INVALID_IMAGE_DESCRIPTOR",
        "CL_INVALID_COMPILER_OPTIONS",
        "CL_INVALID_LINKER_OPTIONS",
        "CL_INVALID_DEVICE_PARTITION_COUNT",
    };
    constexpr int32_t kFailures =
        static_cast<int32_t>(sizeof(kSuccessAndFailures) / sizeof(kSuccessAndFailures[0]));
    constexpr int32_t kInvalidCount = static_cast<int32_t>(sizeof(kInvalid) / sizeof(kInvalid[0]));
    if (status <= 0 && status > -kFailures) return kSuccessAndFailures[-status];
    if (status <= -30 && status > -30 - kInvalidCount) return kInvalid[-30 - status];
    return nullptr;
}

std::string formatFloat(float value) {
    char buffer[48];
    for (int precision = 6; precision <= 9; ++precision) {
        std::snprintf(buffer, sizeof(buffer), "%.*g", precision, static_cast<double>(value));
        if (std::strtof(buffer, nullptr) == value) break;
    }
    std::string s = buffer;
    if (std::isfinite(value) && s.find_first_of(".e") == std::string::npos) s += ".0";
    return s;
}

const char *valueName(api::Type type, uint64_t bits, uint16_t enumGroup) {
    uint32_t v = static_cast<uint32_t>(bits);
    switch (type) {
    case api::Type::GlEnum:
        return names::glEnumName(v, enumGroup);
    case api::Type::EglEnum:
        return names::eglEnumName(v);
    case api::Type::GlBoolean:
        return v == 0 ? "GL_FALSE" : v == 1 ? "GL_TRUE" : nullptr;
    case api::Type::EglBoolean:
        return v == 0 ? "EGL_FALSE" : v == 1 ? "EGL_TRUE" : nullptr;
    case api::Type::ClStatus:
        return clStatusName(static_cast<int32_t>(v));
    default:
        return nullptr;
    }
}

std::string formatValue(api::Type type, uint64_t bits, uint16_t enumGroup) {
    if (const char *name = valueName(type, bits, enumGroup)) return name;
    switch (type) {
    case api::Type::None:
        return "";
    case api::Type::U8:
    case api::Type::U16:
    case api::Type::U32:
    case api::Type::U64:
    case api::Type::GlBoolean:
    case api::Type::EglBoolean:
        return number(bits);
    case api::Type::I16:
        return signedNumber(static_cast<int16_t>(bits));
    case api::Type::I32:
    case api::Type::ClStatus:
        return signedNumber(static_cast<int32_t>(bits));
    case api::Type::I64:
        return signedNumber(static_cast<int64_t>(bits));
    case api::Type::F32:
        return formatFloat(asFloat(bits));
    case api::Type::Fixed: {
        char buffer[32];
        std::snprintf(buffer, sizeof(buffer), "%.6g", static_cast<int32_t>(bits) / 65536.0);
        return buffer;
    }
    case api::Type::GlEnum:
    case api::Type::EglEnum: {
        char buffer[16];
        std::snprintf(buffer, sizeof(buffer), "0x%04X", static_cast<uint32_t>(bits));
        return buffer;
    }
    case api::Type::GlBitfield: {
        char buffer[16];
        std::snprintf(buffer, sizeof(buffer), "0x%08X", static_cast<uint32_t>(bits));
        return buffer;
    }
    case api::Type::Ptr:
        return pointerText(bits);
    case api::Type::Handle:
        return hex(bits);
    case api::Type::Char: {
        uint8_t c = static_cast<uint8_t>(bits);
        return quoteText(&c, 1, 1);
    }
    }
    return number(bits);
}

const char *resultName(const api::FuncDesc &function, uint64_t bits) {
    // The error queries return error codes, which the enum tables name otherwise (0 is GL_NONE).
    if (function.error == api::ErrorKind::Gl && std::strcmp(function.name, "glGetError") == 0)
        return glErrorName(static_cast<uint32_t>(bits));
    if (function.error == api::ErrorKind::Egl && std::strcmp(function.name, "eglGetError") == 0)
        return names::eglEnumName(static_cast<uint32_t>(bits));
    return valueName(function.result, bits);
}

std::string formatResult(const api::FuncDesc &function, uint64_t bits) {
    if (const char *name = resultName(function, bits)) return name;
    return formatValue(function.result, bits);
}

std::string formatError(api::ErrorKind kind, uint32_t code) {
    const char *name = nullptr;
    switch (kind) {
    case api::ErrorKind::None:
        return "";
    case api::ErrorKind::Gl:
        name = glErrorName(code);
        break;
    case api::ErrorKind::Egl:
        name = names::eglEnumName(code);
        break;
    case api::ErrorKind::Cl:
        name = clStatusName(static_cast<int32_t>(code));
        if (!name) return signedNumber(static_cast<int32_t>(code));
        break;
    }
    return name ? std::string(name) : hex(code);
}

std::string quoteText(const uint8_t *text, size_t n, size_t limit) {
    std::string s = "\"";
    size_t shown = std::min(n, limit);
    for (size_t i = 0; i < shown; ++i) {
        uint8_t c = text[i];
        switch (c) {
        case '"':
            s += "\\\"";
            break;
        case '\\':
            s += "\\\\";
            break;
        case '\n':
            s += "\\n";
            break;
        case '\r':
            s += "\\r";
            break;
        case '\t':
            s += "\\t";
            break;
        default:
            if (c < 0x20 || c >= 0x7F) {
                char buffer[8];
                std::snprintf(buffer, sizeof(buffer), "\\x%02x", c);
                s += buffer;
            } else {
                s += static_cast<char>(c);
            }
        }
    }
    s += '"';
    if (shown < n) s += "...(" + number(n) + " characters)";
    return s;
}

std::string hexDump(const uint8_t *data, size_t n, const std::string &indent) {
    std::string s;
    char buffer[32];
    for (size_t line = 0; line < n; line += 16) {
        std::snprintf(buffer, sizeof(buffer), "%08llx ", static_cast<unsigned long long>(line));
        s += indent;
        s += buffer;
        size_t k = std::min<size_t>(16, n - line);
        for (size_t i = 0; i < 16; ++i) {
            if (i == 8) s += ' ';
            if (i < k) {
                std::snprintf(buffer, sizeof(buffer), " %02x", data[line + i]);
                s += buffer;
            } else {
                s += "   ";
            }
        }
        s += "  |";
        for (size_t i = 0; i < k; ++i) {
            uint8_t c = data[line + i];
            s += (c >= 0x20 && c < 0x7F) ? static_cast<char>(c) : '.';
        }
        s += "|\n";
    }
    return s;
}

std::string summarizeBlock(Reader &reader, const Entry &entry, const Block &block, const FormatOptions &o) {
    const Arg *arg = argOf(entry, block);
    const Part *part = partOf(entry, block);
    api::Field kind = arg ? arg->field->kind : api::Field::Blob;
    bool attribs = kind == api::Field::Attribs || kind == api::Field::Attribs64;
    size_t limit = attribs ? 64 * 1024 : std::max({o.textLimit + 1, o.arrayLimit * 8, o.previewBytes});
    std::vector<uint8_t> bytes;
    std::string why;
    if (!reader.blockBytes(block, bytes, limit, &why))
        return "<" + sizeText(block) + ": unreadable: " + why + ">";

    if (block.element == api::Type::Char) {
        // Text the driver wrote is recorded with its terminator.
        size_t n = bytes.size();
        bool terminated = n == block.size && n > 0 && bytes[n - 1] == 0;
        if (terminated) --n;
        size_t total = terminated ? block.size - 1 : block.size;
        std::string s = quoteText(bytes.data(), std::min(n, o.textLimit), o.textLimit);
        if (total > o.textLimit) s += "...(" + number(total) + " characters)";
        return s;
    }
    if (attribs) {
        uint32_t width = kind == api::Field::Attribs ? 4 : 8;
        return attribPairs(bytes, width, block.size);
    }
    // 64-bit lists with names are the OpenCL property lists.
    if (block.element == api::Type::I64 && arg && arg->field->enumGroup)
        return propertyPairs(bytes, block.size, arg->field->enumGroup);
    if (part && part->kind == Part::Kind::Indices) {
        uint32_t width = indexWidth(entry);
        if (width) {
            api::Type type = width == 1 ? api::Type::U8 : width == 2 ? api::Type::U16 : api::Type::U32;
            return "<" + sizeText(block) + ": " + values(bytes, type, width, block.size, o.arrayLimit, 0) +
                   ">";
        }
    }
    uint32_t width = api::typeWidth(block.element);
    bool typed = width >= 2 || block.element == api::Type::GlBoolean;
    if (typed && block.size % width == 0) {
        uint16_t group = arg ? arg->field->enumGroup : 0;
        std::string v = values(bytes, block.element, width, block.size, o.arrayLimit, group);
        if (block.size / width <= o.arrayLimit && !block.compressed) return v;
        return "<" + sizeText(block) + ": " + v + ">";
    }
    return "<" + sizeText(block) + ": " + firstBytes(bytes, o.previewBytes, block.size) + ">";
}

namespace {

std::string blockOrCount(Reader &reader, const Entry &e, int32_t blockIndex, uint32_t count, bool missing,
                         const FormatOptions &o) {
    if (blockIndex >= 0 && static_cast<size_t>(blockIndex) < e.blocks.size())
        return summarizeBlock(reader, e, e.blocks[static_cast<size_t>(blockIndex)], o);
    if (missing) return "<" + number(count) + " bytes not captured>";
    return "<" + number(count) + " bytes>";
}

std::string formatArg(Reader &reader, const Entry &e, const Arg &a, const FormatOptions &o) {
    const api::FieldDesc &f = *a.field;
    std::string s = std::string(f.name) + "=";
    switch (f.kind) {
    case api::Field::Value:
        return s + formatValue(f.type, a.value, f.enumGroup);
    case api::Field::Repeat:
        return s + number(a.value);
    case api::Field::Blob:
    case api::Field::Attribs:
    case api::Field::Attribs64:
    case api::Field::String:
        if (!a.value) return s + "NULL";
        if (!a.hasCount) return s + hex(a.value);
        if (a.block >= 0) {
            std::string summary = blockOrCount(reader, e, a.block, a.count, false, o);
            // Text and attribute lists speak for themselves; other data keeps its pointer.
            if (f.type == api::Type::Char || f.kind != api::Field::Blob ||
                (!summary.empty() && summary[0] == '{'))
                return s + summary;
            return s + hex(a.value) + " " + summary;
        }
        if (a.count == 0) return s + hex(a.value) + (f.kind == api::Field::String ? " \"\"" : " <no data>");
        return s + hex(a.value) + " " + blockOrCount(reader, e, -1, a.count, false, o);
    case api::Field::StringArray: {
        if (!a.value) return s + "NULL";
        if (!a.hasCount) return s + hex(a.value);
        s += "[";
        for (uint32_t k = 0; k < a.partCount; ++k) {
            const Part &p = e.parts[a.firstPart + k];
            if (k) s += ", ";
            if (!p.pointer)
                s += "NULL";
            else if (p.block >= 0)
                s += summarizeBlock(reader, e, e.blocks[static_cast<size_t>(p.block)], o);
            else
                s += "\"\"";
        }
        if (a.partCount < a.count) s += ", ...(" + number(a.count) + " strings)";
        return s + "]";
    }
    case api::Field::ArraysTail:
    case api::Field::ElementsTail: {
        s += "{";
        bool first = true;
        for (uint32_t k = 0; k < a.partCount; ++k) {
            const Part &p = e.parts[a.firstPart + k];
            if (!first) s += ", ";
            first = false;
            if (p.kind == Part::Kind::Indices)
                s += "indices " + pointerText(p.pointer);
            else
                s += "attrib " + number(p.index) + " " + pointerText(p.pointer);
            if (p.count || p.missing) s += " " + blockOrCount(reader, e, p.block, p.count, p.missing, o);
        }
        if (a.draws) s += std::string(first ? "" : ", ") + "draws " + number(a.draws);
        if (a.partial) s += std::string(first ? "" : ", ") + "capture stopped";
        return s + "}";
    }
    }
    return s + "?";
}

} // namespace

std::string formatEntry(Reader &reader, const Entry &e, const FormatOptions &o) {
    std::string line;
    switch (e.kind) {
    case Entry::Kind::Thread:
        return number(e.index) + " -- thread " + number(e.thread);
    case Entry::Kind::Snapshot:
        return number(e.index) + (e.inSnapshot ? " -- snapshot begins" : " -- snapshot ends");
    case Entry::Kind::End:
        return "-- end marker at offset " + number(e.offset);
    case Entry::Kind::Unreadable:
        line = number(e.index) + " [t " + number(e.thread) + "] ?? ";
        line += e.desc ? std::string(e.desc->name) : "id " + number(e.id);
        line += " (" + number(e.length) + " bytes at offset " + number(e.offset) + ")";
        return line + " !! " + e.problem;
    case Entry::Kind::Call:
        break;
    }
    line = number(e.index) + " [t " + number(e.thread) + "] ";
    if (e.inSnapshot) line += "[snapshot] ";
    line += e.name();
    line += '(';
    bool first = true;
    for (const Arg &a : e.args) {
        bool tail = a.field->kind == api::Field::ArraysTail || a.field->kind == api::Field::ElementsTail;
        // A draw the driver rejected (or a trace without client data) has nothing to show.
        if (tail && a.partCount == 0 && !a.draws) continue;
        if (!first) line += ", ";
        first = false;
        line += formatArg(reader, e, a, o);
    }
    line += ')';
    if (e.desc && e.desc->result != api::Type::None) line += " = " + formatResult(*e.desc, e.result);
    if (e.desc && e.desc->error != api::ErrorKind::None) line += " -> " + formatError(e.desc->error, e.error);
    if (e.droppedParts) line += " (" + number(e.droppedParts) + " more parts not shown)";
    if (!e.problem.empty()) line += " !! " + e.problem;

    if (o.fullBlocks) {
        std::vector<uint8_t> bytes;
        for (size_t k = 0; k < e.blocks.size(); ++k) {
            const Block &b = e.blocks[k];
            const Arg *a = argOf(e, b);
            line += "\n    block " + number(k) + " (" + (a ? a->field->name : "?") + "): " + sizeText(b) +
                    " at offset " + number(b.offset) + "\n";
            std::string why;
            if (!reader.blockBytes(b, bytes, o.fullLimit, &why)) {
                line += "      unreadable: " + why + "\n";
                continue;
            }
            if (b.element == api::Type::Char) {
                line += textLines(bytes.data(), bytes.size(), "      | ");
            } else {
                line += hexDump(bytes.data(), bytes.size(), "      ");
            }
            if (bytes.size() < b.size)
                line += "      ...(" + number(b.size - bytes.size()) + " more bytes)\n";
        }
        if (!line.empty() && line.back() == '\n') line.pop_back();
    }
    return line;
}

} // namespace kv::reader
