// Why a camera cannot be reached, in the words a user would look up: a TCP connect to see
// "connection refused" or "timeout" at once, then the status line of one plain request.
#pragma once

#include <string>

#include "options.h"

namespace camfetch_tool {

struct Reachability {
    bool reachable = false;  // a TCP connection could be made
    std::string cause;       // "connection refused", "timeout", "no such host", ...
};

Reachability CheckTcp(const std::string& host, int port, int timeoutSec);

// The status of an unauthenticated DESCRIBE (RTSP) or GET (HTTP) to the URL, as
// "401 Unauthorized" or "404 Not Found"; empty when the answer was a success or unreadable.
std::string ProbeStatus(const Options& options, int port);

// A refusal as a user would look it up: "404 Not Found" for a camera's "404 Stream Not
// Found"; other statuses keep the camera's words ("461 Unsupported Transport").
std::string StatusCause(int status, const std::string& statusText);

}  // namespace camfetch_tool
