#include "rtsp/rtspfetch.h"

#include <GroupsockHelper.hh>
#include <liveMedia.hh>

#include <cstring>
#include <new>

#include "core/log.h"
#include "core/utils.h"
#include "packer/streampacker.h"
#include "rtsp/rtspfetchprivate.h"
#include "rtsp/rtspreceiver.h"
#include "rtsp/sdpformat.h"

namespace {
constexpr unsigned kVideoSocketBuffer = 2000000;
constexpr unsigned kAudioSocketBuffer = 100000;
constexpr unsigned kReorderingThresholdUs = 200000;
constexpr int kPollingSec = 5;
constexpr double kSilenceLimitSec = 15;

bool IsMedium(const MediaSubsession* sub, const char* medium) {
    return strcmp(SubsessionMediumName(sub), medium) == 0;
}

SdpMediaDesc DescribeSubsession(MediaSubsession& sub) {
    SdpMediaDesc desc;
    desc.medium = SubsessionMediumName(&sub);
    desc.codec = SubsessionCodecName(&sub);
    desc.rtpFrequency = sub.rtpTimestampFrequency();
    desc.channels = sub.numChannels();
    const char* config = sub.fmtp_config();
    desc.config = config ? config : "";
    desc.spropParameterSets = sub.fmtp_spropparametersets();
    desc.spropVps = sub.fmtp_spropvps();
    desc.spropSps = sub.fmtp_spropsps();
    desc.spropPps = sub.fmtp_sproppps();
    return desc;
}

void TuneRtpSource(MediaSubsession& sub, unsigned socketBuffer) {
    RTPSource* source = sub.rtpSource();
    if (!source)
        return;
    if (source->RTPgs())
        increaseReceiveBufferTo(sub.parentSession().envir(), source->RTPgs()->socketNum(),
                                socketBuffer);
    source->setPacketReorderingThresholdTime(kReorderingThresholdUs);
}
}  // namespace

RtspFetchPrivate::RtspFetchPrivate(bool hasAudio)
    : pExtData(static_cast<unsigned char*>(camfetch::AllocBuffer(kExtDataCapacity))),
      pVideoBuf(static_cast<unsigned char*>(camfetch::AllocBuffer(kVideoBufSize))),
      bHasAudio(hasAudio) {
    if (hasAudio) {
        pAudioBuf.reset(static_cast<unsigned char*>(camfetch::AllocBuffer(kAudioBufSize)));
        uAudioBufSize = kAudioBufSize;
    }
    if (!pExtData || !pVideoBuf || (hasAudio && !pAudioBuf))
        throw std::bad_alloc();
    fmtVideo.Reset(VIDEO_ES, 0);
    fmtAudio.Reset(AUDIO_ES, 0);
}

RtspFetch::RtspFetch(const FETCH_PARAM& param)
    : m_pPrivate(new RtspFetchPrivate(param.bHasAudio)),
      m_pPacker(new StreamPacker(param)),
      m_bAudioKeepsAlive((param.uFlags & RTSP_FLAG_AUDIO_KEEPS_ALIVE) != 0),
      m_bDropSdpExtra((param.uFlags & RTSP_FLAG_DROP_SDP_EXTRA) != 0) {
    m_recvParam.Host = param.strHost;
    m_recvParam.User = param.strUser;
    m_recvParam.Password = param.strPassword;
    m_recvParam.Path = param.strPath;
    m_recvParam.UserAgent = param.strUserAgent;
    m_recvParam.AbsStartTime = param.llAbsStartTime;
    m_recvParam.AbsEndTime = param.llAbsEndTime;
    m_recvParam.Port = param.iPort;
    m_recvParam.HttpPort = param.iHttpPort;
    m_recvParam.Timeout = param.iTimeout;
    m_recvParam.Protocol = param.iProtocol;
    m_recvParam.KeepAlive = param.iKeepAlive;
    m_recvParam.SocketBatch = !(param.uFlags & FETCH_FLAG_NO_SOCKET_BATCH);
    m_pReceiver.reset(new RtspReceiver());
    if (m_pReceiver->Init(m_recvParam) != 0) {
        CF_LOG(LOG_CATEG_RTSP, LOG_LEVEL_ERROR, "Failed to init rtsp receiver.\n");
        m_pReceiver.reset();
    }
}

RtspFetch::~RtspFetch() = default;

bool RtspFetch::IsValidSubsession(MediaSubsession* subsession) {
    if (!m_pPrivate || !subsession)
        return false;
    if (IsMedium(subsession, "audio"))
        return m_pPrivate->bHasAudio;
    return IsMedium(subsession, "video");
}

void RtspFetch::AfterSetupSubsession(RTSPClient*, MediaSubsession* subsession) {
    if (!m_pPrivate || !subsession)
        return;
    const SdpMediaDesc desc = DescribeSubsession(*subsession);
    ESFormat fmt;
    if (desc.medium == "video") {
        MapSdpVideoFormat(desc, m_bDropSdpExtra, fmt);
        {
            std::lock_guard<std::mutex> lock(m_pPrivate->mutex);
            ESFormatCopy(m_pPrivate->fmtVideo, fmt);
        }
        if (RTPSource* source = subsession->rtpSource())
            source->setAuxilliaryReadHandler(OnVideoRtpPacket, this);
        TuneRtpSource(*subsession, kVideoSocketBuffer);
    } else if (desc.medium == "audio") {
        MapSdpAudioFormat(desc, fmt);
        // live555 picks the source class by this very name.
        if (desc.codec == "MP4A-LATM" && subsession->rtpSource())
            static_cast<MPEG4LATMAudioRTPSource*>(subsession->rtpSource())
                ->omitLATMDataLengthField();
        {
            std::lock_guard<std::mutex> lock(m_pPrivate->mutex);
            ESFormatCopy(m_pPrivate->fmtAudio, fmt);
        }
        TuneRtpSource(*subsession, kAudioSocketBuffer);
    } else {
        return;
    }
    CF_LOG(LOG_CATEG_RTSP, LOG_LEVEL_INFO, "Subsession[%s/%s] set up as codec[%s], extra[%d].\n",
           desc.medium.c_str(), desc.codec.c_str(), GetCodec(fmt.i_codec).c_str(), fmt.i_extra);
}

void RtspFetch::BeforePlayStart(RTSPClient*) {
    if (!m_pPrivate || !m_pPacker)
        return;
    ESFormat video;
    ESFormat audio;
    {
        std::lock_guard<std::mutex> lock(m_pPrivate->mutex);
        ESFormatCopy(video, m_pPrivate->fmtVideo);
        ESFormatCopy(audio, m_pPrivate->fmtAudio);
    }
    // The silence watchdog counts from PLAY: a stream gets its full grace period to start.
    m_pPrivate->lastRecvTime = time(nullptr);
    // A camera without audio is no fault: the audio format simply stays empty.
    if (m_pPrivate->bHasAudio && audio.i_codec == 0 && audio.strDescription.empty())
        CF_LOG(LOG_CATEG_RTSP, LOG_LEVEL_INFO, "No audio in the session, video only.\n");
    m_pPacker->InitPackers(video, audio);
}

unsigned char* RtspFetch::GetSubsessionRecvBuf(MediaSubsession* subsession, unsigned int& size) {
    size = 0;
    if (!m_pPrivate || !subsession)
        return nullptr;
    if (IsMedium(subsession, "video")) {
        size = m_pPrivate->uVideoBufSize;
        return m_pPrivate->pVideoBuf.get();
    }
    if (IsMedium(subsession, "audio")) {
        size = m_pPrivate->uAudioBufSize;
        return m_pPrivate->pAudioBuf.get();
    }
    return nullptr;
}

void RtspFetch::RecvMetaData(RtspReceiver* receiver, MediaSubsession* subsession,
                             unsigned char* data, unsigned int size, timeval pts) {
    if (!m_pPrivate || !m_pPacker || !receiver || !subsession)
        return;
    RtspFetchPrivate& priv = *m_pPrivate;
    int rc;
    if (IsMedium(subsession, "video")) {
        priv.lastRecvTime = time(nullptr);
        receiver->FixCurProtocol();
        // The formats are written on this thread only; no lock is needed to read them here.
        FillEsHeader(priv.fmtVideo.i_codec, data, size);
        rc = m_pPacker->Process(VIDEO_ES, data, size, pts, 0, false);
    } else if (IsMedium(subsession, "audio")) {
        if (m_bAudioKeepsAlive) {
            priv.lastRecvTime = time(nullptr);
            receiver->FixCurProtocol();
        }
        unsigned char amrByte = 0;
        const uint32_t codec = priv.fmtAudio.i_codec;
        FramedSource* source = subsession->readSource();
        if ((codec == kCodecSamr || codec == kCodecSawb) && subsession->rtpSource() && source &&
            source->isAMRAudioSource())
            amrByte = static_cast<AMRAudioSource*>(source)->lastFrameHeader();
        rc = m_pPacker->Process(AUDIO_ES, data, size, pts, amrByte, false);
    } else {
        CF_LOG(LOG_CATEG_RTSP, LOG_LEVEL_DEBUG, "Unknown medium name[%s], skip it.\n",
               SubsessionMediumName(subsession));
        return;
    }
    if (rc != 0)
        receiver->StopAttempt(FETCH_END_DROPPED, "the stream packer gave the stream up");
}

int RtspFetch::GetPollingTmSec() {
    return kPollingSec;
}

void RtspFetch::PollingTask(RtspReceiver* receiver) {
    if (!m_pPrivate || !receiver)
        return;
    // Over TCP the media come through the RTSP connection: once the camera has closed it,
    // nothing more will come, and waiting for the silence watchdog only loses time. A
    // recording played back ends so; a live stream does not end.
    if (receiver->CurrentProtocol() != RTSP_PROTOCOL_UDP && receiver->ConnectionClosed()) {
        CF_LOG(LOG_CATEG_RTSP, LOG_LEVEL_WARNING,
               "Connection closed by the camera, stop the session.\n");
        if (m_recvParam.AbsStartTime != 0)
            receiver->StopAttempt(FETCH_END_STREAM_END, "the camera ended the stream");
        else
            receiver->StopAttempt(FETCH_END_DROPPED, "session dropped by the camera");
        return;
    }
    const double silent = difftime(time(nullptr), m_pPrivate->lastRecvTime);
    if (silent > kSilenceLimitSec) {
        CF_LOG(LOG_CATEG_RTSP, LOG_LEVEL_WARNING, "No frame for %d seconds, stop the session.\n",
               static_cast<int>(silent));
        receiver->StopAttempt(
            FETCH_END_DROPPED,
            receiver->AttemptGotFrame()
                ? "no media for " + std::to_string(static_cast<int>(silent)) + " seconds"
                : std::string("no media received"));
    }
}

void RtspFetch::DoFetchLoop(MediaDataHandler* handler) {
    if (!m_pReceiver || !m_pPacker) {
        CF_LOG(LOG_CATEG_RTSP, LOG_LEVEL_ERROR, "NULL rtsp receiver or stream packer.\n");
        SetLoopEnd(RtspLoopEnd{FETCH_END_FAILED, 0, "no RTSP receiver"});
        return;
    }
    SetLoopEnd(RtspLoopEnd());
    m_pPacker->SetDataHandler(handler);
    m_pReceiver->DoRecvLoop(this);
    // RTP hands over whole NAL units: what the packetizers still hold is complete, and at
    // the end of a recorded range it is the last pictures.
    m_pPacker->Flush();
    m_pPacker->Free();
    SetLoopEnd(m_pReceiver->LoopEnd());
}

bool RtspFetch::MayReconnect(int reason, int statusCode) {
    switch (reason) {
        case FETCH_END_DROPPED:
        case FETCH_END_UNREACHABLE:
        case FETCH_END_TIMEOUT:
            return true;
        case FETCH_END_REFUSED:
            // 5xx: the camera is busy or failing for now (too many clients, say).
            return statusCode >= 500 && statusCode < 600;
        default:
            return false;
    }
}

void RtspFetch::SetLoopEnd(const RtspLoopEnd& end) {
    if (!m_pPrivate)
        return;
    std::lock_guard<std::mutex> lock(m_pPrivate->mutex);
    FETCH_STATUS& status = m_pPrivate->status;
    status.iEndReason = end.reason;
    status.iStatusCode = end.status;
    status.bMayReconnect = MayReconnect(end.reason, end.status) ? 1 : 0;
    SafeCopy(status.szReason, end.text.c_str(), sizeof status.szReason);
}

void RtspFetch::FillFetchStatus(FETCH_STATUS& status) {
    if (!m_pPrivate) {
        status = FETCH_STATUS();
        status.iEndReason = FETCH_END_FAILED;
        SafeCopy(status.szReason, "no RTSP receiver", sizeof status.szReason);
        return;
    }
    std::lock_guard<std::mutex> lock(m_pPrivate->mutex);
    status = m_pPrivate->status;
}

void RtspFetch::StopFetchLoop() {
    if (!m_pReceiver) {
        CF_LOG(LOG_CATEG_RTSP, LOG_LEVEL_ERROR, "NULL rtsp receiver.\n");
        return;
    }
    m_pReceiver->StopRecvLoop(true);
}

int RtspFetch::SetReconnect() {
    if (!m_pReceiver) {
        StopFetchLoop();
        return FETCH_CONN_CLOSED;
    }
    StopFetchLoop();
    return 0;
}

int RtspFetch::GetVideoFormat(ESFormat& format) {
    if (!m_pPrivate) {
        CF_LOG(LOG_CATEG_RTSP, LOG_LEVEL_ERROR, "NULL private data.\n");
        return 1;
    }
    std::lock_guard<std::mutex> lock(m_pPrivate->mutex);
    ESFormatCopy(format, m_pPrivate->fmtVideo);
    return 0;
}

int RtspFetch::GetAudioFormat(ESFormat& format) {
    if (!m_pPrivate) {
        CF_LOG(LOG_CATEG_RTSP, LOG_LEVEL_ERROR, "NULL private data.\n");
        return 1;
    }
    std::lock_guard<std::mutex> lock(m_pPrivate->mutex);
    ESFormatCopy(format, m_pPrivate->fmtAudio);
    return 0;
}
