// Data routes: byte pipes over TCP. A herd listens and hands out one route per accepted client; a
// route buffers what it sends and caches what it receives. The network control server talks to its
// client through them.
#pragma once

#include "platform/sockets.h"

#include <cstdint>
#include <string>

namespace kv::net {

// What a read or a connect achieved.
enum ReadResult : int {
    kReadFailed = 0,    // failure, or the connection was lost
    kReadNothing = 1,   // nothing available yet (or only part of what was asked); connect pending
    kReadClosed = 2,    // a socket route's raw receive: the peer closed the connection
    kReadDelivered = 3, // data delivered / connected
};

// Liveness of a route's socket (see CDataRouteSockets::aliveState).
enum Alive : int { kDead = 0, kAliveNotReady = 1, kAliveWritable = 2 };

class CDataRoute {
public:
    virtual ~CDataRoute() = default;
    virtual bool isAlive() = 0;
    virtual int connect() = 0;
    // Buffered write; with `flushNow` the buffer is sent before returning.
    virtual bool write(const void *bytes, uint32_t count, bool flushNow) = 0;
    virtual bool flush() = 0;
    // Reads from the receive cache. With `received`, returns after the first piece (kReadDelivered
    // when any byte came, else kReadNothing); without, waits for all `count` bytes.
    virtual int read(void *buffer, uint32_t count, uint32_t *received) = 0;
};

class CDataRouteCached : public CDataRoute {
public:
    // Sends every byte now, unbuffered.
    virtual bool sendRaw(const void *bytes, uint32_t count) = 0;
    // One receive of at most `capacity` bytes (see ReadResult).
    virtual int receiveRaw(void *buffer, uint32_t capacity, uint32_t *received) = 0;
};

class CDataRouteSockets : public CDataRouteCached {
public:
    static constexpr uint32_t kBufferSize = 4048;

    CDataRouteSockets() = default;
    ~CDataRouteSockets() override;
    CDataRouteSockets(const CDataRouteSockets &) = delete;
    CDataRouteSockets &operator=(const CDataRouteSockets &) = delete;

    // Always true: whether a socket still works is told by aliveState().
    bool isAlive() override { return true; }
    // With a target set: checks a socket that exists, else starts a non-blocking connect.
    // kReadNothing while pending, kReadDelivered once connected, kReadFailed on failure.
    int connect() override;
    bool write(const void *bytes, uint32_t count, bool flushNow) override;
    bool flush() override;
    int read(void *buffer, uint32_t count, uint32_t *received) override;
    bool sendRaw(const void *bytes, uint32_t count) override;
    int receiveRaw(void *buffer, uint32_t capacity, uint32_t *received) override;

    // Takes over an accepted socket.
    void attach(platform::SocketHandle socket);
    void setTarget(const char *hostName, uint16_t port);
    // The socket's state within `waitMs`: writable, alive but not ready, or dead.
    int aliveState(uint32_t waitMs);
    // Shuts the sending side, drains what still arrives, and closes.
    void closeSocket();

    void setWaitTime(uint32_t ms) { waitMs_ = ms; }
    platform::SocketHandle socket() const { return socket_; }
    uint32_t bytesSent() const { return bytesSent_; }
    uint32_t bytesReceived() const { return bytesReceived_; }

private:
    platform::SocketHandle socket_ = platform::kInvalidSocket;
    // A send or receive failed with an error: the connection is gone, whatever the socket's
    // writability says (a reset connection stays "writable" to Winsock's select).
    bool broken_ = false;
    uint32_t bytesSent_ = 0;
    uint32_t bytesReceived_ = 0;
    uint8_t sendBuffer_[kBufferSize];
    uint32_t sendStart_ = 0;
    uint32_t sendFill_ = 0;
    uint8_t receiveRing_[kBufferSize];
    uint32_t receiveRead_ = 0;
    uint32_t receiveFill_ = 0;
    uint32_t waitMs_ = 0;
    std::string targetHost_;
    uint16_t targetPort_ = 0;
};

class CDataRouteHerd {
public:
    virtual ~CDataRouteHerd() = default;
    virtual void close() = 0;
    // A route for a newly connected client, or null when none is waiting.
    virtual CDataRoute *accept() = 0;
};

class CDataRouteHerdSockets : public CDataRouteHerd {
public:
    CDataRouteHerdSockets() = default;
    ~CDataRouteHerdSockets() override { close(); }
    CDataRouteHerdSockets(const CDataRouteHerdSockets &) = delete;
    CDataRouteHerdSockets &operator=(const CDataRouteHerdSockets &) = delete;

    // Listens on `port` at `bindAddress` (empty: every local address), printing where the server
    // can be reached or what failed.
    bool listen(uint16_t port, const std::string &bindAddress);
    void close() override;
    // Accepts a client if one is waiting within 10 ms; the route waits 200 ms for writability.
    CDataRoute *accept() override;
    uint16_t localPort() const;

private:
    platform::SocketHandle listening_ = platform::kInvalidSocket;
};

} // namespace kv::net
