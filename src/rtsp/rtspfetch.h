// RtspFetch: the push-style fetcher for RTSP cameras. It is the controller of its own
// RtspReceiver and the host's FetcherBase at once: it builds the stream formats from the
// SDP, lends the receive buffers and pushes every frame into its StreamPacker, which
// delivers whole access units to the host's MediaDataHandler. Two side channels for the
// host: the latest RTP header extension of the video stream (ext data) and the latest
// in-band SEI or MPEG-4 user-data head (ES header). Owns its receiver, packer and buffers.
// Why its latest loop ended is told through GetFetchStatus (core/fetchstatus.h).
#pragma once

#include <ctime>
#include <memory>

#include "core/fetcher.h"
#include "core/fetchstatus.h"
#include "rtsp/receiverctrler.h"
#include "rtsp/rtsprecvparam.h"

class StreamPacker;
struct RtspFetchPrivate;

// Results of TestConnect.
constexpr int RTSP_TEST_OK = 0;
constexpr int RTSP_TEST_FAILED = 4;        // any other failure
constexpr int RTSP_TEST_UNAUTHORIZED = 6;  // the server answered 401
constexpr int RTSP_TEST_UNREACHABLE = 12;  // the connection could not be made
constexpr int RTSP_TEST_NO_FRAME = 16;     // the session ran but no frame came
// Results of FetchExtData.
constexpr int RTSP_EXT_OK = 0;
constexpr int RTSP_EXT_NULL_BUFFER = 2;
constexpr int RTSP_EXT_NOT_READY = 3;
constexpr int RTSP_EXT_NO_ROOM = 7;

// uFlags bits read by the RTSP fetcher.
constexpr uint32_t RTSP_FLAG_AUDIO_KEEPS_ALIVE = 8;  // audio frames prove the connection too
constexpr uint32_t RTSP_FLAG_DROP_SDP_EXTRA = 16;    // the SDP's codec configuration is dropped

struct RtspLoopEnd;

class RtspFetch : public ReceiverCtrler, public FetcherBase, public FetchStatusSource {
public:
    explicit RtspFetch(const FETCH_PARAM& param);
    ~RtspFetch() override;
    RtspFetch(const RtspFetch&) = delete;
    RtspFetch& operator=(const RtspFetch&) = delete;

    // ReceiverCtrler, called on the receiver's loop thread.
    bool IsValidSubsession(MediaSubsession* subsession) override;
    void AfterSetupSubsession(RTSPClient* client, MediaSubsession* subsession) override;
    void BeforePlayStart(RTSPClient* client) override;
    unsigned char* GetSubsessionRecvBuf(MediaSubsession* subsession, unsigned int& size) override;
    void RecvMetaData(RtspReceiver* receiver, MediaSubsession* subsession, unsigned char* data,
                      unsigned int size, timeval pts) override;
    int GetPollingTmSec() override;
    void PollingTask(RtspReceiver* receiver) override;

    // FetcherBase.
    void DoFetchLoop(MediaDataHandler* handler) override;
    void StopFetchLoop() override;
    int SetReconnect() override;
    int GetVideoFormat(ESFormat& format) override;
    int GetAudioFormat(ESFormat& format) override;
    int TestConnect() override;
    int GetBandwidth() override;

    // FetchStatusSource, for any thread.
    void FillFetchStatus(FETCH_STATUS& status) override;

    // Side channels, for host threads.
    unsigned int GetExtDataLen();
    int FetchExtData(unsigned char* buf, unsigned int bufSize);
    // Copies the latest ES header (H.264 and MPEG-4 video only); returns the byte count.
    unsigned int FetchEsHeader(unsigned char* buf, unsigned int bufSize);
    void SetKeepEsHeader(bool keep);
    void FillEsHeader(uint32_t codec, const unsigned char* data, unsigned int size);

    // The TestConnect result for a probe's outcome.
    static int TestConnectResult(bool gotFrame, int resultCode);
    // The live555 raw-packet hook of the video RTP source: keeps the header extension.
    static void OnVideoRtpPacket(void* clientData, unsigned char* packet, unsigned& packetSize);
    // Whether calling DoFetchLoop again may help after a loop that ended so.
    static bool MayReconnect(int reason, int statusCode);

private:
    void SetLoopEnd(const RtspLoopEnd& end);

    std::unique_ptr<RtspFetchPrivate> m_pPrivate;
    std::unique_ptr<StreamPacker> m_pPacker;
    std::unique_ptr<RtspReceiver> m_pReceiver;
    RTSP_RECV_PARAM m_recvParam;
    bool m_bAudioKeepsAlive;
    bool m_bDropSdpExtra;
};
