// The host-name parts of platform/sockets.h, the same on both socket APIs apart from the headers
// (and Winsock's narrow error text). Both start Winsock themselves: a client may resolve a name
// before it makes a socket.
#include "platform/sockets.h"

#if defined(_WIN32)
#include <winsock2.h>
#include <ws2tcpip.h>
#define KV_GAI_STRERROR gai_strerrorA
#else
#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>
#define KV_GAI_STRERROR gai_strerror
#endif

#include <cstring>

namespace kv::platform {

std::string localHostName() {
    char name[256] = {};
    if (!socketsStartup(nullptr)) return std::string();
    if (gethostname(name, sizeof(name) - 1) != 0) return std::string();
    return name;
}

bool resolveIPv4(const std::string &host, uint8_t out[4], std::string *error) {
    if (!socketsStartup(error)) return false;
    struct addrinfo hints;
    std::memset(&hints, 0, sizeof(hints));
    hints.ai_family = AF_INET;
    hints.ai_socktype = SOCK_STREAM;
    struct addrinfo *list = nullptr;
    int r = getaddrinfo(host.c_str(), nullptr, &hints, &list);
    if (r != 0 || !list) {
        if (error) *error = r != 0 ? KV_GAI_STRERROR(r) : "no IPv4 address";
        return false;
    }
    auto *a = reinterpret_cast<struct sockaddr_in *>(list->ai_addr);
    std::memcpy(out, &a->sin_addr.s_addr, 4);
    freeaddrinfo(list);
    return true;
}

} // namespace kv::platform
