// The RTSP fetcher's probes: does the stream deliver frames (TestConnect), and at how many
// bytes per second (GetBandwidth). Each runs a receiver of its own on the caller's thread.
#include <unistd.h>

#include <mutex>

#include "core/log.h"
#include "packetizer/mpeg4videopacket.h"
#include "rtsp/controllers.h"
#include "rtsp/rtspfetch.h"
#include "rtsp/rtspfetchprivate.h"
#include "rtsp/rtspreceiver.h"

namespace {
constexpr double kProbeLimitSec = 60;
// Between two failed runs, so that a refusing server is not hammered for a minute.
constexpr unsigned kRetryPauseUs = 1000000;
constexpr int kResultUnauthorized = 401;
constexpr int kResultConnectFailed = -115;  // live555's connect() outcome for any refusal

// The picture size the parameter sets of the session description announce, read the way the
// video packetizer reads them.
void SetPictureSize(ESFormat& video) {
    if (!video.p_extra || video.i_extra <= 0)
        return;
    PACK_STREAM stream;
    ESFormatCopy(stream.fmt, video);
    Mpeg4VideoPacketizer packetizer(0);
    if (packetizer.InitPacket(&stream) == 0) {
        video.video.i_width = stream.fmt.video.i_width;
        video.video.i_height = stream.fmt.video.i_height;
        video.video.i_visible_width = stream.fmt.video.i_visible_width;
        video.video.i_visible_height = stream.fmt.video.i_visible_height;
    }
    packetizer.FreePacket(&stream);
}
}  // namespace

int RtspFetch::TestConnectResult(bool gotFrame, int resultCode) {
    if (gotFrame)
        return RTSP_TEST_OK;
    switch (resultCode) {
        case 0:
            return RTSP_TEST_NO_FRAME;
        case kResultUnauthorized:
            return RTSP_TEST_UNAUTHORIZED;
        case kResultConnectFailed:
            return RTSP_TEST_UNREACHABLE;
        default:
            return RTSP_TEST_FAILED;
    }
}

int RtspFetch::TestConnect() {
    // The probe's session teaches the formats, as a fetch's would.
    TestConnectCtrler ctrler(m_bAudioKeepsAlive, this);
    RtspReceiver receiver;
    if (receiver.Init(m_recvParam) == 0) {
        const time_t start = time(nullptr);
        while (!ctrler.GotFrame() && difftime(time(nullptr), start) < kProbeLimitSec) {
            receiver.DoRecvLoop(&ctrler);
            if (!ctrler.GotFrame() && difftime(time(nullptr), start) < kProbeLimitSec)
                usleep(kRetryPauseUs);
        }
    }
    if (m_pPrivate) {
        std::lock_guard<std::mutex> lock(m_pPrivate->mutex);
        SetPictureSize(m_pPrivate->fmtVideo);
    }
    const int result = TestConnectResult(ctrler.GotFrame(), receiver.GetResultCode());
    CF_LOG(LOG_CATEG_RTSP, LOG_LEVEL_NOTICE, "Test connect result[%d], rtsp result code[%d].\n",
           result, receiver.GetResultCode());
    return result;
}

int RtspFetch::GetBandwidth() {
    BandwidthCtrler ctrler;
    if (!ctrler.HasRecvBuf()) {
        CF_LOG(LOG_CATEG_RTSP, LOG_LEVEL_ERROR,
               "No memory for the receive buffer, bandwidth not measured.\n");
        return 0;
    }
    RtspReceiver receiver;
    if (receiver.Init(m_recvParam) == 0) {
        const time_t start = time(nullptr);
        while (ctrler.GetBandwidth() == 0 && difftime(time(nullptr), start) < kProbeLimitSec) {
            receiver.DoRecvLoop(&ctrler);
            if (ctrler.GetBandwidth() == 0 && difftime(time(nullptr), start) < kProbeLimitSec)
                usleep(kRetryPauseUs);
        }
    }
    CF_LOG(LOG_CATEG_RTSP, LOG_LEVEL_NOTICE, "Bandwidth[%d] bytes per second.\n",
           ctrler.GetBandwidth());
    return ctrler.GetBandwidth();
}
