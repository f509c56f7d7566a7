// Loading the host libraries and filling their dispatch tables, seen from inside the library, with
// the test host standing in for the driver. Each configuration runs in a process of its own: the
// tables are built once per process.
#include "core/settings.h"
#include "host/hosts.h"
#include "state/egl_config.h"
#include "state/egl_state.h"
#include "platform/platform.h"
#include "tests/host/host_test_support.h"
#include "tests/host/test_host.h"

#include <gtest/gtest.h>

#include <cstring>
#include <set>
#include <string>
#include <vector>

using namespace kvth::test;

namespace {

LibraryConfig hosts(const std::string &egl, const std::string &es2) {
    LibraryConfig config;
    config.eglHost = egl;
    config.es2Host = es2;
    config.traceFile = workPath("trace.kalvoren");
    return config;
}

// The tables as an entry point reaches them: the settings (which read the configuration) first.
const kv::SEglHost &eglTable() {
    kv::getSettings();
    return kv::SEglHost::get();
}

const kv::GLESPPHost &es2Table() {
    kv::getSettings();
    return kv::GLESPPHost::get();
}

void *entryAt(const void *fns, const kv::HostSymbol &symbol) {
    void *entry = nullptr;
    std::memcpy(&entry, static_cast<const uint8_t *>(fns) + symbol.offset, sizeof(entry));
    return entry;
}

const kv::HostGroup &group(const kv::HostGroup *groups, uint32_t count, const char *label) {
    for (uint32_t g = 0; g < count; ++g)
        if (std::strcmp(groups[g].label, label) == 0) return groups[g];
    std::abort();
}

// In the child: every entry of the group holds the host's own function of that name.
void checkGroupResolved(const kv::SHostLib &host, const void *fns, const kv::HostGroup &g) {
    for (uint32_t i = 0; i < g.count; ++i) {
        void *entry = entryAt(fns, g.symbols[i]);
        void *exported = kv::platform::getSymbol(host.module, g.symbols[i].name);
        if (!entry || entry != exported)
            childFailure(__FILE__, __LINE__,
                         std::string(g.label) + " entry " + g.symbols[i].name +
                             (entry ? " is not the host's function" : " is null"));
    }
}

void checkGroupNull(const void *fns, const kv::HostGroup &g) {
    for (uint32_t i = 0; i < g.count; ++i)
        if (entryAt(fns, g.symbols[i]))
            childFailure(__FILE__, __LINE__,
                         std::string(g.label) + " entry " + g.symbols[i].name + " is set");
}

bool isModuleOf(kv::platform::ModuleHandle module, const std::string &path) {
    kv::platform::ModuleHandle loaded = kv::platform::loadLibrary(path.c_str());
    kv::platform::freeLibrary(loaded);
    return module && module == loaded;
}

} // namespace

// ---- Finding the host library -----------------------------------------------------------------

class HostLibraryLoading : public FreshProcessTest {};

TEST_F(HostLibraryLoading, SecondCandidateLoadsWhenTheFirstIsMissing) {
    const std::string eglList = workPath("missing-egl.so") + ";" + testHostPath();
    const std::string es2List = workPath("missing-gles.so") + ";" + testHostPath();
    useConfig(hosts(eglList, es2List));
    KVTH_EXPECT_CHILD_PASSES([&] {
        const kv::SEglHost &egl = eglTable();
        KVTH_CHILD_CHECK(!egl.failed());
        KVTH_CHILD_CHECK(isModuleOf(egl.module, testHostPath()));
        checkGroupResolved(egl, &egl.fn, kv::kSEglHostGroups[0]);
        const kv::GLESPPHost &es2 = es2Table();
        KVTH_CHILD_CHECK(!es2.failed());
        KVTH_CHILD_CHECK(isModuleOf(es2.module, testHostPath()));
        checkGroupResolved(es2, &es2.fn, kv::kGLESPPHostGroups[0]);
    });
    const std::string console = childConsole();
    EXPECT_EQ(1u, countOf(console, "Loading host library '" + eglList + "'")) << console;
    EXPECT_EQ(1u, countOf(console, "Host library '" + eglList + "' loaded")) << console;
    EXPECT_EQ(1u, countOf(console, "Host library '" + es2List + "' loaded")) << console;
    EXPECT_EQ(0u, countOf(console, "Could not load host library")) << console;
}

TEST_F(HostLibraryLoading, EachCandidateIsRetriedWithoutItsLastCharacter) {
    // The first candidate fails with and without its last character, the second loads without it.
    const std::string eglList = workPath("missing-egl.so") + "x;" + testHostPath() + "x";
    const std::string es2List = testHostPath() + "~";
    useConfig(hosts(eglList, es2List));
    KVTH_EXPECT_CHILD_PASSES([&] {
        const kv::SEglHost &egl = eglTable();
        KVTH_CHILD_CHECK(!egl.failed());
        KVTH_CHILD_CHECK(isModuleOf(egl.module, testHostPath()));
        const kv::GLESPPHost &es2 = es2Table();
        KVTH_CHILD_CHECK(!es2.failed());
        KVTH_CHILD_CHECK(isModuleOf(es2.module, testHostPath()));
    });
    EXPECT_EQ(0u, countOf(childConsole(), "Could not load host library")) << childConsole();
}

TEST_F(HostLibraryLoading, NoCandidateLoadingLeavesTheTableEmptyAndFailed) {
    const std::string eglList = workPath("missing-1.so") + ";" + workPath("missing-2.so");
    useConfig(hosts(eglList, testHostPath()));
    KVTH_EXPECT_CHILD_PASSES([&] {
        const kv::SEglHost &egl = eglTable();
        KVTH_CHILD_CHECK(egl.failed());
        KVTH_CHILD_CHECK(egl.module == nullptr);
        for (uint32_t g = 0; g < kv::kSEglHostGroupCount; ++g)
            checkGroupNull(&egl.fn, kv::kSEglHostGroups[g]);
    });
    const std::string console = childConsole();
    EXPECT_EQ(1u, countOf(console, "ERROR: Could not load host library '" + eglList + "'")) << console;
    EXPECT_EQ(0u, countOf(console, "Warning failed to find")) << console;
}

// ---- Version groups ---------------------------------------------------------------------------

class HostVersionGroups : public FreshProcessTest {};

TEST_F(HostVersionGroups, CompleteHostsFillEveryGroupAndEglExtensionsComeFromItsGetProcAddress) {
    useConfig(hosts(testHostPath(), testHostPath()));
    KVTH_EXPECT_CHILD_PASSES([&] {
        const kv::SEglHost &egl = eglTable();
        KVTH_CHILD_CHECK(!egl.failed());
        for (uint32_t g = 0; g < kv::kSEglHostGroupCount; ++g)
            checkGroupResolved(egl, &egl.fn, kv::kSEglHostGroups[g]);
        // Every extension was asked of the host's eglGetProcAddress, and nothing else.
        const kv::HostGroup &extensions = group(kv::kSEglHostGroups, kv::kSEglHostGroupCount, "extensions");
        std::set<std::string> asked;
        const uint16_t getProcAddress = kvth_function_id("eglGetProcAddress");
        KvthCall call;
        for (uint32_t i = 0; kvth_log_entry(i, &call); ++i)
            if (call.id == getProcAddress)
                asked.insert(reinterpret_cast<const char *>(static_cast<uintptr_t>(call.arguments[0])));
        std::set<std::string> expected;
        for (uint32_t i = 0; i < extensions.count; ++i)
            expected.insert(extensions.symbols[i].name);
        KVTH_CHILD_CHECK(asked == expected);
        const kv::GLESPPHost &es2 = es2Table();
        KVTH_CHILD_CHECK(!es2.failed());
        for (uint32_t g = 0; g < kv::kGLESPPHostGroupCount; ++g)
            checkGroupResolved(es2, &es2.fn, kv::kGLESPPHostGroups[g]);
    });
    EXPECT_EQ(0u, countOf(childConsole(), "Warning failed to find")) << childConsole();
    EXPECT_EQ(0u, countOf(childConsole(), "Error getting function")) << childConsole();
}

TEST_F(HostVersionGroups, EglHostWithoutVersion12KeepsVersions10And11) {
    useConfig(hosts(egl11HostPath(), testHostPath()));
    KVTH_EXPECT_CHILD_PASSES([&] {
        const kv::SEglHost &egl = eglTable();
        KVTH_CHILD_CHECK(!egl.failed());
        KVTH_CHILD_CHECK(isModuleOf(egl.module, egl11HostPath()));
        const kv::HostGroup *groups = kv::kSEglHostGroups;
        const uint32_t count = kv::kSEglHostGroupCount;
        checkGroupResolved(egl, &egl.fn, group(groups, count, "core"));
        checkGroupResolved(egl, &egl.fn, group(groups, count, "extensions"));
        checkGroupResolved(egl, &egl.fn, group(groups, count, "egl11"));
        checkGroupNull(&egl.fn, group(groups, count, "egl12"));
        checkGroupNull(&egl.fn, group(groups, count, "egl15"));
    });
    const std::string console = childConsole();
    EXPECT_EQ(1u, countOf(console, "Warning failed to find EGL 1.2 functions")) << console;
    EXPECT_EQ(0u, countOf(console, "Warning failed to find EGL 1.1 functions")) << console;
    EXPECT_EQ(0u, countOf(console, "Warning failed to find EGL 1.5 functions")) << console;
}

// ---- Describing an EGL config -------------------------------------------------------------------

class ConfigCapture : public FreshProcessTest {};

TEST_F(ConfigCapture, AsksForEveryAttributeInOrderAndKeepsWhatTheHostAnswers) {
    useConfig(hosts(testHostPath(), testHostPath()));
    KVTH_EXPECT_CHILD_PASSES([] {
        eglTable();
        EGLDisplay display = reinterpret_cast<EGLDisplay>(uintptr_t(0xD15));
        EGLConfig config = reinterpret_cast<EGLConfig>(uintptr_t(kKvthConfig));
        std::vector<EGLint> list = kv::egl::captureConfigAttributes(display, config);
        // Pairs in the order they are asked for (this host knows 34 of the 36), then
        // EGL_NONE.
        KVTH_CHILD_CHECK_EQ(69u, list.size());
        KVTH_CHILD_CHECK(list.back() == EGL_NONE);
        size_t next = 0;
        for (size_t i = 0; i + 1 < list.size(); i += 2) {
            while (next < 36 && kv::egl::kConfigAttributes[next].attribute != list[i])
                ++next;
            KVTH_CHILD_CHECK(next < 36);
        }
        bool renderable = false;
        for (size_t i = 0; i + 1 < list.size(); i += 2)
            renderable |= list[i] == EGL_RENDERABLE_TYPE;
        KVTH_CHILD_CHECK(renderable);
        // The list decides a context's version: ES 2 asked for on an ES 3 config is 3.0.
        const EGLint v2[] = {EGL_CONTEXT_CLIENT_VERSION, 2, EGL_NONE};
        KVTH_CHILD_CHECK_EQ(3u, kv::egl::apiVersionCode(v2, list));
        // A null display asks nothing.
        KVTH_CHILD_CHECK(kv::egl::captureConfigAttributes(EGL_NO_DISPLAY, config) ==
                         std::vector<EGLint>{EGL_NONE});
    });
    // The two it does not know are named by their numbers.
    const std::string console = childConsole();
    EXPECT_EQ(2u, countOf(console, "Failed to query for attribute")) << console;
    EXPECT_EQ(1u, countOf(console, "Failed to query for attribute 0x3043")) << console;
    EXPECT_EQ(1u, countOf(console, "Failed to query for attribute 0x307F")) << console;
}

TEST_F(ConfigCapture, AHostThatAnswersNothingGivesEglNoneAlone) {
    useConfig(hosts(testHostPath(), testHostPath()));
    KVTH_EXPECT_CHILD_PASSES([] {
        eglTable();
        kvth_set_result("eglGetConfigAttrib", EGL_FALSE);
        std::vector<EGLint> list =
            kv::egl::captureConfigAttributes(reinterpret_cast<EGLDisplay>(uintptr_t(0xD15)),
                                             reinterpret_cast<EGLConfig>(uintptr_t(kKvthConfig)));
        KVTH_CHILD_CHECK(list == std::vector<EGLint>{EGL_NONE});
        // Without EGL_RENDERABLE_TYPE a context of version 2 or 3 is taken for ES 3.2.
        const EGLint v3[] = {EGL_CONTEXT_CLIENT_VERSION, 3, EGL_NONE};
        KVTH_CHILD_CHECK_EQ(5u, kv::egl::apiVersionCode(v3, list));
    });
    const std::string console = childConsole();
    EXPECT_EQ(36u, countOf(console, "Failed to query for attribute ")) << console;
    EXPECT_EQ(1u, countOf(console, "Failed to query for attribute EGL_ALPHA_SIZE")) << console;
}
