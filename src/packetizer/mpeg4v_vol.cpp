// MPEG-4 Part 2 visual (ISO/IEC 14496-2): start-code units collected into one block per VOP,
// the picture size and time base read from the VOL, and presentation and decode times
// interpolated from the VOP time codes when the input carries few or no timestamps.
#include <cstdlib>
#include <cstring>

#include "packer/bitstream.h"
#include "packetizer/mpeg4video_internal.h"

namespace {

constexpr uint8_t kVisualObjectSequenceStart = 0xb0;
constexpr uint8_t kVisualObjectSequenceEnd = 0xb1;
constexpr uint8_t kUserData = 0xb2;
constexpr uint8_t kVop = 0xb6;
constexpr uint8_t kVolFirst = 0x20;
constexpr uint8_t kVolLast = 0x2f;
constexpr int kVbvParameterBits = 79;

// Times come from camera bytes: sums wrap instead of overflowing, products are done wide.
int64_t WrapAdd(int64_t a, int64_t b) {
    return static_cast<int64_t>(static_cast<uint64_t>(a) + static_cast<uint64_t>(b));
}

int64_t WrapSub(int64_t a, int64_t b) {
    return static_cast<int64_t>(static_cast<uint64_t>(a) - static_cast<uint64_t>(b));
}

int64_t ScaleToMicroseconds(int64_t ticks, int64_t rate) {
    const __int128 v = static_cast<__int128>(ticks) * 1000000 / rate;
    if (v > INT64_MAX)
        return INT64_MAX;
    if (v < INT64_MIN)
        return INT64_MIN;
    return static_cast<int64_t>(v);
}

int TimeIncrementBits(int32_t resolution) {
    const int bits = static_cast<int>(vlc_log2(static_cast<unsigned>(resolution) - 1)) + 1;
    return bits > 1 ? bits : 1;
}

bool SetExtraFromUnit(ESFormat* fmt, const MediaBlock* unit) {
    const int size = static_cast<int>(unit->GetBufferSize());
    if (fmt->i_extra != size || !fmt->p_extra) {
        uint8_t* grown = static_cast<uint8_t*>(realloc(fmt->p_extra, static_cast<size_t>(size)));
        if (!grown)
            return false;
        fmt->p_extra = grown;
        fmt->i_extra = size;
    }
    memcpy(fmt->p_extra, unit->GetBuffer(), static_cast<size_t>(size));
    return true;
}

}  // namespace

unsigned vlc_log2(unsigned v) {
    static const uint8_t kLog2[16] = {0, 0, 1, 1, 2, 2, 2, 2, 3, 3, 3, 3, 3, 3, 3, 3};
    unsigned n = 0;
    if (v & 0xffff0000u) {
        v >>= 16;
        n += 16;
    }
    if (v & 0xff00u) {
        v >>= 8;
        n += 8;
    }
    if (v & 0xf0u) {
        v >>= 4;
        n += 4;
    }
    return n + kLog2[v];
}

void Mpeg4TimingReset(PACK_STREAM* s) {
    s->pts = 0;
    s->dts = 0;
    s->lastRefPts = 0;
    s->lastTimeRef = 0;
    s->timeRef = 0;
    s->lastTime = 0;
    s->lastTimeIncrement = 0;
    s->vopFlags = 0;
}

int ParseVOL(PACK_STREAM* s, ESFormat* fmt, uint8_t* data, int size) {
    if (!data)
        return -1;
    const uint8_t* p = data;
    for (;;) {
        if (size < 5)
            return -1;
        if (p[0] == 0 && p[1] == 0 && p[2] == 1 && p[3] >= kVolFirst && p[3] <= kVolLast)
            break;
        ++p;
        --size;
    }
    BIT_STREAM bs;
    BitStreamInit(&bs, p + 4, size - 4);
    BitStreamSkip(&bs, 1);  // random_accessible_vol
    BitStreamSkip(&bs, 8);  // video_object_type_indication
    int verid = 1;
    if (BitStreamRead1(&bs)) {  // is_object_layer_identifier
        verid = static_cast<int>(BitStreamRead(&bs, 4));
        BitStreamSkip(&bs, 3);  // video_object_layer_priority
    }
    if (BitStreamRead(&bs, 4) == 15) {  // aspect_ratio_info: extended PAR
        BitStreamRead(&bs, 8);
        BitStreamRead(&bs, 8);
    }
    if (BitStreamRead1(&bs)) {  // vol_control_parameters
        BitStreamSkip(&bs, 2);  // chroma_format
        BitStreamSkip(&bs, 1);  // low_delay
        if (BitStreamRead1(&bs))
            BitStreamSkip(&bs, kVbvParameterBits);
    }
    const int shape = static_cast<int>(BitStreamRead(&bs, 2));
    if (shape == 3 && verid != 1)
        BitStreamSkip(&bs, 4);  // video_object_layer_shape_extension
    if (!BitStreamRead1(&bs))
        return -1;
    int32_t resolution = static_cast<int32_t>(BitStreamRead(&bs, 16));
    if (resolution == 0)
        resolution = 1;
    s->timeIncrementResolution = resolution;
    if (!BitStreamRead1(&bs))
        return -1;
    if (BitStreamRead1(&bs))  // fixed_vop_rate
        s->fixedTimeIncrement =
            static_cast<int32_t>(BitStreamRead(&bs, TimeIncrementBits(resolution)));
    if (shape != 0)
        return 0;
    BitStreamSkip(&bs, 1);
    const uint32_t width = static_cast<uint32_t>(BitStreamRead(&bs, 13));
    BitStreamSkip(&bs, 1);
    const uint32_t height = static_cast<uint32_t>(BitStreamRead(&bs, 13));
    BitStreamSkip(&bs, 1);
    fmt->video.i_width = width;
    fmt->video.i_height = height;
    fmt->video.i_visible_width = width;
    fmt->video.i_visible_height = height;
    return 0;
}

int ParseVOP(PACK_STREAM* s, const MediaBlock* unit) {
    if (unit->GetBufferSize() < 5)
        return -1;
    BIT_STREAM bs;
    BitStreamInit(&bs, unit->GetBuffer() + 4, static_cast<int>(unit->GetBufferSize()) - 4);
    const uint32_t coding = static_cast<uint32_t>(BitStreamRead(&bs, 2));
    const bool bVop = coding == 2;
    switch (coding) {
        case 0:
            s->vopFlags = BLOCK_FLAG_TYPE_I;
            break;
        case 1:
            s->vopFlags = BLOCK_FLAG_TYPE_P;
            break;
        case 2:
            s->vopFlags = BLOCK_FLAG_TYPE_B;
            s->seenBFrame = true;
            break;
        default:
            s->vopFlags = BLOCK_FLAG_TYPE_S;
            break;
    }
    uint32_t modulo = 0;
    while (BitStreamRead1(&bs))
        ++modulo;
    if (!BitStreamRead1(&bs))  // marker_bit
        return -1;
    const int32_t resolution = s->timeIncrementResolution;
    const int64_t increment =
        static_cast<int64_t>(BitStreamRead(&bs, TimeIncrementBits(resolution)));

    // The whole seconds since the last reference: a 32-bit product, as the time codes wrap.
    const int64_t seconds =
        static_cast<int32_t>(static_cast<uint32_t>(modulo) * static_cast<uint32_t>(resolution));
    int64_t base;
    if (!bVop) {
        s->lastTimeRef = s->timeRef;
        s->timeRef = WrapAdd(s->timeRef, seconds);
        base = s->timeRef;
    } else {
        base = WrapAdd(s->lastTimeRef, seconds);
    }

    const video_format_t& v = s->fmt.video;
    if (resolution < 5 && v.i_frame_rate && v.i_frame_rate_base) {
        s->pts = WrapAdd(s->pts, ScaleToMicroseconds(v.i_frame_rate_base, v.i_frame_rate));
    } else if (resolution != 0) {
        const int64_t ticks =
            WrapSub(WrapAdd(base, increment), WrapAdd(s->lastTime, s->lastTimeIncrement));
        s->pts = WrapAdd(s->pts, ScaleToMicroseconds(ticks, resolution));
    }
    s->lastTimeIncrement = increment;
    s->lastTime = base;

    const long long inPts = unit->GetPTS();
    const long long inDts = unit->GetDTS();
    if (inPts > 0)
        s->pts = inPts;
    if (inDts > 0)
        s->dts = inDts;
    if (!bVop && s->seenBFrame) {
        if (s->lastRefPts > 0)
            s->dts = s->lastRefPts;
        s->lastRefPts = s->pts;
        return 0;
    }
    s->dts = s->pts;
    if (inPts > 0)
        s->dts = inPts;
    if (inDts >= 1)
        s->dts = inDts;
    s->pts = s->dts;
    return 0;
}

MediaBlock* ParseMPEGBlock(PACK_STREAM* s, MediaBlock* unit) {
    if (!unit)
        return nullptr;
    if (unit->GetBufferSize() < 4) {
        delete unit;
        return nullptr;
    }
    const uint8_t code = unit->GetBuffer()[3];
    if (code == kVisualObjectSequenceStart || code == kVisualObjectSequenceEnd ||
        code == kUserData) {
        FrameAppend(s, unit);
        return nullptr;
    }
    if (code >= kVolFirst && code <= kVolLast) {
        if (SetExtraFromUnit(&s->fmt, unit))
            ParseVOL(s, &s->fmt, s->fmt.p_extra, s->fmt.i_extra);
        FrameAppend(s, unit);
        return nullptr;
    }
    if (!s->fmt.p_extra || s->fmt.i_extra <= 0) {
        delete unit;  // nothing can be decoded before the first VOL
        return nullptr;
    }
    FrameAppend(s, unit);
    if (code != kVop || ParseVOP(s, unit) != 0)
        return nullptr;
    MediaBlock* picture = BlockChainGather(FrameTake(s));
    picture->SetFlags(s->vopFlags);
    picture->SetPTS(s->pts);
    picture->SetDTS(s->dts);
    return picture;
}
