#include "rtsp/rtspclient.h"

#include <cstring>
#include <memory>
#include <mutex>
#include <string>

#include "core/log.h"
#include "rtsp/rtspreceiver.h"
#include "rtsp/socketbatch.h"
#include "rtsp/tcpstate.h"

namespace {
constexpr int kVerbosity = 1;
constexpr const char* kApplicationName = "RTSP client";
constexpr int kDefaultTimeoutSec = 10;
constexpr long long kMicrosPerSecond = 1000000;
// Announced session timeout taken when the server gives none.
constexpr int kAssumedSessionTimeout = 60;

// Server texts often end in a line break of their own; the log line has one already.
int TrimmedLength(const char* text) {
    size_t n = strlen(text);
    while (n > 0 && (text[n - 1] == '\n' || text[n - 1] == '\r'))
        --n;
    return static_cast<int>(n);
}
}  // namespace

StreamClientState::~StreamClientState() {
    delete iter;
    if (session) {
        session->envir().taskScheduler().unscheduleDelayedTask(streamTimerTask);
        Medium::close(session);
    }
}

MetaDataRTSPClient* MetaDataRTSPClient::CreateNew(RtspReceiver& receiver, UsageEnvironment& env,
                                                  const char* url, int keepAlive,
                                                  unsigned short httpPort, int timeoutSec) {
    return new MetaDataRTSPClient(receiver, env, url, keepAlive, httpPort, timeoutSec);
}

MetaDataRTSPClient::MetaDataRTSPClient(RtspReceiver& receiver, UsageEnvironment& env,
                                       const char* url, int keepAlive, unsigned short httpPort,
                                       int timeoutSec)
    : RTSPClient(env, url, kVerbosity, kApplicationName, httpPort, -1),
      m_receiver(receiver),
      m_timerTask(nullptr),
      m_keepAliveTask(nullptr),
      m_shutdownTrigger(0),
      m_iKeepAlive(keepAlive),
      // A zero or negative timeout would end every attempt before the server could answer.
      m_iTimeoutSec(timeoutSec > 0 ? timeoutSec : kDefaultTimeoutSec),
      m_iKeepAliveSec(0),
      m_ullBytesAtRequest(0),
      m_bClosing(false) {
    m_shutdownTrigger = env.taskScheduler().createEventTrigger(ShutdownTriggered);
    receiver.InsertClient(this);
}

MetaDataRTSPClient::~MetaDataRTSPClient() {
    TaskScheduler& scheduler = envir().taskScheduler();
    {
        // Under the receiver's client lock, so that StopRecvLoop never fires a trigger that
        // is gone (or, worse, already handed to the next client).
        std::lock_guard<std::mutex> lock(m_receiver.m_clientsMutex);
        if (m_shutdownTrigger)
            scheduler.deleteEventTrigger(m_shutdownTrigger);
        m_shutdownTrigger = 0;
    }
    scheduler.unscheduleDelayedTask(m_timerTask);
    scheduler.unscheduleDelayedTask(m_keepAliveTask);
    // Sinks still reading from the session's sources must go before the session does.
    CloseSinks();
    // Before the base closes the socket, whose number may soon belong to another socket.
    socketbatch::Release(socketNum());
    m_receiver.EraseClient(this);
}

void MetaDataRTSPClient::SetupTimeoutTimer() {
    TaskScheduler& scheduler = envir().taskScheduler();
    scheduler.unscheduleDelayedTask(m_timerTask);
    m_timerTask =
        scheduler.scheduleDelayedTask(m_iTimeoutSec * kMicrosPerSecond, SetupTimeoutHandler, this);
    // Before the first request there is no connection yet: nothing received.
    tcpstate::BytesReceived(socketNum(), m_ullBytesAtRequest);
}

int MetaDataRTSPClient::KeepAliveInterval(int method, unsigned sessionTimeout) {
    const int timeout =
        sessionTimeout < 1 ? kAssumedSessionTimeout : static_cast<int>(sessionTimeout);
    switch (method) {
        case 1:
            return timeout < 6 ? 1 : timeout - 5;
        case 2:
            return timeout < 3 ? 1 : timeout - 2;
        default:
            return 0;
    }
}

void MetaDataRTSPClient::ScheduleKeepAliveTask() {
    m_iKeepAliveSec = KeepAliveInterval(m_iKeepAlive, sessionTimeoutParameter());
    if (m_iKeepAliveSec < 1)
        return;
    TaskFunc* task = m_iKeepAlive == 1 ? SendOptionsKeepAlive : SendGetParameterKeepAlive;
    TaskScheduler& scheduler = envir().taskScheduler();
    scheduler.unscheduleDelayedTask(m_keepAliveTask);
    m_keepAliveTask = scheduler.scheduleDelayedTask(m_iKeepAliveSec * kMicrosPerSecond, task, this);
}

void MetaDataRTSPClient::SchedulePollingTask() {
    ReceiverCtrler* ctrler = m_receiver.GetRecvCtrler();
    if (!ctrler)
        return;
    const int seconds = ctrler->GetPollingTmSec();
    if (seconds < 1)
        return;
    m_timerTask = envir().taskScheduler().scheduleDelayedTask(seconds * kMicrosPerSecond,
                                                              PollingTaskHandler, this);
}

void MetaDataRTSPClient::FireShutdown() {
    if (m_bClosing || !m_shutdownTrigger)
        return;
    envir().taskScheduler().triggerEvent(m_shutdownTrigger, this);
}

void MetaDataRTSPClient::ShutdownTriggered(void* clientData) {
    ShutdownStream(static_cast<MetaDataRTSPClient*>(clientData));
}

void MetaDataRTSPClient::SetupTimeoutHandler(void* clientData) {
    auto* client = static_cast<MetaDataRTSPClient*>(clientData);
    client->m_timerTask = nullptr;
    if (client->m_bClosing)
        return;
    // Bytes came but live555 made no response of them (lines that end in a bare LF, say):
    // the camera answered in a form this client cannot read, which waiting will not mend.
    uint64_t bytes = 0;
    if (tcpstate::BytesReceived(client->socketNum(), bytes) &&
        bytes > client->m_ullBytesAtRequest) {
        CF_LOG(LOG_CATEG_RTSP, LOG_LEVEL_WARNING,
               "URL[%s]: RTSP response not understood, %llu bytes came without a response.\n",
               client->url(), static_cast<unsigned long long>(bytes - client->m_ullBytesAtRequest));
        client->m_receiver.NoteEnd(FETCH_END_NOT_UNDERSTOOD, "RTSP response not understood");
    } else {
        client->m_receiver.NoteEnd(
            FETCH_END_TIMEOUT, "no answer within " + std::to_string(client->m_iTimeoutSec) + " s");
    }
    std::lock_guard<std::mutex> lock(client->m_receiver.m_clientsMutex);
    client->FireShutdown();
}

void MetaDataRTSPClient::PollingTaskHandler(void* clientData) {
    auto* client = static_cast<MetaDataRTSPClient*>(clientData);
    client->m_timerTask = nullptr;
    if (ReceiverCtrler* ctrler = client->m_receiver.GetRecvCtrler())
        ctrler->PollingTask(&client->m_receiver);
    client->SchedulePollingTask();
}

void MetaDataRTSPClient::SendOptionsKeepAlive(void* clientData) {
    auto* client = static_cast<MetaDataRTSPClient*>(clientData);
    client->m_keepAliveTask = nullptr;
    client->sendOptionsCommand(IgnoreResponse);
    client->m_keepAliveTask = client->envir().taskScheduler().scheduleDelayedTask(
        client->m_iKeepAliveSec * kMicrosPerSecond, SendOptionsKeepAlive, client);
}

void MetaDataRTSPClient::SendGetParameterKeepAlive(void* clientData) {
    auto* client = static_cast<MetaDataRTSPClient*>(clientData);
    client->m_keepAliveTask = nullptr;
    if (client->m_state.session)
        client->sendGetParameterCommand(*client->m_state.session, GetParameterAnswered, nullptr);
    client->m_keepAliveTask = client->envir().taskScheduler().scheduleDelayedTask(
        client->m_iKeepAliveSec * kMicrosPerSecond, SendGetParameterKeepAlive, client);
}

void MetaDataRTSPClient::IgnoreResponse(RTSPClient*, int, char* resultString) {
    delete[] resultString;
}

void MetaDataRTSPClient::GetParameterAnswered(RTSPClient* rtspClient, int resultCode,
                                              char* resultString) {
    std::unique_ptr<char[]> text(resultString);
    auto* client = static_cast<MetaDataRTSPClient*>(rtspClient);
    // A negative code is the connection failing, not the camera's answer; a second refusal
    // of requests already under way changes nothing.
    if (resultCode <= 0 || client->m_iKeepAlive != RTSP_KEEPALIVE_GET_PARAMETER)
        return;
    const char* detail = text ? text.get() : "";
    CF_LOG(LOG_CATEG_RTSP, LOG_LEVEL_WARNING,
           "URL[%s]: GET_PARAMETER keep-alive refused[%.*s], OPTIONS from now on.\n", client->url(),
           TrimmedLength(detail), detail);
    client->m_iKeepAlive = RTSP_KEEPALIVE_OPTIONS;
    // The refused request kept nothing alive: the first OPTIONS goes now.
    client->sendOptionsCommand(IgnoreResponse);
    client->ScheduleKeepAliveTask();
}

bool MetaDataRTSPClient::CloseSinks() {
    if (!m_state.session)
        return false;
    bool closed = false;
    MediaSubsessionIterator iter(*m_state.session);
    while (MediaSubsession* sub = iter.next()) {
        if (!sub->sink)
            continue;
        Medium::close(sub->sink);
        sub->sink = nullptr;
        if (sub->rtcpInstance())
            sub->rtcpInstance()->setByeHandler(nullptr, nullptr);
        closed = true;
    }
    return closed;
}

void MetaDataRTSPClient::LogClientPorts(MediaSubsession* subsession) {
    if (subsession->rtcpIsMuxed())
        CF_LOG(LOG_CATEG_RTSP, LOG_LEVEL_INFO, "client port %d.\n", subsession->clientPortNum());
    else
        CF_LOG(LOG_CATEG_RTSP, LOG_LEVEL_INFO, "client ports %d-%d.\n", subsession->clientPortNum(),
               subsession->clientPortNum() + 1);
}

void MetaDataRTSPClient::Debug(RTSPClient* client, const char* message, const char* detail) {
    if (!client || !message || !detail)
        return;
    CF_LOG(LOG_CATEG_RTSP, LOG_LEVEL_INFO, "URL[%s]: %s[%.*s].\n", client->url(), message,
           TrimmedLength(detail), detail);
}

void MetaDataRTSPClient::Debug(RTSPClient* client, MediaSubsession* subsession, const char* message,
                               const char* detail) {
    if (!client || !subsession || !message || !detail)
        return;
    CF_LOG(LOG_CATEG_RTSP, LOG_LEVEL_INFO, "URL[%s], Subsession[%s/%s]: %s[%.*s].\n", client->url(),
           subsession->mediumName(), subsession->codecName(), message, TrimmedLength(detail),
           detail);
}
