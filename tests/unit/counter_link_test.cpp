// The counter link over real shared memory, both ends in this process: the handshake through the
// negotiation block, the ring's buffer hand-over, every message type and the edge cases (channel 0,
// a write of exactly one buffer, an edit for an unknown item, a close from the server, an oversized
// payload).
#include "net/counter_link.h"
#include "platform/platform.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <thread>

namespace kv::net {
namespace {

// Object names of their own, so that tests (and a running performance server) never meet.
std::string testBase(const char *what) {
    return std::string("KvTest") + what + std::to_string(platform::processId());
}

CCounterLink::PathFactory factoryFor(const std::string &base) {
    return [base] { return std::unique_ptr<CDataPath>(new CDataPathSharedMem(false, base)); };
}

struct Pair {
    std::string base;
    CDataPathSharedMem *serverPath;
    CCounterServer server;
    std::unique_ptr<CCounterLink> link;
    explicit Pair(const char *what)
        : base(testBase(what)), serverPath(new CDataPathSharedMem(true, base)),
          server(std::unique_ptr<CDataPath>(serverPath), 7) {
        EXPECT_TRUE(server.listen());
        link.reset(new CCounterLink("Kalvoren", 8, factoryFor(base)));
    }
    // Runs both ends until the server has been greeted and has the library's identity.
    void settle() {
        for (int i = 0; i < 200 && (!server.connected() || server.counterNames.empty()); ++i) {
            link->poll();
            ASSERT_TRUE(server.poll());
        }
    }
};

TEST(CounterLink, ConnectsIdentifiesAndCarriesEveryMessage) {
    Pair p("Msgs");
    CCounterLink *links[] = {p.link.get()};
    std::atomic<bool> stop{false};
    // The server answers the handshake while the library waits for it.
    std::thread serverThread([&] {
        while (!stop && !p.server.connected())
            p.server.poll();
    });
    CCounterLink::waitForConnection(links, 1, 2000);
    stop = true;
    serverThread.join();
    ASSERT_TRUE(p.link->connected());
    LinkItem items[2] = {{"Kalvoren.Disable draw calls", 4, {0, 0, 0, 0}},
                         {"Kalvoren.Culling mode", 3, {'0'}}};
    p.link->defineItems(items, 2);
    const std::string names[3] = {"A", "Bb", "Total API calls"};
    p.link->defineCounters(names, 3);
    p.settle();
    EXPECT_EQ(p.server.processId, static_cast<uint32_t>(platform::processId()));
    EXPECT_EQ(p.server.linkName, "Kalvoren");
    EXPECT_EQ(p.server.identification, "Miravel Developer v14.148");
    ASSERT_EQ(p.server.items.size(), 2u);
    EXPECT_EQ(p.server.items[1].name, "Kalvoren.Culling mode");
    EXPECT_EQ(p.server.items[1].type, 3u);
    ASSERT_EQ(p.server.counterNames.size(), 3u);
    EXPECT_EQ(p.server.counterNames[2], "Total API calls");
    ASSERT_FALSE(p.server.events.empty());
    EXPECT_EQ(p.server.events[0].text.rfind("connected", 0), 0u);

    const uint32_t values[3] = {1, 2, 0xDEADBEEF};
    EXPECT_TRUE(p.link->sendCounterValues(values));
    EXPECT_TRUE(p.link->sendProcessingBegin("glDrawArrays", 12, 5));
    EXPECT_TRUE(p.link->sendProcessingEnd());
    ASSERT_TRUE(p.server.poll());
    EXPECT_EQ(p.server.values, std::vector<uint32_t>({1, 2, 0xDEADBEEF}));
    ASSERT_GE(p.server.events.size(), 3u);
    EXPECT_EQ(p.server.events[p.server.events.size() - 2].text, "glDrawArrays");
    EXPECT_EQ(p.server.events[p.server.events.size() - 2].frame, 5u);
    EXPECT_EQ(p.server.events.back().type, kLinkEnd);

    // Edits: newest first, each item once.
    const uint32_t on = 1;
    ASSERT_TRUE(p.server.sendEdit(0, &on, 4));
    ASSERT_TRUE(p.server.sendEdit(1, "2", 1));
    ASSERT_TRUE(p.server.sendEdit(0, &on, 4));
    for (int i = 0; i < 3; ++i)
        p.link->poll();
    uint32_t index, length;
    const uint8_t *data;
    ASSERT_TRUE(p.link->takeNextEditedItem(&index, &length, &data));
    EXPECT_EQ(index, 0u);
    EXPECT_EQ(length, 4u);
    ASSERT_TRUE(p.link->takeNextEditedItem(&index, &length, &data));
    EXPECT_EQ(index, 1u);
    EXPECT_EQ(std::string(reinterpret_cast<const char *>(data), length), "2");
    EXPECT_FALSE(p.link->takeNextEditedItem(&index, &length, &data));

    // A payload over 0xFFFFFF is refused before any byte is written.
    std::string huge(0x1000000, 'x');
    EXPECT_FALSE(p.link->sendMark(huge.data(), static_cast<uint32_t>(huge.size() - 3)));
    EXPECT_TRUE(p.link->connected());
    EXPECT_TRUE(p.link->sendMark("after", 5));
    ASSERT_TRUE(p.server.poll());
    EXPECT_EQ(p.server.events.back().text, "after");

    // The library's close message when it goes.
    p.link.reset();
    EXPECT_FALSE(p.server.poll());
    EXPECT_TRUE(p.server.closedByLibrary);
}

TEST(CounterLink, EditForAnUnknownItemBreaksTheLinkAndServerCloseReconnects) {
    Pair p("Edit");
    p.settle();
    LinkItem item{"Kalvoren.Force zero viewport", 4, {0, 0, 0, 0}};
    p.link->defineItems(&item, 1);
    ASSERT_TRUE(p.link->connected());
    const uint32_t on = 1;
    ASSERT_TRUE(p.server.sendEdit(1, &on, 4)); // index == item count
    EXPECT_FALSE(p.link->poll());
    EXPECT_FALSE(p.link->connected());

    // A server that closes: the library connects again at once to the re-published channel.
    Pair q("Close");
    q.settle();
    ASSERT_TRUE(q.server.sendClose());
    auto *path = new CDataPathSharedMem(true, q.base);
    CCounterServer again(std::unique_ptr<CDataPath>(path), 9);
    ASSERT_TRUE(again.listen());
    std::atomic<bool> stop{false};
    std::thread t([&] {
        while (!stop)
            again.poll();
    });
    q.link->poll(); // reads the close, reconnects
    for (int i = 0; i < 2000 && !q.link->connected(); ++i) {
        q.link->poll();
        platform::sleepMs(1);
    }
    stop = true;
    t.join();
    EXPECT_TRUE(q.link->connected());
    EXPECT_EQ(path->channel(), 9u);
}

TEST(DataPath, ChannelZeroLeavesThePathUnconnected) {
    const std::string base = testBase("Zero");
    platform::SharedMemory negotiation;
    ASSERT_TRUE(negotiation.open(sharedObjectName(base, 0, 'N', 0, 'd'), kNegotiationBytes, true));
    platform::NamedLock lock;
    ASSERT_TRUE(lock.open(sharedObjectName(base, 0, 'N', 0, 'm'), true));
    std::memset(negotiation.data(), 0, kNegotiationBytes);
    CDataPathSharedMem path(false, base);
    EXPECT_EQ(path.connect(), kReadFailed);
    EXPECT_EQ(path.bytesWritten(), 0u);
    uint8_t zeros[kNegotiationBytes] = {};
    EXPECT_EQ(std::memcmp(negotiation.data(), zeros, kNegotiationBytes), 0);
    // No block at all is the same as channel 0.
    platform::SharedMemory::unlink(sharedObjectName(base, 0, 'N', 0, 'd'));
    platform::NamedLock::unlink(sharedObjectName(base, 0, 'N', 0, 'm'));
    CDataPathSharedMem none(false, base + "x");
    EXPECT_EQ(none.connect(), kReadFailed);
}

TEST(DataPath, BufferHandOverAndAStreamAcrossManyBuffers) {
    const std::string base = testBase("Ring");
    CDataPathSharedMem server(true, base), library(false, base);
    ASSERT_TRUE(server.listen(3));
    ASSERT_EQ(library.connect(), kReadPending);
    ASSERT_EQ(server.acceptHandshake(), kReadDelivered);
    ASSERT_EQ(library.connect(), kReadDelivered);

    // Filling buffer 0 to exactly its 32760 bytes (the handshake took 5) leaves buffer 1 alone.
    std::vector<uint8_t> block(kRingDataBytes - 5);
    for (size_t i = 0; i < block.size(); ++i)
        block[i] = static_cast<uint8_t>(i * 7);
    const uint32_t before = library.bytesWritten();
    ASSERT_TRUE(library.write(block.data(), kRingDataBytes - 5));
    EXPECT_EQ(library.bytesWritten() - before, kRingDataBytes - 5);
    platform::SharedMemory u0, u1;
    ASSERT_TRUE(u0.open(sharedObjectName(base, 3, 'U', 0, 'd'), kRingBufferBytes, false));
    ASSERT_TRUE(u1.open(sharedObjectName(base, 3, 'U', 1, 'd'), kRingBufferBytes, false));
    uint32_t pos;
    std::memcpy(&pos, u0.data() + 4, 4);
    EXPECT_EQ(pos, kRingDataBytes);
    std::memcpy(&pos, u1.data() + 4, 4);
    EXPECT_EQ(pos, 0u);
    // The next byte needs buffer 1's lock: while someone else holds it the write waits, then fails.
    // The holder is another thread: a Windows mutex lets its owning thread take it again.
    {
        std::atomic<int> holding{0};
        std::atomic<bool> release{false};
        std::thread holder([&] {
            platform::NamedLock other;
            if (!other.open(sharedObjectName(base, 3, 'U', 1, 'm'), false) || other.take(0) != 1) {
                holding = -1;
                return;
            }
            holding = 1;
            while (!release)
                std::this_thread::sleep_for(std::chrono::milliseconds(5));
            other.release();
        });
        while (holding == 0)
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        if (holding == 1) {
            library.setWriteWaitSteps(1);
            const uint64_t start = platform::tickCountMs();
            EXPECT_FALSE(library.write("x", 1));
            EXPECT_GE(platform::tickCountMs() - start, 900u);
        }
        release = true;
        holder.join();
        ASSERT_EQ(holding.load(), 1);
    }

    // A fresh pair streams 300000 bytes through the three buffers with the reader on another thread
    // than the one that listened: the locks the listener took are handed back from there.
    const std::string base2 = testBase("Stream");
    CDataPathSharedMem s2(true, base2), l2(false, base2);
    ASSERT_TRUE(s2.listen(4));
    l2.connect();
    ASSERT_EQ(s2.acceptHandshake(), kReadDelivered);
    ASSERT_EQ(l2.connect(), kReadDelivered);
    std::vector<uint8_t> sent(300000), received(sent.size());
    for (size_t i = 0; i < sent.size(); ++i)
        sent[i] = static_cast<uint8_t>(i * 31 + (i >> 9));
    std::thread reader([&] {
        uint32_t at = 0;
        while (at < received.size()) {
            uint32_t got = 0;
            const uint32_t want = std::min<uint32_t>(5000, static_cast<uint32_t>(received.size()) - at);
            if (s2.read(received.data() + at, want, &got) == kReadFailed) return;
            at += got;
        }
    });
    for (size_t at = 0; at < sent.size(); at += 7001)
        ASSERT_TRUE(
            l2.write(sent.data() + at, static_cast<uint32_t>(std::min<size_t>(7001, sent.size() - at))));
    reader.join();
    EXPECT_EQ(sent, received);
    s2.unlinkAll();
    server.unlinkAll();
}

} // namespace
} // namespace kv::net
