// kalvoren dump: every record of a trace, one line each, as text or as JSON lines.
#include "tools/cli.h"

#include "api/enum_names.h"
#include "trace/reader.h"
#include "trace/value_format.h"

#include <json/json.h>

#include <cmath>
#include <cstring>
#include <iostream>
#include <memory>
#include <set>

namespace kv::cli {

namespace {

const char kHelp[] =
    "usage: kalvoren dump [OPTIONS] TRACE\n"
    "\n"
    "Writes one line per record in file order:\n"
    "  12 [t 4242] glUniform4f(location=3, v0=1.0, v1=0.5, v2=0.0, v3=1.0) -> GL_NO_ERROR\n"
    "with the record number, the thread, the call with its arguments, its result after '=' and\n"
    "its error after '->'. Data blocks are summarised (text, attribute lists, a few values or\n"
    "their first bytes); markers show as '-- thread', '-- snapshot begins/ends', '-- end marker'.\n"
    "A record that cannot be read whole ends with '!!' and the reason.\n"
    "\n"
    "Options:\n"
    "  --blocks           every data block in full after its record (text as text, else hex)\n"
    "  --calls A-B        only records A to B ('A-' to the end, 'A' just A)\n"
    "  --thread T         only calls made on thread T\n"
    "  --function NAME    only calls of NAME (repeat, or separate names with commas)\n"
    "  --json             one JSON object per record (JSON Lines): index, offset, thread, id,\n"
    "                     function, error, result, args, blocks; markers carry a kind\n";

struct DumpOptions {
    bool json = false;
    uint64_t first = 0;
    uint64_t last = UINT64_MAX;
    bool byThread = false;
    uint64_t thread = 0;
    std::set<std::string> functions;
    reader::FormatOptions format;
};

unsigned long long ull(uint64_t v) {
    return static_cast<unsigned long long>(v);
}

std::string hexText(uint64_t v) {
    char buffer[24];
    std::snprintf(buffer, sizeof(buffer), "0x%llx", ull(v));
    return buffer;
}

// Text from a trace as valid UTF-8: other bytes become U+FFFD.
std::string utf8(const uint8_t *p, size_t n) {
    std::string s;
    s.reserve(n);
    for (size_t i = 0; i < n;) {
        uint8_t c = p[i];
        size_t len = c < 0x80 ? 1 : (c >> 5) == 6 ? 2 : (c >> 4) == 14 ? 3 : (c >> 3) == 30 ? 4 : 0;
        bool ok = len > 0 && i + len <= n;
        for (size_t k = 1; ok && k < len; ++k)
            ok = (p[i + k] & 0xC0) == 0x80;
        if (ok && len > 1) {
            // Overlong forms, surrogates and values past U+10FFFF are not text.
            uint32_t cp = len == 2 ? c & 0x1F : len == 3 ? c & 0x0F : c & 0x07;
            for (size_t k = 1; k < len; ++k)
                cp = cp << 6 | (p[i + k] & 0x3F);
            ok = !(len == 2 && cp < 0x80) && !(len == 3 && cp < 0x800) && !(len == 4 && cp < 0x10000) &&
                 !(cp >= 0xD800 && cp <= 0xDFFF) && cp <= 0x10FFFF;
        }
        if (ok) {
            s.append(reinterpret_cast<const char *>(p + i), len);
            i += len;
        } else {
            s += "\xEF\xBF\xBD";
            ++i;
        }
    }
    return s;
}

std::string hexBytes(const std::vector<uint8_t> &bytes) {
    static const char kDigits[] = "0123456789abcdef";
    std::string s;
    s.reserve(bytes.size() * 2);
    for (uint8_t b : bytes) {
        s += kDigits[b >> 4];
        s += kDigits[b & 15];
    }
    return s;
}

Json::Value jsonValue(api::Type type, uint64_t bits, uint16_t group) {
    if (const char *name = reader::valueName(type, bits, group)) return name;
    switch (type) {
    case api::Type::I16:
        return static_cast<int16_t>(bits);
    case api::Type::I32:
    case api::Type::ClStatus:
        return static_cast<int32_t>(bits);
    case api::Type::I64:
        return Json::Int64(static_cast<int64_t>(bits));
    case api::Type::F32: {
        uint32_t b = static_cast<uint32_t>(bits);
        float f;
        std::memcpy(&f, &b, 4);
        if (!std::isfinite(f)) return reader::formatFloat(f);
        return static_cast<double>(f);
    }
    case api::Type::Fixed:
        return static_cast<int32_t>(bits) / 65536.0;
    case api::Type::Ptr:
    case api::Type::Handle:
        return hexText(bits);
    default:
        return Json::UInt64(bits);
    }
}

class JsonDumper {
public:
    JsonDumper(reader::Reader &r, const DumpOptions &o) : r_(r), o_(o) {
        Json::StreamWriterBuilder builder;
        builder["indentation"] = "";
        builder["emitUTF8"] = true;
        writer_.reset(builder.newStreamWriter());
    }

    void write(const reader::Entry &e) {
        Json::Value v(Json::objectValue);
        v["index"] = Json::UInt64(e.index);
        v["offset"] = Json::UInt64(e.offset);
        switch (e.kind) {
        case reader::Entry::Kind::Thread:
            v["kind"] = "thread";
            v["thread"] = Json::UInt64(e.thread);
            break;
        case reader::Entry::Kind::Snapshot:
            v["kind"] = e.inSnapshot ? "snapshot_begin" : "snapshot_end";
            break;
        case reader::Entry::Kind::End:
            v.removeMember("index");
            v["kind"] = "end";
            break;
        case reader::Entry::Kind::Unreadable:
            v["kind"] = "unreadable";
            v["thread"] = Json::UInt64(e.thread);
            v["id"] = e.id;
            v["length"] = e.length;
            if (e.desc) v["function"] = e.desc->name;
            break;
        case reader::Entry::Kind::Call:
            call(e, v);
            break;
        }
        if (!e.problem.empty()) v["problem"] = e.problem;
        writer_->write(v, &std::cout);
        std::cout << '\n';
    }

private:
    void call(const reader::Entry &e, Json::Value &v) {
        v["thread"] = Json::UInt64(e.thread);
        v["id"] = e.id;
        v["function"] = e.name();
        if (e.inSnapshot) v["snapshot"] = true;
        if (e.desc->error != api::ErrorKind::None) {
            v["error"] = reader::formatError(e.desc->error, e.error);
            v["error_code"] = e.error;
        }
        if (e.desc->result != api::Type::None) {
            const char *name = reader::resultName(*e.desc, e.result);
            v["result"] = name ? Json::Value(name) : jsonValue(e.desc->result, e.result, 0);
        }
        Json::Value &args = v["args"] = Json::Value(Json::objectValue);
        for (const reader::Arg &a : e.args)
            args[a.field->name] = arg(e, a);
        Json::Value &blocks = v["blocks"] = Json::Value(Json::arrayValue);
        for (const reader::Block &b : e.blocks) {
            Json::Value j(Json::objectValue);
            if (b.arg >= 0) j["arg"] = e.args[static_cast<size_t>(b.arg)].field->name;
            if (b.part >= 0) j["part"] = b.part;
            j["offset"] = Json::UInt64(b.offset);
            j["size"] = b.size;
            j["stored"] = b.stored;
            j["compressed"] = b.compressed;
            j["summary"] = utf8Summary(e, b);
            if (o_.format.fullBlocks) {
                std::string why;
                if (r_.blockBytes(b, bytes_, o_.format.fullLimit, &why))
                    j["data"] = hexBytes(bytes_);
                else
                    j["unreadable"] = why;
            }
            blocks.append(j);
        }
        if (e.droppedParts) v["dropped_parts"] = Json::UInt64(e.droppedParts);
    }

    std::string utf8Summary(const reader::Entry &e, const reader::Block &b) {
        std::string s = reader::summarizeBlock(r_, e, b, o_.format);
        return utf8(reinterpret_cast<const uint8_t *>(s.data()), s.size());
    }

    Json::Value text(const reader::Entry &e, int32_t block) {
        if (block < 0) return "";
        const reader::Block &b = e.blocks[static_cast<size_t>(block)];
        size_t limit = o_.format.fullBlocks ? o_.format.fullLimit : kTextLimit;
        if (!r_.blockBytes(b, bytes_, limit)) return Json::Value();
        size_t n = bytes_.size();
        if (n == b.size && n > 0 && bytes_[n - 1] == 0) --n;
        return utf8(bytes_.data(), n);
    }

    Json::Value arg(const reader::Entry &e, const reader::Arg &a) {
        const api::FieldDesc &f = *a.field;
        if (f.kind == api::Field::Value) return jsonValue(f.type, a.value, f.enumGroup);
        if (f.kind == api::Field::Repeat) return Json::Value(Json::UInt64(a.value));
        Json::Value j(Json::objectValue);
        bool tail = f.kind == api::Field::ArraysTail || f.kind == api::Field::ElementsTail;
        if (!tail) j["pointer"] = hexText(a.value);
        if (a.hasCount) j[f.kind == api::Field::String ? "length" : "count"] = a.count;
        if (a.block >= 0) j["block"] = a.block;
        if (f.kind == api::Field::String || (f.kind == api::Field::Blob && f.type == api::Type::Char)) {
            if (a.block >= 0) {
                j["text"] = text(e, a.block);
                if (!o_.format.fullBlocks && e.blocks[static_cast<size_t>(a.block)].size > kTextLimit)
                    j["text_cut"] = true;
            }
        } else if ((f.kind == api::Field::Attribs || f.kind == api::Field::Attribs64) && a.block >= 0) {
            j["attribs"] =
                attribs(e.blocks[static_cast<size_t>(a.block)], f.kind == api::Field::Attribs ? 4 : 8);
        } else if (f.kind == api::Field::StringArray && a.hasCount) {
            Json::Value &strings = j["strings"] = Json::Value(Json::arrayValue);
            for (uint32_t k = 0; k < a.partCount; ++k) {
                const reader::Part &p = e.parts[a.firstPart + k];
                strings.append(p.pointer ? text(e, p.block) : Json::Value());
            }
        } else if (tail) {
            Json::Value &parts = j["parts"] = Json::Value(Json::arrayValue);
            for (uint32_t k = 0; k < a.partCount; ++k) {
                const reader::Part &p = e.parts[a.firstPart + k];
                Json::Value part(Json::objectValue);
                part["kind"] = p.kind == reader::Part::Kind::Indices ? "indices" : "attrib";
                part["index"] = p.index;
                part["pointer"] = hexText(p.pointer);
                part["count"] = p.count;
                if (p.block >= 0) part["block"] = p.block;
                if (p.missing) part["missing"] = true;
                parts.append(part);
            }
            if (a.draws) j["draws"] = Json::UInt64(a.draws);
            if (a.partial) j["partial"] = true;
        }
        return j;
    }

    Json::Value attribs(const reader::Block &b, uint32_t width) {
        Json::Value list(Json::arrayValue);
        if (!r_.blockBytes(b, bytes_, 64 * 1024)) return list;
        for (size_t i = 0; i + width <= bytes_.size(); i += 2 * width) {
            uint64_t key = 0, value = 0;
            std::memcpy(&key, &bytes_[i], width);
            Json::Value pair(Json::arrayValue);
            const char *name = names::eglEnumName(static_cast<uint32_t>(key));
            pair.append(name ? Json::Value(name) : Json::Value(Json::UInt64(key)));
            if (key == 0x3038) { // EGL_NONE ends the list
                list.append(pair);
                break;
            }
            if (i + 2 * width > bytes_.size()) break;
            std::memcpy(&value, &bytes_[i + width], width);
            pair.append(width == 4 ? Json::Value(static_cast<int32_t>(value))
                                   : Json::Value(Json::Int64(static_cast<int64_t>(value))));
            list.append(pair);
        }
        return list;
    }

    static constexpr size_t kTextLimit = 4096;
    reader::Reader &r_;
    const DumpOptions &o_;
    std::unique_ptr<Json::StreamWriter> writer_;
    std::vector<uint8_t> bytes_;
};

bool wanted(const reader::Entry &e, const DumpOptions &o) {
    if (e.kind != reader::Entry::Kind::End && (e.index < o.first || e.index > o.last)) return false;
    bool filtered = o.byThread || !o.functions.empty();
    if (!filtered) return true;
    if (e.kind != reader::Entry::Kind::Call && e.kind != reader::Entry::Kind::Unreadable) return false;
    if (o.byThread && e.thread != o.thread) return false;
    if (!o.functions.empty() && !o.functions.count(e.name())) return false;
    return true;
}

int parse(const std::vector<std::string> &args, DumpOptions &o, std::string &path) {
    for (size_t i = 0; i < args.size(); ++i) {
        const std::string &a = args[i];
        if (a == "--help" || a == "-h") {
            std::fputs(kHelp, stdout);
            return -1;
        } else if (a == "--json") {
            o.json = true;
        } else if (a == "--blocks") {
            o.format.fullBlocks = true;
        } else if (a == "--calls") {
            const std::string *v = optionValue(args, i, "a range of records, like 10-20");
            if (!v) return kExitUsage;
            if (!parseRange(*v, o.first, o.last)) {
                complain("--calls: '%s' is not a range of records like 10-20", v->c_str());
                return kExitUsage;
            }
        } else if (a == "--thread") {
            const std::string *v = optionValue(args, i, "a thread id");
            if (!v) return kExitUsage;
            if (!parseNumber(*v, o.thread)) {
                complain("--thread: '%s' is not a thread id", v->c_str());
                return kExitUsage;
            }
            o.byThread = true;
        } else if (a == "--function") {
            const std::string *v = optionValue(args, i, "a function name");
            if (!v) return kExitUsage;
            size_t start = 0;
            while (start <= v->size()) {
                size_t comma = v->find(',', start);
                if (comma == std::string::npos) comma = v->size();
                if (comma > start) o.functions.insert(v->substr(start, comma - start));
                start = comma + 1;
            }
        } else if (!takeTracePath("dump", a, path)) {
            return kExitUsage;
        }
    }
    if (path.empty()) {
        std::fputs(kHelp, stderr);
        return kExitUsage;
    }
    return kExitOk;
}

} // namespace

int dumpCommand(const std::vector<std::string> &args) {
    DumpOptions o;
    std::string path;
    int rc = parse(args, o, path);
    if (rc < 0) return kExitOk;
    if (rc != kExitOk) return rc;

    std::string error;
    std::unique_ptr<reader::Reader> r = reader::Reader::openFile(path, &error);
    if (!r) {
        complain("%s: %s", path.c_str(), error.c_str());
        return kExitUsage;
    }
    std::ios::sync_with_stdio(false);
    JsonDumper json(*r, o);
    reader::Entry e;
    bool stoppedEarly = false;
    while (r->next(e)) {
        if (e.kind != reader::Entry::Kind::End && e.index > o.last) {
            stoppedEarly = true;
            break;
        }
        if (!wanted(e, o)) continue;
        if (o.json)
            json.write(e);
        else
            std::cout << reader::formatEntry(*r, e, o.format) << '\n';
    }
    std::cout.flush();

    for (const reader::Problem &p : r->problems())
        complain("%s", reader::describe(p).c_str());
    if (r->problemCount() > r->problems().size())
        complain("... and %llu more problems", ull(r->problemCount() - r->problems().size()));
    if (!stoppedEarly)
        for (const std::string &note : r->notes())
            complain("note: %s", note.c_str());
    if (!std::cout.good()) {
        complain("could not write the dump");
        return kExitUsage;
    }
    return r->problemCount() ? kExitProblems : kExitOk;
}

} // namespace kv::cli
