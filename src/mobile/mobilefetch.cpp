#include "mobile/mobilefetch.h"

#include <cstdlib>
#include <cstring>
#include <new>
#include <string_view>

#include "core/log.h"

namespace {

constexpr unsigned int kAdtsMinSize = 7;
constexpr int kAacFrameLength = 1024;
constexpr int kNalTypeSps = 7;
constexpr int kNalTypePps = 8;

// ISO/IEC 14496-3 sampling frequency index; the reserved indexes give 0.
constexpr int kAacSampleRates[16] = {96000, 88200, 64000, 48000, 44100, 32000, 24000, 22050,
                                     16000, 12000, 11025, 8000,  7350,  0,     0,     0};

// The parameter-set bits of the NAL units found behind four-byte start codes.
uint8_t ScanParameterSets(const unsigned char* data, unsigned int size) {
    uint8_t found = 0;
    for (unsigned int i = 0; i + 4 < size; ++i) {
        if (data[i] != 0 || data[i + 1] != 0 || data[i + 2] != 0 || data[i + 3] != 1)
            continue;
        const int type = data[i + 4] & 0x1F;
        if (type == kNalTypeSps)
            found |= kMobileMaskSps;
        else if (type == kNalTypePps)
            found |= kMobileMaskPps;
    }
    return found;
}

}  // namespace

struct MobileFetch::MobilePriv {
    ESFormat fmtVideo;
    ESFormat fmtAudio;
    time_t lastRecvTime = 0;
    bool bHasAudio = false;
    std::mutex mutex;  // guards the two formats against the host's queries
};

MobileFetch::MobileFetch(const FETCH_PARAM& param)
    : m_pPriv(new MobilePriv),
      m_pPacker(new StreamPacker(param)),
      m_pReceiver(new MobileReceiver),
      receivedMask(0),
      expectedMask(0),
      m_bPackerReady(false) {
    m_pPriv->bHasAudio = param.bHasAudio;
    ResetSession();
    m_recvParam.pReceiverCtrler = this;
    m_recvParam.strPath.clear();  // always the live stream
    m_recvParam.llAbsStartTime = param.llAbsStartTime;
    m_recvParam.llReserved = param.llAbsEndTime;
    m_recvParam.iTimeout = param.iTimeout;
    m_recvParam.iReceiverId = param.iMobileOpt;
    m_pReceiver->Init(m_recvParam);
}

MobileFetch::~MobileFetch() = default;

void MobileFetch::ResetSession() {
    receivedMask = 0;
    expectedMask = 0;
    m_bPackerReady = false;
    std::lock_guard<std::mutex> lock(m_pPriv->mutex);
    m_pPriv->fmtVideo.Reset(VIDEO_ES, kCodecH264);
    m_pPriv->fmtVideo.strDescription = "H264";
    if (m_pPriv->bHasAudio) {
        m_pPriv->fmtAudio.Reset(AUDIO_ES, kCodecMp4a);
        m_pPriv->fmtAudio.strDescription = "MPEG4-GENERIC";
    } else {
        m_pPriv->fmtAudio.Reset();
    }
}

bool MobileFetch::IsExpectedAudio() const {
    return (expectedMask & 0xF0) != 0;
}

void MobileFetch::RecvData(char* data, unsigned int size, std::string contentType, timeval pts) {
    CF_LOG(LOG_CATEG_MOBILE, LOG_LEVEL_INFO, "FrameSize[%u], ContentType[%s], Pts[%ld.%06ld].\n",
           size, contentType.c_str(), static_cast<long>(pts.tv_sec),
           static_cast<long>(pts.tv_usec));
    MediaES es;
    if (contentType == "media-info") {
        ParseMediaInfo(data, size);
        return;
    } else if (contentType == "video/h264") {
        es = VIDEO_ES;
        if (!CollectVideoInfo(data, size))
            return;
    } else if (contentType == "audio/aac" && IsExpectedAudio()) {
        es = AUDIO_ES;
        CollectAudioInfo(reinterpret_cast<const unsigned char*>(data), size);
    } else {
        CF_LOG(LOG_CATEG_MOBILE, LOG_LEVEL_INFO, "Unknown ContentType[%s], skip it.\n",
               contentType.c_str());
        return;
    }

    // Until everything announced has been seen the packer is not set up: drop the frame.
    if (!m_bPackerReady || receivedMask != expectedMask)
        return;
    if (m_pPacker->Process(es, reinterpret_cast<unsigned char*>(data), size, pts, 0, false) != 0) {
        CF_LOG(LOG_CATEG_MOBILE, LOG_LEVEL_WARNING,
               "Packer process failed: EsType[%d], FrameSize[%d].\n", static_cast<int>(es),
               static_cast<int>(size));
        m_pReceiver->StopRecvLoop();
    }
}

void MobileFetch::ParseMediaInfo(const char* data, unsigned int size) {
    std::string_view text(data, size);
    expectedMask = 0;
    while (!text.empty()) {
        const size_t slash = text.find('/');
        const std::string_view token = text.substr(0, slash);
        text.remove_prefix(slash == std::string_view::npos ? text.size() : slash + 1);
        if (token.find("video-h264") != std::string_view::npos)
            expectedMask |= kMobileMaskVideo;
        if (token.find("audio-aac") != std::string_view::npos)
            expectedMask |= kMobileMaskAudio;
    }
    // An announcement that comes after the parts it names completes the set by itself.
    if (!m_bPackerReady && expectedMask != 0 && receivedMask == expectedMask)
        InitPackersIfComplete();
}

bool MobileFetch::CollectVideoInfo(const char* data, unsigned int size) {
    m_pPriv->lastRecvTime = time(nullptr);
    if ((receivedMask & kMobileMaskVideo) == kMobileMaskVideo || size == 4)
        return true;
    const uint8_t found = ScanParameterSets(reinterpret_cast<const unsigned char*>(data), size);
    if ((found & ~receivedMask) == 0)
        return true;
    {
        // The frame goes into the extra data whole, start codes included, as the video
        // packetizer reads its extra data as an Annex B byte stream.
        std::lock_guard<std::mutex> lock(m_pPriv->mutex);
        ESFormat& fmt = m_pPriv->fmtVideo;
        const size_t oldSize = fmt.i_extra > 0 && fmt.p_extra ? fmt.i_extra : 0;
        void* grown = realloc(fmt.p_extra, oldSize + size);
        if (!grown) {
            CF_LOG(LOG_CATEG_MOBILE, LOG_LEVEL_WARNING, "Failed to malloc buffer for p_extra.\n");
            return false;
        }
        memcpy(static_cast<uint8_t*>(grown) + oldSize, data, size);
        fmt.p_extra = static_cast<uint8_t*>(grown);
        fmt.i_extra = static_cast<int32_t>(oldSize + size);
    }
    receivedMask |= found;
    if (receivedMask == expectedMask)
        InitPackersIfComplete();
    return true;
}

void MobileFetch::CollectAudioInfo(const unsigned char* data, unsigned int size) {
    if ((receivedMask & 0xF0) == kMobileMaskAudio)
        return;
    if (size >= kAdtsMinSize && data[0] == 0xFF && (data[1] & 0xF0) == 0xF0) {
        const int rate = kAacSampleRates[(data[2] >> 2) & 0x0F];
        const int channels = ((data[2] & 1) << 2) | (data[3] >> 6);
        {
            std::lock_guard<std::mutex> lock(m_pPriv->mutex);
            m_pPriv->fmtAudio.audio.i_rate = static_cast<uint32_t>(rate);
            m_pPriv->fmtAudio.audio.i_channels = static_cast<uint8_t>(channels);
            m_pPriv->fmtAudio.audio.i_frame_length = kAacFrameLength;
        }
        CF_LOG(LOG_CATEG_MOBILE, LOG_LEVEL_INFO,
               "Parsed AAC ADTS info: Rate [%d], Channel[%d], Frame Length[%d]\n", rate, channels,
               kAacFrameLength);
    }
    receivedMask |= kMobileMaskAudio;
    if (receivedMask == expectedMask)
        InitPackersIfComplete();
}

void MobileFetch::InitPackersIfComplete() {
    ESFormat video, audio;
    {
        // Copies, so that the handler's InitHandler may query the formats without deadlock.
        std::lock_guard<std::mutex> lock(m_pPriv->mutex);
        video = m_pPriv->fmtVideo;
        audio = m_pPriv->fmtAudio;
    }
    m_pPacker->InitPackers(video, audio);
    m_bPackerReady = true;
}

void MobileFetch::DoFetchLoop(MediaDataHandler* handler) {
    if (!m_pReceiver || !m_pPacker) {
        CF_LOG(LOG_CATEG_MOBILE, LOG_LEVEL_ERROR, "NULL mobile receiver or stream packer.\n");
        return;
    }
    // The loop that runs owns the session state (masks, formats, packer and its handler)
    // until it has freed the packer. A call meanwhile is refused as the receiver refuses
    // it, which ends the running loop; it touches none of that state and never calls its
    // own handler.
    if (m_bLoopActive.exchange(true)) {
        m_pReceiver->RefuseRecvLoop();
        return;
    }
    // Every loop is a new session with the client: it announces and describes its streams
    // again.
    ResetSession();
    m_pPacker->SetDataHandler(handler);
    try {
        m_pReceiver->DoRecvLoop(handler);
    } catch (const std::bad_alloc&) {
        // A frame's block could not be had; the receiver has sent its stop notice and closed
        // its socket on the way out.
        CF_LOG(LOG_CATEG_MOBILE, LOG_LEVEL_ERROR, "Out of memory, the receive loop ends.\n");
    }
    // The client frames whole access units: the last one, still held, is complete.
    m_pPacker->Flush();
    m_pPacker->Free();
    m_bLoopActive.store(false);
}

void MobileFetch::StopFetchLoop() {
    if (!m_pReceiver) {
        CF_LOG(LOG_CATEG_MOBILE, LOG_LEVEL_ERROR, "NULL mobile receiver.\n");
        return;
    }
    m_pReceiver->StopRecvLoop();
}

int MobileFetch::SetReconnect() {
    StopFetchLoop();
    return 0;
}

int MobileFetch::GetVideoFormat(ESFormat& format) {
    if (!m_pPriv) {
        CF_LOG(LOG_CATEG_MOBILE, LOG_LEVEL_ERROR, "NULL private data.\n");
        return 1;
    }
    std::lock_guard<std::mutex> lock(m_pPriv->mutex);
    ESFormatCopy(format, m_pPriv->fmtVideo);
    return 0;
}

int MobileFetch::GetAudioFormat(ESFormat& format) {
    if (!m_pPriv) {
        CF_LOG(LOG_CATEG_MOBILE, LOG_LEVEL_ERROR, "NULL private data.\n");
        return 1;
    }
    std::lock_guard<std::mutex> lock(m_pPriv->mutex);
    ESFormatCopy(format, m_pPriv->fmtAudio);
    return 0;
}
