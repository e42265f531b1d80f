// The audio packetizer: raw AAC frames, ADTS and LOAS/LATM byte streams into one block per
// frame with sample-accurate dates; other codecs are copied through with fixed-up times.
#pragma once

#include "packetizer/packetizer.h"

class Mpeg4AudioPacketizer : public Packetizer {
public:
    enum Mode { kModeNone = 0, kModeRaw = 1, kModeStream = 2, kModeCopy = 3 };

    Mpeg4AudioPacketizer();
    ~Mpeg4AudioPacketizer() override = default;

    int InitPacket(PACK_STREAM* stream) override;
    void FreePacket(PACK_STREAM* stream) override;
    MediaBlock* Packetize(PACK_STREAM* stream, MediaBlock** ppBlock) override;

    int GetType() const { return m_type; }

private:
    MediaBlock* CopyPacketize(PACK_STREAM* stream, MediaBlock** ppBlock);

    int32_t m_type;
    long long m_timestamp;
};
