// The packetizer interface and its per-stream state record. A packetizer turns raw
// elementary-stream data into whole access units (one MediaBlock per picture or audio
// frame) with timestamps, frame-type flags and an updated stream format.
//
// Contract: for every input block the caller calls Packetize(stream, &local) until it
// returns null. The packetizer owns the input from the first call (it clears or replaces
// *ppBlock); a byte-stream packetizer hands the unconsumed rest back through *ppBlock. The
// caller owns every returned block. A block flagged 0x0001 or 0x1000 resets the packetizer
// (0x1000 also drops pending data as broken) and is released.
#pragma once

#include <cstdint>

#include "core/esformat.h"
#include "core/mediablock.h"
#include "packer/blockbytestream.h"
#include "packetizer/aac_state.h"
#include "packetizer/cc.h"

// Block flags of the packetizers.
constexpr uint32_t BLOCK_FLAG_DISCONTINUITY = 0x0001;
constexpr uint32_t BLOCK_FLAG_CORRUPTED = 0x1000;
constexpr uint32_t BLOCK_FLAG_TYPE_I = 0x0002;
constexpr uint32_t BLOCK_FLAG_TYPE_P = 0x0004;
constexpr uint32_t BLOCK_FLAG_TYPE_B = 0x0008;
constexpr uint32_t BLOCK_FLAG_TYPE_S = 0x0010;  // MPEG-4 Part 2 sprite
constexpr uint32_t BLOCK_FLAG_TYPE_MASK = 0x001E;

enum VIDEO_PACKET_TYPE : int32_t {
    VIDEO_PACKET_NONE = 0,
    VIDEO_PACKET_MPEG4 = 1,      // MPEG-4 Part 2, start codes 00 00 01
    VIDEO_PACKET_H264 = 2,       // H.264 Annex B byte stream
    VIDEO_PACKET_AVC1 = 3,       // H.264, length-prefixed NAL units
    VIDEO_PACKET_HEVC_HVCC = 4,  // HEVC, length-prefixed after a configuration record
    VIDEO_PACKET_HEVC = 5        // HEVC Annex B byte stream
};

// The header fields of the previous H.264 slice, for picture-boundary decisions.
struct __tag_slice_t {
    int32_t nal_type;
    int32_t nal_ref_idc;
    int32_t frame_type;  // 2 I, 4 P, 8 B, 0 unknown
    int32_t pps_id;
    int32_t frame_num;
    int32_t field_pic;
    int32_t bottom_field;  // -1 when absent
    int32_t idr_pic_id;
    int32_t pic_order_cnt_lsb;
    int32_t delta_pic_order_cnt_bottom;  // -1 when absent
    int32_t delta_pic_order_cnt0;
    int32_t delta_pic_order_cnt1;
};
typedef __tag_slice_t slice_t;

// Decoded HEVC parameter sets (defined with the HEVC parser).
struct __tag_hevc_vps_t;
struct __tag_hevc_sps_t;
struct __tag_hevc_pps_t;

struct __tag_PACK_STREAM {
    // The stream format: input description and output format at once.
    ESFormat fmt;

    // Start-code splitter (video).
    BLOCK_BYTE_STREAM bytestream;
    int32_t splitState;  // 0 looking for the first start code, 3 for the one ending a unit
    size_t splitOffset;  // where the next search begins, from the read position
    bool flushing;       // the stream header is being fed: cut the tail as a unit too
    int32_t startCodeSize;
    const uint8_t* startCode;
    int32_t auPrependSize;
    const uint8_t* auPrepend;
    uint8_t* firstSps;  // owned: 00 00 00 01 + the first HEVC SPS/PPS/VPS seen
    uint8_t* firstPps;
    uint8_t* firstVps;
    int32_t firstSpsSize;
    int32_t firstPpsSize;
    int32_t firstVpsSize;
    BlockStartCodeFinder findStartCode;
    // H.264: the unit at the read position begins with a 3-byte start code (encoders write
    // them behind parameter sets and SEI); it is cut with a zero byte put in front.
    bool shortStartCode;

    // MPEG-4 Part 2.
    int64_t pts;
    int64_t dts;
    int64_t lastRefPts;
    int64_t lastTimeRef;
    int64_t timeRef;
    int64_t lastTime;
    int64_t lastTimeIncrement;
    uint32_t vopFlags;
    int32_t timeIncrementResolution;
    int32_t fixedTimeIncrement;
    bool seenBFrame;

    // H.264 (frame and frameTail are shared with HEVC and MPEG-4 Part 2).
    MediaBlock* frame;  // owned chain: the units of the access unit being collected
    MediaBlock** frameTail;
    int32_t frameUnits;  // units and bytes in frame: a picture that never ends is dropped
    int64_t frameBytes;
    bool slicePending;
    bool headerSent;
    bool hasSps;
    bool hasPps;
    MediaBlock* sps[32];   // owned
    MediaBlock* pps[256];  // owned
    int32_t nalLengthSize;
    int32_t log2MaxFrameNum;
    bool frameMbsOnly;
    int32_t pocType;
    bool deltaPicOrderAlwaysZero;
    int32_t log2MaxPocLsb;
    bool picOrderPresent;
    slice_t slice;
    int64_t picDts;  // -1 = unknown
    int64_t picPts;
    uint32_t ccFlags;
    int64_t ccPts;
    int64_t ccDts;
    CC_DATA cc;
    CC_DATA ccNext;

    // HEVC.
    int32_t hevcNalLengthSize;
    __tag_hevc_vps_t* vps[16];  // owned
    __tag_hevc_sps_t* hevcSps[16];
    __tag_hevc_pps_t* hevcPps[64];

    // AAC.
    int32_t syncState;   // 0 searching, 1 found, 2 header, 3 next sync, 4 waiting, 5 sending
    int32_t streamKind;  // 1 raw; stream mode: 0 unknown, 2 ADTS, 3 LOAS
    BLOCK_BYTE_STREAM audioBytestream;
    audio_date_t endDate;
    int64_t syncPts;
    int32_t frameSize;
    int32_t channels;
    int32_t rate;
    int32_t frameLength;
    int32_t headerSize;
    latm_mux_t latm;
    bool latmConfigured;
    MediaBlock* pendingBlock;  // copy mode's held-back block
    uint32_t skippedBytes;     // bytes skipped while looking for sync, for the resync log
    bool ascFromHeader;        // fmt's extra data was built from a header not yet confirmed
    uint32_t latmWarned;       // LATM sample requests already logged (one bit each)

    // A record with every field zeroed or null and an empty format.
    __tag_PACK_STREAM();
    __tag_PACK_STREAM(const __tag_PACK_STREAM&) = delete;
    __tag_PACK_STREAM& operator=(const __tag_PACK_STREAM&) = delete;
};
typedef __tag_PACK_STREAM PACK_STREAM;

class Packetizer {
public:
    virtual ~Packetizer() = default;
    // 0 when the record's format is one this packetizer handles, else -1.
    virtual int InitPacket(PACK_STREAM* stream) = 0;
    // Releases everything the record owns.
    virtual void FreePacket(PACK_STREAM* stream) = 0;
    // Takes *ppBlock, returns at most one finished unit (owned by the caller) or null.
    virtual MediaBlock* Packetize(PACK_STREAM* stream, MediaBlock** ppBlock) = 0;
    // At the end of a stream whose units arrive whole: the chain of finished units that
    // were still held waiting for more input (owned by the caller), or null.
    virtual MediaBlock* Drain(PACK_STREAM* stream) {
        (void)stream;
        return nullptr;
    }
};

// Back to a fresh record: every field zeroed or null, the format empty. Frees nothing but
// the format's extra data: release owned state with the packetizer's FreePacket first.
void PackStreamInit(PACK_STREAM* stream);
