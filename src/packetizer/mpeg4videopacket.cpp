#include "packetizer/mpeg4videopacket.h"

#include "core/log.h"

namespace {

VIDEO_PACKET_TYPE TypeOfCodec(uint32_t codec) {
    switch (codec) {
        case FourCC("mp4v"):
        case FourCC("MP4V"):
        case FourCC("mp4s"):
        case FourCC("MP4S"):
        case FourCC("m4s2"):
        case FourCC("M4S2"):
        case FourCC("m4cc"):
        case FourCC("M4CC"):
        case FourCC("xvid"):
        case FourCC("XVID"):
        case FourCC("XviD"):
        case FourCC("divx"):
        case FourCC("DIVX"):
        case FourCC("dx50"):
        case FourCC("DX50"):
        case FourCC("3IV2"):
        case 0x04000000:
            return VIDEO_PACKET_MPEG4;
        case FourCC("h264"):
        case FourCC("H264"):
        case FourCC("x264"):
        case FourCC("X264"):
        case FourCC("avc1"):
        case FourCC("DAVC"):
        case FourCC("VSSH"):
        case FourCC("vssh"):
            return VIDEO_PACKET_H264;
        case FourCC("hevc"):
            return VIDEO_PACKET_HEVC;
        default:
            return VIDEO_PACKET_NONE;
    }
}

}  // namespace

Mpeg4VideoPacketizer::Mpeg4VideoPacketizer(unsigned int flags)
    : m_type(VIDEO_PACKET_NONE), m_timestamp(0), m_pocZeroSplits((flags % 2) != 0) {}

int Mpeg4VideoPacketizer::InitPacket(PACK_STREAM* stream) {
    if (!stream)
        return -1;
    m_timestamp = 0;
    m_type = TypeOfCodec(stream->fmt.i_codec);
    return m_type == VIDEO_PACKET_NONE ? -1 : 0;
}

void Mpeg4VideoPacketizer::FreePacket(PACK_STREAM* stream) {
    if (!stream)
        return;
    BlockByteStreamRelease(&stream->bytestream);
    BlockChainRelease(stream->frame);
    stream->frame = nullptr;
    stream->frameTail = &stream->frame;
}

MediaBlock* Mpeg4VideoPacketizer::Packetize(PACK_STREAM* stream, MediaBlock** ppBlock) {
    (void)stream;
    if (!ppBlock || !*ppBlock)
        return nullptr;
    MediaBlock* block = *ppBlock;
    *ppBlock = nullptr;
    if (block->GetTimestamp() > 0)
        m_timestamp = block->GetTimestamp();
    delete block;
    return nullptr;
}
