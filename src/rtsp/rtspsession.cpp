// The request chain of one session attempt: DESCRIBE, one SETUP per accepted subsession,
// PLAY, then the ways a session ends (sinks closed, RTCP BYE, duration, shutdown).
#include <cstring>
#include <memory>
#include <string>

#include "core/log.h"
#include "core/utils.h"
#include "rtsp/metadatasink.h"
#include "rtsp/rtspclient.h"
#include "rtsp/rtspreceiver.h"
#include "rtsp/socketbatch.h"

namespace {
constexpr double kDurationSlackSec = 2.0;
constexpr long long kMicrosPerSecond = 1000000;

// live555 hands response texts over with new[]; the handler owns them.
using ResultText = std::unique_ptr<char[]>;

inline MetaDataRTSPClient* Client(RTSPClient* client) {
    return static_cast<MetaDataRTSPClient*>(client);
}

inline const char* TextOrEmpty(const ResultText& text) {
    return text ? text.get() : "";
}

// The first line of a text a server or live555 wrote: the reasons kept for the host are one
// line each.
std::string FirstLine(const char* text) {
    return std::string(text, strcspn(text, "\r\n"));
}

// "461 Unsupported Transport": live555 gives the status line's tail, which names the code
// itself on most servers.
std::string RefusalText(int resultCode, const char* text) {
    std::string line = FirstLine(text);
    const std::string code = std::to_string(resultCode);
    if (line.compare(0, code.size(), code) != 0)
        line = code + (line.empty() ? "" : " ") + line;
    return line;
}
}  // namespace

MediaSession* ParsedMediaSession::CreateNew(UsageEnvironment& env, const char* sdp) {
    auto* session = new ParsedMediaSession(env);
    if (!session->initializeWithSDP(sdp)) {
        Medium::close(session);
        return nullptr;
    }
    return session;
}

MetaDataRTSPClient* MetaDataRTSPClient::Answered(RTSPClient* rtspClient, int resultCode,
                                                 const char* text) {
    MetaDataRTSPClient* client = Client(rtspClient);
    client->envir().taskScheduler().unscheduleDelayedTask(client->m_timerTask);
    if (resultCode != 0)
        client->m_receiver.SetResultCode(resultCode);
    if (resultCode > 0)
        client->m_receiver.NoteRefusal(resultCode, RefusalText(resultCode, text ? text : ""));
    return client;
}

void MetaDataRTSPClient::ContinueAfterDESCRIBE(RTSPClient* rtspClient, int resultCode,
                                               char* resultString) {
    MetaDataRTSPClient* client = Answered(rtspClient, resultCode, resultString);
    ResultText text(resultString);
    UsageEnvironment& env = client->envir();
    if (resultCode != 0) {
        Debug(client, "Failed to get a SDP description", TextOrEmpty(text));
        if (resultCode < 0)
            client->m_receiver.NoteEnd(FETCH_END_UNREACHABLE, FirstLine(TextOrEmpty(text)));
        ShutdownStream(client);
        return;
    }
    const char* sdp = TextOrEmpty(text);
    CF_LOG(LOG_CATEG_RTSP, LOG_LEVEL_DEBUG, "URL[%s]: Got a SDP description[%s].\n", client->url(),
           sdp);
    StreamClientState& state = client->m_state;
    state.session = ParsedMediaSession::CreateNew(env, sdp);
    if (!state.session) {
        Debug(client, "Failed to create a MediaSession object from the SDP description",
              env.getResultMsg());
        client->m_receiver.NoteEnd(FETCH_END_FAILED, "unusable session description");
        ShutdownStream(client);
        return;
    }
    if (!state.session->hasSubsessions()) {
        Debug(client, "This pSession has no media subsessions", "i.e., no \"m=\" lines");
        client->m_receiver.NoteEnd(FETCH_END_FAILED, "no media in the session description");
        ShutdownStream(client);
        return;
    }
    text.reset();
    state.iter = new MediaSubsessionIterator(*state.session);
    SetupNextSubsession(client);
}

void MetaDataRTSPClient::SetupNextSubsession(RTSPClient* rtspClient) {
    MetaDataRTSPClient* client = Client(rtspClient);
    UsageEnvironment& env = client->envir();
    StreamClientState& state = client->m_state;
    RtspReceiver& receiver = client->m_receiver;
    ReceiverCtrler* ctrler = receiver.GetRecvCtrler();

    while ((state.subsession = state.iter->next()) != nullptr) {
        MediaSubsession* sub = state.subsession;
        if (ctrler && !ctrler->IsValidSubsession(sub))
            continue;
        if (!sub->initiate(-1)) {
            Debug(client, sub, "Failed to initiate subsession", env.getResultMsg());
            continue;
        }
        Debug(client, sub, "Initiated successfully", "");
        client->LogClientPorts(sub);
        client->SetupTimeoutTimer();
        // TCP interleaving for TCP and for HTTP tunnelling.
        const bool overTcp = receiver.CurrentProtocol() != RTSP_PROTOCOL_UDP;
        // The response may come at once (a send failure); nothing of the client is touched
        // after this call.
        client->sendSetupCommand(*sub, ContinueAfterSETUP, False, overTcp ? True : False, False,
                                 nullptr);
        return;
    }

    // Every subsession has been handled: play what was set up (possibly nothing).
    client->SetupTimeoutTimer();
    if (ctrler)
        ctrler->BeforePlayStart(client);
    const RTSP_RECV_PARAM param = receiver.GetRecvParam();
    if (param.AbsStartTime == 0) {
        state.duration = state.session->playEndTime() - state.session->playStartTime();
        client->sendPlayCommand(*state.session, ContinueAfterPLAY, 0.0, -1.0, 1.0f);
        return;
    }
    const std::string start = FormatIsoTime(param.AbsStartTime);
    const std::string end = param.AbsEndTime != 0 ? FormatIsoTime(param.AbsEndTime) : "";
    client->sendPlayCommand(*state.session, ContinueAfterPLAY, start.c_str(),
                            end.empty() ? nullptr : end.c_str(), 1.0f);
}

void MetaDataRTSPClient::ContinueAfterSETUP(RTSPClient* rtspClient, int resultCode,
                                            char* resultString) {
    MetaDataRTSPClient* client = Answered(rtspClient, resultCode, resultString);
    ResultText text(resultString);
    UsageEnvironment& env = client->envir();
    MediaSubsession* sub = client->m_state.subsession;
    if (resultCode != 0) {
        Debug(client, sub, "Failed to set up", TextOrEmpty(text));
    } else if (sub) {
        Debug(client, sub, "Setup successfully", "");
        client->LogClientPorts(sub);
        sub->sink = MetaDataSink::CreateNew(env, *sub, client->m_receiver);
        if (!sub->sink || !sub->readSource()) {
            Debug(client, sub, "Failed to create a data sink", env.getResultMsg());
            Medium::close(sub->sink);
            sub->sink = nullptr;
        } else {
            Debug(client, sub, "Created a data sink successfully", "");
            sub->miscPtr = client;
            sub->sink->startPlaying(*sub->readSource(), SubsessionAfterPlaying, sub);
            if (sub->rtcpInstance())
                sub->rtcpInstance()->setByeHandler(SubsessionByeHandler, sub, True);
            if (ReceiverCtrler* ctrler = client->m_receiver.GetRecvCtrler())
                ctrler->AfterSetupSubsession(client, sub);
        }
    }
    // A failed SETUP skips that subsession only.
    text.reset();
    SetupNextSubsession(client);
}

void MetaDataRTSPClient::ContinueAfterPLAY(RTSPClient* rtspClient, int resultCode,
                                           char* resultString) {
    // The setup timeout covers DESCRIBE, each SETUP and PLAY, and nothing after.
    MetaDataRTSPClient* client = Answered(rtspClient, resultCode, resultString);
    ResultText text(resultString);
    UsageEnvironment& env = client->envir();
    if (resultCode != 0) {
        Debug(client, "Failed to start playing pSession", TextOrEmpty(text));
        client->m_receiver.NoteEnd(FETCH_END_FAILED, FirstLine(TextOrEmpty(text)));
        ShutdownStream(client);
        return;
    }
    // Interleaved RTP comes through the RTSP connection from now on: read it in batches.
    if (client->m_receiver.CurrentProtocol() != RTSP_PROTOCOL_UDP &&
        client->m_receiver.BatchesReads())
        socketbatch::Batch(client->socketNum());
    client->ScheduleKeepAliveTask();
    client->SchedulePollingTask();
    StreamClientState& state = client->m_state;
    if (state.duration > 0) {
        state.duration += kDurationSlackSec;
        state.streamTimerTask = env.taskScheduler().scheduleDelayedTask(
            static_cast<int64_t>(state.duration * kMicrosPerSecond), StreamTimerHandler, client);
    }
    Debug(client, "Started playing Session", "");
    if (state.duration > 0)
        CF_LOG(LOG_CATEG_RTSP, LOG_LEVEL_INFO, "Continually play for up to %d seconds.\n",
               static_cast<int>(state.duration));
}

void MetaDataRTSPClient::SubsessionAfterPlaying(void* clientData) {
    auto* sub = static_cast<MediaSubsession*>(clientData);
    auto* client = static_cast<MetaDataRTSPClient*>(sub->miscPtr);
    Medium::close(sub->sink);
    sub->sink = nullptr;
    MediaSubsessionIterator iter(sub->parentSession());
    while (MediaSubsession* other = iter.next())
        if (other->sink)
            return;
    client->m_receiver.NoteEnd(FETCH_END_STREAM_END, "the camera ended the stream");
    ShutdownStream(client);
}

void MetaDataRTSPClient::SubsessionByeHandler(void* clientData) {
    auto* sub = static_cast<MediaSubsession*>(clientData);
    auto* client = static_cast<MetaDataRTSPClient*>(sub->miscPtr);
    Debug(client, sub, "Received RTCP \"BYE\"", "");
    client->m_receiver.NoteEnd(FETCH_END_STREAM_END, "end of stream (RTCP BYE)");
    SubsessionAfterPlaying(sub);
}

void MetaDataRTSPClient::StreamTimerHandler(void* clientData) {
    auto* client = static_cast<MetaDataRTSPClient*>(clientData);
    client->m_state.streamTimerTask = nullptr;
    client->m_receiver.NoteEnd(FETCH_END_STREAM_END, "end of the play range");
    ShutdownStream(client);
}

void MetaDataRTSPClient::ShutdownStream(RTSPClient* rtspClient, int) {
    MetaDataRTSPClient* client = Client(rtspClient);
    if (client->CloseSinks())
        client->sendTeardownCommand(*client->m_state.session, nullptr);
    Debug(client, "Closing the stream", "");
    client->m_bClosing = true;
    // The destructor takes the client out of the receiver's set; the last one out ends the
    // event loop.
    Medium::close(client);
}
