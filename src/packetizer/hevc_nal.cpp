// HEVC NAL units one at a time: pictures are cut at the first slice segment of the next
// picture, every non-VCL unit leaves as a block of its own, and the parameter sets are
// decoded for the slice types and the stream format.
#include <cstdlib>
#include <cstring>

#include "packer/bitstream.h"
#include "packetizer/hevc_ps.h"
#include "packetizer/mpeg4video_internal.h"

namespace {

constexpr uint8_t kNalVps = 32;
constexpr uint8_t kNalSps = 33;
constexpr uint8_t kNalPps = 34;

// Offset of the NAL header behind the leading start code (zeros ended by 01), or -1.
int SkipStartCode(const uint8_t* p, size_t size) {
    size_t i = 0;
    while (i < size && p[i] == 0)
        ++i;
    if (i < 2 || i >= size || p[i] != 1)
        return -1;
    return static_cast<int>(i + 1);
}

// Colour codes of the VUI to the ESFormat values (0 unknown).
uint32_t MapPrimaries(uint8_t code) {
    static const uint8_t kMap[10] = {0, 3, 0, 0, 0, 2, 2, 2, 0, 4};
    return code < 10 ? kMap[code] : 0;
}

uint32_t MapTransfer(uint8_t code) {
    switch (code) {
        case 1:
        case 6:
        case 14:
        case 15:
            return 3;
        case 8:
            return 1;
        case 4:
            return 2;
        default:
            return 0;
    }
}

uint32_t MapMatrix(uint8_t code) {
    static const uint8_t kMap[11] = {0, 2, 0, 0, 0, 1, 1, 0, 0, 3, 3};
    return code < 11 ? kMap[code] : 0;
}

// A VPS or SPS timing pair is only usable with both parts set.
bool SetFrameRate(ESFormat* fmt, uint32_t timeScale, uint32_t unitsInTick) {
    if (!timeScale || !unitsInTick)
        return false;
    fmt->video.i_frame_rate = timeScale;
    fmt->video.i_frame_rate_base = unitsInTick;
    return true;
}

void TakeTimingFromVps(PACK_STREAM* s, const hevc_sps_t* sps) {
    const hevc_vps_t* vps = s->vps[sps->vps_id & 15];
    if (vps && vps->timing_info_present)
        SetFrameRate(&s->fmt, vps->time_scale, vps->num_units_in_tick);
}

void DescribeFromSps(PACK_STREAM* s, const hevc_sps_t* sps) {
    video_format_t& v = s->fmt.video;
    v.i_width = hevc_sps_width(sps);
    v.i_height = hevc_sps_height(sps);
    v.i_visible_width = v.i_width;
    v.i_visible_height = v.i_height;
    v.i_ctb_size = 1u << sps->log2_ctb_size;
    v.i_min_cb_size = 1u << sps->log2_min_cb_size;
    if (sps->vui_present && sps->vui.aspect_ratio_info_present) {
        static const uint16_t kSar[17][2] = {{0, 0},   {1, 1},   {12, 11}, {10, 11},  {16, 11},
                                             {40, 33}, {24, 11}, {20, 11}, {32, 11},  {80, 33},
                                             {18, 11}, {15, 11}, {64, 33}, {160, 99}, {4, 3},
                                             {3, 2},   {2, 1}};
        uint32_t w = 0;
        uint32_t h = 0;
        if (sps->vui.aspect_ratio_idc == 255) {
            w = sps->vui.sar_width;
            h = sps->vui.sar_height;
        } else if (sps->vui.aspect_ratio_idc <= 16) {
            w = kSar[sps->vui.aspect_ratio_idc][0];
            h = kSar[sps->vui.aspect_ratio_idc][1];
        }
        if (w && h && v.i_height) {
            v.i_sar_num = w;
            v.i_sar_den = h;
            v.i_aspect = static_cast<uint32_t>(uint64_t{w} * v.i_width * 432000 /
                                               (uint64_t{h} * v.i_height));
        }
    }

    if (v.i_frame_rate_base != 0)
        return;
    if (!sps->vui_present) {
        TakeTimingFromVps(s, sps);
        return;
    }
    if (!sps->vui.timing_info_present ||
        !SetFrameRate(&s->fmt, sps->vui.time_scale, sps->vui.num_units_in_tick))
        TakeTimingFromVps(s, sps);
    v.i_primaries = MapPrimaries(sps->vui.colour_primaries);
    v.i_transfer = MapTransfer(sps->vui.transfer_characteristics);
    v.i_matrix = MapMatrix(sps->vui.matrix_coeffs);
    v.b_full_range = sps->vui.video_full_range ? 1 : 0;
}

// Keeps the first parameter set of a kind, start code in front, for the extra data.
void KeepFirst(uint8_t** copy, int32_t* copySize, const uint8_t* nal, size_t size) {
    if (*copy)
        return;
    uint8_t* buf = static_cast<uint8_t*>(malloc(size + 4));
    if (!buf)
        return;
    memcpy(buf, kStartCode4, 4);
    memcpy(buf + 4, nal, size);
    *copy = buf;
    *copySize = static_cast<int32_t>(size + 4);
}

void BuildHevcExtra(PACK_STREAM* s) {
    const size_t total = static_cast<size_t>(s->firstVpsSize) + s->firstSpsSize + s->firstPpsSize;
    uint8_t* extra = static_cast<uint8_t*>(malloc(total));
    if (!extra)
        return;
    memcpy(extra, s->firstVps, s->firstVpsSize);
    memcpy(extra + s->firstVpsSize, s->firstSps, s->firstSpsSize);
    memcpy(extra + s->firstVpsSize + s->firstSpsSize, s->firstPps, s->firstPpsSize);
    free(s->fmt.p_extra);
    s->fmt.p_extra = extra;
    s->fmt.i_extra = static_cast<int32_t>(total);
}

}  // namespace

bool InsertXPS(PACK_STREAM* s, uint8_t nalType, uint8_t id, const MediaBlock* nal) {
    switch (nalType) {
        case kNalVps:
        case kNalSps:
            if (id > 15)
                return false;
            break;
        case kNalPps:
            if (id > 63)
                return false;
            break;
        default:
            return false;
    }
    if (nalType == kNalVps) {
        delete s->vps[id];
        s->vps[id] = nullptr;
    } else if (nalType == kNalSps) {
        delete s->hevcSps[id];
        s->hevcSps[id] = nullptr;
    } else {
        delete s->hevcPps[id];
        s->hevcPps[id] = nullptr;
    }

    const int header = SkipStartCode(nal->GetBuffer(), nal->GetBufferSize());
    if (header < 0)
        return false;
    const uint8_t* data = nal->GetBuffer() + header;
    const size_t size = nal->GetBufferSize() - static_cast<size_t>(header);

    if (nalType == kNalVps) {
        KeepFirst(&s->firstVps, &s->firstVpsSize, data, size);
        auto vps = hevc_decode_vps(data, size);
        if (!vps) {
            CF_LOG_RAW("Failed decoding VPS id %d\n", id);
            return false;
        }
        s->vps[id] = vps.release();
    } else if (nalType == kNalSps) {
        KeepFirst(&s->firstSps, &s->firstSpsSize, data, size);
        auto sps = hevc_decode_sps(data, size);
        if (!sps) {
            CF_LOG_RAW("Failed decoding SPS id %d\n", id);
            return false;
        }
        s->hevcSps[id] = sps.release();
    } else {
        KeepFirst(&s->firstPps, &s->firstPpsSize, data, size);
        auto pps = hevc_decode_pps(data, size);
        if (!pps) {
            CF_LOG_RAW("Failed decoding PPS id %d\n", id);
            return false;
        }
        s->hevcPps[id] = pps.release();
    }

    if (!s->fmt.p_extra && s->firstVps && s->firstSps && s->firstPps)
        BuildHevcExtra(s);
    return true;
}

MediaBlock* ParseNonVCL(PACK_STREAM* s, uint8_t nalType, MediaBlock* nal) {
    if (nalType < kNalVps || nalType > kNalPps)
        return nal;
    const int header = SkipStartCode(nal->GetBuffer(), nal->GetBufferSize());
    if (header < 0 || nal->GetBufferSize() - static_cast<size_t>(header) < 3)
        return nal;
    const uint8_t* data = nal->GetBuffer() + header;
    const size_t size = nal->GetBufferSize() - static_cast<size_t>(header);

    uint8_t id;
    if (nalType == kNalSps) {
        // Slices find their SPS through the PPS by the SPS's own id, which need not be the
        // VPS id in front of it.
        const int spsId = hevc_sps_id(data, size);
        if (spsId < 0) {
            CF_LOG_RAW("Failed decoding SPS id %d\n", spsId);
            return nal;
        }
        id = static_cast<uint8_t>(spsId);
    } else if (nalType == kNalPps) {
        BIT_STREAM bs;
        unsigned history = 0;
        BitStreamInit(&bs, data + 2, static_cast<int>(size - 2));
        bs.pf_forward = hxxx_bsfw_ep3b_to_rbsp;
        bs.p_fwdpriv = &history;
        const uint32_t v = bs_read_ue(&bs);
        id = static_cast<uint8_t>(v < 255 ? v : 255);
    } else {
        id = static_cast<uint8_t>(data[2] >> 4);  // vps_video_parameter_set_id
    }
    if (InsertXPS(s, nalType, id, nal) && nalType == kNalSps)
        DescribeFromSps(s, s->hevcSps[id]);
    return nal;
}

MediaBlock* ParseVCL(PACK_STREAM* s, uint8_t nalType, MediaBlock* nal) {
    const int header = SkipStartCode(nal->GetBuffer(), nal->GetBufferSize());
    if (header < 0 || nal->GetBufferSize() - static_cast<size_t>(header) < 3) {
        FrameAppend(s, nal);
        return nullptr;
    }
    const uint8_t* data = nal->GetBuffer() + header;
    const size_t size = nal->GetBufferSize() - static_cast<size_t>(header);
    if (!(data[2] & 0x80)) {  // first_slice_segment_in_pic_flag
        FrameAppend(s, nal);
        return nullptr;
    }

    uint32_t type;
    if (nalType >= 16 && nalType <= 21) {
        type = BLOCK_FLAG_TYPE_I;
    } else {
        // I slices outside random-access pictures leave as B on purpose: only IRAP pictures
        // are places where a decoder can start.
        const int sliceType = hevc_slice_type(data, size, nalType, s->hevcPps, s->hevcSps);
        type = sliceType == 1 ? BLOCK_FLAG_TYPE_P : BLOCK_FLAG_TYPE_B;
    }
    nal->SetFlags((nal->GetFlags() & ~BLOCK_FLAG_TYPE_MASK) | type);
    MediaBlock* out = BlockChainGather(FrameTake(s));
    FrameAppend(s, nal);
    return out;
}

MediaBlock* ParseNALBlockHEVC(PACK_STREAM* s, bool* tsUsed, MediaBlock* nal) {
    *tsUsed = false;
    if (!nal) {
        CF_LOG_RAW("NULL block\n");
        return nullptr;
    }
    if (nal->GetBufferSize() < 5) {
        CF_LOG_RAW("%d NAL too small\n", static_cast<int>(nal->GetBufferSize()));
        delete nal;
        return nullptr;
    }
    const uint8_t header = nal->GetBuffer()[4];
    if (header & 0x80) {
        CF_LOG_RAW("Forbidden zero bit not null, corrupted NAL\n");
        delete nal;
        FrameRelease(s);
        return nullptr;
    }
    const uint8_t type = static_cast<uint8_t>((header & 0x7e) >> 1);
    if (type < 32)
        return ParseVCL(s, type, nal);

    nal = ParseNonVCL(s, type, nal);
    if (!s->frame)
        return nal;
    MediaBlock* out = BlockChainGather(FrameTake(s));
    FrameAppend(s, nal);
    return out;
}

void HevcParamSetsRelease(PACK_STREAM* s) {
    for (auto*& p : s->vps) {
        delete p;
        p = nullptr;
    }
    for (auto*& p : s->hevcSps) {
        delete p;
        p = nullptr;
    }
    for (auto*& p : s->hevcPps) {
        delete p;
        p = nullptr;
    }
    free(s->firstVps);
    free(s->firstSps);
    free(s->firstPps);
    s->firstVps = s->firstSps = s->firstPps = nullptr;
    s->firstVpsSize = s->firstSpsSize = s->firstPpsSize = 0;
}
