// H.264 NAL units one at a time: where a picture ends and the next begins, which units are
// kept for the picture being collected, and when the finished picture leaves.
#include <cstdlib>
#include <cstring>

#include "packer/bitstream.h"
#include "packetizer/mpeg4video_internal.h"
#include "packetizer/mpeg4videopacket.h"

namespace {

// slice_type 0..9 to the block flag: P, B, I, SP (as P), SI (as I), twice.
constexpr uint32_t kSliceTypeFlag[10] = {
    BLOCK_FLAG_TYPE_P, BLOCK_FLAG_TYPE_B, BLOCK_FLAG_TYPE_I, BLOCK_FLAG_TYPE_P, BLOCK_FLAG_TYPE_I,
    BLOCK_FLAG_TYPE_P, BLOCK_FLAG_TYPE_B, BLOCK_FLAG_TYPE_I, BLOCK_FLAG_TYPE_P, BLOCK_FLAG_TYPE_I};

// The slice header fields that decide a picture boundary lie in the first bytes.
constexpr int kSliceHeaderBytes = 60;

// Before the first key picture has left, only units of an I picture are worth keeping.
void KeepOrRelease(PACK_STREAM* s, MediaBlock* nal) {
    if (s->headerSent || s->slice.frame_type == static_cast<int32_t>(BLOCK_FLAG_TYPE_I))
        FrameAppend(s, nal);
    else
        delete nal;
}

}  // namespace

int DecodeNALInto(uint8_t* dst, const uint8_t* src, int size) {
    int n = 0;
    int i = 0;
    while (i < size) {
        if (size - i > 3 && src[i] == 0 && src[i + 1] == 0 && src[i + 2] == 3) {
            dst[n++] = 0;
            dst[n++] = 0;
            i += 3;
        } else {
            dst[n++] = src[i++];
        }
    }
    return n;
}

void CreateDecodedNAL(uint8_t** out, int* outSize, const uint8_t* src, int size) {
    *out = nullptr;
    *outSize = 0;
    if (!src || size < 1)
        return;
    uint8_t* dst = static_cast<uint8_t*>(malloc(static_cast<size_t>(size)));
    if (!dst)
        return;
    *outSize = DecodeNALInto(dst, src, size);
    *out = dst;
}

MediaBlock* CreateAnnexbNAL(PACK_STREAM* s, const uint8_t* nal, int size) {
    (void)s;
    if (!nal || size < 0)
        return nullptr;
    MediaBlock* block = new MediaBlock(size + 4, nullptr);
    memcpy(block->GetBuffer(), kStartCode4, 4);
    if (size > 0)
        memcpy(block->GetBuffer() + 4, nal, static_cast<size_t>(size));
    return block;
}

MediaBlock* Mpeg4VideoPacketizer::ParseNALBlock(PACK_STREAM* s, bool* tsUsed, MediaBlock* nal) {
    *tsUsed = false;
    if (!nal) {
        CF_LOG_RAW("NULL block\n");
        return nullptr;
    }
    if (nal->GetBufferSize() < 5) {
        delete nal;
        return nullptr;
    }
    const uint8_t header = nal->GetBuffer()[4];
    const int type = header & 31;
    const int refIdc = (header >> 5) & 3;
    const long long dts = nal->GetDTS();
    const long long pts = nal->GetPTS();
    const bool haveSets = s->hasSps && s->hasPps;
    bool newPicture = false;
    MediaBlock* out = nullptr;

    if (s->slicePending && !haveSets) {
        FrameRelease(s);
        s->slice.frame_type = 0;
        s->slicePending = false;
        CCDataFlush(&s->ccNext);
    }

    if (type >= 1 && type <= 5) {
        if (haveSets) {
            slice_t slice;
            ParseSlice(s, &newPicture, &slice, refIdc, type, nal);
            if (newPicture && s->slicePending)
                out = OutputPicture(s);
            s->slice = slice;
        }
        s->slicePending = true;
        KeepOrRelease(s, nal);
    } else if (type == 7) {
        if (s->slicePending)
            out = OutputPicture(s);
        PutSPS(s, nal);
    } else if (type == 8) {
        if (s->slicePending)
            out = OutputPicture(s);
        PutPPS(s, nal);
        if (!s->fmt.p_extra && s->hasSps && s->hasPps)
            BuildH264Extra(s);
    } else if (type == 9 || type == 6 || (type >= 13 && type <= 18)) {
        if (s->slicePending)
            out = OutputPicture(s);
        if (type == 6)
            ParseSei(s, nal);
        KeepOrRelease(s, nal);
    } else {
        KeepOrRelease(s, nal);
    }

    if (newPicture && s->picDts < 0 && s->picPts < 0) {
        s->picDts = dts;
        s->picPts = pts;
        *tsUsed = true;
    }
    return out;
}

void Mpeg4VideoPacketizer::ParseSlice(PACK_STREAM* s, bool* newPicture, slice_t* out, int nalRefIdc,
                                      int nalType, const MediaBlock* nal) {
    uint8_t rbsp[kSliceHeaderBytes];
    const int avail = static_cast<int>(nal->GetBufferSize()) - 5;
    const int n = DecodeNALInto(rbsp, nal->GetBuffer() + 5,
                                avail < kSliceHeaderBytes ? avail : kSliceHeaderBytes);
    BIT_STREAM bs;
    BitStreamInit(&bs, rbsp, n);

    const slice_t& prev = s->slice;
    slice_t cur;
    cur.nal_type = nalType;
    cur.nal_ref_idc = nalRefIdc;
    bs_read_ue(&bs);  // first_mb_in_slice
    const uint32_t sliceType = bs_read_ue(&bs);
    cur.frame_type = sliceType < 10 ? static_cast<int32_t>(kSliceTypeFlag[sliceType]) : 0;
    cur.pps_id = static_cast<int32_t>(bs_read_ue(&bs));
    cur.frame_num = static_cast<int32_t>(BitStreamRead(&bs, s->log2MaxFrameNum + 4));
    cur.field_pic = 0;
    cur.bottom_field = -1;
    if (!s->frameMbsOnly) {
        cur.field_pic = static_cast<int32_t>(BitStreamRead1(&bs));
        if (cur.field_pic)
            cur.bottom_field = static_cast<int32_t>(BitStreamRead1(&bs));
    }
    cur.idr_pic_id = nalType == 5 ? static_cast<int32_t>(bs_read_ue(&bs)) : prev.idr_pic_id;
    cur.pic_order_cnt_lsb = -1;
    cur.delta_pic_order_cnt_bottom = -1;
    cur.delta_pic_order_cnt0 = 0;
    cur.delta_pic_order_cnt1 = 0;
    if (s->pocType == 0) {
        cur.pic_order_cnt_lsb = static_cast<int32_t>(BitStreamRead(&bs, s->log2MaxPocLsb + 4));
        if (s->picOrderPresent && !cur.field_pic)
            cur.delta_pic_order_cnt_bottom = bs_read_se(&bs);
    } else if (s->pocType == 1 && !s->deltaPicOrderAlwaysZero) {
        cur.delta_pic_order_cnt0 = bs_read_se(&bs);
        if (s->picOrderPresent && !cur.field_pic)
            cur.delta_pic_order_cnt1 = bs_read_se(&bs);
    }

    bool isNew = true;
    if (cur.frame_num == prev.frame_num && cur.pps_id == prev.pps_id &&
        cur.field_pic == prev.field_pic)
        isNew = cur.nal_ref_idc != prev.nal_ref_idc;
    if (cur.bottom_field != -1 && cur.bottom_field != prev.bottom_field && prev.bottom_field != -1)
        isNew = true;
    if (s->pocType == 0) {
        if (cur.pic_order_cnt_lsb != prev.pic_order_cnt_lsb ||
            cur.delta_pic_order_cnt_bottom != prev.delta_pic_order_cnt_bottom)
            isNew = true;
        else if (m_pocZeroSplits &&
                 (cur.pic_order_cnt_lsb == 0 || cur.delta_pic_order_cnt_bottom == 0))
            isNew = true;
    } else if (s->pocType == 1) {
        if (cur.delta_pic_order_cnt0 != prev.delta_pic_order_cnt0 ||
            cur.delta_pic_order_cnt1 != prev.delta_pic_order_cnt1)
            isNew = true;
    }
    if (nalType != 5) {
        if (prev.nal_type == 5)
            isNew = true;
    } else if (!(prev.nal_type == 5 && prev.idr_pic_id == cur.idr_pic_id)) {
        isNew = true;
    }

    *newPicture = isNew;
    *out = cur;
}
