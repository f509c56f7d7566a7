// Winsock (Windows side of platform/sockets.h).
#include "platform/sockets.h"

#if defined(_WIN32)

#include <winsock2.h>
#include <ws2tcpip.h>
#include <windows.h>

#include <cstdio>
#include <cstring>
#include <mutex>

namespace kv::platform {

namespace {
SOCKET sock(SocketHandle s) {
    return static_cast<SOCKET>(s);
}

struct timeval toTimeval(uint32_t ms) {
    struct timeval tv;
    tv.tv_sec = static_cast<long>(ms / 1000);
    tv.tv_usec = static_cast<long>((ms % 1000) * 1000);
    return tv;
}

int pendingError(SocketHandle s) {
    int err = 0;
    int len = sizeof(err);
    if (getsockopt(sock(s), SOL_SOCKET, SO_ERROR, reinterpret_cast<char *>(&err), &len) != 0)
        return WSAGetLastError();
    return err;
}
} // namespace

bool socketsStartup(std::string *error) {
    static std::once_flag once;
    static int result = 0;
    std::call_once(once, [] {
        WSADATA data;
        result = WSAStartup(MAKEWORD(2, 2), &data);
    });
    if (result != 0 && error) *error = "WSAStartup error " + std::to_string(result);
    return result == 0;
}

SocketHandle tcpSocket() {
    SOCKET s = ::socket(AF_INET, SOCK_STREAM, IPPROTO_TCP);
    if (s == INVALID_SOCKET) return kInvalidSocket;
    if (!socketNonBlocking(static_cast<SocketHandle>(s))) {
        closesocket(s);
        return kInvalidSocket;
    }
    return static_cast<SocketHandle>(s);
}

bool socketNonBlocking(SocketHandle s) {
    u_long on = 1;
    return ioctlsocket(sock(s), FIONBIO, &on) == 0;
}

bool socketReuseAddress(SocketHandle s) {
    BOOL one = TRUE;
    return setsockopt(sock(s), SOL_SOCKET, SO_REUSEADDR, reinterpret_cast<const char *>(&one), sizeof(one)) ==
           0;
}

bool socketBindListen(SocketHandle s, const std::string &address, uint16_t port) {
    struct sockaddr_in a;
    std::memset(&a, 0, sizeof(a));
    a.sin_family = AF_INET;
    a.sin_port = htons(port);
    a.sin_addr.s_addr = htonl(INADDR_ANY);
    if (!address.empty()) {
        uint8_t ip[4];
        if (!resolveIPv4(address, ip, nullptr)) {
            WSASetLastError(WSAEADDRNOTAVAIL);
            return false;
        }
        std::memcpy(&a.sin_addr.s_addr, ip, 4);
    }
    if (::bind(sock(s), reinterpret_cast<struct sockaddr *>(&a), sizeof(a)) != 0) return false;
    return ::listen(sock(s), SOMAXCONN) == 0;
}

uint16_t socketLocalPort(SocketHandle s) {
    struct sockaddr_in a;
    int len = sizeof(a);
    if (getsockname(sock(s), reinterpret_cast<struct sockaddr *>(&a), &len) != 0) return 0;
    return ntohs(a.sin_port);
}

int socketWaitReadable(SocketHandle s, uint32_t ms) {
    fd_set r;
    FD_ZERO(&r);
    FD_SET(sock(s), &r);
    struct timeval tv = toTimeval(ms);
    int n = ::select(0, &r, nullptr, nullptr, &tv);
    return n < 0 ? -1 : (n == 0 ? 0 : 1);
}

int socketWaitWritable(SocketHandle s, uint32_t ms) {
    fd_set w, e;
    FD_ZERO(&w);
    FD_ZERO(&e);
    FD_SET(sock(s), &w);
    FD_SET(sock(s), &e);
    struct timeval tv = toTimeval(ms);
    int n = ::select(0, nullptr, &w, &e, &tv);
    if (n < 0) return -1;
    if (n == 0) return 0;
    if (FD_ISSET(sock(s), &e)) return -1;
    return 1;
}

int socketAlive(SocketHandle s, uint32_t ms) {
    fd_set w, e;
    FD_ZERO(&w);
    FD_ZERO(&e);
    FD_SET(sock(s), &w);
    FD_SET(sock(s), &e);
    struct timeval tv = toTimeval(ms);
    int n = ::select(0, nullptr, &w, &e, &tv);
    if (n < 0) return 0;
    if (n == 0) return 1;
    if (FD_ISSET(sock(s), &e)) return pendingError(s) == WSAEINPROGRESS ? 1 : 0;
    return FD_ISSET(sock(s), &w) ? 2 : 1;
}

SocketHandle socketAccept(SocketHandle listening) {
    SOCKET s = ::accept(sock(listening), nullptr, nullptr);
    if (s == INVALID_SOCKET) return kInvalidSocket;
    socketNonBlocking(static_cast<SocketHandle>(s));
    BOOL one = TRUE;
    setsockopt(s, IPPROTO_TCP, TCP_NODELAY, reinterpret_cast<const char *>(&one), sizeof(one));
    return static_cast<SocketHandle>(s);
}

int socketConnect(SocketHandle s, const uint8_t ipv4[4], uint16_t port) {
    struct sockaddr_in a;
    std::memset(&a, 0, sizeof(a));
    a.sin_family = AF_INET;
    a.sin_port = htons(port);
    std::memcpy(&a.sin_addr.s_addr, ipv4, 4);
    BOOL one = TRUE;
    setsockopt(sock(s), IPPROTO_TCP, TCP_NODELAY, reinterpret_cast<const char *>(&one), sizeof(one));
    if (::connect(sock(s), reinterpret_cast<struct sockaddr *>(&a), sizeof(a)) == 0) return 1;
    int err = WSAGetLastError();
    return (err == WSAEWOULDBLOCK || err == WSAEINPROGRESS) ? 0 : -1;
}

long socketSend(SocketHandle s, const void *bytes, size_t n) {
    int chunk = n > 0x7FFFFFFF ? 0x7FFFFFFF : static_cast<int>(n);
    int r = ::send(sock(s), static_cast<const char *>(bytes), chunk, 0);
    if (r == SOCKET_ERROR) return WSAGetLastError() == WSAEWOULDBLOCK ? 0 : -1;
    return r;
}

long socketReceive(SocketHandle s, void *buffer, size_t capacity) {
    int chunk = capacity > 0x7FFFFFFF ? 0x7FFFFFFF : static_cast<int>(capacity);
    int r = ::recv(sock(s), static_cast<char *>(buffer), chunk, 0);
    if (r == SOCKET_ERROR) return WSAGetLastError() == WSAEWOULDBLOCK ? -2 : -1;
    return r;
}

void socketShutdownSend(SocketHandle s) {
    ::shutdown(sock(s), SD_SEND);
}

void socketClose(SocketHandle s) {
    if (s != kInvalidSocket) closesocket(sock(s));
}

std::string socketErrorText() {
    int err = WSAGetLastError();
    char text[512] = {};
    DWORD n = FormatMessageA(FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS, nullptr,
                             static_cast<DWORD>(err), 0, text, sizeof(text) - 1, nullptr);
    while (n > 0 && (text[n - 1] == '\n' || text[n - 1] == '\r' || text[n - 1] == ' '))
        text[--n] = 0;
    if (n == 0) std::snprintf(text, sizeof(text), "socket error %d", err);
    return text;
}

} // namespace kv::platform

#endif
