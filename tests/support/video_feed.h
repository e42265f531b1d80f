// Feeding a video packetizer the way the library does: elementary streams cut as an RTSP
// receiver delivers them (one NAL unit per frame, without start code; one MPEG-4 Part 2
// picture per frame), wrapped and driven as StreamPacker::Process and DoPacketize do, or
// handed over in arbitrary chunks. Header-only: the tests and the benchmarks share it.
#pragma once

#include <sys/time.h>

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "core/esformat.h"
#include "core/mediablock.h"
#include "packetizer/packetizer.h"

namespace testsupport {

// Offsets of every 00 00 01 in data (of its first byte).
inline std::vector<size_t> StartCodes3(const uint8_t* d, size_t n) {
    std::vector<size_t> out;
    for (size_t i = 0; i + 3 <= n; ++i)
        if (d[i] == 0 && d[i + 1] == 0 && d[i + 2] == 1) {
            out.push_back(i);
            i += 2;
        }
    return out;
}

// The NAL units of an Annex B stream without their start codes; the zero bytes of a longer
// start code belong to no unit.
inline std::vector<std::string> SplitAnnexB(const std::string& data) {
    const uint8_t* d = reinterpret_cast<const uint8_t*>(data.data());
    std::vector<size_t> codes = StartCodes3(d, data.size());
    std::vector<std::string> units;
    for (size_t k = 0; k < codes.size(); ++k) {
        size_t begin = codes[k] + 3;
        size_t end = k + 1 < codes.size() ? codes[k + 1] : data.size();
        while (end > begin && d[end - 1] == 0)
            --end;
        if (end > begin)
            units.push_back(data.substr(begin, end - begin));
    }
    return units;
}

// MPEG-4 Part 2 frames: every unit up to and including a VOP (start code 00 00 01 B6), start
// codes kept, as an RTP depacketizer hands them over.
inline std::vector<std::string> SplitMpeg4Frames(const std::string& data) {
    const uint8_t* d = reinterpret_cast<const uint8_t*>(data.data());
    std::vector<size_t> codes = StartCodes3(d, data.size());
    std::vector<std::string> frames;
    size_t begin = codes.empty() ? 0 : codes[0];
    for (size_t k = 0; k < codes.size(); ++k) {
        if (codes[k] + 3 < data.size() && d[codes[k] + 3] == 0xb6) {
            size_t end = k + 1 < codes.size() ? codes[k + 1] : data.size();
            frames.push_back(data.substr(begin, end - begin));
            begin = end;
        }
    }
    return frames;
}

inline long long WallClockUs() {
    timeval tv;
    gettimeofday(&tv, nullptr);
    return static_cast<long long>(tv.tv_sec) * 1000000 + tv.tv_usec;
}

// Calls sink(block) for every block of an output chain, detached; the sink owns them.
template <typename Sink>
void DrainChain(MediaBlock* chain, Sink&& sink) {
    while (chain) {
        MediaBlock* next = chain->GetNext();
        chain->SetNext(nullptr);
        sink(chain);
        chain = next;
    }
}

// Packetize until it returns null, as the stream packer's DoPacketize does.
template <typename Sink>
void Drive(Packetizer& p, PACK_STREAM& s, MediaBlock* block, Sink&& sink) {
    MediaBlock* local = block;
    while (MediaBlock* out = p.Packetize(&s, &local))
        DrainChain(out, sink);
    delete local;  // null unless the packetizer broke its contract
}

// One received frame as StreamPacker::Process wraps it: H.264 and HEVC frames get an Annex B
// start code in front, PTS = DTS = the receive time masked to 56 bits, the arrival time set.
template <typename Sink>
void FeedFrame(Packetizer& p, PACK_STREAM& s, const uint8_t* data, size_t size, int64_t timeUs,
               Sink&& sink) {
    const uint32_t codec = s.fmt.i_codec;
    const bool annexB = codec == kCodecH264 || codec == kCodecHevc;
    const size_t lead = annexB ? 4 : 0;
    MediaBlock* block = new MediaBlock(static_cast<int>(size + lead), nullptr);
    if (annexB) {
        static const uint8_t kStart[4] = {0, 0, 0, 1};
        memcpy(block->GetBuffer(), kStart, 4);
    }
    memcpy(block->GetBuffer() + lead, data, size);
    const long long pts = timeUs & 0x00FFFFFFFFFFFFFFLL;
    block->SetPTS(pts);
    block->SetDTS(pts);
    block->SetTimestamp(WallClockUs());
    Drive(p, s, block, sink);
}

// Raw bytes as one block (no start code added) with the given timestamps.
template <typename Sink>
void FeedBytes(Packetizer& p, PACK_STREAM& s, const uint8_t* data, size_t size, int64_t pts,
               Sink&& sink) {
    MediaBlock* block = new MediaBlock(static_cast<int>(size), data);
    block->SetPTS(pts);
    block->SetDTS(pts);
    Drive(p, s, block, sink);
}

}  // namespace testsupport
