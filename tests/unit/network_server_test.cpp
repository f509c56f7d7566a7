// The network control server against a raw socket client on loopback: the wire format of every
// command and message with its kept quirks, commands split across receives, garbage and unknown
// codes, start at a frame with the header and snapshot at the next, stop, the refused and the
// served trace request.
#include "net/server.h"
#include "net/wire.h"
#include "platform/platform.h"
#include "tests/unit/test_support.h"
#include "trace/format.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <string>
#include <vector>

namespace kv::net {
namespace {

// The server's clock: tests move it; the server's sleeps move it too (and yield for real).
std::atomic<uint64_t> g_now{100000};
uint64_t fakeTick() {
    return g_now.load();
}
void fakeSleep(uint32_t ms) {
    g_now += ms;
    platform::sleepMs(1);
}

class Client {
public:
    explicit Client(uint16_t port) {
        s_ = platform::tcpSocket();
        const uint8_t ip[4] = {127, 0, 0, 1};
        EXPECT_GE(platform::socketConnect(s_, ip, port), 0);
        EXPECT_EQ(platform::socketWaitWritable(s_, 2000), 1);
    }
    ~Client() { close(); }
    void close() {
        if (s_ != platform::kInvalidSocket) platform::socketClose(s_);
        s_ = platform::kInvalidSocket;
    }
    void send(const std::string &bytes) {
        size_t done = 0;
        while (done < bytes.size()) {
            ASSERT_EQ(platform::socketWaitWritable(s_, 2000), 1);
            long n = platform::socketSend(s_, bytes.data() + done, bytes.size() - done);
            ASSERT_GE(n, 0);
            done += static_cast<size_t>(n);
        }
    }
    void command(char code) { send(std::string("\x08\x44", 2) + code); }
    // Every message that arrives within `ms` (stops early once `until` returns true).
    template <class Until>
    std::vector<ServerMessage> receive(uint32_t ms, Until until) {
        std::vector<ServerMessage> out;
        uint64_t end = platform::tickCountMs() + ms;
        char buffer[65536];
        while (platform::tickCountMs() < end) {
            ServerMessage m;
            while (reader_.next(&m))
                out.push_back(m);
            if (!out.empty() && until(out)) break;
            if (platform::socketWaitReadable(s_, 5) != 1) continue;
            long n = platform::socketReceive(s_, buffer, sizeof(buffer));
            if (n <= 0) break;
            reader_.feed(buffer, static_cast<size_t>(n));
        }
        return out;
    }
    std::vector<ServerMessage> receive(uint32_t ms = 100) {
        return receive(ms, [](const std::vector<ServerMessage> &) { return false; });
    }

private:
    platform::SocketHandle s_ = platform::kInvalidSocket;
    MessageReader reader_;
};

std::string texts(const std::vector<ServerMessage> &ms) {
    std::string out;
    for (const auto &m : ms)
        if (m.type == kMsgText) out += m.bytes;
    return out;
}
std::string acks(const std::vector<ServerMessage> &ms) {
    std::string out;
    for (const auto &m : ms)
        if (m.type == kMsgAck) out += static_cast<char>(m.a);
    return out;
}

// The records and the end marker of a trace, without its thread markers.
std::vector<test::TraceItem> records(std::vector<test::TraceItem> items) {
    std::vector<test::TraceItem> out;
    for (auto &item : items)
        if (item.kind != test::TraceItem::ThreadMarker) out.push_back(std::move(item));
    return out;
}

// One server on a free loopback port, driving the process settings' trace.
struct ServerFixture : ::testing::Test {
    CNetworkServer server;
    test::TraceSession session{test::scratchPath("network.kalvoren")};
    Settings &s = session.settings();

    void SetUp() override {
        server.setClock(fakeTick, fakeSleep);
        ASSERT_TRUE(server.initServer(0, "127.0.0.1"));
        ASSERT_NE(server.port(), 0);
        s.networkEnabled = true;
    }
    void TearDown() override {
        server.shutdown();
        s.networkEnabled = false;
    }
    // One intercepted call a little over a second after the last: the server receives.
    bool call() {
        g_now += 1001;
        return server.recordingDecision(s);
    }
};

TEST_F(ServerFixture, CommandsAcknowledgementsAndProtocolEdges) {
    EXPECT_FALSE(call()) << "no client: nothing recorded";
    Client c(server.port());
    EXPECT_FALSE(call());
    auto hello = c.receive(300);
    ASSERT_FALSE(hello.empty());
    EXPECT_EQ(hello[0].type, kMsgTraceAvailable);
    EXPECT_EQ(hello[0].a, 1);
    std::string t = texts(hello);
    EXPECT_NE(t.find("Connected\n  * SaveTraceToDisk: " + session.path() + " - Enabled "), std::string::npos)
        << t;
    EXPECT_NE(t.find("\n  * Save Original Framebuffer - Disabled"), std::string::npos);
    EXPECT_NE(t.find("\n  * Waiting for client connection before any EGL/GL call - Disabled\n"),
              std::string::npos);
    EXPECT_NE(t.find("Playing... frame 0\n"), std::string::npos);

    // A status at most once a second (not in a poll whose receive found nothing): playing, not
    // recording.
    EXPECT_FALSE(call());
    EXPECT_FALSE(server.recordingDecision(s));
    auto status = c.receive(200);
    ASSERT_FALSE(status.empty());
    EXPECT_EQ(status.back().type, kMsgStatus);
    EXPECT_EQ(status.back().a, 'R');
    EXPECT_EQ(status.back().b, 0);

    // "E" is acknowledged with "C"; a command split across receives is put together; the four
    // bytes 08 44 45 08 leave one byte for the next receive.
    c.send(std::string("\x08\x44\x45\x08", 4));
    call();
    c.send(std::string("\x44", 1));
    call();
    c.send(std::string("\x45", 1));
    call();
    EXPECT_EQ(acks(c.receive(200)), "CC");

    // Garbage and unknown codes drop what is buffered; the client stays and the next command works.
    c.send("garbage!\x08\x44\x45");
    call();
    c.send(std::string("\x08\x44\x7f\x08\x44\x45", 6));
    call();
    EXPECT_EQ(acks(c.receive(200)), "");
    EXPECT_TRUE(server.connected());
    c.command('E');
    call();
    EXPECT_EQ(acks(c.receive(200)), "C");

    // A text of 70000 bytes is announced as 16000 and sent whole.
    std::string longText(70000, 'x');
    longText[69999] = 'y';
    EXPECT_TRUE(server.sendText(longText));
    server.sendEndMarker();
    auto longMessages =
        c.receive(1000, [](const std::vector<ServerMessage> &ms) { return ms.back().type == kMsgEndOfData; });
    ASSERT_GE(longMessages.size(), 2u);
    EXPECT_EQ(longMessages[0].type, kMsgText);
    EXPECT_EQ(longMessages[0].bytes, longText);

    // BufferSize 0 gives chunks of 65536 bytes, whose length field is 00 00.
    server.setChunkSize(0);
    EXPECT_EQ(server.chunkSize(), 65536u);
    std::string data(65536 + 10, 'd');
    EXPECT_TRUE(server.queueData(data.data(), static_cast<uint32_t>(data.size())));
    EXPECT_EQ(server.queued(), 10u) << "one whole chunk went, the rest waits";
    EXPECT_TRUE(server.flush(true));
    EXPECT_EQ(server.queued(), 0u);
    auto chunks = c.receive(1000, [](const std::vector<ServerMessage> &ms) { return ms.size() >= 2; });
    ASSERT_EQ(chunks.size(), 2u);
    EXPECT_EQ(chunks[0].bytes.size(), 65536u);
    EXPECT_EQ(chunks[1].bytes.size(), 10u);
}

TEST_F(ServerFixture, StartStopAndFetch) {
    Client c(server.port());
    s.currentFrame = 3;
    call();
    c.receive(200);

    // Start during frame 3: nothing of frame 3 is recorded; frame 4 opens with the header and
    // the snapshot between its two markers.
    c.command(0x40);
    EXPECT_FALSE(call());
    EXPECT_FALSE(server.recordingDecision(s));
    auto started = c.receive(200);
    EXPECT_EQ(acks(started), std::string(1, '\x40'));
    EXPECT_NE(texts(started).find("Overwriting old trace file\n"), std::string::npos);
    s.currentFrame = 4;
    EXPECT_TRUE(server.recordingDecision(s));
    EXPECT_TRUE(server.recordingDecision(s));
    std::string t = texts(c.receive(200));
    EXPECT_NE(
        t.find(
            "Start Recording\nSaving Render State...\nSaving Render State... Done\nRecording... frame 4\n"),
        std::string::npos)
        << t;

    // "F" while recording: refused, and the recording stops in the same poll.
    c.command('F');
    EXPECT_FALSE(call());
    auto refused = c.receive(300);
    EXPECT_EQ(acks(refused), "AF");
    t = texts(refused);
    EXPECT_NE(t.find("Please stop the recording before requesting for the TraceFile\n"), std::string::npos)
        << t;
    EXPECT_NE(t.find("Closing Trace - Footer\n"), std::string::npos) << t;
    std::string problem;
    auto items = records(test::walkTrace(test::readFile(session.path()), session.headerEnd(), &problem));
    EXPECT_EQ(problem, "");
    ASSERT_EQ(items.size(), 3u);
    EXPECT_EQ(items[0].id, 2);
    EXPECT_EQ(items[1].id, 2);
    EXPECT_EQ(items[2].kind, test::TraceItem::EndMarker);

    // The second "F" that sends the file, pause and resume, a client that goes away while recording
    // and one that comes back: a real program driven by `kalvoren ctl` in
    // tests/integration/network_control.sh.
}

// The upload's progress lines: none for a file below 4096 bytes; for 8192 bytes one, 50, before the
// second piece; the last one sent is below 100. The data is the file, whole, and a missing or empty
// file is refused with its reason.
TEST_F(ServerFixture, UploadProgressAndRefusals) {
    Client c(server.port());
    call();
    c.receive(200);
    const CZandString saved = s.outputFilename;
    struct Case {
        size_t size;
        const char *progress;
    };
    for (const Case &k : {Case{100, ""}, Case{8192, "Transferring... 50%\n"},
                          Case{4096 * 3, "Transferring... 33%\nTransferring... 66%\n"}}) {
        const std::string path = test::scratchPath("upload-" + std::to_string(k.size));
        std::string content(k.size, 0);
        for (size_t i = 0; i < k.size; ++i)
            content[i] = static_cast<char>(i * 13 + 1);
        test::writeFile(path, content);
        s.outputFilename = CZandString(path);
        server.uploadTrace(s);
        auto ms = c.receive(2000, [](const std::vector<ServerMessage> &m) {
            return m.back().type == kMsgText && m.back().bytes.find("Finished") == 0;
        });
        std::string data, progress;
        for (const auto &m : ms) {
            if (m.type == kMsgData) data += m.bytes;
            if (m.type == kMsgText && m.bytes.find("Transferring") == 0) progress += m.bytes;
        }
        EXPECT_EQ(data, content) << k.size;
        EXPECT_EQ(progress, k.progress) << k.size;
    }
    s.outputFilename = CZandString(test::scratchPath("no-such-trace"));
    server.uploadTrace(s);
    EXPECT_NE(texts(c.receive(200))
                  .find("Failed to open trace file '" + test::scratchPath("no-such-trace") +
                        "'. Aborting Upload\n"),
              std::string::npos);
    test::writeFile(test::scratchPath("empty-trace"), "");
    s.outputFilename = CZandString(test::scratchPath("empty-trace"));
    server.uploadTrace(s);
    EXPECT_NE(texts(c.receive(200)).find("is 0 bytes. Aborting Upload\n"), std::string::npos);
    s.outputFilename = saved;
}

TEST(ServerWire, MessageReaderSkipsNoiseAndWaitsForWholeMessages) {
    MessageReader r;
    const std::string stream = std::string("zz\x08\x44\x21\x41", 6) + std::string("\x08\x44\x32R\x01", 5) +
                               std::string("\x08\x44\x33\x03\x00"
                                           "abc",
                                           8) +
                               std::string("\x08\x44\x31\x02\x00"
                                           "xy%",
                                           8) +
                               std::string("\x08\x44\x47", 3);
    std::vector<ServerMessage> got;
    ServerMessage m;
    for (char ch : stream) {
        r.feed(&ch, 1);
        while (r.next(&m))
            got.push_back(m);
    }
    ASSERT_EQ(got.size(), 5u);
    EXPECT_EQ(r.skipped(), 2u);
    EXPECT_EQ(got[0].a, 'A');
    EXPECT_EQ(got[1].a, 'R');
    EXPECT_EQ(got[1].b, 1);
    EXPECT_EQ(got[2].bytes, "abc");
    EXPECT_EQ(got[3].bytes, "xy");
    EXPECT_EQ(got[4].type, kMsgEndOfData);
}

} // namespace
} // namespace kv::net
