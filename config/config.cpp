#include "config/config.h"

#include "base/messages.h"
#include "host/host_paths.h"
#include "net/server.h"
#include "platform/platform.h"

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
#include <json/json.h>
#pragma GCC diagnostic pop

#include "base/no_destructor.h"

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <set>
#include <vector>
#include <cstring>
#include <memory>
#include <sys/stat.h>

namespace kv::config {

namespace {

const char *const kReportedKeys[kReportedStringCount] = {
    "EGLVendor",     "EGLVersion",    "EGLExtensions", "ES1Vendor",   "ES1Renderer",
    "ES1Version",    "ES1Extensions", "ES2Vendor",     "ES2Renderer", "ES2Version",
    "ES2Extensions", "ES3Vendor",     "ES3Renderer",   "ES3Version",  "ES3Extensions",
};

const char *const kOverrideKeys[kOverrideSwitchCount] = {
    "ForceViewport",           "DisableBlending",
    "Force2x2Textures",        "ForceFlatColourFrag",
    "DisableStencilTest",      "DisableDepthTest",
    "DisableScissorTest",      "DisableDrawCalls",
    "DisableFlushNFinish",     "DisableTextureModifications",
    "DisableTextureFiltering", "DisableAlphaTest",
    "DisableFBAccess",
};

constexpr const char *kBinaryExtensions =
    "GL_ZUL_shader_binary;GL_ARM_mali_shader_binary;GL_DMP_shader_binary;GL_FJ_shader_binary_GCCSO;"
    "GL_VIV_shader_binary;";

// Every key a section may hold, by the object that holds it ("" for the section itself).
struct KnownKeys {
    const char *object;
    std::vector<const char *> keys;
};

const std::vector<KnownKeys> &knownKeys() {
    static const std::vector<KnownKeys> known = [] {
        std::vector<KnownKeys> k = {
            {"", {"Enabled", "Host", "Debug", "Tracing", "Network", "Profiling", "Internal"}},
            {"Host", {"EglLibraryPath", "Es1LibraryPath", "Es2LibraryPath", "ClLibraryPath"}},
            {"Debug", {"Level"}},
            {"Tracing",
             {"OutputFilename", "UseCompression", "RecordUnknownExtensionCalls", "RecordData",
              "SaveFrameBuffer", "StartFrame", "EndFrame", "ExitOnLastFrame", "AppendTraceVersion",
              "DisableBinaries", "UniformBufferOffsetAlignment", "ShaderStorageBufferOffsetAlignment",
              "ClientBufferRecordFrequency"}},
            {"Network", {"Enabled", "BufferSize", "Wait", "Port", "Address"}},
            {"Profiling",
             {"Enabled", "SwapInterval", "FunctionTimelineLevel", "SoftwareCounters", "RenderstateOverride",
              "Overrides"}},
            {"Profiling.Overrides", {"CullingMode"}},
            {"Internal", {"DisableBlobCache", "DisableExtensionList"}},
        };
        for (auto &entry : k) {
            if (std::strcmp(entry.object, "Profiling.Overrides") == 0)
                entry.keys.insert(entry.keys.end(), std::begin(kOverrideKeys), std::end(kOverrideKeys));
            if (std::strcmp(entry.object, "Internal") == 0)
                entry.keys.insert(entry.keys.end(), std::begin(kReportedKeys), std::end(kReportedKeys));
        }
        return k;
    }();
    return known;
}

// Edits between two names, letters compared without case: a key typed in the wrong case is one
// edit from the right one at most per letter, and is found first.
size_t distance(const std::string &a, const std::string &b) {
    std::vector<size_t> row(b.size() + 1);
    for (size_t j = 0; j <= b.size(); ++j)
        row[j] = j;
    for (size_t i = 1; i <= a.size(); ++i) {
        size_t diagonal = row[0];
        row[0] = i;
        for (size_t j = 1; j <= b.size(); ++j) {
            size_t above = row[j];
            bool same = std::tolower(static_cast<unsigned char>(a[i - 1])) ==
                        std::tolower(static_cast<unsigned char>(b[j - 1]));
            row[j] = std::min({row[j] + 1, row[j - 1] + 1, diagonal + (same ? 0 : 1)});
            diagonal = above;
        }
    }
    return row[b.size()];
}

// Members of a section's object that no setting reads are reported once per process and name,
// with the known key they most resemble.
void warnUnknownKeys(const Json::Value &object, const char *path, const std::string &section) {
    if (!object.isObject()) return;
    const KnownKeys *known = nullptr;
    for (const KnownKeys &k : knownKeys())
        if (std::strcmp(k.object, path) == 0) known = &k;
    if (!known) return;
    static NoDestructor<std::set<std::string>> warned;
    for (const std::string &name : object.getMemberNames()) {
        bool isKnown = false;
        for (const char *key : known->keys)
            isKnown |= name == key;
        if (isKnown) continue;
        std::string full = *path ? std::string(path) + "." + name : name;
        if (!warned->insert(full).second) continue;
        const char *closest = known->keys.front();
        for (const char *key : known->keys)
            if (distance(name, key) < distance(name, closest)) closest = key;
        std::string suggestion = *path ? std::string(path) + "." + closest : std::string(closest);
        msg::warning("Config section '%s': unknown key '%s' is ignored; the closest known key is '%s'.",
                     section.c_str(), full.c_str(), suggestion.c_str());
    }
}

void showConfigError(const char *text) {
    platform::messageBox(text, "Error parsing config");
}

// Reads the keys of one section. A key of the wrong type is reported with its full name and the
// type it needs, and the value it would have replaced stays.
class SectionReader {
public:
    SectionReader(const Json::Value &section, std::string name) : section_(section), name_(std::move(name)) {}

    // The member `key` as an object, or null (reported) when it is something else.
    const Json::Value *object(const Json::Value &parent, const char *key, const std::string &path) {
        if (!parent.isMember(key)) return nullptr;
        const Json::Value &v = parent[key];
        if (v.isObject()) return &v;
        typeError(path, "an object");
        return nullptr;
    }

    void readBool(const Json::Value *parent, const char *key, const std::string &path, bool &field) {
        const Json::Value *v = member(parent, key);
        if (!v) return;
        if (v->isConvertibleTo(Json::booleanValue) && !v->isNull()) {
            field = v->asBool();
        } else {
            typeError(path, "a boolean (true or false)");
        }
    }

    void readInt(const Json::Value *parent, const char *key, const std::string &path, int32_t &field) {
        const Json::Value *v = member(parent, key);
        if (!v) return;
        if (v->isConvertibleTo(Json::intValue) && !v->isNull() && !v->isBool()) {
            field = v->asInt();
        } else {
            typeError(path, "an integer");
        }
    }

    void readUInt(const Json::Value *parent, const char *key, const std::string &path, uint32_t &field) {
        const Json::Value *v = member(parent, key);
        if (!v) return;
        if (v->isConvertibleTo(Json::uintValue) && !v->isNull() && !v->isBool()) {
            field = v->asUInt();
        } else {
            typeError(path, "an unsigned integer");
        }
    }

    void readString(const Json::Value *parent, const char *key, const std::string &path, CZandString &field) {
        const Json::Value *v = member(parent, key);
        if (!v) return;
        if (v->isString()) {
            field = CZandString(v->asString());
        } else {
            typeError(path, "a string");
        }
    }

    const Json::Value &root() const { return section_; }

private:
    const Json::Value *member(const Json::Value *parent, const char *key) {
        if (!parent || !parent->isMember(key)) return nullptr;
        return &(*parent)[key];
    }
    void typeError(const std::string &path, const char *expected) {
        msg::error("Config section '%s': the value of '%s' must be %s; the setting keeps its current value.",
                   name_.c_str(), path.c_str(), expected);
    }

    const Json::Value &section_;
    std::string name_;
};

void readSection(Settings &s, const Json::Value &section, const std::string &name,
                 const std::string &exePath) {
    if (!section.isObject()) {
        msg::error("Config section '%s' is not an object; it is ignored.", name.c_str());
        return;
    }
    SectionReader r(section, name);
    const Json::Value *root = &section;
    warnUnknownKeys(section, "", name);
    for (const KnownKeys &k : knownKeys()) {
        if (!*k.object) continue;
        const Json::Value *object = &section;
        std::string path = k.object;
        for (size_t from = 0; object && from <= path.size();) {
            size_t dot = path.find('.', from);
            std::string part = path.substr(from, dot == std::string::npos ? std::string::npos : dot - from);
            object = object->isObject() && object->isMember(part) ? &(*object)[part] : nullptr;
            from = dot == std::string::npos ? path.size() + 1 : dot + 1;
        }
        if (object) warnUnknownKeys(*object, k.object, name);
    }

    bool enabled = !s.sectionDisabled;
    r.readBool(root, "Enabled", "Enabled", enabled);
    s.sectionDisabled = !enabled;

    if (const Json::Value *host = r.object(section, "Host", "Host")) {
        static const char *const keys[4] = {"EglLibraryPath", "Es1LibraryPath", "Es2LibraryPath",
                                            "ClLibraryPath"};
        for (int api = 0; api < 4; ++api)
            r.readString(host, keys[api], std::string("Host.") + keys[api], configuredHostLibraryPath(api));
    }
    if (const Json::Value *debug = r.object(section, "Debug", "Debug"))
        r.readInt(debug, "Level", "Debug.Level", s.debugLevel);

    if (const Json::Value *t = r.object(section, "Tracing", "Tracing")) {
        CZandString output = s.outputFilename;
        r.readString(t, "OutputFilename", "Tracing.OutputFilename", output);
        if (t->isMember("OutputFilename") && (*t)["OutputFilename"].isString())
            s.outputFilename =
                output.empty() ? output : expandOutputFilename(output, platform::processId(), exePath);
        r.readBool(t, "UseCompression", "Tracing.UseCompression", s.useCompression);
        r.readBool(t, "RecordUnknownExtensionCalls", "Tracing.RecordUnknownExtensionCalls",
                   s.recordUnknownExtensionCalls);
        r.readBool(t, "RecordData", "Tracing.RecordData", s.recordData);
        r.readBool(t, "SaveFrameBuffer", "Tracing.SaveFrameBuffer", s.saveFrameBuffer);
        r.readUInt(t, "StartFrame", "Tracing.StartFrame", s.startFrame);
        r.readUInt(t, "EndFrame", "Tracing.EndFrame", s.endFrame);
        r.readBool(t, "ExitOnLastFrame", "Tracing.ExitOnLastFrame", s.exitOnLastFrame);
        r.readBool(t, "AppendTraceVersion", "Tracing.AppendTraceVersion", s.appendTraceVersion);
        r.readBool(t, "DisableBinaries", "Tracing.DisableBinaries", s.disableBinaries);
        r.readUInt(t, "UniformBufferOffsetAlignment", "Tracing.UniformBufferOffsetAlignment",
                   s.uniformBufferOffsetAlignment);
        // Without a key of its own the storage buffer alignment follows the uniform buffer one.
        uint32_t ssbo = s.uniformBufferOffsetAlignment;
        r.readUInt(t, "ShaderStorageBufferOffsetAlignment", "Tracing.ShaderStorageBufferOffsetAlignment",
                   ssbo);
        s.shaderStorageBufferOffsetAlignment = ssbo;
        r.readUInt(t, "ClientBufferRecordFrequency", "Tracing.ClientBufferRecordFrequency",
                   s.clientBufferRecordFrequency);
        if (s.clientBufferRecordFrequency > 3) {
            msg::info("Unrecognised ClientBufferRecordFrequency value. Disabling client buffer recording");
            s.clientBufferRecordFrequency = 0;
        }
    }

    if (const Json::Value *n = r.object(section, "Network", "Network")) {
        r.readBool(n, "Enabled", "Network.Enabled", s.networkEnabled);
        r.readInt(n, "BufferSize", "Network.BufferSize", s.networkBufferSize);
        r.readBool(n, "Wait", "Network.Wait", s.networkWait);
        r.readUInt(n, "Port", "Network.Port", s.networkPort);
        if (s.networkPort > 65535) {
            msg::warning("Network.Port %u is not a TCP port; the server listens on %u.", s.networkPort,
                         static_cast<unsigned>(net::kDefaultPort));
            s.networkPort = net::kDefaultPort;
        }
        r.readString(n, "Address", "Network.Address", s.networkAddress);
    }

    if (const Json::Value *p = r.object(section, "Profiling", "Profiling")) {
        r.readBool(p, "Enabled", "Profiling.Enabled", s.profilingEnabled);
        r.readInt(p, "SwapInterval", "Profiling.SwapInterval", s.swapInterval);
        r.readUInt(p, "FunctionTimelineLevel", "Profiling.FunctionTimelineLevel", s.functionTimelineLevel);
        r.readBool(p, "SoftwareCounters", "Profiling.SoftwareCounters", s.softwareCounters);
        r.readBool(p, "RenderstateOverride", "Profiling.RenderstateOverride", s.renderstateOverride);
        if (const Json::Value *o = r.object(*p, "Overrides", "Profiling.Overrides")) {
            for (int i = 0; i < kOverrideSwitchCount; ++i)
                r.readBool(o, kOverrideKeys[i], std::string("Profiling.Overrides.") + kOverrideKeys[i],
                           s.overrides[i]);
            r.readInt(o, "CullingMode", "Profiling.Overrides.CullingMode", s.cullingMode);
            if (static_cast<uint32_t>(s.cullingMode) > 3) {
                msg::info("Warning: CullingMode '%i' is unrecognised", s.cullingMode);
                s.cullingMode = 0;
            }
        }
    }

    if (const Json::Value *in = r.object(section, "Internal", "Internal")) {
        for (int i = 0; i < kReportedStringCount; ++i)
            r.readString(in, kReportedKeys[i], std::string("Internal.") + kReportedKeys[i], s.reported[i]);
        r.readBool(in, "DisableBlobCache", "Internal.DisableBlobCache", s.disableBlobCache);
        r.readString(in, "DisableExtensionList", "Internal.DisableExtensionList", s.disabledExtensionList);
    }
}

// A configuration is small: anything larger is not one (a device such as /dev/zero would
// otherwise be read for ever).
constexpr uint64_t kMaxConfigBytes = 1u << 20;

bool readWholeFile(const std::string &path, std::string &text, std::string &problem) {
    std::FILE *f = std::fopen(path.c_str(), "rb");
    if (!f) {
        problem = "it cannot be opened";
        return false;
    }
    std::string buffer;
    char chunk[16384];
    size_t n;
    while ((n = std::fread(chunk, 1, sizeof(chunk), f)) > 0 && buffer.size() <= kMaxConfigBytes)
        buffer.append(chunk, n);
    bool failed = std::ferror(f) != 0;
    std::fclose(f);
    if (failed) {
        problem = "it cannot be read";
        return false;
    }
    if (buffer.size() > kMaxConfigBytes) {
        problem = "it is larger than 1 MiB";
        return false;
    }
    text.swap(buffer);
    return true;
}

} // namespace

std::string configPath() {
    std::string env = platform::getEnv("KALVOREN_CONFIG");
    if (!env.empty()) return env;
    return kConfigFileName;
}

bool sectionMatches(const std::string &pattern, const std::string &exe, bool *misplaced) {
    *misplaced = false;
    size_t star = pattern.find('*');
    if (star == std::string::npos) return pattern == exe;
    if (star != pattern.size() - 1) {
        *misplaced = true;
        return false;
    }
    return exe.compare(0, star, pattern, 0, star) == 0 && exe.size() >= star;
}

CZandString expandOutputFilename(const CZandString &name, uint64_t pid, const std::string &exePath) {
    CZandString out = name;
    CZandString pidText = CZandString::format("%llu", static_cast<unsigned long long>(pid));
    out.replaceAll("%pid", pidText.c_str());
    if (exePath.empty()) {
        msg::info("Warning: We failed to get current process name");
        return out;
    }
    size_t slash = exePath.rfind('/');
    if (slash == std::string::npos) slash = exePath.rfind('\\');
    std::string pname = slash == std::string::npos ? exePath : exePath.substr(slash + 1);
    for (char &ch : pname)
        if (ch == ':') ch = '_';
    out.replaceAll("%pname", pname.c_str());
    return out;
}

void applyConfigText(Settings &s, const char *text, size_t length, const std::string &exeName,
                     const std::string &exePath, const std::string &where) {
    // Editors on Windows like to start a UTF-8 file with a byte order mark, which is not JSON.
    if (length >= 3 && std::memcmp(text, "\xEF\xBB\xBF", 3) == 0) {
        text += 3;
        length -= 3;
    }
    Json::Value root;
    std::string errors;
    bool parsed = false;
    try {
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
        Json::Reader reader(Json::Features::all());
        parsed = reader.parse(text, text + length, root, false);
        if (!parsed) {
            // Where the first error is, as FILE, line L, column C, then the reader's own words.
            std::vector<Json::Reader::StructuredError> found = reader.getStructuredErrors();
            if (!found.empty()) {
                size_t at = static_cast<size_t>(std::max<ptrdiff_t>(0, found.front().offset_start));
                int line = 1, column = 1;
                for (size_t i = 0; i < at && i < length; ++i) {
                    if (text[i] == '\n') {
                        ++line;
                        column = 1;
                    } else {
                        ++column;
                    }
                }
                errors = CZandString::format("%s, line %d, column %d: %s", where.c_str(), line, column,
                                             found.front().message.c_str())
                             .str();
                if (found.size() > 1) errors += " (and " + std::to_string(found.size() - 1) + " more)";
            } else {
                errors = where + ": " + reader.getFormattedErrorMessages();
            }
        }
#pragma GCC diagnostic pop
    } catch (const std::exception &e) {
        errors = where + ": " + e.what();
    }
    if (!parsed) {
        CZandString message = CZandString::format("Failed to parse configuration: %s\n", errors.c_str());
        msg::emit(msg::kDebugger | msg::kErr, "ERROR: ", message.c_str());
        showConfigError(message.c_str());
        return;
    }
    if (!root.isObject()) {
        msg::error("The configuration %s must be a JSON object of sections; the defaults stay in force.",
                   where.c_str());
        return;
    }
    bool matched = false;
    for (const std::string &name : root.getMemberNames()) {
        bool misplaced = false;
        bool match = sectionMatches(name, exeName, &misplaced);
        if (misplaced) {
            msg::info("Ignoring config pattern due to misplaced asterisk: %s", name.c_str());
            continue;
        }
        if (!match) continue;
        matched = true;
        msg::info("Reading config section: %s", name.c_str());
        try {
            readSection(s, root[name], name, exePath);
        } catch (const std::exception &e) {
            msg::error("Config section '%s' could not be read: %s", name.c_str(), e.what());
        }
    }
    if (!matched)
        msg::info(
            "Warning: No matching config settings found for the current process. Using default settings.");
}

void applyConfigFile(Settings &s) {
    s.recordingEnabled = false;
    std::string path = configPath();
    std::string shown = path;
    if (platform::getEnv("KALVOREN_CONFIG").empty()) {
        std::string cwd = platform::currentDirectory();
        if (cwd.size() > 260) cwd.resize(260);
        shown = cwd + "/" + path;
    }
    std::string exePath = platform::executablePath();
    // Only a regular file of a sane size is read: a FIFO would block the application in its first
    // call, a device could be read for ever, and a directory is no configuration on any system.
    struct stat st;
    const bool exists = stat(path.c_str(), &st) == 0;
    const bool regular = exists && (st.st_mode & S_IFMT) == S_IFREG;
    std::string refused;
    if (exists && !regular)
        refused = (st.st_mode & S_IFMT) == S_IFDIR ? "a directory" : "not a regular file";
    else if (regular && static_cast<uint64_t>(st.st_size) > kMaxConfigBytes)
        refused = "larger than 1 MiB";
    std::FILE *probe = regular && refused.empty() ? std::fopen(path.c_str(), "rb") : nullptr;
    if (!probe) {
        CZandString text = CZandString::format("Config file not found. Tried: %s", path.c_str());
        if (!refused.empty())
            text.append(CZandString::format(" (%s; it is not read)", refused.c_str()).c_str());
        msg::emit(msg::kDebugger, "", text.c_str());
        msg::emit(msg::kOut, "WARNING: ", text.c_str());
        showConfigError(text.c_str());
        s.sectionDisabled = true;
    } else {
        std::fclose(probe);
        s.recordingEnabled = true;
        msg::info("Config file found: %s", shown.c_str());
        std::string text, problem;
        if (!readWholeFile(path, text, problem)) {
            CZandString message =
                CZandString::format("Failed to parse configuration: '%s' could not be read (%s)\n",
                                    path.c_str(), problem.c_str());
            msg::emit(msg::kDebugger | msg::kErr, "ERROR: ", message.c_str());
            showConfigError(message.c_str());
        } else {
            applyConfigText(s, text.data(), text.size(), platform::baseName(exePath), exePath, shown);
        }
    }
    // The default name is expanded as a configured one is (a name read from the file already is).
    if (s.outputFilename == CZandString(kDefaultOutputFilename))
        s.outputFilename = expandOutputFilename(s.outputFilename, platform::processId(), exePath);
    makeStartupDecisions(s);
}

void makeStartupDecisions(Settings &s) {
    if (s.sectionDisabled) {
        s.mode = kModeDisabled;
        s.profilingEnabled = false;
        s.recordingEnabled = false;
        s.saveFrameBuffer = false;
        s.networkEnabled = false;
    } else if (s.networkEnabled) {
        msg::info("Network control is enabled");
        if (s.recordingEnabled && !net::startServer(s)) {
            msg::info("InitServer has failed. Network option isn't available. Recording is disabled.");
            s.networkEnabled = false;
            s.recordingEnabled = false;
        }
    } else if (s.profilingEnabled) {
        s.mode = kModeProfiling;
        if (s.recordingEnabled) {
            s.recordingEnabled = false;
            msg::info("Profiling is enabled, disabling recording");
        }
        s.recordData = false;
        s.saveFrameBuffer = false;
        // The profiler itself is made once the settings are complete (core/settings.cpp).
    }
    if (s.mode == kModeRecording && s.recordingEnabled && !s.networkEnabled) {
        if (s.startFrame > s.endFrame) {
            msg::warning("StartFrame (%u) is above EndFrame (%u): no frame will be recorded.", s.startFrame,
                         s.endFrame);
        } else if (s.endFrame == UINT32_MAX) {
            msg::info("Frames %u to the last will be recorded.", s.startFrame);
        } else {
            msg::info("Frames %u to %u will be recorded%s.", s.startFrame, s.endFrame,
                      s.exitOnLastFrame ? ", then the process ends" : "");
        }
    }
    if (s.disableBinaries) {
        if (!s.disabledExtensionList.empty()) s.disabledExtensionList.append(";");
        s.disabledExtensionList.append(kBinaryExtensions);
        msg::info(
            "Kalvoren has disabled support for shader/program binaries in the API. This can be changed by "
            "setting DisableBinaries to false in the config.");
    }
    if (s.uniformBufferOffsetAlignment < kNoAlignmentOverride)
        msg::info("GL_UNIFORM_BUFFER_OFFSET_ALIGNMENT will be overriden to '%i'",
                  static_cast<int>(s.uniformBufferOffsetAlignment));
    if (s.shaderStorageBufferOffsetAlignment < kNoAlignmentOverride)
        msg::info("GL_SHADER_STORAGE_BUFFER_OFFSET_ALIGNMENT will be overriden to '%i'",
                  static_cast<int>(s.shaderStorageBufferOffsetAlignment));
}

} // namespace kv::config
