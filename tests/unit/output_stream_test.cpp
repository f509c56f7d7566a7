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

class OutputStreamTest : public ::testing::TestWithParam<StreamKind> {
protected:
    std::string path(const char *stem) {
        return test::scratchPath(std::string(stem) +
                                 (GetParam() == StreamKind::Mapped ? ".mapped" : ".buffered"));
    }
};

TEST_P(OutputStreamTest, WritesSeeksAndReadsBack) {
    const std::string file = path("basic");
    auto out = openOutputStream(file.c_str(), GetParam());
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
    auto out = openOutputStream(file.c_str(), GetParam());
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
    out->close();

    std::vector<uint8_t> expected = big;
    expected.insert(expected.end(), 100, 0xAB);
    expected.insert(expected.end(), 200, 0x00);
    EXPECT_EQ(test::readFile(file), expected);
}

// The mapping starts with a few MiB and grows as needed; the file ends where the writing ended.
TEST_P(OutputStreamTest, GrowsPastItsFirstChunk) {
    const std::string file = path("growth");
    auto out = openOutputStream(file.c_str(), GetParam());
    ASSERT_TRUE(out);
    std::vector<uint8_t> piece = pattern((1u << 20) + 1, 3);
    std::vector<uint8_t> expected;
    for (int i = 0; i < 9; ++i) {
        ASSERT_TRUE(out->write(piece.data(), piece.size())) << "piece " << i;
        expected.insert(expected.end(), piece.begin(), piece.end());
    }
    EXPECT_EQ(out->tell(), expected.size());
    out->close();
    EXPECT_TRUE(test::readFile(file) == expected);
}

TEST_P(OutputStreamTest, AFileThatCannotBeCreatedGivesNoStream) {
    const std::string inMissingDirectory = test::scratchPath("no-such-directory/trace.kalvoren");
    EXPECT_EQ(openOutputStream(inMissingDirectory.c_str(), GetParam()), nullptr);
    EXPECT_EQ(openOutputStream(test::scratchDir().c_str(), GetParam()), nullptr);
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
    auto out = openOutputStream(device.c_str(), StreamKind::Mapped);
    ASSERT_TRUE(out && out->isOpen());
    std::vector<uint8_t> big(1u << 20, 1);
    EXPECT_FALSE(out->write(big.data(), big.size()));
    EXPECT_TRUE(out->write("x", 1));
    EXPECT_FALSE(out->flush());
    out->close();
}

} // namespace
} // namespace kv
