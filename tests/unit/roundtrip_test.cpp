// Records of every shape written by the recorder's own writer (the generated record writers, the
// output stream, its compression and thread markers) come back through the reader with the same
// values and bytes.
#include "tests/unit/reader_test_support.h"
#include "tests/unit/test_support.h"

#include "core/functions_autogen.h"
#include "core/call_types.h"
#include "core/lifecycle.h"
#include "platform/platform.h"
#include "trace/trace_writer.h"

#include <gtest/gtest.h>

#include <condition_variable>
#include <functional>
#include <mutex>
#include <thread>

namespace kv::test {
namespace {

using reader::Entry;

// Writes one call the way the call wrapper does: error, result, then the function's own writer.
template <class F, class... A>
void writeCall(uint32_t error, uint64_t result, A... args) {
    CallCtx c;
    c.id = F::id;
    c.d.record = true;
    c.d.recordData = getSettings().recordData;
    c.error = error;
    c.result = result;
    RecordHandle h = trace::begin(F::id);
    ASSERT_TRUE(h);
    c.record = &h;
    h.u32(error);
    if constexpr (F::result != api::Type::None) rec::put<F::result>(h, result);
    F::write(h, c, args...);
    trace::finish(h);
}

// A second thread that runs what it is given, one job at a time, while the caller waits.
class Worker {
public:
    Worker() : thread_([this] { loop(); }) {}
    ~Worker() {
        run(nullptr);
        thread_.join();
    }
    void run(std::function<void()> job) {
        std::unique_lock<std::mutex> lock(m_);
        job_ = std::move(job);
        pending_ = true;
        cv_.notify_all();
        cv_.wait(lock, [this] { return !pending_; });
    }
    uint64_t id() {
        uint64_t id = 0;
        run([&] { id = threadRecord().threadId; });
        return id;
    }

private:
    void loop() {
        for (;;) {
            std::unique_lock<std::mutex> lock(m_);
            cv_.wait(lock, [this] { return pending_; });
            std::function<void()> job = std::move(job_);
            if (job) job();
            pending_ = false;
            cv_.notify_all();
            if (!job) return;
        }
    }
    std::mutex m_;
    std::condition_variable cv_;
    std::function<void()> job_;
    bool pending_ = false;
    std::thread thread_;
};

std::vector<uint8_t> pattern(size_t n) {
    std::vector<uint8_t> v(n);
    for (size_t i = 0; i < n; ++i)
        v[i] = static_cast<uint8_t>((i / 64) ^ (i % 7));
    return v;
}

std::vector<uint8_t> bytesOf(reader::Reader &r, const Entry &e, int32_t block) {
    std::vector<uint8_t> out;
    EXPECT_GE(block, 0);
    if (block < 0) return out;
    EXPECT_TRUE(r.blockBytes(e.blocks[static_cast<size_t>(block)], out, SIZE_MAX));
    return out;
}

std::string textOf(reader::Reader &r, const Entry &e, int32_t block) {
    std::vector<uint8_t> b = bytesOf(r, e, block);
    return std::string(b.begin(), b.end());
}

uint32_t bitsOf(float f) {
    uint32_t b;
    std::memcpy(&b, &f, 4);
    return b;
}

class RoundTrip : public ::testing::TestWithParam<bool> {};

TEST_P(RoundTrip, EveryRecordShapeReadsBackAsWritten) {
    const bool compression = GetParam();
    const std::string path = scratchPath(compression ? "roundtrip_z.kalvoren" : "roundtrip.kalvoren");
    const std::vector<uint8_t> big = pattern(3u << 20); // larger than the reader's window
    const char *sources[] = {"void main() {}", nullptr, "xyz"};
    const GLint lengths[] = {-1, 4, 2};
    const EGLint surfaceAttribs[] = {EGL_WIDTH, 64, EGL_HEIGHT, 32, EGL_NONE};
    const EGLAttrib syncAttribs[] = {EGL_SYNC_STATUS, EGL_SIGNALED, EGL_NONE};
    const std::vector<uint8_t> positions = pattern(96);
    auto *display = reinterpret_cast<EGLDisplay>(uintptr_t(0xD15));
    auto *config = reinterpret_cast<EGLConfig>(uintptr_t(0xC0F));
    uint64_t mainThread = 0, otherThread = 0;
    {
        TraceSession session(path, compression);
        ASSERT_TRUE(session.opened());
        Worker other;
        mainThread = threadRecord().threadId;
        otherThread = other.id();

        writeCall<fn::glUniform4f>(0, 0, 3, 1.0f, -2.5f, 0.1f, 1e30f);
        writeCall<fn::glCreateProgram>(0x505, 7);
        writeCall<fn::eglGetProcAddress>(EGL_SUCCESS, 0x7F0012345678ull, "glDrawElementsBaseVertexOES");
        writeCall<fn::glShaderSource>(0, 0, 5u, 3, sources, lengths);
        writeCall<fn::glBufferData>(0, 0, GLenum(GL_ARRAY_BUFFER), GLsizeiptr(big.size()),
                                    static_cast<const void *>(big.data()), GLenum(GL_STATIC_DRAW));
        writeCall<fn::glBufferData>(0, 0, GLenum(GL_ARRAY_BUFFER), GLsizeiptr(64),
                                    static_cast<const void *>(nullptr), GLenum(GL_DYNAMIC_DRAW));
        writeCall<fn::eglCreatePbufferSurface>(EGL_SUCCESS, 0x5EF, display, config, surfaceAttribs);
        writeCall<fn::eglCreateSync>(EGL_SUCCESS, 0x5C, display, EGLenum(EGL_SYNC_FENCE), syncAttribs);
        writeCall<fn::eglSwapBuffers>(EGL_SUCCESS, EGL_TRUE, display,
                                      reinterpret_cast<EGLSurface>(uintptr_t(0x5EF)));

        // A draw with its client arrays, laid out as the capture hands them over.
        {
            RecordHandle h = trace::begin(fn::glDrawArrays::id);
            ASSERT_TRUE(h);
            h.u32(0);
            h.u32(GL_TRIANGLES);
            h.i32(0);
            h.i32(8);
            h.u32(1);
            h.ptr(positions.data());
            h.u32(static_cast<uint32_t>(positions.size()));
            h.addBlock(static_cast<uint32_t>(positions.size()), positions.data(), true);
            trace::finish(h);
        }
        // A record the library writes on its own, without an error code.
        {
            RecordHandle h = trace::begin(1503);
            ASSERT_TRUE(h);
            h.ptr(display);
            h.i32(1);
            h.i32(5);
            h.i32(70);
            // A call made by the recorder while it records gets no record of its own.
            RecordHandle nested = trace::begin(fn::glFlush::id);
            EXPECT_FALSE(nested);
            EXPECT_EQ(nested.size(), 0u);
            trace::finish(nested);
            // The nested begin took the recording lock and finishing its null handle keeps it.
            EXPECT_EQ(trace::recordLock().count(), 2u);
            EXPECT_EQ(trace::recordLock().owner(), platform::threadId());
            trace::finish(h);
            EXPECT_EQ(trace::recordLock().count(), 1u);
            trace::recordLock().unlock();
        }

        // Two threads taking turns: a thread marker before each change of thread only.
        writeCall<fn::glFlush>(0, 0);
        other.run([] { writeCall<fn::glFlush>(0x502, 0); });
        other.run([] { writeCall<fn::glFinish>(0, 0); });
        writeCall<fn::glFinish>(0, 0);
        trace::writeEndMarker(session.settings());
    }

    std::unique_ptr<reader::Reader> r = reader::Reader::openFile(path, nullptr);
    ASSERT_TRUE(r);
    EXPECT_EQ(r->header().compression(), compression);
    std::vector<Entry> e = readAll(*r);
    EXPECT_EQ(r->problemCount(), 0u) << (r->problems().empty() ? "" : r->problems()[0].text);
    EXPECT_EQ(r->ending(), reader::Ending::EndMarker);

    std::vector<Entry> calls;
    std::vector<std::pair<uint64_t, size_t>> markers; // thread named, calls before the marker
    for (const Entry &x : e) {
        if (x.kind == Entry::Kind::Thread) markers.emplace_back(x.thread, calls.size());
        if (x.kind == Entry::Kind::Call) calls.push_back(x);
    }
    ASSERT_EQ(calls.size(), 15u);
    const std::vector<std::pair<uint64_t, size_t>> expectedMarkers = {
        {mainThread, 0}, {otherThread, 12}, {mainThread, 14}};
    EXPECT_EQ(markers, expectedMarkers);

    const Entry &uniform = calls[0];
    EXPECT_EQ(uniform.id, fn::glUniform4f::id);
    ASSERT_EQ(uniform.args.size(), 5u);
    EXPECT_EQ(uniform.args[0].value, 3u);
    EXPECT_EQ(uniform.args[2].value, bitsOf(-2.5f));
    EXPECT_EQ(uniform.args[3].value, bitsOf(0.1f));
    EXPECT_EQ(uniform.args[4].value, bitsOf(1e30f));

    EXPECT_EQ(calls[1].error, 0x505u);
    EXPECT_EQ(calls[1].result, 7u);
    EXPECT_TRUE(calls[1].args.empty());

    const Entry &proc = calls[2];
    EXPECT_EQ(proc.error, uint32_t(EGL_SUCCESS));
    EXPECT_EQ(proc.result, 0x7F0012345678ull);
    EXPECT_EQ(textOf(*r, proc, proc.args[0].block), "glDrawElementsBaseVertexOES");

    const Entry &shader = calls[3];
    const reader::Arg &strings = shader.args[2];
    EXPECT_EQ(strings.value, reinterpret_cast<uintptr_t>(sources));
    ASSERT_EQ(strings.partCount, 3u);
    EXPECT_EQ(textOf(*r, shader, shader.parts[0].block), "void main() {}");
    EXPECT_EQ(shader.parts[1].pointer, 0u);
    EXPECT_EQ(shader.parts[1].count, 4u); // a null string with a length stores nothing
    EXPECT_EQ(shader.parts[1].block, -1);
    EXPECT_EQ(textOf(*r, shader, shader.parts[2].block), "xy");
    std::vector<uint8_t> lengthBytes = bytesOf(*r, shader, shader.args[3].block);
    ASSERT_EQ(lengthBytes.size(), sizeof(lengths));
    EXPECT_EQ(std::memcmp(lengthBytes.data(), lengths, sizeof(lengths)), 0);

    const Entry &buffer = calls[4];
    const reader::Block &bigBlock = buffer.blocks.at(0);
    EXPECT_EQ(bigBlock.compressed, compression);
    EXPECT_EQ(bigBlock.size, big.size());
    if (compression) {
        EXPECT_LT(bigBlock.stored, big.size() / 4);
    }
    EXPECT_TRUE(bytesOf(*r, buffer, buffer.args[2].block) == big);
    EXPECT_EQ(buffer.args[3].value, uint32_t(GL_STATIC_DRAW));

    const Entry &empty = calls[5];
    EXPECT_EQ(empty.args[2].value, 0u);
    EXPECT_EQ(empty.args[2].count, 64u);
    EXPECT_EQ(empty.args[3].value, uint32_t(GL_DYNAMIC_DRAW));

    const Entry &surface = calls[6];
    EXPECT_EQ(surface.result, 0x5EFu);
    std::vector<uint8_t> attribBytes = bytesOf(*r, surface, surface.args[2].block);
    ASSERT_EQ(attribBytes.size(), sizeof(surfaceAttribs));
    EXPECT_EQ(std::memcmp(attribBytes.data(), surfaceAttribs, sizeof(surfaceAttribs)), 0);
    EXPECT_EQ(surface.args[3].value, 0x5EFu);

    const Entry &sync = calls[7];
    std::vector<uint8_t> syncBytes = bytesOf(*r, sync, sync.args[2].block);
    ASSERT_EQ(syncBytes.size(), sizeof(syncAttribs));
    EXPECT_EQ(std::memcmp(syncBytes.data(), syncAttribs, sizeof(syncAttribs)), 0);

    const Entry &swap = calls[8];
    EXPECT_EQ(swap.result, uint64_t(EGL_TRUE));
    EXPECT_TRUE(swap.args.back().hasCount);
    EXPECT_EQ(swap.args.back().count, 0u);

    const Entry &draw = calls[9];
    ASSERT_EQ(draw.parts.size(), 1u);
    EXPECT_EQ(draw.parts[0].index, 1u);
    EXPECT_EQ(draw.parts[0].pointer, reinterpret_cast<uintptr_t>(positions.data()));
    EXPECT_EQ(draw.blocks.at(0).compressed, compression);
    EXPECT_TRUE(bytesOf(*r, draw, draw.parts[0].block) == positions);

    const Entry &display1503 = calls[10];
    EXPECT_EQ(display1503.id, 1503);
    ASSERT_EQ(display1503.args.size(), 4u);
    EXPECT_EQ(display1503.args[0].value, 0xD15u);
    EXPECT_EQ(display1503.args[3].value, 70u);

    EXPECT_EQ(calls[11].id, fn::glFlush::id);
    EXPECT_EQ(calls[12].thread, otherThread);
    EXPECT_EQ(calls[12].error, 0x502u);
    EXPECT_EQ(calls[13].thread, otherThread);
    EXPECT_EQ(calls[14].thread, mainThread);
}

INSTANTIATE_TEST_SUITE_P(Compression, RoundTrip, ::testing::Values(false, true),
                         [](const ::testing::TestParamInfo<bool> &info) {
                             return info.param ? "On" : "Off";
                         });

TEST(RoundTripPointersOnly, ATraceWithoutClientDataKeepsPointersAndTheAlwaysBlocks) {
    const std::string path = scratchPath("pointers_only.kalvoren");
    Settings &s = getSettings();
    const bool recordData = s.recordData;
    s.recordData = false;
    const char *source = "void main() {}";
    const uint8_t data[16] = {1, 2, 3};
    {
        TraceSession session(path);
        ASSERT_TRUE(session.opened());
        writeCall<fn::glBufferData>(0, 0, GLenum(GL_ARRAY_BUFFER), GLsizeiptr(sizeof(data)),
                                    static_cast<const void *>(data), GLenum(GL_STATIC_DRAW));
        writeCall<fn::glShaderSource>(0, 0, 5u, 1, &source, static_cast<const GLint *>(nullptr));
        writeCall<fn::eglGetProcAddress>(EGL_SUCCESS, 0x1234, "eglSwapBuffers");
        writeCall<fn::eglSwapBuffers>(EGL_SUCCESS, EGL_TRUE, reinterpret_cast<EGLDisplay>(uintptr_t(1)),
                                      reinterpret_cast<EGLSurface>(uintptr_t(2)));
    }
    s.recordData = recordData;

    std::unique_ptr<reader::Reader> r = reader::Reader::openFile(path, nullptr);
    ASSERT_TRUE(r);
    EXPECT_FALSE(r->header().recordData());
    std::vector<Entry> e = readAll(*r);
    EXPECT_EQ(r->problemCount(), 0u) << (r->problems().empty() ? "" : r->problems()[0].text);
    ASSERT_EQ(e.size(), 5u);
    EXPECT_FALSE(e[1].args[2].hasCount);
    EXPECT_EQ(e[1].args[2].value, reinterpret_cast<uintptr_t>(data));
    EXPECT_EQ(e[1].args[3].value, uint32_t(GL_STATIC_DRAW));
    EXPECT_FALSE(e[2].args[2].hasCount);
    EXPECT_EQ(e[2].args[2].value, reinterpret_cast<uintptr_t>(&source));
    EXPECT_FALSE(e[3].args[0].hasCount);
    EXPECT_TRUE(e[4].args.back().hasCount); // the frame buffer is written in any trace
    for (const Entry &x : e)
        EXPECT_TRUE(x.blocks.empty());
}

// The header of a trace written with the default settings, byte for byte.
TEST(TraceHeaderBytes, DefaultSettingsWriteTheRecorderHeader) {
    const std::string path = scratchPath("default_header.kalvoren");
    std::vector<uint8_t> file;
    {
        TraceSession session(path);
        ASSERT_TRUE(session.opened());
        file = session.closeAndRead();
    }
    const uint8_t start[] = {'K',  'a', 'l', 'v', 'o', 'r', 'e', 'n', 0x00, 0x01, 0xFE, 0xFF, 22, 0, 0, 0,
                             0x05, // client data recorded, no compression, binaries hidden
                             0x00, // frame buffers not saved
                             12,   '1', '9', '.', '2', '@', '5', '5', '8',  '1',  '7',  '2',  '9'};
    ASSERT_GT(file.size(), sizeof(start) + 1);
    EXPECT_EQ(std::vector<uint8_t>(file.begin(), file.begin() + sizeof(start)),
              std::vector<uint8_t>(start, start + sizeof(start)));
    const size_t platformLength = file[sizeof(start)];
    ASSERT_GT(platformLength, 0u);
    ASSERT_LE(platformLength, 80u);
    const std::string platformText(file.begin() + sizeof(start) + 1,
                                   file.begin() +
                                       static_cast<std::ptrdiff_t>(sizeof(start) + 1 + platformLength));
    EXPECT_EQ(platformText.rfind(std::string(platform::osVersion().family) + " - Int. Ver ", 0), 0u)
        << platformText;

    std::vector<uint8_t> rest = {0,    0,             // an empty description: length 0 and one zero byte
                                 0,                   // no network control
                                 0,    0,    0,    0, // start frame
                                 0,    0,    0,    0, // end frame
                                 2,    0,    0,    0, // the constant
                                 0x29,                // the type width table
                                 0x08, 0xFC, 0x04, 0x04, 0x08, 0x08, 0x08, 0x08, 0x08, 0x08, 0x08,
                                 0x08, 0x04, 0x01, 0x04, 0xFF, 0xFE, 0xFC, 0xFC, 0x01, 0x02, 0x04,
                                 0x04, 0xFC, 0xF8, 0xF8, 0xFC, 0x08, 0x08, 0xF8, 0x08, 0x08, 0x08,
                                 0x08, 0xFC, 0x04, 0x08, 0x08, 0xF8, 0xF8, 0x08};
    rest.push_back(4);             // the reserved block says 4 bytes ...
    rest.resize(rest.size() + 40); // ... 32 follow, then two u32 zeros
    const size_t at = sizeof(start) + 1 + platformLength;
    ASSERT_EQ(file.size(), at + rest.size()); // nothing but the header
    EXPECT_EQ(std::vector<uint8_t>(file.begin() + static_cast<std::ptrdiff_t>(at), file.end()), rest);

    std::unique_ptr<reader::Reader> r = reader::Reader::openFile(path, nullptr);
    ASSERT_TRUE(r);
    EXPECT_EQ(r->header().size, file.size());
    reader::Entry entry;
    EXPECT_FALSE(r->next(entry));
    EXPECT_EQ(r->ending(), reader::Ending::EndOfFile);
}

} // namespace
} // namespace kv::test
