// The two probing controllers: TestConnectCtrler learns whether a stream delivers frames
// at all, BandwidthCtrler how many bytes per second it delivers. Each lives for one probe
// and is driven on the probing receiver's loop thread; the prober reads the outcome after
// DoRecvLoop returned.
#pragma once

#include <ctime>
#include <memory>

#include "core/bufferalloc.h"
#include "rtsp/receiverctrler.h"

class TestConnectCtrler : public ReceiverCtrler {
public:
    // formats, when given, learns the stream formats of every subsession set up.
    explicit TestConnectCtrler(bool acceptAudio, ReceiverCtrler* formats = nullptr)
        : m_bAcceptAudio(acceptAudio), m_pFormats(formats) {}

    void AfterSetupSubsession(RTSPClient* client, MediaSubsession* subsession) override;
    unsigned char* GetSubsessionRecvBuf(MediaSubsession* subsession, unsigned int& size) override;
    void RecvMetaData(RtspReceiver* receiver, MediaSubsession* subsession, unsigned char* data,
                      unsigned int size, timeval pts) override;
    int GetPollingTmSec() override { return 15; }
    void PollingTask(RtspReceiver* receiver) override;

    bool GotFrame() const { return m_bGotFrame; }

private:
    bool m_bGotFrame = false;
    bool m_bAcceptAudio;
    ReceiverCtrler* m_pFormats;
};

class BandwidthCtrler : public ReceiverCtrler {
public:
    static constexpr unsigned int kRecvBufSize = 0x400000;

    BandwidthCtrler();

    // False when the receive buffer could not be had: no measurement is possible.
    bool HasRecvBuf() const { return m_recvBuf != nullptr; }

    unsigned char* GetSubsessionRecvBuf(MediaSubsession* subsession, unsigned int& size) override;
    void RecvMetaData(RtspReceiver* receiver, MediaSubsession* subsession, unsigned char* data,
                      unsigned int size, timeval pts) override;
    int GetPollingTmSec() override { return 5; }
    void PollingTask(RtspReceiver* receiver) override;

    // Bytes per second from the first to the latest frame; 0 before a whole second.
    int GetBandwidth() const;
    // The frame accounting on its own, with the time of arrival given.
    void CountFrame(RtspReceiver* receiver, unsigned int size, time_t now);

private:
    int m_iTotalBytes = 0;  // 32-bit on purpose; a very fast stream can overflow it
    time_t m_firstFrameTime = 0;
    time_t m_lastFrameTime;
    int m_iElapsedSec = 0;
    // One buffer, lent to every subsession in turn.
    camfetch::MallocBytes m_recvBuf;
};
