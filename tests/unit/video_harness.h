// A video packetizer with its record, fed with crafted bytes the way the stream packer
// drives it (Packetize until null); every output is kept for the test to look at.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "nal_builder.h"
#include "packetizer/mpeg4videopacket.h"

class VideoHarness {
public:
    explicit VideoHarness(uint32_t codec, unsigned flags = 0, const std::string& extra = "")
        : packetizer(flags) {
        stream.fmt.Reset(1, codec);
        stream.fmt.SetExtra(extra.data(), static_cast<int>(extra.size()));
        init = packetizer.InitPacket(&stream);
    }
    ~VideoHarness() { packetizer.FreePacket(&stream); }

    static MediaBlock* Block(const std::string& bytes, long long pts, uint32_t flags = 0) {
        MediaBlock* b = new MediaBlock(static_cast<int>(bytes.size()),
                                       reinterpret_cast<const unsigned char*>(bytes.data()));
        b->SetPTS(pts);
        b->SetDTS(pts);
        b->SetFlags(flags);
        return b;
    }
    // Hands the block over and collects what comes out.
    void Push(MediaBlock* block) {
        MediaBlock* local = block;
        while (MediaBlock* o = packetizer.Packetize(&stream, &local)) {
            while (o) {
                MediaBlock* next = o->GetNext();
                o->SetNext(nullptr);
                out.emplace_back(o);
                o = next;
            }
        }
        delete local;
    }
    void Push(const std::string& bytes, long long pts = 0, uint32_t flags = 0) {
        Push(Block(bytes, pts, flags));
    }
    // One NAL unit (header first) as its own block behind a 4-byte start code.
    void Nal(const std::string& nal, long long pts = 0) { Push(nal::kStart4 + nal, pts); }

    std::string Bytes(size_t i) const {
        return std::string(reinterpret_cast<const char*>(out[i]->GetBuffer()),
                           out[i]->GetBufferSize());
    }
    // H.264 NAL unit types of output i, in order.
    std::vector<int> H264Types(size_t i) const { return Types(i, false); }
    std::vector<int> HevcTypes(size_t i) const { return Types(i, true); }

    Mpeg4VideoPacketizer packetizer;
    PACK_STREAM stream;
    int init = -1;
    std::vector<std::unique_ptr<MediaBlock>> out;

private:
    std::vector<int> Types(size_t i, bool hevc) const {
        std::vector<int> types;
        const uint8_t* d = out[i]->GetBuffer();
        const size_t n = out[i]->GetBufferSize();
        for (size_t k = 0; k + 3 < n; ++k)
            if (d[k] == 0 && d[k + 1] == 0 && d[k + 2] == 1) {
                types.push_back(hevc ? (d[k + 3] >> 1) & 63 : d[k + 3] & 31);
                k += 2;
            }
        return types;
    }
};
