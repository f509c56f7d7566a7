// Writing call records into the trace, byte for byte: framing, blocks, compression, the mirror and a
// full disk. (Thread markers, the nested record and the record lock are checked through the reader
// in roundtrip_test.cpp; the file-size limit on a real program in tests/integration/survival.sh.)
#include "trace/trace_writer.h"
#include "core/settings.h"
#include "tests/unit/test_support.h"

#include <gtest/gtest.h>
#include <zlib.h>

#include <cstring>
#include <string>
#include <vector>

namespace kv {
namespace {

using test::TraceItem;

template <class T>
void put(std::vector<uint8_t> &out, T v) {
    uint8_t b[sizeof(T)];
    std::memcpy(b, &v, sizeof(T));
    out.insert(out.end(), b, b + sizeof(T));
}

template <class T>
T get(const std::vector<uint8_t> &in, size_t at) {
    T v;
    std::memcpy(&v, in.data() + at, sizeof(T));
    return v;
}

// Inflates the zlib stream that starts at `at`; stores how many bytes it occupied.
std::vector<uint8_t> inflateAt(const std::vector<uint8_t> &in, size_t at, size_t *used, bool *complete) {
    z_stream zs;
    std::memset(&zs, 0, sizeof(zs));
    inflateInit(&zs);
    zs.next_in = const_cast<Bytef *>(in.data() + at);
    zs.avail_in = static_cast<uInt>(in.size() - at);
    std::vector<uint8_t> out;
    uint8_t chunk[65536];
    int rc;
    do {
        zs.next_out = chunk;
        zs.avail_out = sizeof(chunk);
        rc = inflate(&zs, Z_NO_FLUSH);
        out.insert(out.end(), chunk, chunk + (sizeof(chunk) - zs.avail_out));
    } while (rc == Z_OK);
    *complete = rc == Z_STREAM_END;
    *used = zs.total_in;
    inflateEnd(&zs);
    return out;
}

void recordMarked(uint16_t id) {
    RecordHandle h = trace::begin(id);
    h.u16(id);
    trace::finish(h);
}

// A record is its u32 length (logical size - 2), its u16 id and its payload: the values appended,
// with each block's bytes inlined where it was added. The first record of a file is preceded by a
// thread marker. A block of size 0 registers nothing; a null pointer block stores nothing.
TEST(TraceWriter, FramesARecordWithItsBlocksInPlace) {
    test::TraceSession t(test::scratchPath("framing.kalvoren"));
    ASSERT_TRUE(t.opened());

    RecordHandle h = trace::begin(0x1234);
    ASSERT_TRUE(h);
    h.u32(0xA1A2A3A4);
    h.addBlock(5, "hello", false);
    const uint32_t afterHello = h.size();
    h.addBlock(0, "ignored", true);
    EXPECT_EQ(h.record()->blocks.size(), 1u);
    h.addBlock(7, nullptr, true);
    EXPECT_EQ(h.size(), afterHello);
    h.u16(0xBEEF);
    h.addBlock(3, "xyz", true); // compressible, but compression is off
    h.u8(0x77);
    const uint32_t logical = h.size();
    EXPECT_EQ(logical, 2u + 4 + 5 + 2 + 3 + 1);
    uint64_t lengthAt = 0;
    trace::finish(h, &lengthAt);

    std::string problem;
    std::vector<TraceItem> items = t.closeAndWalk(&problem);
    EXPECT_EQ(problem, "");
    ASSERT_EQ(items.size(), 2u);
    EXPECT_EQ(items[0].kind, TraceItem::ThreadMarker);
    EXPECT_EQ(items[0].offset, t.headerEnd());
    EXPECT_EQ(items[0].thread, platform::threadId());
    EXPECT_EQ(items[1].offset, lengthAt);
    EXPECT_EQ(items[1].id, 0x1234);
    std::vector<uint8_t> expected;
    put<uint32_t>(expected, 0xA1A2A3A4);
    for (char c : std::string("hello"))
        expected.push_back(static_cast<uint8_t>(c));
    put<uint16_t>(expected, 0xBEEF);
    expected.insert(expected.end(), {'x', 'y', 'z', 0x77});
    EXPECT_EQ(items[1].payload, expected);
    EXPECT_EQ(items[1].payload.size(), logical - 2);
}

// With compression on, each compressible block is one zlib stream that inflates to the block; the
// length field counts the stored bytes, and the file goes on right after the record.
TEST(TraceWriter, StoresCompressibleBlocksAsZlibStreams) {
    test::TraceSession t(test::scratchPath("compressed.kalvoren"), /*compression=*/true);
    ASSERT_TRUE(t.opened());
    std::vector<uint8_t> text;
    while (text.size() < 300000)
        text.insert(text.end(), {'k', 'a', 'l', 'v', 'o', 'r', 'e', 'n', ' '});
    // Incompressible and larger than the compressor's output buffer.
    std::vector<uint8_t> noise(3u << 20);
    uint32_t x = 2463534242u;
    for (uint8_t &b : noise) {
        x ^= x << 13;
        x ^= x >> 17;
        x ^= x << 5;
        b = static_cast<uint8_t>(x);
    }

    RecordHandle h = trace::begin(0x222);
    h.u32(static_cast<uint32_t>(text.size()));
    h.addBlock(static_cast<uint32_t>(text.size()), text.data(), true);
    h.u32(static_cast<uint32_t>(noise.size()));
    h.addBlock(static_cast<uint32_t>(noise.size()), noise.data(), true);
    h.addBlock(4, "raw!", false);
    h.u8(0x99);
    const uint32_t logical = h.size();
    trace::finish(h);
    const uint64_t afterRecord = trace::tell(t.settings());
    recordMarked(0x333);

    std::vector<uint8_t> file = t.closeAndRead();
    ASSERT_GT(file.size(), 16u);
    EXPECT_EQ(file[16] & 2, 2) << "the header says that blocks are compressed";
    std::string problem;
    std::vector<TraceItem> items = test::walkTrace(file, t.headerEnd(), &problem);
    EXPECT_EQ(problem, "");
    ASSERT_EQ(items.size(), 3u);
    const std::vector<uint8_t> &p = items[1].payload;
    EXPECT_EQ(items[1].id, 0x222);
    EXPECT_NE(p.size(), logical - 2u);
    EXPECT_EQ(items[2].offset, afterRecord);
    EXPECT_EQ(items[2].id, 0x333);

    size_t at = 0, used = 0;
    bool complete = false;
    ASSERT_EQ(get<uint32_t>(p, at), text.size());
    at += 4;
    EXPECT_TRUE(inflateAt(p, at, &used, &complete) == text);
    EXPECT_TRUE(complete);
    EXPECT_LT(used, text.size() / 10);
    at += used;
    ASSERT_EQ(get<uint32_t>(p, at), noise.size());
    at += 4;
    EXPECT_TRUE(inflateAt(p, at, &used, &complete) == noise);
    EXPECT_TRUE(complete);
    at += used;
    ASSERT_EQ(p.size(), at + 5);
    EXPECT_EQ(std::string(p.begin() + static_cast<long>(at), p.begin() + static_cast<long>(at) + 4), "raw!");
    EXPECT_EQ(p[at + 4], 0x99);
}

std::vector<uint8_t> g_mirrored;

void mirrorInto(const void *data, size_t n) {
    const uint8_t *p = static_cast<const uint8_t *>(data);
    g_mirrored.insert(g_mirrored.end(), p, p + n);
}

// While the trace is streamed to a client, every byte of a record reaches the mirror, blocks
// included, also when no file could be opened.
TEST(TraceWriter, AStreamedTraceIsMirroredWholeWithoutAFile) {
    test::TraceSession t(test::scratchPath("missing-directory/streamed.kalvoren"));
    ASSERT_FALSE(t.opened());
    t.settings().networkStreaming = true;
    g_mirrored.clear();
    trace::setMirror(&mirrorInto);

    RecordHandle h = trace::begin(60);
    h.u32(3);
    h.addBlock(3, "abc", false);
    trace::finish(h);
    trace::setMirror(nullptr);

    // (Whether a thread marker comes first depends on the records of the file before.)
    std::vector<uint8_t> expected;
    put<uint32_t>(expected, 7);
    put<uint16_t>(expected, 60);
    put<uint32_t>(expected, 3);
    expected.insert(expected.end(), {'a', 'b', 'c'});
    ASSERT_GE(g_mirrored.size(), expected.size());
    EXPECT_EQ(std::vector<uint8_t>(g_mirrored.end() - static_cast<long>(expected.size()), g_mirrored.end()),
              expected);
}

// A file that cannot take the bytes (a full disk, a file size limit) is reported with the size of
// the write that failed; the process goes on and so does the recording.
void recordIntoAFailingFile(test::TraceSession &t, uint32_t blockSize, std::string *output) {
    std::vector<uint8_t> block(blockSize, 0x42);
    test::ConsoleCapture capture;
    RecordHandle h = trace::begin(50);
    h.u32(blockSize);
    h.addBlock(blockSize, block.data(), false);
    trace::finish(h);
    recordMarked(51);
    *output = capture.finish();
}

TEST(TraceWriter, AFullDiskIsReportedAndRecordingGoesOn) {
    const std::string device = test::alwaysFullDevice();
    if (device.empty()) GTEST_SKIP() << "no device that is always full";
    test::TraceSession t(device);
    ASSERT_TRUE(t.opened());
    std::string output;
    recordIntoAFailingFile(t, 1u << 20, &output);
    EXPECT_NE(output.find("ERROR: Writing to trace file failed. Size attempted: 1048576"), std::string::npos)
        << output;
    // The small record that follows waits in the file's buffer and fails when it is flushed; it is
    // reported with its own size: length, id and value, after the thread marker that the failed
    // record took with it.
    EXPECT_NE(output.find("ERROR: Writing to trace file failed. Size attempted: 22\n"), std::string::npos)
        << output;
    EXPECT_EQ(output.find("Size attempted: 0\n"), std::string::npos) << output;
    EXPECT_EQ(trace::recordLock().count(), 0u);
    EXPECT_NE(t.settings().traceFile, nullptr);
}

} // namespace
} // namespace kv
