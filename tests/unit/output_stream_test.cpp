// The trace output stream, with each of its two mechanisms: buffered standard file I/O and a
// growing file mapping.
#include "trace/output_stream.h"
#include "tests/unit/test_support.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

namespace kv {
namespace {

std::vector<uint8_t> pattern(size_t n, uint32_t seed) {
    std::vector<uint8_t> v(n);
    for (size_t i = 0; i < n; ++i)
        v[i] = static_cast<uint8_t>((i * 31u + seed) ^ (i >> 9));
    return v;
}

std::unique_ptr<OutputStream> openStream(const std::string &file, StreamKind kind) {
    bool inUse = false;
    return openOutputStream(file.c_str(), kind, &inUse);
}

class OutputStreamTest : public ::testing::TestWithParam<StreamKind> {
protected:
    std::string path(const char *stem) {
        return test::scratchPath(std::string(stem) +
                                 (GetParam() == StreamKind::Mapped ? ".mapped" : ".buffered"));
    }
};

TEST_P(OutputStreamTest, WritesSeeksAndReadsBack) {
    const std::string file = path("basic");
    auto out = openStream(file, GetParam());
    ASSERT_TRUE(out && out->isOpen());

    std::vector<uint8_t> expected = {'h', 'e', 'a', 'd', 'e', 'r'};
    ASSERT_TRUE(out->write(expected.data(), expected.size()));
    EXPECT_EQ(out->tell(), 6u);
    std::vector<uint8_t> body = pattern(100000, 1);
    ASSERT_TRUE(out->write(body.data(), body.size()));
    expected.insert(expected.end(), body.begin(), body.end());
    EXPECT_EQ(out->tell(), expected.size());

    // Overwrite in place, then read back without moving the write position.
    ASSERT_TRUE(out->seek(2));
    ASSERT_TRUE(out->write("XY", 2));
    expected[2] = 'X';
    expected[3] = 'Y';
    EXPECT_EQ(out->tell(), 4u);
    uint8_t back[6] = {};
    ASSERT_TRUE(out->read(0, back, sizeof(back)));
    EXPECT_EQ(std::string(back, back + 6), "heXYer");
    uint8_t far[16] = {};
    ASSERT_TRUE(out->read(50000, far, sizeof(far)));
    EXPECT_EQ(std::memcmp(far, expected.data() + 50000, sizeof(far)), 0);
    EXPECT_EQ(out->tell(), 4u);

    ASSERT_TRUE(out->seek(expected.size()));
    ASSERT_TRUE(out->write("end", 3));
    expected.insert(expected.end(), {'e', 'n', 'd'});
    EXPECT_TRUE(out->write("", 0));
    EXPECT_TRUE(out->flush());
    out->commit();
    out->close();
    EXPECT_FALSE(out->isOpen());
    EXPECT_FALSE(out->write("late", 4));

    // The file holds exactly what was written, however much room the mechanism had reserved.
    EXPECT_EQ(test::readFile(file), expected);
}

// Application memory that cannot be read is stored as zeros, so that the record keeps its length,
// and the caller learns how much was readable.
TEST_P(OutputStreamTest, ClientMemoryThatCannotBeReadIsWrittenAsZeros) {
    const std::string file = path("client");
    auto out = openStream(file, GetParam());
    ASSERT_TRUE(out);

    // More than the buffered mechanism's staging buffer, all readable.
    std::vector<uint8_t> big = pattern(70000, 2);
    size_t readable = 0;
    ASSERT_TRUE(out->writeClient(big.data(), big.size(), &readable));
    EXPECT_EQ(readable, big.size());

    test::GuardedPages pages;
    uint8_t *src = pages.unreadable() - 100;
    std::memset(src, 0xAB, 100);
    ASSERT_TRUE(out->writeClient(src, 300, &readable));
    EXPECT_EQ(readable, 100u);
    EXPECT_EQ(out->tell(), big.size() + 300);
    // A block large enough for the mapped stream's file write, stopped by the unreadable page.
    ASSERT_TRUE(out->writeClient(src, 70000, &readable));
    EXPECT_EQ(readable, 100u);
    EXPECT_EQ(out->tell(), big.size() + 300 + 70000);
    out->commit();
    out->close();

    std::vector<uint8_t> expected = big;
    expected.insert(expected.end(), 100, 0xAB);
    expected.insert(expected.end(), 200, 0x00);
    expected.insert(expected.end(), 100, 0xAB);
    expected.insert(expected.end(), 69900, 0x00);
    EXPECT_EQ(test::readFile(file), expected);
}

// Far more than the mapped window (the mapping starts with a few MiB and grows as needed; the
// file ends where the writing ended): the window moves along, and earlier bytes can still be read
// back and patched (a record's length, a surface's size) wherever they lie.
TEST_P(OutputStreamTest, WritesFarBeyondOneWindowAndPatchesBehindIt) {
    const std::string file = path("window");
    auto out = openStream(file, GetParam());
    ASSERT_TRUE(out);
    std::vector<uint8_t> piece = pattern(3u << 20, 4);
    const int pieces = static_cast<int>((platform::MappedFile::kWindow * 3) / piece.size()) + 1;
    for (int i = 0; i < pieces; ++i)
        ASSERT_TRUE(out->write(piece.data(), piece.size())) << "piece " << i;
    const uint64_t pieceBytes = uint64_t(pieces) * piece.size();
    ASSERT_TRUE(out->patch(10, "PATCH", 5));
    uint8_t back[5] = {};
    ASSERT_TRUE(out->read(10, back, 5));
    EXPECT_EQ(std::memcmp(back, "PATCH", 5), 0);
    EXPECT_EQ(out->tell(), pieceBytes);
    out->commit();
    // A large record's small pieces (which may go in another way than the window) and a small
    // record after it land where they belong.
    constexpr size_t kBlock = 70000;
    out->beginRecord(kBlock + 8);
    ASSERT_TRUE(out->write("head", 4));
    ASSERT_TRUE(out->write(piece.data(), kBlock));
    ASSERT_TRUE(out->write("tail", 4));
    ASSERT_TRUE(out->patch(pieceBytes, "HEAD", 4));
    out->commit();
    ASSERT_TRUE(out->write("next", 4));
    out->commit();
    const uint64_t total = pieceBytes + kBlock + 12;
    EXPECT_EQ(out->tell(), total);
    out->close();
    std::vector<uint8_t> written = test::readFile(file);
    ASSERT_EQ(written.size(), total);
    EXPECT_EQ(std::memcmp(written.data() + 10, "PATCH", 5), 0);
    EXPECT_EQ(std::memcmp(written.data() + pieceBytes - piece.size(), piece.data(), piece.size()), 0);
    EXPECT_EQ(std::memcmp(written.data() + pieceBytes, "HEAD", 4), 0);
    EXPECT_EQ(std::memcmp(written.data() + pieceBytes + 4, piece.data(), kBlock), 0);
    EXPECT_EQ(std::memcmp(written.data() + pieceBytes + 4 + kBlock, "tailnext", 8), 0);
}

// Two recorders never share a file: the second is refused before anything of the first is lost.
TEST_P(OutputStreamTest, AFileInUseByAnotherRecorderIsRefusedUntouched) {
    const std::string file = path("taken");
    auto first = openStream(file, GetParam());
    ASSERT_TRUE(first);
    ASSERT_TRUE(first->write("first", 5));
    first->commit();
    ASSERT_TRUE(first->flush());
    bool inUse = false;
    EXPECT_EQ(openOutputStream(file.c_str(), GetParam(), &inUse), nullptr);
    EXPECT_TRUE(inUse);
    first->close();
    EXPECT_EQ(test::readFile(file), std::vector<uint8_t>({'f', 'i', 'r', 's', 't'}));
    auto again = openStream(file, GetParam());
    EXPECT_TRUE(again);
}

TEST_P(OutputStreamTest, AFileThatCannotBeCreatedGivesNoStream) {
    const std::string inMissingDirectory = test::scratchPath("no-such-directory/trace.kalvoren");
    EXPECT_EQ(openStream(inMissingDirectory, GetParam()), nullptr);
    EXPECT_EQ(openStream(test::scratchDir(), GetParam()), nullptr);
}

// What was not committed (a record cut short) is not part of the file once it is closed.
TEST(OutputStream, TheMappedFileEndsAtItsLastCommittedByte) {
    const std::string file = test::scratchPath("committed.mapped");
    auto out = openStream(file, StreamKind::Mapped);
    ASSERT_TRUE(out);
    ASSERT_TRUE(out->write("whole", 5));
    out->commit();
    ASSERT_TRUE(out->write("half", 4));
    out->abandon(5);
    EXPECT_EQ(out->tell(), 5u);
    ASSERT_TRUE(out->write("cut", 3));
    out->close();
    EXPECT_EQ(test::readFile(file), std::vector<uint8_t>({'w', 'h', 'o', 'l', 'e'}));
}

INSTANTIATE_TEST_SUITE_P(Kinds, OutputStreamTest, ::testing::Values(StreamKind::Buffered, StreamKind::Mapped),
                         [](const ::testing::TestParamInfo<StreamKind> &info) {
                             return info.param == StreamKind::Mapped ? "Mapped" : "Buffered";
                         });

// A device cannot be mapped: the mapped kind falls back to buffered writing, whose failures
// surface as failed writes and flushes.
TEST(OutputStream, ADeviceIsWrittenThroughTheBufferedMechanism) {
    const std::string device = test::alwaysFullDevice();
    if (device.empty()) GTEST_SKIP() << "no device that is always full";
    auto out = openStream(device, StreamKind::Mapped);
    ASSERT_TRUE(out && out->isOpen());
    std::vector<uint8_t> big(1u << 20, 1);
    EXPECT_FALSE(out->write(big.data(), big.size()));
    EXPECT_TRUE(out->write("x", 1));
    EXPECT_FALSE(out->flush());
    out->close();
}

} // namespace
} // namespace kv
