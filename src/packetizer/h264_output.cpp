// A finished H.264 picture leaves as one block: every I picture with all known SPS and PPS
// in front of it, so that a decoder can start at any key picture. Its captions become
// available through GetCc until the next picture leaves.
#include <cstring>

#include "packetizer/mpeg4video_internal.h"
#include "packetizer/mpeg4videopacket.h"

MediaBlock* OutputPicture(PACK_STREAM* s) {
    const bool keyPicture = s->slice.frame_type == static_cast<int32_t>(BLOCK_FLAG_TYPE_I);
    if (!s->headerSent && !keyPicture) {
        // A picture that waits for no key picture is never sent: its times must not pass on
        // to the picture that follows (the first key picture of a stream joined mid-GOP
        // would otherwise leave up to a whole GOP early).
        s->picDts = -1;
        s->picPts = -1;
        return nullptr;
    }

    MediaBlock* picture = nullptr;
    if ((!s->headerSent || keyPicture) && s->hasSps && s->hasPps) {
        MediaBlock* chain = nullptr;
        MediaBlock** tail = &chain;
        for (MediaBlock* b : s->sps)
            if (b)
                BlockChainLastAppend(&tail, BlockDuplicate(b));
        for (MediaBlock* b : s->pps)
            if (b)
                BlockChainLastAppend(&tail, BlockDuplicate(b));
        if (chain)
            s->headerSent = true;
        MediaBlock* frame = FrameTake(s);
        if (frame)
            BlockChainLastAppend(&tail, frame);
        picture = BlockChainGather(chain);
    } else {
        picture = BlockChainGather(FrameTake(s));
    }
    if (!picture) {
        // Nothing was kept for this picture: there is nothing to send.
        s->slice.frame_type = 0;
        s->picDts = -1;
        s->picPts = -1;
        s->slicePending = false;
        return nullptr;
    }

    picture->SetDTS(s->picDts);
    picture->SetPTS(s->picPts);
    picture->SetLength(0);
    picture->SetFlags(picture->GetFlags() | static_cast<uint32_t>(s->slice.frame_type));

    s->slice.frame_type = 0;
    s->picDts = -1;
    s->picPts = -1;
    s->slicePending = false;

    s->ccPts = picture->GetPTS();
    s->ccDts = picture->GetDTS();
    s->ccFlags = picture->GetFlags();
    s->cc = s->ccNext;
    CCDataFlush(&s->ccNext);
    return picture;
}

MediaBlock* Mpeg4VideoPacketizer::GetCc(PACK_STREAM* stream, bool* present) {
    if (!stream)
        return nullptr;
    if (present)
        memcpy(present, stream->cc.present, sizeof(stream->cc.present));
    if (stream->cc.size <= 0)
        return nullptr;
    MediaBlock* block = new MediaBlock(stream->cc.size, stream->cc.data);
    const long long pts = stream->cc.reorder ? stream->ccPts : stream->ccDts;
    block->SetPTS(pts);
    block->SetDTS(pts);
    block->SetFlags(stream->cc.reorder ? (stream->ccFlags & BLOCK_FLAG_TYPE_MASK)
                                       : BLOCK_FLAG_TYPE_P);
    CCDataFlush(&stream->cc);
    return block;
}
