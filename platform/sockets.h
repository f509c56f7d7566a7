// TCP sockets, the same on every system: Winsock on Windows and BSD sockets elsewhere are behind
// these few calls. Every socket made here is non-blocking; waits are explicit and bounded.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace kv::platform {

using SocketHandle = intptr_t;
constexpr SocketHandle kInvalidSocket = -1;

// Starts the system's socket layer once (WSAStartup 2.2 on Windows; on POSIX nothing is needed,
// sends never raise SIGPIPE). False, with the system's reason in `error`, when it cannot start.
bool socketsStartup(std::string *error);

// A non-blocking TCP socket (IPv4); kInvalidSocket on failure.
SocketHandle tcpSocket();
// Makes a socket non-blocking (ioctlsocket FIONBIO / O_NONBLOCK).
bool socketNonBlocking(SocketHandle s);
bool socketReuseAddress(SocketHandle s);
// Binds to `address` (a dotted IPv4 address or a host name; empty means every local address) and
// `port`, then listens with the largest backlog.
bool socketBindListen(SocketHandle s, const std::string &address, uint16_t port);
// The port a bound socket got (useful when bound to port 0).
uint16_t socketLocalPort(SocketHandle s);
// Waits up to `ms` for the socket to be readable: 1 ready, 0 timed out, -1 error.
int socketWaitReadable(SocketHandle s, uint32_t ms);
// Waits up to `ms` for the socket to be writable: 1 ready, 0 timed out, -1 error.
int socketWaitWritable(SocketHandle s, uint32_t ms);
// The liveness of a socket within `ms`: 2 writable (connected), 1 alive but not ready (timed out,
// or a connection still in progress), 0 dead (an error condition other than "in progress").
int socketAlive(SocketHandle s, uint32_t ms);
// Accepts a pending connection (non-blocking); kInvalidSocket when there is none. The new socket
// is non-blocking too.
SocketHandle socketAccept(SocketHandle listening);
// Starts connecting to an IPv4 address: 1 connected, 0 in progress, -1 failed.
int socketConnect(SocketHandle s, const uint8_t ipv4[4], uint16_t port);
// Sends what the system takes now: the count, 0 when it would block, -1 on error.
long socketSend(SocketHandle s, const void *bytes, size_t n);
// Receives what is there: the count, 0 when the peer closed, -2 when nothing is there yet, -1 on
// error.
long socketReceive(SocketHandle s, void *buffer, size_t capacity);
void socketShutdownSend(SocketHandle s);
void socketClose(SocketHandle s);
// The text of the last socket error of the calling thread.
std::string socketErrorText();

// The local host's name; empty when it cannot be told.
std::string localHostName();
// The first IPv4 address of a host name or dotted address; false with the resolver's reason.
bool resolveIPv4(const std::string &host, uint8_t out[4], std::string *error);

} // namespace kv::platform
