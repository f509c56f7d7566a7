// How decoded records are shown: values by type, error codes by name, blocks in a few words and
// the lines of `kalvoren dump`.
#include "tests/unit/reader_test_support.h"

#include "trace/value_format.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <limits>

namespace kv::test {
namespace {

using api::Type;

uint64_t bits(float f) {
    uint32_t b;
    std::memcpy(&b, &f, 4);
    return b;
}

uint16_t groupOf(uint16_t id, const char *field) {
    const api::FuncDesc *d = api::describe(id);
    for (uint16_t i = 0; d && i < d->fieldCount; ++i)
        if (std::strcmp(d->fields[i].name, field) == 0) return d->fields[i].enumGroup;
    ADD_FAILURE() << "no field " << field;
    return 0;
}

TEST(FormatValue, FloatsReadBackExactlyInFewDigits) {
    EXPECT_EQ(reader::formatFloat(1.0f), "1.0");
    EXPECT_EQ(reader::formatFloat(-2.5f), "-2.5");
    EXPECT_EQ(reader::formatFloat(0.1f), "0.1");
    EXPECT_EQ(reader::formatFloat(1e30f), "1e+30");
    EXPECT_EQ(reader::formatFloat(std::numeric_limits<float>::infinity()), "inf");
    EXPECT_EQ(reader::formatFloat(std::nanf("")).find("nan"), 0u);
    // Every float of a sweep across the exponents reads back to its own bits.
    for (uint32_t b = 0x00000001; b < 0x7F800000; b += 0x00F0F0F1) {
        float f;
        std::memcpy(&f, &b, 4);
        std::string text = reader::formatFloat(f);
        EXPECT_EQ(std::strtof(text.c_str(), nullptr), f) << text;
        EXPECT_LE(text.size(), 16u) << text;
    }
}

TEST(FormatValue, EachTypeHasItsForm) {
    const uint16_t mode = groupOf(2042, "mode");
    ASSERT_NE(mode, 0);
    EXPECT_EQ(reader::formatValue(Type::GlEnum, 0, mode), "GL_POINTS"); // 0 is not GL_NONE for a draw mode
    EXPECT_EQ(reader::formatValue(Type::GlEnum, 4, mode), "GL_TRIANGLES");
    EXPECT_EQ(reader::formatValue(Type::GlEnum, 0x8892), "GL_ARRAY_BUFFER");
    EXPECT_EQ(reader::formatValue(Type::GlEnum, 0x1234), "0x1234");
    EXPECT_EQ(reader::formatValue(Type::GlBitfield, 0x4100), "0x00004100");
    EXPECT_EQ(reader::formatValue(Type::EglEnum, 0x3057), "EGL_WIDTH");
    EXPECT_EQ(reader::formatValue(Type::GlBoolean, 1), "GL_TRUE");
    EXPECT_EQ(reader::formatValue(Type::EglBoolean, 0), "EGL_FALSE");
    EXPECT_EQ(reader::formatValue(Type::EglBoolean, 7), "7");
    EXPECT_EQ(reader::formatValue(Type::I32, 0xFFFFFFFF), "-1");
    EXPECT_EQ(reader::formatValue(Type::I16, 0x8000), "-32768");
    EXPECT_EQ(reader::formatValue(Type::U32, 0xFFFFFFFF), "4294967295");
    EXPECT_EQ(reader::formatValue(Type::I64, ~0ull), "-1");
    EXPECT_EQ(reader::formatValue(Type::F32, bits(0.5f)), "0.5");
    EXPECT_EQ(reader::formatValue(Type::Fixed, 0x18000), "1.5");
    EXPECT_EQ(reader::formatValue(Type::Ptr, 0), "NULL");
    EXPECT_EQ(reader::formatValue(Type::Ptr, 0x7FFE1234), "0x7ffe1234");
    EXPECT_EQ(reader::formatValue(Type::Handle, 0), "0x0");
    EXPECT_EQ(reader::formatValue(Type::ClStatus, 0xFFFFFFE2), "CL_INVALID_VALUE");
}

TEST(FormatValue, ErrorCodesByTheirApisNames) {
    EXPECT_EQ(reader::formatError(api::ErrorKind::Gl, 0), "GL_NO_ERROR");
    EXPECT_EQ(reader::formatError(api::ErrorKind::Gl, 0x502), "GL_INVALID_OPERATION");
    EXPECT_EQ(reader::formatError(api::ErrorKind::Gl, 0x507), "GL_CONTEXT_LOST");
    EXPECT_EQ(reader::formatError(api::ErrorKind::Gl, 0x1234), "0x1234");
    EXPECT_EQ(reader::formatError(api::ErrorKind::Egl, 0x3000), "EGL_SUCCESS");
    EXPECT_EQ(reader::formatError(api::ErrorKind::Egl, 0x300C), "EGL_BAD_PARAMETER");
    EXPECT_EQ(reader::formatError(api::ErrorKind::Cl, 0), "CL_SUCCESS");
    EXPECT_EQ(reader::formatError(api::ErrorKind::Cl, static_cast<uint32_t>(-19)),
              "CL_KERNEL_ARG_INFO_NOT_AVAILABLE");
    EXPECT_EQ(reader::formatError(api::ErrorKind::Cl, static_cast<uint32_t>(-20)), "-20");
    EXPECT_EQ(reader::formatError(api::ErrorKind::Cl, static_cast<uint32_t>(-68)),
              "CL_INVALID_DEVICE_PARTITION_COUNT");
    EXPECT_EQ(reader::formatError(api::ErrorKind::Cl, static_cast<uint32_t>(-69)), "-69");
    EXPECT_EQ(reader::formatError(api::ErrorKind::None, 5), "");
}

TEST(FormatValue, TextIsQuotedEscapedAndCut) {
    const uint8_t text[] = {'a', '"', '\\', '\n', 0x01, 0xC3, 'z'};
    EXPECT_EQ(reader::quoteText(text, sizeof(text), 100), "\"a\\\"\\\\\\n\\x01\\xc3z\"");
    EXPECT_EQ(reader::quoteText(text, sizeof(text), 1), "\"a\"...(7 characters)");
    EXPECT_EQ(reader::quoteText(text, 0, 10), "\"\"");
}

TEST(FormatValue, HexDumpShowsOffsetsBytesAndText) {
    std::vector<uint8_t> data(20);
    for (size_t i = 0; i < data.size(); ++i)
        data[i] = static_cast<uint8_t>('A' + i);
    std::string dump = reader::hexDump(data.data(), data.size(), "  ");
    EXPECT_EQ(dump, "  00000000  41 42 43 44 45 46 47 48  49 4a 4b 4c 4d 4e 4f 50  |ABCDEFGHIJKLMNOP|\n"
                    "  00000010  51 52 53 54                                       |QRST|\n");
}

// ---- Dump lines ------------------------------------------------------------------------------

class DumpLines : public ::testing::Test {
protected:
    // The dump lines of a trace made of the given records on thread 42.
    std::vector<std::string> lines(TraceBuilder &b, bool fullBlocks = false) {
        bytes_ = b.bytes;
        reader_ = openBytes(bytes_);
        EXPECT_TRUE(reader_);
        std::vector<std::string> out;
        if (!reader_) return out;
        reader::FormatOptions options;
        options.fullBlocks = fullBlocks;
        options.textLimit = 20;
        reader::Entry e;
        while (reader_->next(e))
            out.push_back(reader::formatEntry(*reader_, e, options));
        return out;
    }
    std::vector<uint8_t> bytes_;
    std::unique_ptr<reader::Reader> reader_;
};

TEST_F(DumpLines, CallsWithTheirValuesResultsAndErrors) {
    TraceBuilder b;
    b.thread(42);
    b.record(2124, Payload().u32(0).u32(3).f32(1).f32(0.5f).f32(0).f32(-1));
    b.record(2026, Payload().u32(0).u32(3));
    b.record(2061, Payload().u32(0).u32(0));
    b.record(2043, Payload().u32(0x500).u32(0x1234));
    b.record(1022, Payload().u32(0x3000).u32(1).u64(0xD).u64(0x5).u32(2).u32(0).u32(0).u64(0).u32(0));
    b.record(1503, Payload().u64(0xD).u32(1).u32(5).u32(70));
    std::vector<std::string> l = lines(b);
    ASSERT_EQ(l.size(), 7u);
    EXPECT_EQ(l[0], "0 -- thread 42");
    EXPECT_EQ(l[1], "1 [t 42] glUniform4f(location=3, v0=1.0, v1=0.5, v2=0.0, v3=-1.0) -> GL_NO_ERROR");
    EXPECT_EQ(l[2], "2 [t 42] glCreateProgram() = 3 -> GL_NO_ERROR");
    EXPECT_EQ(l[3], "3 [t 42] glGetError() = GL_NO_ERROR -> GL_NO_ERROR");
    EXPECT_EQ(l[4], "4 [t 42] glEnable(cap=0x1234) -> GL_INVALID_ENUM");
    EXPECT_EQ(l[5],
              "5 [t 42] eglSwapBuffers(dpy=0xd, surface=0x5, frame=2, fbWidth=0, fbHeight=0, fbPixels=NULL) "
              "= EGL_TRUE -> EGL_SUCCESS");
    EXPECT_EQ(l[6], "6 [t 42] (Display information)(display=0xd, major=1, minor=5, configCount=70)");
}

TEST_F(DumpLines, BlocksInAFewWords) {
    const int32_t attribs[] = {0x3057, 64, 0x3056, 32, 0x3038};
    Payload surface;
    surface.u32(0x3000).u64(0x5EF).u64(0xD).u64(0xC).u64(0x100).u32(sizeof(attribs));
    for (int32_t a : attribs)
        surface.u32(static_cast<uint32_t>(a));
    surface.u64(0x5EF).u32(64).u32(32);
    Payload log; // text the driver wrote, with its terminator
    log.u32(0).u32(9).u32(100).u64(0x200).u32(4).u32(6).u64(0x300).u32(7).text("error!").u8(0);
    Payload init;
    init.u32(0x3000).u32(1).u64(0xD).u64(0x10).u32(4).u32(1).u64(0x14).u32(4).u32(5);
    Payload buffer;
    buffer.u32(0).u32(0x8892).u64(20).u64(0x1000).u32(20);
    for (uint8_t i = 0; i < 20; ++i)
        buffer.u8(i);
    buffer.u32(0x88E4);
    Payload proc;
    proc.u32(0x3000).u64(0x7F00).u64(0x400).u32(27).text("glDrawElementsBaseVertexOES");
    Payload draw;
    draw.u32(0).u32(4).u32(3).u32(0x1403).u64(0x5000).u64(0x5000).u32(6).u32(0x00010000).u16(2).u64(0x5000);
    TraceBuilder b;
    b.thread(1)
        .record(1004, surface)
        .record(2069, log)
        .record(1017, init)
        .record(2013, buffer)
        .record(1016, proc);
    b.record(2042, draw);
    std::vector<std::string> l = lines(b);
    ASSERT_EQ(l.size(), 7u);
    EXPECT_NE(l[1].find("attrib_list=[EGL_WIDTH=64, EGL_HEIGHT=32, EGL_NONE]"), std::string::npos) << l[1];
    EXPECT_NE(l[2].find("length={6}, infoLog=\"error!\")"), std::string::npos) << l[2];
    EXPECT_NE(l[3].find("major={1}, minor={5}"), std::string::npos) << l[3];
    EXPECT_NE(l[4].find("data=0x1000 <20 bytes: 00 01 02 03 04 05 06 07 08 09 0a 0b 0c 0d 0e 0f ...>"),
              std::string::npos)
        << l[4];
    EXPECT_NE(l[5].find("procname=\"glDrawElementsBaseVe\"...(27 characters)"), std::string::npos) << l[5];
    EXPECT_NE(l[6].find("arrays={indices 0x5000 <6 bytes: {0, 1, 2}>}"), std::string::npos) << l[6];
}

TEST_F(DumpLines, CompressedBlocksMarkersProblemsAndFullBlocks) {
    std::vector<uint8_t> data(4096, 0xAB);
    Payload buffer;
    buffer.u32(0).u32(0x8892).u64(data.size()).u64(0x1000).u32(static_cast<uint32_t>(data.size()));
    std::vector<uint8_t> stored = deflated(data);
    buffer.bytes(stored).u32(0x88E4);
    TraceBuilder b(format::kFlagRecordData | format::kFlagCompression);
    b.thread(1).record(format::kSnapshotMarkerId, Payload()).record(2013, buffer);
    b.record(format::kSnapshotMarkerId, Payload())
        .record(2046, Payload().u32(0).u32(0))
        .record(7777, Payload());
    b.end();
    std::vector<std::string> l = lines(b, true);
    ASSERT_EQ(l.size(), 7u);
    EXPECT_EQ(l[1], "1 -- snapshot begins");
    EXPECT_NE(l[2].find("[snapshot] glBufferData("), std::string::npos) << l[2];
    EXPECT_NE(l[2].find("<4096 bytes, zlib " + std::to_string(stored.size()) + ": ab ab"), std::string::npos)
        << l[2];
    EXPECT_NE(l[2].find("\n    block 0 (data): 4096 bytes, zlib"), std::string::npos) << l[2];
    EXPECT_NE(l[2].find("00000ff0  ab ab ab ab"), std::string::npos) << l[2];
    EXPECT_EQ(l[3], "3 -- snapshot ends");
    EXPECT_NE(l[4].find("glFlush() -> GL_NO_ERROR !! 4 bytes follow the last field"), std::string::npos)
        << l[4];
    EXPECT_EQ(l[5], "5 [t 1] ?? id 7777 (0 bytes at offset " + std::to_string(bytes_.size() - 16) +
                        ") !! unknown function id 7777");
    EXPECT_EQ(l[6], "-- end marker at offset " + std::to_string(bytes_.size() - 10));
}

} // namespace
} // namespace kv::test
