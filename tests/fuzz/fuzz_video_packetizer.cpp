// The video packetizer for each syntax (H.264 Annex B and length-prefixed, HEVC Annex B and
// with a configuration record, MPEG-4 Part 2), fed in blocks cut where the input says,
// directly and through StreamPacker::Process as a receiver feeds it, and drained at the end.
#include <cstddef>
#include <cstdint>

#include "fuzz_quiet.h"
#include "packer/streampacker.h"
#include "packetizer/mpeg4videopacket.h"

namespace {

const uint32_t kCodecs[] = {kCodecH264, kCodecAvc1, kCodecHevc, kCodecMp4v};

class Discard : public MediaDataHandler {
public:
    int ProcessMediaBlock(ESFormat&, MediaBlock* block) override {
        delete block;
        return 0;
    }
};

void Direct(uint32_t codec, const uint8_t* extra, size_t extraSize, const uint8_t* data,
            size_t size, size_t piece, uint8_t flags) {
    Mpeg4VideoPacketizer packetizer(flags & 1);
    PACK_STREAM stream;
    stream.fmt.Reset(VIDEO_ES, codec);
    stream.fmt.SetExtra(extra, static_cast<int>(extraSize));
    packetizer.InitPacket(&stream);
    for (size_t pos = 0; pos < size;) {
        const size_t n = piece < size - pos ? piece : size - pos;
        MediaBlock* in = new MediaBlock(static_cast<int>(n), data + pos);
        in->SetPTS(1000000 + static_cast<long long>(pos) * 40);
        in->SetDTS(in->GetPTS());
        if ((flags & 0x10) && pos > 0 && (pos / piece) % 7 == 3)
            in->SetFlags(flags & 0x20 ? 0x1000 : 0x0001);
        while (MediaBlock* out = packetizer.Packetize(&stream, &in))
            delete out;
        delete in;
        pos += n;
    }
    BlockChainRelease(packetizer.Drain(&stream));
    packetizer.FreePacket(&stream);
}

void ThroughPacker(uint32_t codec, const uint8_t* data, size_t size, size_t piece, uint8_t flags) {
    FETCH_PARAM param;
    param.iStreamMode = Codec2VideoType(static_cast<int>(codec));
    param.uFlags = flags & 1;
    StreamPacker packer(param);
    Discard handler;
    packer.SetDataHandler(&handler);
    ESFormat video, audio;
    video.Reset(VIDEO_ES, codec);
    packer.InitPackers(video, audio);
    for (size_t pos = 0; pos < size;) {
        const size_t n = piece < size - pos ? piece : size - pos;
        timeval t = Tmstmp2Tmval(1000000 + static_cast<long long>(pos));
        if (packer.Process(VIDEO_ES, const_cast<unsigned char*>(data + pos),
                           static_cast<unsigned>(n), t, 0, false) != 0)
            break;
        pos += n;
    }
    packer.Flush();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 3)
        return 0;
    // Byte 0: codec and route; byte 1: piece size; byte 2: flags; then for the codecs that
    // read extra data, a length byte and the extra data itself.
    const uint32_t codec = kCodecs[data[0] & 3];
    const bool packer = data[0] & 4;
    const size_t piece = 1 + data[1] * 7;
    const uint8_t flags = data[2];
    data += 3;
    size -= 3;
    size_t extraSize = 0;
    const uint8_t* extra = nullptr;
    if ((data[-3] & 8) && size > 0) {
        extraSize = data[0] < size - 1 ? data[0] : size - 1;
        extra = data + 1;
        data += 1 + extraSize;
        size -= 1 + extraSize;
    }
    if (packer && (codec == kCodecH264 || codec == kCodecHevc || codec == kCodecMp4v))
        ThroughPacker(codec, data, size, piece, flags);
    else
        Direct(codec, extra, extraSize, data, size, piece, flags);
    return 0;
}
