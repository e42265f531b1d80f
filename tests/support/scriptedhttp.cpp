#include "scriptedhttp.h"

#include <algorithm>
#include <cstring>
#include <map>
#include <mutex>

#include "core/kvhttpclient.h"

namespace {

std::mutex g_mutex;
std::map<std::string, scriptedhttp::Response> g_responses;
std::vector<scriptedhttp::Request> g_requests;

}  // namespace

namespace scriptedhttp {

void Serve(const std::string& path, Response response) {
    std::lock_guard<std::mutex> lock(g_mutex);
    g_responses[path] = std::move(response);
}

void Clear() {
    std::lock_guard<std::mutex> lock(g_mutex);
    g_responses.clear();
    g_requests.clear();
}

std::vector<Request> Requests() {
    std::lock_guard<std::mutex> lock(g_mutex);
    return g_requests;
}

}  // namespace scriptedhttp

namespace KVNet {

class KVHttpClientImpl {
public:
    scriptedhttp::Response response;
    size_t index = 0;  // request record of this client
    bool started = false;
    size_t pos = 0;
    std::string pushedBack;  // restored bytes, read before pos

    size_t Left() const { return pushedBack.size() + (response.body->size() - pos); }
    bool AtEnd() const { return started && Left() == 0; }

    // Copies up to len bytes out and consumes them.
    size_t Take(char* out, size_t len) {
        size_t n = 0;
        if (!pushedBack.empty()) {
            n = std::min(len, pushedBack.size());
            memcpy(out, pushedBack.data(), n);
            pushedBack.erase(0, n);
        }
        const size_t m = std::min(len - n, response.body->size() - pos);
        memcpy(out + n, response.body->data() + pos, m);
        pos += m;
        return n + m;
    }
};

int KVSocket::GetFd() const {
    return m_pOwner && m_pOwner->started && !m_pOwner->AtEnd() ? 1000 : -1;
}

bool KVSocket::IsEOF() const {
    return !m_pOwner || !m_pOwner->started || m_pOwner->AtEnd();
}

KVHttpClient::KVHttpClient(const std::string& host, int port, const std::string& path,
                           const std::string& user, const std::string& password, int timeoutSec,
                           bool wholeTimeout, bool followRedirects, bool allowBasic,
                           bool verifyPeer, HTTP_VERSION version, const std::string&, bool)
    : m_socket(nullptr), m_pImpl(std::make_unique<KVHttpClientImpl>()) {
    m_socket = KVSocket(m_pImpl.get());
    std::lock_guard<std::mutex> lock(g_mutex);
    auto it = g_responses.find(path);
    if (it != g_responses.end())
        m_pImpl->response = it->second;
    else
        m_pImpl->response.checkResult = 5;  // nobody there
    scriptedhttp::Request r;
    r.host = host;
    r.path = path;
    r.user = user;
    r.password = password;
    r.port = port;
    r.timeout = timeoutSec;
    r.flags[0] = wholeTimeout;
    r.flags[1] = followRedirects;
    r.flags[2] = allowBasic;
    r.flags[3] = verifyPeer;
    r.version = version;
    m_pImpl->index = g_requests.size();
    g_requests.push_back(r);
}

KVHttpClient::~KVHttpClient() = default;

int KVHttpClient::SendRequest(KV_HTTP_METHOD, std::string, const std::string&) {
    m_pImpl->started = true;
    return m_pImpl->response.sendResult;
}

int KVHttpClient::SendRequestBySocketPost(std::string body) {
    {
        std::lock_guard<std::mutex> lock(g_mutex);
        g_requests[m_pImpl->index].post = true;
        g_requests[m_pImpl->index].postBody = body;
    }
    m_pImpl->started = true;
    return m_pImpl->response.sendResult;
}

int KVHttpClient::CheckResponse(int& httpStatus) {
    httpStatus = m_pImpl->response.status;
    return m_pImpl->response.checkResult;
}

int KVHttpClient::CheckContentType() {
    return m_pImpl->response.checkContentTypeResult;
}

int KVHttpClient::GetHttpContent(HTTP_MAP_KEY key, std::string& value) const {
    if (key != HTTP_KEY_CONTENT_TYPE || m_pImpl->response.contentType.empty())
        return -1;
    value = m_pImpl->response.contentType;
    return 0;
}

int KVHttpClient::ReadToLineEnd(char* buf, int size) {
    KVHttpClientImpl& c = *m_pImpl;
    if (!buf || size < 2 || !c.started || c.Left() == 0)
        return -1;
    // Same contract as the default host: pieces of size - 1 bytes for longer lines.
    const size_t limit = static_cast<size_t>(size) - 1;
    std::string joined;
    const char* data = c.response.body->data() + c.pos;
    size_t avail = c.response.body->size() - c.pos;
    if (!c.pushedBack.empty()) {
        joined = c.pushedBack + c.response.body->substr(c.pos, limit + 2);
        data = joined.data();
        avail = joined.size();
    }
    const size_t window = std::min(avail, limit + 2);
    size_t length = window;
    size_t consume = window;
    if (const void* lf = memchr(data, '\n', window)) {
        length = static_cast<const char*>(lf) - data;
        consume = length + 1;
        if (length > 0 && data[length - 1] == '\r')
            --length;
    } else if (window < limit + 2 && length > 0 && data[length - 1] == '\r') {
        --length;
    }
    if (length > limit) {
        length = limit;
        consume = limit;
    }
    memcpy(buf, data, length);
    buf[length] = 0;
    const size_t fromPushed = std::min(consume, c.pushedBack.size());
    c.pushedBack.erase(0, fromPushed);
    c.pos += consume - fromPushed;
    return static_cast<int>(length);
}

int KVHttpClient::ReadData(char* buf, int len) {
    KVHttpClientImpl& c = *m_pImpl;
    if (!buf || len < 0 || !c.started)
        return -1;
    const size_t got = c.Take(buf, static_cast<size_t>(len));
    if (got == 0 && len > 0 && c.response.failAtEnd)
        return -1;
    return static_cast<int>(got);
}

int KVHttpClient::Read(char* buf, int len) {
    KVHttpClientImpl& c = *m_pImpl;
    if (!buf || len < 0 || !c.started)
        return -1;
    size_t want = static_cast<size_t>(len);
    if (c.response.arrival > 0)
        want = std::min(want, c.response.arrival);
    const size_t got = c.Take(buf, want);
    if (got == 0 && len > 0 && c.response.failAtEnd)
        return -1;
    return static_cast<int>(got);
}

void KVHttpClient::RestoreData(char* buf, int len) {
    if (buf && len > 0)
        m_pImpl->pushedBack.insert(0, buf, static_cast<size_t>(len));
}

void KVHttpClient::Interrupt() {}

}  // namespace KVNet
