// MetaDataRTSPClient: the live555 RTSP client of one session attempt, with the session
// state, the per-client timers and the static handlers of the request chain (DESCRIBE,
// SETUP per subsession, PLAY, keep-alive, polling, BYE, shutdown). Everything here runs on
// the receiver's event-loop thread except FireShutdown, which RtspReceiver::StopRecvLoop
// calls from any thread under the receiver's client lock.
#pragma once

#include <liveMedia.hh>

#include <atomic>
#include <cstdint>

class RtspReceiver;

// A MediaSession that leaves the environment clean when its SDP does not parse: live555's
// own createNew deletes such a session without taking it out of the environment's media
// table, after which the environment can never be reclaimed.
class ParsedMediaSession : public MediaSession {
public:
    static MediaSession* CreateNew(UsageEnvironment& env, const char* sdp);

protected:
    explicit ParsedMediaSession(UsageEnvironment& env) : MediaSession(env) {}
};

// What one client knows of its session. Owns the iterator and the session.
class StreamClientState {
public:
    StreamClientState() = default;
    virtual ~StreamClientState();
    StreamClientState(const StreamClientState&) = delete;
    StreamClientState& operator=(const StreamClientState&) = delete;

    MediaSubsessionIterator* iter = nullptr;
    MediaSession* session = nullptr;
    MediaSubsession* subsession = nullptr;  // the one being set up
    TaskToken streamTimerTask = nullptr;
    double duration = 0.0;  // seconds; 0 when the session gives no play range
};

class MetaDataRTSPClient : public RTSPClient {
public:
    static MetaDataRTSPClient* CreateNew(RtspReceiver& receiver, UsageEnvironment& env,
                                         const char* url, int keepAlive, unsigned short httpPort,
                                         int timeoutSec);

    // (Re)arms the setup timeout in the shared timer token.
    void SetupTimeoutTimer();
    void ScheduleKeepAliveTask();
    void SchedulePollingTask();
    // Fires the shutdown event trigger unless the client is closing; the shutdown then runs
    // on the loop thread. Safe from any thread while the receiver's client lock is held.
    void FireShutdown();

    StreamClientState& State() { return m_state; }
    RtspReceiver& Receiver() { return m_receiver; }
    bool IsClosing() const { return m_bClosing; }
    void SetClosing() { m_bClosing = true; }
    // Seconds between keep-alive requests, known once PLAY succeeded (0 before).
    int KeepAliveIntervalSec() const { return m_iKeepAliveSec; }

    // Keep-alive interval for a method (1 OPTIONS, 2 GET_PARAMETER) and the session timeout
    // the server announced (0 when none); 0 for any other method.
    static int KeepAliveInterval(int method, unsigned sessionTimeout);

    // The request chain.
    static void ContinueAfterDESCRIBE(RTSPClient* client, int resultCode, char* resultString);
    static void SetupNextSubsession(RTSPClient* client);
    static void ContinueAfterSETUP(RTSPClient* client, int resultCode, char* resultString);
    static void ContinueAfterPLAY(RTSPClient* client, int resultCode, char* resultString);
    static void SubsessionAfterPlaying(void* clientData);
    static void SubsessionByeHandler(void* clientData);
    static void StreamTimerHandler(void* clientData);
    static void ShutdownStream(RTSPClient* client, int exitCode = 1);
    static void SetupTimeoutHandler(void* clientData);
    static void PollingTaskHandler(void* clientData);
    static void SendOptionsKeepAlive(void* clientData);
    static void SendGetParameterKeepAlive(void* clientData);
    static void IgnoreResponse(RTSPClient* client, int resultCode, char* resultString);
    // Cameras that refuse GET_PARAMETER drop the session when their timeout passes: on an
    // error status the keep-alive falls back to OPTIONS for the rest of the session.
    static void GetParameterAnswered(RTSPClient* client, int resultCode, char* resultString);
    static void Debug(RTSPClient* client, const char* message, const char* detail);
    static void Debug(RTSPClient* client, MediaSubsession* subsession, const char* message,
                      const char* detail);

protected:
    MetaDataRTSPClient(RtspReceiver& receiver, UsageEnvironment& env, const char* url,
                       int keepAlive, unsigned short httpPort, int timeoutSec);
    ~MetaDataRTSPClient() override;

private:
    static void ShutdownTriggered(void* clientData);
    // The start of every response handler: the answer ends the setup timeout's wait, and a
    // failed request leaves its code as the receiver's result (a refusal with its text).
    static MetaDataRTSPClient* Answered(RTSPClient* rtspClient, int resultCode, const char* text);
    // Closes every sink of the session; true when there was one. Clears the BYE handlers.
    bool CloseSinks();
    void LogClientPorts(MediaSubsession* subsession);

    StreamClientState m_state;
    RtspReceiver& m_receiver;
    TaskToken m_timerTask;  // the setup timeout, then the polling task
    TaskToken m_keepAliveTask;
    EventTriggerId m_shutdownTrigger;  // 0 once retired
    int m_iKeepAlive;
    int m_iTimeoutSec;
    int m_iKeepAliveSec;
    // Bytes the connection had received when the pending request went out.
    uint64_t m_ullBytesAtRequest;
    std::atomic<bool> m_bClosing;
};
