// Reading the configuration: which sections apply to the running executable, every key, the
// expansion of the trace file name, the checks of single values, the start-up decisions, and bad
// files and values, each of which is reported while the defaults stay in force.
#include "config/config.h"
#include "core/settings.h"
#include "host/host_paths.h"
#include "tests/unit/test_support.h"

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace kv {
namespace {

constexpr const char *kBinaryExtensions =
    "GL_ZUL_shader_binary;GL_ARM_mali_shader_binary;GL_DMP_shader_binary;"
    "GL_FJ_shader_binary_GCCSO;GL_VIV_shader_binary;";

struct Applied {
    std::unique_ptr<Settings> settings;
    std::string output;
};

// Applies a configuration text, as read from a file that was found, to `s` for the executable
// /opt/apps/<exe>, then (with `decide`) makes the start-up decisions.
std::string applyTo(Settings &s, const std::string &text, bool decide = false,
                    const std::string &exe = "app.exe") {
    test::ConsoleCapture capture;
    config::applyConfigText(s, text.data(), text.size(), exe, "/opt/apps/" + exe);
    if (decide) config::makeStartupDecisions(s);
    return capture.finish();
}

Applied apply(const std::string &text, bool decide = false, const std::string &exe = "app.exe") {
    Applied a{std::make_unique<Settings>(), {}};
    a.output = applyTo(*a.settings, text, decide, exe);
    return a;
}

// Whether `parts` appear in `text` in this order.
bool inOrder(const std::string &text, std::initializer_list<std::string> parts) {
    size_t at = 0;
    for (const std::string &p : parts) {
        at = text.find(p, at);
        if (at == std::string::npos) return false;
        at += p.size();
    }
    return true;
}

// Host paths are process-wide; tests that set them put them back.
class HostPathsScope {
public:
    HostPathsScope() {
        for (int api = 0; api < 4; ++api)
            saved_[api] = configuredHostLibraryPath(api);
    }
    ~HostPathsScope() {
        for (int api = 0; api < 4; ++api)
            configuredHostLibraryPath(api) = saved_[api];
    }

private:
    CZandString saved_[4];
};

struct MatchCase {
    const char *pattern, *exe;
    bool matches, misplaced;
};

TEST(ConfigSections, MatchTheExecutableByNameOrPrefix) {
    const MatchCase cases[] = {
        {"app.exe", "app.exe", true, false},
        {"app.exe", "App.exe", false, false},
        {"app.exe", "app.exe2", false, false},
        {"app", "app.exe", false, false},
        {"app*", "app.exe", true, false},
        {"app.exe*", "app.exe", true, false},
        {"app.exe.*", "app.exe", false, false},
        {"*", "anything.bin", true, false},
        {"*", "", true, false},
        {"a*p.exe", "app.exe", false, true},
        {"*app.exe", "app.exe", false, true},
        {"**", "app.exe", false, true},
        {"", "app.exe", false, false},
    };
    for (const MatchCase &c : cases) {
        bool misplaced = !c.misplaced;
        EXPECT_EQ(config::sectionMatches(c.pattern, c.exe, &misplaced), c.matches)
            << c.pattern << " / " << c.exe;
        EXPECT_EQ(misplaced, c.misplaced) << c.pattern;
    }
}

// Every matching section is applied, in member-name order ("*" first), so that the executable's own
// section wins over the general one; a pattern with a misplaced asterisk is skipped and reported.
TEST(ConfigSections, ApplyInMemberNameOrderLaterWins) {
    const std::string config = R"({
        "app.exe": {"Tracing": {"StartFrame": 7}},
        "*": {"Tracing": {"StartFrame": 5, "EndFrame": 9}},
        "ap*": {"Tracing": {"EndFrame": 11}},
        "a*p.exe": {"Tracing": {"StartFrame": 100}},
        "other.exe": {"Tracing": {"StartFrame": 200}}
    })";
    Applied a = apply(config);
    EXPECT_EQ(a.settings->startFrame, 7u);
    EXPECT_EQ(a.settings->endFrame, 11u);
    EXPECT_TRUE(inOrder(a.output, {"Reading config section: *\n",
                                   "Ignoring config pattern due to misplaced asterisk: a*p.exe\n",
                                   "Reading config section: ap*\n", "Reading config section: app.exe\n"}))
        << a.output;
    EXPECT_EQ(a.output.find("other.exe"), std::string::npos) << a.output;

    Applied elsewhere = apply(config, false, "viewer");
    EXPECT_EQ(elsewhere.settings->startFrame, 5u);
    EXPECT_EQ(elsewhere.settings->endFrame, 9u);

    Applied none = apply(R"({"other.exe": {"Tracing": {"StartFrame": 200}}})");
    EXPECT_EQ(none.settings->startFrame, 0u);
    EXPECT_NE(none.output.find("Warning: No matching config settings found for the current process. Using "
                               "default settings."),
              std::string::npos)
        << none.output;
}

// Every key of a section, set to something other than its default.
const char *const kEveryKey = R"({"*": {
    "Enabled": false,
    "Host": {"EglLibraryPath": "/h/egl", "Es1LibraryPath": "/h/es1", "Es2LibraryPath": "/h/es2",
             "ClLibraryPath": "/h/cl"},
    "Debug": {"Level": 2},
    "Tracing": {"OutputFilename": "out_%pid_%pname.kv", "UseCompression": true,
                "RecordUnknownExtensionCalls": false, "RecordData": false, "SaveFrameBuffer": true,
                "StartFrame": 3, "EndFrame": 8, "ExitOnLastFrame": true, "AppendTraceVersion": false,
                "DisableBinaries": false, "UniformBufferOffsetAlignment": 64,
                "ShaderStorageBufferOffsetAlignment": 128, "ClientBufferRecordFrequency": 3},
    "Network": {"Enabled": true, "BufferSize": 512, "Wait": true, "Port": 4000, "Address": "10.1.2.3"},
    "Profiling": {"Enabled": true, "SwapInterval": -2, "FunctionTimelineLevel": 3,
                  "SoftwareCounters": false, "RenderstateOverride": false,
                  "Overrides": {"ForceViewport": true, "DisableBlending": true, "Force2x2Textures": true,
                                "ForceFlatColourFrag": true, "DisableStencilTest": true,
                                "DisableDepthTest": true, "DisableScissorTest": true,
                                "DisableDrawCalls": true, "DisableFlushNFinish": true,
                                "DisableTextureModifications": true, "DisableTextureFiltering": true,
                                "DisableAlphaTest": true, "DisableFBAccess": true, "CullingMode": 2}},
    "Internal": {"EGLVendor": "s0", "EGLVersion": "s1", "EGLExtensions": "s2", "ES1Vendor": "s3",
                 "ES1Renderer": "s4", "ES1Version": "s5", "ES1Extensions": "s6", "ES2Vendor": "s7",
                 "ES2Renderer": "s8", "ES2Version": "s9", "ES2Extensions": "s10", "ES3Vendor": "s11",
                 "ES3Renderer": "s12", "ES3Version": "s13", "ES3Extensions": "s14",
                 "DisableBlobCache": false, "DisableExtensionList": "GL_A;GL_B"}
}})";

void expectEveryKeyApplied(const Settings &s, uint32_t storageAlignment) {
    EXPECT_TRUE(s.sectionDisabled);
    EXPECT_EQ(configuredHostLibraryPath(kHostEgl).str(), "/h/egl");
    EXPECT_EQ(configuredHostLibraryPath(kHostEs1).str(), "/h/es1");
    EXPECT_EQ(configuredHostLibraryPath(kHostEs2).str(), "/h/es2");
    EXPECT_EQ(configuredHostLibraryPath(kHostCl).str(), "/h/cl");
    EXPECT_EQ(s.debugLevel, 2);
    EXPECT_EQ(s.outputFilename.str(), "out_" + std::to_string(platform::processId()) + "_app.exe.kv");
    EXPECT_TRUE(s.useCompression);
    EXPECT_FALSE(s.recordUnknownExtensionCalls);
    EXPECT_FALSE(s.recordData);
    EXPECT_TRUE(s.saveFrameBuffer);
    EXPECT_EQ(s.startFrame, 3u);
    EXPECT_EQ(s.endFrame, 8u);
    EXPECT_TRUE(s.exitOnLastFrame);
    EXPECT_FALSE(s.appendTraceVersion);
    EXPECT_FALSE(s.disableBinaries);
    EXPECT_EQ(s.uniformBufferOffsetAlignment, 64u);
    EXPECT_EQ(s.shaderStorageBufferOffsetAlignment, storageAlignment);
    EXPECT_EQ(s.clientBufferRecordFrequency, 3u);
    EXPECT_TRUE(s.networkEnabled);
    EXPECT_EQ(s.networkBufferSize, 512);
    EXPECT_TRUE(s.networkWait);
    EXPECT_EQ(s.networkPort, 4000u);
    EXPECT_EQ(s.networkAddress.str(), "10.1.2.3");
    EXPECT_TRUE(s.profilingEnabled);
    EXPECT_EQ(s.swapInterval, -2);
    EXPECT_EQ(s.functionTimelineLevel, 3u);
    EXPECT_FALSE(s.softwareCounters);
    EXPECT_FALSE(s.renderstateOverride);
    for (int i = 0; i < kOverrideSwitchCount; ++i)
        EXPECT_TRUE(s.overrides[i]) << "override " << i;
    EXPECT_EQ(s.cullingMode, 2);
    for (int i = 0; i < kReportedStringCount; ++i)
        EXPECT_EQ(s.reported[i].str(), "s" + std::to_string(i));
    EXPECT_FALSE(s.disableBlobCache);
    EXPECT_EQ(s.disabledExtensionList.str(), "GL_A;GL_B");
}

// Each key sets its field; a key that is absent leaves the field as it is, so a section with empty
// groups changes nothing, except that the storage buffer alignment follows the uniform buffer
// alignment whenever a Tracing group does not name it.
TEST(ConfigKeys, EveryKeyIsReadWithTheCurrentValueAsDefault) {
    HostPathsScope hostPaths;
    Settings s;
    std::string output = applyTo(s, kEveryKey);
    for (const char *complaint : {"ERROR", "nrecognised", "Warning"})
        EXPECT_EQ(output.find(complaint), std::string::npos) << output;
    expectEveryKeyApplied(s, 128);

    applyTo(s, R"({"*": {"Host": {}, "Debug": {}, "Network": {}, "Internal": {},
                         "Profiling": {"Overrides": {}}}})");
    expectEveryKeyApplied(s, 128);
    applyTo(s, R"({"*": {"Tracing": {}}})");
    expectEveryKeyApplied(s, 64);
}

struct ExpandCase {
    const char *name;
    uint64_t pid;
    const char *executablePath;
    const char *expanded;
};

// "%pid" and "%pname" are replaced wherever they occur; the name is the executable's file name with
// its extension, with ':' made '_'.
TEST(ConfigKeys, OutputFilenameExpandsProcessIdAndName) {
    const ExpandCase cases[] = {
        {"%pid-%pid.kalvoren", 4242, "/opt/app", "4242-4242.kalvoren"},
        {"%pname.kalvoren", 1, "/opt/my apps/viewer.exe", "viewer.exe.kalvoren"},
        {"%pname_%pid", 7, "C:\\Games\\run:fast.exe", "run_fast.exe_7"},
        {"t/%pname%pname", 1, "/x/a:b:c", "t/a_b_ca_b_c"},
        {"plain.kalvoren", 9, "/opt/app", "plain.kalvoren"},
    };
    for (const ExpandCase &c : cases)
        EXPECT_EQ(config::expandOutputFilename(c.name, c.pid, c.executablePath).str(), c.expanded) << c.name;

    test::ConsoleCapture capture;
    CZandString unnamed = config::expandOutputFilename("%pname_%pid", 5, "");
    std::string output = capture.finish();
    EXPECT_EQ(unnamed.str(), "%pname_5");
    EXPECT_NE(output.find("Warning: We failed to get current process name"), std::string::npos) << output;

    Applied empty = apply(R"({"*": {"Tracing": {"OutputFilename": ""}}})");
    EXPECT_EQ(empty.settings->outputFilename.str(), "");
}

struct AlignmentCase {
    const char *config;
    uint32_t uniform, storage;
};

// Without a key of its own the storage buffer alignment takes the uniform buffer alignment just
// read; every override is announced.
TEST(ConfigKeys, StorageBufferAlignmentFollowsUniformBufferAlignment) {
    const uint32_t none = kNoAlignmentOverride;
    const AlignmentCase cases[] = {
        {R"({"*": {"Tracing": {}}})", none, none},
        {R"({"*": {"Tracing": {"UniformBufferOffsetAlignment": 256}}})", 256, 256},
        {R"({"*": {"Tracing": {"UniformBufferOffsetAlignment": 256, "ShaderStorageBufferOffsetAlignment": 32}}})",
         256, 32},
        {R"({"*": {"Tracing": {"ShaderStorageBufferOffsetAlignment": 16}}})", none, 16},
        {R"({"*": {"Tracing": {"ShaderStorageBufferOffsetAlignment": 16}},
             "app.exe": {"Tracing": {"UniformBufferOffsetAlignment": 64}}})",
         64, 64},
    };
    for (const AlignmentCase &c : cases) {
        Applied a = apply(c.config, /*decide=*/true);
        EXPECT_EQ(a.settings->uniformBufferOffsetAlignment, c.uniform) << c.config;
        EXPECT_EQ(a.settings->shaderStorageBufferOffsetAlignment, c.storage) << c.config;
        const std::string uniformLine =
            "GL_UNIFORM_BUFFER_OFFSET_ALIGNMENT will be overriden to '" + std::to_string(c.uniform) + "'";
        const std::string storageLine = "GL_SHADER_STORAGE_BUFFER_OFFSET_ALIGNMENT will be overriden to '" +
                                        std::to_string(c.storage) + "'";
        EXPECT_EQ(a.output.find(uniformLine) != std::string::npos, c.uniform != none) << a.output;
        EXPECT_EQ(a.output.find(storageLine) != std::string::npos, c.storage != none) << a.output;
    }
}

// The run state that the start-up decisions settle, as words.
std::string runState(const Settings &s) {
    std::string out = "mode " + std::to_string(s.mode.load());
    const std::pair<bool, const char *> flags[] = {{s.recordingEnabled, " recording"},
                                                   {s.recordData, " data"},
                                                   {s.saveFrameBuffer, " framebuffer"},
                                                   {s.profilingEnabled, " profiling"},
                                                   {s.networkEnabled, " network"}};
    for (const auto &[set, word] : flags)
        if (set) out += word;
    return out;
}

struct DecisionCase {
    const char *name, *config, *state;
    std::string disabledExtensions;
    std::vector<const char *> messages;
};

TEST(ConfigStartup, DecisionsFollowTheSections) {
    const std::string binaries = kBinaryExtensions;
    const char *binaryMessage =
        "Kalvoren has disabled support for shader/program binaries in the API. This can be "
        "changed by setting DisableBinaries to false in the config.";
    const DecisionCase cases[] = {
        {"recording",
         R"({"*": {"Tracing": {"SaveFrameBuffer": true}}})",
         "mode 2 recording data framebuffer",
         binaries,
         {binaryMessage}},
        {"disabled section",
         R"({"*": {"Enabled": false, "Tracing": {"SaveFrameBuffer": true}, "Profiling": {"Enabled": true}}})",
         "mode 0 data",
         binaries,
         {}},
        {"profiling",
         R"({"*": {"Profiling": {"Enabled": true}, "Tracing": {"SaveFrameBuffer": true}}})",
         "mode 1 profiling",
         binaries,
         {"Profiling is enabled, disabling recording"}},
        // A control server that cannot listen switches recording off; network control comes before
        // profiling, which then does not apply.
        {"network before profiling",
         R"({"*": {"Network": {"Enabled": true, "Address": "no.such.host.invalid"}, "Profiling": {"Enabled": true}}})",
         "mode 2 data profiling",
         binaries,
         {"Network control is enabled", "Error Initializing Server, Abort.",
          "InitServer has failed. Network option isn't available. Recording is disabled."}},
        {"network",
         R"({"*": {"Network": {"Enabled": true, "Port": 0, "Address": "127.0.0.1"}}})",
         "mode 2 recording data network",
         binaries,
         {"Network control is enabled", "Initialize Server"}},
        {"own extension list",
         R"({"*": {"Internal": {"DisableExtensionList": "GL_OES_x"}}})",
         "mode 2 recording data",
         "GL_OES_x;" + binaries,
         {binaryMessage}},
        {"binaries allowed",
         R"({"*": {"Tracing": {"DisableBinaries": false}}})",
         "mode 2 recording data",
         "",
         {}},
    };
    for (const DecisionCase &c : cases) {
        Settings s;
        s.recordingEnabled = true; // as after a configuration file was found
        std::string output = applyTo(s, c.config, /*decide=*/true);
        EXPECT_EQ(runState(s), c.state) << c.name;
        EXPECT_EQ(s.disabledExtensionList.str(), c.disabledExtensions) << c.name;
        for (const char *m : c.messages)
            EXPECT_NE(output.find(m), std::string::npos) << c.name << ": " << m << "\n" << output;
        EXPECT_EQ(output.find("disabled support for shader/program binaries") != std::string::npos,
                  s.disableBinaries)
            << c.name;
    }
}

struct BadInputCase {
    const char *name, *config;
    std::vector<const char *> reported;
    // What the rest of the text still set (or, for broken text, that nothing was).
    std::function<bool(const Settings &)> rest;
};

// Bad input is reported with what is wrong and where; what was wrong leaves its default in force,
// and the rest of the file still counts. Nothing is thrown.
TEST(ConfigBadInput, IsReportedAndKeepsTheDefaults) {
    const Settings defaults;
    const char *frequencyWarning =
        "Unrecognised ClientBufferRecordFrequency value. Disabling client buffer recording";
    auto untouched = [&](const Settings &s) {
        return s.startFrame == defaults.startFrame && s.endFrame == defaults.endFrame &&
               s.sectionDisabled == defaults.sectionDisabled && s.outputFilename == defaults.outputFilename;
    };
    const BadInputCase cases[] = {
        {"broken text", R"({"*": {"Tracing": })", {"ERROR: Failed to parse configuration: "}, untouched},
        {"empty text", "", {"ERROR: Failed to parse configuration: "}, untouched},
        {"not an object", "[1, 2]", {"ERROR: ", "JSON object"}, untouched},
        {"enabled as text",
         R"({"*": {"Enabled": "yes", "Tracing": {"StartFrame": 4}}})",
         {"'Enabled'", "a boolean"},
         [](const Settings &s) { return !s.sectionDisabled && s.startFrame == 4; }},
        {"negative frame",
         R"({"*": {"Tracing": {"StartFrame": -3, "EndFrame": 6}}})",
         {"'Tracing.StartFrame'", "an unsigned integer"},
         [](const Settings &s) { return s.startFrame == 0 && s.endFrame == 6; }},
        {"huge frame",
         R"({"*": {"Tracing": {"EndFrame": 1e20}}})",
         {"'Tracing.EndFrame'", "an unsigned integer"},
         [](const Settings &s) { return s.endFrame == 0; }},
        {"group not an object",
         R"({"*": {"Network": 5, "Debug": {"Level": 2}}})",
         {"'Network'", "an object"},
         [](const Settings &s) { return !s.networkEnabled && s.debugLevel == 2; }},
        {"level as text",
         R"({"*": {"Debug": {"Level": "high"}}})",
         {"'Debug.Level'", "an integer"},
         [](const Settings &s) { return s.debugLevel == 1; }},
        {"file name as number",
         R"({"*": {"Tracing": {"OutputFilename": 7}}})",
         {"'Tracing.OutputFilename'", "a string"},
         [&](const Settings &s) { return s.outputFilename == defaults.outputFilename; }},
        {"null switch",
         R"({"*": {"Tracing": {"UseCompression": null, "RecordData": false}}})",
         {"'Tracing.UseCompression'", "a boolean"},
         [](const Settings &s) { return !s.useCompression && !s.recordData; }},
        {"section not an object",
         R"({"*": 3, "app.exe": {"Tracing": {"EndFrame": 2}}})",
         {"'*'", "not an object"},
         [](const Settings &s) { return s.endFrame == 2; }},
        // Values outside their range are replaced by 0 with a warning.
        {"unknown client buffer frequency",
         R"({"*": {"Tracing": {"ClientBufferRecordFrequency": 4}}})",
         {frequencyWarning},
         [](const Settings &s) { return s.clientBufferRecordFrequency == 0; }},
        {"huge client buffer frequency",
         R"({"*": {"Tracing": {"ClientBufferRecordFrequency": 4000000000}}})",
         {frequencyWarning},
         [](const Settings &s) { return s.clientBufferRecordFrequency == 0; }},
        {"culling mode 4",
         R"({"*": {"Profiling": {"Overrides": {"CullingMode": 4}}}})",
         {"Warning: CullingMode '"},
         [](const Settings &s) { return s.cullingMode == 0; }},
        {"culling mode -1",
         R"({"*": {"Profiling": {"Overrides": {"CullingMode": -1}}}})",
         {"Warning: CullingMode '"},
         [](const Settings &s) { return s.cullingMode == 0; }},
    };
    for (const BadInputCase &c : cases) {
        Applied a;
        ASSERT_NO_THROW(a = apply(c.config)) << c.name;
        for (const char *r : c.reported)
            EXPECT_NE(a.output.find(r), std::string::npos) << c.name << ": " << r << "\n" << a.output;
        EXPECT_TRUE(c.rest(*a.settings)) << c.name << "\n" << a.output;
    }
}

// Reading from a file, as the settings are built: KALVOREN_CONFIG names it.
struct FileCase {
    const char *name;
    std::string path;
    int32_t mode;
    bool recording;
    std::string console;
};

// Misspelt keys and sections are ignored as before, but said once, with the key they resemble.
TEST(ConfigKeys, UnknownKeysAreWarnedOnceWithTheClosestKnownKey) {
    const std::string config = R"({
        "*": {"Tracng": {"EndFrame": 3}, "Tracing": {"outputfilename": "x.kalvoren", "EndFrme": 2},
              "Profiling": {"Overrides": {"DisableBlend": true}}},
        "app.exe": {"Tracing": {"outputfilename": "y.kalvoren"}}
    })";
    Applied a = apply(config);
    for (const char *expected :
         {"WARNING: Config section '*': unknown key 'Tracng' is ignored; the closest known key is 'Tracing'.",
          "unknown key 'Tracing.outputfilename' is ignored; the closest known key is "
          "'Tracing.OutputFilename'.",
          "unknown key 'Tracing.EndFrme' is ignored; the closest known key is 'Tracing.EndFrame'.",
          "unknown key 'Profiling.Overrides.DisableBlend' is ignored; the closest known key is "
          "'Profiling.Overrides.DisableBlending'."})
        EXPECT_NE(a.output.find(expected), std::string::npos) << expected << "\n" << a.output;
    // Once per key, though two sections hold it.
    const std::string key = "unknown key 'Tracing.outputfilename'";
    EXPECT_EQ(a.output.find(key, a.output.find(key) + 1), std::string::npos) << a.output;
    EXPECT_EQ(a.settings->endFrame, 0u);
}

// The start-up message says which frames will be recorded, and a range that can never record is
// warned about.
TEST(ConfigStartup, TheFramesToBeRecordedAreNamed) {
    struct Case {
        const char *config, *said;
    } cases[] = {
        {R"({"*": {}})", "Frames 0 to 0 will be recorded."},
        {R"({"*": {"Tracing": {"EndFrame": 4294967295}}})", "Frames 0 to the last will be recorded."},
        {R"({"*": {"Tracing": {"StartFrame": 2, "EndFrame": 5, "ExitOnLastFrame": true}}})",
         "Frames 2 to 5 will be recorded, then the process ends."},
        {R"({"*": {"Tracing": {"StartFrame": 5}}})",
         "WARNING: StartFrame (5) is above EndFrame (0): no frame will be recorded."},
    };
    for (const Case &c : cases) {
        Applied a = apply(c.config, /*decide=*/true);
        EXPECT_NE(a.output.find(c.said), std::string::npos) << c.config << "\n" << a.output;
    }
}

// Without a name of its own (or when the file cannot be parsed) the trace goes to the default
// name, expanded like a configured one: never a file literally named "%pname.kalvoren".
TEST(ConfigFile, TheDefaultOutputNameIsExpanded) {
    const std::string plain = test::scratchPath("nameless-config.json");
    const std::string broken = test::scratchPath("nameless-broken-config.json");
    test::writeFile(plain, R"({"*": {"Tracing": {"EndFrame": 1}}})");
    test::writeFile(broken, "{");
    const std::string exe = platform::baseName(platform::executablePath());
    for (const std::string &path : {plain, broken}) {
        test::EnvScope env("KALVOREN_CONFIG", path);
        Settings s;
        test::ConsoleCapture capture;
        config::applyConfigFile(s);
        capture.finish();
        EXPECT_EQ(s.outputFilename.str(), exe + ".kalvoren") << path;
    }
}

TEST(ConfigFile, ProblemsWithTheFileAreReported) {
    const std::string missing = test::scratchPath("no-such-config.json");
    const std::string broken = test::scratchPath("broken-config.json");
    const std::string withMark = test::scratchPath("marked-config.json");
    test::writeFile(broken, "{\"*\": {\"Tracing\": {\"StartFrame\": 2,}}");
    test::writeFile(withMark, "\xEF\xBB\xBF{\"*\": {\"Tracing\": {\"StartFrame\": 2}}}");
    const std::string huge = test::scratchPath("huge-config.json");
    test::writeFile(huge, "{\"*\": {}}" + std::string(2u << 20, ' '));
    std::vector<FileCase> cases = {
        {"missing", missing, kModeDisabled, false, "WARNING: Config file not found. Tried: " + missing},
        {"a directory", test::scratchDir(), kModeDisabled, false,
         "WARNING: Config file not found. Tried: " + test::scratchDir() + " (a directory; it is not read)"},
        // A parse error names the file, the line and the column; the defaults then record.
        {"broken", broken, kModeRecording, true,
         "ERROR: Failed to parse configuration: " + broken + ", line 1, column 36: "},
        {"with a byte order mark", withMark, kModeRecording, true, "Reading config section: *"},
        // Only regular files of at most 1 MiB are read; anything else is as no file at all.
        {"larger than 1 MiB", huge, kModeDisabled, false, " (larger than 1 MiB; it is not read)"},
    };
    // A FIFO would block the first call for ever, a device would be read for ever.
    const std::string fifo = test::scratchPath("fifo-config.json");
    if (test::makeFifo(fifo))
        cases.push_back({"a FIFO", fifo, kModeDisabled, false, " (not a regular file; it is not read)"});
    const std::string endless = test::endlessDevice();
    if (!endless.empty())
        cases.push_back(
            {"an endless device", endless, kModeDisabled, false, " (not a regular file; it is not read)"});
    for (const FileCase &c : cases) {
        test::EnvScope env("KALVOREN_CONFIG", c.path);
        Settings s;
        const std::string before = test::debuggerText();
        std::string output;
        {
            test::ConsoleCapture capture;
            ASSERT_NO_THROW(config::applyConfigFile(s)) << c.name;
            output = capture.finish();
        }
        EXPECT_EQ(s.mode.load(), c.mode) << c.name;
        EXPECT_EQ(s.recordingEnabled, c.recording) << c.name;
        EXPECT_NE(output.find(c.console), std::string::npos) << c.name << "\n" << output;
        if (c.mode == kModeDisabled && test::debuggerChannelIsFile()) {
            const std::string debugger = test::debuggerText().substr(before.size());
            EXPECT_EQ(debugger.find("Config file not found. Tried: " + c.path), 0u) << c.name << "\n"
                                                                                    << debugger;
        }
    }
}

} // namespace
} // namespace kv
