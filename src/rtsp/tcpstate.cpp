// The kernel's own record of the connection; <linux/tcp.h> because the C library's copy of
// struct tcp_info stops before the byte counters.
#include "rtsp/tcpstate.h"

#include <linux/tcp.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <cstddef>

namespace {
// States (linux/tcp.h numbering) of a connection whose peer will send nothing more.
constexpr uint8_t kStateClose = 7;
constexpr uint8_t kStateCloseWait = 8;
constexpr uint8_t kStateLastAck = 9;

bool Info(int fd, tcp_info& info, socklen_t& length) {
    length = sizeof info;
    return fd >= 0 && getsockopt(fd, IPPROTO_TCP, TCP_INFO, &info, &length) == 0;
}
}  // namespace

namespace tcpstate {

bool BytesReceived(int fd, uint64_t& bytes) {
    bytes = 0;
    tcp_info info{};
    socklen_t length = 0;
    // Older kernels hand back a shorter record without the counter.
    if (!Info(fd, info, length) ||
        length < offsetof(tcp_info, tcpi_bytes_received) + sizeof info.tcpi_bytes_received)
        return false;
    bytes = info.tcpi_bytes_received;
    return true;
}

bool PeerClosed(int fd) {
    tcp_info info{};
    socklen_t length = 0;
    if (!Info(fd, info, length))
        return true;
    return info.tcpi_state == kStateClose || info.tcpi_state == kStateCloseWait ||
           info.tcpi_state == kStateLastAck;
}

}  // namespace tcpstate
