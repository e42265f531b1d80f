// The video packetizer: H.264 and HEVC (Annex B or length-prefixed) and MPEG-4 Part 2 into
// one block per picture, with parameter sets in front of key pictures. The record
// (PACK_STREAM) holds all stream state; the object holds the syntax in use and two settings.
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
    // The last unit (no start code will follow it) and the picture collected with it.
    MediaBlock* Drain(PACK_STREAM* stream) override;

    // The captions of the last output picture as one block (owned by the caller), or null
    // when there are none; present receives the four channel-presence flags.
    MediaBlock* GetCc(PACK_STREAM* stream, bool* present);

    VIDEO_PACKET_TYPE GetType() const { return m_type; }
    bool PocZeroSplits() const { return m_pocZeroSplits; }

private:
    // Length-prefixed input (types 3 and 4): the chain of finished pictures; takes *ppBlock.
    MediaBlock* PacketizeAVC1(PACK_STREAM* stream, MediaBlock** ppBlock, VIDEO_PACKET_TYPE type);
    // One cut unit to the parser of the syntax in use; takes unit.
    MediaBlock* PacketizeParse(PACK_STREAM* stream, bool* tsUsed, MediaBlock* unit);
    int PacketizeValidate(PACK_STREAM* stream, MediaBlock* block);
    void PacketizeReset(PACK_STREAM* stream, bool broken);
    // Feeds stream-header bytes (extra data) through the splitter; outputs are discarded.
    void packetizer_Header(PACK_STREAM* stream, const uint8_t* data, int size);
    void SplitterReset(PACK_STREAM* stream);
    // Cuts the unit of size bytes at the read position (without copying when it is exactly
    // the current block); null when it could not be taken.
    MediaBlock* CutUnit(PACK_STREAM* stream, size_t size, MediaBlock** source);
    // H.264 NAL units (takes nal) and slice headers.
    MediaBlock* ParseNALBlock(PACK_STREAM* stream, bool* tsUsed, MediaBlock* nal);
    void ParseSlice(PACK_STREAM* stream, bool* newPicture, slice_t* out, int nalRefIdc, int nalType,
                    const MediaBlock* nal);
    int InitHevc(PACK_STREAM* stream);

    VIDEO_PACKET_TYPE m_type;
    long long m_timestamp;
    bool m_pocZeroSplits;
};
