// HEVC VPS, SPS and PPS decoding (ITU-T H.265 7.3.2, E.2.1) and the slice segment header up
// to slice_type (7.3.6.1). The input comes from cameras: every count that drives a loop is
// checked against the range H.265 allows, and a set whose bits run out before its last
// needed field does not decode.
#include "packetizer/hevc_ps.h"

#include "packer/bitstream.h"

namespace {

constexpr int kMaxSubLayersMinus1 = 6;
constexpr uint32_t kMaxLayerSets = 1024;
constexpr uint32_t kMaxCpbCnt = 32;
constexpr uint32_t kMaxShortTermRpsSets = 64;
constexpr uint32_t kMaxLongTermRefPics = 32;
constexpr int kMaxDeltaPocs = 16;
constexpr uint32_t kMaxPictureSide = 16888;  // the widest picture of the highest level

// Bits of one NAL unit's RBSP, read in place past the emulation-prevention bytes.
class Reader {
public:
    Reader(const uint8_t* data, size_t size) {
        BitStreamInit(&m_bs, data, static_cast<int>(size));
        m_bs.pf_forward = hxxx_bsfw_ep3b_to_rbsp;
        m_bs.p_fwdpriv = &m_history;
    }
    Reader(const Reader&) = delete;
    Reader& operator=(const Reader&) = delete;

    uint32_t u(int bits) { return static_cast<uint32_t>(BitStreamRead(&m_bs, bits)); }
    bool flag() { return BitStreamRead1(&m_bs) != 0; }
    uint32_t ue() { return bs_read_ue(&m_bs); }
    int32_t se() { return bs_read_se(&m_bs); }
    void skip(int bits) { BitStreamSkip(&m_bs, bits); }
    // Bits are left: a real set always ends in its stop bit, so running out earlier means
    // it was cut short.
    bool more() const { return !BitStreamEof(&m_bs); }

private:
    BIT_STREAM m_bs;
    unsigned m_history = 0;
};

struct Ptl {
    uint8_t profileSpace;
    uint8_t tier;
    uint8_t profileIdc;
    uint8_t levelIdc;
};

// profile_tier_level(1, maxSubLayersMinus1), 7.3.3.
bool ParseProfileTierLevel(Reader& r, int maxSubLayersMinus1, Ptl* ptl) {
    ptl->profileSpace = static_cast<uint8_t>(r.u(2));
    ptl->tier = static_cast<uint8_t>(r.u(1));
    ptl->profileIdc = static_cast<uint8_t>(r.u(5));
    r.skip(32);  // general_profile_compatibility_flag[32]
    r.skip(4);   // progressive, interlaced, non-packed, frame-only
    r.skip(44);  // constraint flags and general_inbld_flag / reserved
    ptl->levelIdc = static_cast<uint8_t>(r.u(8));
    bool profilePresent[8] = {};
    bool levelPresent[8] = {};
    for (int i = 0; i < maxSubLayersMinus1; ++i) {
        profilePresent[i] = r.flag();
        levelPresent[i] = r.flag();
    }
    if (maxSubLayersMinus1 > 0)
        for (int i = maxSubLayersMinus1; i < 8; ++i)
            r.skip(2);  // reserved_zero_2bits
    for (int i = 0; i < maxSubLayersMinus1; ++i) {
        if (profilePresent[i])
            r.skip(88);
        if (levelPresent[i])
            r.skip(8);
    }
    return r.more();
}

// The SPS up to and including sps_seq_parameter_set_id (7.3.2.2.1).
bool ReadSpsHead(Reader& r, hevc_sps_t* sps) {
    sps->vps_id = static_cast<uint8_t>(r.u(4));
    sps->max_sub_layers_minus1 = static_cast<uint8_t>(r.u(3));
    if (sps->max_sub_layers_minus1 > kMaxSubLayersMinus1)
        return false;
    r.skip(1);  // sps_temporal_id_nesting_flag
    Ptl ptl;
    if (!ParseProfileTierLevel(r, sps->max_sub_layers_minus1, &ptl))
        return false;
    sps->general_profile_idc = ptl.profileIdc;
    sps->general_level_idc = ptl.levelIdc;
    const uint32_t id = r.ue();
    if (id > 15 || !r.more())
        return false;
    sps->sps_id = static_cast<uint8_t>(id);
    return true;
}

bool ParseSubLayerHrd(Reader& r, uint32_t cpbCnt, bool subPicParams) {
    for (uint32_t i = 0; i < cpbCnt; ++i) {
        r.ue();  // bit_rate_value_minus1
        r.ue();  // cpb_size_value_minus1
        if (subPicParams) {
            r.ue();  // cpb_size_du_value_minus1
            r.ue();  // bit_rate_du_value_minus1
        }
        r.skip(1);  // cbr_flag
    }
    return r.more();
}

// hrd_parameters(commonInfPresentFlag, maxNumSubLayersMinus1), E.2.2.
bool ParseHrd(Reader& r, bool commonInfo, int maxSubLayersMinus1) {
    bool nalHrd = false;
    bool vclHrd = false;
    bool subPicParams = false;
    if (commonInfo) {
        nalHrd = r.flag();
        vclHrd = r.flag();
        if (nalHrd || vclHrd) {
            subPicParams = r.flag();
            if (subPicParams)
                r.skip(8 + 5 + 1 + 5);
            r.skip(4 + 4);  // bit_rate_scale, cpb_size_scale
            if (subPicParams)
                r.skip(4);  // cpb_size_du_scale
            r.skip(5 + 5 + 5);
        }
    }
    for (int i = 0; i <= maxSubLayersMinus1; ++i) {
        const bool fixedGeneral = r.flag();
        bool fixedWithinCvs = true;
        if (!fixedGeneral)
            fixedWithinCvs = r.flag();
        bool lowDelay = false;
        if (fixedWithinCvs)
            r.ue();  // elemental_duration_in_tc_minus1
        else
            lowDelay = r.flag();
        uint32_t cpbCntMinus1 = 0;
        if (!lowDelay) {
            cpbCntMinus1 = r.ue();
            if (cpbCntMinus1 >= kMaxCpbCnt)
                return false;
        }
        if (nalHrd && !ParseSubLayerHrd(r, cpbCntMinus1 + 1, subPicParams))
            return false;
        if (vclHrd && !ParseSubLayerHrd(r, cpbCntMinus1 + 1, subPicParams))
            return false;
    }
    return r.more();
}

// vui_parameters(), E.2.1.
bool ParseVui(Reader& r, int maxSubLayersMinus1, hevc_vui_t* vui) {
    vui->aspect_ratio_info_present = r.flag();
    if (vui->aspect_ratio_info_present) {
        vui->aspect_ratio_idc = static_cast<uint8_t>(r.u(8));
        if (vui->aspect_ratio_idc == 255) {
            vui->sar_width = static_cast<uint16_t>(r.u(16));
            vui->sar_height = static_cast<uint16_t>(r.u(16));
        }
    }
    if (r.flag())   // overscan_info_present_flag
        r.skip(1);  // overscan_appropriate_flag
    vui->video_signal_type_present = r.flag();
    if (vui->video_signal_type_present) {
        vui->video_format = static_cast<uint8_t>(r.u(3));
        vui->video_full_range = r.flag();
        vui->colour_description_present = r.flag();
        if (vui->colour_description_present) {
            vui->colour_primaries = static_cast<uint8_t>(r.u(8));
            vui->transfer_characteristics = static_cast<uint8_t>(r.u(8));
            vui->matrix_coeffs = static_cast<uint8_t>(r.u(8));
        }
    }
    if (r.flag()) {  // chroma_loc_info_present_flag
        r.ue();
        r.ue();
    }
    r.skip(1);  // neutral_chroma_indication_flag
    vui->field_seq = r.flag();
    r.skip(1);       // frame_field_info_present_flag
    if (r.flag()) {  // default_display_window_flag
        r.ue();
        r.ue();
        r.ue();
        r.ue();
    }
    vui->timing_info_present = r.flag();
    if (vui->timing_info_present) {
        vui->num_units_in_tick = r.u(32);
        vui->time_scale = r.u(32);
        if (r.flag())  // vui_poc_proportional_to_timing_flag
            r.ue();    // vui_num_ticks_poc_diff_one_minus1
        if (r.flag() && !ParseHrd(r, true, maxSubLayersMinus1))
            return false;
    }
    if (r.flag()) {  // bitstream_restriction_flag
        r.skip(3);
        for (int i = 0; i < 5; ++i)
            r.ue();
    }
    return r.more();
}

void SkipScalingListData(Reader& r) {
    for (int sizeId = 0; sizeId < 4; ++sizeId) {
        for (int matrixId = 0; matrixId < 6; matrixId += sizeId == 3 ? 3 : 1) {
            if (!r.flag()) {
                r.ue();  // scaling_list_pred_matrix_id_delta
                continue;
            }
            const int coefs = 1 << (4 + (sizeId << 1)) < 64 ? 1 << (4 + (sizeId << 1)) : 64;
            if (sizeId > 1)
                r.se();  // scaling_list_dc_coef_minus8
            for (int i = 0; i < coefs; ++i)
                r.se();
        }
    }
}

// The delta POCs of one short-term reference picture set, as 7.4.8 derives them; a set may
// be predicted from an earlier one, so each must be known to read the next.
struct ShortTermRps {
    int negative;
    int positive;
    int32_t s0[kMaxDeltaPocs];
    int32_t s1[kMaxDeltaPocs];
};

bool ParseShortTermRps(Reader& r, uint32_t idx, ShortTermRps* sets) {
    ShortTermRps& rps = sets[idx];
    rps.negative = 0;
    rps.positive = 0;
    const bool predicted = idx != 0 && r.flag();
    if (!predicted) {
        const uint32_t negative = r.ue();
        const uint32_t positive = r.ue();
        if (negative > kMaxDeltaPocs || positive > kMaxDeltaPocs)
            return false;
        int32_t poc = 0;
        for (uint32_t i = 0; i < negative; ++i) {
            const uint32_t delta = r.ue();
            if (delta > 0x7fff)
                return false;
            poc -= static_cast<int32_t>(delta) + 1;
            rps.s0[i] = poc;
            r.skip(1);  // used_by_curr_pic_s0_flag
        }
        poc = 0;
        for (uint32_t i = 0; i < positive; ++i) {
            const uint32_t delta = r.ue();
            if (delta > 0x7fff)
                return false;
            poc += static_cast<int32_t>(delta) + 1;
            rps.s1[i] = poc;
            r.skip(1);  // used_by_curr_pic_s1_flag
        }
        rps.negative = static_cast<int>(negative);
        rps.positive = static_cast<int>(positive);
        return r.more();
    }

    // In the SPS the reference is always the set just before (delta_idx_minus1 is only
    // coded in slice headers).
    const ShortTermRps& ref = sets[idx - 1];
    const int sign = r.flag() ? -1 : 1;
    const uint32_t absMinus1 = r.ue();
    if (absMinus1 > 0x7fff)
        return false;
    const int32_t deltaRps = sign * (static_cast<int32_t>(absMinus1) + 1);
    const int refCount = ref.negative + ref.positive;
    bool useDelta[2 * kMaxDeltaPocs + 1];
    for (int j = 0; j <= refCount; ++j) {
        const bool used = r.flag();
        useDelta[j] = used ? true : r.flag();
    }

    int n = 0;
    for (int j = ref.positive - 1; j >= 0; --j) {
        const int32_t d = ref.s1[j] + deltaRps;
        if (d < 0 && useDelta[ref.negative + j]) {
            if (n >= kMaxDeltaPocs)
                return false;
            rps.s0[n++] = d;
        }
    }
    if (deltaRps < 0 && useDelta[refCount]) {
        if (n >= kMaxDeltaPocs)
            return false;
        rps.s0[n++] = deltaRps;
    }
    for (int j = 0; j < ref.negative; ++j) {
        const int32_t d = ref.s0[j] + deltaRps;
        if (d < 0 && useDelta[j]) {
            if (n >= kMaxDeltaPocs)
                return false;
            rps.s0[n++] = d;
        }
    }
    rps.negative = n;

    n = 0;
    for (int j = ref.negative - 1; j >= 0; --j) {
        const int32_t d = ref.s0[j] + deltaRps;
        if (d > 0 && useDelta[j]) {
            if (n >= kMaxDeltaPocs)
                return false;
            rps.s1[n++] = d;
        }
    }
    if (deltaRps > 0 && useDelta[refCount]) {
        if (n >= kMaxDeltaPocs)
            return false;
        rps.s1[n++] = deltaRps;
    }
    for (int j = 0; j < ref.positive; ++j) {
        const int32_t d = ref.s1[j] + deltaRps;
        if (d > 0 && useDelta[ref.negative + j]) {
            if (n >= kMaxDeltaPocs)
                return false;
            rps.s1[n++] = d;
        }
    }
    rps.positive = n;
    return r.more();
}

// Ceil(Log2(v)) for v >= 1.
int CeilLog2(uint64_t v) {
    int bits = 0;
    while ((uint64_t{1} << bits) < v)
        ++bits;
    return bits;
}

}  // namespace

std::unique_ptr<hevc_vps_t> hevc_decode_vps(const uint8_t* nal, size_t size) {
    if (!nal || size < 3)
        return nullptr;
    Reader r(nal + 2, size - 2);
    auto vps = std::make_unique<hevc_vps_t>();
    vps->vps_id = static_cast<uint8_t>(r.u(4));
    r.skip(1 + 1 + 6);  // base layer internal / available, vps_max_layers_minus1
    vps->max_sub_layers_minus1 = static_cast<uint8_t>(r.u(3));
    if (vps->max_sub_layers_minus1 > kMaxSubLayersMinus1)
        return nullptr;
    r.skip(1 + 16);  // temporal id nesting, reserved 0xffff
    Ptl ptl;
    if (!ParseProfileTierLevel(r, vps->max_sub_layers_minus1, &ptl))
        return nullptr;
    vps->general_profile_space = ptl.profileSpace;
    vps->general_tier_flag = ptl.tier;
    vps->general_profile_idc = ptl.profileIdc;
    vps->general_level_idc = ptl.levelIdc;
    const bool orderingInfo = r.flag();
    for (int i = orderingInfo ? 0 : vps->max_sub_layers_minus1; i <= vps->max_sub_layers_minus1;
         ++i) {
        r.ue();  // vps_max_dec_pic_buffering_minus1
        r.ue();  // vps_max_num_reorder_pics
        r.ue();  // vps_max_latency_increase_plus1
    }
    const uint32_t maxLayerId = r.u(6);
    const uint32_t layerSetsMinus1 = r.ue();
    if (layerSetsMinus1 >= kMaxLayerSets)
        return nullptr;
    for (uint32_t i = 1; i <= layerSetsMinus1; ++i)
        r.skip(static_cast<int>(maxLayerId) + 1);  // layer_id_included_flag
    vps->timing_info_present = r.flag();
    if (vps->timing_info_present) {
        vps->num_units_in_tick = r.u(32);
        vps->time_scale = r.u(32);
    }
    if (!r.more())
        return nullptr;
    return vps;
}

int hevc_sps_id(const uint8_t* nal, size_t size) {
    if (!nal || size < 3)
        return -1;
    Reader r(nal + 2, size - 2);
    hevc_sps_t sps{};
    return ReadSpsHead(r, &sps) ? sps.sps_id : -1;
}

std::unique_ptr<hevc_sps_t> hevc_decode_sps(const uint8_t* nal, size_t size) {
    if (!nal || size < 3)
        return nullptr;
    Reader r(nal + 2, size - 2);
    auto sps = std::make_unique<hevc_sps_t>();
    if (!ReadSpsHead(r, sps.get()))
        return nullptr;
    const uint32_t chroma = r.ue();
    if (chroma > 3)
        return nullptr;
    sps->chroma_format_idc = static_cast<uint8_t>(chroma);
    if (chroma == 3)
        sps->separate_colour_plane = r.flag();
    sps->pic_width = r.ue();
    sps->pic_height = r.ue();
    if (sps->pic_width == 0 || sps->pic_height == 0 || sps->pic_width > kMaxPictureSide ||
        sps->pic_height > kMaxPictureSide)
        return nullptr;
    if (r.flag()) {  // conformance_window_flag
        sps->conf_win_left = r.ue();
        sps->conf_win_right = r.ue();
        sps->conf_win_top = r.ue();
        sps->conf_win_bottom = r.ue();
    }
    const uint32_t depthLuma = r.ue();
    const uint32_t depthChroma = r.ue();
    const uint32_t pocLsb = r.ue();
    if (depthLuma > 8 || depthChroma > 8 || pocLsb > 12)
        return nullptr;
    sps->bit_depth_luma = static_cast<uint8_t>(depthLuma + 8);
    sps->bit_depth_chroma = static_cast<uint8_t>(depthChroma + 8);
    sps->log2_max_poc_lsb = static_cast<uint8_t>(pocLsb + 4);
    const bool orderingInfo = r.flag();
    for (int i = orderingInfo ? 0 : sps->max_sub_layers_minus1; i <= sps->max_sub_layers_minus1;
         ++i) {
        r.ue();  // sps_max_dec_pic_buffering_minus1
        r.ue();  // sps_max_num_reorder_pics
        r.ue();  // sps_max_latency_increase_plus1
    }
    const uint32_t minCb = r.ue() + 3;
    const uint32_t diffCb = r.ue();
    const uint32_t minTb = r.ue() + 2;
    const uint32_t diffTb = r.ue();
    if (minCb > 6 || diffCb > 3 || minCb + diffCb > 6 || minTb > 5 || diffTb > 3 ||
        minTb + diffTb > 5)
        return nullptr;
    sps->log2_min_cb_size = static_cast<uint8_t>(minCb);
    sps->log2_ctb_size = static_cast<uint8_t>(minCb + diffCb);
    sps->log2_min_tb_size = static_cast<uint8_t>(minTb);
    sps->log2_max_tb_size = static_cast<uint8_t>(minTb + diffTb);
    r.ue();                    // max_transform_hierarchy_depth_inter
    r.ue();                    // max_transform_hierarchy_depth_intra
    if (r.flag() && r.flag())  // scaling_list_enabled_flag, sps_scaling_list_data_present_flag
        SkipScalingListData(r);
    r.skip(2);       // amp_enabled_flag, sample_adaptive_offset_enabled_flag
    if (r.flag()) {  // pcm_enabled_flag
        r.skip(4 + 4);
        r.ue();
        r.ue();
        r.skip(1);
    }
    const uint32_t rpsCount = r.ue();
    if (rpsCount > kMaxShortTermRpsSets)
        return nullptr;
    sps->num_short_term_ref_pic_sets = static_cast<uint8_t>(rpsCount);
    auto sets = std::make_unique<ShortTermRps[]>(kMaxShortTermRpsSets);
    for (uint32_t i = 0; i < rpsCount; ++i)
        if (!ParseShortTermRps(r, i, sets.get()))
            return nullptr;
    sps->long_term_ref_pics_present = r.flag();
    if (sps->long_term_ref_pics_present) {
        const uint32_t count = r.ue();
        if (count > kMaxLongTermRefPics)
            return nullptr;
        for (uint32_t i = 0; i < count; ++i)
            r.skip(sps->log2_max_poc_lsb + 1);  // lt_ref_pic_poc_lsb_sps, used_by_curr_pic
    }
    r.skip(2);  // sps_temporal_mvp_enabled_flag, strong_intra_smoothing_enabled_flag
    sps->vui_present = r.flag();
    if (sps->vui_present && !ParseVui(r, sps->max_sub_layers_minus1, &sps->vui))
        return nullptr;
    if (!r.more())
        return nullptr;
    return sps;
}

std::unique_ptr<hevc_pps_t> hevc_decode_pps(const uint8_t* nal, size_t size) {
    if (!nal || size < 3)
        return nullptr;
    Reader r(nal + 2, size - 2);
    const uint32_t ppsId = r.ue();
    const uint32_t spsId = r.ue();
    if (ppsId > 63 || spsId > 15)
        return nullptr;
    auto pps = std::make_unique<hevc_pps_t>();
    pps->pps_id = static_cast<uint8_t>(ppsId);
    pps->sps_id = static_cast<uint8_t>(spsId);
    pps->dependent_slice_segments_enabled = r.flag();
    pps->output_flag_present = r.flag();
    pps->num_extra_slice_header_bits = static_cast<uint8_t>(r.u(3));
    if (!r.more())
        return nullptr;
    return pps;
}

uint32_t hevc_sps_width(const hevc_sps_t* sps) {
    const uint32_t unit =
        (sps->chroma_format_idc == 1 || sps->chroma_format_idc == 2) && !sps->separate_colour_plane
            ? 2
            : 1;
    const uint64_t crop = (uint64_t{sps->conf_win_left} + sps->conf_win_right) * unit;
    return crop < sps->pic_width ? sps->pic_width - static_cast<uint32_t>(crop) : sps->pic_width;
}

uint32_t hevc_sps_height(const hevc_sps_t* sps) {
    const uint32_t unit = sps->chroma_format_idc == 1 && !sps->separate_colour_plane ? 2 : 1;
    const uint64_t crop = (uint64_t{sps->conf_win_top} + sps->conf_win_bottom) * unit;
    return crop < sps->pic_height ? sps->pic_height - static_cast<uint32_t>(crop) : sps->pic_height;
}

int hevc_slice_type(const uint8_t* nal, size_t size, uint8_t nalType,
                    hevc_pps_t* const ppsTable[64], hevc_sps_t* const spsTable[16]) {
    if (!nal || size < 3)
        return -1;
    const int layerId = ((nal[0] & 1) << 5) | (nal[1] >> 3);
    if (layerId >= 63)
        return -1;
    Reader r(nal + 2, size - 2);
    const bool firstSlice = r.flag();
    if (nalType >= 16 && nalType <= 23)
        r.skip(1);  // no_output_of_prior_pics_flag
    const uint32_t ppsId = r.ue();
    if (ppsId >= 64 || !ppsTable[ppsId])
        return -1;
    const hevc_pps_t* pps = ppsTable[ppsId];
    const hevc_sps_t* sps = pps->sps_id < 16 ? spsTable[pps->sps_id] : nullptr;
    if (!sps)
        return -1;
    bool dependent = false;
    if (!firstSlice) {
        if (pps->dependent_slice_segments_enabled)
            dependent = r.flag();
        if (sps->log2_ctb_size > 31)
            return -1;
        const uint64_t ctb = uint64_t{1} << sps->log2_ctb_size;
        const uint64_t ctbs =
            ((sps->pic_width + ctb - 1) / ctb) * ((sps->pic_height + ctb - 1) / ctb);
        r.skip(CeilLog2(ctbs));  // slice_segment_address
    }
    if (dependent)
        return -1;  // a dependent segment carries no slice_type of its own
    r.skip(pps->num_extra_slice_header_bits);
    const uint32_t sliceType = r.ue();
    if (sliceType > 2)
        return -1;
    if (pps->output_flag_present)
        r.skip(1);  // pic_output_flag
    return static_cast<int>(sliceType);
}
