#include "mobile/mobilereceiver.h"

#include <errno.h>
#include <json/json.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <new>
#include <string_view>
#include <utility>

#include "core/clock.h"
#include "core/log.h"
#include "mobile/mobilepayloadheader.h"

namespace {

constexpr int kPollPeriodMs = 1000;
constexpr int kListenBacklog = 5;
constexpr mode_t kSocketMode = 0660;  // owner and group may connect
constexpr std::string_view kHeaderEnd = "\r\n\r\n";
constexpr uint32_t kHeaderEndSize = 4;

// A socket descriptor closed when it goes out of scope.
class SocketFd {
public:
    SocketFd() = default;
    ~SocketFd() { Reset(-1); }
    SocketFd(const SocketFd&) = delete;
    SocketFd& operator=(const SocketFd&) = delete;
    void Reset(int fd) {
        if (m_fd >= 0)
            close(m_fd);
        m_fd = fd;
    }
    int Get() const { return m_fd; }
    bool Valid() const { return m_fd >= 0; }

private:
    int m_fd = -1;
};

// Runs a cleanup on every way out of a scope.
template <typename F>
class ScopeExit {
public:
    explicit ScopeExit(F f) : m_f(std::move(f)) {}
    ~ScopeExit() { m_f(); }
    ScopeExit(const ScopeExit&) = delete;
    ScopeExit& operator=(const ScopeExit&) = delete;

private:
    F m_f;
};

timeval MicrosToTimeval(long long us) {
    timeval tv;
    tv.tv_sec = static_cast<time_t>(us / 1000000);
    tv.tv_usec = static_cast<suseconds_t>(us % 1000000);
    return tv;
}

// The reply is the host's: anything but an object holding "success": true is a refusal.
bool ReplySucceeded(const Json::Value& reply) {
    if (!reply.isObject())
        return false;
    const Json::Value& success = reply["success"];
    return success.isBool() && success.asBool();
}

std::string ReplyError(const Json::Value& reply) {
    if (!reply.isObject())
        return std::string();
    const Json::Value& message = reply["errorMsg"];
    return message.isString() ? message.asString() : std::string();
}

// Waits up to one poll period for input on fd: 1 readable, 0 nothing yet, -1 failure.
int PollInput(int fd) {
    pollfd p{fd, POLLIN, 0};
    int n = poll(&p, 1, kPollPeriodMs);
    if (n < 0 && errno == EINTR)
        return 0;
    return n < 0 ? -1 : (n > 0 ? 1 : 0);
}

}  // namespace

MobileReceiver::MobileReceiver()
    : m_pReceiverCtrler(nullptr),
      m_llAbsStartTime(0),
      m_llReserved(0),
      m_iTimeout(5),
      m_iReceiverId(0),
      m_bRunning(false),
      m_pRecvBuf(static_cast<char*>(camfetch::AllocBuffer(kRecvBufSize))),
      m_uParseOft(0),
      m_uFillLen(0),
      m_uPendingLen(0),
      m_tvTimestamp{0, 0},
      m_uScanOft(0),
      m_bStalled(false) {
    if (!m_pRecvBuf)
        throw std::bad_alloc();
}

MobileReceiver::~MobileReceiver() = default;

void MobileReceiver::Init(const MOBILE_RECV_PARAM& param) {
    m_pReceiverCtrler = param.pReceiverCtrler;
    m_strPath = param.strPath;
    m_llAbsStartTime = param.llAbsStartTime;
    m_llReserved = param.llReserved;
    m_iTimeout = param.iTimeout;
    m_iReceiverId = param.iReceiverId;
}

std::string MobileReceiver::SocketName() const {
    return "kv_mobile_receiver_" + std::to_string(m_iReceiverId) + "_" +
           (m_strPath.empty() ? std::string("live") : m_strPath);
}

std::string MobileReceiver::SocketPath() const {
    return "/tmp/" + SocketName() + ".sock";
}

void MobileReceiver::StopRecvLoop() {
    m_bRunning.store(false);
}

void MobileReceiver::RefuseRecvLoop() {
    CF_LOG(LOG_CATEG_MOBILE, LOG_LEVEL_WARNING,
           "Ignore DoRecvLoop because previous recvloop not yet stop.\n");
    // Clearing the flag also ends the loop that is running, within one poll period.
    m_bRunning.store(false);
}

void MobileReceiver::DoRecvLoop(TransNotice2MobileHandler* handler) {
    if (!handler) {
        CF_LOG(LOG_CATEG_MOBILE, LOG_LEVEL_WARNING, "pTransNoticeHandler can not be a null.\n");
        m_bRunning.store(false);
        return;
    }
    if (!m_pReceiverCtrler) {
        CF_LOG(LOG_CATEG_MOBILE, LOG_LEVEL_WARNING, "pReceiverCtrler can not be a null.\n");
        m_bRunning.store(false);
        return;
    }
    if (m_bRunning.exchange(true)) {
        RefuseRecvLoop();
        return;
    }
    // Reset only by the call that owns the buffer, never under a loop that is running.
    m_uParseOft = 0;
    m_uFillLen = 0;
    m_uPendingLen = 0;
    m_uScanOft = 0;
    m_bStalled = false;

    Json::Value notice(Json::objectValue);
    notice["path"] = m_strPath.empty() ? std::string("live") : m_strPath;
    if (!m_strPath.empty())
        notice["stmAbsStartTm"] = Json::Int64(m_llAbsStartTime);
    notice["dstSockName"] = SocketName();
    const std::string sockPath = SocketPath();
    unlink(sockPath.c_str());

    SocketFd listenFd;
    SocketFd readFd;
    bool sendStop = true;
    ScopeExit cleanup([&]() {
        if (sendStop) {
            notice["type"] = "stopStream";
            Json::Value reply;
            handler->TransNotice2Mobile(notice, &reply);
            if (!ReplySucceeded(reply))
                CF_LOG(LOG_CATEG_MOBILE, LOG_LEVEL_ERROR, "Notify mobile stop stream failed: %s\n",
                       ReplyError(reply).c_str());
        }
        readFd.Reset(-1);
        listenFd.Reset(-1);
        unlink(sockPath.c_str());
        m_bRunning.store(false);
    });

    listenFd.Reset(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (!listenFd.Valid()) {
        CF_LOG(LOG_CATEG_MOBILE, LOG_LEVEL_ERROR, "Failed to create a unix socket.\n");
        return;
    }
    // Requested for the host's sake; every accept and read below is preceded by a poll that
    // reported input, so nothing relies on it.
    int nonBlocking = 1;
    ioctl(listenFd.Get(), FIONBIO, &nonBlocking);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    // A name that does not fit with its terminator would bind to a different file than the
    // one that is unlinked afterwards.
    bool bound = sockPath.size() < sizeof(addr.sun_path);
    if (bound) {
        memcpy(addr.sun_path, sockPath.c_str(), sockPath.size() + 1);
        bound = bind(listenFd.Get(), reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) == 0;
    }
    if (!bound) {
        CF_LOG(LOG_CATEG_MOBILE, LOG_LEVEL_WARNING,
               "Failed to bind ListenFd[%d] to SocketPath[%s]\n", listenFd.Get(), sockPath.c_str());
        return;
    }
    // The push client runs as the host's user or in its group; nobody else may connect and
    // inject pictures into a camera's recording.
    chmod(sockPath.c_str(), kSocketMode);
    if (listen(listenFd.Get(), kListenBacklog) != 0) {
        CF_LOG(LOG_CATEG_MOBILE, LOG_LEVEL_ERROR, "Failed to listen socket[%d].\n", listenFd.Get());
        return;
    }

    notice["type"] = "startStream";
    Json::Value reply;
    handler->TransNotice2Mobile(notice, &reply);
    if (!ReplySucceeded(reply)) {
        CF_LOG(LOG_CATEG_MOBILE, LOG_LEVEL_ERROR, "Notify mobile start stream failed: %s\n",
               ReplyError(reply).c_str());
        sendStop = false;  // the client was never asked to start
        return;
    }

    const long long idleLimitUs = static_cast<long long>(m_iTimeout) * 1000000;
    long long lastActivity = camfetch::MonoNowUs();
    bool timedOut = false;
    while (m_bRunning.load()) {
        if (camfetch::MonoNowUs() - lastActivity > idleLimitUs) {
            timedOut = true;
            break;
        }
        if (!readFd.Valid()) {
            int ready = PollInput(listenFd.Get());
            if (ready < 0) {
                CF_LOG(LOG_CATEG_MOBILE, LOG_LEVEL_ERROR,
                       "Fail to poll ListenFd[%d] for accepting ReadFd.\n", listenFd.Get());
                break;
            }
            if (ready == 0)
                continue;
            int fd = accept4(listenFd.Get(), nullptr, nullptr, SOCK_CLOEXEC);
            if (fd < 0) {
                // A client that gave up between poll and accept is not a failure of ours.
                if (errno == EINTR || errno == EAGAIN || errno == ECONNABORTED)
                    continue;
                CF_LOG(LOG_CATEG_MOBILE, LOG_LEVEL_ERROR,
                       "Failed to accept ReadFd from ListenFd[%d].\n", listenFd.Get());
                break;
            }
            readFd.Reset(fd);
            continue;
        }

        int ready = PollInput(readFd.Get());
        if (ready < 0) {
            CF_LOG(LOG_CATEG_MOBILE, LOG_LEVEL_ERROR,
                   "Fail to poll ReadFd[%d] for writing data to unix socket.\n", readFd.Get());
            break;
        }
        if (ready == 0)
            continue;
        CF_LOG(LOG_CATEG_MOBILE, LOG_LEVEL_TRACE, "ReadFd[%d] detect data arrived.\n",
               readFd.Get());
        lastActivity = camfetch::MonoNowUs();
        ssize_t got = read(readFd.Get(), m_pRecvBuf.get() + m_uFillLen, kMaxFill - m_uFillLen);
        if (got < 0) {
            if (errno == EINTR || errno == EAGAIN)
                continue;
            CF_LOG(LOG_CATEG_MOBILE, LOG_LEVEL_ERROR, "ReadFd[%d] read data failed: %s\n",
                   readFd.Get(), strerror(errno));
            break;
        }
        if (got == 0) {
            CF_LOG(LOG_CATEG_MOBILE, LOG_LEVEL_INFO, "ReadFd[%d] read end of data.\n",
                   readFd.Get());
            break;
        }
        CF_LOG(LOG_CATEG_MOBILE, LOG_LEVEL_DEBUG, "ReadFd[%d] read data len[%d].\n", readFd.Get(),
               static_cast<int>(got));
        m_uFillLen += static_cast<uint32_t>(got);
        ParseDataAndCallBack();
        if (m_uFillLen >= kMaxFill) {
            CF_LOG(LOG_CATEG_MOBILE, LOG_LEVEL_ERROR,
                   "ReadBuf[%d] is not enough for recving a frame.\n", static_cast<int>(kMaxFill));
            break;
        }
    }
    if (timedOut)
        CF_LOG(LOG_CATEG_MOBILE, LOG_LEVEL_WARNING,
               "Recv data timeout[%d]: ListenFd[%d], ReadFd[%d]\n", m_iTimeout, listenFd.Get(),
               readFd.Get());
}

int MobileReceiver::ParseDataAndCallBack() {
    char* buf = m_pRecvBuf.get();
    buf[m_uFillLen] = '\0';
    // A malformed header blocks everything behind it; it was reported when it was found.
    if (m_bStalled)
        return 0;

    if (m_uPendingLen) {
        if (m_uFillLen - m_uParseOft < m_uPendingLen) {
            Compact();
            return 1;
        }
        Deliver(m_uPendingLen);
    }

    for (;;) {
        const std::string_view unparsed(buf + m_uParseOft, m_uFillLen - m_uParseOft);
        // Bytes before m_uScanOft were searched by an earlier call and hold no terminator.
        const size_t end = unparsed.find(kHeaderEnd, m_uScanOft - m_uParseOft);
        if (end == std::string_view::npos) {
            if (unparsed.size() >= kHeaderEndSize)
                m_uScanOft = m_uFillLen - (kHeaderEndSize - 1);
            Compact();
            return 1;
        }
        const MobilePayloadHeader header = ParseMobilePayloadHeader(unparsed.substr(0, end));
        m_strContentType = header.contentType;
        m_tvTimestamp =
            MicrosToTimeval(header.hasTimestamp ? header.timestampUs : camfetch::WallNowUs());
        if (m_strContentType.empty() || header.contentLen == 0) {
            // Left in place on purpose: without a length nothing behind it can be framed.
            CF_LOG(LOG_CATEG_MOBILE, LOG_LEVEL_ERROR,
                   "Parse Payload Header failed: ContentType[%s], ContentLen[%d].\n",
                   m_strContentType.c_str(), static_cast<int>(header.contentLen));
            m_bStalled = true;
            return 0;
        }
        m_uParseOft += static_cast<uint32_t>(end) + kHeaderEndSize;
        m_uScanOft = m_uParseOft;
        if (m_uFillLen - m_uParseOft < header.contentLen) {
            m_uPendingLen = header.contentLen;
            Compact();
            return 1;
        }
        Deliver(header.contentLen);
    }
}

void MobileReceiver::Deliver(uint32_t length) {
    // The controller reads the payload in place; it is valid until the next compaction.
    if (m_pReceiverCtrler)
        m_pReceiverCtrler->RecvData(m_pRecvBuf.get() + m_uParseOft, length, m_strContentType,
                                    m_tvTimestamp);
    m_uParseOft += length;
    m_uScanOft = m_uParseOft;
    m_uPendingLen = 0;
}

void MobileReceiver::Compact() {
    if (m_uParseOft == 0)
        return;
    memmove(m_pRecvBuf.get(), m_pRecvBuf.get() + m_uParseOft, m_uFillLen - m_uParseOft);
    m_uFillLen -= m_uParseOft;
    m_uScanOft -= m_uParseOft;
    m_uParseOft = 0;
}
