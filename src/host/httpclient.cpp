// KVNet::KVHttpClient on top of one libcurl transfer: the request operations and the blocking
// pull-style reads the fetchers use.
#include <cctype>
#include <cstring>

#include "core/kvhttpclient.h"
#include "host/httptransfer.h"

namespace KVNet {
namespace {

// How far CheckContentType looks into the body for a content type.
constexpr size_t kSniffBytes = 4096;

const char* PostContentType(const std::string& body) {
    if (!body.empty() && (body[0] == '{' || body[0] == '['))
        return "application/json";
    if (!body.empty() && body[0] == '<')
        return "application/xml; charset=UTF-8";
    return "application/x-www-form-urlencoded";
}

const char* FieldName(HTTP_MAP_KEY key) {
    switch (key) {
        case HTTP_KEY_CONTENT_TYPE:
            return "content-type";
        case HTTP_KEY_CONTENT_LENGTH:
            return "content-length";
        case HTTP_KEY_SERVER:
            return "server";
    }
    return nullptr;
}

}  // namespace

int KVSocket::GetFd() const {
    return m_pOwner ? m_pOwner->Fd() : -1;
}

bool KVSocket::IsEOF() const {
    return !m_pOwner || (m_pOwner->Ended() && m_pOwner->Body().Empty());
}

KVHttpClient::KVHttpClient(const std::string& host, int port, const std::string& path,
                           const std::string& user, const std::string& password, int timeoutSec,
                           bool wholeTimeout, bool followRedirects, bool allowBasic,
                           bool verifyPeer, HTTP_VERSION version, const std::string& extraHeaders,
                           bool sniffContentType)
    : m_socket(nullptr) {
    KVHttpClientImpl::Options o;
    o.host = host;
    o.port = port;
    o.path = path;
    o.user = user;
    o.password = password;
    o.timeoutSec = timeoutSec;
    o.wholeTimeout = wholeTimeout;
    o.followRedirects = followRedirects;
    o.allowBasic = allowBasic;
    o.verifyPeer = verifyPeer;
    o.version = version;
    o.extraHeaders = extraHeaders;
    o.sniffContentType = sniffContentType;
    m_pImpl = std::make_unique<KVHttpClientImpl>(std::move(o));
    m_socket = KVSocket(m_pImpl.get());
}

KVHttpClient::~KVHttpClient() = default;

int KVHttpClient::SendRequest(KV_HTTP_METHOD method, std::string query,
                              const std::string& contentType) {
    return m_pImpl->Start(method == HTTP_METHOD_POST, query, std::string(), contentType) ? 0 : -1;
}

int KVHttpClient::SendRequestBySocketPost(std::string body) {
    return m_pImpl->Start(true, std::string(), body, PostContentType(body)) ? 0 : -1;
}

int KVHttpClient::CheckResponse(int& httpStatus) {
    httpStatus = 0;
    if (!m_pImpl->Started())
        return -1;
    const bool head = m_pImpl->WaitForHead();
    httpStatus = m_pImpl->Response().Status();
    if (!head)
        return KV_HTTP_ERR_TRANSPORT;
    if (httpStatus >= 200 && httpStatus < 300)
        return 0;
    if (httpStatus == 401 || httpStatus == 403 || httpStatus == 407)
        return KV_HTTP_ERR_AUTH;
    return KV_HTTP_ERR_STATUS;
}

int KVHttpClient::CheckContentType() {
    if (!m_pImpl->WaitForHead())
        return -1;
    auto& response = m_pImpl->Response();
    const std::string* type = response.Field("content-type");
    if (type && camfetch_host::IsMultipartWithBoundary(*type)) {
        // Media types are case-insensitive; readers match them in lower case. The boundary
        // parameter keeps its case.
        std::string normal = *type;
        for (size_t i = 0; i < normal.size() && normal[i] != ';'; ++i)
            normal[i] = static_cast<char>(tolower(static_cast<unsigned char>(normal[i])));
        response.SetField("content-type", normal);
        return 0;
    }
    // Only the options decide whether the body may be looked at.
    if (!m_pImpl->SniffAllowed())
        return -1;
    m_pImpl->WaitForBody(kSniffBytes, KVHttpClientImpl::Mark::kBlankLine);
    auto& body = m_pImpl->Body();
    std::string sniffed;
    size_t consumed = 0;
    const size_t size = body.Size() < kSniffBytes ? body.Size() : kSniffBytes;
    if (!camfetch_host::SniffMultipartType(std::string_view(body.Data(), size), sniffed, consumed))
        return -1;
    response.SetField("content-type", sniffed);
    body.Consume(consumed);
    return 0;
}

int KVHttpClient::GetHttpContent(HTTP_MAP_KEY key, std::string& value) const {
    const char* name = FieldName(key);
    const std::string* field = name ? m_pImpl->Response().Field(name) : nullptr;
    if (!field)
        return -1;
    value = *field;
    return 0;
}

int KVHttpClient::ReadToLineEnd(char* buf, int size) {
    if (!buf || size < 2 || !m_pImpl->Started())
        return -1;
    const size_t limit = static_cast<size_t>(size) - 1;
    // A line of limit bytes may still be followed by CR LF.
    const size_t window = limit + 2;
    m_pImpl->WaitForBody(window, KVHttpClientImpl::Mark::kLineEnd);
    auto& body = m_pImpl->Body();
    const char* data = body.Data();
    const size_t avail = body.Size();
    if (avail == 0)
        return -1;
    size_t length = avail < window ? avail : window;
    size_t consume = length;
    if (const void* lf = memchr(data, '\n', length)) {
        length = static_cast<const char*>(lf) - data;
        consume = length + 1;
        if (length > 0 && data[length - 1] == '\r')
            --length;
    } else if (avail < window) {
        // The body ended inside a line: what is there is the last line.
        if (length > 0 && data[length - 1] == '\r')
            --length;
    }
    if (length > limit) {
        // Too long for the caller: hand it out in pieces; the line end stays for later.
        length = limit;
        consume = limit;
    }
    memcpy(buf, data, length);
    buf[length] = 0;
    body.Consume(consume);
    return static_cast<int>(length);
}

int KVHttpClient::ReadData(char* buf, int len) {
    if (!buf || len < 0 || !m_pImpl->Started())
        return -1;
    if (len == 0)
        return 0;
    const size_t want = static_cast<size_t>(len);
    const size_t got = m_pImpl->ReadInto(buf, want, want);
    if (got == 0 && m_pImpl->Failed())
        return -1;
    return static_cast<int>(got);
}

int KVHttpClient::Read(char* buf, int len) {
    if (!buf || len < 0 || !m_pImpl->Started())
        return -1;
    if (len == 0)
        return 0;
    const size_t got = m_pImpl->ReadInto(buf, static_cast<size_t>(len), 1);
    if (got > 0)
        return static_cast<int>(got);
    return m_pImpl->Failed() ? -1 : 0;
}

void KVHttpClient::RestoreData(char* buf, int len) {
    if (buf && len > 0)
        m_pImpl->Body().Prepend(buf, static_cast<size_t>(len));
}

void KVHttpClient::Interrupt() {
    m_pImpl->Interrupt();
}

}  // namespace KVNet
