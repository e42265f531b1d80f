// RtspReceiver: one live555 event loop driving one RTSP session at a time (DESCRIBE, a
// SETUP per accepted subsession, PLAY, keep-alive and polling) until the stream ends, fails
// or is stopped. Content decisions belong to the ReceiverCtrler given to DoRecvLoop. The
// receiver owns its scheduler and environment; its clients live in the client set, whose
// emptying ends the event loop.
#pragma once

#include <UsageEnvironment.hh>

#include <atomic>
#include <mutex>
#include <set>
#include <string>

#include "core/fetchstatus.h"
#include "rtsp/receiverctrler.h"
#include "rtsp/rtsprecvparam.h"

// How a receive loop ended, in the terms of FETCH_STATUS.
struct RtspLoopEnd {
    int reason = FETCH_END_NONE;  // FETCH_END_*
    int status = 0;               // the camera's status code of a refusal
    std::string text;             // one line for people
};

class RtspReceiver {
public:
    RtspReceiver();
    virtual ~RtspReceiver();
    RtspReceiver(const RtspReceiver&) = delete;
    RtspReceiver& operator=(const RtspReceiver&) = delete;

    // 0 when the parameters are usable (host set, port not negative); -1 otherwise.
    int Init(const RTSP_RECV_PARAM& param);
    // Runs sessions on the calling thread until the stream ends for good. In auto transport
    // mode it tries UDP, TCP and HTTP tunnelling in turn until one delivers video.
    void DoRecvLoop(ReceiverCtrler* ctrler);
    // From any thread: ends the running session through the clients' event triggers.
    // stopAll false lets auto mode go on with the next transport. A stopAll that comes
    // before DoRecvLoop has started makes it return at its first attempt, unless the loop
    // before ended by itself: such a stop was meant for that loop and is dropped.
    void StopRecvLoop(bool stopAll);
    // Keeps the transport of the running attempt for good.
    void FixCurProtocol() { m_bFixProtocol = true; }

    void SetResultCode(int code) { m_iResultCode = code; }
    // -1 before any attempt, 0 when no request failed, else the live555 result code of the
    // last failed DESCRIBE, SETUP or PLAY (positive: RTSP status; negative: system error).
    int GetResultCode() const { return m_iResultCode; }
    ReceiverCtrler* GetRecvCtrler() const { return m_pCtrler; }

    // Why the running attempt ends: the first cause noted is kept. Loop thread only.
    void NoteEnd(int reason, const std::string& text);
    // A controller's decision to end the attempt, for this cause.
    void StopAttempt(int reason, const std::string& text);
    // A request the camera refused; it explains an attempt that ends without media.
    void NoteRefusal(int status, const std::string& text);
    void NoteFrame() { m_bAttemptGotFrame = true; }
    bool AttemptGotFrame() const { return m_bAttemptGotFrame; }
    // True once the camera has closed the RTSP connection of the running attempt.
    bool ConnectionClosed();
    // How the latest DoRecvLoop ended; for its thread, once it has returned.
    const RtspLoopEnd& LoopEnd() const { return m_loopEnd; }
    // The stored parameters; Protocol is the transport of the running attempt. Meant for
    // the loop thread (controllers) or after the loop has returned.
    RTSP_RECV_PARAM GetRecvParam() const { return m_param; }
    int CurrentProtocol() const { return m_param.Protocol; }
    // Whether this receiver batches the reads of its RTSP connection (socketbatch.h).
    bool BatchesReads() const { return m_param.SocketBatch; }

    // Maintained by MetaDataRTSPClient's constructor and destructor only.
    void InsertClient(RTSPClient* client);
    void EraseClient(RTSPClient* client);

    // The RTSP URL for the stored host, port and path.
    static std::string BuildUrl(const std::string& host, int port, const std::string& path);
    // The transport auto mode tries after `current`: 4 (start) -> 1 -> 2 -> 3.
    static int NextAutoProtocol(int current);

private:
    friend class MetaDataRTSPClient;  // retires its trigger under m_clientsMutex
    void CloseAllClients();
    // The attempt's end as the host should hear it.
    RtspLoopEnd AttemptOutcome() const;

    RTSP_RECV_PARAM m_param;
    ReceiverCtrler* m_pCtrler;
    UsageEnvironment* m_pEnv;
    TaskScheduler* m_pScheduler;
    int m_iResultCode;
    bool m_bFixProtocol;
    std::atomic<bool> m_bStopRequested;
    // The latest loop ended without a stop request: stops that land before the next loop
    // were meant for that one.
    std::atomic<bool> m_bEndedByItself;
    RtspLoopEnd m_attemptEnd;
    RtspLoopEnd m_refusal;
    bool m_bAttemptGotFrame;
    RtspLoopEnd m_loopEnd;
    // Written only on the loop thread: 0 while the loop runs, -1 to end it.
    EventLoopWatchVariable m_watch;
    // StopRecvLoop reads the set from other threads; the mutex also orders a client's
    // removal against the firing of its trigger, so no trigger outlives its client.
    std::mutex m_clientsMutex;
    std::set<RTSPClient*> m_clients;
};
