// Set-up and tear-down of the video packetizer, the hand-over of cut units to the parser of
// the syntax in use, resets, and the length-prefixed input path.
#include "packetizer/mpeg4videopacket.h"

#include <cstdlib>
#include <cstring>
#include <vector>

#include "packetizer/mpeg4video_internal.h"

namespace {

// One zero byte in front of every HEVC unit, so that it also begins with 00 00 00 01.
const uint8_t kHevcPrepend[1] = {0x00};

// Smallest HEVC decoder configuration record: the fixed part before the NAL arrays.
constexpr int kHvccHeaderSize = 23;

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

// ISO/IEC 14496-15 HEVCDecoderConfigurationRecord: version 1, the reserved bits set, and a
// NAL length size of 1, 2 or 4 bytes.
bool IsHvccRecord(const uint8_t* e, int size) {
    return e && size >= kHvccHeaderSize && e[0] == 1 && e[13] >= 0xf0 && e[15] >= 0xfc &&
           e[16] >= 0xfc && e[17] >= 0xf8 && e[18] >= 0xf8 && (e[21] & 3) != 2;
}

// The record's NAL arrays as Annex B; false when a length runs past the end.
bool HvccToAnnexB(const uint8_t* e, int size, std::vector<uint8_t>* out) {
    int pos = kHvccHeaderSize;
    const int arrays = e[22];
    for (int a = 0; a < arrays; ++a) {
        if (pos + 3 > size)
            return false;
        const int count = GetWBE(e + pos + 1);
        pos += 3;
        for (int k = 0; k < count; ++k) {
            if (pos + 2 > size)
                return false;
            const int length = GetWBE(e + pos);
            pos += 2;
            if (pos + length > size)
                return false;
            out->insert(out->end(), kStartCode4, kStartCode4 + 4);
            out->insert(out->end(), e + pos, e + pos + length);
            pos += length;
        }
    }
    return true;
}

void ClearH264State(PACK_STREAM* s) {
    s->slicePending = false;
    s->headerSent = false;
    H264ParamSetsRelease(s);
    s->nalLengthSize = 0;
    s->slice = slice_t{-1, -1, 0, -1, -1, 0, -1, -1, -1, -1, 0, 0};
    s->picDts = -1;
    s->picPts = -1;
    s->ccFlags = 0;
    s->ccPts = 0;
    s->ccDts = 0;
    CCDataInit(&s->cc);
    CCDataInit(&s->ccNext);
}

void ClearMpeg4State(PACK_STREAM* s) {
    Mpeg4TimingReset(s);
    s->timeIncrementResolution = 0;
    s->fixedTimeIncrement = 0;
    s->seenBFrame = false;
}

}  // namespace

Mpeg4VideoPacketizer::Mpeg4VideoPacketizer(unsigned int flags)
    : m_type(VIDEO_PACKET_NONE), m_timestamp(0), m_pocZeroSplits((flags % 2) != 0) {}

void Mpeg4VideoPacketizer::SplitterReset(PACK_STREAM* s) {
    s->splitState = 0;
    s->splitOffset = 0;
    s->shortStartCode = false;
}

int Mpeg4VideoPacketizer::InitPacket(PACK_STREAM* s) {
    if (!s)
        return -1;
    // A record set up before gives back what it owns first.
    FreePacket(s);
    s->flushing = false;
    s->auPrependSize = 0;
    s->auPrepend = nullptr;
    s->findStartCode = nullptr;
    s->hevcNalLengthSize = 0;
    m_timestamp = 0;
    m_type = VIDEO_PACKET_NONE;

    switch (TypeOfCodec(s->fmt.i_codec)) {
        case VIDEO_PACKET_MPEG4:
            ClearMpeg4State(s);
            s->startCode = kStartCode3;
            s->startCodeSize = 3;
            m_type = VIDEO_PACKET_MPEG4;
            if (s->fmt.p_extra && s->fmt.i_extra > 0)
                ParseVOL(s, &s->fmt, s->fmt.p_extra, s->fmt.i_extra);
            return 0;
        case VIDEO_PACKET_H264:
            if (s->fmt.i_codec == kCodecAvc1 && (!s->fmt.p_extra || s->fmt.i_extra < 7))
                return -1;
            s->startCode = kStartCode4;
            s->startCodeSize = 4;
            ClearH264State(s);
            s->fmt.i_codec = kCodecH264;
            m_type = VIDEO_PACKET_H264;
            if (s->fmt.p_extra && s->fmt.i_extra > 0)
                packetizer_Header(s, s->fmt.p_extra, s->fmt.i_extra);
            return 0;
        case VIDEO_PACKET_HEVC:
            return InitHevc(s);
        default:
            return -1;
    }
}

int Mpeg4VideoPacketizer::InitHevc(PACK_STREAM* s) {
    s->startCode = kStartCode3;
    s->startCodeSize = 3;
    s->findStartCode = FindStartCode3;
    s->auPrepend = kHevcPrepend;
    s->auPrependSize = 1;
    ESFormat& fmt = s->fmt;
    if (!IsHvccRecord(fmt.p_extra, fmt.i_extra)) {
        m_type = VIDEO_PACKET_HEVC;
        if (fmt.p_extra && fmt.i_extra > 0)
            packetizer_Header(s, fmt.p_extra, fmt.i_extra);
        return 0;
    }
    m_type = VIDEO_PACKET_HEVC_HVCC;
    s->hevcNalLengthSize = (fmt.p_extra[21] & 3) + 1;
    std::vector<uint8_t> annexb;
    if (!HvccToAnnexB(fmt.p_extra, fmt.i_extra, &annexb) || annexb.empty()) {
        CF_LOG(LOG_CATEG_PACKETIZER, LOG_LEVEL_WARNING,
               "HEVC configuration record of %d bytes is unusable, extra data dropped.\n",
               fmt.i_extra);
        fmt.SetExtra(nullptr, 0);
        return 0;
    }
    fmt.SetExtra(annexb.data(), static_cast<int>(annexb.size()));
    packetizer_Header(s, fmt.p_extra, fmt.i_extra);
    return 0;
}

void Mpeg4VideoPacketizer::FreePacket(PACK_STREAM* s) {
    if (!s)
        return;
    BlockByteStreamRelease(&s->bytestream);
    SplitterReset(s);
    FrameRelease(s);
    H264ParamSetsRelease(s);
    HevcParamSetsRelease(s);
}

void Mpeg4VideoPacketizer::packetizer_Header(PACK_STREAM* s, const uint8_t* data, int size) {
    if (!data || size < 1)
        return;
    MediaBlock* in = new MediaBlock(size, data);
    s->flushing = true;
    // Only the parameter-set state and the format matter here; pictures are not.
    while (MediaBlock* out = Packetize(s, &in))
        BlockChainRelease(out);
    delete in;
    SplitterReset(s);
    BlockByteStreamEmpty(&s->bytestream);
    s->flushing = false;
}

MediaBlock* Mpeg4VideoPacketizer::Drain(PACK_STREAM* s) {
    if (!s)
        return nullptr;
    MediaBlock* chain = nullptr;
    MediaBlock** tail = &chain;
    const bool byteStream =
        m_type == VIDEO_PACKET_MPEG4 || m_type == VIDEO_PACKET_H264 || m_type == VIDEO_PACKET_HEVC;
    if (byteStream && s->bytestream.p_chain) {
        // Cut the bytes after the last start code as a unit, as for a stream header; an
        // empty block sets the splitter going.
        MediaBlock* in = new MediaBlock(0, nullptr);
        s->flushing = true;
        while (MediaBlock* out = Packetize(s, &in))
            BlockChainLastAppend(&tail, out);
        delete in;
        SplitterReset(s);
        BlockByteStreamEmpty(&s->bytestream);
        s->flushing = false;
    }
    MediaBlock* picture = nullptr;
    if ((m_type == VIDEO_PACKET_H264 || m_type == VIDEO_PACKET_AVC1) && s->slicePending)
        picture = OutputPicture(s);  // nothing before the first key picture, as ever
    else if ((m_type == VIDEO_PACKET_HEVC || m_type == VIDEO_PACKET_HEVC_HVCC) && s->frame)
        picture = BlockChainGather(FrameTake(s));
    if (picture) {
        picture->SetTimestamp(m_timestamp);
        BlockChainLastAppend(&tail, picture);
    }
    return chain;
}

MediaBlock* Mpeg4VideoPacketizer::PacketizeParse(PACK_STREAM* s, bool* tsUsed, MediaBlock* unit) {
    *tsUsed = false;
    switch (m_type) {
        case VIDEO_PACKET_MPEG4: {
            const long long dts = unit->GetDTS();
            const long long pts = unit->GetPTS();
            MediaBlock* out = ParseMPEGBlock(s, unit);
            *tsUsed = out && out->GetDTS() == dts && out->GetPTS() == pts;
            return out;
        }
        case VIDEO_PACKET_H264:
        case VIDEO_PACKET_HEVC_HVCC:
        case VIDEO_PACKET_HEVC: {
            // Zeros in front of the next start code belong to no unit.
            unsigned long size = unit->GetBufferSize();
            const uint8_t* data = unit->GetBuffer();
            while (size >= 6 && data[size - 1] == 0)
                --size;
            unit->SetBufferSize(size);
            return m_type == VIDEO_PACKET_H264 ? ParseNALBlock(s, tsUsed, unit)
                                               : ParseNALBlockHEVC(s, tsUsed, unit);
        }
        default:
            delete unit;
            return nullptr;
    }
}

int Mpeg4VideoPacketizer::PacketizeValidate(PACK_STREAM* s, MediaBlock* block) {
    if (m_type != VIDEO_PACKET_MPEG4)
        return 0;
    if (s->pts < 1 && s->dts < 1) {
        CF_LOG_RAW("need a starting pts/dts\n");
        return -1;
    }
    if (block->GetDTS() == 0)
        block->SetDTS(block->GetPTS());
    return 0;
}

void Mpeg4VideoPacketizer::PacketizeReset(PACK_STREAM* s, bool broken) {
    switch (m_type) {
        case VIDEO_PACKET_H264:
            if (broken) {
                FrameRelease(s);
                s->slice.frame_type = 0;
                s->slicePending = false;
            }
            s->picPts = -1;
            s->picDts = -1;
            break;
        case VIDEO_PACKET_HEVC_HVCC:
        case VIDEO_PACKET_HEVC:
            FrameRelease(s);
            break;
        case VIDEO_PACKET_MPEG4:
            if (broken)
                FrameRelease(s);
            Mpeg4TimingReset(s);
            break;
        default:
            break;
    }
}

MediaBlock* Mpeg4VideoPacketizer::PacketizeAVC1(PACK_STREAM* s, MediaBlock** ppBlock,
                                                VIDEO_PACKET_TYPE type) {
    MediaBlock* in = *ppBlock;
    *ppBlock = nullptr;
    if (!in)
        return nullptr;
    if (in->GetFlags() & (BLOCK_FLAG_DISCONTINUITY | BLOCK_FLAG_CORRUPTED)) {
        delete in;
        return nullptr;
    }
    // The walk reads the H.264 length size, which nothing sets: HEVC configuration-record
    // streams (type 4) keep their own in hevcNalLengthSize and therefore yield nothing here.
    const int lengthSize = s->nalLengthSize;
    MediaBlock* chain = nullptr;
    MediaBlock** tail = &chain;
    const uint8_t* p = in->GetBuffer();
    size_t left = in->GetBufferSize();
    while (lengthSize >= 1 && lengthSize <= 4 && left >= static_cast<size_t>(lengthSize)) {
        size_t length = 0;
        for (int i = 0; i < lengthSize; ++i)
            length = (length << 8) | p[i];
        p += lengthSize;
        left -= static_cast<size_t>(lengthSize);
        if (length < 1 || length > left)
            break;
        MediaBlock* nal = CreateAnnexbNAL(s, p, static_cast<int>(length));
        nal->SetDTS(in->GetDTS());
        nal->SetPTS(in->GetPTS());
        bool tsUsed = false;
        MediaBlock* out = type == VIDEO_PACKET_AVC1 ? ParseNALBlock(s, &tsUsed, nal)
                                                    : ParseNALBlockHEVC(s, &tsUsed, nal);
        if (out)
            BlockChainLastAppend(&tail, out);
        p += length;
        left -= length;
    }
    delete in;
    return chain;
}
