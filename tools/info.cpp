// kalvoren info: what a trace holds, in words and totals.
#include "tools/cli.h"

#include "trace/reader.h"

#include <algorithm>
#include <cinttypes>
#include <cstring>
#include <map>
#include <set>
#include <string>

namespace kv::cli {

namespace {

constexpr uint16_t kSwapBuffers = 1022;
constexpr uint16_t kSwapBuffersWithDamage = 1119;
constexpr uint16_t kGetProcAddress = 1016;
// What eglGetProcAddress handed out (its record's `handedOut`).
constexpr uint64_t kHandedOutWrapper = 1, kHandedOutPartial = 2, kHandedOutUnrecorded = 3, kHandedOutHost = 4;
constexpr size_t kThreadsKept = 4096;

struct Totals {
    uint64_t records = 0;
    uint64_t calls = 0;
    uint64_t threadMarkers = 0;
    uint64_t snapshotMarkers = 0;
    uint64_t snapshotCalls = 0;
    uint64_t unreadable = 0;
    uint64_t frames = 0;
    uint64_t recordBytes = 0;
    std::vector<uint64_t> perId = std::vector<uint64_t>(65536);
    std::map<uint64_t, uint64_t> threads; // calls per thread
    uint64_t otherThreads = 0;            // threads beyond those kept
    uint64_t blocks = 0;
    uint64_t rawBytes = 0;
    uint64_t storedBytes = 0;
    uint64_t compressedBlocks = 0;
    uint64_t compressedRaw = 0;
    uint64_t compressedStored = 0;
    // Functions handed out by eglGetProcAddress, by what the application got.
    std::set<std::string> wrapped, partial, unrecorded;
    // Calls recorded by name only (functions the recorder has no wrapper for).
    std::map<std::string, uint64_t> partialCalls;
};

// The value of a record's field by name; false when the record has no such field.
bool fieldValue(const reader::Entry &e, const char *name, uint64_t &value) {
    for (const reader::Arg &a : e.args)
        if (std::strcmp(a.field->name, name) == 0) {
            value = a.value;
            return true;
        }
    return false;
}

std::string stringArg(reader::Reader &r, const reader::Entry &e, size_t index) {
    if (index >= e.args.size() || e.args[index].block < 0) return std::string();
    std::vector<uint8_t> text;
    if (!r.blockBytes(e.blocks[static_cast<size_t>(e.args[index].block)], text, 256)) return std::string();
    return std::string(text.begin(), text.end());
}

void countHandedOut(Totals &t, reader::Reader &r, const reader::Entry &e) {
    uint64_t handedOut = 0;
    if (!fieldValue(e, "handedOut", handedOut)) return;
    std::string name = stringArg(r, e, 0);
    if (name.empty()) return;
    if (handedOut == kHandedOutWrapper) t.wrapped.insert(name);
    if (handedOut == kHandedOutPartial) t.partial.insert(name);
    if (handedOut == kHandedOutUnrecorded || handedOut == kHandedOutHost) t.unrecorded.insert(name);
}

std::string text(const std::string &s) {
    // The header's texts are padded by some recorders; show them without trailing blanks.
    size_t end = s.find_last_not_of(" \t\r\n");
    if (end == std::string::npos) return "(none)";
    std::string shown;
    for (char c : s.substr(0, end + 1))
        shown += (c >= 0x20 && c < 0x7F) ? c : '?';
    return shown;
}

const char *onOff(bool v) {
    return v ? "on" : "off";
}

std::string frameText(uint32_t f) {
    return f == UINT32_MAX ? std::string("the last") : std::to_string(f);
}

unsigned long long ull(uint64_t v) {
    return static_cast<unsigned long long>(v);
}

void count(Totals &t, reader::Reader &r, const reader::Entry &e) {
    ++t.records;
    t.recordBytes += 6 + uint64_t(e.length);
    switch (e.kind) {
    case reader::Entry::Kind::Thread:
        ++t.threadMarkers;
        return;
    case reader::Entry::Kind::Snapshot:
        ++t.snapshotMarkers;
        return;
    case reader::Entry::Kind::End:
        --t.records;
        t.recordBytes -= 6 + uint64_t(e.length);
        return;
    case reader::Entry::Kind::Unreadable:
        ++t.unreadable;
        return;
    case reader::Entry::Kind::Call:
        break;
    }
    ++t.calls;
    ++t.perId[e.id];
    if (e.id == kGetProcAddress) countHandedOut(t, r, e);
    if (!e.calledName.empty()) ++t.partialCalls[e.calledName];
    if (e.inSnapshot) ++t.snapshotCalls;
    if (e.id == kSwapBuffers || e.id == kSwapBuffersWithDamage) ++t.frames;
    auto found = t.threads.find(e.thread);
    if (found != t.threads.end()) {
        ++found->second;
    } else if (t.threads.size() < kThreadsKept) {
        t.threads.emplace(e.thread, 1);
    } else {
        ++t.otherThreads;
    }
    for (const reader::Block &b : e.blocks) {
        ++t.blocks;
        t.rawBytes += b.size;
        t.storedBytes += b.stored;
        if (b.compressed) {
            ++t.compressedBlocks;
            t.compressedRaw += b.size;
            t.compressedStored += b.stored;
        }
    }
}

std::string bytes(uint64_t n) {
    char buffer[64];
    if (n < 10 * 1024)
        std::snprintf(buffer, sizeof(buffer), "%llu bytes", ull(n));
    else if (n < 10ull * 1024 * 1024)
        std::snprintf(buffer, sizeof(buffer), "%llu bytes (%.1f KiB)", ull(n), n / 1024.0);
    else if (n < 10ull * 1024 * 1024 * 1024)
        std::snprintf(buffer, sizeof(buffer), "%llu bytes (%.1f MiB)", ull(n), n / 1048576.0);
    else
        std::snprintf(buffer, sizeof(buffer), "%llu bytes (%.2f GiB)", ull(n), n / 1073741824.0);
    return buffer;
}

const char kHelp[] = "usage: kalvoren info [--top N] TRACE\n"
                     "\n"
                     "Shows a trace's header in words and what its records hold: calls per function\n"
                     "(the N most frequent, 20 by default; 0 lists them all), frames, threads, data\n"
                     "blocks with their compression, whether the recorder closed the trace, and the\n"
                     "problems found reading it.\n";

} // namespace

int printInfo(const std::string &path, const InfoOptions &options, std::FILE *out) {
    std::string error;
    std::unique_ptr<reader::Reader> r = reader::Reader::openFile(path, &error);
    if (!r) {
        complain("%s: %s", path.c_str(), error.c_str());
        return kExitUsage;
    }
    Totals t;
    {
        Progress progress("reading", r->fileSize());
        reader::Entry e;
        while (r->next(e)) {
            count(t, *r, e);
            progress.update(r->position());
        }
    }

    const reader::Header &h = r->header();
    std::fprintf(out, "Trace:         %s, %s\n", path.c_str(), bytes(r->fileSize()).c_str());
    std::fprintf(out, "Format:        version %u, little-endian, header of %llu bytes\n", h.version,
                 ull(h.size));
    std::fprintf(out, "Recorder:      %s\n", text(h.recorderVersion).c_str());
    std::fprintf(out, "Platform:      %s\n", text(h.platform).c_str());
    std::fprintf(out, "Description:   %s\n", text(h.description).c_str());
    std::fprintf(out, "Client data:   %s\n", h.recordData() ? "recorded" : "not recorded (pointers only)");
    std::fprintf(out, "Compression:   %s\n", onOff(h.compression()));
    std::fprintf(out, "Binaries:      %s\n",
                 h.disableBinaries() ? "program and shader binary formats hidden from the application"
                                     : "binary formats shown to the application");
    std::fprintf(out, "Frame buffers: %s\n", h.saveFrameBuffer ? "saved at every frame end" : "not saved");
    std::fprintf(out, "Frame range:   frames %u to %s\n", h.startFrame, frameText(h.endFrame).c_str());
    std::fprintf(out, "Network:       %s\n", h.network ? "recording controlled over the network" : "off");
    std::fputc('\n', out);

    std::fprintf(out, "Records:       %llu (%llu calls, %llu thread markers, %llu snapshot markers",
                 ull(t.records), ull(t.calls), ull(t.threadMarkers), ull(t.snapshotMarkers));
    if (t.unreadable) std::fprintf(out, ", %llu unreadable", ull(t.unreadable));
    std::fputs(")\n", out);
    if (t.snapshotMarkers)
        std::fprintf(out, "Snapshot:      %llu calls restore the render state\n", ull(t.snapshotCalls));
    std::fprintf(out, "Frames:        %llu (eglSwapBuffers and eglSwapBuffersWithDamageEXT calls)\n",
                 ull(t.frames));
    std::fprintf(out, "Threads:       %llu", ull(t.threads.size() + t.otherThreads));
    if (!t.threads.empty() && t.threads.size() <= 8) {
        std::fputs(" (", out);
        bool first = true;
        for (const auto &thread : t.threads) {
            std::fprintf(out, "%s%llu: %llu calls", first ? "" : ", ", ull(thread.first), ull(thread.second));
            first = false;
        }
        std::fputc(')', out);
    }
    std::fputc('\n', out);
    std::fprintf(out, "Record bytes:  %s\n", bytes(t.recordBytes).c_str());
    std::fprintf(out, "Data blocks:   %llu, %s of data stored in %s", ull(t.blocks),
                 bytes(t.rawBytes).c_str(), bytes(t.storedBytes).c_str());
    std::fputc('\n', out);
    if (t.compressedBlocks) {
        double ratio = t.compressedStored ? double(t.compressedRaw) / double(t.compressedStored) : 0.0;
        std::fprintf(out, "Compressed:    %llu blocks, %s deflated to %s (ratio %.2f:1)\n",
                     ull(t.compressedBlocks), bytes(t.compressedRaw).c_str(),
                     bytes(t.compressedStored).c_str(), ratio);
    }
    std::fprintf(out,
                 "Extensions:    %zu functions handed out as the recorder's wrappers, %zu recorded by name "
                 "only, %zu not recorded\n",
                 t.wrapped.size(), t.partial.size(), t.unrecorded.size());
    if (!t.unrecorded.empty()) {
        std::string names;
        for (const std::string &n : t.unrecorded)
            names += (names.empty() ? "" : ", ") + n;
        std::fprintf(out, "Not recorded:  %s (their calls passed the recorder by)\n", names.c_str());
    }
    if (!t.partialCalls.empty()) {
        uint64_t calls = 0;
        std::string names;
        for (const auto &entry : t.partialCalls) {
            calls += entry.second;
            names += (names.empty() ? "" : ", ") + entry.first + " " + std::to_string(entry.second);
        }
        std::fprintf(out, "By name only:  %llu calls with their raw arguments (%s)\n", ull(calls),
                     names.c_str());
    }
    std::fprintf(out, "End:           %s\n", reader::endingText(r->ending()));
    if (r->tailBytes() > 0)
        std::fprintf(
            out,
            "Tail:          %llu bytes follow the last complete record%s ('kalvoren repair' cuts them)\n",
            ull(r->tailBytes()), r->ending() == reader::Ending::EndMarker ? " and the end marker" : "");
    const std::string ending = reader::endingText(r->ending());
    for (const std::string &note : r->notes())
        if (note.compare(0, ending.size(), ending) != 0)
            std::fprintf(out, "Note:          %s\n", note.c_str());
    if (r->problemCount() == 0) {
        std::fputs("Problems:      none\n", out);
    } else {
        std::fprintf(out, "Problems:      %llu\n", ull(r->problemCount()));
        size_t shown = std::min<size_t>(r->problems().size(), 20);
        for (size_t i = 0; i < shown; ++i)
            std::fprintf(out, "  %s\n", reader::describe(r->problems()[i]).c_str());
        if (r->problemCount() > shown)
            std::fprintf(out, "  ... and %llu more\n", ull(r->problemCount() - shown));
    }

    std::vector<std::pair<uint64_t, uint16_t>> ranked;
    for (size_t id = 0; id < t.perId.size(); ++id)
        if (t.perId[id]) ranked.emplace_back(t.perId[id], static_cast<uint16_t>(id));
    std::sort(ranked.begin(), ranked.end(), [](const auto &a, const auto &b) {
        return a.first != b.first ? a.first > b.first : a.second < b.second;
    });
    size_t listed = options.top == 0 ? ranked.size() : std::min(ranked.size(), options.top);
    if (listed) {
        std::fprintf(out, "\nCalls per function (%s%zu of %zu functions):\n",
                     listed < ranked.size() ? "top " : "", listed, ranked.size());
        for (size_t i = 0; i < listed; ++i) {
            const api::FuncDesc *d = api::describe(ranked[i].second);
            const char *name = d && d->name && d->name[0] ? d->name
                               : ranked[i].second == 6000 ? "(OpenCL platform)"
                                                          : "(functions recorded by name only)";
            std::fprintf(out, "  %10llu  %s\n", ull(ranked[i].first), name);
        }
    }
    std::fflush(out);
    return r->problemCount() ? kExitProblems : kExitOk;
}

int infoCommand(const std::vector<std::string> &args) {
    InfoOptions options;
    std::string path;
    for (size_t i = 0; i < args.size(); ++i) {
        const std::string &a = args[i];
        if (a == "--help" || a == "-h") {
            std::fputs(kHelp, stdout);
            return kExitOk;
        }
        if (a == "--top") {
            uint64_t n;
            if (i + 1 >= args.size() || !parseNumber(args[i + 1], n) || n > 100000) {
                complain("--top needs a number of functions");
                return kExitUsage;
            }
            options.top = static_cast<size_t>(n);
            ++i;
        } else if (!takeTracePath("info", a, path)) {
            return kExitUsage;
        }
    }
    if (path.empty()) {
        std::fputs(kHelp, stderr);
        return kExitUsage;
    }
    return printInfo(path, options, stdout);
}

} // namespace kv::cli
