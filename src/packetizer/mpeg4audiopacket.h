// The audio packetizer: raw AAC frames, ADTS and LOAS/LATM byte streams into one block per
// frame with sample-accurate dates; other codecs are copied through with fixed-up times.
// All state lives in the PACK_STREAM record; the packetizer is used by one thread at a time.
#pragma once

#include <cstdint>

#include "packetizer/packetizer.h"

class Mpeg4AudioPacketizer : public Packetizer {
public:
    enum Mode { kModeNone = 0, kModeRaw = 1, kModeStream = 2, kModeCopy = 3 };
    enum StreamKind { kKindUnknown = 0, kKindRaw = 1, kKindAdts = 2, kKindLoas = 3 };
    enum SyncState {
        kSyncSearch = 0,
        kSyncFound = 1,
        kSyncHeader = 2,
        kSyncNext = 3,
        kSyncWait = 4,
        kSyncSend = 5
    };

    Mpeg4AudioPacketizer();
    ~Mpeg4AudioPacketizer() override = default;

    // "mp4a" with an AudioSpecificConfig as extra data: raw frames; without: ADTS or LOAS.
    // Other known codecs: copy mode under the canonical code. -1 for unknown codecs and for
    // an AudioSpecificConfig that names no usable rate.
    int InitPacket(PACK_STREAM* stream) override;
    void FreePacket(PACK_STREAM* stream) override;
    // Takes *ppBlock. In stream mode the unconsumed rest comes back through *ppBlock after
    // every frame output; the caller calls again until null is returned.
    MediaBlock* Packetize(PACK_STREAM* stream, MediaBlock** ppBlock) override;

    int GetType() const { return m_type; }

private:
    MediaBlock* PacketizeRawBlock(PACK_STREAM* stream, MediaBlock** ppBlock);
    MediaBlock* PacketizeStreamBlock(PACK_STREAM* stream, MediaBlock** ppBlock);
    MediaBlock* CopyPacketize(PACK_STREAM* stream, MediaBlock** ppBlock);
    // Cuts the frame whose header and next sync word were found: a new block (owned by the
    // caller) or null when a LOAS frame carried nothing to output.
    MediaBlock* TakeFrame(PACK_STREAM* stream);
    // Dates the frame and publishes its parameters in the stream format.
    void SetupOutput(PACK_STREAM* stream, MediaBlock* block);
    // Frame payload size from a 9-byte ADTS header; 0 for a header to refuse.
    int ADTSSyncInfo(PACK_STREAM* stream, const uint8_t* header);
    // AudioMuxElement size from a 3-byte LOAS header; 0 for an empty one.
    int LOASSyncInfo(PACK_STREAM* stream, const uint8_t* header);
    // Reads one AudioMuxElement from frame (size bytes followed by zero padding) and writes
    // its payloads to out (room for size bytes). Returns the bytes written; 0 when there is
    // nothing to output (no configuration yet, unreadable or truncated element).
    int LOASParse(PACK_STREAM* stream, const uint8_t* frame, int size, uint8_t* out);

    int32_t m_type;
    long long m_timestamp;
};
