// LD_PRELOAD shim for test servers that bind every interface with no option to change it:
// a bind to the wildcard address becomes a bind to loopback, and datagrams or connections
// to anything but loopback fail as unreachable, so a test server never reaches the network.
#include <arpa/inet.h>
#include <dlfcn.h>
#include <errno.h>
#include <netinet/in.h>
#include <string.h>
#include <sys/socket.h>

namespace {

template <typename F>
F Next(const char* name) {
    return reinterpret_cast<F>(dlsym(RTLD_NEXT, name));
}

bool IsLoopback(const sockaddr* addr) {
    if (!addr)
        return true;  // a connected socket: its peer was checked at connect()
    if (addr->sa_family == AF_INET) {
        const auto* in = reinterpret_cast<const sockaddr_in*>(addr);
        return (ntohl(in->sin_addr.s_addr) >> 24) == 127;
    }
    if (addr->sa_family == AF_INET6) {
        const auto* in6 = reinterpret_cast<const sockaddr_in6*>(addr);
        if (IN6_IS_ADDR_LOOPBACK(&in6->sin6_addr))
            return true;
        if (IN6_IS_ADDR_V4MAPPED(&in6->sin6_addr))
            return in6->sin6_addr.s6_addr[12] == 127;
        return false;
    }
    return true;  // Unix sockets and the like
}

}  // namespace

extern "C" {

int bind(int fd, const sockaddr* addr, socklen_t len) {
    static auto real = Next<int (*)(int, const sockaddr*, socklen_t)>("bind");
    if (addr && addr->sa_family == AF_INET && len >= sizeof(sockaddr_in)) {
        sockaddr_in copy;
        memcpy(&copy, addr, sizeof copy);
        if (copy.sin_addr.s_addr == htonl(INADDR_ANY))
            copy.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        return real(fd, reinterpret_cast<const sockaddr*>(&copy), sizeof copy);
    }
    if (addr && addr->sa_family == AF_INET6 && len >= sizeof(sockaddr_in6)) {
        sockaddr_in6 copy;
        memcpy(&copy, addr, sizeof copy);
        if (IN6_IS_ADDR_UNSPECIFIED(&copy.sin6_addr))
            copy.sin6_addr = in6addr_loopback;
        return real(fd, reinterpret_cast<const sockaddr*>(&copy), sizeof copy);
    }
    return real(fd, addr, len);
}

int connect(int fd, const sockaddr* addr, socklen_t len) {
    static auto real = Next<int (*)(int, const sockaddr*, socklen_t)>("connect");
    if (!IsLoopback(addr)) {
        errno = ENETUNREACH;
        return -1;
    }
    return real(fd, addr, len);
}

ssize_t sendto(int fd, const void* buf, size_t n, int flags, const sockaddr* addr, socklen_t len) {
    static auto real =
        Next<ssize_t (*)(int, const void*, size_t, int, const sockaddr*, socklen_t)>("sendto");
    if (!IsLoopback(addr)) {
        errno = ENETUNREACH;
        return -1;
    }
    return real(fd, buf, n, flags, addr, len);
}

ssize_t sendmsg(int fd, const msghdr* msg, int flags) {
    static auto real = Next<ssize_t (*)(int, const msghdr*, int)>("sendmsg");
    if (msg && !IsLoopback(static_cast<const sockaddr*>(msg->msg_name))) {
        errno = ENETUNREACH;
        return -1;
    }
    return real(fd, msg, flags);
}
}
