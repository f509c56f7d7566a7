// Loading the host libraries and filling their dispatch tables, seen from inside the library, with
// the test host standing in for the driver. Each configuration runs in a process of its own: the
// tables are built once per process.
#include "core/settings.h"
#include "host/hosts.h"
#include "state/egl_config.h"
#include "platform/platform.h"
#include "tests/host/host_test_support.h"
#include "tests/host/test_host.h"

#include <gtest/gtest.h>

#include <cstring>
#include <set>
#include <string>

using namespace kvth::test;

namespace {

void useHosts(const std::string &egl, const std::string &es2) {
    LibraryConfig config = recording(egl);
    config.es2Host = es2;
    useConfig(config);
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

// Each candidate of a list is tried in order, and again without its last character.
TEST_F(HostLibraryLoading, TheFirstCandidateThatLoadsFillsTheTableElseItIsEmptyAndFailed) {
    const std::string missing = workPath("missing-egl.so");
    const struct {
        const char *name;
        std::string egl, es2;
    } cases[] = {
        {"the second candidate", missing + ";" + testHostPath(),
         workPath("missing-gles.so;") + testHostPath()},
        {"without the last character", missing + "x;" + testHostPath() + "x", testHostPath() + "~"},
        {"nothing loads", missing + ";" + workPath("missing-2.so"), testHostPath()},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        const bool loads = &c != &cases[2];
        useHosts(c.egl, c.es2);
        KVTH_EXPECT_CHILD_PASSES([&] {
            const kv::SEglHost &egl = eglTable();
            KVTH_CHILD_CHECK(egl.failed() == !loads);
            KVTH_CHILD_CHECK(loads ? isModuleOf(egl.module, testHostPath()) : egl.module == nullptr);
            for (uint32_t g = 0; g < (loads ? 1 : kv::kSEglHostGroupCount); ++g)
                loads ? checkGroupResolved(egl, &egl.fn, kv::kSEglHostGroups[g])
                      : checkGroupNull(&egl.fn, kv::kSEglHostGroups[g]);
            const kv::GLESPPHost &es2 = es2Table();
            KVTH_CHILD_CHECK(!es2.failed());
            KVTH_CHILD_CHECK(isModuleOf(es2.module, testHostPath()));
            checkGroupResolved(es2, &es2.fn, kv::kGLESPPHostGroups[0]);
        });
        const std::string console = childConsole();
        EXPECT_EQ(loads ? 0u : 1u, countOf(console, "Could not load host library")) << console;
        EXPECT_EQ(loads ? 0u : 1u, countOf(console, "ERROR: Could not load host library '" + c.egl + "'"));
        EXPECT_EQ(loads ? 1u : 0u, countOf(console, "Host library '" + c.egl + "' loaded")) << console;
        EXPECT_EQ(0u, countOf(console, "Warning failed to find")) << console;
    }
}

// ---- Version groups ---------------------------------------------------------------------------

class HostVersionGroups : public FreshProcessTest {};

// A complete host fills every group, its EGL extensions from its eglGetProcAddress; an EGL 1.1 host
// keeps versions 1.0 and 1.1 and leaves the later groups empty.
TEST_F(HostVersionGroups, EveryGroupTheHostHasIsFilledAndTheOthersLeftEmpty) {
    for (bool complete : {true, false}) {
        SCOPED_TRACE(complete ? "complete host" : "EGL 1.1 host");
        const std::string host = complete ? testHostPath() : egl11HostPath();
        useHosts(host, testHostPath());
        KVTH_EXPECT_CHILD_PASSES([&] {
            const kv::SEglHost &egl = eglTable();
            KVTH_CHILD_CHECK(!egl.failed());
            KVTH_CHILD_CHECK(isModuleOf(egl.module, host));
            for (uint32_t g = 0; g < kv::kSEglHostGroupCount; ++g) {
                const kv::HostGroup &group = kv::kSEglHostGroups[g];
                if (complete ||
                    (std::strcmp(group.label, "egl12") != 0 && std::strcmp(group.label, "egl15") != 0))
                    checkGroupResolved(egl, &egl.fn, group);
                else
                    checkGroupNull(&egl.fn, group);
                if (!complete || std::strcmp(group.label, "extensions") != 0) continue;
                // Every extension was asked of the host's eglGetProcAddress, and nothing else.
                std::set<std::string> asked, expected;
                KvthCall call;
                for (uint32_t i = 0; kvth_log_entry(i, &call); ++i)
                    if (call.id == kvth_function_id("eglGetProcAddress"))
                        asked.insert(
                            reinterpret_cast<const char *>(static_cast<uintptr_t>(call.arguments[0])));
                for (uint32_t i = 0; i < group.count; ++i)
                    expected.insert(group.symbols[i].name);
                KVTH_CHILD_CHECK(asked == expected);
            }
            const kv::GLESPPHost &es2 = es2Table();
            KVTH_CHILD_CHECK(!es2.failed());
            for (uint32_t g = 0; g < kv::kGLESPPHostGroupCount; ++g)
                checkGroupResolved(es2, &es2.fn, kv::kGLESPPHostGroups[g]);
        });
        const std::string console = childConsole();
        EXPECT_EQ(complete ? 0u : 1u, countOf(console, "Warning failed to find")) << console;
        EXPECT_EQ(complete ? 0u : 1u, countOf(console, "Warning failed to find EGL 1.2 functions"))
            << console;
        // (the EGL 1.2 functions, each named)
        EXPECT_EQ(complete ? 0u : 5u, countOf(console, "Error getting function")) << console;
    }
}

// ---- Describing an EGL config -------------------------------------------------------------------

class ConfigCapture : public FreshProcessTest {};

TEST_F(ConfigCapture, AsksForEveryAttributeInOrderAndKeepsWhatTheHostAnswers) {
    useHosts(testHostPath(), testHostPath());
    KVTH_EXPECT_CHILD_PASSES([] {
        eglTable();
        const auto display = reinterpret_cast<EGLDisplay>(uintptr_t(0xD15));
        const auto config = reinterpret_cast<EGLConfig>(uintptr_t(kKvthConfig));
        std::vector<EGLint> list = kv::egl::captureConfigAttributes(display, config);
        // Pairs in the order they are asked for (this host knows 34 of the 36), then EGL_NONE.
        KVTH_CHILD_CHECK_EQ(69u, list.size());
        KVTH_CHILD_CHECK(list.back() == EGL_NONE);
        size_t next = 0;
        for (size_t i = 0; i + 1 < list.size(); i += 2) {
            while (next < 36 && kv::egl::kConfigAttributes[next].attribute != list[i])
                ++next;
            KVTH_CHILD_CHECK(next < 36);
        }
        // A null display asks nothing; a host that answers nothing gives EGL_NONE alone.
        KVTH_CHILD_CHECK(kv::egl::captureConfigAttributes(EGL_NO_DISPLAY, config) ==
                         std::vector<EGLint>{EGL_NONE});
        kvth_set_result("eglGetConfigAttrib", EGL_FALSE);
        KVTH_CHILD_CHECK(kv::egl::captureConfigAttributes(display, config) == std::vector<EGLint>{EGL_NONE});
    });
    // Each attribute the host does not answer is named, by its number when it has no name here.
    const std::string console = childConsole();
    EXPECT_EQ(2u + 36u, countOf(console, "Failed to query for attribute ")) << console;
    EXPECT_EQ(2u, countOf(console, "Failed to query for attribute 0x3043")) << console;
    EXPECT_EQ(2u, countOf(console, "Failed to query for attribute 0x307F")) << console;
    EXPECT_EQ(1u, countOf(console, "Failed to query for attribute EGL_ALPHA_SIZE")) << console;
}
