#include "rtsp/rtspreceiver.h"

#include <BasicUsageEnvironment.hh>
#include <liveMedia.hh>

#include "core/log.h"
#include "rtsp/logenvironment.h"
#include "rtsp/pollscheduler.h"
#include "rtsp/rtspclient.h"
#include "rtsp/socketbatch.h"
#include "rtsp/tcpstate.h"

namespace {
constexpr char kWatchRunning = 0;
constexpr char kWatchStop = -1;
}  // namespace

RtspReceiver::RtspReceiver()
    : m_pCtrler(nullptr),
      m_pEnv(nullptr),
      m_pScheduler(nullptr),
      m_iResultCode(-1),
      m_bFixProtocol(false),
      m_bStopRequested(false),
      m_bEndedByItself(false),
      m_bAttemptGotFrame(false),
      m_watch(kWatchRunning) {}

RtspReceiver::~RtspReceiver() {
    if (m_pEnv && !m_pEnv->reclaim())
        CF_LOG(LOG_CATEG_RTSP, LOG_LEVEL_WARNING, "Rtsp env still holds media, not reclaimed.\n");
    delete m_pScheduler;
    std::lock_guard<std::mutex> lock(m_clientsMutex);
    m_clients.clear();
}

int RtspReceiver::Init(const RTSP_RECV_PARAM& param) {
    if (!m_pScheduler) {
        m_pScheduler = PollTaskScheduler::createNew();
        if (m_pScheduler)
            m_pEnv = LogUsageEnvironment::createNew(*m_pScheduler);
    }
    socketbatch::Install(param.SocketBatch);
    if (param.Host.empty() || param.Port < 0 || !m_pEnv) {
        CF_LOG(LOG_CATEG_RTSP, LOG_LEVEL_ERROR,
               "Incorrect parameters, [Host: %s] [Port: %d] [Env: %d].\n", param.Host.c_str(),
               param.Port, static_cast<int>(reinterpret_cast<intptr_t>(m_pEnv)));
        return -1;
    }
    m_param = param;
    m_bFixProtocol = param.Protocol != RTSP_PROTOCOL_AUTO;
    return 0;
}

std::string RtspReceiver::BuildUrl(const std::string& host, int port, const std::string& path) {
    std::string url = "rtsp://" + host + ":" + std::to_string(port);
    if (!path.empty()) {
        if (path[0] != '/')
            url += '/';
        url += path;
    }
    return url;
}

int RtspReceiver::NextAutoProtocol(int current) {
    switch (current) {
        case RTSP_PROTOCOL_AUTO:
            return RTSP_PROTOCOL_UDP;
        case RTSP_PROTOCOL_UDP:
            return RTSP_PROTOCOL_TCP;
        case RTSP_PROTOCOL_TCP:
            return RTSP_PROTOCOL_HTTP;
        default:
            return RTSP_PROTOCOL_UDP;
    }
}

void RtspReceiver::DoRecvLoop(ReceiverCtrler* ctrler) {
    if (!m_pEnv) {
        CF_LOG(LOG_CATEG_RTSP, LOG_LEVEL_ERROR, "Rtsp env is NULL.\n");
        return;
    }
    // A stop that arrived before this call is kept when the host may have meant this loop,
    // whose thread had not reached this point yet. After a loop that ended by itself it was
    // meant for that one (a watchdog that raced the end) and must not end this one at once.
    if (m_bEndedByItself.exchange(false))
        m_bStopRequested = false;
    const std::string url = BuildUrl(m_param.Host, m_param.Port, m_param.Path);
    m_pCtrler = ctrler;
    int transport = m_param.Protocol;
    for (;;) {
        m_watch = kWatchRunning;
        m_iResultCode = 0;
        m_attemptEnd = RtspLoopEnd();
        m_refusal = RtspLoopEnd();
        m_bAttemptGotFrame = false;
        if (!m_bFixProtocol) {
            transport = NextAutoProtocol(transport);
            m_param.Protocol = transport;
        }
        const unsigned short httpPort = static_cast<unsigned short>(m_param.HttpPort & 0xFFFF);
        CF_LOG(LOG_CATEG_RTSP, LOG_LEVEL_NOTICE,
               "OpenURL RtspURL[%s], KeepAlive[%d], Protocol[%d], HttpPort[%d], Timeout[%d]\n",
               url.c_str(), m_param.KeepAlive, transport, httpPort, m_param.Timeout);

        MetaDataRTSPClient* client = MetaDataRTSPClient::CreateNew(
            *this, *m_pEnv, url.c_str(), m_param.KeepAlive,
            transport == RTSP_PROTOCOL_HTTP ? httpPort : 0, m_param.Timeout);
        if (!client) {
            CF_LOG(LOG_CATEG_RTSP, LOG_LEVEL_INFO, "URL[%s]: Failed to create a RTSP client[%s].\n",
                   url.c_str(), m_pEnv->getResultMsg());
            // Nothing could ever end this attempt's loop: let it return at once.
            m_watch = kWatchStop;
            NoteEnd(FETCH_END_FAILED, "no RTSP client could be created");
        } else {
            if (!m_param.UserAgent.empty())
                client->setUserAgentString(m_param.UserAgent.c_str());
            client->SetupTimeoutTimer();
            // A stop that came before the client was in the set found nothing to trigger.
            if (m_bStopRequested) {
                std::lock_guard<std::mutex> lock(m_clientsMutex);
                client->FireShutdown();
            }
            {
                Authenticator authenticator(m_param.User.c_str(), m_param.Password.c_str(), False);
                // The client keeps its own copy; it may even be gone when this returns.
                client->sendDescribeCommand(MetaDataRTSPClient::ContinueAfterDESCRIBE,
                                            &authenticator);
            }
        }
        m_pEnv->taskScheduler().doEventLoop(&m_watch);
        CloseAllClients();
        m_loopEnd = AttemptOutcome();

        if (m_bStopRequested || m_bFixProtocol)
            break;
        transport = m_param.Protocol;
        if (transport == RTSP_PROTOCOL_HTTP)
            break;
    }
    const bool stopped = m_bStopRequested.exchange(false);
    m_bEndedByItself = !stopped;
    if (stopped)
        m_loopEnd = RtspLoopEnd{FETCH_END_STOPPED, 0, "stopped"};
}

void RtspReceiver::NoteEnd(int reason, const std::string& text) {
    if (m_attemptEnd.reason == FETCH_END_NONE)
        m_attemptEnd = RtspLoopEnd{reason, 0, text};
}

void RtspReceiver::StopAttempt(int reason, const std::string& text) {
    NoteEnd(reason, text);
    StopRecvLoop(false);
}

void RtspReceiver::NoteRefusal(int status, const std::string& text) {
    m_refusal = RtspLoopEnd{FETCH_END_REFUSED, status, text};
}

RtspLoopEnd RtspReceiver::AttemptOutcome() const {
    // A camera that refused a request and then sent nothing failed for that refusal, whatever
    // ended the attempt afterwards (the PLAY of nothing, the silence watchdog).
    if (!m_bAttemptGotFrame && m_refusal.reason != FETCH_END_NONE)
        return m_refusal;
    if (m_attemptEnd.reason != FETCH_END_NONE)
        return m_attemptEnd;
    return RtspLoopEnd{FETCH_END_FAILED, 0, "the session ended"};
}

bool RtspReceiver::ConnectionClosed() {
    std::lock_guard<std::mutex> lock(m_clientsMutex);
    for (RTSPClient* c : m_clients)
        if (tcpstate::PeerClosed(c->socketNum()))
            return true;
    return false;
}

void RtspReceiver::StopRecvLoop(bool stopAll) {
    // A stop of the whole loop is not undone by a later stop of one attempt.
    if (stopAll)
        m_bStopRequested = true;
    std::lock_guard<std::mutex> lock(m_clientsMutex);
    if (m_watch != kWatchRunning)
        return;
    for (RTSPClient* c : m_clients)
        static_cast<MetaDataRTSPClient*>(c)->FireShutdown();
}

void RtspReceiver::InsertClient(RTSPClient* client) {
    std::lock_guard<std::mutex> lock(m_clientsMutex);
    m_clients.insert(client);
}

void RtspReceiver::EraseClient(RTSPClient* client) {
    std::lock_guard<std::mutex> lock(m_clientsMutex);
    m_clients.erase(client);
    if (m_clients.empty())
        m_watch = kWatchStop;
}

void RtspReceiver::CloseAllClients() {
    for (;;) {
        MetaDataRTSPClient* client;
        {
            std::lock_guard<std::mutex> lock(m_clientsMutex);
            if (m_clients.empty())
                return;
            client = static_cast<MetaDataRTSPClient*>(*m_clients.begin());
        }
        client->SetClosing();
        // The destructor takes the client out of the set.
        Medium::close(client);
    }
}
