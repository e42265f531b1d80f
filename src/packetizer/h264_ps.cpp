// H.264 sequence and picture parameter sets: stored per id for the key pictures, read for
// what the slice parser needs and for the picture geometry of the stream format.
#include <cstdlib>
#include <cstring>
#include <memory>

#include "packer/bitstream.h"
#include "packetizer/mpeg4video_internal.h"

namespace {

constexpr int kMaxSpsId = 31;
constexpr int kMaxPpsId = 255;
constexpr uint32_t kCappedLog2 = 12;
constexpr uint32_t kMaxPocCycle = 256;
constexpr int64_t kAspectScale = 432000;

// Sample aspect ratios of aspect_ratio_idc 0..16; 0 is unspecified.
constexpr uint16_t kSar[17][2] = {{0, 0},   {1, 1},    {12, 11}, {10, 11}, {16, 11}, {40, 33},
                                  {24, 11}, {20, 11},  {32, 11}, {80, 33}, {18, 11}, {15, 11},
                                  {64, 33}, {160, 99}, {4, 3},   {3, 2},   {2, 1}};

struct FreeDeleter {
    void operator()(uint8_t* p) const { free(p); }
};
using Rbsp = std::unique_ptr<uint8_t, FreeDeleter>;

bool HasChromaInfo(uint32_t profile) {
    switch (profile) {
        case 100:
        case 110:
        case 122:
        case 244:
        case 44:
        case 83:
        case 86:
            return true;
        default:
            return false;
    }
}

void SkipScalingList(BIT_STREAM* bs, int size) {
    int last = 8;
    int next = 8;
    for (int j = 0; j < size; ++j) {
        if (next != 0) {
            int delta = bs_read_se(bs);
            next = ((last + delta) % 256 + 256) % 256;
        }
        last = next == 0 ? last : next;
    }
}

void StoreBlock(MediaBlock** slot, MediaBlock* block) {
    delete *slot;
    *slot = block;
}

}  // namespace

void PutSPS(PACK_STREAM* s, MediaBlock* nal) {
    uint8_t* raw = nullptr;
    int size = 0;
    CreateDecodedNAL(&raw, &size, nal->GetBuffer() + 5, static_cast<int>(nal->GetBufferSize()) - 5);
    Rbsp rbsp(raw);
    if (!rbsp) {
        delete nal;
        return;
    }
    BIT_STREAM bs;
    BitStreamInit(&bs, rbsp.get(), size);

    const uint32_t profile = static_cast<uint32_t>(BitStreamRead(&bs, 8));
    BitStreamSkip(&bs, 16);
    const uint32_t id = bs_read_ue(&bs);
    if (id > kMaxSpsId) {
        CF_LOG(LOG_CATEG_PACKETIZER, LOG_LEVEL_DEBUG, "SPS id %u out of range, dropped.\n", id);
        delete nal;
        return;
    }

    uint32_t chromaFormat = 1;
    bool separatePlanes = false;
    if (HasChromaInfo(profile)) {
        chromaFormat = bs_read_ue(&bs);
        if (chromaFormat == 3)
            separatePlanes = BitStreamRead1(&bs) != 0;
        bs_read_ue(&bs);        // bit_depth_luma_minus8
        bs_read_ue(&bs);        // bit_depth_chroma_minus8
        BitStreamSkip(&bs, 1);  // qpprime_y_zero_transform_bypass_flag
        if (BitStreamRead1(&bs)) {
            const int lists = chromaFormat != 3 ? 8 : 12;
            for (int i = 0; i < lists; ++i)
                if (BitStreamRead1(&bs))
                    SkipScalingList(&bs, i < 6 ? 16 : 64);
        }
    }

    uint32_t v = bs_read_ue(&bs);
    s->log2MaxFrameNum = static_cast<int32_t>(v < kCappedLog2 ? v : kCappedLog2);
    s->pocType = static_cast<int32_t>(bs_read_ue(&bs));
    if (s->pocType == 0) {
        v = bs_read_ue(&bs);
        s->log2MaxPocLsb = static_cast<int32_t>(v < kCappedLog2 ? v : kCappedLog2);
    } else if (s->pocType == 1) {
        s->deltaPicOrderAlwaysZero = BitStreamRead1(&bs) != 0;
        bs_read_se(&bs);  // offset_for_non_ref_pic
        bs_read_se(&bs);  // offset_for_top_to_bottom_field
        uint32_t cycle = bs_read_ue(&bs);
        if (cycle > kMaxPocCycle)
            cycle = kMaxPocCycle;
        for (uint32_t i = 0; i < cycle; ++i)
            bs_read_se(&bs);  // offset_for_ref_frame
    }
    bs_read_ue(&bs);        // max_num_ref_frames
    BitStreamSkip(&bs, 1);  // gaps_in_frame_num_value_allowed_flag

    // Sizes come from camera bytes: computed wide, never wrapped.
    int64_t width = (static_cast<int64_t>(bs_read_ue(&bs)) + 1) * 16;
    int64_t height = (static_cast<int64_t>(bs_read_ue(&bs)) + 1) * 16;
    s->frameMbsOnly = BitStreamRead1(&bs) != 0;
    if (!s->frameMbsOnly)
        BitStreamSkip(&bs, 1);  // mb_adaptive_frame_field_flag
    BitStreamSkip(&bs, 1);      // direct_8x8_inference_flag
    if (BitStreamRead1(&bs)) {
        const int64_t left = bs_read_ue(&bs);
        const int64_t right = bs_read_ue(&bs);
        const int64_t top = bs_read_ue(&bs);
        const int64_t bottom = bs_read_ue(&bs);
        int64_t unitX = 1;
        int64_t unitY = 2 - (s->frameMbsOnly ? 1 : 0);
        if (chromaFormat != 0 && !separatePlanes) {
            if (chromaFormat == 1) {
                unitX = 2;
                unitY *= 2;
            } else if (chromaFormat == 2) {
                unitX = 2;
            }
        }
        // A window larger than the picture is ignored rather than wrapped.
        if ((left + right) * unitX < width && (top + bottom) * unitY < height) {
            width -= (left + right) * unitX;
            height -= (top + bottom) * unitY;
        }
    }
    s->fmt.video.i_width = static_cast<uint32_t>(width);
    s->fmt.video.i_height = static_cast<uint32_t>(height);
    s->fmt.video.i_visible_width = s->fmt.video.i_width;
    s->fmt.video.i_visible_height = s->fmt.video.i_height;

    if (BitStreamRead1(&bs) && BitStreamRead1(&bs)) {  // VUI, aspect_ratio_info_present_flag
        const uint32_t idc = static_cast<uint32_t>(BitStreamRead(&bs, 8));
        uint32_t sarW = 0;
        uint32_t sarH = 0;
        if (idc == 255) {
            sarW = static_cast<uint32_t>(BitStreamRead(&bs, 16));
            sarH = static_cast<uint32_t>(BitStreamRead(&bs, 16));
        } else if (idc <= 16) {
            sarW = kSar[idc][0];
            sarH = kSar[idc][1];
        }
        if (sarW && sarH) {
            s->fmt.video.i_sar_num = sarW;
            s->fmt.video.i_sar_den = sarH;
            // Wide enough for any 16-bit ratio of any coded size.
            const __int128 num = static_cast<__int128>(sarW) * width * kAspectScale;
            s->fmt.video.i_aspect =
                static_cast<uint32_t>(num / (static_cast<__int128>(sarH) * height));
        }
    }

    s->hasSps = true;
    StoreBlock(&s->sps[id], nal);
}

void PutPPS(PACK_STREAM* s, MediaBlock* nal) {
    // The ids and the one flag needed lie in the first bytes.
    uint8_t rbsp[32];
    const int avail = static_cast<int>(nal->GetBufferSize()) - 5;
    const int n = DecodeNALInto(rbsp, nal->GetBuffer() + 5, avail < 32 ? avail : 32);
    BIT_STREAM bs;
    BitStreamInit(&bs, rbsp, n);
    const uint32_t ppsId = bs_read_ue(&bs);
    const uint32_t spsId = bs_read_ue(&bs);
    if (ppsId > kMaxPpsId || spsId > kMaxSpsId) {
        CF_LOG(LOG_CATEG_PACKETIZER, LOG_LEVEL_DEBUG,
               "PPS id %u / SPS id %u out of range, dropped.\n", ppsId, spsId);
        delete nal;
        return;
    }
    BitStreamSkip(&bs, 1);  // entropy_coding_mode_flag
    s->picOrderPresent = BitStreamRead1(&bs) != 0;
    s->hasPps = true;
    StoreBlock(&s->pps[ppsId], nal);
}

void BuildH264Extra(PACK_STREAM* s) {
    size_t total = 0;
    for (MediaBlock* b : s->sps)
        if (b)
            total += b->GetBufferSize();
    for (MediaBlock* b : s->pps)
        if (b)
            total += b->GetBufferSize();
    uint8_t* extra = total ? static_cast<uint8_t*>(malloc(total)) : nullptr;
    if (!extra) {
        s->fmt.i_extra = 0;
        return;
    }
    uint8_t* out = extra;
    for (MediaBlock* b : s->sps)
        if (b) {
            memcpy(out, b->GetBuffer(), b->GetBufferSize());
            out += b->GetBufferSize();
        }
    for (MediaBlock* b : s->pps)
        if (b) {
            memcpy(out, b->GetBuffer(), b->GetBufferSize());
            out += b->GetBufferSize();
        }
    free(s->fmt.p_extra);
    s->fmt.p_extra = extra;
    s->fmt.i_extra = static_cast<int32_t>(total);
}

void H264ParamSetsRelease(PACK_STREAM* s) {
    for (MediaBlock*& b : s->sps) {
        delete b;
        b = nullptr;
    }
    for (MediaBlock*& b : s->pps) {
        delete b;
        b = nullptr;
    }
    s->hasSps = false;
    s->hasPps = false;
}
