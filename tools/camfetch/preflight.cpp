#include "preflight.h"

#include <netdb.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace camfetch_tool {
namespace {

// Connects with a deadline; returns the socket or -1 with the cause.
int Connect(const std::string& host, int port, int timeoutSec, std::string& cause) {
    addrinfo hints{};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* result = nullptr;
    if (getaddrinfo(host.c_str(), std::to_string(port).c_str(), &hints, &result) != 0) {
        cause = "no such host";
        return -1;
    }
    int fd = -1;
    cause = "connection refused";
    for (addrinfo* ai = result; ai && fd < 0; ai = ai->ai_next) {
        fd = socket(ai->ai_family, ai->ai_socktype | SOCK_NONBLOCK, ai->ai_protocol);
        if (fd < 0)
            continue;
        int rc = connect(fd, ai->ai_addr, ai->ai_addrlen);
        if (rc != 0 && errno == EINPROGRESS) {
            pollfd p{fd, POLLOUT, 0};
            rc = poll(&p, 1, timeoutSec * 1000);
            if (rc == 0) {
                cause = "timeout";
                rc = -1;
            } else {
                int err = 0;
                socklen_t len = sizeof(err);
                getsockopt(fd, SOL_SOCKET, SO_ERROR, &err, &len);
                rc = err == 0 ? 0 : -1;
                if (err == EHOSTUNREACH || err == ENETUNREACH)
                    cause = "host unreachable";
            }
        }
        if (rc != 0) {
            close(fd);
            fd = -1;
        }
    }
    freeaddrinfo(result);
    return fd;
}

std::string ReadStatusLine(int fd, int timeoutSec) {
    std::string line;
    char c;
    while (line.size() < 256) {
        pollfd p{fd, POLLIN, 0};
        if (poll(&p, 1, timeoutSec * 1000) <= 0 || read(fd, &c, 1) != 1)
            break;
        if (c == '\n')
            break;
        if (c != '\r')
            line += c;
    }
    return line;
}

}  // namespace

Reachability CheckTcp(const std::string& host, int port, int timeoutSec) {
    Reachability r;
    int fd = Connect(host, port, timeoutSec, r.cause);
    if (fd >= 0) {
        r.reachable = true;
        r.cause.clear();
        close(fd);
    }
    return r;
}

std::string ProbeStatus(const Options& options, int port) {
    std::string cause;
    int fd = Connect(options.url.host, port, options.timeoutSec, cause);
    if (fd < 0)
        return cause;
    std::string path = options.url.path.empty() ? "/" : options.url.path;
    std::string request;
    if (options.kind == Kind::kRtsp) {
        std::string url = "rtsp://" + options.url.host + ":" + std::to_string(port) + path;
        request = "DESCRIBE " + url + " RTSP/1.0\r\nCSeq: 1\r\nAccept: application/sdp\r\n" +
                  "User-Agent: " + options.userAgent + "\r\n\r\n";
    } else {
        request = "GET " + path + " HTTP/1.0\r\nHost: " + options.url.host + "\r\n\r\n";
    }
    ssize_t sent = write(fd, request.data(), request.size());
    std::string line = sent > 0 ? ReadStatusLine(fd, options.timeoutSec) : std::string();
    close(fd);
    // "RTSP/1.0 404 Stream Not Found" -> "404 Not Found"; success gives nothing.
    size_t space = line.find(' ');
    if (space == std::string::npos)
        return std::string();
    int status = atoi(line.c_str() + space + 1);
    if (status == 0 || (status >= 200 && status < 300))
        return std::string();
    return StatusCause(status, line.substr(space + 1));
}

std::string StatusCause(int status, const std::string& statusText) {
    switch (status) {
        case 401:
            return "401 Unauthorized";
        case 403:
            return "403 Forbidden";
        case 404:
            return "404 Not Found";
        default:
            return statusText;
    }
}

}  // namespace camfetch_tool
