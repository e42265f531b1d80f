#include "packetizer/mpeg4audiopacket.h"

#include <cstring>

#include "core/log.h"
#include "packetizer/copycodecs.h"
#include "packetizer/latmconfig.h"
#include "packetizer/mpeg4audioconfig.h"

namespace {

constexpr int kAdtsHeaderPeek = 9;  // fixed and variable header plus the CRC
constexpr int kAdtsHeaderSize = 7;
constexpr int kAdtsHeaderSizeCrc = 9;
constexpr int kLoasHeaderSize = 3;
constexpr int kAacFrameLength = 1024;
constexpr int kMaxLoasFrame = 0x1FFF;  // 13-bit audioMuxLengthBytes
// Zero bytes behind a LOAS frame while it is parsed: reads past its end land there, so a
// truncated element shows as a position past the frame (see mpeg4audioconfig.h).
constexpr int kLoasPadding = 8;

constexpr uint32_t kWarnedSubFrames = 1;
constexpr uint32_t kWarnedTimeFraming = 2;

inline bool IsResetBlock(const MediaBlock* b) {
    return (b->GetFlags() & (BLOCK_FLAG_DISCONTINUITY | BLOCK_FLAG_CORRUPTED)) != 0;
}

inline bool IsAdtsSync(const uint8_t* p) {
    return p[0] == 0xFF && (p[1] & 0xF6) == 0xF0;
}

inline bool IsLoasSync(const uint8_t* p) {
    return p[0] == 0x56 && (p[1] & 0xE0) == 0xE0;
}

const char* KindName(int kind) {
    return kind == Mpeg4AudioPacketizer::kKindLoas ? "LOAS" : "ADTS";
}

// Peeks n bytes at offset from the read position; the common case, bytes that lie in the
// current block, without walking the chain.
inline int Peek(BLOCK_BYTE_STREAM* bs, size_t offset, uint8_t* dst, size_t n) {
    const MediaBlock* b = bs->p_block;
    if (b && bs->i_block_offset + offset + n <= b->GetBufferSize()) {
        memcpy(dst, b->GetBuffer() + bs->i_block_offset + offset, n);
        return 0;
    }
    return BlockPeekOffsetBytes(bs, offset, dst, n);
}

inline uint64_t LoadBE64(const uint8_t* p) {
    uint64_t v;
    memcpy(&v, p, sizeof(v));
    return __builtin_bswap64(v);
}

inline void StoreBE64(uint8_t* p, uint64_t v) {
    v = __builtin_bswap64(v);
    memcpy(p, &v, sizeof(v));
}

// Copies bytes whole bytes that start at bit position bitPos of src; the byte after them
// must be readable. Unaligned payloads are the rule in LATM, so they go 8 bytes at a time.
void CopyBits(const uint8_t* __restrict src, int bitPos, uint8_t* __restrict dst, int bytes) {
    const uint8_t* p = src + bitPos / 8;
    const int shift = bitPos % 8;
    if (shift == 0) {
        memcpy(dst, p, static_cast<size_t>(bytes));
        return;
    }
    int i = 0;
    for (; i + 8 <= bytes; i += 8)
        StoreBE64(dst + i, (LoadBE64(p + i) << shift) | (p[i + 8] >> (8 - shift)));
    for (; i < bytes; ++i)
        dst[i] = static_cast<uint8_t>((p[i] << shift) | (p[i + 1] >> (8 - shift)));
}

// Length in bytes of one payload as PayloadLengthInfo() gives it; -1 for the CELP and HVXC
// framings, whose lengths come from codec tables this packetizer does not carry.
int PayloadLength(int frameLengthType, int frameLength, BIT_STREAM* s) {
    switch (frameLengthType) {
        case 0: {
            int length = 0;
            int byte;
            do {
                byte = static_cast<int>(BitStreamRead(s, 8));
                length += byte;
            } while (byte == 255);
            return length;
        }
        case 1:
            return frameLength + 20;
        default:
            return -1;
    }
}

}  // namespace

Mpeg4AudioPacketizer::Mpeg4AudioPacketizer() : m_type(kModeNone), m_timestamp(0) {}

int Mpeg4AudioPacketizer::InitPacket(PACK_STREAM* stream) {
    if (!stream)
        return -1;
    m_timestamp = 0;
    BlockByteStreamInit(stream->audioBytestream);
    stream->pendingBlock = nullptr;
    ESFormat& fmt = stream->fmt;

    // A session without audio hands an empty format: nothing to packetize and nothing wrong.
    if (fmt.i_codec == 0 && fmt.strDescription.empty()) {
        m_type = kModeNone;
        return 0;
    }
    if (fmt.i_codec != kCodecMp4a) {
        const uint32_t canonical = CanonicalCopyCodec(fmt);
        if (!canonical) {
            CF_LOG(LOG_CATEG_PACKETIZER, LOG_LEVEL_ERROR, "Unsupported audio codec[%s].\n",
                   GetCodec(fmt.i_codec).c_str());
            m_type = kModeNone;
            return -1;
        }
        fmt.i_codec = canonical;
        m_type = kModeCopy;
        return 0;
    }

    stream->syncState = kSyncSearch;
    aout_DateSet(&stream->endDate, 0);
    stream->syncPts = 0;
    stream->latmConfigured = false;
    memset(&stream->latm, 0, sizeof(stream->latm));
    stream->skippedBytes = 0;
    stream->ascFromHeader = false;
    stream->latmWarned = 0;
    fmt.i_cat = AUDIO_ES;
    fmt.i_codec = kCodecMp4a;

    if (fmt.i_extra < 1 || !fmt.p_extra) {
        aout_DateInit(&stream->endDate, fmt.audio.i_rate);
        m_type = kModeStream;
        stream->streamKind = kKindUnknown;
        return 0;
    }

    // An AudioSpecificConfig: only its first bytes are needed for the timing.
    const uint8_t* e = fmt.p_extra;
    const int index = fmt.i_extra >= 2 ? ((e[0] << 1) | (e[1] >> 7)) & 15 : 0;
    int rate = 0;
    uint8_t layout = 0;  // the byte holding channelConfiguration and frameLengthFlag
    if (fmt.i_extra >= 2 && index != 15) {
        rate = Mpeg4SamplerateOfIndex(index);
        layout = e[1];
    } else if (fmt.i_extra >= 5 && index == 15) {
        rate = ((e[1] & 0x7F) << 17) | (e[2] << 9) | (e[3] << 1) | (e[4] >> 7);
        layout = e[4];
    }
    if (rate <= 0) {
        CF_LOG(LOG_CATEG_PACKETIZER, LOG_LEVEL_ERROR,
               "Unusable AAC config in extra data (%d bytes).\n", fmt.i_extra);
        m_type = kModeNone;
        return -1;
    }
    stream->rate = rate;
    stream->channels = (layout >> 3) & 15;
    stream->frameLength = (layout & 0x04) ? 960 : kAacFrameLength;
    fmt.audio.i_rate = static_cast<uint32_t>(rate);
    fmt.audio.i_channels = static_cast<uint8_t>(stream->channels);
    fmt.audio.i_frame_length = static_cast<uint32_t>(stream->frameLength);
    aout_DateInit(&stream->endDate, static_cast<uint32_t>(rate));
    m_type = kModeRaw;
    stream->streamKind = kKindRaw;
    return 0;
}

void Mpeg4AudioPacketizer::FreePacket(PACK_STREAM* stream) {
    if (!stream)
        return;
    BlockByteStreamRelease(&stream->audioBytestream);
    delete stream->pendingBlock;
    stream->pendingBlock = nullptr;
}

MediaBlock* Mpeg4AudioPacketizer::Packetize(PACK_STREAM* stream, MediaBlock** ppBlock) {
    if (!stream || !ppBlock || !*ppBlock)
        return nullptr;
    if ((*ppBlock)->GetTimestamp() > 0)
        m_timestamp = (*ppBlock)->GetTimestamp();
    MediaBlock* out = nullptr;
    switch (m_type) {
        case kModeRaw:
            out = PacketizeRawBlock(stream, ppBlock);
            break;
        case kModeStream:
            out = PacketizeStreamBlock(stream, ppBlock);
            break;
        case kModeCopy:
            out = CopyPacketize(stream, ppBlock);
            break;
        default:
            delete *ppBlock;
            *ppBlock = nullptr;
            break;
    }
    if (out)
        out->SetTimestamp(m_timestamp);
    return out;
}

MediaBlock* Mpeg4AudioPacketizer::PacketizeRawBlock(PACK_STREAM* stream, MediaBlock** ppBlock) {
    MediaBlock* block = *ppBlock;
    *ppBlock = nullptr;
    audio_date_t* date = &stream->endDate;
    if (IsResetBlock(block)) {
        aout_DateSet(date, 0);
        delete block;
        return nullptr;
    }
    // Without a starting time there is nothing to count samples from.
    if (aout_DateGet(date) == 0 && block->GetPTS() == 0) {
        delete block;
        return nullptr;
    }
    if (block->GetPTS() != 0 && block->GetPTS() != aout_DateGet(date))
        aout_DateSet(date, block->GetPTS());
    const long long pts = aout_DateGet(date);
    block->SetPTS(pts);
    block->SetDTS(pts);
    block->SetLength(aout_DateIncrement(date, static_cast<uint32_t>(stream->frameLength)) - pts);
    block->SetSamples(stream->frameLength);
    block->SetRate(stream->rate);
    return block;
}

MediaBlock* Mpeg4AudioPacketizer::CopyPacketize(PACK_STREAM* stream, MediaBlock** ppBlock) {
    MediaBlock* block = *ppBlock;
    *ppBlock = nullptr;
    if (IsResetBlock(block)) {
        delete block;
        return nullptr;
    }
    if (block->GetDTS() < 1)
        block->SetDTS(block->GetPTS());
    if (block->GetDTS() < 1) {
        delete block;
        return nullptr;
    }
    // Held back by one block: its length is known only when the next one arrives.
    MediaBlock* out = stream->pendingBlock;
    stream->pendingBlock = block;
    if (out && block->GetPTS() > out->GetPTS())
        out->SetLength(block->GetPTS() - out->GetPTS());
    return out;
}

MediaBlock* Mpeg4AudioPacketizer::PacketizeStreamBlock(PACK_STREAM* stream, MediaBlock** ppBlock) {
    MediaBlock* block = *ppBlock;
    *ppBlock = nullptr;
    BLOCK_BYTE_STREAM* bs = &stream->audioBytestream;
    if (IsResetBlock(block)) {
        if (block->GetFlags() & BLOCK_FLAG_CORRUPTED) {
            stream->syncState = kSyncSearch;
            BlockByteStreamEmpty(bs);
        }
        aout_DateSet(&stream->endDate, 0);
        delete block;
        return nullptr;
    }
    if (aout_DateGet(&stream->endDate) == 0 && block->GetPTS() == 0) {
        delete block;
        return nullptr;
    }
    BlockByteStreamPush(bs, block);  // the byte stream owns it now

    uint8_t header[kAdtsHeaderPeek];
    for (;;) {
        switch (stream->syncState) {
            case kSyncSearch:
                while (Peek(bs, 0, header, 2) == 0) {
                    if (IsAdtsSync(header)) {
                        stream->streamKind = kKindAdts;
                        stream->syncState = kSyncFound;
                        break;
                    }
                    if (IsLoasSync(header)) {
                        stream->streamKind = kKindLoas;
                        stream->syncState = kSyncFound;
                        break;
                    }
                    BlockSkipByte(bs);
                    ++stream->skippedBytes;
                }
                if (stream->syncState == kSyncSearch) {
                    BlockByteStreamFlush(bs);
                    return nullptr;
                }
                break;

            case kSyncFound:
                // Nothing before the sync word is needed any more; dropping it also leaves
                // the read position in the block that holds the sync word.
                BlockByteStreamFlush(bs);
                if (stream->skippedBytes) {
                    CF_LOG(LOG_CATEG_PACKETIZER, LOG_LEVEL_DEBUG,
                           "%s sync found after skipping %u bytes.\n", KindName(stream->streamKind),
                           stream->skippedBytes);
                    stream->skippedBytes = 0;
                }
                stream->syncPts = bs->p_block ? bs->p_block->GetPTS() : 0;
                if (stream->syncPts != 0 && stream->syncPts != aout_DateGet(&stream->endDate))
                    aout_DateSet(&stream->endDate, stream->syncPts);
                stream->syncState = kSyncHeader;
                break;

            case kSyncHeader: {
                const bool adts = stream->streamKind == kKindAdts;
                if (Peek(bs, 0, header, adts ? kAdtsHeaderPeek : kLoasHeaderSize) != 0)
                    return nullptr;
                stream->frameSize =
                    adts ? ADTSSyncInfo(stream, header) : LOASSyncInfo(stream, header);
                if (stream->frameSize < 1) {
                    BlockSkipByte(bs);
                    ++stream->skippedBytes;
                    stream->syncState = kSyncSearch;
                    break;
                }
                stream->syncState = kSyncNext;
                break;
            }

            case kSyncNext: {
                if (!bs->p_block) {
                    stream->syncState = kSyncSearch;
                    BlockByteStreamFlush(bs);
                    return nullptr;
                }
                const size_t whole = size_t(stream->headerSize) + size_t(stream->frameSize);
                if (Peek(bs, whole, header, 2) != 0)
                    return nullptr;
                const bool same =
                    stream->streamKind == kKindAdts ? IsAdtsSync(header) : IsLoasSync(header);
                if (!same) {
                    stream->syncState = kSyncSearch;
                    BlockSkipByte(bs);
                    ++stream->skippedBytes;
                    break;
                }
                stream->syncState = kSyncSend;
                break;
            }

            case kSyncWait:
                if (BlockWaitBytes(bs, size_t(stream->headerSize) + size_t(stream->frameSize)))
                    return nullptr;
                stream->syncState = kSyncSend;
                break;

            case kSyncSend: {
                MediaBlock* out = TakeFrame(stream);
                stream->syncState = kSyncSearch;
                if (!out)
                    break;
                if (aout_DateGet(&stream->endDate) == 0) {
                    // The time line was reset after this frame's sync: it keeps the time
                    // of its own block, and without one it cannot be dated.
                    if (!stream->syncPts) {
                        delete out;
                        break;
                    }
                    aout_DateSet(&stream->endDate, stream->syncPts);
                }
                SetupOutput(stream, out);
                // A block's time applies to the first frame that starts in it only.
                if (bs->p_block && stream->syncPts == bs->p_block->GetPTS()) {
                    bs->p_block->SetPTS(0);
                    stream->syncPts = 0;
                }
                *ppBlock = BlockByteStreamPop(bs);  // the caller pushes the rest again
                return out;
            }

            default:
                stream->syncState = kSyncSearch;
                break;
        }
    }
}

MediaBlock* Mpeg4AudioPacketizer::TakeFrame(PACK_STREAM* stream) {
    BLOCK_BYTE_STREAM* bs = &stream->audioBytestream;
    BlockSkipBytes(bs, static_cast<size_t>(stream->headerSize));
    const int size = stream->frameSize;
    if (stream->streamKind == kKindAdts) {
        MediaBlock* out = new MediaBlock(size, nullptr);
        BlockGetBytes(bs, out->GetBuffer(), static_cast<size_t>(size));
        stream->ascFromHeader = false;  // a whole frame confirmed the header
        return out;
    }
    uint8_t frame[kMaxLoasFrame + kLoasPadding];
    BlockGetBytes(bs, frame, static_cast<size_t>(size));
    memset(frame + size, 0, kLoasPadding);
    MediaBlock* out = new MediaBlock(size, nullptr);
    const int payload = LOASParse(stream, frame, size, out->GetBuffer());
    if (payload < 1) {
        delete out;
        return nullptr;
    }
    out->SetBufferSize(static_cast<unsigned long>(payload));
    return out;
}

void Mpeg4AudioPacketizer::SetupOutput(PACK_STREAM* stream, MediaBlock* block) {
    ESFormat& fmt = stream->fmt;
    audio_date_t* date = &stream->endDate;
    if (fmt.audio.i_rate != static_cast<uint32_t>(stream->rate)) {
        // A new rate restarts the count; mid-stream, without a time of its own, the frame
        // continues where the last one ended.
        const int64_t restart = stream->syncPts ? stream->syncPts : aout_DateGet(date);
        aout_DateInit(date, static_cast<uint32_t>(stream->rate));
        aout_DateSet(date, restart);
    }
    fmt.audio.i_rate = static_cast<uint32_t>(stream->rate);
    fmt.audio.i_channels = static_cast<uint8_t>(stream->channels);
    fmt.audio.i_bytes_per_frame = static_cast<uint32_t>(stream->frameSize);
    fmt.audio.i_frame_length = static_cast<uint32_t>(stream->frameLength);

    const long long pts = aout_DateGet(date);
    block->SetPTS(pts);
    block->SetDTS(pts);
    block->SetLength(aout_DateIncrement(date, static_cast<uint32_t>(stream->frameLength)) - pts);
    block->SetSamples(stream->frameLength);
    block->SetRate(stream->rate);
}

int Mpeg4AudioPacketizer::ADTSSyncInfo(PACK_STREAM* stream, const uint8_t* h) {
    const int index = (h[2] >> 2) & 15;
    const int rate = Mpeg4SamplerateOfIndex(index);
    const int channels = ((h[2] & 1) << 2) | (h[3] >> 6);
    const int frameBytes = ((h[3] & 3) << 11) | (h[4] << 3) | (h[5] >> 5);
    // Frames of several raw data blocks are refused on purpose: one block per frame only.
    const int rawBlocks = h[6] & 3;
    if (!channels || !frameBytes || !rate || rawBlocks)
        return 0;
    stream->rate = rate;
    stream->channels = channels;
    stream->frameLength = kAacFrameLength;

    ESFormat& fmt = stream->fmt;
    if (fmt.i_extra < 1 || stream->ascFromHeader) {
        // Until a whole frame confirms this header it may be a false sync: the next
        // candidate header replaces what it wrote.
        const int profile = h[2] >> 6;
        const uint8_t asc[2] = {static_cast<uint8_t>(((profile + 1) << 3) | (index >> 1)),
                                static_cast<uint8_t>(((index & 1) << 7) | (channels << 3))};
        fmt.SetExtra(asc, 2);
        stream->ascFromHeader = true;
    }
    stream->headerSize = (h[1] & 1) ? kAdtsHeaderSize : kAdtsHeaderSizeCrc;
    return frameBytes - stream->headerSize;
}

int Mpeg4AudioPacketizer::LOASSyncInfo(PACK_STREAM* stream, const uint8_t* h) {
    stream->headerSize = kLoasHeaderSize;
    return ((h[1] & 0x1F) << 8) | h[2];
}

int Mpeg4AudioPacketizer::LOASParse(PACK_STREAM* stream, const uint8_t* frame, int size,
                                    uint8_t* out) {
    BIT_STREAM s;
    BitStreamInit(&s, frame, size + kLoasPadding);
    const int limit = size * 8;

    if (!BitStreamRead1(&s)) {  // useSameStreamMux clear: a StreamMuxConfig follows
        latm_mux_t mux;
        if (LatmReadStreamMuxConfiguration(&mux, &s) < 0 || BitStreamPos(&s) > limit) {
            CF_LOG(LOG_CATEG_PACKETIZER, LOG_LEVEL_DEBUG,
                   "Unreadable LATM stream mux config in a %d-byte frame.\n", size);
            return 0;
        }
        if (mux.i_streams >= 1) {
            const mpeg4_cfg_t& cfg = mux.stream[0].cfg;
            if (cfg.i_samplerate <= 0 || cfg.i_frame_length <= 0) {
                CF_LOG(LOG_CATEG_PACKETIZER, LOG_LEVEL_DEBUG,
                       "LATM config without a sampling rate, frame dropped.\n");
                return 0;
            }
            LatmCopyStreamMuxConfiguration(&stream->latm, &mux);
            stream->rate = cfg.i_samplerate;
            stream->channels = cfg.i_channel;
            // Sub-frames are delivered together, so the block lasts all of them.
            stream->frameLength = cfg.i_frame_length * mux.i_sub_frames;
            ESFormat& fmt = stream->fmt;
            if (fmt.i_extra < 1 && !fmt.SetExtra(cfg.p_extra, cfg.i_extra)) {
                fmt.i_extra = 0;
                return 0;
            }
            stream->latmConfigured = true;
        }
    }
    if (!stream->latmConfigured)
        return 0;

    const latm_mux_t& mux = stream->latm;
    if (mux.i_sub_frames < 1)
        return 0;
    if (mux.i_sub_frames > 1 && !(stream->latmWarned & kWarnedSubFrames)) {
        CF_LOG_RAW("latm sub frames not yet supported, please send a sample\n");
        stream->latmWarned |= kWarnedSubFrames;
    }
    if (!mux.b_same_time_framing && !(stream->latmWarned & kWarnedTimeFraming)) {
        CF_LOG_RAW("latm without same time frameing not yet supported, please send a sample\n");
        stream->latmWarned |= kWarnedTimeFraming;
    }

    constexpr int kMaxChunks = 16;
    constexpr int kMaxPayloads = kLatmMaxStreams > kMaxChunks ? kLatmMaxStreams : kMaxChunks;
    int written = 0;
    for (int sub = 0; sub < mux.i_sub_frames; ++sub) {
        // PayloadLengthInfo(): every length comes before the payloads.
        int lengths[kMaxPayloads];
        int count = 0;
        if (mux.b_same_time_framing) {
            for (int i = 0; i < mux.i_streams; ++i) {
                const auto& st = mux.stream[i];
                lengths[count++] = PayloadLength(st.i_frame_length_type, st.i_frame_length, &s);
            }
        } else {
            const int chunks = static_cast<int>(BitStreamRead(&s, 4)) + 1;
            for (int c = 0; c < chunks; ++c) {
                const int index = static_cast<int>(BitStreamRead(&s, 4));
                if (index >= mux.i_streams)
                    return 0;
                const auto& st = mux.stream[index];
                lengths[count++] = PayloadLength(st.i_frame_length_type, st.i_frame_length, &s);
                if (st.i_frame_length_type == 0)
                    BitStreamRead1(&s);  // AuEndFlag
            }
        }
        // PayloadMux().
        for (int i = 0; i < count; ++i) {
            const int pos = BitStreamPos(&s);
            if (lengths[i] < 0 || pos > limit || lengths[i] > (limit - pos) / 8) {
                CF_LOG(LOG_CATEG_PACKETIZER, LOG_LEVEL_DEBUG,
                       "LATM payload does not fit its %d-byte frame, dropped.\n", size);
                return 0;
            }
            CopyBits(frame, pos, out + written, lengths[i]);
            written += lengths[i];
            BitStreamSkip(&s, 8 * lengths[i]);
        }
    }
    return written;
}
