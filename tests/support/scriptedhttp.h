// An in-memory KVNet::KVHttpClient for the programs that must drive a fetcher byte for byte
// without a network: the parser's sanitizer tests and the parser benchmark. It replaces the
// default host's client at link time (link camfetch_host_services, not camfetch_host).
// Every client a fetcher builds plays the response registered for its path.
#pragma once

#include <memory>
#include <string>
#include <vector>

namespace scriptedhttp {

struct Response {
    int sendResult = 0;   // of SendRequest / SendRequestBySocketPost
    int checkResult = 0;  // of CheckResponse
    int status = 200;
    std::string contentType;  // GetHttpContent(0); empty: no such header
    int checkContentTypeResult = -1;
    std::shared_ptr<const std::string> body = std::make_shared<const std::string>();
    size_t arrival = 0;      // Read hands out at most this many bytes at once (0: no limit)
    bool failAtEnd = false;  // the body ends in a failure instead of a clean end
};

// What a fetcher asked for, one record per client built.
struct Request {
    std::string host, path, user, password;
    int port = 0;
    int timeout = 0;
    bool flags[4] = {};
    int version = 0;
    bool post = false;
    std::string postBody;
};

void Serve(const std::string& path, Response response);
void Clear();
std::vector<Request> Requests();

}  // namespace scriptedhttp
