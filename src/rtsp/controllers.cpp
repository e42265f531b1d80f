#include "rtsp/controllers.h"

#include <cstring>

#include "core/log.h"
#include "rtsp/rtspreceiver.h"

namespace {
constexpr double kSilenceLimitSec = 15;
constexpr int kMeasureSpanSec = 10;
}  // namespace

void TestConnectCtrler::AfterSetupSubsession(RTSPClient* client, MediaSubsession* subsession) {
    if (m_pFormats)
        m_pFormats->AfterSetupSubsession(client, subsession);
}

unsigned char* TestConnectCtrler::GetSubsessionRecvBuf(MediaSubsession*, unsigned int& size) {
    // Frames are only counted: live555 truncates them to nothing.
    size = 0;
    return nullptr;
}

void TestConnectCtrler::RecvMetaData(RtspReceiver* receiver, MediaSubsession* subsession,
                                     unsigned char*, unsigned int, timeval) {
    if (!receiver || !subsession) {
        CF_LOG(LOG_CATEG_RTSP, LOG_LEVEL_ERROR, "NULL RtspReceiver or MediaSubsession.\n");
        return;
    }
    const char* medium = SubsessionMediumName(subsession);
    if (strcmp(medium, "video") == 0 || (m_bAcceptAudio && strcmp(medium, "audio") == 0)) {
        m_bGotFrame = true;
        receiver->StopRecvLoop(true);
    }
}

void TestConnectCtrler::PollingTask(RtspReceiver* receiver) {
    // An attempt that delivered a frame has stopped itself already.
    if (receiver)
        receiver->StopRecvLoop(false);
}

BandwidthCtrler::BandwidthCtrler()
    : m_lastFrameTime(time(nullptr)),
      m_recvBuf(static_cast<unsigned char*>(camfetch::AllocBuffer(kRecvBufSize))) {}

unsigned char* BandwidthCtrler::GetSubsessionRecvBuf(MediaSubsession*, unsigned int& size) {
    size = kRecvBufSize;
    return m_recvBuf.get();
}

void BandwidthCtrler::RecvMetaData(RtspReceiver* receiver, MediaSubsession*, unsigned char*,
                                   unsigned int size, timeval) {
    CountFrame(receiver, size, time(nullptr));
}

void BandwidthCtrler::CountFrame(RtspReceiver* receiver, unsigned int size, time_t now) {
    if (!receiver) {
        CF_LOG(LOG_CATEG_RTSP, LOG_LEVEL_ERROR, "NULL RtspReceiver.\n");
        return;
    }
    // Wraps like the 32-bit counter it is, without undefined behaviour.
    m_iTotalBytes = static_cast<int>(static_cast<unsigned int>(m_iTotalBytes) + size);
    m_lastFrameTime = now;
    if (m_firstFrameTime == 0) {
        m_firstFrameTime = now;
    } else {
        m_iElapsedSec = static_cast<int>(difftime(now, m_firstFrameTime));
    }
    if (m_iElapsedSec > kMeasureSpanSec)
        receiver->StopRecvLoop(true);
}

void BandwidthCtrler::PollingTask(RtspReceiver* receiver) {
    if (difftime(time(nullptr), m_lastFrameTime) >= kSilenceLimitSec && receiver)
        receiver->StopRecvLoop(false);
}

int BandwidthCtrler::GetBandwidth() const {
    if (m_iElapsedSec == 0)
        return 0;
    return m_iTotalBytes / m_iElapsedSec;
}
