// The video packetizer: H.264 and HEVC (Annex B or length-prefixed) and MPEG-4 Part 2 into
// one block per picture, with parameter sets in front of key pictures.
#pragma once

#include "packetizer/packetizer.h"

class Mpeg4VideoPacketizer : public Packetizer {
public:
    // Only the lowest bit of flags is kept: it makes a slice whose picture order count LSB
    // is 0 start a new H.264 picture (cameras that never advance the order count).
    explicit Mpeg4VideoPacketizer(unsigned int flags);
    ~Mpeg4VideoPacketizer() override = default;

    int InitPacket(PACK_STREAM* stream) override;
    void FreePacket(PACK_STREAM* stream) override;
    MediaBlock* Packetize(PACK_STREAM* stream, MediaBlock** ppBlock) override;

    VIDEO_PACKET_TYPE GetType() const { return m_type; }
    bool PocZeroSplits() const { return m_pocZeroSplits; }

private:
    VIDEO_PACKET_TYPE m_type;
    long long m_timestamp;
    bool m_pocZeroSplits;
};
