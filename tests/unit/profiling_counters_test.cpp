// The software counters and the override items' edits, on the calls as the wrapper hands them over
// (argument slots by function id): the published quirks of counters 15, 20 and 21, primitives by
// mode, and the culling item's text; the function timeline's spans as a server receives them.
#include "analysis/counters.h"
#include "analysis/overrides.h"
#include "analysis/timeline.h"
#include "core/functions_autogen.h"
#include "platform/platform.h"

#include <gtest/gtest.h>

#include <cstring>
#include <thread>

namespace kv::analysis {
namespace {

struct Counting {
    Counters counters;
    uint32_t before[kCounterCount];
    Counting() {
        counters.shaderType = [](uint32_t shader) -> uint32_t { return shader; }; // the name is the type
        counters.sum(before);
    }
    template <class... A>
    void call(uint16_t id, A... args) {
        const uint64_t slots[] = {static_cast<uint64_t>(args)..., 0};
        counters.count(id, slots, sizeof...(A), false);
    }
    uint32_t added(Counter c) {
        uint32_t now[kCounterCount];
        counters.sum(now);
        return now[c] - before[c];
    }
};

TEST(ProfilingCounters, DrawsPrimitivesAndTheKeptQuirks) {
    Counting t;
    t.call(fn::glDrawArrays::id, GL_TRIANGLES, 0, 7);
    EXPECT_EQ(t.added(kTrianglesList), 2u);
    EXPECT_EQ(t.added(kTrianglesTotal), 2u);
    EXPECT_EQ(t.added(kNonIndexedDraws), 1u);
    t.call(fn::glDrawElementsInstanced::id, GL_TRIANGLE_STRIP, 6, GL_UNSIGNED_SHORT, 0, 3);
    EXPECT_EQ(t.added(kTrianglesStrip), 12u);
    EXPECT_EQ(t.added(kIndexedDraws), 1u);
    t.call(fn::glDrawArrays::id, GL_LINE_LOOP, 0, 5);
    t.call(fn::glDrawArrays::id, GL_LINES, 0, 5);
    t.call(fn::glDrawArrays::id, GL_POINTS, 0, 9);
    EXPECT_EQ(t.added(kLinesLoop), 5u);
    EXPECT_EQ(t.added(kLinesList), 2u);
    EXPECT_EQ(t.added(kLinesTotal), 7u);
    EXPECT_EQ(t.added(kPoints), 9u);
    // A mode above 6, a zero count or zero instances add no primitives (the draw still counts).
    t.call(fn::glDrawArrays::id, 7, 0, 30);
    t.call(fn::glDrawArraysInstanced::id, GL_TRIANGLES, 0, 30, 0);
    EXPECT_EQ(t.added(kTrianglesTotal), 14u);
    EXPECT_EQ(t.added(kNonIndexedDraws), 6u);

    // glReadPixels of 2x2 RGBA bytes: 1 + 16 to the accesses, nothing to the byte counter.
    t.call(fn::glReadPixels::id, 0, 0, 2, 2, GL_RGBA, GL_UNSIGNED_BYTE, 0);
    EXPECT_EQ(t.added(kFrameBufferAccesses), 17u);
    EXPECT_EQ(t.added(kFrameBufferBytes), 0u);
    // Sub-image bytes land with the uploads' bytes; rows padded to the unpack alignment.
    t.call(fn::glTexImage2D::id, GL_TEXTURE_2D, 0, GL_RGB, 3, 2, 0, GL_RGB, GL_UNSIGNED_BYTE, 0);
    EXPECT_EQ(t.added(kTextureUploadBytes), 12u + 9u);
    t.call(fn::glPixelStorei::id, GL_UNPACK_ALIGNMENT, 1);
    t.call(fn::glTexSubImage2D::id, GL_TEXTURE_2D, 0, 0, 0, 3, 2, GL_RGB, GL_UNSIGNED_BYTE, 0);
    EXPECT_EQ(t.added(kTextureUploadBytes), 21u + 18u);
    EXPECT_EQ(t.added(kTextureModificationBytes), 0u);
    EXPECT_EQ(t.added(kTextureModifications), 1u);
    t.call(fn::glCompressedTexSubImage2D::id, GL_TEXTURE_2D, 0, 0, 0, 4, 4, 0x8D64, 8, 0);
    EXPECT_EQ(t.added(kTextureModificationBytes), 8u);
    t.call(fn::glBufferData::id, GL_ARRAY_BUFFER, 100, 0, GL_STATIC_DRAW);      // no data: not counted
    t.call(fn::glBufferData::id, GL_ARRAY_BUFFER, 100, 0x1000, GL_STATIC_DRAW); // counted
    EXPECT_EQ(t.added(kBufferUploadBytes), 100u);
    t.call(fn::glCompileShader::id, GL_VERTEX_SHADER);
    t.call(fn::glCompileShader::id, GL_FRAGMENT_SHADER);
    t.call(fn::glCompileShader::id, GL_COMPUTE_SHADER);
    EXPECT_EQ(t.added(kVertexCompiles) + t.added(kFragmentCompiles) + t.added(kComputeCompiles), 3u);
    t.call(fn::glUniform4f::id, 0, 0, 0, 0, 0);
    t.call(fn::glUniformMatrix4fv::id, 0, 1, 0, 0);
    t.call(fn::glUniformBlockBinding::id, 0, 0, 0);
    EXPECT_EQ(t.added(kUniformUploads), 2u);
    t.call(fn::eglMakeCurrent::id, 0, 0, 0, 0);
    EXPECT_EQ(t.added(kContextBinds), 1u);
    EXPECT_EQ(t.added(kTotalCalls), 21u);

    // Another thread's counts join the sums and stay after it ends.
    std::thread([&] { t.call(fn::glViewport::id, 0, 0, 1, 1); }).join();
    EXPECT_EQ(t.added(kViewportCalls), 1u);
}

TEST(ProfilingOverrides, CullingEditsAndItemText) {
    EXPECT_EQ(cullingItemText(0), "0\nApp defined\nNone\nBack\nFront");
    EXPECT_EQ(cullingItemText(0).size(), 29u);
    auto parse = [](const char *s) {
        return parseCullingEdit(reinterpret_cast<const uint8_t *>(s), std::strlen(s));
    };
    EXPECT_EQ(parse("5"), -1);
    EXPECT_EQ(parse("2"), 2);
    EXPECT_EQ(parse("3\nApp defined"), 3);
    EXPECT_EQ(parse("\n2"), -1);
    EXPECT_EQ(parse("x"), -1);
    EXPECT_EQ(parse(""), -1);
    EXPECT_STREQ(kItemNames[kItemCullingMode], "Kalvoren.Culling mode");
    EXPECT_STREQ(kItemNames[kItemDisableDraws], "Kalvoren.Disable draw calls");
}

// Spans from two threads, each thread's gathered in its own buffer, reach the server whole: a
// "Thread" mark, then that thread's begin/end pairs; the mark is left out when the same thread's
// spans follow one another on the link, and a buffer asks to go out before it can overflow.
TEST(ProfilingTimeline, EachThreadsSpansGoOutWholeBehindItsMark) {
    const std::string base = "KvTestTimeline" + std::to_string(platform::processId());
    auto *serverPath = new net::CDataPathSharedMem(true, base);
    net::CCounterServer server(std::unique_ptr<net::CDataPath>(serverPath), 7);
    ASSERT_TRUE(server.listen());
    net::CCounterLink link("Kalvoren", 8, [base] {
        return std::unique_ptr<net::CDataPath>(new net::CDataPathSharedMem(false, base));
    });
    for (int i = 0; i < 400 && !server.connected(); ++i) {
        link.poll();
        ASSERT_TRUE(server.poll());
    }
    ASSERT_TRUE(link.connected());
    server.events.clear();

    Counters kinds;
    Timeline timeline(3, kinds);
    ASSERT_TRUE(timeline.covers(fn::glUniform4f::id));
    const uint32_t begin = net::linkTime();
    for (int i = 0; i < 3; ++i)
        EXPECT_FALSE(timeline.record(fn::glDrawArrays::id, begin, 4, 1, 0x5A5A));
    uint64_t otherThread = 0;
    std::thread other([&] {
        otherThread = platform::threadId();
        timeline.record(fn::glFlush::id, begin, 5, 18446744073709551615ull, 0);
        timeline.record(fn::glFlush::id, begin, 5, 18446744073709551615ull, 0);
        timeline.flushThread(&link);
    });
    other.join();
    timeline.flushAll(&link);
    timeline.record(fn::glDrawArrays::id, begin, 6, 1, 0x5A5A);
    timeline.flushThread(&link);
    for (int i = 0; i < 50 && server.events.size() < 15; ++i)
        ASSERT_TRUE(server.poll());

    const std::string draw = "glDrawArrays, Display 1, Context 23130";
    const std::string flush = "glFlush, Display 18446744073709551615, Context 0";
    const std::string mainMark = "Thread " + std::to_string(platform::threadId());
    const std::string otherMark = "Thread " + std::to_string(otherThread);
    const std::vector<std::pair<uint8_t, std::string>> want = {
        {net::kLinkMark, otherMark}, {net::kLinkBegin, flush}, {net::kLinkEnd, ""},
        {net::kLinkBegin, flush},    {net::kLinkEnd, ""},      {net::kLinkMark, mainMark},
        {net::kLinkBegin, draw},     {net::kLinkEnd, ""},      {net::kLinkBegin, draw},
        {net::kLinkEnd, ""},         {net::kLinkBegin, draw},  {net::kLinkEnd, ""},
        {net::kLinkBegin, draw},     {net::kLinkEnd, ""}};
    ASSERT_EQ(server.events.size(), want.size());
    for (size_t i = 0; i < want.size(); ++i) {
        const net::CCounterServer::Event &e = server.events[i];
        EXPECT_EQ(e.type, want[i].first) << i;
        EXPECT_EQ(e.text, want[i].second) << i;
        if (e.type == net::kLinkBegin) {
            EXPECT_EQ(e.time, begin) << i;
            EXPECT_EQ(e.frame, i < 5 ? 5u : i < 12 ? 4u : 6u) << i;
        }
        if (e.type == net::kLinkEnd) {
            EXPECT_LT(e.time - begin, 60000000u) << i;
        }
    }

    // A full buffer asks to go out while the next span still fits.
    uint32_t spans = 0;
    while (!timeline.record(fn::glDrawArrays::id, net::linkTime(), 7, 1, 2))
        ASSERT_LT(++spans, Timeline::kBufferBytes / 24);
    EXPECT_GT(spans, 100u);
    timeline.flushThread(nullptr); // no link: dropped
    server.events.clear();
    timeline.record(fn::glDrawArrays::id, net::linkTime(), 7, 1, 2);
    timeline.flushThread(&link);
    for (int i = 0; i < 50 && server.events.size() < 2; ++i)
        ASSERT_TRUE(server.poll());
    EXPECT_EQ(server.events.size(), 2u); // the same thread as the link's last spans: no mark
}

} // namespace
} // namespace kv::analysis
