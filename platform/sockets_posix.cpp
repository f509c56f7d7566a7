// BSD sockets (POSIX side of platform/sockets.h).
#include "platform/sockets.h"

#if !defined(_WIN32)

#include <arpa/inet.h>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstring>

namespace kv::platform {

namespace {
int fd(SocketHandle s) {
    return static_cast<int>(s);
}

// poll() on one socket, retried when a signal interrupts it.
int pollOne(SocketHandle s, short events, uint32_t ms, short *revents) {
    struct pollfd p = {fd(s), events, 0};
    int timeout = ms > INT_MAX ? INT_MAX : static_cast<int>(ms);
    int r;
    do {
        r = ::poll(&p, 1, timeout);
    } while (r < 0 && errno == EINTR);
    *revents = p.revents;
    return r;
}

int pendingError(SocketHandle s) {
    int err = 0;
    socklen_t len = sizeof(err);
    if (getsockopt(fd(s), SOL_SOCKET, SO_ERROR, &err, &len) != 0) return errno;
    return err;
}
} // namespace

bool socketsStartup(std::string *) {
    return true;
}

SocketHandle tcpSocket() {
    int s = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, IPPROTO_TCP);
    if (s < 0) return kInvalidSocket;
    if (!socketNonBlocking(s)) {
        ::close(s);
        return kInvalidSocket;
    }
    return s;
}

bool socketNonBlocking(SocketHandle s) {
    int flags = fcntl(fd(s), F_GETFL, 0);
    return flags >= 0 && fcntl(fd(s), F_SETFL, flags | O_NONBLOCK) == 0;
}

bool socketReuseAddress(SocketHandle s) {
    int one = 1;
    return setsockopt(fd(s), SOL_SOCKET, SO_REUSEADDR, &one, sizeof(one)) == 0;
}

bool socketBindListen(SocketHandle s, const std::string &address, uint16_t port) {
    struct sockaddr_in a;
    std::memset(&a, 0, sizeof(a));
    a.sin_family = AF_INET;
    a.sin_port = htons(port);
    a.sin_addr.s_addr = htonl(INADDR_ANY);
    if (!address.empty()) {
        uint8_t ip[4];
        std::string why;
        if (!resolveIPv4(address, ip, &why)) {
            errno = EADDRNOTAVAIL;
            return false;
        }
        std::memcpy(&a.sin_addr.s_addr, ip, 4);
    }
    if (::bind(fd(s), reinterpret_cast<struct sockaddr *>(&a), sizeof(a)) != 0) return false;
    return ::listen(fd(s), SOMAXCONN) == 0;
}

uint16_t socketLocalPort(SocketHandle s) {
    struct sockaddr_in a;
    socklen_t len = sizeof(a);
    if (getsockname(fd(s), reinterpret_cast<struct sockaddr *>(&a), &len) != 0) return 0;
    return ntohs(a.sin_port);
}

int socketWaitReadable(SocketHandle s, uint32_t ms) {
    short ev = 0;
    int r = pollOne(s, POLLIN, ms, &ev);
    if (r < 0) return -1;
    if (r == 0) return 0;
    if (ev & POLLNVAL) return -1;
    // A closed or failed peer makes the socket readable: the receive tells which.
    return 1;
}

int socketWaitWritable(SocketHandle s, uint32_t ms) {
    short ev = 0;
    int r = pollOne(s, POLLOUT, ms, &ev);
    if (r < 0) return -1;
    if (r == 0) return 0;
    if (ev & (POLLERR | POLLNVAL)) return -1;
    return (ev & POLLOUT) ? 1 : -1;
}

int socketAlive(SocketHandle s, uint32_t ms) {
    short ev = 0;
    int r = pollOne(s, POLLOUT, ms, &ev);
    if (r < 0) return 0;
    if (r == 0) return 1;
    if (ev & (POLLERR | POLLNVAL)) return pendingError(s) == EINPROGRESS ? 1 : 0;
    // The peer reset the connection, or a connect failed: writable, but with an error pending.
    if (int err = pendingError(s)) return err == EINPROGRESS ? 1 : 0;
    return (ev & POLLOUT) ? 2 : 1;
}

SocketHandle socketAccept(SocketHandle listening) {
    int s;
    do {
        s = ::accept4(fd(listening), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
    } while (s < 0 && errno == EINTR);
    if (s < 0) return kInvalidSocket;
    int one = 1;
    setsockopt(s, IPPROTO_TCP, TCP_NODELAY, &one, sizeof(one));
    return s;
}

int socketConnect(SocketHandle s, const uint8_t ipv4[4], uint16_t port) {
    struct sockaddr_in a;
    std::memset(&a, 0, sizeof(a));
    a.sin_family = AF_INET;
    a.sin_port = htons(port);
    std::memcpy(&a.sin_addr.s_addr, ipv4, 4);
    int one = 1;
    setsockopt(fd(s), IPPROTO_TCP, TCP_NODELAY, &one, sizeof(one));
    if (::connect(fd(s), reinterpret_cast<struct sockaddr *>(&a), sizeof(a)) == 0) return 1;
    return (errno == EINPROGRESS || errno == EINTR || errno == EAGAIN) ? 0 : -1;
}

long socketSend(SocketHandle s, const void *bytes, size_t n) {
    ssize_t r;
    do {
        r = ::send(fd(s), bytes, n, MSG_NOSIGNAL);
    } while (r < 0 && errno == EINTR);
    if (r < 0) return (errno == EAGAIN || errno == EWOULDBLOCK) ? 0 : -1;
    return static_cast<long>(r);
}

long socketReceive(SocketHandle s, void *buffer, size_t capacity) {
    ssize_t r;
    do {
        r = ::recv(fd(s), buffer, capacity, 0);
    } while (r < 0 && errno == EINTR);
    if (r < 0) return (errno == EAGAIN || errno == EWOULDBLOCK) ? -2 : -1;
    return static_cast<long>(r);
}

void socketShutdownSend(SocketHandle s) {
    ::shutdown(fd(s), SHUT_WR);
}

void socketClose(SocketHandle s) {
    if (s != kInvalidSocket) ::close(fd(s));
}

std::string socketErrorText() {
    return std::strerror(errno);
}

} // namespace kv::platform

#endif
