#include "host/httptransfer.h"

#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <mutex>

#include "host/hostlog.h"

namespace KVNet {
namespace {

constexpr int kDefaultTimeoutSec = 10;
constexpr long kMaxRedirects = 5;
// Unread body bytes kept before the transfer pauses. A line or a boundary scan never needs
// more; the rest waits in the kernel and at the camera (TCP flow control).
constexpr size_t kBodyCapacity = 512 * 1024;
// curl's receive buffer: larger pieces mean fewer system calls and wake-ups per picture; the
// part of a piece no read is waiting for is copied once more through the body buffer, and
// every camera pays the buffer in memory. 64 to 256 KiB cost alike per 720p picture.
constexpr long kReceiveBufferSize = 128 * 1024;
// The longest single wait in the pump; curl's own timers shorten it as needed.
constexpr int kPollSliceMs = 1000;

long long MonotonicUs() {
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return ts.tv_sec * 1000000LL + ts.tv_nsec / 1000;
}

void GlobalInitOnce() {
    static std::once_flag once;
    // Never cleaned up: the host process may run other curl users, and unloading is rare.
    std::call_once(once, [] { curl_global_init(CURL_GLOBAL_DEFAULT); });
}

bool StartsWith(const std::string& s, const char* prefix) {
    return s.compare(0, strlen(prefix), prefix) == 0;
}

// Bytes a URL may not carry as they are (blanks, controls, non-ASCII) are percent-encoded;
// everything else, reserved characters included, is the caller's.
std::string EncodeUnsafe(const std::string& text) {
    static const char kHex[] = "0123456789ABCDEF";
    std::string out;
    for (unsigned char c : text) {
        if (c <= 0x20 || c >= 0x7F || c == '"' || c == '<' || c == '>' || c == '\\' || c == '^' ||
            c == '`' || c == '{' || c == '|' || c == '}') {
            out += '%';
            out += kHex[c >> 4];
            out += kHex[c & 15];
        } else {
            out += static_cast<char>(c);
        }
    }
    return out;
}

std::string BuildUrl(const KVHttpClientImpl::Options& o, const std::string& query) {
    std::string host = o.host;
    bool tls = false;
    if (StartsWith(host, "https://")) {
        tls = true;
        host.erase(0, 8);
    } else if (StartsWith(host, "http://")) {
        host.erase(0, 7);
    }
    while (!host.empty() && host.back() == '/')
        host.pop_back();
    if (host.find(':') != std::string::npos && host.front() != '[')
        host = "[" + host + "]";  // an IPv6 literal
    const int port = o.port > 0 ? o.port : (tls ? 443 : 80);
    std::string path = o.path.empty() || o.path[0] != '/' ? "/" + o.path : o.path;
    std::string url =
        (tls ? "https://" : "http://") + host + ":" + std::to_string(port) + EncodeUnsafe(path);
    std::string q = !query.empty() && query[0] == '?' ? query.substr(1) : query;
    if (!q.empty())
        url += (path.find('?') == std::string::npos ? "?" : "&") + EncodeUnsafe(q);
    return url;
}

}  // namespace

KVHttpClientImpl::KVHttpClientImpl(Options options) : m_options(std::move(options)) {
    GlobalInitOnce();
    if (m_options.timeoutSec <= 0)
        m_options.timeoutSec = kDefaultTimeoutSec;
    // curl's low-speed limit averages over several seconds and so trips late after a stall;
    // the pump's own count of silent time is the precise bound.
    m_llIdleLimitUs = m_options.timeoutSec * 1000000LL;
}

KVHttpClientImpl::~KVHttpClientImpl() {
    if (m_bInMulti)
        curl_multi_remove_handle(m_pMulti, m_pEasy);
    // The multi handle closes the connections it still caches; its socket callback reaches
    // this object, which is still whole here.
    if (m_pMulti)
        curl_multi_cleanup(m_pMulti);
    if (m_pEasy)
        curl_easy_cleanup(m_pEasy);
    if (m_pHeaders)
        curl_slist_free_all(m_pHeaders);
}

bool KVHttpClientImpl::Start(bool post, const std::string& query, const std::string& body,
                             const std::string& contentType) {
    if (m_bStarted)
        return false;
    m_pEasy = curl_easy_init();
    m_pMulti = curl_multi_init();
    if (!m_pEasy || !m_pMulti || !Configure(post, query, body, contentType))
        return false;
    if (curl_multi_add_handle(m_pMulti, m_pEasy) != CURLM_OK)
        return false;
    m_bInMulti = true;
    m_bStarted = true;
    Touch();
    int running = 0;
    curl_multi_perform(m_pMulti, &running);  // resolving and connecting start now
    CollectResult();
    return true;
}

bool KVHttpClientImpl::Configure(bool post, const std::string& query, const std::string& body,
                                 const std::string& contentType) {
    const Options& o = m_options;
    m_strUrl = BuildUrl(o, query);
    CURL* e = m_pEasy;
    bool ok = curl_easy_setopt(e, CURLOPT_URL, m_strUrl.c_str()) == CURLE_OK;
    curl_easy_setopt(e, CURLOPT_PROTOCOLS_STR, "http,https");
    curl_easy_setopt(e, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(e, CURLOPT_HTTP_VERSION,
                     o.version == HTTP_VER_1_0 ? CURL_HTTP_VERSION_1_0 : CURL_HTTP_VERSION_1_1);
    // Camera bytes pass unchanged: no content decoding, chunked framing removed.
    curl_easy_setopt(e, CURLOPT_HTTP_CONTENT_DECODING, 0L);
    curl_easy_setopt(e, CURLOPT_HTTP_TRANSFER_DECODING, 1L);
    curl_easy_setopt(e, CURLOPT_BUFFERSIZE, kReceiveBufferSize);
    curl_easy_setopt(e, CURLOPT_TCP_KEEPALIVE, 1L);
    curl_easy_setopt(e, CURLOPT_USERAGENT, "camfetch");

    // Timeouts: connecting, and an idle limit that never cuts a stream that keeps flowing.
    curl_easy_setopt(e, CURLOPT_CONNECTTIMEOUT, static_cast<long>(o.timeoutSec));
    curl_easy_setopt(e, CURLOPT_LOW_SPEED_LIMIT, 1L);
    curl_easy_setopt(e, CURLOPT_LOW_SPEED_TIME, static_cast<long>(o.timeoutSec));
    if (o.wholeTimeout)
        curl_easy_setopt(e, CURLOPT_TIMEOUT, static_cast<long>(o.timeoutSec));

    if (o.followRedirects) {
        curl_easy_setopt(e, CURLOPT_FOLLOWLOCATION, 1L);
        curl_easy_setopt(e, CURLOPT_MAXREDIRS, kMaxRedirects);
        curl_easy_setopt(e, CURLOPT_REDIR_PROTOCOLS_STR, "http,https");
    }
    if (!o.user.empty()) {
        curl_easy_setopt(e, CURLOPT_USERNAME, o.user.c_str());
        curl_easy_setopt(e, CURLOPT_PASSWORD, o.password.c_str());
        curl_easy_setopt(e, CURLOPT_HTTPAUTH,
                         o.allowBasic ? (CURLAUTH_BASIC | CURLAUTH_DIGEST) : CURLAUTH_DIGEST);
    }
    curl_easy_setopt(e, CURLOPT_SSL_VERIFYPEER, o.verifyPeer ? 1L : 0L);
    curl_easy_setopt(e, CURLOPT_SSL_VERIFYHOST, o.verifyPeer ? 2L : 0L);

    // Many cameras stall on "Expect: 100-continue"; the body goes at once.
    m_pHeaders = curl_slist_append(m_pHeaders, "Expect:");
    if (post) {
        std::string type = "Content-Type: " + contentType;
        m_pHeaders = curl_slist_append(m_pHeaders, type.c_str());
        curl_easy_setopt(e, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(body.size()));
        // Copied: a Digest round trip sends the body twice.
        ok = ok && curl_easy_setopt(e, CURLOPT_COPYPOSTFIELDS, body.c_str()) == CURLE_OK;
    } else {
        curl_easy_setopt(e, CURLOPT_HTTPGET, 1L);
    }
    size_t pos = 0;
    while (pos < o.extraHeaders.size()) {
        size_t end = o.extraHeaders.find('\n', pos);
        if (end == std::string::npos)
            end = o.extraHeaders.size();
        std::string line = o.extraHeaders.substr(pos, end - pos);
        if (!line.empty() && line.back() == '\r')
            line.pop_back();
        if (!line.empty())
            m_pHeaders = curl_slist_append(m_pHeaders, line.c_str());
        pos = end + 1;
    }
    curl_easy_setopt(e, CURLOPT_HTTPHEADER, m_pHeaders);

    curl_easy_setopt(e, CURLOPT_WRITEFUNCTION, &KVHttpClientImpl::OnBody);
    curl_easy_setopt(e, CURLOPT_WRITEDATA, this);
    curl_easy_setopt(e, CURLOPT_HEADERFUNCTION, &KVHttpClientImpl::OnHeader);
    curl_easy_setopt(e, CURLOPT_HEADERDATA, this);
    curl_easy_setopt(e, CURLOPT_OPENSOCKETFUNCTION, &KVHttpClientImpl::OnOpenSocket);
    curl_easy_setopt(e, CURLOPT_OPENSOCKETDATA, this);
    curl_easy_setopt(e, CURLOPT_CLOSESOCKETFUNCTION, &KVHttpClientImpl::OnCloseSocket);
    curl_easy_setopt(e, CURLOPT_CLOSESOCKETDATA, this);
    return ok && m_pHeaders != nullptr;
}

size_t KVHttpClientImpl::OnBody(char* data, size_t size, size_t count, void* self) {
    auto* t = static_cast<KVHttpClientImpl*>(self);
    const size_t len = size * count;
    t->m_response.OnBody();
    t->Touch();
    size_t taken = 0;
    if (t->m_directLeft > 0) {
        taken = std::min(len, t->m_directLeft);
        memcpy(t->m_pDirect, data, taken);
        t->m_pDirect += taken;
        t->m_directLeft -= taken;
    }
    if (taken == len)
        return len;
    // Pausing hands the whole piece back to curl, so it is only possible while none of it
    // has been taken; the buffer may then exceed its capacity by one piece.
    if (taken == 0 && t->m_body.Size() >= kBodyCapacity) {
        t->m_bPaused = true;
        return CURL_WRITEFUNC_PAUSE;
    }
    t->m_body.Append(data + taken, len - taken);
    return len;
}

size_t KVHttpClientImpl::OnHeader(char* data, size_t size, size_t count, void* self) {
    auto* t = static_cast<KVHttpClientImpl*>(self);
    const size_t len = size * count;
    t->Touch();
    t->m_response.OnHeaderLine(std::string_view(data, len), t->m_options.followRedirects);
    return len;
}

curl_socket_t KVHttpClientImpl::OnOpenSocket(void* self, curlsocktype, curl_sockaddr* address) {
    auto* t = static_cast<KVHttpClientImpl*>(self);
    int fd = socket(address->family, address->socktype | SOCK_CLOEXEC, address->protocol);
    if (fd < 0)
        return CURL_SOCKET_BAD;
    t->m_openFds.push_back(fd);
    t->m_iFd.store(fd);
    return fd;
}

int KVHttpClientImpl::OnCloseSocket(void* self, curl_socket_t fd) {
    auto* t = static_cast<KVHttpClientImpl*>(self);
    auto& fds = t->m_openFds;
    fds.erase(std::remove(fds.begin(), fds.end(), fd), fds.end());
    // The connection in use is the one opened last and not yet closed (a losing parallel
    // connect attempt is closed as soon as the other one wins).
    t->m_iFd.store(fds.empty() ? -1 : fds.back());
    return close(fd);
}

void KVHttpClientImpl::Touch() {
    m_llLastProgressUs = MonotonicUs();
}

void KVHttpClientImpl::CollectResult() {
    int left = 0;
    while (CURLMsg* msg = curl_multi_info_read(m_pMulti, &left)) {
        if (msg->msg != CURLMSG_DONE || msg->easy_handle != m_pEasy)
            continue;
        const CURLcode rc = msg->data.result;
        m_bEnded = true;
        m_bFailed = rc != CURLE_OK;
        if (m_bFailed && camfetch_host::HostLogWanted(LOG_CATEG_HOST, LOG_LEVEL_NOTICE))
            KVPrintf(0, Enum2String(LOG_CATEG_HOST), Enum2String(LOG_LEVEL_NOTICE), "httptransfer",
                     __LINE__, __func__, "Transfer of %s ended: %s\n", m_strUrl.c_str(),
                     curl_easy_strerror(rc));
    }
    if (m_bEnded && m_bInMulti) {
        curl_multi_remove_handle(m_pMulti, m_pEasy);
        m_bInMulti = false;
    }
}

void KVHttpClientImpl::Abort(const char* reason) {
    if (camfetch_host::HostLogWanted(LOG_CATEG_HOST, LOG_LEVEL_NOTICE))
        KVPrintf(0, Enum2String(LOG_CATEG_HOST), Enum2String(LOG_LEVEL_NOTICE), "httptransfer",
                 __LINE__, __func__, "Transfer of %s stopped: %s\n", m_strUrl.c_str(), reason);
    m_bEnded = true;
    m_bFailed = true;
    if (m_bInMulti) {
        curl_multi_remove_handle(m_pMulti, m_pEasy);  // closes the unfinished connection
        m_bInMulti = false;
    }
}

void KVHttpClientImpl::Interrupt() {
    m_bInterrupted.store(true);
    if (m_pMulti)
        curl_multi_wakeup(m_pMulti);
}

template <typename Done>
bool KVHttpClientImpl::Pump(Done done) {
    // Silence counts from the later of the last data and this wait's start: time the host
    // spent elsewhere is not the camera's.
    const long long entered = MonotonicUs();
    while (!done()) {
        if (Ended())
            return false;
        if (m_bInterrupted.load()) {
            Abort("interrupted");
            return false;
        }
        if (m_bPaused) {
            // Only reached with room in the buffer: a waiting read always drains it first.
            m_bPaused = false;
            curl_easy_pause(m_pEasy, CURLPAUSE_CONT);
            if (done())
                break;
        }
        int running = 0;
        if (curl_multi_perform(m_pMulti, &running) != CURLM_OK) {
            Abort("transfer engine failure");
            return false;
        }
        CollectResult();
        if (done() || Ended())
            continue;
        const long long idle = MonotonicUs() - std::max(m_llLastProgressUs, entered);
        if (idle > m_llIdleLimitUs) {
            Abort("no data within the time-out");
            return false;
        }
        const long long leftMs = (m_llIdleLimitUs - idle) / 1000 + 1;
        curl_multi_poll(m_pMulti, nullptr, 0,
                        static_cast<int>(std::min<long long>(kPollSliceMs, leftMs)), nullptr);
    }
    return true;
}

bool KVHttpClientImpl::WaitForHead() {
    if (!m_bStarted)
        return false;
    Pump([this] { return m_response.Final(); });
    // A head that the transfer could still have replaced but did not (a 401 whose retry was
    // refused, a redirect without a target) is the final one once the transfer is over.
    return m_response.Final() || (m_bEnded && m_response.HeadEnded());
}

bool KVHttpClientImpl::WaitForBody(size_t want, Mark mark) {
    size_t scanned = 0;  // bytes already searched for the mark
    bool found = false;  // the pump asks more than once; a mark found stays found
    return Pump([&] {
        const size_t size = m_body.Size();
        if (found || size >= want)
            return true;
        if (mark == Mark::kNone || size == scanned)
            return false;
        const char* data = m_body.Data();
        const size_t from = mark == Mark::kBlankLine && scanned >= 2 ? scanned - 2 : scanned;
        scanned = size;
        for (const char* p = data + from;
             (p = static_cast<const char*>(memchr(p, '\n', data + size - p))) != nullptr; ++p) {
            // For a header block, "\n\n" or "\n\r\n" ends it.
            found = mark == Mark::kLineEnd || (p + 1 < data + size && p[1] == '\n') ||
                    (p + 2 < data + size && p[1] == '\r' && p[2] == '\n');
            if (found)
                return true;
        }
        return false;
    });
}

size_t KVHttpClientImpl::ReadInto(char* dst, size_t len, size_t atLeast) {
    size_t got = m_body.Take(dst, len);
    if (got >= atLeast || got == len || Ended())
        return got;
    m_pDirect = dst + got;
    m_directLeft = len - got;
    Pump([&] { return len - m_directLeft >= atLeast; });
    got = len - m_directLeft;
    m_pDirect = nullptr;
    m_directLeft = 0;
    return got;
}

}  // namespace KVNet
