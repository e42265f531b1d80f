// The chain of units that make up the picture being collected (frame), shared by the H.264,
// HEVC and MPEG-4 Part 2 parsers. Every change to frame goes through here so that its size
// is known: a stream whose pictures never end (a broken boundary, a camera that never
// changes its headers) must not grow memory without bound.
#include "packetizer/mpeg4video_internal.h"

namespace {
// Far above any real picture: the highest levels allow 600 slice segments per picture and
// a few MiB per coded picture.
constexpr int32_t kMaxFrameUnits = 4096;
constexpr int64_t kMaxFrameBytes = 32 << 20;

void FrameReset(PACK_STREAM* s) {
    s->frame = nullptr;
    s->frameTail = &s->frame;
    s->frameUnits = 0;
    s->frameBytes = 0;
}
}  // namespace

void FrameAppend(PACK_STREAM* s, MediaBlock* block) {
    if (!block)
        return;
    if (!s->frameTail)
        FrameReset(s);
    const int64_t size = static_cast<int64_t>(block->GetBufferSize());
    if (s->frameUnits >= kMaxFrameUnits || s->frameBytes + size > kMaxFrameBytes) {
        CF_LOG(LOG_CATEG_PACKETIZER, LOG_LEVEL_WARNING,
               "Picture of %d units, %lld bytes has no end, dropped.\n", s->frameUnits,
               static_cast<long long>(s->frameBytes));
        FrameRelease(s);
    }
    block->SetNext(nullptr);
    BlockChainLastAppend(&s->frameTail, block);
    ++s->frameUnits;
    s->frameBytes += size;
}

MediaBlock* FrameTake(PACK_STREAM* s) {
    MediaBlock* chain = s->frame;
    FrameReset(s);
    return chain;
}

void FrameRelease(PACK_STREAM* s) {
    BlockChainRelease(s->frame);
    FrameReset(s);
}

uint16_t GetWBE(const void* p) {
    const uint8_t* b = static_cast<const uint8_t*>(p);
    return static_cast<uint16_t>((b[0] << 8) | b[1]);
}
