// kalvoren frames: the frame buffers a trace saved, as PNG files, without replaying anything.
#include "tools/cli.h"

#include "platform/process.h"
#include "replay/player.h"
#include "replay/png.h"
#include "trace/reader.h"

#include <cstring>

namespace kv::cli {

namespace {

const char kHelp[] =
    "usage: kalvoren frames TRACE -o DIR [--frames A-B]\n"
    "\n"
    "Writes the frame buffers saved in the trace (recorded with SaveFrameBuffer) to DIR as PNG\n"
    "files named frame-NNNNNN.png, the frame number as recorded.\n"
    "\n"
    "Options:\n"
    "  -o DIR, --output DIR   where the files go (made when missing)\n"
    "  --frames A-B           only frames A to B ('A-' to the end, 'A' just A)\n";

int fieldIndex(const reader::Entry &e, const char *name) {
    for (size_t i = 0; i < e.args.size(); ++i)
        if (std::strcmp(e.args[i].field->name, name) == 0) return static_cast<int>(i);
    return -1;
}

} // namespace

int framesCommand(const std::vector<std::string> &args) {
    std::string path, directory;
    uint64_t first = 0, last = UINT64_MAX;
    for (size_t i = 0; i < args.size(); ++i) {
        const std::string &a = args[i];
        if (a == "--help" || a == "-h") {
            std::fputs(kHelp, stdout);
            return kExitOk;
        } else if (a == "-o" || a == "--output") {
            const std::string *v = optionValue(args, i, "a directory");
            if (!v) return kExitUsage;
            directory = *v;
        } else if (a == "--frames") {
            const std::string *v = optionValue(args, i, "a range of frames");
            if (!v) return kExitUsage;
            if (!parseRange(*v, first, last)) {
                complain("--frames: '%s' is not a range of frames like 10-20", v->c_str());
                return kExitUsage;
            }
        } else if (!takeTracePath("frames", a, path)) {
            return kExitUsage;
        }
    }
    if (path.empty() || directory.empty()) {
        complain("frames: usage: kalvoren frames TRACE -o DIR [--frames A-B]");
        return kExitUsage;
    }
    if (!makeOutputDirectory(directory)) return kExitUsage;
    std::string error;
    std::unique_ptr<reader::Reader> r = reader::Reader::openFile(path, &error);
    if (!r) {
        complain("%s: %s", path.c_str(), error.c_str());
        return kExitUsage;
    }
    // Only the swaps are decoded; their pixels are read when a frame is written.
    std::vector<bool> swaps(65536, false);
    swaps[1022] = swaps[1119] = true;
    r->decodeOnly(&swaps);
    reader::Entry e;
    uint64_t written = 0, withoutPixels = 0, failed = 0;
    std::vector<uint8_t> pixels;
    while (r->next(e)) {
        if (e.kind != reader::Entry::Kind::Call || e.args.empty() || !e.problem.empty()) continue;
        int fi = fieldIndex(e, "frame"), wi = fieldIndex(e, "fbWidth"), hi = fieldIndex(e, "fbHeight"),
            pi = fieldIndex(e, "fbPixels");
        if (fi < 0 || wi < 0 || hi < 0 || pi < 0) continue;
        uint64_t frame = e.args[static_cast<size_t>(fi)].value;
        if (frame < first || frame > last) continue;
        int32_t width = static_cast<int32_t>(e.args[static_cast<size_t>(wi)].value);
        int32_t height = static_cast<int32_t>(e.args[static_cast<size_t>(hi)].value);
        const reader::Arg &a = e.args[static_cast<size_t>(pi)];
        uint64_t expected = uint64_t(width > 0 ? width : 0) * uint64_t(height > 0 ? height : 0) * 4;
        if (a.block < 0 || expected == 0 || e.blocks[static_cast<size_t>(a.block)].size != expected) {
            ++withoutPixels;
            continue;
        }
        if (!r->blockBytes(e.blocks[static_cast<size_t>(a.block)], pixels, expected, &error)) {
            complain("frame %llu: %s", static_cast<unsigned long long>(frame), error.c_str());
            ++failed;
            continue;
        }
        std::string file = platform::joinPath(directory, replay::frameFileName(frame));
        if (!replay::writePng(file, width, height, pixels.data(), &error)) {
            complain("%s: %s", file.c_str(), error.c_str());
            ++failed;
            if (failed > 3) break;
            continue;
        }
        ++written;
    }
    std::printf("%llu frames written to %s", static_cast<unsigned long long>(written), directory.c_str());
    if (withoutPixels)
        std::printf(" (%llu frames without a saved frame buffer)",
                    static_cast<unsigned long long>(withoutPixels));
    std::printf("\n");
    if (failed || r->ending() == reader::Ending::Truncated) return kExitProblems;
    return written || withoutPixels ? kExitOk : kExitProblems;
}

} // namespace kv::cli
