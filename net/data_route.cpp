#include "net/data_route.h"

#include "base/zand_string.h"
#include "platform/platform.h"

#include <algorithm>
#include <cstring>

namespace kv::net {

namespace {
// Server lines keep their own line ends: they go out as they are, to the debugger and the console.
void say(const CZandString &text) {
    platform::debugOutput(text.c_str());
    platform::consoleOut(text.c_str());
}
} // namespace

// ---- CDataRouteSockets --------------------------------------------------------------------------

CDataRouteSockets::~CDataRouteSockets() {
    closeSocket();
}

void CDataRouteSockets::attach(platform::SocketHandle socket) {
    closeSocket();
    socket_ = socket;
    broken_ = false;
    sendStart_ = sendFill_ = 0;
    receiveRead_ = receiveFill_ = 0;
}

void CDataRouteSockets::setTarget(const char *hostName, uint16_t port) {
    targetHost_ = hostName ? hostName : "";
    targetPort_ = port;
}

int CDataRouteSockets::aliveState(uint32_t waitMs) {
    if (socket_ == platform::kInvalidSocket || broken_) return kDead;
    return platform::socketAlive(socket_, waitMs);
}

void CDataRouteSockets::closeSocket() {
    if (socket_ == platform::kInvalidSocket) return;
    platform::socketShutdownSend(socket_);
    // What the peer still sends is read and dropped so that the close is orderly, not a reset.
    uint8_t drain[1024];
    for (int i = 0; i < 64; ++i) {
        if (platform::socketWaitReadable(socket_, 0) != 1) break;
        if (platform::socketReceive(socket_, drain, sizeof(drain)) <= 0) break;
    }
    platform::socketClose(socket_);
    socket_ = platform::kInvalidSocket;
}

int CDataRouteSockets::connect() {
    if (socket_ != platform::kInvalidSocket) {
        int alive = aliveState(0);
        if (alive == kAliveWritable) return kReadDelivered;
        if (alive == kAliveNotReady) return kReadNothing;
        closeSocket();
        return kReadFailed;
    }
    if (targetHost_.empty()) return kReadFailed;
    std::string why;
    if (!platform::socketsStartup(&why)) return kReadFailed;
    uint8_t ip[4];
    if (!platform::resolveIPv4(targetHost_, ip, &why)) return kReadFailed;
    platform::SocketHandle s = platform::tcpSocket();
    if (s == platform::kInvalidSocket) return kReadFailed;
    int r = platform::socketConnect(s, ip, targetPort_);
    if (r < 0) {
        platform::socketClose(s);
        return kReadFailed;
    }
    attach(s);
    return r == 1 ? kReadDelivered : kReadNothing;
}

bool CDataRouteSockets::sendRaw(const void *bytes, uint32_t count) {
    if (socket_ == platform::kInvalidSocket) return false;
    const uint8_t *p = static_cast<const uint8_t *>(bytes);
    uint32_t sent = 0;
    while (sent < count) {
        int ready = platform::socketWaitWritable(socket_, waitMs_);
        if (ready < 0) {
            broken_ = true;
            return false;
        }
        // One timeout already fails the send: a client that stops reading must not hold the
        // application's thread for longer than the wait time.
        if (ready == 0) return false;
        long n = platform::socketSend(socket_, p + sent, count - sent);
        if (n < 0) {
            broken_ = true;
            return false;
        }
        sent += static_cast<uint32_t>(n);
    }
    bytesSent_ += count;
    return true;
}

int CDataRouteSockets::receiveRaw(void *buffer, uint32_t capacity, uint32_t *received) {
    if (received) *received = 0;
    if (socket_ == platform::kInvalidSocket) return kReadFailed;
    int ready = platform::socketWaitReadable(socket_, 10);
    if (ready == 0) return kReadNothing;
    long n = ready < 0 ? -1 : platform::socketReceive(socket_, buffer, capacity);
    if (n == -2) return kReadNothing;
    if (n < 0) {
        broken_ = true;
        return kReadFailed;
    }
    if (n == 0) return kReadClosed;
    bytesReceived_ += static_cast<uint32_t>(n);
    if (received) *received = static_cast<uint32_t>(n);
    return kReadDelivered;
}

bool CDataRouteSockets::flush() {
    if (sendFill_ == 0) return true;
    bool ok = sendRaw(sendBuffer_ + sendStart_, sendFill_);
    sendStart_ = sendFill_ = 0;
    return ok;
}

bool CDataRouteSockets::write(const void *bytes, uint32_t count, bool flushNow) {
    const uint8_t *p = static_cast<const uint8_t *>(bytes);
    bool ok = true;
    while (count > 0) {
        uint32_t room = kBufferSize - sendStart_ - sendFill_;
        uint32_t n = std::min(room, count);
        std::memcpy(sendBuffer_ + sendStart_ + sendFill_, p, n);
        sendFill_ += n;
        p += n;
        count -= n;
        if (sendStart_ + sendFill_ == kBufferSize) ok = flush() && ok;
    }
    if (flushNow) ok = flush() && ok;
    return ok;
}

int CDataRouteSockets::read(void *buffer, uint32_t count, uint32_t *received) {
    if (received) *received = 0;
    if (!received && count > kBufferSize) return kReadFailed;
    uint8_t *out = static_cast<uint8_t *>(buffer);
    uint32_t done = 0;
    for (;;) {
        uint32_t n = std::min(receiveFill_, count - done);
        std::memcpy(out + done, receiveRing_ + receiveRead_, n);
        receiveRead_ += n;
        receiveFill_ -= n;
        done += n;
        if (receiveFill_ == 0) receiveRead_ = 0;
        if (received && done > 0) {
            *received = done;
            return kReadDelivered;
        }
        if (done == count) return kReadDelivered;
        // Refill the ring from the socket.
        uint32_t got = 0;
        int r = receiveRaw(receiveRing_, kBufferSize, &got);
        if (r == kReadFailed || r == kReadClosed) {
            if (received) *received = done;
            return kReadFailed;
        }
        if (r == kReadNothing && received) return kReadNothing;
        receiveRead_ = 0;
        receiveFill_ = got;
    }
}

// ---- CDataRouteHerdSockets ----------------------------------------------------------------------

bool CDataRouteHerdSockets::listen(uint16_t port, const std::string &bindAddress) {
    std::string why;
    if (!platform::socketsStartup(&why)) {
        say("Error at WSAStartup()\n");
        return false;
    }
    std::string host = platform::localHostName();
    uint8_t ip[4];
    if (!platform::resolveIPv4(host.empty() ? "localhost" : host, ip, &why)) {
        say(CZandString::format("Error at getaddrinfo(): %s\n", why.c_str()));
    } else {
        say(CZandString::format("This server is %s:%u ", host.c_str(), static_cast<unsigned>(port)));
        say(CZandString::format("(%u.%u.%u.%u)...\n", ip[0], ip[1], ip[2], ip[3]));
    }
    platform::SocketHandle s = platform::tcpSocket();
    if (s == platform::kInvalidSocket) {
        say(CZandString::format("Error at ioctlsocket(): %s\n", platform::socketErrorText().c_str()));
        return false;
    }
    platform::socketReuseAddress(s);
    if (!platform::socketBindListen(s, bindAddress, port)) {
        say(CZandString::format("Error at bind(): %s\n", platform::socketErrorText().c_str()));
        platform::socketClose(s);
        return false;
    }
    close();
    listening_ = s;
    return true;
}

void CDataRouteHerdSockets::close() {
    if (listening_ == platform::kInvalidSocket) return;
    platform::socketClose(listening_);
    listening_ = platform::kInvalidSocket;
}

CDataRoute *CDataRouteHerdSockets::accept() {
    if (listening_ == platform::kInvalidSocket) return nullptr;
    if (platform::socketWaitReadable(listening_, 10) != 1) return nullptr;
    platform::SocketHandle s = platform::socketAccept(listening_);
    if (s == platform::kInvalidSocket) return nullptr;
    auto *route = new CDataRouteSockets();
    route->attach(s);
    route->setWaitTime(200);
    return route;
}

uint16_t CDataRouteHerdSockets::localPort() const {
    return listening_ == platform::kInvalidSocket ? 0 : platform::socketLocalPort(listening_);
}

} // namespace kv::net
