// kalvoren replay: plays a trace back on this machine's driver and compares its frames.
#include "tools/cli.h"

#include "base/messages.h"
#include "replay/player.h"

namespace kv::cli {

namespace {

const char kHelp[] =
    "usage: kalvoren replay [OPTIONS] TRACE\n"
    "\n"
    "Plays the recorded EGL and OpenGL ES calls back on this machine's driver, in the recorded order,\n"
    "one thread per recorded thread. Window surfaces become pbuffers of the recorded size. When the\n"
    "trace holds the frame buffers the application drew (SaveFrameBuffer), each replayed frame is\n"
    "read back at its swap and compared with the saved one. OpenCL calls are played on the ICD\n"
    "loader; their reads block and are compared with the bytes the recording read back.\n"
    "\n"
    "Options:\n"
    "  --frames A-B       replay up to frame B and report (compare, dump) from frame A on\n"
    "  --loop N           play frames A-B N more times (for benchmarks; best from a frame after\n"
    "                     the set-up, A > 0)\n"
    "  --no-compare       do not compare with the saved frame buffers\n"
    "  --tolerance T      frames whose channels differ by at most T count as equal (default 0)\n"
    "  --dump-frames DIR  write the replayed frames to DIR as PNG files (frame-NNNNNN.png)\n"
    "  --benchmark        only the calls: no comparison, dumps or progress; prints frames per second\n"
    "  --window           real windows instead of pbuffers (X11 on Linux, Win32 on Windows)\n"
    "  --quiet            no line per frame\n"
    "  --check-errors     ask the driver for its error after every OpenGL ES call and report the\n"
    "                     calls that fail here but succeeded when recorded\n"
    "  --egl PATH, --gles PATH   the driver libraries to play on (default: the system's)\n"
    "\n"
    "Exit status: 0 when every compared frame is within the tolerance and every record was played;\n"
    "1 when frames differ or records could not be played; 2 when the trace or the driver could not\n"
    "be opened.\n";

} // namespace

int replayCommand(const std::vector<std::string> &args) {
    replay::Options o;
    for (size_t i = 0; i < args.size(); ++i) {
        const std::string &a = args[i];
        if (a == "--help" || a == "-h") {
            std::fputs(kHelp, stdout);
            return kExitOk;
        } else if (a == "--frames") {
            const std::string *v = optionValue(args, i, "a range of frames");
            if (!v) return kExitUsage;
            if (!parseRange(*v, o.firstFrame, o.lastFrame)) {
                complain("--frames: '%s' is not a range of frames like 10-20", v->c_str());
                return kExitUsage;
            }
        } else if (a == "--loop") {
            const std::string *v = optionValue(args, i, "a count");
            uint64_t n = 0;
            if (!v || !parseNumber(*v, n) || n > UINT32_MAX) {
                if (v) complain("--loop: '%s' is not a count", v->c_str());
                return kExitUsage;
            }
            o.loops = static_cast<uint32_t>(n);
        } else if (a == "--tolerance") {
            const std::string *v = optionValue(args, i, "a channel difference");
            uint64_t n = 0;
            if (!v || !parseNumber(*v, n) || n > 255) {
                if (v) complain("--tolerance: '%s' is not a channel difference (0 to 255)", v->c_str());
                return kExitUsage;
            }
            o.tolerance = static_cast<uint32_t>(n);
        } else if (a == "--dump-frames") {
            const std::string *v = optionValue(args, i, "a directory");
            if (!v) return kExitUsage;
            o.dumpDirectory = *v;
        } else if (a == "--egl" || a == "--gles") {
            const std::string *v = optionValue(args, i, "a library path");
            if (!v) return kExitUsage;
            (a == "--egl" ? o.eglLibrary : o.glesLibrary) = *v;
        } else if (a == "--no-compare") {
            o.compare = false;
        } else if (a == "--benchmark") {
            o.benchmark = true;
        } else if (a == "--window") {
            o.window = true;
        } else if (a == "--check-errors") {
            o.checkErrors = true;
        } else if (a == "--quiet") {
            o.quiet = true;
        } else if (!takeTracePath("replay", a, o.trace)) {
            return kExitUsage;
        }
    }
    if (o.trace.empty()) {
        complain("replay: which trace? (kalvoren replay TRACE)");
        return kExitUsage;
    }
    if (o.benchmark) o.compare = false;
    if (!o.dumpDirectory.empty() && !makeOutputDirectory(o.dumpDirectory)) return kExitUsage;
    msg::keepProgressOffConsole(); // the host libraries' loading lines
    return replay::play(o);
}

} // namespace kv::cli
