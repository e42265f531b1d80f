// The two side channels of RtspFetch: the latest RTP header extension of the video stream
// and the latest in-band SEI / MPEG-4 user-data head, kept for the host's threads.
#include <algorithm>
#include <cstring>

#include "core/log.h"
#include "rtsp/rtpextension.h"
#include "rtsp/rtspfetch.h"
#include "rtsp/rtspfetchprivate.h"

namespace {
constexpr uint8_t kNalTypeSei = 6;
// MPEG-4 user data start code followed by the two bytes that mark a camera's header.
constexpr uint8_t kMp4vUserData[6] = {0x00, 0x00, 0x01, 0xB2, 0x0A, 0x03};
constexpr uint32_t kMaxExtDataLen = 0xFFFF;  // the length is a 16-bit quantity
}  // namespace

void RtspFetch::OnVideoRtpPacket(void* clientData, unsigned char* packet, unsigned& packetSize) {
    RtpHeaderExtension ext;
    if (!ParseRtpHeaderExtension(packet, packetSize, ext))
        return;
    RtspFetchPrivate* priv = static_cast<RtspFetch*>(clientData)->m_pPrivate.get();
    if (!priv || !priv->pExtData)
        return;
    const uint32_t length = static_cast<uint32_t>(
        std::min<size_t>(ext.size, std::min(priv->uExtDataCapacity, kMaxExtDataLen)));
    std::lock_guard<std::mutex> lock(priv->mutex);
    memcpy(priv->pExtData.get(), ext.data, length);
    priv->uExtDataLen = length;
}

unsigned int RtspFetch::GetExtDataLen() {
    if (!m_pPrivate)
        return 0;
    std::lock_guard<std::mutex> lock(m_pPrivate->mutex);
    return m_pPrivate->uExtDataLen;
}

int RtspFetch::FetchExtData(unsigned char* buf, unsigned int bufSize) {
    CF_LOG(LOG_CATEG_RTSP, LOG_LEVEL_TRACE, "Start FetchExtData!\n");
    if (!m_pPrivate) {
        CF_LOG(LOG_CATEG_RTSP, LOG_LEVEL_ERROR, "Private data has not initialized yet!\n");
        return RTSP_EXT_NOT_READY;
    }
    if (!buf) {
        CF_LOG(LOG_CATEG_RTSP, LOG_LEVEL_ERROR, "Write buf is null\n");
        return RTSP_EXT_NULL_BUFFER;
    }
    std::lock_guard<std::mutex> lock(m_pPrivate->mutex);
    if (!m_pPrivate->pExtData) {
        CF_LOG(LOG_CATEG_RTSP, LOG_LEVEL_ERROR, "Ext data buf is null\n");
        return RTSP_EXT_NO_ROOM;
    }
    if (bufSize < m_pPrivate->uExtDataLen) {
        CF_LOG(LOG_CATEG_RTSP, LOG_LEVEL_ERROR, "Buf size is not enougth, RdLen=%u, ExtDataSz=%u\n",
               bufSize, m_pPrivate->uExtDataLen);
        return RTSP_EXT_NO_ROOM;
    }
    memcpy(buf, m_pPrivate->pExtData.get(), m_pPrivate->uExtDataLen);
    CF_LOG(LOG_CATEG_RTSP, LOG_LEVEL_TRACE, "Complete! [ExtDataSz=%u]\n", m_pPrivate->uExtDataLen);
    return RTSP_EXT_OK;
}

unsigned int RtspFetch::FetchEsHeader(unsigned char* buf, unsigned int bufSize) {
    if (!m_pPrivate || !buf)
        return 0;
    std::lock_guard<std::mutex> lock(m_pPrivate->mutex);
    const uint32_t codec = m_pPrivate->fmtVideo.i_codec;
    if (codec != kCodecMp4v && codec != kCodecH264)
        return 0;
    const unsigned int n = std::min(m_pPrivate->uEsHeaderLen, bufSize);
    memcpy(buf, m_pPrivate->esHeader, n);
    return n;
}

void RtspFetch::SetKeepEsHeader(bool keep) {
    if (m_pPrivate)
        m_pPrivate->bKeepEsHeader = keep;
}

void RtspFetch::FillEsHeader(uint32_t codec, const unsigned char* data, unsigned int size) {
    if (!m_pPrivate || !m_pPrivate->bKeepEsHeader || !data)
        return;
    const unsigned int n = std::min<unsigned int>(size, RtspFetchPrivate::kEsHeaderSize);
    bool keep = false;
    if (codec == kCodecH264) {
        keep = size > 0 && (data[0] & 0x1F) == kNalTypeSei;
    } else if (codec == kCodecMp4v && size > sizeof kMp4vUserData) {
        // At least one byte of the header after the six marker bytes.
        // The user-data head must begin within the first n bytes (and lie inside the frame).
        const unsigned int lastStart = std::min<unsigned int>(n, size - sizeof kMp4vUserData + 1);
        for (unsigned int i = 0; i < lastStart && !keep; ++i)
            keep = memcmp(data + i, kMp4vUserData, sizeof kMp4vUserData) == 0;
    }
    if (!keep)
        return;
    std::lock_guard<std::mutex> lock(m_pPrivate->mutex);
    memcpy(m_pPrivate->esHeader, data, n);
    m_pPrivate->uEsHeaderLen = n;
}
