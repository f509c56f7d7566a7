// kalvoren record: runs a program with Kalvoren's front libraries in place of its drivers, with a
// configuration made for the run, and shows what the trace holds.
#include "tools/cli.h"

#include "platform/platform.h"
#include "platform/process.h"

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
#include <json/json.h>
#pragma GCC diagnostic pop

#include <cstdio>
#include <fstream>
#include <memory>
#include <sstream>

// Where the front libraries are installed, relative to the installed `kalvoren` (set by the build).
#ifndef KV_FRONT_RELATIVE
#define KV_FRONT_RELATIVE "../lib/kalvoren"
#endif

namespace kv::cli {

namespace {

const char kHelp[] =
    "usage: kalvoren record [OPTIONS] -- PROGRAM [ARGS...]\n"
    "\n"
    "Runs PROGRAM with Kalvoren in place of its EGL, OpenGL ES and OpenCL drivers, records its\n"
    "calls, then shows `kalvoren info` of the trace. The exit status is the program's; 127 when it\n"
    "could not be started, 2 when the recording could not be set up (bad options, no front libraries).\n"
    "\n"
    "Options:\n"
    "  -o FILE            the trace file (default: ./PROGRAM.kalvoren)\n"
    "  --frames A-B       record frames A to B only ('A-' from A on; default: every frame)\n"
    "  --compress         store bulk data (textures, buffers, vertex arrays) deflated\n"
    "  --save-frames      record the frame buffer at every frame end\n"
    "  --config FILE      start from this configuration file: its sections are kept, and the\n"
    "                     options above take precedence over the same Tracing keys in it\n"
    "  --no-info          do not show the summary of the trace afterwards\n"
    "\n"
    "The configuration is written to a temporary file named by KALVOREN_CONFIG for the run; a\n"
    "kalvorenconfig.json in the working directory is not read (pass it with --config).\n"
    "\n"
    "Where the front libraries come from: KALVOREN_LIB_DIR, else the installed folder\n"
    "(bin/" KV_FRONT_RELATIVE "), else the build tree's (bin/../lib), else this program's own\n"
    "directory. They are never installed on the system's library path: only programs started by\n"
    "`kalvoren record` load them.\n"
    "On Linux that directory is put first on LD_LIBRARY_PATH. On Windows a program loads the DLLs\n"
    "in its own directory before any other: copy libEGL.dll, libGLESv2.dll, libGLES_CM.dll,\n"
    "libGLESv1_CM.dll, OpenCL.dll and kalvoren.dll next to PROGRAM (putting the directory first\n"
    "on PATH only helps programs whose own directory holds no such DLLs).\n";

struct RecordOptions {
    std::string output;
    bool frames = false;
    uint64_t startFrame = 0;
    uint64_t endFrame = UINT32_MAX;
    bool compress = false;
    bool saveFrames = false;
    std::string config;
    bool info = true;
    std::vector<std::string> program;
};

int parse(const std::vector<std::string> &args, RecordOptions &o) {
    size_t i = 0;
    for (; i < args.size(); ++i) {
        const std::string &a = args[i];
        if (a == "--") {
            ++i;
            break;
        } else if (a == "--help" || a == "-h") {
            std::fputs(kHelp, stdout);
            return -1;
        } else if (a == "-o" || a == "--output") {
            const std::string *v = optionValue(args, i, "a file name");
            if (!v) return kExitUsage;
            o.output = *v;
        } else if (a == "--frames") {
            const std::string *v = optionValue(args, i, "a range of frames, like 10-20");
            if (!v) return kExitUsage;
            if (!parseRange(*v, o.startFrame, o.endFrame) || o.startFrame > UINT32_MAX) {
                complain("--frames: '%s' is not a range of frames like 10-20", v->c_str());
                return kExitUsage;
            }
            if (o.endFrame > UINT32_MAX) o.endFrame = UINT32_MAX;
            o.frames = true;
        } else if (a == "--compress") {
            o.compress = true;
        } else if (a == "--save-frames") {
            o.saveFrames = true;
        } else if (a == "--config") {
            const std::string *v = optionValue(args, i, "a configuration file");
            if (!v) return kExitUsage;
            o.config = *v;
        } else if (a == "--no-info") {
            o.info = false;
        } else if (!a.empty() && a[0] == '-') {
            complain("record: unknown option '%s'", a.c_str());
            return kExitUsage;
        } else {
            break;
        }
    }
    o.program.assign(args.begin() + static_cast<std::ptrdiff_t>(i), args.end());
    if (o.program.empty()) {
        std::fputs(kHelp, stderr);
        return kExitUsage;
    }
    return kExitOk;
}

bool readConfig(const std::string &path, Json::Value &root) {
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        complain("--config: cannot open '%s'", path.c_str());
        return false;
    }
    std::stringstream text;
    text << in.rdbuf();
    std::string content = text.str();
    // Read it the way the library does: comments allowed.
    Json::Reader reader(Json::Features::all());
    if (!reader.parse(content.data(), content.data() + content.size(), root, false)) {
        complain("--config: '%s' is not valid JSON:\n%s", path.c_str(),
                 reader.getFormattedErrorMessages().c_str());
        return false;
    }
    if (!root.isObject()) {
        complain("--config: '%s' must hold an object of sections", path.c_str());
        return false;
    }
    return true;
}

// Puts the run's Tracing keys into the configuration. The "*" section, which the library applies
// first, gets them all; sections for particular programs apply after it, so the keys given on the
// command line (and the output file, which we must know) are replaced there too.
bool mergeSettings(Json::Value &root, const RecordOptions &o, const std::string &output) {
    if (root.isMember("*") && !root["*"].isObject()) {
        complain("--config: its \"*\" section is not an object");
        return false;
    }
    Json::Value &star = root["*"];
    if (star.isMember("Tracing") && !star["Tracing"].isObject()) {
        complain("--config: Tracing in its \"*\" section is not an object");
        return false;
    }
    Json::Value &tracing = star["Tracing"];
    Json::Value given(Json::objectValue);
    given["OutputFilename"] = output;
    if (o.frames) {
        given["StartFrame"] = Json::UInt(o.startFrame);
        given["EndFrame"] = Json::UInt(o.endFrame);
    }
    if (o.compress) given["UseCompression"] = true;
    if (o.saveFrames) given["SaveFrameBuffer"] = true;
    for (const std::string &key : given.getMemberNames())
        tracing[key] = given[key];
    if (!tracing.isMember("StartFrame")) tracing["StartFrame"] = 0;
    if (!tracing.isMember("EndFrame")) tracing["EndFrame"] = Json::UInt(UINT32_MAX);

    for (const std::string &name : root.getMemberNames()) {
        if (name == "*") continue;
        Json::Value &section = root[name];
        if (!section.isObject() || !section.isMember("Tracing") || !section["Tracing"].isObject()) continue;
        Json::Value &t = section["Tracing"];
        for (const std::string &key : given.getMemberNames()) {
            if (!t.isMember(key) || t[key] == given[key]) continue;
            complain("note: section '%s': Tracing.%s is replaced for this run", name.c_str(), key.c_str());
            t[key] = given[key];
        }
    }
    return true;
}

// The directory that holds the front libraries, found from this program's own place so that one
// binary works in the build tree (bin/../lib), in an install prefix or the package
// (bin/KV_FRONT_RELATIVE) and in the Windows folder (its own directory).
std::string frontDirectory() {
    const char *egl = platform::driverLibraryName(0);
    std::string given = platform::getEnv("KALVOREN_LIB_DIR");
    if (!given.empty()) return platform::fileExists(platform::joinPath(given, egl)) ? given : std::string();
    std::string bin = platform::directoryName(platform::executablePath());
    if (bin.empty()) bin = ".";
    for (const std::string &dir : {platform::joinPath(bin, KV_FRONT_RELATIVE),
                                   platform::joinPath(platform::joinPath(bin, ".."), "lib"), bin})
        if (platform::fileExists(platform::joinPath(dir, egl))) return platform::absolutePath(dir);
    return {};
}

std::string defaultOutput(const std::string &program) {
    std::string name = platform::baseName(program);
    if (name.size() > 4) {
        std::string ext = name.substr(name.size() - 4);
        for (char &c : ext)
            c = static_cast<char>(c >= 'A' && c <= 'Z' ? c - 'A' + 'a' : c);
        if (ext == ".exe") name.resize(name.size() - 4);
    }
    return name + ".kalvoren";
}

} // namespace

int recordCommand(const std::vector<std::string> &args) {
    RecordOptions o;
    int rc = parse(args, o);
    if (rc < 0) return kExitOk;
    if (rc != kExitOk) return rc;

    std::string output = platform::absolutePath(o.output.empty() ? defaultOutput(o.program[0]) : o.output);
    if (platform::isDirectory(output)) {
        // The library could not open it, and the program would run for nothing.
        complain("'%s' is a directory: give the trace a file name (-o DIR/NAME.kalvoren)", output.c_str());
        return kExitUsage;
    }
    Json::Value root(Json::objectValue);
    if (!o.config.empty() && !readConfig(o.config, root)) return kExitUsage;
    if (!mergeSettings(root, o, output)) return kExitUsage;

    std::string libDir = frontDirectory();
    if (libDir.empty()) {
        complain("cannot find the front libraries (%s and the others) near this program (%s): "
                 "reinstall Kalvoren, or set KALVOREN_LIB_DIR to the folder that holds them",
                 platform::driverLibraryName(0), platform::executablePath().c_str());
        return kExitUsage;
    }

    std::string configPath;
    std::FILE *file = platform::createTemporaryFile("kalvoren-record-", ".json", &configPath);
    if (!file) {
        complain("cannot create a temporary file for the configuration");
        return kExitUsage;
    }
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "  ";
    std::string text = Json::writeString(builder, root) + "\n";
    bool written = std::fwrite(text.data(), 1, text.size(), file) == text.size();
    written = std::fclose(file) == 0 && written;
    if (!written) {
        complain("cannot write the configuration to '%s'", configPath.c_str());
        std::remove(configPath.c_str());
        return kExitUsage;
    }

    platform::setEnv("KALVOREN_CONFIG", configPath);
    std::string search = platform::getEnv(platform::librarySearchVariable());
    platform::setEnv(platform::librarySearchVariable(),
                     search.empty() ? libDir : libDir + platform::pathListSeparator() + search);

    // A trace left from an earlier run must not pass for this run's. Only a file is removed: an
    // output named after a device or a pipe (/dev/null) is written to, never deleted.
    const bool notAFile = platform::pathExists(output) && !platform::fileExists(output);
    if (platform::fileExists(output)) std::remove(output.c_str());

    std::string error;
    int status = platform::runProgram(o.program, &error);
    std::remove(configPath.c_str());
    if (status < 0) {
        complain("%s (check the program's name; give its path, like ./%s, when it is not on PATH)",
                 error.c_str(), platform::baseName(o.program[0]).c_str());
        return kExitNoProgram;
    }

    if (notAFile) {
        // What went to a device or a pipe cannot be looked at again here.
        std::fprintf(stderr, "kalvoren: the trace went to '%s', which is not a file: it is not read back\n",
                     output.c_str());
        return status;
    }
    if (!platform::fileExists(output)) {
        complain(
            "no trace was written to '%s': did the program load its EGL, OpenGL ES or OpenCL libraries from "
            "%s?",
            output.c_str(), libDir.c_str());
        return status;
    }
    if (o.info) {
        std::fflush(stdout);
        std::fprintf(stdout, "\n");
        printInfo(output, InfoOptions(), stdout);
    } else {
        std::fprintf(stderr, "kalvoren: trace written to %s\n", output.c_str());
    }
    return status;
}

} // namespace kv::cli
