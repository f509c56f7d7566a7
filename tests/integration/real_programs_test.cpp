// Small real programs on Mesa, traced through the front libraries, their traces read back with the
// trace reader: frame ranges, the exit after the last frame, saved frame buffers, the version
// string, surface sizes corrected in place, and the client arrays that draws carry.
#include "platform/platform.h"
#include "platform/process.h"
#include "api/khronos.h"
#include "trace/reader.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

namespace {

using kv::reader::Entry;

std::string scratchDirectory() {
    static std::string dir = [] {
        std::string path;
        std::FILE *f = kv::platform::createTemporaryFile("kv-real-", ".dir", &path);
        if (f) std::fclose(f);
        std::remove(path.c_str());
        std::string command = "mkdir -p '" + path + "'";
        EXPECT_EQ(std::system(command.c_str()), 0);
        return path;
    }();
    return dir;
}

std::string readFile(const std::string &path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream s;
    s << in.rdbuf();
    return s.str();
}

struct TracedRun {
    int status = -1;
    std::string output;
    std::string trace;
};

// Runs a program through the front libraries with the given Tracing keys; its standard output is
// kept. `prefix` wraps the command (xvfb-run).
TracedRun runTraced(const std::string &name, const std::string &command, const std::string &tracingKeys,
                    const std::string &prefix = "") {
    TracedRun run;
    std::string dir = scratchDirectory();
    run.trace = dir + "/" + name + ".kalvoren";
    std::remove(run.trace.c_str());
    std::string config = dir + "/" + name + ".json";
    {
        std::ofstream out(config);
        out << "{ \"*\": { \"Tracing\": { \"OutputFilename\": \"" << run.trace << "\"" << tracingKeys
            << " } } }";
    }
    std::string output = dir + "/" + name + ".out";
    std::string line = "KALVOREN_CONFIG='" + config + "' LD_LIBRARY_PATH='" KV_FRONT_DIR "' " + prefix + " " +
                       command + " > '" + output + "' 2> '" + output + ".err'";
    std::string error;
    run.status = kv::platform::runProgram({"/bin/sh", "-c", line}, &error);
    run.output = readFile(output);
    return run;
}

struct Trace {
    std::vector<Entry> entries;
    kv::reader::Ending ending = kv::reader::Ending::NotYet;
    uint64_t problems = 0;
    std::unique_ptr<kv::reader::Reader> reader;

    std::vector<const Entry *> calls(const char *function) const {
        std::vector<const Entry *> out;
        for (const Entry &e : entries)
            if (e.kind == Entry::Kind::Call && std::strcmp(e.name(), function) == 0) out.push_back(&e);
        return out;
    }
    std::vector<uint8_t> bytes(const Entry &e, int32_t block) {
        std::vector<uint8_t> out;
        if (block >= 0) reader->blockBytes(e.blocks[static_cast<size_t>(block)], out, 1u << 26);
        return out;
    }
};

Trace readTrace(const std::string &path) {
    Trace t;
    std::string error;
    t.reader = kv::reader::Reader::openFile(path, &error);
    EXPECT_TRUE(t.reader) << error;
    if (!t.reader) return t;
    Entry e;
    while (t.reader->next(e))
        t.entries.push_back(e);
    t.ending = t.reader->ending();
    t.problems = t.reader->problemCount();
    return t;
}

uint64_t argValue(const Entry &e, const char *name) {
    for (const auto &a : e.args)
        if (a.field && std::strcmp(a.field->name, name) == 0) return a.value;
    ADD_FAILURE() << "no argument " << name << " in " << e.name();
    return 0;
}

const kv::reader::Arg *arg(const Entry &e, const char *name) {
    for (const auto &a : e.args)
        if (a.field && std::strcmp(a.field->name, name) == 0) return &a;
    return nullptr;
}

std::vector<uint32_t> swapFrames(const Trace &t) {
    std::vector<uint32_t> frames;
    for (const Entry *e : t.calls("eglSwapBuffers"))
        frames.push_back(static_cast<uint32_t>(argValue(*e, "frame")));
    return frames;
}

TEST(RealPrograms, RecordsExactlyTheFramesOfTheRange) {
    TracedRun run =
        runTraced("range", KV_FRAMES_PROGRAM " --frames 6", ", \"StartFrame\": 2, \"EndFrame\": 3");
    ASSERT_EQ(run.status, 0);
    Trace t = readTrace(run.trace);
    EXPECT_EQ(t.problems, 0u);
    EXPECT_EQ(t.ending, kv::reader::Ending::EndMarker);
    EXPECT_EQ(swapFrames(t), (std::vector<uint32_t>{2, 3}));

    // The snapshot, between its marker pair, comes before the first recorded call; nothing of
    // frame 4 follows the last swap of frame 3.
    size_t firstCall = 0, markers = 0, restoring = 0;
    for (; firstCall < t.entries.size(); ++firstCall) {
        const Entry &e = t.entries[firstCall];
        if (e.kind == Entry::Kind::Call && !e.inSnapshot) break;
        if (e.kind == Entry::Kind::Snapshot) ++markers;
        if (e.kind == Entry::Kind::Call) ++restoring;
    }
    EXPECT_EQ(markers, 2u);
    EXPECT_GT(restoring, 0u);
    size_t lastSwap = 0;
    for (size_t i = 0; i < t.entries.size(); ++i)
        if (t.entries[i].kind == Entry::Kind::Call && std::strcmp(t.entries[i].name(), "eglSwapBuffers") == 0)
            lastSwap = i;
    for (size_t i = lastSwap + 1; i < t.entries.size(); ++i)
        EXPECT_NE(t.entries[i].kind, Entry::Kind::Call) << "a call after the range: " << t.entries[i].name();
}

TEST(RealPrograms, ExitsAfterTheLastFrameWithACompleteTrace) {
    TracedRun run = runTraced("exit", KV_FRAMES_PROGRAM " --frames 10",
                              ", \"StartFrame\": 0, \"EndFrame\": 2, \"ExitOnLastFrame\": true");
    EXPECT_EQ(run.status, 0);
    EXPECT_EQ(run.output.find("frames_program: 10 frames"), std::string::npos)
        << "the program ran on: " << run.output;
    Trace t = readTrace(run.trace);
    EXPECT_EQ(t.problems, 0u);
    EXPECT_EQ(t.ending, kv::reader::Ending::EndMarker);
    EXPECT_EQ(swapFrames(t), (std::vector<uint32_t>{0, 1, 2}));
}

TEST(RealPrograms, SavedFrameBuffersInflateToWhatTheProgramReadBack) {
    std::string dump = scratchDirectory() + "/frame";
    TracedRun run =
        runTraced("fb", KV_FRAMES_PROGRAM " --frames 3 --dump '" + dump + "'",
                  ", \"EndFrame\": 4294967295, \"SaveFrameBuffer\": true, \"UseCompression\": true");
    ASSERT_EQ(run.status, 0);
    Trace t = readTrace(run.trace);
    ASSERT_TRUE(t.reader);
    EXPECT_EQ(t.problems, 0u);
    auto swaps = t.calls("eglSwapBuffers");
    ASSERT_EQ(swaps.size(), 3u);
    for (size_t frame = 0; frame < swaps.size(); ++frame) {
        const Entry &e = *swaps[frame];
        EXPECT_EQ(argValue(e, "fbWidth"), 48u);
        EXPECT_EQ(argValue(e, "fbHeight"), 32u);
        const kv::reader::Arg *pixels = arg(e, "fbPixels");
        ASSERT_TRUE(pixels && pixels->block >= 0);
        EXPECT_TRUE(e.blocks[static_cast<size_t>(pixels->block)].compressed);
        std::vector<uint8_t> stored = t.bytes(e, pixels->block);
        std::string expected = readFile(dump + "." + std::to_string(frame) + ".rgba");
        ASSERT_EQ(stored.size(), 48u * 32u * 4u);
        EXPECT_EQ(std::string(stored.begin(), stored.end()), expected) << "frame " << frame;
    }
}

TEST(RealPrograms, VersionStringGainsTheRecorderVersionOnce) {
    TracedRun run = runTraced("version", KV_FRAMES_PROGRAM " --frames 1", "");
    ASSERT_EQ(run.status, 0);
    std::istringstream lines(run.output);
    std::string first, second;
    std::getline(lines, first);
    std::getline(lines, second);
    const std::string suffix = " + Kalvoren v3.13 (19.2@5581729)";
    ASSERT_GT(first.size(), suffix.size());
    EXPECT_EQ(first.compare(first.size() - suffix.size(), suffix.size(), suffix), 0) << first;
    EXPECT_EQ(first.find(suffix), first.rfind(suffix)) << first;
    EXPECT_EQ(first, second);
}

// A window that changes size between frames (64x48, 96x80, 32x32, two frames each). Each swap
// records the size the window had, whether the program asks EGL for it every frame or only
// follows each resize with a new viewport (the swap then learns of the change without asking the
// window system every frame); the creation record grows to the largest size; saved frame buffers
// have the size of their swap and hold the frame's clear colour.
TEST(RealPrograms, SwapsFollowAWindowThatChangesSize) {
    if (std::system("command -v xvfb-run > /dev/null") != 0) GTEST_SKIP() << "xvfb-run is not installed";
    const uint32_t sizes[6][2] = {{64, 48}, {64, 48}, {96, 80}, {96, 80}, {32, 32}, {32, 32}};
    struct Case {
        const char *name, *arguments, *keys;
        bool saved;
    } cases[] = {{"window-query", "", "", false},
                 {"window-viewport", " --viewport", "", false},
                 {"window-saved", " --viewport", ", \"SaveFrameBuffer\": true", true}};
    for (const Case &k : cases) {
        SCOPED_TRACE(k.name);
        TracedRun run = runTraced(k.name, std::string(KV_WINDOW_PROGRAM) + k.arguments,
                                  std::string(", \"EndFrame\": 4294967295") + k.keys, "xvfb-run -a");
        if (run.status == 77) GTEST_SKIP() << "no X display";
        ASSERT_EQ(run.status, 0) << run.output;
        Trace t = readTrace(run.trace);
        EXPECT_EQ(t.problems, 0u);
        auto created = t.calls("eglCreateWindowSurface");
        ASSERT_EQ(created.size(), 1u);
        EXPECT_EQ(argValue(*created[0], "width"), 96u);
        EXPECT_EQ(argValue(*created[0], "height"), 80u);
        auto swaps = t.calls("eglSwapBuffers");
        ASSERT_EQ(swaps.size(), 6u);
        for (size_t i = 0; i < swaps.size(); ++i) {
            const Entry &swap = *swaps[i];
            EXPECT_EQ(argValue(swap, "surface"), argValue(*created[0], "surface"));
            EXPECT_EQ(argValue(swap, "fbWidth"), sizes[i][0]) << "swap " << i;
            EXPECT_EQ(argValue(swap, "fbHeight"), sizes[i][1]) << "swap " << i;
            const auto &pixels = swap.args.back();
            if (!k.saved) {
                EXPECT_EQ(pixels.count, 0u) << "swap " << i;
                continue;
            }
            std::vector<uint8_t> stored = t.bytes(swap, pixels.block);
            ASSERT_EQ(stored.size(), sizes[i][0] * sizes[i][1] * 4u) << "swap " << i;
            // glClearColor(0.2 * frame, 0.4, 0.6, 1) in 8-bit channels.
            const uint8_t expected[4] = {static_cast<uint8_t>(i / 2 == 0   ? 0
                                                              : i / 2 == 1 ? 51
                                                                           : 102),
                                         102, 153, 255};
            for (size_t p = 0; p < stored.size(); p += 4)
                ASSERT_EQ(std::memcmp(&stored[p], expected, 4), 0) << "swap " << i << " pixel " << p / 4;
        }
    }
}

// What the program passed, rebuilt here: attribute 0 packed vec3 (v * 10 + c), attribute 1 the
// vec2 (v + 0.5, -v), attribute 2 four bytes per instance (i * 4 + b).
std::vector<uint8_t> packedVertices(uint32_t count) {
    std::vector<float> v;
    for (uint32_t i = 0; i < count; ++i)
        for (uint32_t c = 0; c < 3; ++c)
            v.push_back(static_cast<float>(i * 10 + c));
    std::vector<uint8_t> out(v.size() * 4);
    std::memcpy(out.data(), v.data(), out.size());
    return out;
}

std::vector<uint8_t> stridedVertices(uint32_t count) {
    std::vector<float> v;
    for (uint32_t i = 0; i < count; ++i) {
        v.push_back(static_cast<float>(i) + 0.5f);
        v.push_back(-static_cast<float>(i));
    }
    std::vector<uint8_t> out(v.size() * 4);
    std::memcpy(out.data(), v.data(), out.size());
    return out;
}

std::map<uint32_t, std::vector<uint8_t>> attributes(Trace &t, const Entry &e) {
    std::map<uint32_t, std::vector<uint8_t>> out;
    for (const auto &p : e.parts)
        if (p.kind == kv::reader::Part::Kind::Attribute) out[p.index] = t.bytes(e, p.block);
    return out;
}

TEST(RealPrograms, DrawsCarryTheClientArraysTheyRead) {
    TracedRun run = runTraced("arrays", KV_CLIENT_ARRAYS_PROGRAM, ", \"EndFrame\": 4294967295");
    ASSERT_EQ(run.status, 0) << run.output;
    Trace t = readTrace(run.trace);
    EXPECT_EQ(t.problems, 0u);

    // glDrawArrays(first 10, count 5) reads vertices 0 to 14.
    auto arrays = t.calls("glDrawArrays");
    ASSERT_EQ(arrays.size(), 1u);
    auto a = attributes(t, *arrays[0]);
    EXPECT_EQ(a[0], packedVertices(15));
    EXPECT_EQ(a[1], stridedVertices(15));

    // Indices {3, 0, 7} in client memory: 6 index bytes and 8 vertices.
    auto elements = t.calls("glDrawElements");
    ASSERT_EQ(elements.size(), 2u);
    const Entry &client = *elements[0];
    std::vector<uint8_t> indices;
    for (const auto &p : client.parts)
        if (p.kind == kv::reader::Part::Kind::Indices) indices = t.bytes(client, p.block);
    EXPECT_EQ(indices, (std::vector<uint8_t>{3, 0, 0, 0, 7, 0}));
    a = attributes(t, client);
    EXPECT_EQ(a[0], packedVertices(8));
    EXPECT_EQ(a[1], stridedVertices(8));

    // Indices {1, 9, 4, 2} in an element array buffer: no index bytes, and 10 vertices from the
    // recorder's copy of the buffer.
    const Entry &bound = *elements[1];
    for (const auto &p : bound.parts) {
        if (p.kind == kv::reader::Part::Kind::Indices) {
            EXPECT_EQ(p.count, 0u);
        }
    }
    a = attributes(t, bound);
    EXPECT_EQ(a[0], packedVertices(10));

    // Ten instances with divisor 3 read four elements of the instanced attribute.
    auto instanced = t.calls("glDrawArraysInstanced");
    ASSERT_EQ(instanced.size(), 1u);
    a = attributes(t, *instanced[0]);
    EXPECT_EQ(a[0], packedVertices(4));
    EXPECT_EQ(a[2], (std::vector<uint8_t>{0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15}));
}

// The program's view of the driver with the library as without it, whatever it is configured to do
// with functions it does not know; and the data the driver read is in the trace whatever error an
// earlier call left.
TEST(RealPrograms, ProgramsSeeTheDriversAnswersAndTheTraceHoldsWhatItRead) {
    std::string plain;
    {
        std::string dir = scratchDirectory();
        std::string error;
        const std::string line =
            "LD_LIBRARY_PATH= " KV_FIDELITY_PROGRAM " > '" + dir + "/fidelity-plain.out'";
        ASSERT_EQ(kv::platform::runProgram({"/bin/sh", "-c", line}, &error), 0) << error;
        plain = readFile(dir + "/fidelity-plain.out");
        ASSERT_NE(plain.find("the pending error after the swap"), std::string::npos) << plain;
    }
    const struct {
        const char *name;
        const char *keys;
        bool unknownRecorded;
    } runs[] = {
        {"fidelity", ", \"EndFrame\": 4294967295", true},
        {"fidelity-unrecorded", ", \"EndFrame\": 4294967295, \"RecordUnknownExtensionCalls\": false", false},
        {"fidelity-framebuffer", ", \"EndFrame\": 4294967295, \"SaveFrameBuffer\": true", true},
    };
    for (const auto &r : runs) {
        SCOPED_TRACE(r.name);
        TracedRun run = runTraced(r.name, KV_FIDELITY_PROGRAM, r.keys);
        ASSERT_EQ(run.status, 0) << run.output;
        EXPECT_EQ(run.output, plain);
        Trace t = readTrace(run.trace);
        EXPECT_EQ(t.problems, 0u);

        // The upload after glBindVertexArrayOES(12345) failed, and the one after an unknown
        // function failed, carry their data.
        const std::vector<uint8_t> uploaded = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16};
        auto data = t.calls("glBufferData");
        ASSERT_GE(data.size(), 1u);
        EXPECT_EQ(data[0]->error, 0u);
        EXPECT_EQ(t.bytes(*data[0], arg(*data[0], "data")->block), uploaded);
        auto sub = t.calls("glBufferSubData");
        ASSERT_EQ(sub.size(), 1u);
        EXPECT_EQ(sub[0]->error, 0u);
        EXPECT_EQ(t.bytes(*sub[0], arg(*sub[0], "data")->block), uploaded);
        auto bind = t.calls("glBindVertexArrayOES");
        ASSERT_EQ(bind.size(), 2u);
        EXPECT_EQ(bind[0]->error, static_cast<uint32_t>(GL_INVALID_OPERATION));

        // What was written through glMapBufferOES.
        auto unmap = t.calls("glUnmapBufferOES");
        ASSERT_EQ(unmap.size(), 1u);
        std::vector<uint8_t> written(64);
        for (size_t i = 0; i < written.size(); ++i)
            written[i] = static_cast<uint8_t>(0xA0 + i);
        EXPECT_EQ(t.bytes(*unmap[0], arg(*unmap[0], "data")->block), written);

        // An upload from the unpack buffer is an offset alone; one from memory carries its texels.
        auto image = t.calls("glTexImage2D");
        ASSERT_EQ(image.size(), 1u);
        EXPECT_FALSE(arg(*image[0], "pixels")->hasCount);
        auto subImage = t.calls("glTexSubImage2D");
        ASSERT_EQ(subImage.size(), 1u);
        EXPECT_EQ(t.bytes(*subImage[0], arg(*subImage[0], "pixels")->block).size(), 64u);

        // Functions without a wrapper: recorded by name, or not at all.
        size_t byName = 0;
        for (const Entry &e : t.entries)
            if (e.kind == Entry::Kind::Call && !e.calledName.empty()) ++byName;
        EXPECT_EQ(byName, r.unknownRecorded ? 5u : 0u);
    }
}

} // namespace
