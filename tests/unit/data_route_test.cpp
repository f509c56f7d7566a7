// Data routes over loopback: a herd accepts a client, the route sends buffered and unbuffered,
// receives through its cache, tells a live socket from a dead one, and an outgoing route connects.
#include "net/data_route.h"
#include "platform/platform.h"

#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <string>
#include <vector>

namespace kv::net {
namespace {

// A herd on a free loopback port, and a plain client socket connected to it.
struct Loopback {
    CDataRouteHerdSockets herd;
    uint16_t port = 0;
    platform::SocketHandle client = platform::kInvalidSocket;
    std::unique_ptr<CDataRouteSockets> route;

    Loopback() {
        EXPECT_TRUE(herd.listen(0, "127.0.0.1"));
        port = herd.localPort();
        EXPECT_NE(port, 0);
        // No client yet: nothing to accept.
        EXPECT_EQ(herd.accept(), nullptr);
        client = platform::tcpSocket();
        const uint8_t ip[4] = {127, 0, 0, 1};
        EXPECT_GE(platform::socketConnect(client, ip, port), 0);
        for (int i = 0; i < 200 && !route; ++i)
            route.reset(static_cast<CDataRouteSockets *>(herd.accept()));
        EXPECT_TRUE(route);
        EXPECT_EQ(platform::socketWaitWritable(client, 1000), 1);
    }
    ~Loopback() { platform::socketClose(client); }

    // Everything the client receives within a short while, up to `want` bytes.
    std::vector<uint8_t> clientReceive(size_t want) {
        std::vector<uint8_t> got;
        uint8_t buffer[65536];
        for (int i = 0; i < 500 && got.size() < want; ++i) {
            if (platform::socketWaitReadable(client, 10) != 1) continue;
            long n = platform::socketReceive(client, buffer, sizeof(buffer));
            if (n <= 0) break;
            got.insert(got.end(), buffer, buffer + n);
        }
        return got;
    }
    void clientSend(const void *bytes, size_t n) {
        const uint8_t *p = static_cast<const uint8_t *>(bytes);
        while (n > 0) {
            ASSERT_EQ(platform::socketWaitWritable(client, 1000), 1);
            long sent = platform::socketSend(client, p, n);
            ASSERT_GE(sent, 0);
            p += sent;
            n -= static_cast<size_t>(sent);
        }
    }
};

std::vector<uint8_t> pattern(size_t n, int seed) {
    std::vector<uint8_t> v(n);
    for (size_t i = 0; i < n; ++i)
        v[i] = static_cast<uint8_t>(i * 31 + seed);
    return v;
}

TEST(DataRoute, SendsBufferedAndRawBytesInOrder) {
    Loopback lb;
    ASSERT_TRUE(lb.route);
    EXPECT_EQ(lb.route->aliveState(1), kAliveWritable);
    // Buffered writes go out when the 4048-byte buffer fills or on flush; raw sends at once.
    std::vector<uint8_t> a = pattern(10000, 1), b = pattern(100, 2), c = pattern(70000, 3);
    EXPECT_TRUE(lb.route->write(a.data(), static_cast<uint32_t>(a.size()), false));
    EXPECT_EQ(lb.clientReceive(2 * CDataRouteSockets::kBufferSize).size(),
              2 * CDataRouteSockets::kBufferSize);
    EXPECT_TRUE(lb.route->write(b.data(), static_cast<uint32_t>(b.size()), true));
    std::vector<uint8_t> rest = lb.clientReceive(a.size() + b.size() - 2 * CDataRouteSockets::kBufferSize);
    std::vector<uint8_t> expected(a.begin() + 2 * CDataRouteSockets::kBufferSize, a.end());
    expected.insert(expected.end(), b.begin(), b.end());
    EXPECT_EQ(rest, expected);
    // A raw send larger than the socket's buffers is sent whole while the client reads.
    EXPECT_TRUE(lb.route->sendRaw(c.data(), static_cast<uint32_t>(c.size())));
    EXPECT_EQ(lb.clientReceive(c.size()), c);
    EXPECT_EQ(lb.route->bytesSent(), a.size() + b.size() + c.size());
}

TEST(DataRoute, ReceivesThroughItsCacheAndSeesThePeerClose) {
    Loopback lb;
    ASSERT_TRUE(lb.route);
    uint8_t buffer[8192];
    uint32_t got = 99;
    EXPECT_EQ(lb.route->receiveRaw(buffer, sizeof(buffer), &got), kReadNothing);
    EXPECT_EQ(got, 0u);
    std::vector<uint8_t> sent = pattern(6000, 5);
    lb.clientSend(sent.data(), sent.size());
    // A whole read of more than the cache holds is refused; smaller whole reads wait for bytes.
    EXPECT_EQ(lb.route->read(buffer, 5000, nullptr), kReadFailed);
    std::vector<uint8_t> received;
    EXPECT_EQ(lb.route->read(buffer, 3000, nullptr), kReadDelivered);
    received.insert(received.end(), buffer, buffer + 3000);
    while (received.size() < sent.size()) {
        int r = lb.route->read(buffer, sizeof(buffer), &got);
        ASSERT_NE(r, kReadFailed);
        received.insert(received.end(), buffer, buffer + got);
    }
    EXPECT_EQ(received, sent);
    EXPECT_EQ(lb.route->bytesReceived(), sent.size());
    platform::socketClose(lb.client);
    lb.client = platform::kInvalidSocket;
    int r = kReadNothing;
    for (int i = 0; i < 100 && r == kReadNothing; ++i)
        r = lb.route->receiveRaw(buffer, sizeof(buffer), &got);
    EXPECT_EQ(r, kReadClosed);
}

TEST(DataRoute, OutgoingConnectAndDeadSockets) {
    CDataRouteHerdSockets herd;
    ASSERT_TRUE(herd.listen(0, ""));
    CDataRouteSockets out;
    EXPECT_EQ(out.connect(), kReadFailed) << "no target";
    out.setTarget("localhost", herd.localPort());
    int r = out.connect();
    EXPECT_NE(r, kReadFailed);
    for (int i = 0; i < 100 && r == kReadNothing; ++i) {
        platform::sleepMs(5);
        r = out.connect();
    }
    EXPECT_EQ(r, kReadDelivered);
    std::unique_ptr<CDataRoute> in;
    for (int i = 0; i < 100 && !in; ++i)
        in.reset(herd.accept());
    ASSERT_TRUE(in);
    EXPECT_TRUE(in->write("hello", 5, true));
    char text[5];
    EXPECT_EQ(out.read(text, 5, nullptr), kReadDelivered);
    EXPECT_EQ(std::string(text, 5), "hello");
    // The accepting side goes away: the outgoing side's socket turns dead after its peer resets it.
    in.reset();
    herd.close();
    for (int i = 0; i < 20; ++i)
        out.sendRaw("x", 1);
    EXPECT_EQ(out.aliveState(10), kDead);

    // A port nobody listens on refuses the connect (at once, or once the attempt completes).
    CDataRouteSockets refused;
    refused.setTarget("127.0.0.1", herd.localPort() == 1 ? 2 : 1);
    r = refused.connect();
    for (int i = 0; i < 100 && r == kReadNothing; ++i) {
        platform::sleepMs(5);
        r = refused.connect();
    }
    EXPECT_EQ(r, kReadFailed);
}

TEST(DataRoute, TakenPortIsReportedNotFatal) {
    CDataRouteHerdSockets first, second;
    ASSERT_TRUE(first.listen(0, "127.0.0.1"));
    EXPECT_FALSE(second.listen(first.localPort(), "127.0.0.1"));
    EXPECT_EQ(second.accept(), nullptr);
    EXPECT_FALSE(first.listen(1, "no.such.host.invalid"));
}

} // namespace
} // namespace kv::net
