// The byte-stream side of the video packetizer: input blocks queue up in the record's byte
// stream, units are cut at start codes and handed to the parser one at a time, and after an
// output the unread rest goes back to the caller, who pushes it again on the next call.
//
// Cost matters here: every video byte passes once through the start-code scanner, and an
// H.264 unit that arrives as exactly one block (one NAL unit per RTP frame) leaves without
// being copied.
#include "packetizer/mpeg4video_internal.h"
#include "packetizer/mpeg4videopacket.h"

namespace {

// No unit of a real stream comes near this; a larger one could not be kept in a picture
// anyway, so it is skipped instead of being copied.
constexpr size_t kMaxUnitBytes = 32 << 20;

// Bytes queued from the read position to the end of the chain.
size_t Remaining(const BLOCK_BYTE_STREAM* bs) {
    if (!bs->p_block)
        return 0;
    size_t total = bs->p_block->GetBufferSize() - bs->i_block_offset;
    for (MediaBlock* b = bs->p_block->GetNext(); b; b = b->GetNext())
        total += b->GetBufferSize();
    return total;
}

// The block in which the byte at the read position lies.
MediaBlock* BlockAtPosition(const BLOCK_BYTE_STREAM* bs) {
    MediaBlock* b = bs->p_block;
    size_t offset = bs->i_block_offset;
    while (b && offset >= b->GetBufferSize()) {
        offset -= b->GetBufferSize();
        b = b->GetNext();
    }
    return b;
}

// H.264 streams from encoders put 3-byte start codes behind parameter sets and SEI (the
// 4-byte form is only required in front of an access unit's first unit). The splitter cuts
// at 00 00 00 01, so a non-VCL unit may hold further units; it is cut short at the first
// 3-byte code and the rest becomes a unit of its own. Slices are not searched: a 3-byte
// code behind a slice only glues the next slice of the same picture to it.
bool SplitAtShortStartCode(PACK_STREAM* s, size_t* unitSize) {
    const size_t header = s->shortStartCode ? 3 : 4;
    uint8_t nalHeader = 0;
    if (*unitSize <= header || BlockPeekOffsetBytes(&s->bytestream, header, &nalHeader, 1) != 0)
        return false;
    const int type = nalHeader & 31;
    if (type >= 1 && type <= 5)
        return false;
    size_t at = header;
    if (BlockFindStartCodeFromOffset(&s->bytestream, &at, kStartCode3, 3, FindStartCode3) != 0 ||
        at >= *unitSize)
        return false;
    *unitSize = at;
    return true;
}

}  // namespace

MediaBlock* Mpeg4VideoPacketizer::CutUnit(PACK_STREAM* s, size_t size, MediaBlock** source) {
    BLOCK_BYTE_STREAM* bs = &s->bytestream;
    *source = nullptr;
    if (m_type == VIDEO_PACKET_H264 && !s->shortStartCode && s->auPrependSize == 0 && bs->p_block &&
        bs->i_block_offset == 0 && bs->p_block->GetBufferSize() == size)
        return PopCurBlockFromList(bs);

    MediaBlock* begin = BlockAtPosition(bs);
    const size_t lead = s->shortStartCode ? 1 : 0;
    const size_t prepend = static_cast<size_t>(s->auPrependSize > 0 ? s->auPrependSize : 0);
    MediaBlock* unit = new MediaBlock(static_cast<int>(prepend + lead + size), nullptr);
    uint8_t* out = unit->GetBuffer();
    for (size_t i = 0; i < prepend; ++i)
        *out++ = s->auPrepend[i];
    if (lead)
        *out++ = 0;
    BlockGetBytes(bs, out, size);
    if (begin) {
        unit->SetPTS(begin->GetPTS());
        unit->SetDTS(begin->GetDTS());
    }
    *source = begin;
    return unit;
}

MediaBlock* Mpeg4VideoPacketizer::Packetize(PACK_STREAM* s, MediaBlock** ppBlock) {
    if (!ppBlock || !*ppBlock)
        return nullptr;
    MediaBlock* in = *ppBlock;
    if (in->GetTimestamp() > 0)
        m_timestamp = in->GetTimestamp();
    if (!s || m_type < VIDEO_PACKET_MPEG4 || m_type > VIDEO_PACKET_HEVC) {
        *ppBlock = nullptr;
        delete in;
        return nullptr;
    }
    if (m_type == VIDEO_PACKET_AVC1 || m_type == VIDEO_PACKET_HEVC_HVCC) {
        MediaBlock* out = PacketizeAVC1(s, ppBlock, m_type);
        for (MediaBlock* b = out; b; b = b->GetNext())
            b->SetTimestamp(m_timestamp);
        return out;
    }

    *ppBlock = nullptr;
    if (in->GetFlags() & (BLOCK_FLAG_DISCONTINUITY | BLOCK_FLAG_CORRUPTED)) {
        const bool broken = (in->GetFlags() & BLOCK_FLAG_CORRUPTED) != 0;
        if (broken) {
            BlockByteStreamEmpty(&s->bytestream);
            SplitterReset(s);
        }
        PacketizeReset(s, broken);
        delete in;
        return nullptr;
    }

    BLOCK_BYTE_STREAM* bs = &s->bytestream;
    const MediaBlock* position = bs->p_block;
    BlockByteStreamPush(bs, in);
    if (position && bs->p_block != position) {
        // The queue hit its length limit and dropped the blocks under the read position: the
        // unit being collected lost its head. Search the next start code from where the
        // queue now begins, or the search offset would point past the data for good.
        SplitterReset(s);
    }
    const BlockStartCodeFinder find =
        s->findStartCode ? s->findStartCode
                         : (s->startCodeSize == 4 ? FindStartCode4 : FindStartCode3);
    for (;;) {
        if (s->splitState == 0) {
            if (s->shortStartCode) {
                s->splitState = 3;
                s->splitOffset = 1;
            } else {
                size_t at = s->splitOffset;
                const int found =
                    BlockFindStartCodeFromOffset(bs, &at, s->startCode, s->startCodeSize, find);
                BlockSkipBytes(bs, at);
                BlockByteStreamFlush(bs);
                s->splitOffset = 0;
                if (found != 0)
                    return nullptr;
                s->splitState = 3;
                s->splitOffset = 1;
            }
        }

        size_t next = s->splitOffset;
        size_t unitSize = 0;
        if (BlockFindStartCodeFromOffset(bs, &next, s->startCode, s->startCodeSize, find) == 0) {
            unitSize = next;
        } else {
            s->splitOffset = next;
            if (!s->flushing)
                return nullptr;
            unitSize = Remaining(bs);
            if (unitSize <= static_cast<size_t>(s->startCodeSize))
                return nullptr;
        }

        if (unitSize > kMaxUnitBytes) {
            CF_LOG(LOG_CATEG_PACKETIZER, LOG_LEVEL_WARNING, "Unit of %zu bytes skipped.\n",
                   unitSize);
            BlockSkipBytes(bs, unitSize);
            SplitterReset(s);
            continue;
        }
        const bool nextShort = m_type == VIDEO_PACKET_H264 && SplitAtShortStartCode(s, &unitSize);
        MediaBlock* source = nullptr;
        MediaBlock* unit = CutUnit(s, unitSize, &source);
        s->shortStartCode = nextShort;
        s->splitState = 0;
        s->splitOffset = 0;
        if (!unit) {
            CF_LOG_RAW("WARNING!! Failed to get current block from list.\n");
            return nullptr;
        }

        bool tsUsed = false;
        MediaBlock* out = PacketizeParse(s, &tsUsed, unit);
        // A later unit cut from the same input block must not reuse its timestamps.
        if (source && tsUsed) {
            source->SetDTS(-1);
            source->SetPTS(-1);
        }
        if (!out)
            continue;
        if (PacketizeValidate(s, out) != 0) {
            BlockChainRelease(out);
            continue;
        }
        *ppBlock = BlockByteStreamPop(bs);
        for (MediaBlock* b = out; b; b = b->GetNext())
            b->SetTimestamp(m_timestamp);
        return out;
    }
}
